#include "drives/Machine.h"

#include "base/Endian.h"

namespace ambrel::test {

namespace {

constexpr const char* kHfsGuid = "48465300-0000-11AA-AA11-00306543ECAC";
constexpr const char* kEfiGuid = "c12a7328-f81f-11d2-ba4b-00a0c93ec93b";
constexpr const char* kLinuxGuid = "0fc63daf-8483-4772-8e79-3d69d8477de4";

// An HFS wrapper whose embedded volume (a journaled HFS+) starts at
// allocation block 2 of 4096-byte blocks from sector 16: its header is at
// sector 16 + 8 * 2 + 2 = 34.
std::vector<uint8_t> wrapperBytes() {
  std::vector<uint8_t> bytes(64 * 1024, 0);
  uint8_t* mdb = bytes.data() + 1024;
  storeBE16(mdb, 0x4244);
  storeBE32(mdb + 20, 4096);
  storeBE16(mdb + 28, 16);
  storeBE16(mdb + 124, 0x482B);
  storeBE16(mdb + 126, 2);
  storeBE16(mdb + 128, 100);
  const auto embedded = volumeHeaderBytes(false, true);
  std::copy(embedded.begin() + 1024, embedded.begin() + 1536, bytes.begin() + 34 * 512);
  return bytes;
}

void putAscii(uint8_t* identify, size_t firstWord, size_t words, const std::string& text) {
  std::string padded = text;
  padded.resize(words * 2, ' ');
  for (size_t i = 0; i < words; ++i) {
    identify[2 * (firstWord + i)] = static_cast<uint8_t>(padded[2 * i + 1]);
    identify[2 * (firstWord + i) + 1] = static_cast<uint8_t>(padded[2 * i]);
  }
}

}  // namespace

std::vector<uint8_t> ataInformationPage(const std::string& model, const std::string& serial, const std::string& firmware) {
  std::vector<uint8_t> page(572, 0);
  page[1] = 0x89;
  storeBE16(page.data() + 2, 568);
  uint8_t* id = page.data() + 60;
  putAscii(id, 10, 10, serial);
  putAscii(id, 23, 4, firmware);
  putAscii(id, 27, 20, model);
  return page;
}

void buildMachine(FakeTree& t) {
  const std::vector<uint8_t> zeros(4096, 0);

  // SATA disk described by udev: GPT with an EFI partition, a mounted HFS+
  // volume and a Linux partition formatted HFS+.
  t.addDisk("sda", std::string(kSataPath) + "/block/sda", kSataPath, 8, 0, kSdaSectors);
  t.setAttr(kSataPath, "vendor", "ATA     ");
  t.setAttr(kSataPath, "model", "Samsung SSD 860 ");
  t.setAttr(kSataPath, "rev", "4B6Q");
  t.setUdev(8, 0, {{"ID_BUS", "ata"}, {"ID_MODEL", "Samsung_SSD_860_EVO_500GB"},
                   {"ID_MODEL_ENC", "Samsung\\x20SSD\\x20860\\x20EVO\\x20500GB\\x20\\x20\\x20\\x20"},
                   {"ID_SERIAL_SHORT", "S3Z9NB0K123456A"}, {"ID_REVISION", "RVT04B6Q"},
                   {"ID_PART_TABLE_TYPE", "gpt"}});
  t.addPartition("sda", "sda1", 1, 8, 1, 409600);
  t.setUdev(8, 1, {{"ID_PART_ENTRY_TYPE", kEfiGuid}, {"ID_FS_TYPE", "vfat"}, {"ID_PART_ENTRY_SCHEME", "gpt"}});
  t.setNode("sda1", zeros);
  t.addPartition("sda", "sda2", 2, 8, 2, 900000000);
  t.setUdev(8, 2, {{"ID_PART_ENTRY_TYPE", kHfsGuid}, {"ID_FS_TYPE", "hfsplus"}});
  t.setNode("sda2", volumeHeaderBytes(false, true));
  t.addPartition("sda", "sda3", 3, 8, 3, 76363568);
  t.setUdev(8, 3, {{"ID_PART_ENTRY_TYPE", kLinuxGuid}, {"ID_FS_TYPE", "hfsplus"}});
  t.setNode("sda3", volumeHeaderBytes(false, false));

  // USB stick: MBR with an HFSX volume (type 0xaf) and a FAT32 one.
  t.addDisk("sdb", std::string(kUsbPath) + "/block/sdb", kUsbPath, 8, 16, kSdbSectors, true);
  t.setAttr(kUsbDevice, "idVendor", "0781");
  t.setAttr(kUsbDevice, "serial", "4C530001230101117391");
  t.setAttr(kUsbPath, "vendor", "SanDisk ");
  t.setAttr(kUsbPath, "model", "Cruzer Blade    ");
  t.setAttr(kUsbPath, "rev", "1.00");
  t.setUdev(8, 16, {{"ID_BUS", "usb"}, {"ID_VENDOR", "SanDisk"}, {"ID_VENDOR_ENC", "SanDisk\\x20"},
                    {"ID_MODEL", "Cruzer_Blade"}, {"ID_MODEL_ENC", "Cruzer\\x20Blade\\x20\\x20\\x20\\x20"},
                    {"ID_REVISION", "1.00"}, {"ID_SERIAL_SHORT", "4C530001230101117391"},
                    {"UDISKS_ICON_NAME", "media-flash"}});
  t.addPartition("sdb", "sdb1", 1, 8, 17, 20000000);
  t.setUdev(8, 17, {{"ID_PART_ENTRY_TYPE", "0xaf"}, {"ID_PART_ENTRY_SCHEME", "dos"}, {"ID_FS_TYPE", "hfsplus"}});
  t.setNode("sdb1", volumeHeaderBytes(true, false));
  t.addPartition("sdb", "sdb2", 2, 8, 18, 11000000);
  t.setUdev(8, 18, {{"ID_PART_ENTRY_TYPE", "0xc"}, {"ID_FS_TYPE", "vfat"}});
  t.setNode("sdb2", zeros);

  // FireWire disk with an Apple partition map; the disk itself has no udev
  // record, and its last partition nothing known at all.
  t.addDisk("sdc", std::string(kFireWirePath) + "/block/sdc", kFireWirePath, 8, 32, kSdcSectors);
  t.setAttr(kFireWireNode, "guid", "0x00d04b0000123456");
  t.setAttr(kFireWirePath, "vendor", "LaCie   ");
  t.setAttr(kFireWirePath, "model", "d2 Quadra       ");
  t.setAttr(kFireWirePath, "rev", "0913");
  t.addPartition("sdc", "sdc1", 1, 8, 33, 63);
  t.setUdev(8, 33, {{"ID_PART_ENTRY_TYPE", "Apple_partition_map"}, {"ID_PART_ENTRY_SCHEME", "mac"}});
  t.setNode("sdc1", zeros);
  t.addPartition("sdc", "sdc2", 2, 8, 34, 1000000000);
  t.setUdev(8, 34, {{"ID_PART_ENTRY_TYPE", "Apple_HFS"}, {"ID_PART_ENTRY_SCHEME", "mac"}});
  t.setNode("sdc2", wrapperBytes());
  t.addPartition("sdc", "sdc3", 3, 8, 35, 900000000);
  t.setUdev(8, 35, {{"ID_PART_ENTRY_TYPE", "Apple_HFSX"}, {"ID_PART_ENTRY_SCHEME", "mac"}});
  t.setNode("sdc3", volumeHeaderBytes(true, false));
  t.addPartition("sdc", "sdc4", 4, 8, 36, 53525000);

  // A card reader on USB with no card in it.
  t.addDisk("sdd", std::string(kReaderPath) + "/block/sdd", kReaderPath, 8, 48, 0, true);

  // SATA disk without a udev record: sysfs and the ATA identify page alone.
  t.addDisk("sde", std::string(kSata2Path) + "/block/sde", kSata2Path, 8, 64, kSdeSectors);
  t.setAttr(kSata2Path, "vendor", "ATA     ");
  t.setAttr(kSata2Path, "model", "WDC WD40EFRX-68N");
  t.setAttr(kSata2Path, "rev", "0A82");
  t.setAttrBytes(kSata2Path, "vpd_pg89", ataInformationPage("WDC WD40EFRX-68N32N0", "WD-WCC7K1234567", "82.00A82"));

  // NVMe: two namespaces of one controller, no udev records; the first
  // namespace's partitions are told apart by their headers.
  t.addDisk("nvme0n1", std::string(kNvmeController) + "/nvme0n1", kNvmeController, 259, 0, kNvmeSectors);
  t.setAttr(kNvmeController, "model", "Samsung SSD 970 EVO Plus 1TB            ");
  t.setAttr(kNvmeController, "serial", "S4EWNX0R123456      ");
  t.setAttr(kNvmeController, "firmware_rev", "2B2QEXM7");
  t.addPartition("nvme0n1", "nvme0n1p1", 1, 259, 1, 1000000000);
  t.setNode("nvme0n1p1", volumeHeaderBytes(false, false));
  t.addPartition("nvme0n1", "nvme0n1p2", 2, 259, 2, 953525000);
  t.setNode("nvme0n1p2", zeros);
  t.addDisk("nvme0n2", std::string(kNvmeController) + "/nvme0n2", kNvmeController, 259, 3, kNvme2Sectors);

  // SD card in a built-in reader, FAT32.
  t.addDisk("mmcblk0", std::string(kMmcCard) + "/block/mmcblk0", kMmcCard, 179, 0, kMmcSectors, true);
  t.setAttr(kMmcCard, "name", "SD16G");
  t.setAttr(kMmcCard, "serial", "0x1234abcd");
  t.setAttr(kMmcCard, "fwrev", "0x0");
  t.setUdev(179, 0, {{"ID_NAME", "SD16G"}, {"ID_SERIAL", "SD16G_0x1234abcd"}});
  t.addPartition("mmcblk0", "mmcblk0p1", 1, 179, 1, 31112192);
  t.setUdev(179, 1, {{"ID_PART_ENTRY_TYPE", "0xc"}, {"ID_FS_TYPE", "vfat"}});
  t.setNode("mmcblk0p1", zeros);

  // A disk image on loop0 with an HFS+ partition; loop1 unbound; zram swap.
  t.addDisk("loop0", "virtual/block/loop0", "", 7, 0, 204800);
  t.setAttr("virtual/block/loop0/loop", "backing_file", "/home/user/disk image.dmg");
  t.addPartition("loop0", "loop0p1", 1, 259, 4, 200000);
  t.setUdev(259, 4, {{"ID_PART_ENTRY_TYPE", kHfsGuid}});
  t.setNode("loop0p1", volumeHeaderBytes(false, false));
  t.addDisk("loop1", "virtual/block/loop1", "", 7, 1, 0);
  t.addDisk("zram0", "virtual/block/zram0", "", 252, 0, 8388608);

  // Whole disks hold a node too (sdc4 alone has none: nothing can be read of it).
  for (const char* disk : {"sda", "sdb", "sdc", "sde", "nvme0n1", "nvme0n2", "mmcblk0"}) t.setNode(disk, zeros);

  t.addMount(254, 0, "/", "ext4", "/dev/vda");
  t.addMount(0, 21, "/proc", "proc", "proc");
  t.addMount(8, 2, "/media/user/Mac HD", "hfsplus", "/dev/sda2");
  t.addMount(8, 17, "/media/user/STICK", "hfsplus", "/dev/disk/by-uuid/2a4f-77e1");
  t.addMount(8, 34, "/Volumes/Old Backup", "hfsplus", "/dev/sdc2");
}

}  // namespace ambrel::test
