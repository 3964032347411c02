// `tree`: scan a volume and list every recovered entry.
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <functional>

#include "cli/CliController.h"
#include "cli/FilterOptions.h"
#include "cli/TerminalText.h"
#include "cli/VolumeSelect.h"
#include "core/TreeListing.h"
#include "scaninfo/VolumeScanInfo.h"

namespace ambrel::cli {

namespace {

struct TreeOptions {
  VolumeChoice choice;
  bool advanced = false;
  std::string format = "tsv";
  std::string saveScanInfoPath;
  FilterChoice filter;
};

// Files whose confidence is other than sure.
size_t uncertainFiles(const HDIR& root) {
  size_t n = 0;
  std::vector<const HDIR*> stack{&root};
  while (!stack.empty()) {
    const HDIR* e = stack.back();
    stack.pop_back();
    n += e->fileType == kHDIRFile && e->confidence != Confidence::Sure;
    for (const auto& c : e->children()) stack.push_back(c.get());
  }
  return n;
}

void writeListing(const HDIR& root, const TreeOptions& opt, const EntryFilter& filter) {
  const FilteredTree filtered(root, filter);
  writeTreeListing(root, opt.format == "json" ? ListingFormat::Json : ListingFormat::Tsv, stdout, &filtered);
}

// A tree kept in a scan info file, listed as the scan that made it listed it.
int listScanInfo(const TreeOptions& opt, const EntryFilter& filter) {
  CliController controller;
  auto result = openScanInfo(opt.choice.path, &controller);
  fmt::print(stderr, "\n");
  if (!result.opened) {
    fmt::print(stderr, "ambrel-cli: {}: {}\n", result.error.title, terminalText(result.error.message));
    return 1;
  }
  writeListing(*result.opened->volume->dirRoot, opt, filter);
  keepUntilExit(std::move(result.opened->volume));
  return 0;
}

int runTree(TreeOptions& opt) {
  std::string filterError;
  const auto filter = filterFromChoice(opt.filter, "--min-size", "--max-size", filterError);
  if (!filter) {
    fmt::print(stderr, "ambrel-cli: {}\n", filterError);
    return 2;
  }
  if (isScanInfoPath(opt.choice.path)) return listScanInfo(opt, *filter);
  CliController controller;
  std::string error;
  PlistArray volumeList;
  auto opened = openVolume(opt.choice, controller, error, &volumeList);
  if (!opened) {
    fmt::print(stderr, "ambrel-cli: {}\n", error);
    return 2;
  }
  std::shared_ptr<Volume> volume = std::move(opened);
  keepUntilExit(volume);
  // Refused before a scan that may take hours, not after it.
  if (!opt.saveScanInfoPath.empty()) {
    if (auto refusal = checkScanInfoDestination(opt.saveScanInfoPath, volume->path)) {
      fmt::print(stderr, "ambrel-cli: {}: {}\n", refusal->title, terminalText(refusal->message));
      return 2;
    }
  }
  const ScanOutcome outcome = runScan(*volume, controller, opt.advanced);
  if (outcome == ScanOutcome::DriveGone) return kExitDriveGone;
  if (outcome == ScanOutcome::NothingUsable) {
    fmt::print(stderr, "ambrel-cli: no usable volume structures found; try --advanced\n");
    return readOutcome(*volume, controller, kExitFailed, "that may be why");
  }
  writeListing(*volume->dirRoot, opt, *filter);
  if (const size_t uncertain = uncertainFiles(*volume->dirRoot))
    fmt::print(stderr, "ambrel-cli: {} files listed whose content may not be right (see the confidence column)\n",
               uncertain);
  if (!opt.saveScanInfoPath.empty()) {
    auto failure = saveScanInfo(opt.saveScanInfoPath, *volume, volumeList, &controller);
    fmt::print(stderr, "\n");
    if (failure) {
      fmt::print(stderr, "ambrel-cli: {}: {}\n", failure->title, terminalText(failure->message));
      return 1;
    }
  }
  if (outcome == ScanOutcome::Stopped) {
    fmt::print(stderr, "ambrel-cli: scan stopped; the listing holds what was found so far\n");
    return kExitStopped;
  }
  return readOutcome(*volume, controller, kExitDone, "the listing may be incomplete");
}

}  // namespace

void registerTreeCommands(CLI::App& app, std::function<int()>& run) {
  static TreeOptions opt;
  auto* cmd = app.add_subcommand("tree", "Scan a volume and list every recovered file and folder");
  addVolumeOptions(*cmd, opt.choice, "Drive, disk image or bare volume image, or a scan info file (.asi) to list");
  cmd->add_flag("--advanced", opt.advanced, "Advanced scan: also search the volume for catalog nodes");
  cmd->add_option("--format", opt.format, "Listing format")->check(CLI::IsMember({"tsv", "json"}));
  cmd->add_option("--save-scan-info", opt.saveScanInfoPath, "After the scan, keep its result in this scan info file (.asi)");
  addFilterOptions(*cmd, opt.filter, "--min-size", "--max-size");
  cmd->callback([&run] { run = [] { return runTree(opt); }; });
}

}  // namespace ambrel::cli
