// ambrel-cli: the command-line front end.
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>

#include "cli/CliController.h"
#include "media/DMedia.h"

using namespace ambrel;

namespace ambrel::cli {
void registerPartitionCommands(CLI::App& app, std::function<int()>& run);
void registerScanInfoCommands(CLI::App& app, std::function<int()>& run);
void registerTreeCommands(CLI::App& app, std::function<int()>& run);
void registerRecoverCommands(CLI::App& app, std::function<int()>& run);
void registerCarveCommands(CLI::App& app, std::function<int()>& run);
void registerDeletedCommands(CLI::App& app, std::function<int()>& run);
void registerSignatureCommands(CLI::App& app, std::function<int()>& run);
void registerDriveCommands(CLI::App& app, std::function<int()>& run);
}

namespace {

struct InfoOptions {
  std::string path;
  bool json = false;
};

int runInfo(const InfoOptions& opt) {
  std::string error;
  PlistDict dict = driveDictionaryForPath(opt.path, error);
  if (dict.empty()) {
    fmt::print(stderr, "ambrel-cli: {}\n", error);
    return 2;
  }
  cli::CliController controller(PlistArray{dict});
  DMedia media(dict, &controller);
  if (!media.isOpen()) {
    fmt::print(stderr, "ambrel-cli: cannot open {} read-only\n", opt.path);
    return 2;
  }
  const PartitionTableKind kind = media.partitionTableKind();
  if (opt.json) {
    PlistDict out{{"path", media.path},
                  {"sizeInBytes", media.sizeInBytes},
                  {"sizeInSectors", media.sizeInSect},
                  {"partitionTable", partitionTableKindName(kind)}};
    fmt::print("{}\n", PlistValue(out).toJson());
  } else {
    fmt::print("Path:            {}\n", media.path);
    fmt::print("Size:            {} bytes ({} sectors of 512 bytes)\n", media.sizeInBytes, media.sizeInSect);
    fmt::print("Partition table: {}\n", partitionTableKindName(kind));
  }
  return cli::readOutcome(media, controller, cli::kExitDone, "the partition-table kind may be wrong");
}

}  // namespace

int main(int argc, char** argv) {
  // Damage simulated under every drive this run opens: the test suites'
  // way to show what a bad sector or a vanishing drive does to a command.
  if (const char* faults = std::getenv("AMBREL_SECTOR_FAULTS"); faults && *faults) {
    std::string error;
    auto table = SectorFaults::fromText(faults, error);
    if (!table) {
      fmt::print(stderr, "ambrel-cli: AMBREL_SECTOR_FAULTS: {}\n", error);
      return 2;
    }
    SectorFaults::setProcessDefault(std::move(table));
  }
  CLI::App app{"Tarnwell Ambrel: recover files and folders from HFS+ and HFSX drives and disk images.\n"
               "Drives and images are only ever read.",
               "ambrel-cli"};
  app.require_subcommand(1);
  app.footer(fmt::format(
      "Exit status: {} done; {} nothing usable found, or saving failed; {} bad arguments or a path that cannot be\n"
      "opened; {} finished, but parts of the drive could not be read (the message says which; results may be\n"
      "incomplete); {} the drive disappeared while it was read; {} stopped with Ctrl-C.",
      cli::kExitDone, cli::kExitFailed, cli::kExitCannotStart, cli::kExitReadErrors, cli::kExitDriveGone,
      cli::kExitStopped));
  app.set_version_flag("--version", "ambrel-cli 0.1.0");

  InfoOptions info;
  auto* infoCmd = app.add_subcommand("info", "Show a drive's or disk image's size and partition-table kind");
  infoCmd->add_option("PATH", info.path, "Block device or disk image file")->required();
  infoCmd->add_flag("--json", info.json, "Print a JSON object instead of text");
  std::function<int()> run;  // set by the subcommand that was chosen
  cli::registerDriveCommands(app, run);
  cli::registerPartitionCommands(app, run);
  cli::registerScanInfoCommands(app, run);
  cli::registerTreeCommands(app, run);
  cli::registerRecoverCommands(app, run);
  cli::registerCarveCommands(app, run);
  cli::registerDeletedCommands(app, run);
  cli::registerSignatureCommands(app, run);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
  // Whatever a damaged drive or file makes us hold, running out of memory
  // ends the command with a message and a status, never an abort.
  try {
    if (*infoCmd) return runInfo(info);
    if (run) return cli::finish(run());
  } catch (const std::bad_alloc&) {
    std::fflush(stdout);
    fmt::print(stderr, "\nambrel-cli: out of memory; the command was stopped here\n");
    return cli::kExitOutOfMemory;
  }
  return 1;
}
