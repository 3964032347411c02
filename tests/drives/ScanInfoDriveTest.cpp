// A scan info file finds its drive again: it keeps an absolute path and the
// drive's real identity, checks that identity whatever the scan type, and
// follows the drive to a new path (found among the drives, or named by
// --drive) only when the first sectors, model and serial agree.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "ImageBuilder.h"
#include "support/BuiltEntries.h"
#include "drives/Machine.h"
#include "media/DriveFinder.h"
#include "scaninfo/ScanInfoDrive.h"
#include "scaninfo/VolumeScanInfo.h"
#include "support/TempDir.h"

namespace ambrel {
namespace {

namespace mk = ambrel::mkimage;
using namespace test;

int run(const std::string& command, std::string& out) {
  out.clear();
  return runCommand(command + " 2>&1", &out);
}

constexpr const char* kDiskPath = "pci0000:00/0000:00:17.0/ata3/host2/target2:0:0/2:0:0:0";

// A bare HFS+ volume with one file, and its bytes.
struct Image {
  std::string path;
  std::vector<uint8_t> fileBytes;
};

Image buildImage(const fs::path& path) {
  mk::VolumeSpec v;
  v.name = "Kept";
  v.root = {sizedFile("notes.txt", 20000)};
  const auto layout = mk::buildImage(bareDriveOf(v), path);
  return {path.string(), mk::generatedBytes(layout.volume->find("notes.txt")->dataSeed, 20000)};
}

// A SATA disk "name" of the fake machine whose node holds the image.
void addDiskWithImage(FakeTree& tree, const std::string& name, unsigned minor, const std::string& image) {
  const std::string device = std::string(kDiskPath) + "-" + name;
  tree.addDisk(name, device + "/block/" + name, device, 8, minor, fs::file_size(image) / 512);
  tree.setUdev(8, minor, {{"ID_BUS", "ata"}, {"ID_MODEL", "WDC_WD10EZEX"}, {"ID_SERIAL_SHORT", "WD-WCC6Y0123456"},
                          {"ID_REVISION", "01.01A01"}});
  fs::copy_file(image, tree.devPath(name), fs::copy_options::overwrite_existing);
}

nlohmann::json scanInfoJson(const std::string& asi) {
  std::string out;
  EXPECT_EQ(runCommand(cli() + " scaninfo --json '" + asi + "'", &out), 0) << out;
  return nlohmann::json::parse(out);
}

TEST(FindDriveAgain, RelativeDrivePathIsRecordedAbsolute) {
  TempDir dir;
  const Image image = buildImage(dir / "rel.img");
  std::string out;
  ASSERT_EQ(run("cd '" + dir.path().string() + "' && " + cli() + " tree rel.img --save-scan-info s.asi >/dev/null", out), 0)
      << out;
  EXPECT_EQ(scanInfoJson((dir / "s.asi").string())["volume"]["path"], (dir / "rel.img").string());
  // Opened from elsewhere, the file still finds its image.
  ASSERT_EQ(run("cd / && " + cli() + " recover '" + (dir / "s.asi").string() + "' --out '" + (dir / "out").string() + "'",
                out), 0) << out;
  EXPECT_EQ(readFile(dir / "out/Root/notes.txt"), image.fileBytes);
}

TEST(FindDriveAgain, BlockDeviceOnARealLoopDeviceIsNotRecordedAsBlockDevice) {
  if (::geteuid() != 0 || !haveTool("losetup")) GTEST_SKIP() << "making loop devices needs root and losetup";
  TempDir dir;
  const Image image = buildImage(dir / "loop.img");
  std::string loop;
  if (runCommand("losetup -f --show -r '" + image.path + "' 2>/dev/null", &loop) != 0 || loop.rfind("/dev/loop", 0) != 0)
    GTEST_SKIP() << "this machine does not let the test bind a loop device";
  loop = loop.substr(0, loop.find('\n'));
  std::string out;
  const int rc = run(cli() + " tree " + loop + " --save-scan-info '" + (dir / "s.asi").string() + "' >/dev/null", out);
  runCommand("losetup -d " + loop);
  ASSERT_EQ(rc, 0) << out;
  const auto volume = scanInfoJson((dir / "s.asi").string())["volume"];
  EXPECT_EQ(volume["path"], loop);
  // A loop device reports no model or serial: the drive list's "-", never a made-up name.
  EXPECT_EQ(volume["model"], "-");
  EXPECT_EQ(volume["serial"], "-");
}

// A block device is recorded with the model and serial of the drive list,
// and found by them under a new device name.
TEST(FindDriveAgain, DriveUnderANewDeviceNameIsFoundByItsIdentity) {
  TempDir dir;
  FakeTree tree(dir / "machine");
  const Image image = buildImage(dir / "disk.img");
  addDiskWithImage(tree, "sdg", 96, image.path);
  const std::string asi = (dir / "s.asi").string();
  std::string out;
  ASSERT_EQ(run(envFor(tree) + cli() + " tree '" + tree.devPath("sdg") + "' --save-scan-info '" + asi + "' >/dev/null", out), 0)
      << out;
  const auto volume = scanInfoJson(asi)["volume"];
  EXPECT_EQ(volume["model"], "WDC_WD10EZEX");
  EXPECT_EQ(volume["serial"], "WD-WCC6Y0123456");
  EXPECT_EQ(volume["revision"], "01.01A01");
  // Plugged in again, it is sdh now.
  tree.remove("sdg");
  addDiskWithImage(tree, "sdh", 112, image.path);
  ASSERT_EQ(run(envFor(tree) + cli() + " recover '" + asi + "' --out '" + (dir / "out").string() + "'", out), 0) << out;
  EXPECT_NE(out.find("recorded as " + tree.devPath("sdg") + ", is read from " + tree.devPath("sdh")), std::string::npos)
      << out;
  EXPECT_EQ(readFile(dir / "out/Root/notes.txt"), image.fileBytes);
}

TEST(FindDriveAgain, DriveOptionPointsTheFileAtTheDriveUnderANewPath) {
  TempDir dir;
  FakeTree tree(dir / "machine");  // no drives: only --drive can find it
  const Image image = buildImage(dir / "disk.img");
  const std::string asi = (dir / "s.asi").string();
  std::string out;
  ASSERT_EQ(run(envFor(tree) + cli() + " tree '" + image.path + "' --save-scan-info '" + asi + "' >/dev/null", out), 0)
      << out;
  const std::string moved = (dir / "moved.img").string();
  fs::rename(image.path, moved);

  EXPECT_EQ(run(envFor(tree) + cli() + " recover '" + asi + "' --out '" + (dir / "lost").string() + "'", out), 2) << out;
  EXPECT_NE(out.find("Drive Not Connected"), std::string::npos) << out;

  ASSERT_EQ(run(envFor(tree) + cli() + " recover '" + asi + "' --drive '" + moved + "' --out '" + (dir / "out").string() + "'",
                out), 0) << out;
  EXPECT_EQ(readFile(dir / "out/Root/notes.txt"), image.fileBytes);

  // Another drive with the same first sectors but its own model is not it.
  addDiskWithImage(tree, "sdg", 96, moved);
  EXPECT_EQ(run(envFor(tree) + cli() + " recover '" + asi + "' --drive '" + tree.devPath("sdg") + "' --out '" +
                    (dir / "other").string() + "'", out), 2) << out;
  EXPECT_NE(out.find("Drive Not Connected"), std::string::npos) << out;
  EXPECT_FALSE(fs::exists(dir / "other/Root"));

  // Nor is the same image with one byte changed in sector 4.
  auto bytes = readFile(moved);
  bytes[4 * 512 + 7] ^= 0x40;
  writeFile(moved, bytes);
  EXPECT_EQ(run(envFor(tree) + cli() + " recover '" + asi + "' --drive '" + moved + "' --out '" + (dir / "changed").string() +
                    "'", out), 2) << out;
  EXPECT_NE(out.find("Drive Not Connected"), std::string::npos) << out;
  EXPECT_FALSE(fs::exists(dir / "changed/Root"));
}

// A scan info file of a volume device (type 2): no drive sectors, found by
// the name and size of a mounted volume. Its tree has one file of 600
// bytes at block 3 of 4096-byte blocks.
void writeVolumeDeviceFile(const std::string& asi, const std::string& devicePath, uint64_t sectors) {
  auto root = std::make_unique<HDIR>();
  root->setFileName("Backup");
  root->fileType = kHDIRFolder;
  root->fileID = 2;
  root->parentID = 1;
  auto file = std::make_unique<HDIR>();
  file->setFileName("notes.txt");
  file->fileType = kHDIRFile;
  file->fileID = 20;
  file->parentID = 2;
  file->dataSize = file->fileSize = 600;
  file->blockSize = 8;
  file->addDataExt({3, 1});
  root->addChild(std::move(file));
  root->setChildrenCount(1);
  ScanInfo info;
  info.volume.volumeScanType = 2;
  info.volume.volumeName = "Backup";
  info.volume.rootName = "Backup";
  info.volume.deletedFilesPath = "Deleted Files";
  info.volume.path = devicePath;
  info.volume.sizeInSect = sectors;
  info.volume.blockSize = 8;
  ASSERT_FALSE(writeScanInfo(asi, info, *root, nullptr));
}

TEST(FindDriveAgain, VolumeDeviceFileIsRefusedWithoutItsMountedVolume) {
  TempDir dir;
  FakeTree tree(dir / "machine");
  std::vector<uint8_t> unrelated(64 * 1024);
  for (size_t i = 0; i < unrelated.size(); ++i) unrelated[i] = static_cast<uint8_t>(i * 7 + 1);
  writeFile(dir / "unrelated.img", unrelated);
  const std::string asi = (dir / "v.asi").string();
  writeVolumeDeviceFile(asi, (dir / "unrelated.img").string(), unrelated.size() / 512);
  std::string out;
  EXPECT_EQ(run(envFor(tree) + cli() + " recover '" + asi + "' --out '" + (dir / "out").string() + "'", out), 2) << out;
  EXPECT_NE(out.find("Volume Not Mounted: The volume \"Backup\" to which this scan info belongs is not mounted."),
            std::string::npos) << out;
  EXPECT_FALSE(fs::exists(dir / "out/Backup/notes.txt"));

  // Mounted under its name, the same size: found there, wherever it was.
  const std::string disk = std::string(kDiskPath) + "-sdg";
  tree.addDisk("sdg", disk + "/block/sdg", disk, 8, 96, 1000000);
  tree.setNode("sdg", std::vector<uint8_t>(4096, 0));
  tree.addPartition("sdg", "sdg1", 1, 8, 97, unrelated.size() / 512);
  tree.setUdev(8, 97, {{"ID_PART_ENTRY_TYPE", "48465300-0000-11aa-aa11-00306543ecac"}});
  tree.setNode("sdg1", unrelated);
  tree.addMount(8, 97, "/media/user/Backup", "hfsplus", "/dev/sdg1");
  ASSERT_EQ(run(envFor(tree) + cli() + " recover '" + asi + "' --out '" + (dir / "out").string() + "'", out), 0) << out;
  EXPECT_EQ(readFile(dir / "out/Backup/notes.txt"),
            std::vector<uint8_t>(unrelated.begin() + 3 * 4096, unrelated.begin() + 3 * 4096 + 600));
}

TEST(FindDriveAgain, CheckRepointsTheVolumeSoThatItReadsTheDriveFoundElsewhere) {
  TempDir dir;
  std::vector<uint8_t> bytes(16 * 512);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 13 + 5);
  writeFile(dir / "was.img", bytes);
  writeFile(dir / "now.img", bytes);
  bytes[9 * 512] = 0xEE;  // beyond the 2,560 bytes compared
  writeFile(dir / "now.img", bytes);
  std::string error;
  const PlistDict was = driveDictionaryWithIdentity((dir / "was.img").string(), error);
  const PlistDict now = driveDictionaryWithIdentity((dir / "now.img").string(), error);
  ASSERT_FALSE(was.empty() || now.empty()) << error;
  PlistDict partition{{"Volume Start", 0}, {"Volume Size In Sectors", 16}, {"Volume Name", "V"},
                      {"Volume Scan Type", 0}, {"Path", (dir / "was.img").string()}, {"Model", "Disk Image"},
                      {"Serial", ""}, {"Revision", ""}};
  Volume scanned(partition, nullptr);
  std::vector<uint8_t> first5(2560);
  ASSERT_TRUE(scanned.readSector(0, 5, first5.data()));

  auto opened = volumeFromArchive(volumeArchiveOf(scanned), nullptr);
  fs::remove(dir / "was.img");
  const ScanInfoDriveCheck check = checkScanInfoDrive(*opened, first5, PlistArray{PlistValue(now)});
  ASSERT_TRUE(check.found);
  EXPECT_TRUE(check.repointed);
  EXPECT_EQ(check.previousPath, (dir / "was.img").string());
  EXPECT_EQ(opened->path, (dir / "now.img").string());
  uint8_t sector[512];
  ASSERT_TRUE(opened->readSector(9, 1, sector));
  EXPECT_EQ(sector[0], 0xEE);

  // A serial that differs: not this drive, and the volume keeps its path.
  auto again = volumeFromArchive(volumeArchiveOf(scanned), nullptr);
  PlistDict otherSerial = now;
  otherSerial.set("device serial", "X1");
  const ScanInfoDriveCheck refused = checkScanInfoDrive(*again, first5, PlistArray{PlistValue(otherSerial)});
  EXPECT_FALSE(refused.found);
  EXPECT_EQ(again->path, (dir / "was.img").string());
}

}  // namespace
}  // namespace ambrel
