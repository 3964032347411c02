#include "media/DriveFinder.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "media/DMedia.h"
#include "media/DriveList.h"

namespace ambrel {

namespace fs = std::filesystem;

namespace {

// Memory-backed disks (zram swap, ram disks) hold nothing to recover.
bool isMemoryDisk(const std::string& name) {
  return name.rfind("zram", 0) == 0 || (name.rfind("ram", 0) == 0 && name.size() > 3 &&
                                        std::isdigit(static_cast<unsigned char>(name[3])));
}

bool isBlank(const std::string& s) { return s.find_first_not_of(" \t") == std::string::npos; }

void setIfKnown(PlistDict& d, const char* key, const std::string& value) {
  if (!isBlank(value)) d.set(key, value);
}

void setTransport(PlistDict& d, Transport t) {
  if (t == Transport::SATA) d.set("WhetherSATA", 1);
  if (t == Transport::USB || t == Transport::FireWire) d.set("WhetherUSB", 1);
}

void setIcon(PlistDict& d, const std::string& icon) {
  d.set("CFBundleIdentifier", kIconTheme);
  d.set("IOBundleResourceFile", icon);
}

PlistDict driveDictionary(const BlockDevice& disk) {
  PlistDict d{{"device path", disk.devNode}, {"device size", disk.sizeBytes}};
  for (const auto& [key, value] : driveIdentityKeys(disk)) d.set(key, value);
  std::string icon = ownIconOf(disk);
  if (icon.empty()) {
    const Transport t = transportOf(disk);
    if (t == Transport::USB || t == Transport::FireWire) icon = kIconUSB;
    else if (disk.removable) icon = kIconRemovable;
    else icon = kIconInternal;
  }
  setIcon(d, icon);
  return d;
}

std::optional<PlistDict> partitionDictionary(const BlockDevice& part, const BlockDevice* disk) {
  PlistDict d{{"device path", part.devNode}, {"device size", part.sizeBytes}};
  if (auto content = partitionContent(part)) {
    if (*content != "Apple_HFS" && *content != "Apple_HFSX") return std::nullopt;
    d.set("WhetherVolume", true);
    d.set("Content", *content);
  }
  if (disk) setTransport(d, transportOf(*disk));
  const std::string diskIcon = disk ? ownIconOf(*disk) : std::string();
  setIcon(d, diskIcon.empty() ? std::string(kIconRemovable) : diskIcon);
  return d;
}

std::string lastPathComponent(const std::string& path) {
  std::string p = path;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  if (p == "/") return p;
  const size_t slash = p.rfind('/');
  return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::string readWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

}  // namespace

PlistDict driveIdentityKeys(const BlockDevice& disk) {
  PlistDict d;
  const DriveIdentity id = identityOf(disk);
  setTransport(d, id.transport);
  if (id.transport == Transport::USB || id.transport == Transport::FireWire) {
    setIfKnown(d, "Vendor Identification", id.vendor);
    setIfKnown(d, "Product Identification", id.model);
    setIfKnown(d, "Product Revision Level", id.revision);
  } else {
    setIfKnown(d, "device model", id.model);
    setIfKnown(d, "device serial", id.serial);
    setIfKnown(d, "device revision", id.revision);
  }
  return d;
}

void FindMediaMain(PlistArray& responseFindMedia, const std::vector<BlockDevice>& devices) {
  for (const auto& dev : devices) {
    if (dev.sizeBytes == 0) continue;
    if (!dev.partition) {
      if (dev.boundLoop || isMemoryDisk(dev.name)) continue;
      responseFindMedia.push_back(driveDictionary(dev));
    } else if (auto d = partitionDictionary(dev, findDevice(devices, dev.parent))) {
      responseFindMedia.push_back(std::move(*d));
    }
  }
}

void FindMediaMain(PlistArray& responseFindMedia, const DiscoveryRoots& roots) {
  FindMediaMain(responseFindMedia, enumerateBlockDevices(roots));
}

std::string unescapeMountField(const std::string& field) {
  std::string out;
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      const std::string oct = field.substr(i + 1, 3);
      if (oct.size() == 3 && oct.find_first_not_of("01234567") == std::string::npos) {
        out.push_back(static_cast<char>(std::stoi(oct, nullptr, 8)));
        i += 3;
        continue;
      }
    }
    out.push_back(field[i]);
  }
  return out;
}

std::vector<MountEntry> parseMountInfo(const std::string& text) {
  std::vector<MountEntry> mounts;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::vector<std::string> f;
    for (std::string w; fields >> w;) f.push_back(w);
    // id parent major:minor root mountpoint options [optional...] - fstype source superoptions
    size_t dash = 6;
    while (dash < f.size() && f[dash] != "-") ++dash;
    if (dash + 2 >= f.size()) continue;
    MountEntry m;
    const size_t colon = f[2].find(':');
    if (colon == std::string::npos) continue;
    try {
      m.major = static_cast<unsigned>(std::stoul(f[2].substr(0, colon)));
      m.minor = static_cast<unsigned>(std::stoul(f[2].substr(colon + 1)));
    } catch (const std::exception&) {
      continue;
    }
    m.root = unescapeMountField(f[3]);
    m.mountPoint = unescapeMountField(f[4]);
    m.fsType = unescapeMountField(f[dash + 1]);
    m.source = unescapeMountField(f[dash + 2]);
    mounts.push_back(std::move(m));
  }
  return mounts;
}

void FindVolumeNames(PlistArray& volumes, const std::vector<MountEntry>& mounts, const DiscoveryRoots& roots,
                     const std::vector<BlockDevice>& devices) {
  for (auto& v : volumes) {
    PlistDict* d = v.dict();
    if (!d) continue;
    const std::string mounted = d->string("Mounted Path");
    d->set("Volume Name", lastPathComponent(mounted));
    std::string devicePath;
    for (const auto& m : mounts) {
      if (m.mountPoint != mounted) continue;
      // The kernel's device number names the node, whatever path the mount
      // was given (a by-uuid link, /dev/root).
      if (const BlockDevice* dev = findDevice(devices, m.major, m.minor)) devicePath = dev->devNode;
      else if (m.source.rfind("/dev/", 0) == 0) devicePath = roots.dev + m.source.substr(4);
      else devicePath = m.source;
    }
    d->set("Volume Path", devicePath);
  }
}

PlistArray volumeList(const DiscoveryRoots& roots, const std::vector<BlockDevice>& devices) {
  const std::vector<MountEntry> mounts = parseMountInfo(readWholeFile(roots.mountinfo));
  PlistArray volumes;
  std::vector<std::string> seen;
  for (const auto& m : mounts) {
    const bool local = findDevice(devices, m.major, m.minor) != nullptr || m.source.rfind("/dev/", 0) == 0;
    if (!local) continue;
    // A mount point mounted over again counts once: the last mount on it is
    // the one seen there (FindVolumeNames takes its device).
    if (std::find(seen.begin(), seen.end(), m.mountPoint) != seen.end()) continue;
    seen.push_back(m.mountPoint);
    volumes.push_back(PlistDict{{"Mounted Path", m.mountPoint}});
  }
  FindVolumeNames(volumes, mounts, roots, devices);
  return volumes;
}

std::string absolutePath(const std::string& path) {
  std::error_code ec;
  fs::path p = fs::absolute(path, ec);
  if (ec) return path;
  return p.lexically_normal().string();
}

PlistDict driveDictionaryWithIdentity(const std::string& path, std::string& error, const DiscoveryRoots& roots) {
  const std::string abs = absolutePath(path);
  PlistDict dict = driveDictionaryForPath(abs, error);
  if (dict.empty()) return dict;
  struct stat st {};
  const bool blockDevice = ::stat(abs.c_str(), &st) == 0 && S_ISBLK(st.st_mode);
  // A disk image on the system's own tree is no device node: nothing to
  // identify, and walking every device would only delay opening it.
  if (!blockDevice && roots.isSystem()) return dict;
  const std::vector<BlockDevice> devices = enumerateBlockDevices(roots);
  const BlockDevice* dev = nullptr;
  if (blockDevice) dev = findDevice(devices, major(st.st_rdev), minor(st.st_rdev));
  for (size_t i = 0; !dev && i < devices.size(); ++i)
    if (devices[i].devNode == abs) dev = &devices[i];
  if (!dev) return dict;
  const BlockDevice* disk = dev->partition ? findDevice(devices, dev->parent) : dev;
  if (!disk) disk = dev;
  PlistDict identity = driveIdentityKeys(*disk);
  PlistArray one{PlistValue(identity)};
  one[0].dict()->set("device path", abs);
  truncateDriveModelNumber(one);
  PlistDict out{{"device path", abs}, {"device size", dict.u64("device size")}};
  for (const auto& [key, value] : *one[0].dict())
    if (key != "device path") out.set(key, value);
  return out;
}

}  // namespace ambrel
