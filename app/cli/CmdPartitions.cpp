// `partitions` and `find-volumes`: the volumes of a drive's partition table,
// and the search of a whole drive for volumes.
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <optional>

#include "base/Text.h"
#include "cli/CliController.h"
#include "media/DMedia.h"

namespace ambrel::cli {

namespace {

struct PartitionOptions {
  std::string path;
  bool json = false;
  bool quick = false;
};

// The search being run, for the SIGINT handler; storing to a lock-free
// atomic is safe in a handler.
std::atomic<DMedia*> gSearching{nullptr};
static_assert(std::atomic<bool>::is_always_lock_free);

extern "C" void stopSearch(int) {
  if (DMedia* media = gSearching.load()) media->abortVolumeScan.store(true);
}

// Names as kept in the dictionaries may carry trailing NULs (GPT names); the
// listing shows them without, and any other control character escaped.
std::string shownName(const PlistDict& volume) {
  std::string name = volume.string("Volume Name");
  while (!name.empty() && name.back() == '\0') name.pop_back();
  return escapedControls(name, false);
}

// cutToDrive: volume start -> the size the partition table gave, for the
// volumes whose size was cut at the drive's end.
void printVolumes(const PlistArray& volumes, bool json, bool found,
                  const std::map<uint64_t, uint64_t>& cutToDrive = {}) {
  auto tableSize = [&](const PlistDict& d) -> std::optional<uint64_t> {
    const auto it = cutToDrive.find(d.u64("Volume Start"));
    if (it == cutToDrive.end()) return std::nullopt;
    return it->second;
  };
  if (json) {
    PlistArray shown;
    for (const auto& v : volumes) {
      PlistDict d = *v.dict();
      if (auto size = tableSize(d)) d.set("Size In Table", *size);
      shown.push_back(std::move(d));
    }
    fmt::print("{}\n", PlistValue(shown).toJson());
    return;
  }
  if (volumes.empty()) {
    fmt::print("No volumes found.\n");
    return;
  }
  if (found)
    fmt::print("{:>3}  {:>14}  {:>14}  {:<14}  {:>8}  {}\n", "#", "Start", "Sectors", "Validity", "Percent", "Name");
  else
    fmt::print("{:>3}  {:>14}  {:>14}  {}\n", "#", "Start", "Sectors", "Name");
  int number = 0;
  for (const auto& v : volumes) {
    const PlistDict& d = *v.dict();
    ++number;
    if (found) {
      const uint64_t alternate = d.u64("WhetherAlternateSector");
      fmt::print("{:>3}  {:>14}  {:>14}  {:<14}  {:>7}%  {}{}\n", number, d.u64("Volume Start"),
                 d.u64("Volume Size In Sectors"), d.string("Validity Column"), d.string("Volume Validity"),
                 shownName(d), alternate ? fmt::format("  (from the alternate header at sector {})", alternate) : "");
    } else {
      const auto size = tableSize(d);
      fmt::print("{:>3}  {:>14}  {:>14}  {}{}\n", number, d.u64("Volume Start"), d.u64("Volume Size In Sectors"),
                 shownName(d),
                 size ? fmt::format("  (the table says {} sectors; cut to the drive's end)", *size) : "");
    }
  }
}

std::unique_ptr<DMedia> openDrive(const std::string& path, CliController& controller, int& status) {
  std::string error;
  PlistDict dict = driveDictionaryForPath(path, error);
  if (dict.empty()) {
    fmt::print(stderr, "ambrel-cli: {}\n", error);
    status = 2;
    return nullptr;
  }
  controller.setDrives(PlistArray{dict});
  auto media = std::make_unique<DMedia>(dict, &controller);
  if (!media->isOpen()) {
    fmt::print(stderr, "ambrel-cli: cannot open {} read-only\n", path);
    status = 2;
    return nullptr;
  }
  return media;
}

int runPartitions(const PartitionOptions& opt) {
  CliController controller;
  controller.setShowProgress(false);
  int status = 0;
  auto media = openDrive(opt.path, controller, status);
  if (!media) return status;
  PlistArray volumes;
  media->initialize(volumes);
  if (controller.terminated()) return kExitDriveGone;
  printVolumes(volumes, opt.json, false, media->sizesCutToDrive);
  return readOutcome(*media, controller, kExitDone, "the list may be incomplete");
}

int runFindVolumes(const PartitionOptions& opt) {
  CliController controller;
  int status = 0;
  auto media = openDrive(opt.path, controller, status);
  if (!media) return status;
  PlistArray volumes, rows;
  gSearching.store(media.get());
  struct sigaction action {};
  struct sigaction previous {};
  action.sa_handler = stopSearch;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, &previous);
  DMedia::VolumeScanRequest request{&controller, &volumes, &rows};
  SleepScope awake(controller);
  if (opt.quick) media->initializeForVolumeQuickScan(request);
  else media->initializeForVolumeThoroughScan(request);
  sigaction(SIGINT, &previous, nullptr);
  gSearching.store(nullptr);
  if (::isatty(STDERR_FILENO)) fmt::print(stderr, "\n");
  // A drive that disappeared also stops the search: its alert said so.
  if (controller.terminated() || media->isGone()) return kExitDriveGone;
  const bool aborted = media->abortVolumeScan.load();

  // The grade of each volume is in its result row; rows and volumes pair up
  // by start sector ("Partial Valid" volumes have no row in the quick search).
  PlistArray listed;
  for (const auto& v : volumes) {
    PlistDict d = *v.dict();
    const uint64_t start = d.u64("Volume Start");
    std::string grade;
    for (const auto& r : rows) {
      const std::string found = r.dict()->string("Found Column");
      const auto colon = found.rfind(": ");
      if (colon != std::string::npos && found.substr(colon + 2) == std::to_string(start)) {
        grade = r.dict()->string("Validity Column");
        break;
      }
    }
    if (grade.empty()) {
      if (opt.quick) continue;
      grade = "Partial Valid";
    }
    if (!opt.json) d.set("Validity Column", grade);
    listed.push_back(std::move(d));
  }
  printVolumes(listed, opt.json, true);
  if (aborted) {
    fmt::print(stderr, "ambrel-cli: search stopped; the list holds what was found so far\n");
    return kExitStopped;
  }
  return readOutcome(*media, controller, kExitDone, "volumes there may have been missed");
}

}  // namespace

void registerPartitionCommands(CLI::App& app, std::function<int()>& run) {
  auto options = std::make_shared<PartitionOptions>();
  auto* partitions = app.add_subcommand("partitions", "List the volumes of a drive's partition table, numbered from 1");
  partitions->add_option("PATH", options->path, "Block device or disk image file")->required();
  partitions->add_flag("--json", options->json, "Print a JSON array of the volume dictionaries");
  partitions->callback([options, &run] { run = [options] { return runPartitions(*options); }; });

  auto findOptions = std::make_shared<PartitionOptions>();
  auto* find = app.add_subcommand("find-volumes", "Search a whole drive for HFS+ volumes (Ctrl-C stops the search)");
  find->add_option("PATH", findOptions->path, "Block device or disk image file")->required();
  find->add_flag("--quick", findOptions->quick, "The quick search: one look per 63 sectors, valid volumes only");
  find->add_flag("--json", findOptions->json, "Print a JSON array of the volume dictionaries");
  find->callback([findOptions, &run] { run = [findOptions] { return runFindVolumes(*findOptions); }; });
}

}  // namespace ambrel::cli
