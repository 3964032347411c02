#pragma once
// Drive discovery: the attached drives and the HFS+ partitions on them as
// drive dictionaries, the mounted local volumes, and the identity of the
// drive behind a path. The joining of the two lists is in DriveList.h.
#include <string>
#include <vector>

#include "base/PlistValue.h"
#include "media/BlockDevices.h"
#include "media/DriveIdentity.h"

namespace ambrel {

// Appends one dictionary per medium, in device order: every whole drive
// that holds a medium (a card reader without a card, an unbound loop device
// and the machine's memory disks hold none), except a loop device bound to a
// file (a disk image: images are opened directly); the partitions whose
// content is HFS+ or HFSX ("WhetherVolume", "Content"), and those whose
// content is unknown, without these keys.
void FindMediaMain(PlistArray& responseFindMedia, const std::vector<BlockDevice>& devices);
void FindMediaMain(PlistArray& responseFindMedia, const DiscoveryRoots& roots = {});

// The drive keys of a disk: its transport ("WhetherSATA", "WhetherUSB"),
// its identity ("Vendor Identification", "Product Identification",
// "Product Revision Level" for USB and FireWire, else "device model",
// "device serial", "device revision"), present only when known.
PlistDict driveIdentityKeys(const BlockDevice& disk);

// One line of a mountinfo file.
struct MountEntry {
  unsigned major = 0;
  unsigned minor = 0;
  std::string root;        // the mounted folder of the file system ("/" unless a bind mount)
  std::string mountPoint;
  std::string fsType;
  std::string source;      // what it was mounted from
};
std::vector<MountEntry> parseMountInfo(const std::string& text);
// Undoes mountinfo's octal escapes (\040 for a space).
std::string unescapeMountField(const std::string& field);

// finalArrayForVolumes: one dictionary per mounted local volume (a mount of
// a block device), with "Mounted Path" and, by FindVolumeNames, "Volume
// Name" (the mount point's last component) and "Volume Path" (the node of
// the device it was mounted from).
PlistArray volumeList(const DiscoveryRoots& roots, const std::vector<BlockDevice>& devices);
void FindVolumeNames(PlistArray& volumes, const std::vector<MountEntry>& mounts, const DiscoveryRoots& roots,
                     const std::vector<BlockDevice>& devices);

// A drive dictionary for a path given by the user: "device path" made
// absolute, "device size" from the device, and, for a block device (or a
// node of the tree `roots` names), the identity keys of the drive it
// belongs to (the disk of a partition) as the drive list shows them.
// A disk-image file keeps the identity "Disk Image". Empty with `error`
// set when the path cannot be read.
PlistDict driveDictionaryWithIdentity(const std::string& path, std::string& error, const DiscoveryRoots& roots = {});

// An absolute, lexically normal form of a path (not resolving links, so
// that /dev/disk/by-id names are kept).
std::string absolutePath(const std::string& path);

}  // namespace ambrel
