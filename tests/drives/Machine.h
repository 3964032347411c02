#pragma once
// One fake machine with every kind of drive discovery must tell apart: a
// SATA disk (udev) and one described by sysfs alone, a USB stick, a FireWire
// disk, an NVMe disk with two namespaces, an SD card, an empty card reader,
// a disk image on a loop device, an unbound loop device, a memory disk,
// partitions of every type, and mounted HFS+ volumes, one with spaces in
// its mount point.
#include <cstdlib>
#include <string>

#include "drives/FakeTree.h"

namespace ambrel::test {

inline constexpr uint64_t kSdaSectors = 976773168;
inline constexpr uint64_t kSdbSectors = 31260672;
inline constexpr uint64_t kSdcSectors = 1953525168;
inline constexpr uint64_t kSdeSectors = 7814037168;
inline constexpr uint64_t kNvmeSectors = 1953525168;
inline constexpr uint64_t kNvme2Sectors = 2097152;
inline constexpr uint64_t kMmcSectors = 31116288;

inline constexpr const char* kSataPath = "pci0000:00/0000:00:17.0/ata1/host0/target0:0:0/0:0:0:0";
inline constexpr const char* kSata2Path = "pci0000:00/0000:00:17.0/ata2/host1/target1:0:0/1:0:0:0";
inline constexpr const char* kUsbDevice = "pci0000:00/0000:00:14.0/usb2/2-1";
inline constexpr const char* kUsbPath = "pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0/host6/target6:0:0/6:0:0:0";
inline constexpr const char* kReaderPath = "pci0000:00/0000:00:14.0/usb2/2-2/2-2:1.0/host8/target8:0:0/8:0:0:0";
inline constexpr const char* kFireWireNode = "pci0000:00/0000:00:1c.0/0000:05:00.0/fw1";
inline constexpr const char* kFireWirePath = "pci0000:00/0000:00:1c.0/0000:05:00.0/fw1/fw1.0/host7/target7:0:0/7:0:0:0";
inline constexpr const char* kNvmeController = "pci0000:00/0000:00:1d.0/0000:3d:00.0/nvme/nvme0";
inline constexpr const char* kMmcCard = "platform/soc/mmc_host/mmc0/mmc0:aaaa";

// The command line under test, and the environment that points it at a fake machine.
inline std::string cli() {
  const char* p = std::getenv("AMBREL_CLI");
  return p ? p : "ambrel-cli";
}
inline std::string envFor(const FakeTree& tree) {
  const DiscoveryRoots r = tree.roots();
  return "AMBREL_SYSFS_ROOT='" + r.sysfs + "' AMBREL_DEV_ROOT='" + r.dev + "' AMBREL_MOUNTINFO='" + r.mountinfo +
         "' AMBREL_UDEV_DATA='" + r.udevData + "' ";
}

// Builds the machine; mount points and node contents as described above.
void buildMachine(FakeTree& tree);

// The identify page (VPD 0x89) of an ATA disk with these strings.
std::vector<uint8_t> ataInformationPage(const std::string& model, const std::string& serial, const std::string& firmware);

}  // namespace ambrel::test
