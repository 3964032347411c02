#pragma once
// What a block device is, as a person knows it: how it is attached, who made
// it, its model, serial and firmware, whether a partition holds HFS+, and
// which icon shows it. udev's properties first, sysfs where udev is silent.
#include <optional>
#include <string>

#include "media/BlockDevices.h"

namespace ambrel {

enum class Transport { Other, SATA, USB, FireWire };

struct DriveIdentity {
  Transport transport = Transport::Other;
  std::string vendor;
  std::string model;
  std::string serial;
  std::string revision;
};

// The transport from ID_BUS (ata, usb, ieee1394), else from the device's
// ancestry in sysfs (an ataN port, a usbN bus, a fwN node).
Transport transportOf(const BlockDevice& disk);

// Vendor, model, serial and revision of a disk (not of a partition): the
// udev properties (ID_VENDOR_ENC, ID_MODEL_ENC, ID_SERIAL_SHORT, ID_REVISION,
// ID_NAME for cards), else the device's sysfs attributes (the ATA identify
// page, SCSI inquiry, NVMe and MMC attributes, the USB device's serial).
// Texts are kept as the device gives them, padding included.
DriveIdentity identityOf(const BlockDevice& disk);

// The content of a partition, as the drive list names it: "Apple_HFS" for the
// HFS+ GUID, MBR type 0xaf, APM "Apple_HFS" or a file system udev (or our own
// look at its header, without udev) calls hfsplus; "Apple_HFSX" for APM
// "Apple_HFSX"; the type as udev gives it for anything else; nullopt when
// nothing is known of it (no udev data and the partition cannot be read).
std::optional<std::string> partitionContent(const BlockDevice& partition);

// The HFS+ content of a volume whose header sector (sector 2 of the volume)
// is `header`: "Apple_HFS" for H+ and HX, and for an HFS wrapper that embeds
// one; "" when it holds none of these.
std::string hfsContentOfHeader(const uint8_t* header);

// Icon names of the freedesktop icon theme. A medium's own icon is the
// UDISKS_ICON_NAME udev rules give it.
inline constexpr const char* kIconTheme = "icon-theme";  // "CFBundleIdentifier": look the name up in the theme
inline constexpr const char* kIconInternal = "drive-harddisk";
inline constexpr const char* kIconRemovable = "drive-removable-media";
inline constexpr const char* kIconUSB = "drive-harddisk-usb";
std::string ownIconOf(const BlockDevice& device);

// Decodes udev's \xNN escapes (ID_MODEL_ENC and friends).
std::string decodeUdevEscapes(const std::string& text);

}  // namespace ambrel
