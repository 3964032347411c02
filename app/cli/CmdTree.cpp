// `tree`: scan a volume and list every recovered entry.
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <csignal>
#include <functional>

#include "cli/CliController.h"
#include "cli/VolumeSelect.h"
#include "core/TreeListing.h"

namespace ambrel::cli {

namespace {

struct TreeOptions {
  VolumeChoice choice;
  bool advanced = false;
  std::string format = "tsv";
};

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
  TreeController controller;
  std::string error;
  auto volume = openVolume(opt.choice, controller, error);
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
  cmd->add_option("PATH", opt.choice.path, "Drive, disk image or bare volume image")->required();
  cmd->add_option("--volume", opt.choice.volumeNumber, "Volume number as the partitions command lists it (default 1)")
      ->check(CLI::PositiveNumber);
  auto* start = cmd->add_option("--start", opt.choice.startSector, "First sector of the volume");
  auto* sectors = cmd->add_option("--sectors", opt.choice.sectorCount, "Length of the volume in sectors");
  start->needs(sectors);
  sectors->needs(start);
  cmd->add_flag("--advanced", opt.advanced, "Advanced scan: also search the volume for catalog nodes");
  cmd->add_option("--format", opt.format, "Listing format")->check(CLI::IsMember({"tsv", "json"}));
  cmd->callback([&run] { run = [] { return runTree(opt); }; });
}

}  // namespace ambrel::cli
