// Scan info files of trees made by real scans: of built volumes whose names
// hold every kind of character, and of the shared real images.
#include <gtest/gtest.h>

#include <filesystem>

#include "ImageBuilder.h"
#include "scan/ScanHelpers.h"
#include "scaninfo/SameTree.h"
#include "scaninfo/VolumeScanInfo.h"
#include "support/CliRun.h"

namespace ambrel {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

test::ScanResult scan(const std::string& image, uint64_t start, uint64_t sectors) {
  return test::scan(image, start, sectors, "Normal Scan");
}

mkimage::EntrySpec file(const std::string& name, uint64_t size, uint64_t rsrc = 0, uint32_t fragments = 1) {
  mkimage::EntrySpec e;
  e.name = name;
  e.dataSize = size;
  e.rsrcSize = rsrc;
  e.dataFragments = fragments;
  return e;
}

mkimage::DriveSpec namesDrive() {
  mkimage::VolumeSpec v;
  v.name = "Caf\xC3\xA9 Volume";
  v.blockSize = 4096;
  mkimage::EntrySpec docs;
  docs.name = "Docs \xE6\x96\x87\xE6\x9B\xB8";
  docs.folder = true;
  docs.children = {
      file("e\xCC\x81" "t\xCC\x81" "e\xCC\x81" ".txt", 5000),                  // decomposed accents
      file("\xF0\x9F\x98\x80 smile.png", 9000, 0, 3),                  // a surrogate pair, three extents
      file("a/b:c \"quoted\" \\ back.txt", 10),                         // separators of every system
      file(std::string(255, 'L'), 1),                                  // the longest name
      file("rsrc-empty", 100, 0),
      file("rsrc-only", 0, 700),                                        // empty data fork, resource fork
      file("empty", 0),
  };
  mkimage::EntrySpec nested;
  nested.name = "\xD0\x9F\xD0\xB0\xD0\xBF\xD0\xBA\xD0\xB0";  // Cyrillic
  nested.folder = true;
  nested.children = {file("\xD7\xA9\xD7\x9C\xD7\x95\xD7\x9D.txt", 42), file("tab\there", 3)};
  docs.children.push_back(nested);
  v.root = {docs, file("top.bin", 12345, 10)};
  mkimage::DriveSpec d;
  d.table = mkimage::TableKind::GPT;
  mkimage::PartitionSpec p;
  p.volume = v;
  d.partitions = {p};
  return d;
}

TEST(ScannedTree, RoundTripOfAScannedVolumeKeepsEveryEntry) {
  TempDir dir;
  fs::path image = dir / "names.img";
  auto layout = mkimage::buildImage(namesDrive(), image);
  ASSERT_EQ(layout.partitions.size(), 1u);
  const auto& part = layout.partitions[0];
  auto scanned = scan(image.string(), part.startSector, part.sizeSectors);
  ASSERT_TRUE(scanned.volume->dirRoot);
  // Marks survive too.
  scanned.volume->dirRoot->children()[0]->children()[1]->setSelected(1);

  fs::path file = dir / "names.asi";
  PlistArray list{PlistValue(test::volumeDict(image.string(), part.startSector, part.sizeSectors))};
  uint64_t written = 0;
  ASSERT_FALSE(saveScanInfo(file.string(), *scanned.volume, list, nullptr, &written));
  auto opened = openScanInfo(file.string(), nullptr);
  ASSERT_TRUE(opened.opened) << opened.error.message;
  EXPECT_EQ(opened.opened->entryCount, written);
  EXPECT_FALSE(scanned.volume->dirRoot->children().empty());
  test::expectSameTree(*scanned.volume->dirRoot, *opened.opened->volume->dirRoot);
  EXPECT_EQ(test::tsvListing(*scanned.volume->dirRoot), test::tsvListing(*opened.opened->volume->dirRoot));
  EXPECT_EQ(opened.opened->volume->dirRoot->childrenSelected(), 1);
  EXPECT_EQ(opened.opened->volume->volumeName, scanned.volume->volumeName);
  EXPECT_EQ(opened.opened->volume->HPlusVolStart, scanned.volume->HPlusVolStart);
  EXPECT_EQ(opened.opened->volume->blockSize, scanned.volume->blockSize);

  // The names as stored, read back by another reader.
  std::string out;
  ASSERT_EQ(test::runCommand("python3 " + std::string(AMBREL_SOURCE_DIR) + "/tests/scaninfo/scan_info_reader.py " + file.string(), &out), 0);
  for (const char* name : {"e\xCC\x81" "t\xCC\x81" "e\xCC\x81" ".txt", "\xF0\x9F\x98\x80 smile.png", "\xD7\xA9\xD7\x9C\xD7\x95\xD7\x9D.txt"})
    EXPECT_NE(out.find(name), std::string::npos) << name;
  EXPECT_NE(out.find(std::string(255, 'L')), std::string::npos);
  EXPECT_NE(out.find(R"("trailing":0)"), std::string::npos);

  // The same drive is found again by its first sectors.
  std::string error;
  PlistArray drives{PlistValue(driveDictionaryForPath(image.string(), error))};
  EXPECT_EQ(findScanInfoDrive(*opened.opened->volume, opened.opened->first5Sectors, drives), 0);
}

TEST(ScannedTree, CliListsASavedTreeAsTheScanDid) {
  TempDir dir;
  fs::path image = dir / "names.img";
  mkimage::buildImage(namesDrive(), image);
  fs::path file = dir / "names.asi";
  std::string scannedListing, savedListing, reopenedListing, info;
  ASSERT_EQ(test::runCommand(test::cliPath() + " tree " + image.string() + " 2>/dev/null", &scannedListing), 0);
  ASSERT_EQ(test::runCommand(test::cliPath() + " tree " + image.string() + " --save-scan-info " + file.string() + " 2>/dev/null", &savedListing), 0);
  ASSERT_EQ(test::runCommand(test::cliPath() + " tree " + file.string() + " 2>/dev/null", &reopenedListing), 0);
  EXPECT_EQ(scannedListing, savedListing);
  EXPECT_EQ(scannedListing, reopenedListing);
  EXPECT_GT(scannedListing.size(), 500u);
  ASSERT_EQ(test::runCommand(test::cliPath() + " scaninfo " + file.string(), &info), 0);
  EXPECT_NE(info.find("Partition list: 1 entry"), std::string::npos) << info;
  EXPECT_NE(info.find("  volumeName        Caf\xC3\xA9 Volume\n"), std::string::npos) << info;

  std::string err;
  // Refused before the scan, so that no scan is run only to be lost.
  EXPECT_EQ(test::runCommand(test::cliPath() + " tree " + image.string() + " --save-scan-info " + (dir / "no/such/dir/x.asi").string() + " 2>&1 >/dev/null", &err), 2);
  EXPECT_NE(err.find("ambrel-cli: ! Error: The scan info file"), std::string::npos) << err;
  test::writeFile(file, std::vector<uint8_t>(100, 0));
  EXPECT_EQ(test::runCommand(test::cliPath() + " tree " + file.string() + " 2>&1 >/dev/null", &(err = "")), 1);
  EXPECT_NE(err.find("ambrel-cli: ! Error: This scan info file is incomplete."), std::string::npos) << err;
}

// Real images made elsewhere: hard links, symlinks and Unicode names, and a
// catalog of some 15,000 files.
TEST(ScannedTree, SharedImagesRoundTrip) {
  fs::path shared = test::sharedTestData();
  if (shared.empty() || !test::haveTool("xz")) GTEST_SKIP() << "shared images or xz not present";
  int done = 0;
  for (const char* name : {"hfsp-small.img.xz", "hfsp-many2.img.xz"}) {
    SCOPED_TRACE(name);
    fs::path xz = shared / "hfs_images" / "hfsplus-rs" / name;
    if (!fs::exists(xz)) continue;
    TempDir dir;
    fs::path image = dir / "volume.img";
    ASSERT_EQ(test::runCommand("xz -dc '" + xz.string() + "' > '" + image.string() + "'"), 0);
    auto scanned = scan(image.string(), 0, fs::file_size(image) / 512);
    ASSERT_TRUE(scanned.volume->dirRoot);
    fs::path file = dir / "volume.asi";
    uint64_t written = 0;
    ASSERT_FALSE(saveScanInfo(file.string(), *scanned.volume, PlistArray{}, nullptr, &written));
    auto opened = openScanInfo(file.string(), nullptr);
    ASSERT_TRUE(opened.opened) << opened.error.message;
    EXPECT_EQ(opened.opened->entryCount, written);
    EXPECT_FALSE(scanned.volume->dirRoot->children().empty());
  test::expectSameTree(*scanned.volume->dirRoot, *opened.opened->volume->dirRoot);
    // Symbolic links and hard links come back as what they are.
    const std::string before = test::tsvListing(*scanned.volume->dirRoot);
    EXPECT_EQ(before, test::tsvListing(*opened.opened->volume->dirRoot));
    EXPECT_EQ(opened.opened->volume->symlinks, scanned.volume->symlinks);
    EXPECT_EQ(opened.opened->volume->fileLinks, scanned.volume->fileLinks);
    ++done;
  }
  if (done == 0) GTEST_SKIP() << "no shared image found";
}

}  // namespace
}  // namespace ambrel
