#pragma once
// The block devices of a machine as the kernel and udev describe them. On the
// running system libudev enumerates them and adds its database (ID_BUS,
// ID_MODEL, ID_PART_ENTRY_TYPE, ...); any other tree, and any device udev has
// not described (no udev daemon, as in containers), is read from sysfs alone.
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace ambrel {

// Where discovery looks. Pointing these at another tree (a test's fake one,
// a rescue system's) reads that tree from sysfs alone: the udev database
// describes only the running system.
struct DiscoveryRoots {
  std::string sysfs = "/sys";
  std::string dev = "/dev";
  std::string mountinfo = "/proc/self/mountinfo";
  // udev's database as files ("E:KEY=VALUE" lines per device), read where
  // libudev is not asked; "" means the system's for the system's trees and
  // none for any other tree.
  std::string udevData;
  bool useUdev = true;

  bool isSystem() const { return sysfs == "/sys" && dev == "/dev"; }
  bool udevApplies() const { return useUdev && isSystem(); }
};

struct BlockDevice {
  std::string name;         // kernel name: sda, sda1, nvme0n1p2, mmcblk0, loop3
  std::string sysPath;      // its folder in the sysfs tree (symbolic links resolved)
  std::string devNode;      // its node in the /dev tree
  std::string parent;       // a partition's disk
  bool partition = false;
  unsigned major = 0;
  unsigned minor = 0;
  uint64_t sizeBytes = 0;
  bool removable = false;
  bool boundLoop = false;   // a loop device with a backing file: a disk image
  std::map<std::string, std::string> udev;  // the udev properties; no ID_* keys without a udev database

  // The property, or "" when udev did not set it.
  std::string property(const std::string& key) const;
};

// Disks in natural name order (sdz before sdaa, loop2 before loop10), each
// followed by its partitions in number order. Never throws; an unreadable tree gives
// fewer devices.
std::vector<BlockDevice> enumerateBlockDevices(const DiscoveryRoots& roots);

// A device by name or by number; nullptr when absent.
const BlockDevice* findDevice(const std::vector<BlockDevice>& devices, const std::string& name);
const BlockDevice* findDevice(const std::vector<BlockDevice>& devices, unsigned major, unsigned minor);

// A sysfs attribute's text without its trailing line feed; nullopt when the
// file is absent or unreadable. Reads at most 4 KiB.
std::optional<std::string> readSysAttr(const std::string& dir, const std::string& name);
// A binary attribute (a VPD page), at most `limit` bytes.
std::optional<std::vector<uint8_t>> readSysBinary(const std::string& dir, const std::string& name, size_t limit);

// The KEY=VALUE lines of a uevent file.
std::map<std::string, std::string> parseUevent(const std::string& text);

// Orders names run by run: digit runs as numbers (sdb2 < sdb10), letter runs
// shorter first, then alphabetically (sdz < sdaa), as the kernel hands out names.
bool naturalLess(const std::string& a, const std::string& b);

}  // namespace ambrel
