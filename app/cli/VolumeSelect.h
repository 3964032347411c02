#pragma once
// Which volume of a drive or image a command works on: a volume of the
// partition table by number, an explicit sector range, or, for an image with
// no partition table, the whole image as one volume.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "base/PlistValue.h"
#include "media/BlockDevices.h"

namespace CLI {
class App;
}
#include "cli/CliController.h"
#include "hfs/Volume.h"

namespace ambrel::cli {

struct VolumeChoice {
  std::string path;
  int volumeNumber = 0;                 // 1-based; 0: the first
  std::optional<uint64_t> startSector;  // with sectorCount: an explicit range
  std::optional<uint64_t> sectorCount;
};

// The volume dictionary for the choice; empty with `error` set when there is
// none. The controller's drive list is set to the opened drive. `volumeList`,
// when given, receives the list the volume was chosen from (what a scan info
// file keeps as the partition list).
PlistDict chooseVolume(const VolumeChoice& choice, CliController& controller, std::string& error,
                       PlistArray* volumeList = nullptr);

// A Volume made from the chosen dictionary, or nullptr with `error` set.
std::unique_ptr<Volume> openVolume(const VolumeChoice& choice, CliController& controller, std::string& error,
                                   PlistArray* volumeList = nullptr);

// Adds PATH, --volume, --start and --sectors to a command.
void addVolumeOptions(CLI::App& command, VolumeChoice& choice, const std::string& pathHelp);

// Where drives are discovered: the running system, or the trees named by
// AMBREL_SYSFS_ROOT, AMBREL_DEV_ROOT, AMBREL_MOUNTINFO and AMBREL_UDEV_DATA
// (a rescue system's, or a test's).
DiscoveryRoots discoveryRootsFromEnvironment();

// True for a path ending in ".asi" (any case): a scan info file.
bool isScanInfoPath(const std::string& path);

enum class ScanOutcome { Done, Stopped, NothingUsable, DriveGone };

// Runs the tree scan on the calling thread, Ctrl-C setting its stop flag.
ScanOutcome runScan(Volume& volume, CliController& controller, bool advanced);

}  // namespace ambrel::cli
