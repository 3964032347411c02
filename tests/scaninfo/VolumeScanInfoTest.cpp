#include <gtest/gtest.h>

#include <filesystem>

#include "scaninfo/VolumeScanInfo.h"
#include "support/RecordingController.h"
#include "support/TempDir.h"

namespace ambrel {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

// A drive image whose first sectors are distinctive.
fs::path makeDrive(const TempDir& dir, const std::string& name, uint8_t seed) {
  std::vector<uint8_t> bytes(64 * 512);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 31 + seed);
  fs::path p = dir / name;
  test::writeFile(p, bytes);
  return p;
}

PlistDict driveDict(const fs::path& p) {
  std::string error;
  PlistDict d = driveDictionaryForPath(p.string(), error);
  EXPECT_TRUE(error.empty()) << error;
  return d;
}

std::unique_ptr<HDIR> smallTree() {
  auto root = std::make_unique<HDIR>();
  root->setFileName("Untitled 1");
  root->fileType = kHDIRFolder;
  root->fileID = 2;
  root->parentID = 1;
  auto file = std::make_unique<HDIR>();
  file->setFileName("notes.txt");
  file->fileType = kHDIRFile;
  file->fileID = 20;
  file->parentID = 2;
  file->dataSize = 600;
  file->fileSize = 600;
  file->blockSize = 8;
  file->addDataExt({3, 1});
  file->setSelected(1);
  root->addChild(std::move(file));
  root->setChildrenCount(1);
  return root;
}

TEST(VolumeScanInfo, PartitionVolumeSavesOpensAndFindsItsDrive) {
  TempDir dir;
  fs::path drive = makeDrive(dir, "drive.img", 1);
  fs::path other = makeDrive(dir, "other.img", 2);
  PlistDict partition{{"Volume Start", int64_t{2}},       {"Volume Size In Sectors", int64_t{60}},
                      {"Volume Name", "Untitled 1"},      {"Volume Scan Type", int64_t{1}},
                      {"WhetherAlternateSector", int64_t{0}}, {"Path", drive.string()},
                      {"Model", "Disk Image"},            {"Serial", ""},
                      {"Revision", ""}};
  test::RecordingController controller;
  Volume volume(partition, &controller);
  volume.HPlusVolStart = 2;
  volume.blockSize = 1;
  volume.scanMode = "Advanced Scan";
  volume.dirRoot = smallTree();
  const PlistArray list{PlistValue(partition)};

  fs::path file = dir / "scan.asi";
  uint64_t entries = 0;
  ASSERT_FALSE(saveScanInfo(file.string(), volume, list, &controller, &entries));
  EXPECT_EQ(entries, 2u);
  EXPECT_TRUE(volume.scanInfoSaved);

  auto result = openScanInfo(file.string(), &controller);
  ASSERT_TRUE(result.opened) << result.error.message;
  Volume& back = *result.opened->volume;
  EXPECT_EQ(volumeArchiveOf(back), volumeArchiveOf(volume));
  EXPECT_EQ(back.scanMode, "Advanced Scan");
  EXPECT_EQ(back.lostFoldersPath, "Lost Folder");
  EXPECT_TRUE(back.openedScanInfo);
  EXPECT_TRUE(back.scanInfoSaved);
  ASSERT_TRUE(back.btree);
  EXPECT_TRUE(back.btree->empty());
  ASSERT_TRUE(back.dirRoot);
  ASSERT_EQ(back.dirRoot->children().size(), 1u);
  EXPECT_EQ(back.dirRoot->children()[0]->fileName(), "notes.txt");
  EXPECT_EQ(back.dirRoot->childrenSelected(), 1);
  EXPECT_EQ(result.opened->partitionList, list);
  const auto driveBytes = test::readFile(drive);
  EXPECT_EQ(result.opened->first5Sectors, std::vector<uint8_t>(driveBytes.begin(), driveBytes.begin() + 2560));

  // Found by its first sectors, model and serial, wherever it is listed.
  PlistArray drives{PlistValue(driveDict(other)), PlistValue(driveDict(drive))};
  EXPECT_EQ(findScanInfoDrive(back, result.opened->first5Sectors, drives), 1);
  // The same drive under another path (re-pointing is the caller's part).
  fs::path moved = dir / "moved.img";
  fs::copy_file(drive, moved);
  EXPECT_EQ(findScanInfoDrive(back, result.opened->first5Sectors, PlistArray{PlistValue(driveDict(moved))}), 0);
  // One byte changed in sector 4, or another serial: not the drive.
  auto bytes = test::readFile(moved);
  bytes[4 * 512 + 100] ^= 1;
  test::writeFile(moved, bytes);
  EXPECT_EQ(findScanInfoDrive(back, result.opened->first5Sectors, PlistArray{PlistValue(driveDict(moved))}), -1);
  PlistDict serialDiffers = driveDict(drive);
  serialDiffers.set("device serial", "X");
  EXPECT_EQ(findScanInfoDrive(back, result.opened->first5Sectors, PlistArray{PlistValue(serialDiffers)}), -1);
  EXPECT_TRUE(controller.alerts.empty());
}

TEST(VolumeScanInfo, VolumeDeviceKeepsNoSectorsAndIsFoundByNameAndSize) {
  TempDir dir;
  fs::path device = makeDrive(dir, "volume.img", 3);
  PlistDict dict = driveDict(device);
  dict.set("WhetherVolume", true);
  dict.set("Volume Name", "Backup");
  Volume volume(dict, nullptr);
  ASSERT_EQ(volume.volumeScanType, 2);
  volume.dirRoot = smallTree();
  fs::path file = dir / "device.asi";
  ASSERT_FALSE(saveScanInfo(file.string(), volume, PlistArray{PlistValue("ignored")}, nullptr));
  auto result = openScanInfo(file.string(), nullptr);
  ASSERT_TRUE(result.opened) << result.error.message;
  EXPECT_TRUE(result.opened->first5Sectors.empty());
  EXPECT_TRUE(result.opened->partitionList.empty());
  EXPECT_EQ(result.opened->volume->volumeName, "Backup");
  EXPECT_EQ(result.opened->volume->deletedFilesPath, "Deleted Files");
  EXPECT_EQ(result.opened->volume->sizeInSect, 64u);

  PlistDict elsewhere = dict;
  elsewhere.set("device path", "/dev/other");
  PlistDict renamed = dict;
  renamed.set("Volume Name", "Backup 2");
  EXPECT_EQ(findScanInfoVolume(*result.opened->volume, PlistArray{PlistValue(renamed), PlistValue(elsewhere)}), 1);
  EXPECT_EQ(findScanInfoVolume(*result.opened->volume, PlistArray{PlistValue(renamed)}), -1);
}

TEST(VolumeScanInfo, WholeDriveKeepsSectorsWithoutAList) {
  TempDir dir;
  fs::path drive = makeDrive(dir, "whole.img", 4);
  PlistDict dict = driveDict(drive);
  dict.set("WhetherDiskDict", true);
  Volume volume(dict, nullptr);
  ASSERT_EQ(volume.volumeScanType, 3);
  volume.dirRoot = smallTree();
  fs::path file = dir / "whole.asi";
  ASSERT_FALSE(saveScanInfo(file.string(), volume, PlistArray{PlistValue("ignored")}, nullptr));
  auto result = openScanInfo(file.string(), nullptr);
  ASSERT_TRUE(result.opened) << result.error.message;
  EXPECT_TRUE(result.opened->partitionList.empty());
  EXPECT_EQ(result.opened->first5Sectors.size(), 2560u);
  EXPECT_EQ(result.opened->volume->blockSize, 1);
  EXPECT_EQ(result.opened->volume->model, "Disk Image");
  EXPECT_EQ(findScanInfoDrive(*result.opened->volume, result.opened->first5Sectors, PlistArray{PlistValue(driveDict(drive))}), 0);

  // No tree, nothing to save.
  volume.dirRoot.reset();
  auto err = saveScanInfo((dir / "none.asi").string(), volume, {}, nullptr);
  ASSERT_TRUE(err);
  EXPECT_FALSE(fs::exists(dir / "none.asi"));
}

}  // namespace
}  // namespace ambrel
