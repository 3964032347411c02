// Sector access on disk images: what reads return, which failures are silent,
// which ask to quit, and that a drive keeps exactly one descriptor.
#include <gtest/gtest.h>

#include <dirent.h>

#include <cstring>
#include <vector>

#include "base/Endian.h"
#include "media/DMedia.h"
#include "support/RecordingController.h"
#include "support/TempDir.h"

using namespace ambrel;
using test::RecordingController;

namespace {

int openDescriptorCount() {
  int n = 0;
  if (DIR* d = ::opendir("/proc/self/fd")) {
    while (::readdir(d)) ++n;
    ::closedir(d);
  }
  return n;
}

PlistDict driveDict(const std::string& path, uint64_t size) {
  return PlistDict{{"device path", path}, {"device size", size}, {"device model", "Model X"},
                   {"device serial", "S123"}, {"device revision", "1.0"}};
}

struct ImageFixture : ::testing::Test {
  test::TempDir dir;
  std::string image = (dir / "drive.img").string();
  std::vector<uint8_t> bytes;
  RecordingController controller;

  void SetUp() override {
    bytes.resize(8 * 512);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i / 512 * 16 + i % 7);
    test::writeFile(image, bytes);
    controller.drives.push_back(driveDict(image, bytes.size()));
  }
};

}  // namespace

TEST(DMediaIdentity, DriveDictionaryFields) {
  PlistDict d{{"device path", "/dev/sdz"}, {"device size", uint64_t{1000205}}, {"device model", "WD Blue"},
              {"device serial", "WX1"}, {"device revision", "01.01A01"}};
  DMedia plain(d, nullptr);
  EXPECT_EQ(plain.path, "/dev/sdz");
  EXPECT_EQ(plain.cPath, "/dev/sdz");
  EXPECT_EQ(plain.sizeInBytes, 1000205u);
  EXPECT_EQ(plain.sizeInSect, 1953u);  // rounded down
  EXPECT_EQ(plain.model, "WD Blue");
  EXPECT_EQ(plain.serial, "WX1");
  EXPECT_EQ(plain.revision, "01.01A01");
  EXPECT_TRUE(plain.volumePMArray.empty());
  EXPECT_TRUE(plain.btreeForVIBCreateDate.empty());
  EXPECT_FALSE(plain.abortVolumeScan);

  // "WhetherUSB" present, whatever its value: identity from the USB keys,
  // and a missing key reads as the text of a nil object.
  d.set("WhetherUSB", false);
  d.set("Vendor Identification", "SanDisk");
  d.set("Product Identification", "Ultra");
  DMedia usb(d, nullptr);
  EXPECT_EQ(usb.model, "SanDisk");
  EXPECT_EQ(usb.serial, "Ultra");
  EXPECT_EQ(usb.revision, "(null)");
}

TEST_F(ImageFixture, ReadsWholeSectorsAtSectorOffsets) {
  DMedia media(controller.drives[0].dict() ? *controller.drives[0].dict() : PlistDict{}, &controller);
  std::vector<uint8_t> buf(2 * 512);
  ASSERT_TRUE(media.readSector(3, 2, buf.data()));
  EXPECT_EQ(0, std::memcmp(buf.data(), &bytes[3 * 512], 1024));
  ASSERT_TRUE(media.readPreviewSector(7, 1, buf.data()));
  EXPECT_EQ(0, std::memcmp(buf.data(), &bytes[7 * 512], 512));
  ASSERT_TRUE(media.readSaveSector(0, 1, buf.data()));
  EXPECT_EQ(0, std::memcmp(buf.data(), &bytes[0], 512));
  EXPECT_TRUE(controller.alerts.empty());
}

TEST_F(ImageFixture, ZeroSectorsSucceedShortReadsFailWithTheRestZeroed) {
  DMedia media(*controller.drives[0].dict(), &controller);
  std::vector<uint8_t> buf(1024, 0x5A);
  EXPECT_TRUE(media.readSector(0, 0, buf.data()));
  EXPECT_TRUE(std::all_of(buf.begin(), buf.end(), [](uint8_t b) { return b == 0x5A; }));

  // Past the end nothing comes back: a failed read, and nothing of what the
  // buffer held before (the previous node, say) may pass for its content.
  EXPECT_FALSE(media.readSector(100, 2, buf.data()));
  EXPECT_TRUE(std::all_of(buf.begin(), buf.end(), [](uint8_t b) { return b == 0; }));

  // Straddling the end: what was there is kept, the rest zeroed, and the
  // read still fails. The same for every reader.
  for (int reader = 0; reader < 3; ++reader) {
    std::fill(buf.begin(), buf.end(), 0x5A);
    const bool ok = reader == 0   ? media.readSector(7, 2, buf.data())
                    : reader == 1 ? media.readPreviewSector(7, 2, buf.data())
                                  : media.readSaveSector(7, 2, buf.data());
    EXPECT_FALSE(ok) << reader;
    EXPECT_EQ(0, std::memcmp(buf.data(), &bytes[7 * 512], 512)) << reader;
    EXPECT_TRUE(std::all_of(buf.begin() + 512, buf.end(), [](uint8_t b) { return b == 0; })) << reader;
  }

  // An offset beyond what a file offset can hold fails like any failed read.
  EXPECT_FALSE(media.readSector(UINT64_MAX / 256, 1, buf.data()));
  EXPECT_TRUE(controller.alerts.empty());  // the drive is still listed
  EXPECT_EQ(controller.terminateCalls, 0);
}

// A drive whose every read fails with EIO, through a fault table (the
// controller's own reader has none: a folder stands in for its drive).
struct FailingReadFixture : ::testing::Test {
  test::TempDir dir;
  std::string path = (dir / "drive.img").string();
  RecordingController controller;
  std::vector<uint8_t> buf = std::vector<uint8_t>(512);
  std::shared_ptr<SectorFaults> faults = std::make_shared<SectorFaults>();

  void SetUp() override {
    test::writeFile(path, std::vector<uint8_t>(4096, 1));
    faults->add(SectorFaults::Kind::IOError, 0, UINT64_MAX);
  }
};

TEST_F(FailingReadFixture, ListedDriveFailsSilently) {
  controller.drives.push_back(driveDict(path, 4096));
  DMedia media(driveDict(path, 4096), &controller);
  media.setSectorFaults(faults);
  ASSERT_TRUE(media.isOpen());
  EXPECT_FALSE(media.readSector(0, 1, buf.data()));
  EXPECT_FALSE(media.readSaveSector(0, 1, buf.data()));
  EXPECT_FALSE(media.readPreviewSector(0, 1, buf.data()));
  EXPECT_TRUE(controller.alerts.empty());
  EXPECT_EQ(controller.terminateCalls, 0);
  EXPECT_EQ(controller.previewCloseCalls, 0);

  // Listed among the volumes instead of the drives: just as silent.
  RecordingController volumesOnly;
  volumesOnly.volumes.push_back(driveDict(path, 4096));
  DMedia viaVolume(driveDict(path, 4096), &volumesOnly);
  viaVolume.setSectorFaults(faults);
  EXPECT_FALSE(viaVolume.readSector(0, 1, buf.data()));
  EXPECT_TRUE(volumesOnly.alerts.empty());
}

TEST_F(FailingReadFixture, VanishedDriveAsksToQuitOnlyFromTheScanReader) {
  DMedia media(driveDict(path, 4096), &controller);
  media.setSectorFaults(faults);
  EXPECT_FALSE(media.readSector(0, 1, buf.data()));
  ASSERT_EQ(controller.alerts.size(), 1u);
  EXPECT_EQ(controller.alerts[0].title, "! Error");
  EXPECT_EQ(controller.alerts[0].message,
            "The Drive or Volume being read is no longer available. The Program will quit now.");
  EXPECT_EQ(controller.alerts[0].buttons, std::vector<std::string>{"Quit"});
  EXPECT_EQ(controller.terminateCalls, 1);

  EXPECT_FALSE(media.readPreviewSector(0, 1, buf.data()));
  EXPECT_FALSE(media.readSaveSector(0, 1, buf.data()));
  ASSERT_EQ(controller.alerts.size(), 3u);
  EXPECT_EQ(controller.alerts[1].title, "! Can not show preview");
  EXPECT_EQ(controller.alerts[2].title, "! Can not save files");
  EXPECT_EQ(controller.alerts[2].message, "The Drive or Volume being read is no longer available.");
  EXPECT_EQ(controller.alerts[2].buttons, std::vector<std::string>{"OK"});
  EXPECT_EQ(controller.previewCloseCalls, 2);  // the save reader closes the preview too
  EXPECT_EQ(controller.terminateCalls, 1);     // and neither quits
}

TEST_F(FailingReadFixture, UnopenableDrive) {
  const std::string missing = (dir / "no-such-drive").string();
  controller.drives.push_back(driveDict(missing, 4096));
  DMedia media(driveDict(missing, 4096), &controller);
  EXPECT_FALSE(media.isOpen());
  EXPECT_FALSE(media.readSector(0, 1, buf.data()));
  ASSERT_EQ(controller.alerts.size(), 1u);
  EXPECT_EQ(controller.alerts[0].title, "! Could not open drive");
  EXPECT_EQ(controller.alerts[0].message, "A valid fileDesc could not be obtained for drive: " + missing);

  // The preview and save readers do not test the open: a failed read, and the
  // drive is still listed, so nothing is said.
  EXPECT_FALSE(media.readSaveSector(0, 1, buf.data()));
  EXPECT_EQ(controller.alerts.size(), 1u);
}

TEST_F(FailingReadFixture, ControllerReaderLooksOnlyAtTheVolumeList) {
  path = dir.path().string();
  controller.drives.push_back(driveDict(path, 4096));
  EXPECT_FALSE(readAppSector(&controller, 0, path, 1, buf.data()));
  ASSERT_EQ(controller.alerts.size(), 1u);
  EXPECT_EQ(controller.alerts[0].message,
            "The Volume (\"" + path + "\") being read is no longer available. The Program will quit now.");
  EXPECT_EQ(controller.terminateCalls, 1);

  controller.volumes.push_back(driveDict(path, 4096));
  EXPECT_FALSE(readAppSector(&controller, 0, path, 1, buf.data()));
  EXPECT_EQ(controller.alerts.size(), 1u);
}

TEST_F(ImageFixture, OneDescriptorPerDriveForItsLife) {
  const int before = openDescriptorCount();
  {
    DMedia media(*controller.drives[0].dict(), &controller);
    EXPECT_EQ(openDescriptorCount(), before + 1);
    std::vector<uint8_t> buf(512);
    for (int i = 0; i < 50; ++i) {
      ASSERT_TRUE(media.readSector(static_cast<uint64_t>(i % 8), 1, buf.data()));
      ASSERT_TRUE(media.readSaveSector(static_cast<uint64_t>(i % 8), 1, buf.data()));
    }
    EXPECT_FALSE(media.readSector(UINT64_MAX, 1, buf.data()));
    EXPECT_EQ(openDescriptorCount(), before + 1);
    std::vector<uint8_t> sector(512);
    EXPECT_TRUE(readAppSector(&controller, 1, image, 1, sector.data()));
    EXPECT_EQ(openDescriptorCount(), before + 1);
  }
  EXPECT_EQ(openDescriptorCount(), before);
}

TEST(PartitionTableKind, ToldFromSectorsZeroAndOne) {
  std::vector<uint8_t> s0(512, 0), s1(512, 0);
  EXPECT_EQ(partitionTableKindOf(s0.data(), s1.data()), PartitionTableKind::None);

  storeBE16(&s1[0], 0x504D);
  EXPECT_EQ(partitionTableKindOf(s0.data(), s1.data()), PartitionTableKind::ApplePartitionMap);

  // The boot signature wins over a partition map in sector 1.
  s0[510] = 0x55;
  s0[511] = 0xAA;
  s0[450] = 0x83;
  EXPECT_EQ(partitionTableKindOf(s0.data(), s1.data()), PartitionTableKind::MBR);

  s0[450] = 0xEE;
  EXPECT_EQ(partitionTableKindOf(s0.data(), s1.data()), PartitionTableKind::GPT);

  // A protective entry without the boot signature is not a GPT.
  s0[510] = 0;
  EXPECT_EQ(partitionTableKindOf(s0.data(), s1.data()), PartitionTableKind::ApplePartitionMap);
}
