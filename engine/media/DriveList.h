#pragma once
// The drive and volume lists of the first page: the media found, joined
// with the mounted volumes, models and serials trimmed, split into drives
// and volumes.
#include <cstdint>
#include <functional>
#include <string>

#include "base/PlistValue.h"
#include "media/BlockDevices.h"

namespace ambrel {

// Reads one 512-byte sector of a device path into `buffer`.
using SectorReader = std::function<bool(const std::string& path, uint64_t sector, uint8_t* buffer)>;
// A reader that fails without a word (the caller reports what it lacks).
SectorReader quietSectorReader();

// For every HFS partition mounted (its "device path" is a volume's "Volume
// Path"): the volume's name, "Apple_HFSX" when its header says HX, and
// "Journaled". A header that cannot be read leaves "Journaled" out.
void joinMountedVolumes(PlistArray& responseFindMedia, const PlistArray& finalArrayForVolumes, const SectorReader& read);

// Trims white space around "device model" and "device serial" of every drive
// that is not USB-only, "-" for a missing one.
void truncateDriveModelNumber(PlistArray& responseFindMedia);

// Drives (with "WhetherDiskDict") and volumes (with "Volume Name", "-" when
// unmounted); a volume stays only when a drive's "device path" is a
// substring of its own, so /dev/sdb also keeps /dev/sdba1.
void separateDrvVol(const PlistArray& responseFindMedia, PlistArray& driveDictArray, PlistArray& volumeDictArray);

struct DriveLists {
  PlistArray responseFindMedia;
  PlistArray finalArrayForVolumes;
  PlistArray driveDictArray;
  PlistArray volumeDictArray;
};

// initialDriveList and refreshDriveList: both lists built anew.
DriveLists initialDriveList(const DiscoveryRoots& roots = {}, const SectorReader& read = quietSectorReader());

// The model text a person knows a drive by: vendor and product for USB and
// FireWire, else the model.
std::string driveModelText(const PlistDict& drive);
// "device serial", or "-" for a USB drive.
std::string driveSerialText(const PlistDict& drive);
// The "File System" column: "HFS+", "HFSX", FAT names, or the content as it is.
std::string fileSystemText(const std::string& content);

}  // namespace ambrel
