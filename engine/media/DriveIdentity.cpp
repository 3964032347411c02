#include "media/DriveIdentity.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstring>
#include <filesystem>
#include <regex>

#include "base/Endian.h"
#include "media/Records.h"

namespace ambrel {

namespace fs = std::filesystem;

namespace {

constexpr const char* kHFSPlusGUID = "48465300-0000-11aa-aa11-00306543ecac";

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// The folders from the device up to sysfs's devices folder, nearest first.
std::vector<fs::path> ancestry(const BlockDevice& d) {
  std::vector<fs::path> out;
  fs::path p(d.sysPath);
  for (int guard = 0; guard < 64 && p.has_relative_path() && p.filename() != "devices"; ++guard) {
    out.push_back(p);
    p = p.parent_path();
  }
  return out;
}

// The bus a sysfs folder belongs to, from its `subsystem` link or its name.
Transport transportOfFolder(const fs::path& dir) {
  static const std::regex usbBus("usb[0-9]+");
  static const std::regex fwNode("fw[0-9]+(\\.[0-9]+)?");
  static const std::regex ataPort("ata[0-9]+");
  std::error_code ec;
  const fs::path link = fs::read_symlink(dir / "subsystem", ec);
  const std::string subsystem = ec ? std::string() : link.filename().string();
  const std::string name = dir.filename().string();
  if (subsystem == "usb" || std::regex_match(name, usbBus)) return Transport::USB;
  if (subsystem == "firewire" || std::regex_match(name, fwNode)) return Transport::FireWire;
  if (std::regex_match(name, ataPort)) return Transport::SATA;
  return Transport::Other;
}

Transport transportFromAncestry(const BlockDevice& d) {
  bool ata = false;
  for (const auto& dir : ancestry(d)) {
    const Transport t = transportOfFolder(dir);
    if (t == Transport::USB || t == Transport::FireWire) return t;
    if (t == Transport::SATA) ata = true;
  }
  return ata ? Transport::SATA : Transport::Other;
}

std::string firstOf(std::initializer_list<std::string> candidates) {
  for (const auto& c : candidates)
    if (!c.empty()) return c;
  return {};
}

std::string attr(const fs::path& dir, const char* name) { return readSysAttr(dir.string(), name).value_or(""); }

// An ATA string of the identify data: words with their two bytes swapped.
std::string ataString(const uint8_t* identify, size_t firstWord, size_t words) {
  std::string s;
  for (size_t w = firstWord; w < firstWord + words; ++w) {
    s.push_back(static_cast<char>(identify[2 * w + 1]));
    s.push_back(static_cast<char>(identify[2 * w]));
  }
  while (!s.empty() && (s.back() == ' ' || s.back() == '\0')) s.pop_back();
  return s;
}

struct AtaStrings {
  std::string model, serial, firmware;
};

// The ATA information page (VPD 0x89) holds the drive's identify data from
// byte 60: the same strings udev's ATA helper reads.
std::optional<AtaStrings> ataIdentify(const fs::path& scsiDevice) {
  auto page = readSysBinary(scsiDevice.string(), "vpd_pg89", 1024);
  if (!page || page->size() < 60 + 512 || (*page)[1] != 0x89) return std::nullopt;
  const uint8_t* id = page->data() + 60;
  return AtaStrings{ataString(id, 27, 20), ataString(id, 10, 10), ataString(id, 23, 4)};
}

// The unit serial number page (VPD 0x80).
std::string scsiSerial(const fs::path& scsiDevice) {
  auto page = readSysBinary(scsiDevice.string(), "vpd_pg80", 1024);
  if (!page || page->size() < 4 || (*page)[1] != 0x80) return {};
  const size_t length = std::min<size_t>(loadBE16(page->data() + 2), page->size() - 4);
  return std::string(page->begin() + 4, page->begin() + 4 + static_cast<ptrdiff_t>(length));
}

// The nearest folder above a disk holding `file` (a USB device's idVendor, a
// FireWire unit's guid), or empty.
fs::path ancestorWith(const BlockDevice& d, const char* file) {
  for (const auto& dir : ancestry(d))
    if (fs::exists(dir / file)) return dir;
  return {};
}

}  // namespace

std::string decodeUdevEscapes(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size() && text[i + 1] == 'x' && std::isxdigit(static_cast<unsigned char>(text[i + 2])) &&
        std::isxdigit(static_cast<unsigned char>(text[i + 3]))) {
      out.push_back(static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16)));
      i += 3;
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

Transport transportOf(const BlockDevice& disk) {
  const Transport fromSysfs = transportFromAncestry(disk);
  // A USB enclosure may carry ID_BUS=ata from the ATA helper: the ancestry
  // tells the attachment.
  if (fromSysfs == Transport::USB || fromSysfs == Transport::FireWire) return fromSysfs;
  const std::string bus = disk.property("ID_BUS");
  if (bus == "usb") return Transport::USB;
  if (bus == "ieee1394") return Transport::FireWire;
  if (bus == "ata") return Transport::SATA;
  return fromSysfs;
}

DriveIdentity identityOf(const BlockDevice& disk) {
  DriveIdentity id;
  id.transport = transportOf(disk);
  const fs::path device = fs::path(disk.sysPath) / "device";
  auto udevText = [&](const char* encoded, const char* plain) {
    const std::string enc = disk.property(encoded);
    return enc.empty() ? disk.property(plain) : decodeUdevEscapes(enc);
  };
  if (id.transport == Transport::USB || id.transport == Transport::FireWire) {
    // SCSI inquiry strings: what the bridge reports, the same with or without udev.
    id.vendor = firstOf({attr(device, "vendor"), udevText("ID_USB_VENDOR_ENC", "ID_USB_VENDOR"),
                         udevText("ID_VENDOR_ENC", "ID_VENDOR")});
    id.model = firstOf({attr(device, "model"), udevText("ID_USB_MODEL_ENC", "ID_USB_MODEL"),
                        udevText("ID_MODEL_ENC", "ID_MODEL")});
    id.revision = firstOf({attr(device, "rev"), disk.property("ID_USB_REVISION"), disk.property("ID_REVISION")});
    const fs::path usb = ancestorWith(disk, "idVendor");
    const fs::path unit = ancestorWith(disk, "guid");
    id.serial = firstOf({disk.property("ID_SERIAL_SHORT"), usb.empty() ? std::string() : attr(usb, "serial"),
                         unit.empty() ? std::string() : attr(unit, "guid")});
    return id;
  }
  const auto ata = ataIdentify(device);
  id.model = firstOf({udevText("ID_MODEL_ENC", "ID_MODEL"), disk.property("ID_NAME"), ata ? ata->model : "",
                      attr(device, "model"), attr(device, "name")});
  id.serial = firstOf({disk.property("ID_SERIAL_SHORT"), ata ? ata->serial : "", attr(device, "serial"),
                       attr(disk.sysPath, "serial"), scsiSerial(device)});
  id.revision = firstOf({disk.property("ID_REVISION"), ata ? ata->firmware : "", attr(device, "rev"),
                         attr(device, "firmware_rev"), attr(device, "fwrev")});
  if (id.transport == Transport::SATA) id.vendor = attr(device, "vendor");
  return id;
}

std::string hfsContentOfHeader(const uint8_t* header) {
  const uint16_t sig = loadBE16(header);
  if (sig == kHFSPlusSigWord || sig == kHFSXSigWord) return "Apple_HFS";
  if (sig == kHFSSigWord) {
    const uint16_t embedded = loadBE16(header + offsetof(MasterDirectoryBlock, drEmbedSigWord));
    if (embedded == kHFSPlusSigWord || embedded == kHFSXSigWord) return "Apple_HFS";
  }
  return {};
}

std::optional<std::string> partitionContent(const BlockDevice& partition) {
  const std::string type = partition.property("ID_PART_ENTRY_TYPE");
  const std::string t = lower(type);
  if (t == kHFSPlusGUID || t == "0xaf" || t == "apple_hfs") return std::string("Apple_HFS");
  if (t == "apple_hfsx") return std::string("Apple_HFSX");
  const std::string fsType = partition.property("ID_FS_TYPE");
  if (fsType == "hfsplus") return std::string("Apple_HFS");
  if (!type.empty()) return type;
  if (!fsType.empty()) return fsType;
  // No udev data: look at the volume header as udev's prober would.
  int fd = ::open(partition.devNode.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  struct stat st {};
  uint8_t header[512];
  const bool ok = ::fstat(fd, &st) == 0 && (S_ISBLK(st.st_mode) || S_ISREG(st.st_mode)) &&
                  ::pread(fd, header, sizeof header, 1024) == static_cast<ssize_t>(sizeof header);
  ::close(fd);
  if (!ok) return std::nullopt;
  return hfsContentOfHeader(header);
}

std::string ownIconOf(const BlockDevice& device) { return device.property("UDISKS_ICON_NAME"); }

}  // namespace ambrel
