// `carve`: the signature search over a volume's free blocks or a whole drive;
// the carved files listed as the tree command lists entries, or saved.
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <atomic>
#include <csignal>
#include <functional>

#include "carving/SignatureDatabase.h"
#include "carving/SignatureSearch.h"
#include "cli/CarveShared.h"
#include "cli/CliController.h"
#include "cli/FilterOptions.h"
#include "cli/TerminalText.h"
#include "cli/VolumeSelect.h"
#include "core/TreeListing.h"

namespace ambrel::cli {

namespace {

struct CarveOptions {
  VolumeChoice choice;
  bool wholeDrive = false;
  std::string types;
  bool all = false;
  std::string maxSize = "20MB";
  std::string range = "0%-100%";
  std::string format = "tsv";
  std::string out;
  FilterChoice filter;
};

std::atomic<Volume*> gCarving{nullptr};

extern "C" void stopCarving(int) {
  if (Volume* v = gCarving.load()) v->stopTreeThread.store(true);
}

// "START%-END%" (the % signs optional), each 0 to 100, START not above END.
bool parseRange(const std::string& text, float& start, float& end) {
  std::string t;
  for (char c : text)
    if (c != '%' && c != ' ') t += c;
  const size_t dash = t.find('-');
  if (dash == std::string::npos) return false;
  try {
    size_t used = 0;
    start = std::stof(t.substr(0, dash), &used);
    if (used != dash) return false;
    end = std::stof(t.substr(dash + 1), &used);
    if (used != t.size() - dash - 1) return false;
  } catch (const std::exception&) {
    return false;
  }
  return start >= 0 && end <= 100 && start <= end;
}

int runCarve(CarveOptions& opt) {
  float startPos = 0, endPos = 100;
  if (!parseRange(opt.range, startPos, endPos)) {
    fmt::print(stderr, "ambrel-cli: --range takes START%-END%, both from 0 to 100 (for example 0%-100%)\n");
    return 2;
  }
  std::string filterError;
  const auto filter = filterFromChoice(opt.filter, "--min-file-size", "--max-file-size", filterError);
  if (!filter) {
    fmt::print(stderr, "ambrel-cli: {}\n", filterError);
    return 2;
  }
  if (opt.all == !opt.types.empty()) {
    fmt::print(stderr, "ambrel-cli: choose the file types: --types jpg,png,... or --all\n");
    return 2;
  }

  SignatureDatabase db;
  std::vector<const Sig*> sigs;
  std::string selectError;
  if (!selectSignatures(TypeChoice{opt.types, opt.all, opt.maxSize}, opt.wholeDrive ? 3 : 2, db, sigs, selectError)) {
    fmt::print(stderr, "ambrel-cli: {}\n", selectError);
    return 2;
  }

  CliController controller;
  std::unique_ptr<Volume> volume;
  std::string error;
  if (opt.wholeDrive) {
    PlistDict drive = driveDictionaryForPath(opt.choice.path, error);
    if (drive.empty()) {
      fmt::print(stderr, "ambrel-cli: {}\n", error);
      return 2;
    }
    controller.setDrives(PlistArray{drive});
    drive.set("WhetherDiskDict", true);
    volume = std::make_unique<Volume>(drive, &controller);
    if (!volume->openDevice()) {
      fmt::print(stderr, "ambrel-cli: cannot open {} read-only\n", opt.choice.path);
      return 2;
    }
  } else {
    volume = openVolume(opt.choice, controller, error);
    if (!volume || !prepareVolumeForSignatureSearch(*volume, error)) {
      fmt::print(stderr, "ambrel-cli: {}{}\n", error, volume ? " (try --whole-drive)" : "");
      return 2;
    }
  }
  volume->startPos = startPos;
  volume->endPos = endPos;

  SleepScope awake(controller);
  SignatureSearch search(*volume, sigs);
  gCarving.store(volume.get());
  auto previous = std::signal(SIGINT, stopCarving);
  const SearchStats stats = opt.wholeDrive ? search.signatureSearchDisk() : search.signatureSearch();
  std::signal(SIGINT, previous);
  gCarving.store(nullptr);
  fmt::print(stderr, "\n");
  if (controller.terminated() || volume->isGone()) return kExitDriveGone;

  fmt::print(stderr, "Carved: {} files, {} ({} blocks of {} bytes examined)\n", volume->fileCount,
             sizeText(volume->dataSize), stats.examined, uint64_t(volume->blockSize) * 512);
  if (stats.unreadableBatches)
    fmt::print(stderr, "ambrel-cli: {} held sectors that could not be read; nothing was found in those sectors\n",
               stats.unreadableBatches == 1 ? std::string("1 batch of blocks")
                                            : fmt::format("{} batches of blocks", stats.unreadableBatches));
  if (stats.sizesCut)
    fmt::print(stderr, "ambrel-cli: {} past the end of the drive and {} cut there\n",
               stats.sizesCut == 1 ? std::string("1 file reached") : fmt::format("{} files reached", stats.sizesCut),
               stats.sizesCut == 1 ? "was" : "were");
  if (stats.notListed)
    fmt::print(stderr, "ambrel-cli: {} files lie beyond sector 4294967295 and could not be listed\n", stats.notListed);

  int status = stats.stopped ? kExitStopped : kExitDone;
  const FilteredTree filtered(*volume->dirRoot, *filter);
  if (opt.out.empty()) {
    writeTreeListing(*volume->dirRoot, opt.format == "json" ? ListingFormat::Json : ListingFormat::Tsv, stdout,
                     &filtered);
    if (stats.stopped) fmt::print(stderr, "ambrel-cli: search stopped; the listing holds what was found so far\n");
    return readOutcome(*volume, controller, status, "files there may have been missed");
  }
  if (volume->fileCount == 0) {
    fmt::print(stderr, "ambrel-cli: nothing to save\n");
    return stats.stopped ? 130 : 1;
  }
  return saveFoundTree(*volume, controller, opt.out, status, "files there may have been missed", &filtered);
}

}  // namespace

void registerCarveCommands(CLI::App& app, std::function<int()>& run) {
  static CarveOptions opt;
  auto* cmd = app.add_subcommand("carve", "Find files by their signatures in a volume's free blocks or a whole drive");
  addVolumeOptions(*cmd, opt.choice, "Drive, disk image or bare volume image");
  auto* whole = cmd->add_flag("--whole-drive", opt.wholeDrive,
                              "Search every sector of the drive instead of one volume's free blocks");
  whole->excludes("--volume")->excludes("--start")->excludes("--sectors");
  cmd->add_option("--types", opt.types, "File types to look for, by extension (jpg,png,...)");
  cmd->add_flag("--all", opt.all, "Look for every file type of the signature database");
  cmd->add_option("--max-size", opt.maxSize,
                  "Size given to a file whose length is not known: 20MB, 2GB (at most 10 GB); to leave out files "
                  "by size, see --min-file-size and --max-file-size")
      ->capture_default_str();
  cmd->add_option("--range", opt.range, "Part of the area to search, in percent: START%-END%")->capture_default_str();
  cmd->add_option("--format", opt.format, "Listing format")->check(CLI::IsMember({"tsv", "json"}));
  cmd->add_option("--out", opt.out, "Save the carved files under this folder (made when missing) instead of listing them");
  addFilterOptions(*cmd, opt.filter, "--min-file-size", "--max-file-size");
  cmd->callback([&run] { run = [] { return runCarve(opt); }; });
}

}  // namespace ambrel::cli
