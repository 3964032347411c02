#include "scaninfo/ScanInfoDrive.h"

#include <fmt/format.h>

#include "scaninfo/VolumeScanInfo.h"

namespace ambrel {

std::string volumeNotMountedMessage(const std::string& volumeName) {
  return fmt::format(
      "The volume \"{}\" to which this scan info belongs is not mounted. So saving and preview will not work. Please "
      "mount the volume and restart Ambrel.",
      volumeName);
}

ScanInfoDriveCheck checkScanInfoDrive(Volume& volume, const std::vector<uint8_t>& first5Sectors,
                                      const PlistArray& candidates) {
  ScanInfoDriveCheck check;
  check.previousPath = volume.path;
  check.index = volume.volumeScanType == 2 ? findScanInfoVolume(volume, candidates)
                                           : findScanInfoDrive(volume, first5Sectors, candidates);
  if (check.index < 0) return check;
  check.found = true;
  const std::string path = candidates[static_cast<size_t>(check.index)].dict()->string("device path");
  if (path != volume.path) {
    volume.path = path;
    volume.setCPath();
    check.repointed = true;
  }
  return check;
}

}  // namespace ambrel
