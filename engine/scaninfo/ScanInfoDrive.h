#pragma once
// Finding again the drive a scan info file belongs to, wherever it is now
// attached, and pointing the opened volume at it.
#include <string>
#include <vector>

#include "hfs/Volume.h"

namespace ambrel {

inline constexpr const char* kDriveNotConnectedTitle = "Drive Not Connected";
inline constexpr const char* kDriveNotConnectedMessage =
    "The drive to which this scan info belongs is either not connected or has been modified in any way. So saving "
    "and preview will not work. Please connect the drive and restart Ambrel.";
inline constexpr const char* kVolumeNotMountedTitle = "Volume Not Mounted";
// "%@" is the volume's name.
std::string volumeNotMountedMessage(const std::string& volumeName);

struct ScanInfoDriveCheck {
  bool found = false;
  int index = -1;            // of the candidate that matched
  bool repointed = false;    // found under another path: the volume now reads from it
  std::string previousPath;  // the path the file recorded
};

// Types 0, 1 and 3: `candidates` are drive dictionaries; the first whose
// sectors 0-4, model and serial equal the file's is the drive. Type 2 (a
// volume device): `candidates` are the mounted volumes' dictionaries; the
// first of the same size in sectors and "Volume Name" is the volume. When
// its "device path" differs from the volume's path, the volume is re-pointed.
ScanInfoDriveCheck checkScanInfoDrive(Volume& volume, const std::vector<uint8_t>& first5Sectors,
                                      const PlistArray& candidates);

}  // namespace ambrel
