// Discovery over a fake machine: the media found, the mounted volumes, their
// joining, and the two lists of the first page, dictionary by dictionary.
#include <gtest/gtest.h>

#include "drives/Machine.h"
#include "media/DriveFinder.h"
#include "media/DriveList.h"
#include "support/TempDir.h"

namespace ambrel {
namespace {

using namespace test;

void expectSameDict(const PlistValue& actual, const PlistDict& expected) {
  ASSERT_NE(actual.dict(), nullptr);
  EXPECT_EQ(*actual.dict(), expected) << "actual:   " << actual.toJson() << "\nexpected: " << PlistValue(expected).toJson();
}

std::vector<std::string> pathsOf(const PlistArray& list) {
  std::vector<std::string> out;
  for (const auto& d : list) out.push_back(d.dict()->string("device path"));
  return out;
}

PlistDict icon(PlistDict d, const char* name) {
  d.set("CFBundleIdentifier", "icon-theme");
  d.set("IOBundleResourceFile", name);
  return d;
}

class FakeMachine : public ::testing::Test {
 protected:
  void SetUp() override { test::buildMachine(tree); }
  std::string dev(const std::string& name) const { return tree.devPath(name); }
  TempDir dir;
  FakeTree tree{dir.path()};
};

TEST_F(FakeMachine, MediaInDeviceOrderWithImagesEmptyReadersAndForeignPartitionsLeftOut) {
  PlistArray media;
  FindMediaMain(media, tree.roots());
  EXPECT_EQ(pathsOf(media),
            (std::vector<std::string>{dev("sda"), dev("sda2"), dev("sda3"), dev("sdb"), dev("sdb1"), dev("sdc"),
                                      dev("sdc2"), dev("sdc3"), dev("sdc4"), dev("sde"), dev("loop0p1"),
                                      dev("nvme0n1"), dev("nvme0n1p1"), dev("nvme0n2"), dev("mmcblk0")}));
}

TEST_F(FakeMachine, MountedLocalVolumesByDeviceNumberWithEscapedNames) {
  const auto devices = enumerateBlockDevices(tree.roots());
  const PlistArray volumes = volumeList(tree.roots(), devices);
  ASSERT_EQ(volumes.size(), 4u) << PlistValue(volumes).toJson();
  expectSameDict(volumes[0], {{"Mounted Path", "/"}, {"Volume Name", "/"}, {"Volume Path", dev("vda")}});
  expectSameDict(volumes[1], {{"Mounted Path", "/media/user/Mac HD"}, {"Volume Name", "Mac HD"}, {"Volume Path", dev("sda2")}});
  // Mounted by a by-uuid link: the device number names the node.
  expectSameDict(volumes[2], {{"Mounted Path", "/media/user/STICK"}, {"Volume Name", "STICK"}, {"Volume Path", dev("sdb1")}});
  expectSameDict(volumes[3],
                 {{"Mounted Path", "/Volumes/Old Backup"}, {"Volume Name", "Old Backup"}, {"Volume Path", dev("sdc2")}});
}

TEST_F(FakeMachine, DrivesCarryExactlyTheirKeys) {
  const DriveLists lists = initialDriveList(tree.roots());
  ASSERT_EQ(pathsOf(lists.driveDictArray),
            (std::vector<std::string>{dev("sda"), dev("sdb"), dev("sdc"), dev("sdc4"), dev("sde"), dev("nvme0n1"),
                                      dev("nvme0n2"), dev("mmcblk0")}));
  const auto& d = lists.driveDictArray;
  // SATA from udev: the encoded model with its spaces, trimmed.
  expectSameDict(d[0], icon({{"device path", dev("sda")}, {"device size", kSdaSectors * 512}, {"WhetherSATA", 1},
                             {"device model", "Samsung SSD 860 EVO 500GB"}, {"device serial", "S3Z9NB0K123456A"},
                             {"device revision", "RVT04B6Q"}, {"WhetherDiskDict", true}},
                            "drive-harddisk"));
  // USB: vendor, product and revision as the device gives them, untrimmed;
  // udev's icon for the stick.
  expectSameDict(d[1], icon({{"device path", dev("sdb")}, {"device size", kSdbSectors * 512}, {"WhetherUSB", 1},
                             {"Vendor Identification", "SanDisk "}, {"Product Identification", "Cruzer Blade    "},
                             {"Product Revision Level", "1.00"}, {"WhetherDiskDict", true}},
                            "media-flash"));
  // FireWire counts as USB; sysfs alone (no udev record) gives the same keys.
  expectSameDict(d[2], icon({{"device path", dev("sdc")}, {"device size", kSdcSectors * 512}, {"WhetherUSB", 1},
                             {"Vendor Identification", "LaCie   "}, {"Product Identification", "d2 Quadra       "},
                             {"Product Revision Level", "0913"}, {"WhetherDiskDict", true}},
                            "drive-harddisk-usb"));
  // A partition nothing is known of is kept without the volume keys, and so
  // listed among the drives.
  expectSameDict(d[3], icon({{"device path", dev("sdc4")}, {"device size", uint64_t{53525000} * 512},
                             {"WhetherUSB", 1}, {"WhetherDiskDict", true}},
                            "drive-removable-media"));
  // SATA without udev: the strings of the ATA identify page, not SCSI's 16 characters.
  expectSameDict(d[4], icon({{"device path", dev("sde")}, {"device size", kSdeSectors * 512}, {"WhetherSATA", 1},
                             {"device model", "WDC WD40EFRX-68N32N0"}, {"device serial", "WD-WCC7K1234567"},
                             {"device revision", "82.00A82"}, {"WhetherDiskDict", true}},
                            "drive-harddisk"));
  const PlistDict nvme{{"device model", "Samsung SSD 970 EVO Plus 1TB"}, {"device serial", "S4EWNX0R123456"},
                       {"device revision", "2B2QEXM7"}, {"WhetherDiskDict", true}};
  PlistDict n1 = icon(nvme, "drive-harddisk");
  n1.set("device path", dev("nvme0n1"));
  n1.set("device size", kNvmeSectors * 512);
  expectSameDict(d[5], n1);
  PlistDict n2 = icon(nvme, "drive-harddisk");
  n2.set("device path", dev("nvme0n2"));
  n2.set("device size", kNvme2Sectors * 512);
  expectSameDict(d[6], n2);
  expectSameDict(d[7], icon({{"device path", dev("mmcblk0")}, {"device size", kMmcSectors * 512},
                             {"device model", "SD16G"}, {"device serial", "0x1234abcd"}, {"device revision", "0x0"},
                             {"WhetherDiskDict", true}},
                            "drive-removable-media"));
}

TEST_F(FakeMachine, VolumesCarryExactlyTheirKeys) {
  const DriveLists lists = initialDriveList(tree.roots());
  // loop0p1 belongs to a disk image, which is not a listed drive.
  ASSERT_EQ(pathsOf(lists.volumeDictArray), (std::vector<std::string>{dev("sda2"), dev("sda3"), dev("sdb1"),
                                                                      dev("sdc2"), dev("sdc3"), dev("nvme0n1p1")}));
  const auto& v = lists.volumeDictArray;
  expectSameDict(v[0], icon({{"device path", dev("sda2")}, {"device size", uint64_t{900000000} * 512},
                             {"WhetherVolume", true}, {"Content", "Apple_HFS"}, {"WhetherSATA", 1},
                             {"Volume Name", "Mac HD"}, {"Journaled", "Yes"}},
                            "drive-removable-media"));
  // HFS+ by its file system on a Linux partition; not mounted.
  expectSameDict(v[1], icon({{"device path", dev("sda3")}, {"device size", uint64_t{76363568} * 512},
                             {"WhetherVolume", true}, {"Content", "Apple_HFS"}, {"WhetherSATA", 1},
                             {"Volume Name", "-"}},
                            "drive-removable-media"));
  // MBR 0xaf, mounted: its header says HX, so HFSX; the disk's own icon.
  expectSameDict(v[2], icon({{"device path", dev("sdb1")}, {"device size", uint64_t{20000000} * 512},
                             {"WhetherVolume", true}, {"Content", "Apple_HFSX"}, {"WhetherUSB", 1},
                             {"Volume Name", "STICK"}, {"Journaled", "No"}},
                            "media-flash"));
  // An HFS wrapper: journaled by the embedded volume's header.
  expectSameDict(v[3], icon({{"device path", dev("sdc2")}, {"device size", uint64_t{1000000000} * 512},
                             {"WhetherVolume", true}, {"Content", "Apple_HFS"}, {"WhetherUSB", 1},
                             {"Volume Name", "Old Backup"}, {"Journaled", "Yes"}},
                            "drive-removable-media"));
  expectSameDict(v[4], icon({{"device path", dev("sdc3")}, {"device size", uint64_t{900000000} * 512},
                             {"WhetherVolume", true}, {"Content", "Apple_HFSX"}, {"WhetherUSB", 1},
                             {"Volume Name", "-"}},
                            "drive-removable-media"));
  // No udev: the partition's own header says HFS+.
  expectSameDict(v[5], icon({{"device path", dev("nvme0n1p1")}, {"device size", uint64_t{1000000000} * 512},
                             {"WhetherVolume", true}, {"Content", "Apple_HFS"}, {"Volume Name", "-"}},
                            "drive-removable-media"));
}

TEST_F(FakeMachine, WithoutUdevSysfsAndHeadersTellTheSameDrivesApart) {
  const DriveLists lists = initialDriveList(tree.roots(/*withUdev=*/false));
  EXPECT_EQ(pathsOf(lists.driveDictArray),
            (std::vector<std::string>{dev("sda"), dev("sdb"), dev("sdc"), dev("sdc4"), dev("sde"), dev("nvme0n1"),
                                      dev("nvme0n2"), dev("mmcblk0")}));
  // Partition types come from the volumes' headers now: the EFI and FAT
  // partitions hold none, the APM map neither.
  EXPECT_EQ(pathsOf(lists.volumeDictArray), (std::vector<std::string>{dev("sda2"), dev("sda3"), dev("sdb1"),
                                                                      dev("sdc2"), dev("sdc3"), dev("nvme0n1p1")}));
  const PlistDict& sda = *lists.driveDictArray[0].dict();
  EXPECT_EQ(sda.string("device model"), "Samsung SSD 860");  // SCSI inquiry, 16 characters
  EXPECT_EQ(sda.string("device serial"), "-");
  EXPECT_TRUE(sda.contains("WhetherSATA"));
  const PlistDict& sdb = *lists.driveDictArray[1].dict();
  EXPECT_EQ(sdb.string("Vendor Identification"), "SanDisk ");
  EXPECT_EQ(sdb.string("IOBundleResourceFile"), "drive-harddisk-usb");
  // Mounted HX still becomes HFSX through its header.
  EXPECT_EQ(lists.volumeDictArray[2].dict()->string("Content"), "Apple_HFSX");
  const PlistDict& mmc = *lists.driveDictArray[7].dict();
  EXPECT_EQ(mmc.string("device model"), "SD16G");
  EXPECT_EQ(mmc.string("device serial"), "0x1234abcd");
}

TEST_F(FakeMachine, MountedVolumeWhoseHeaderCannotBeReadHasNoJournalKey) {
  DriveLists lists = initialDriveList(tree.roots(), [](const std::string&, uint64_t, uint8_t*) { return false; });
  const PlistDict& sda2 = *lists.volumeDictArray[0].dict();
  EXPECT_EQ(sda2.string("Volume Name"), "Mac HD");
  EXPECT_FALSE(sda2.contains("Journaled"));
  EXPECT_EQ(lists.volumeDictArray[2].dict()->string("Content"), "Apple_HFS");
}

TEST(DriveList, VolumesStayWhenADrivePathIsASubstringOfTheirs) {
  PlistArray media{PlistDict{{"device path", "/dev/sdb"}},
                   PlistDict{{"device path", "/dev/sdb1x"}, {"WhetherVolume", true}, {"Content", "Apple_HFS"}},
                   PlistDict{{"device path", "/dev/sdba1"}, {"WhetherVolume", true}, {"Content", "Apple_HFS"}},
                   PlistDict{{"device path", "/dev/sdc1"}, {"WhetherVolume", true}, {"Content", "Apple_HFS"},
                             {"Volume Name", "Kept Name"}}};
  PlistArray drives, volumes;
  separateDrvVol(media, drives, volumes);
  ASSERT_EQ(drives.size(), 1u);
  EXPECT_TRUE(drives[0].dict()->boolean("WhetherDiskDict"));
  // /dev/sdb claims /dev/sdb1x and /dev/sdba1; nothing claims /dev/sdc1.
  EXPECT_EQ(pathsOf(volumes), (std::vector<std::string>{"/dev/sdb1x", "/dev/sdba1"}));
  EXPECT_EQ(volumes[0].dict()->string("Volume Name"), "-");
}

TEST(DriveList, ModelsAndSerialsTrimmedExceptOnUsbOnlyDrives) {
  PlistArray media{
      PlistDict{{"device path", "/dev/sda"}, {"device model", "  WDC WD40  \t"}, {"WhetherSATA", 1}},
      PlistDict{{"device path", "/dev/sdb"}, {"WhetherUSB", 1}, {"device model", " Stick "}},
      PlistDict{{"device path", "/dev/sdc"}, {"WhetherUSB", 1}, {"WhetherSATA", 1}, {"device serial", " 12 "}},
      PlistDict{{"device path", "/dev/sdc1"}, {"WhetherVolume", true}, {"device model", " x "}}};
  truncateDriveModelNumber(media);
  EXPECT_EQ(media[0].dict()->string("device model"), "WDC WD40");
  EXPECT_EQ(media[0].dict()->string("device serial"), "-");
  EXPECT_EQ(media[1].dict()->string("device model"), " Stick ");
  EXPECT_FALSE(media[1].dict()->contains("device serial"));
  EXPECT_EQ(media[2].dict()->string("device model"), "-");
  EXPECT_EQ(media[2].dict()->string("device serial"), "12");
  EXPECT_EQ(media[3].dict()->string("device model"), " x ");
}

TEST(DriveList, ColumnTexts) {
  EXPECT_EQ(driveModelText(PlistDict{{"WhetherUSB", 1}, {"Vendor Identification", "SanDisk "},
                                     {"Product Identification", "Cruzer Blade    "}}),
            "SanDisk Cruzer Blade");
  EXPECT_EQ(driveSerialText(PlistDict{{"WhetherUSB", 1}, {"device serial", "123"}}), "-");
  EXPECT_EQ(driveSerialText(PlistDict{{"device serial", "123"}}), "123");
  EXPECT_EQ(fileSystemText("Apple_HFSX"), "HFSX");
  EXPECT_EQ(fileSystemText("Apple_HFS"), "HFS+");
  EXPECT_EQ(fileSystemText("DOS_FAT_32"), "FAT32");
  EXPECT_EQ(fileSystemText("Linux"), "Linux");
}

TEST(MountInfo, FieldsOptionalTagsAndEscapes) {
  const auto mounts = parseMountInfo(
      "36 25 8:2 / /media/u/My\\040Disk\\134x rw,relatime shared:1 master:2 - hfsplus /dev/sda2 rw\n"
      "37 25 0:21 /sub /mnt/bind rw - ext4 /dev/root rw\n"
      "garbage line\n"
      "38 25 x:y / /bad rw - ext4 /dev/sdz rw\n");
  ASSERT_EQ(mounts.size(), 2u);
  EXPECT_EQ(mounts[0].major, 8u);
  EXPECT_EQ(mounts[0].minor, 2u);
  EXPECT_EQ(mounts[0].mountPoint, "/media/u/My Disk\\x");
  EXPECT_EQ(mounts[0].fsType, "hfsplus");
  EXPECT_EQ(mounts[0].source, "/dev/sda2");
  EXPECT_EQ(mounts[1].root, "/sub");
  EXPECT_EQ(unescapeMountField("a\\011b\\012c\\04"), "a\tb\nc\\04");
}

TEST(BlockDevices, NaturalOrderOfKernelNames) {
  EXPECT_TRUE(naturalLess("sdb2", "sdb10"));
  EXPECT_TRUE(naturalLess("sdz", "sdaa"));
  EXPECT_TRUE(naturalLess("sda", "sdb"));
  EXPECT_TRUE(naturalLess("loop2", "loop10"));
  EXPECT_FALSE(naturalLess("sdb", "sdb"));
  EXPECT_TRUE(naturalLess("sdb", "sdb1"));
}

}  // namespace
}  // namespace ambrel
