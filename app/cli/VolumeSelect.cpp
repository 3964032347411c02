#include "cli/VolumeSelect.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <atomic>
#include <cctype>
#include <csignal>
#include <cstdlib>

#include <filesystem>

#include "core/SaveFlow.h"
#include "media/DMedia.h"
#include "media/DriveFinder.h"

namespace ambrel::cli {

PlistDict chooseVolume(const VolumeChoice& choice, CliController& controller, std::string& error,
                       PlistArray* volumeList) {
  // The drive's own model and serial go into scan info files, so that the
  // drive is known again under another path.
  PlistDict drive = driveDictionaryWithIdentity(choice.path, error, discoveryRootsFromEnvironment());
  if (drive.empty()) return {};
  controller.setDrives(PlistArray{drive});
  DMedia media(drive, &controller);
  if (!media.isOpen()) {
    error = fmt::format("cannot open {} read-only", choice.path);
    return {};
  }
  auto rangeDict = [&](uint64_t start, uint64_t sectors, std::string name) {
    return PlistDict{{"Volume Start", start}, {"Volume Size In Sectors", sectors}, {"Volume Name", std::move(name)},
                     {"Volume Scan Type", 0}, {"Path", media.path}, {"Model", media.model},
                     {"Serial", media.serial}, {"Revision", media.revision}};
  };
  const std::string imageName = std::filesystem::path(choice.path).filename().string();

  if (choice.startSector || choice.sectorCount) {
    if (!choice.startSector || !choice.sectorCount) {
      error = "--start and --sectors go together";
      return {};
    }
    if (*choice.sectorCount == 0 || *choice.startSector >= media.sizeInSect ||
        *choice.sectorCount > media.sizeInSect - *choice.startSector) {
      error = fmt::format("sectors {} to {} do not lie within the drive's {} sectors", *choice.startSector,
                          *choice.startSector + *choice.sectorCount, media.sizeInSect);
      return {};
    }
    PlistDict dict = rangeDict(*choice.startSector, *choice.sectorCount, imageName);
    if (volumeList) *volumeList = PlistArray{PlistValue(dict)};
    return dict;
  }

  if (media.partitionTableKind() == PartitionTableKind::None) {
    if (choice.volumeNumber > 1) {
      error = fmt::format("{} has no partition table: it is read as one volume", choice.path);
      return {};
    }
    PlistDict dict = rangeDict(0, media.sizeInSect, imageName);
    if (volumeList) *volumeList = PlistArray{PlistValue(dict)};
    return dict;
  }
  PlistArray volumes;
  media.initialize(volumes);
  if (media.readErrors.any())
    fmt::print(stderr, "ambrel-cli: {} in the partition table; volumes listed there may be missing\n",
               media.readErrors.summary());
  if (volumes.empty()) {
    error = fmt::format("the partition table of {} lists no HFS+ or HFSX volume (try find-volumes, or --start and --sectors)",
                        choice.path);
    return {};
  }
  const int number = choice.volumeNumber == 0 ? 1 : choice.volumeNumber;
  if (number < 1 || static_cast<size_t>(number) > volumes.size()) {
    error = fmt::format("there is no volume {}: {} lists {} (see the partitions command)", number, choice.path,
                        volumes.size());
    return {};
  }
  if (volumeList) *volumeList = volumes;
  return *volumes[static_cast<size_t>(number - 1)].dict();
}

std::unique_ptr<Volume> openVolume(const VolumeChoice& choice, CliController& controller, std::string& error,
                                   PlistArray* volumeList) {
  PlistDict dict = chooseVolume(choice, controller, error, volumeList);
  if (dict.empty()) return nullptr;
  auto volume = std::make_unique<Volume>(dict, &controller);
  if (!volume->openDevice()) {
    error = fmt::format("cannot open {} read-only", choice.path);
    return nullptr;
  }
  return volume;
}

void addVolumeOptions(CLI::App& command, VolumeChoice& choice, const std::string& pathHelp) {
  command.add_option("PATH", choice.path, pathHelp)->required();
  command.add_option("--volume", choice.volumeNumber, "Volume number as the partitions command lists it (default 1)")
      ->check(CLI::PositiveNumber);
  auto* start = command.add_option("--start", choice.startSector, "First sector of the volume");
  auto* sectors = command.add_option("--sectors", choice.sectorCount, "Length of the volume in sectors");
  start->needs(sectors);
  sectors->needs(start);
}

DiscoveryRoots discoveryRootsFromEnvironment() {
  DiscoveryRoots roots;
  if (const char* v = std::getenv("AMBREL_SYSFS_ROOT"); v && *v) roots.sysfs = absolutePath(v);
  if (const char* v = std::getenv("AMBREL_DEV_ROOT"); v && *v) roots.dev = absolutePath(v);
  if (const char* v = std::getenv("AMBREL_MOUNTINFO"); v && *v) roots.mountinfo = absolutePath(v);
  if (const char* v = std::getenv("AMBREL_UDEV_DATA"); v && *v) roots.udevData = absolutePath(v);
  return roots;
}

bool isScanInfoPath(const std::string& path) {
  if (path.size() < 4) return false;
  std::string ext = path.substr(path.size() - 4);
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return ext == ".asi";
}

namespace {

// The scan being run, for the SIGINT handler: storing to a lock-free atomic
// is safe in a handler.
std::atomic<Volume*> gScanning{nullptr};

extern "C" void stopScan(int) {
  if (Volume* v = gScanning.load()) v->stopTreeThread.store(true);
}

}  // namespace

ScanOutcome runScan(Volume& volume, CliController& controller, bool advanced) {
  SleepScope awake(controller);
  gScanning.store(&volume);
  auto previous = std::signal(SIGINT, stopScan);
  volume.startMakingTree(&controller, advanced ? "Advanced Scan" : "Normal Scan");
  std::signal(SIGINT, previous);
  gScanning.store(nullptr);
  fmt::print(stderr, "\n");
  for (const std::string& note : scanNotes(volume)) fmt::print(stderr, "{}\n", note);
  if (controller.terminated() || volume.isGone()) return ScanOutcome::DriveGone;
  if (controller.gaveUp() || !volume.dirRoot) return ScanOutcome::NothingUsable;
  return volume.stopTreeThread ? ScanOutcome::Stopped : ScanOutcome::Done;
}

}  // namespace ambrel::cli
