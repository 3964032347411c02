// `deleted`: files and folders whose records survive in the journal's old
// catalog nodes, with the signature search of the free blocks afterwards
// when asked; listed as the tree command lists entries, or saved.
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <atomic>
#include <csignal>
#include <functional>

#include "carving/SignatureSearch.h"
#include "cli/CarveShared.h"
#include "cli/CliController.h"
#include "cli/FilterOptions.h"
#include "cli/VolumeSelect.h"
#include "core/TreeListing.h"

namespace ambrel::cli {

namespace {

struct DeletedOptions {
  VolumeChoice choice;
  std::string carveTypes;
  bool carveAll = false;
  std::string format = "tsv";
  std::string out;
  FilterChoice filter;
};

std::atomic<Volume*> gSearching{nullptr};

extern "C" void stopDeletedSearch(int) {
  if (Volume* v = gSearching.load()) v->stopTreeThread.store(true);
}

int runDeleted(DeletedOptions& opt) {
  std::string filterError;
  const auto filter = filterFromChoice(opt.filter, "--min-size", "--max-size", filterError);
  if (!filter) {
    fmt::print(stderr, "ambrel-cli: {}\n", filterError);
    return kExitCannotStart;
  }
  const bool carve = opt.carveAll || !opt.carveTypes.empty();
  SignatureDatabase db;
  std::vector<const Sig*> sigs;
  if (carve) {
    std::string error;
    if (!selectSignatures(TypeChoice{opt.carveTypes, opt.carveAll, "20MB"}, 2, db, sigs, error)) {
      fmt::print(stderr, "ambrel-cli: {}\n", error);
      return kExitCannotStart;
    }
  }
  CliController controller;
  std::string error;
  auto volume = openVolume(opt.choice, controller, error);
  if (!volume) {
    fmt::print(stderr, "ambrel-cli: {}\n", error);
    return kExitCannotStart;
  }
  volume->startPos = 0;
  volume->endPos = 100;

  SleepScope awake(controller);
  gSearching.store(volume.get());
  auto previous = std::signal(SIGINT, stopDeletedSearch);
  volume->scanForDeletedFiles(&controller, true, carve, sigs);
  std::signal(SIGINT, previous);
  gSearching.store(nullptr);
  fmt::print(stderr, "\n");
  if (controller.terminated() || volume->isGone()) return kExitDriveGone;
  const bool stopped = volume->stopTreeThread.load();

  if (volume->journalSize == 0)
    fmt::print(stderr, "ambrel-cli: the volume has no journal in it to search for deleted files{}\n",
               carve ? "; the signature search was run" : "");
  else
    fmt::print(stderr, "Journal: {} bytes at byte {} of the volume, {} old catalog nodes; {} files, {}\n",
               volume->journalSize, volume->journalStart, volume->journalNodesFound, volume->fileCount,
               sizeText(volume->dataSize));
  const int status = stopped ? kExitStopped : kExitDone;
  const FilteredTree filtered(*volume->dirRoot, *filter);
  if (opt.out.empty()) {
    writeTreeListing(*volume->dirRoot, opt.format == "json" ? ListingFormat::Json : ListingFormat::Tsv, stdout,
                     &filtered);
    if (stopped) fmt::print(stderr, "ambrel-cli: search stopped; the listing holds what was found so far\n");
    return readOutcome(*volume, controller, status, "files there may have been missed");
  }
  if (volume->dirRoot->children().empty()) {
    fmt::print(stderr, "ambrel-cli: nothing to save\n");
    return stopped ? kExitStopped : kExitFailed;
  }
  return saveFoundTree(*volume, controller, opt.out, status, "files there may have been missed", &filtered);
}

}  // namespace

void registerDeletedCommands(CLI::App& app, std::function<int()>& run) {
  static DeletedOptions opt;
  auto* cmd = app.add_subcommand("deleted", "Find deleted files by name in the old catalog nodes a volume's journal keeps");
  addVolumeOptions(*cmd, opt.choice, "Drive, disk image or bare volume image");
  auto* types = cmd->add_option("--carve", opt.carveTypes,
                                "Afterwards search the free blocks for these file types too (jpg,png,...)");
  auto* all = cmd->add_flag("--carve-all", opt.carveAll, "Afterwards search the free blocks for every file type");
  types->excludes(all);
  cmd->add_option("--format", opt.format, "Listing format")->check(CLI::IsMember({"tsv", "json"}));
  cmd->add_option("--out", opt.out, "Save what was found under this folder (made when missing) instead of listing it");
  addFilterOptions(*cmd, opt.filter, "--min-size", "--max-size");
  cmd->callback([&run] { run = [] { return runDeleted(opt); }; });
}

}  // namespace ambrel::cli
