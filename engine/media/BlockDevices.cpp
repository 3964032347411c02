#include "media/BlockDevices.h"

#include <fcntl.h>
#include <libudev.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <memory>

namespace ambrel {

namespace fs = std::filesystem;

namespace {

// A sysfs attribute is a page at most; fake trees could hold anything.
constexpr size_t kMaxAttrBytes = 4096;
constexpr size_t kMaxUdevRecordBytes = 64 * 1024;

std::optional<std::vector<uint8_t>> readSmallFile(const std::string& path, size_t limit) {
  // O_NONBLOCK: a fifo planted in a tree must not block discovery.
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    return std::nullopt;
  }
  std::vector<uint8_t> bytes(limit);
  size_t done = 0;
  while (done < limit) {
    ssize_t got = ::read(fd, bytes.data() + done, limit - done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      ::close(fd);
      return std::nullopt;
    }
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  ::close(fd);
  bytes.resize(done);
  return bytes;
}

std::optional<uint64_t> parseU64(const std::string& text) {
  uint64_t v = 0;
  const char* end = text.data() + text.size();
  auto [p, ec] = std::from_chars(text.data(), end, v);
  if (ec != std::errc() || p == text.data()) return std::nullopt;
  return v;
}

unsigned parseUnsigned(const std::string& text) {
  auto v = parseU64(text);
  return v && *v <= 0xFFFFFFFFu ? static_cast<unsigned>(*v) : 0;
}

// Everything sysfs tells of one device; `udev` starts as its uevent keys.
BlockDevice describeFromSysfs(const std::string& sysPath, const std::string& name, const std::string& devRoot) {
  BlockDevice d;
  d.name = name;
  d.sysPath = sysPath;
  if (auto uevent = readSysAttr(sysPath, "uevent")) d.udev = parseUevent(*uevent);
  const std::string devName = d.property("DEVNAME");
  d.devNode = devRoot + "/" + (devName.empty() ? name : devName);
  const std::string devType = d.property("DEVTYPE");
  d.partition = devType == "partition" || (devType.empty() && fs::exists(fs::path(sysPath) / "partition"));
  d.major = parseUnsigned(d.property("MAJOR"));
  d.minor = parseUnsigned(d.property("MINOR"));
  if (d.major == 0 && d.minor == 0) {
    if (auto dev = readSysAttr(sysPath, "dev"); dev && dev->find(':') != std::string::npos) {
      d.major = parseUnsigned(dev->substr(0, dev->find(':')));
      d.minor = parseUnsigned(dev->substr(dev->find(':') + 1));
    }
  }
  if (auto size = readSysAttr(sysPath, "size")) {
    // sysfs counts 512-byte units whatever the device's own block size.
    const uint64_t sectors = parseU64(*size).value_or(0);
    d.sizeBytes = sectors > UINT64_MAX / 512 ? UINT64_MAX / 512 * 512 : sectors * 512;
  }
  std::string removableDir = sysPath;
  if (d.partition) {
    d.parent = fs::path(sysPath).parent_path().filename().string();
    removableDir = fs::path(sysPath).parent_path().string();
  }
  d.removable = readSysAttr(removableDir, "removable").value_or("0") == "1";
  if (auto backing = readSysAttr(sysPath + "/loop", "backing_file"); backing && !backing->empty()) d.boundLoop = true;
  return d;
}

std::vector<BlockDevice> fromSysfs(const DiscoveryRoots& roots) {
  std::vector<BlockDevice> devices;
  std::error_code ec;
  const fs::path classBlock = fs::path(roots.sysfs) / "class" / "block";
  const std::string udevData = !roots.udevData.empty() ? roots.udevData : roots.isSystem() ? "/run/udev/data" : "";
  for (fs::directory_iterator it(classBlock, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code ec2;
    fs::path real = fs::canonical(it->path(), ec2);
    if (ec2) continue;
    BlockDevice d = describeFromSysfs(real.string(), it->path().filename().string(), roots.dev);
    const std::string record = udevData + "/b" + std::to_string(d.major) + ":" + std::to_string(d.minor);
    if (auto db = udevData.empty() ? std::nullopt : readSmallFile(record, kMaxUdevRecordBytes)) {
      for (const auto& [key, value] : parseUevent(std::string(db->begin(), db->end())))
        if (key.rfind("E:", 0) == 0) d.udev[key.substr(2)] = value;
    }
    devices.push_back(std::move(d));
  }
  return devices;
}

struct UdevDeleter {
  void operator()(udev* u) const { udev_unref(u); }
  void operator()(udev_enumerate* e) const { udev_enumerate_unref(e); }
  void operator()(udev_device* d) const { udev_device_unref(d); }
};

// nullopt when libudev cannot enumerate at all.
std::optional<std::vector<BlockDevice>> fromUdev(const DiscoveryRoots& roots) {
  std::unique_ptr<udev, UdevDeleter> u(udev_new());
  if (!u) return std::nullopt;
  std::unique_ptr<udev_enumerate, UdevDeleter> en(udev_enumerate_new(u.get()));
  if (!en || udev_enumerate_add_match_subsystem(en.get(), "block") < 0 || udev_enumerate_scan_devices(en.get()) < 0)
    return std::nullopt;
  std::vector<BlockDevice> devices;
  udev_list_entry* entry = nullptr;
  udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(en.get())) {
    const char* syspath = udev_list_entry_get_name(entry);
    if (!syspath) continue;
    std::unique_ptr<udev_device, UdevDeleter> dev(udev_device_new_from_syspath(u.get(), syspath));
    if (!dev) continue;
    const char* sysname = udev_device_get_sysname(dev.get());
    BlockDevice d = describeFromSysfs(syspath, sysname ? sysname : fs::path(syspath).filename().string(), roots.dev);
    if (const char* node = udev_device_get_devnode(dev.get())) d.devNode = node;
    udev_list_entry* prop = nullptr;
    udev_list_entry_foreach(prop, udev_device_get_properties_list_entry(dev.get())) {
      const char* key = udev_list_entry_get_name(prop);
      const char* value = udev_list_entry_get_value(prop);
      if (key && value) d.udev[key] = value;
    }
    devices.push_back(std::move(d));
  }
  return devices;
}

// Trailing digits of a name: a partition's number when PARTN is missing.
uint64_t trailingNumber(const std::string& name) {
  size_t i = name.size();
  while (i > 0 && std::isdigit(static_cast<unsigned char>(name[i - 1]))) --i;
  return parseU64(name.substr(i)).value_or(0);
}

void sortDevices(std::vector<BlockDevice>& devices) {
  auto diskOf = [](const BlockDevice& d) -> const std::string& { return d.partition ? d.parent : d.name; };
  auto number = [](const BlockDevice& d) {
    auto n = parseU64(d.property("PARTN"));
    return n ? *n : trailingNumber(d.name);
  };
  std::stable_sort(devices.begin(), devices.end(), [&](const BlockDevice& a, const BlockDevice& b) {
    const std::string& da = diskOf(a);
    const std::string& db = diskOf(b);
    if (da != db) return naturalLess(da, db);
    if (a.partition != b.partition) return !a.partition;
    const uint64_t na = number(a), nb = number(b);
    if (na != nb) return na < nb;
    return naturalLess(a.name, b.name);
  });
}

}  // namespace

std::string BlockDevice::property(const std::string& key) const {
  auto it = udev.find(key);
  return it == udev.end() ? std::string() : it->second;
}

std::optional<std::string> readSysAttr(const std::string& dir, const std::string& name) {
  auto bytes = readSmallFile(dir + "/" + name, kMaxAttrBytes);
  if (!bytes) return std::nullopt;
  std::string text(bytes->begin(), bytes->end());
  while (!text.empty() && (text.back() == '\n' || text.back() == '\0')) text.pop_back();
  return text;
}

std::optional<std::vector<uint8_t>> readSysBinary(const std::string& dir, const std::string& name, size_t limit) {
  return readSmallFile(dir + "/" + name, limit);
}

std::map<std::string, std::string> parseUevent(const std::string& text) {
  std::map<std::string, std::string> out;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    if (size_t eq = line.find('='); eq != std::string::npos && eq > 0) out[line.substr(0, eq)] = line.substr(eq + 1);
    start = end + 1;
  }
  return out;
}

bool naturalLess(const std::string& a, const std::string& b) {
  auto isDigit = [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; };
  size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    const bool da = isDigit(a[i]), db = isDigit(b[j]);
    size_t ei = i, ej = j;
    while (ei < a.size() && isDigit(a[ei]) == da) ++ei;
    while (ej < b.size() && isDigit(b[ej]) == db) ++ej;
    std::string ra = a.substr(i, ei - i), rb = b.substr(j, ej - j);
    if (da != db) return da;  // digits before letters
    if (da) {
      ra.erase(0, std::min(ra.find_first_not_of('0'), ra.size()));
      rb.erase(0, std::min(rb.find_first_not_of('0'), rb.size()));
    }
    if (ra.size() != rb.size()) return ra.size() < rb.size();
    if (ra != rb) return ra < rb;
    i = ei;
    j = ej;
  }
  return a.size() - i < b.size() - j;
}

std::vector<BlockDevice> enumerateBlockDevices(const DiscoveryRoots& roots) {
  std::vector<BlockDevice> devices;
  std::optional<std::vector<BlockDevice>> viaUdev;
  if (roots.udevApplies()) viaUdev = fromUdev(roots);
  devices = viaUdev ? std::move(*viaUdev) : fromSysfs(roots);
  sortDevices(devices);
  return devices;
}

const BlockDevice* findDevice(const std::vector<BlockDevice>& devices, const std::string& name) {
  for (const auto& d : devices)
    if (d.name == name) return &d;
  return nullptr;
}

const BlockDevice* findDevice(const std::vector<BlockDevice>& devices, unsigned major, unsigned minor) {
  for (const auto& d : devices)
    if (d.major == major && d.minor == minor && (major != 0 || minor != 0)) return &d;
  return nullptr;
}

}  // namespace ambrel
