// `tree`: scan a volume and list every recovered entry.
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cctype>
#include <csignal>
#include <functional>

#include "cli/CliController.h"
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
};

bool isScanInfoPath(const std::string& path) {
  if (path.size() < 4) return false;
  std::string ext = path.substr(path.size() - 4);
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return ext == ".asi";
}

// A tree kept in a scan info file, listed as the scan that made it listed it.
int listScanInfo(const TreeOptions& opt) {
  CliController controller;
  auto result = openScanInfo(opt.choice.path, &controller);
  fmt::print(stderr, "\n");
  if (!result.opened) {
    fmt::print(stderr, "ambrel-cli: {}: {}\n", result.error.title, result.error.message);
    return 1;
  }
  writeTreeListing(*result.opened->volume->dirRoot, opt.format == "json" ? ListingFormat::Json : ListingFormat::Tsv,
                   stdout);
  return 0;
}

std::atomic<Volume*> gScanning{nullptr};

extern "C" void stopScan(int) {
  if (Volume* v = gScanning.load()) v->stopTreeThread.store(true);
}

// A controller that also remembers when the scan gave up on the volume.
class TreeController : public CliController {
 public:
  void destroyVolumeAndBackToPartList() override { gaveUp = true; }
  bool gaveUp = false;
};

int runTree(TreeOptions& opt) {
  if (isScanInfoPath(opt.choice.path)) return listScanInfo(opt);
  TreeController controller;
  std::string error;
  PlistArray volumeList;
  auto volume = openVolume(opt.choice, controller, error, &volumeList);
  if (!volume) {
    fmt::print(stderr, "ambrel-cli: {}\n", error);
    return 2;
  }
  gScanning.store(volume.get());
  auto previous = std::signal(SIGINT, stopScan);
  volume->startMakingTree(&controller, opt.advanced ? "Advanced Scan" : "Normal Scan");
  std::signal(SIGINT, previous);
  gScanning.store(nullptr);
  fmt::print(stderr, "\n");
  if (controller.gaveUp || !volume->dirRoot) {
    fmt::print(stderr, "ambrel-cli: no usable volume structures found; try --advanced\n");
    return 1;
  }
  writeTreeListing(*volume->dirRoot, opt.format == "json" ? ListingFormat::Json : ListingFormat::Tsv, stdout);
  if (!opt.saveScanInfoPath.empty()) {
    auto failure = saveScanInfo(opt.saveScanInfoPath, *volume, volumeList, &controller);
    fmt::print(stderr, "\n");
    if (failure) {
      fmt::print(stderr, "ambrel-cli: {}: {}\n", failure->title, failure->message);
      return 1;
    }
  }
  if (volume->stopTreeThread) {
    fmt::print(stderr, "ambrel-cli: scan stopped; the listing holds what was found so far\n");
    return 130;
  }
  return 0;
}

}  // namespace

void registerTreeCommands(CLI::App& app, std::function<int()>& run) {
  static TreeOptions opt;
  auto* cmd = app.add_subcommand("tree", "Scan a volume and list every recovered file and folder");
  cmd->add_option("PATH", opt.choice.path, "Drive, disk image or bare volume image, or a scan info file (.asi) to list")
      ->required();
  cmd->add_option("--volume", opt.choice.volumeNumber, "Volume number as the partitions command lists it (default 1)")
      ->check(CLI::PositiveNumber);
  auto* start = cmd->add_option("--start", opt.choice.startSector, "First sector of the volume");
  auto* sectors = cmd->add_option("--sectors", opt.choice.sectorCount, "Length of the volume in sectors");
  start->needs(sectors);
  sectors->needs(start);
  cmd->add_flag("--advanced", opt.advanced, "Advanced scan: also search the volume for catalog nodes");
  cmd->add_option("--format", opt.format, "Listing format")->check(CLI::IsMember({"tsv", "json"}));
  cmd->add_option("--save-scan-info", opt.saveScanInfoPath, "After the scan, keep its result in this scan info file (.asi)");
  cmd->callback([&run] { run = [] { return runTree(opt); }; });
}

}  // namespace ambrel::cli
