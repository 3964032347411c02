#pragma once
// A machine on disk for discovery to look at: a sysfs tree (block devices
// with their ancestry and attributes), udev database records, a /dev folder
// whose nodes are plain files, and a mountinfo file.
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "media/BlockDevices.h"

namespace ambrel::test {

namespace fs = std::filesystem;

class FakeTree {
 public:
  explicit FakeTree(fs::path root);

  const fs::path& root() const { return root_; }
  // The roots discovery takes; `withUdev` false leaves the udev database out.
  DiscoveryRoots roots(bool withUdev = true) const;
  std::string devPath(const std::string& name) const { return (root_ / "dev" / name).string(); }

  // A disk whose block folder is `blockDir` under sys/devices (for a SCSI
  // disk ".../0:0:0:0/block/sda"), its `device` link pointing at
  // `deviceDir` when given. Returns the block folder.
  fs::path addDisk(const std::string& name, const std::string& blockDir, const std::string& deviceDir, unsigned major,
                   unsigned minor, uint64_t sectors, bool removable = false);
  fs::path addPartition(const std::string& disk, const std::string& name, unsigned number, unsigned major,
                        unsigned minor, uint64_t sectors);
  void remove(const std::string& name);

  // A file under sys/devices (a device's model, a USB device's serial).
  void setAttr(const std::string& dirUnderDevices, const std::string& name, const std::string& value);
  void setAttrBytes(const std::string& dirUnderDevices, const std::string& name, const std::vector<uint8_t>& bytes);
  // The udev database record of a device: its E: properties.
  void setUdev(unsigned major, unsigned minor, const std::map<std::string, std::string>& properties);
  // dev/NAME as a file holding `bytes`.
  void setNode(const std::string& name, const std::vector<uint8_t>& bytes);

  // Appends a mountinfo line; `mountPoint` and `source` are escaped as the
  // kernel escapes them.
  void addMount(unsigned major, unsigned minor, const std::string& mountPoint, const std::string& fsType,
                const std::string& source);
  void clearMounts();

 private:
  fs::path blockFolder(const std::string& name) const;

  fs::path root_;
  std::vector<std::string> mountLines_;
  unsigned nextMountId_ = 30;
};

// 4 KiB whose sector 2 is an HFS+ ('H+') or HFSX ('HX') header, journaled or not.
std::vector<uint8_t> volumeHeaderBytes(bool hfsx, bool journaled);

}  // namespace ambrel::test
