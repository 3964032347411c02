#include "drives/FakeTree.h"

#include <fstream>
#include <stdexcept>

#include "base/Endian.h"
#include "support/TempDir.h"

namespace ambrel::test {

namespace {

void writeText(const fs::path& p, const std::string& text) {
  fs::create_directories(p.parent_path());
  std::ofstream out(p, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out) throw std::runtime_error("cannot write " + p.string());
}

std::string escapeMount(const std::string& s) {
  std::string out;
  for (char c : s) {
    if (c == ' ') out += "\\040";
    else if (c == '\t') out += "\\011";
    else if (c == '\n') out += "\\012";
    else if (c == '\\') out += "\\134";
    else out += c;
  }
  return out;
}

}  // namespace

FakeTree::FakeTree(fs::path root) : root_(std::move(root)) {
  fs::create_directories(root_ / "sys/class/block");
  fs::create_directories(root_ / "sys/devices");
  fs::create_directories(root_ / "dev");
  fs::create_directories(root_ / "udev");
  writeText(root_ / "mountinfo", "");
}

DiscoveryRoots FakeTree::roots(bool withUdev) const {
  DiscoveryRoots r;
  r.sysfs = (root_ / "sys").string();
  r.dev = (root_ / "dev").string();
  r.mountinfo = (root_ / "mountinfo").string();
  r.udevData = withUdev ? (root_ / "udev").string() : (root_ / "no-udev").string();
  return r;
}

fs::path FakeTree::blockFolder(const std::string& name) const {
  return fs::canonical(root_ / "sys/class/block" / name);
}

fs::path FakeTree::addDisk(const std::string& name, const std::string& blockDir, const std::string& deviceDir,
                           unsigned major, unsigned minor, uint64_t sectors, bool removable) {
  const fs::path dir = root_ / "sys/devices" / blockDir;
  fs::create_directories(dir);
  writeText(dir / "uevent", "MAJOR=" + std::to_string(major) + "\nMINOR=" + std::to_string(minor) +
                                "\nDEVNAME=" + name + "\nDEVTYPE=disk\n");
  writeText(dir / "size", std::to_string(sectors) + "\n");
  writeText(dir / "removable", removable ? "1\n" : "0\n");
  writeText(dir / "dev", std::to_string(major) + ":" + std::to_string(minor) + "\n");
  if (!deviceDir.empty()) {
    const fs::path target = root_ / "sys/devices" / deviceDir;
    fs::create_directories(target);
    fs::create_directory_symlink(fs::relative(target, dir), dir / "device");
  }
  fs::create_directory_symlink(fs::relative(dir, root_ / "sys/class/block"), root_ / "sys/class/block" / name);
  return dir;
}

fs::path FakeTree::addPartition(const std::string& disk, const std::string& name, unsigned number, unsigned major,
                                unsigned minor, uint64_t sectors) {
  const fs::path dir = blockFolder(disk) / name;
  fs::create_directories(dir);
  writeText(dir / "uevent", "MAJOR=" + std::to_string(major) + "\nMINOR=" + std::to_string(minor) + "\nDEVNAME=" +
                                name + "\nDEVTYPE=partition\nPARTN=" + std::to_string(number) + "\n");
  writeText(dir / "size", std::to_string(sectors) + "\n");
  writeText(dir / "partition", std::to_string(number) + "\n");
  writeText(dir / "dev", std::to_string(major) + ":" + std::to_string(minor) + "\n");
  fs::create_directory_symlink(fs::relative(dir, root_ / "sys/class/block"), root_ / "sys/class/block" / name);
  return dir;
}

void FakeTree::remove(const std::string& name) {
  const fs::path dir = blockFolder(name);
  fs::remove(root_ / "sys/class/block" / name);
  fs::remove_all(dir);
  fs::remove(root_ / "dev" / name);
}

void FakeTree::setAttr(const std::string& dirUnderDevices, const std::string& name, const std::string& value) {
  writeText(root_ / "sys/devices" / dirUnderDevices / name, value + "\n");
}

void FakeTree::setAttrBytes(const std::string& dirUnderDevices, const std::string& name,
                            const std::vector<uint8_t>& bytes) {
  fs::create_directories(root_ / "sys/devices" / dirUnderDevices);
  writeFile(root_ / "sys/devices" / dirUnderDevices / name, bytes);
}

void FakeTree::setUdev(unsigned major, unsigned minor, const std::map<std::string, std::string>& properties) {
  std::string text;
  for (const auto& [k, v] : properties) text += "E:" + k + "=" + v + "\n";
  writeText(root_ / "udev" / ("b" + std::to_string(major) + ":" + std::to_string(minor)), text);
}

void FakeTree::setNode(const std::string& name, const std::vector<uint8_t>& bytes) { writeFile(root_ / "dev" / name, bytes); }

void FakeTree::addMount(unsigned major, unsigned minor, const std::string& mountPoint, const std::string& fsType,
                        const std::string& source) {
  mountLines_.push_back(std::to_string(nextMountId_++) + " 1 " + std::to_string(major) + ":" + std::to_string(minor) +
                        " / " + escapeMount(mountPoint) + " rw,nosuid,nodev,relatime shared:7 - " + fsType + " " +
                        escapeMount(source) + " rw\n");
  std::string text;
  for (const auto& l : mountLines_) text += l;
  writeText(root_ / "mountinfo", text);
}

void FakeTree::clearMounts() {
  mountLines_.clear();
  writeText(root_ / "mountinfo", "");
}

std::vector<uint8_t> volumeHeaderBytes(bool hfsx, bool journaled) {
  std::vector<uint8_t> bytes(4096, 0);
  storeBE16(bytes.data() + 1024, hfsx ? 0x4858 : 0x482B);
  storeBE16(bytes.data() + 1026, hfsx ? 5 : 4);
  storeBE32(bytes.data() + 1028, journaled ? (1u << 13) | (1u << 8) : (1u << 8));
  return bytes;
}

}  // namespace ambrel::test
