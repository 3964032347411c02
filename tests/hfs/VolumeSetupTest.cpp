#include <gtest/gtest.h>

#include "hfs/Volume.h"
#include "hfs/HandImage.h"
#include "support/RecordingController.h"

namespace ambrel {
namespace {

using test::ExtentRecordLayout;
using test::ForkLayout;
using test::HandImage;

constexpr uint64_t kStart = 100;    // partition start
constexpr uint64_t kSectors = 2000; // partition size
constexpr uint32_t kBlock = 1024;   // two sectors a block

// A volume whose catalog has ten extents (eight in the header, two in the
// extents B-tree) and whose allocation file overflows over two leaves.
HandImage fragmentedVolume(bool goodPrimary = true) {
  HandImage img(kStart + kSectors + 8);
  ForkLayout allocation{6, {{20, 2}, {30, 2}}};
  ForkLayout extents{4, {{10, 4}}};
  ForkLayout catalog{20, {}};
  for (uint32_t i = 0; i < 8; ++i) catalog.extents.push_back({100 + 10 * i, 2});
  const uint64_t vibSector = goodPrimary ? kStart + 2 : kStart + kSectors - 2;
  img.putVIB(vibSector, 0x482B, kBlock, 1000, allocation, extents, catalog, 5);
  // Extents B-tree: 512-byte nodes from block 10 (sector 120).
  img.putHeaderNode(kStart + 20, 512, 1, 2, 3, 2);
  img.putExtentIndex(kStart + 21, 512, {{{0, 4, 16, {}}, 2}, {{0, 6, 5, {}}, 3}});
  img.putExtentLeaf(kStart + 22, 512, 3, {{0, 4, 16, {{200, 2}, {210, 2}}}, {0, 6, 4, {{40, 1}}}});
  img.putExtentLeaf(kStart + 23, 512, 0, {{0, 6, 5, {{50, 1}}}});
  // Catalog header node at block 100.
  img.putHeaderNode(kStart + 200, 1024, 5, 6, 10, 2);
  // Journal info block at block 5.
  storeBE64(img.at(kStart + 10) + 36, 0x10000);
  storeBE64(img.at(kStart + 10) + 44, 0x8000);
  return img;
}

TEST(VolumeSetup, DictionaryKinds) {
  test::RecordingController c;
  Volume part(HandImage::partitionDict("/nonexistent", 64, 1000), &c);
  EXPECT_EQ(part.startSector, 64u);
  EXPECT_EQ(part.sizeInSect, 1000u);
  EXPECT_EQ(part.model, "Hand");
  EXPECT_EQ(part.lostFilesPath, "Lost Files");
  EXPECT_EQ(part.lostFoldersPath, "Lost Folder");
  EXPECT_EQ(part.btreeAdvScan, part.btree.get());
  EXPECT_EQ(part.maxFileID, 0u);
  EXPECT_EQ(part.vibAtSector, 0u);
  EXPECT_EQ(part.description(), "Hand Volume /nonexistent Hand S1 R1 size:512000");

  PlistDict found = HandImage::partitionDict("/x", 64, 1000);
  found.set("Volume Scan Type", 1);
  found.set("WhetherAlternateSector", uint64_t{4242});
  EXPECT_EQ(Volume(found, &c).vibAtSector, 4242u);

  PlistDict vol{{"WhetherVolume", true}, {"device path", "/dev/x"}, {"Volume Name", "V"},
                {"device size", uint64_t{1 << 20}}, {"Journaled", "Yes"}};
  Volume v(vol, &c);
  EXPECT_EQ(v.volumeScanType, 2);
  EXPECT_EQ(v.sizeInSect, 2048u);
  EXPECT_TRUE(v.isJournaled);
  EXPECT_EQ(v.maxFileID, 9u);

  PlistDict notVol{{"WhetherVolume", false}, {"device path", "/dev/y"}, {"Volume Name", "V"}, {"WhetherUSB", true}};
  Volume nv(notVol, &c);
  EXPECT_TRUE(nv.isUSBDevice);
  EXPECT_EQ(nv.volumeName, "");  // nothing else filled in
  EXPECT_EQ(nv.volumeScanType, 0);

  PlistDict disk{{"WhetherDiskDict", true}, {"device path", "/dev/z"}, {"device size", uint64_t{4096}},
                 {"WhetherUSB", true}, {"Vendor Identification", "Ven"}, {"device model", "Mod"}};
  Volume d(disk, &c);
  EXPECT_EQ(d.volumeScanType, 3);
  EXPECT_EQ(d.blockSize, 1);
  EXPECT_EQ(d.model, "Ven");
  EXPECT_EQ(d.sizeInSect, 8u);
  EXPECT_TRUE(d.isUSBDevice);
}

TEST(VolumeSetup, PrimaryAndAlternateHeaders) {
  test::TempDir dir;
  test::RecordingController c;
  {
    HandImage img = fragmentedVolume(true);
    Volume v(HandImage::partitionDict(img.write(dir, "a.img"), kStart, kSectors), &c);
    ASSERT_TRUE(v.initializeVIB());
    EXPECT_EQ(v.HPlusVolStart, kStart);
    EXPECT_EQ(v.blockSize, 2);
    EXPECT_EQ(+v.vib.totalBlocks, 1000u);
  }
  {
    HandImage img = fragmentedVolume(false);  // primary blank, alternate good
    Volume v(HandImage::partitionDict(img.write(dir, "b.img"), kStart, kSectors), &c);
    ASSERT_TRUE(v.initializeVIB());
    EXPECT_EQ(v.HPlusVolStart, kStart);
    EXPECT_EQ(+v.vib.signature, kHFSPlusSigWord);
    EXPECT_EQ(v.blockSize, 2);
  }
  {
    HandImage img(kStart + kSectors);
    Volume v(HandImage::partitionDict(img.write(dir, "c.img"), kStart, kSectors), &c);
    EXPECT_FALSE(v.initializeVIB());
    EXPECT_EQ(v.HPlusVolStart, kStart);
  }
  {
    // A header search found the header at an explicit sector.
    HandImage img(3000);
    img.putVIB(2500, 0x4858, 4096, 10, {}, {}, {});
    PlistDict d = HandImage::partitionDict(img.write(dir, "d.img"), 2000, 900);
    d.set("Volume Scan Type", 1);
    d.set("WhetherAlternateSector", uint64_t{2500});
    Volume v(d, &c);
    ASSERT_TRUE(v.initializeVIB());
    EXPECT_EQ(v.HPlusVolStart, 2000u);
    EXPECT_EQ(v.blockSize, 8);
  }
}

TEST(VolumeSetup, WrappedVolume) {
  test::TempDir dir;
  test::RecordingController c;
  constexpr uint64_t s = 64;
  // Wrapper blocks of 1024 bytes from sector 10; the HFS+ volume at block 5,
  // 100 blocks long: it starts at 64 + 10 + 2 * 5 = 84.
  HandImage img(400);
  img.putMDB(s + 2, 10, 1024, 0x482B, 5, 100);
  img.putVIB(84 + 2, 0x482B, 512, 200, {}, {}, {});
  Volume v(HandImage::partitionDict(img.write(dir, "w.img"), s, 300), &c);
  ASSERT_TRUE(v.initializeVIB());
  EXPECT_EQ(v.HPlusVolStart, 84u);
  EXPECT_EQ(v.blockSize, 1);
  EXPECT_EQ(+v.mdb.drAlBlSt, 10);

  // Embedded primary damaged: its alternate at 84 + 100 * 2 - 2.
  std::fill(img.at(86), img.at(87), 0);
  img.putVIB(282, 0x482B, 1024, 100, {}, {}, {});
  Volume alt(HandImage::partitionDict(img.write(dir, "w2.img"), s, 300), &c);
  ASSERT_TRUE(alt.initializeVIB());
  EXPECT_EQ(alt.HPlusVolStart, 84u);
  EXPECT_EQ(alt.blockSize, 2);

  // An embedded signature that is neither H+ nor HX fails.
  img.putMDB(s + 2, 10, 1024, 0x1234, 5, 100);
  Volume bad(HandImage::partitionDict(img.write(dir, "w3.img"), s, 300), &c);
  EXPECT_FALSE(bad.initializeVIB());

  // fillVIB on a volume device: the wrapper at the device's own sector 2.
  HandImage dev(300);
  dev.putMDB(2, 10, 1024, 0x482B, 5, 100);
  dev.putVIB(20 + 2, 0x482B, 4096, 77, {}, {}, {});
  PlistDict vd{{"WhetherVolume", true}, {"device path", dev.write(dir, "dev.img").string()},
               {"device size", uint64_t{300 * 512}}};
  Volume fv(vd, &c);
  fv.fillVIB();
  EXPECT_EQ(fv.HPlusVolStart, 20u);
  EXPECT_EQ(fv.totalBlocks, 77u);
  EXPECT_EQ(fv.blockSize, 8);
}

TEST(VolumeSetup, CatalogFragmentedIntoTheOverflowFile) {
  test::TempDir dir;
  test::RecordingController c;
  HandImage img = fragmentedVolume();
  Volume v(HandImage::partitionDict(img.write(dir), kStart, kSectors), &c);
  ASSERT_TRUE(v.initializeVIB());
  v.getCatalogExtFromVIB();
  EXPECT_EQ(v.catalogExtAsPerVIB.size(), 8u);
  ASSERT_TRUE(v.checkCatalogAndExtentsFile());

  EXPECT_EQ(v.extentsExt, (std::vector<Extent>{{10, 4}}));
  EXPECT_EQ(v.extNodeSize, 1);
  EXPECT_EQ(v.extRootNode, 1u);
  EXPECT_EQ(v.catNodeSize, 2);
  EXPECT_EQ(v.catRootNode, 5u);
  EXPECT_EQ(v.firstLeafNode, 6u);
  EXPECT_EQ(v.leafRecords, 5u);
  EXPECT_EQ(v.catTreeDepth, 2);
  ASSERT_EQ(v.catalogExt.size(), 10u);
  EXPECT_EQ(v.catalogExt[8], (Extent{200, 2}));
  EXPECT_EQ(v.catalogExt[9], (Extent{210, 2}));

  // Two nodes per extent: node 15 in the eighth, 16 to 19 in the overflow ones.
  EXPECT_EQ(v.catNodeToSector(0), int64_t(kStart + 200));
  EXPECT_EQ(v.catNodeToSector(15), int64_t(kStart + 170 * 2 + 2));
  EXPECT_EQ(v.catNodeToSector(16), int64_t(kStart + 400));
  EXPECT_EQ(v.catNodeToSector(17), int64_t(kStart + 402));
  EXPECT_EQ(v.catNodeToSector(19), int64_t(kStart + 422));
  EXPECT_EQ(v.catNodeToSector(20), kInvalidSector);
  EXPECT_EQ(v.catNodeToSector(0xFFFFFFFF), kInvalidSector);
  EXPECT_EQ(v.extNodeToSector(3), int64_t(kStart + 23));
  EXPECT_EQ(v.extNodeToSector(8), kInvalidSector);

  EXPECT_TRUE(v.sectorIsInCatalogFile(kStart + 421));
  EXPECT_FALSE(v.sectorIsInCatalogFile(kStart + 424));
  EXPECT_FALSE(v.sectorIsInCatalogFile(kStart + 199));

  // The allocation file's overflow spans two leaves joined by the forward link.
  v.checkAllocationFile();
  EXPECT_EQ(v.allocationExt, (std::vector<Extent>{{20, 2}, {30, 2}, {40, 1}, {50, 1}}));
  bool found = false;
  EXPECT_TRUE(v.extentsForID(99, 0, 0, 10, &found).empty());
  EXPECT_TRUE(found);
  // A start block that no record has gives nothing.
  EXPECT_TRUE(v.extentsForID(4, 0, 17, 20).empty());

  v.getJournalSizeAndStart();
  EXPECT_EQ(v.journalStart, 0x10000u);
  EXPECT_EQ(v.journalSize, 0x8000u);

  // Reports: extents check started and done, catalog check started.
  ASSERT_EQ(c.progressReports.size(), 3u);
  EXPECT_EQ(c.progressReports[0].string(progress::kProgressStatus), "Checking Extents File ...");
  EXPECT_EQ(c.progressReports[0].i64(progress::kProgressType), 0);
  EXPECT_TRUE(c.progressReports[0].boolean(progress::kStartAnimation));
  EXPECT_TRUE(c.progressReports[0].contains(progress::kEntriesFound));
  EXPECT_TRUE(c.progressReports[0].contains(progress::kData));
  EXPECT_EQ(c.progressReports[1].string(progress::kProgressStatus), "Checking Extents File ... done");
  EXPECT_TRUE(c.progressReports[1].boolean(progress::kStopAnimation));
  EXPECT_EQ(c.progressReports[2].string(progress::kProgressStatus), "Checking Catalog File ...");
}

TEST(VolumeSetup, HeaderNodeChecksAndMissingExtentsTree) {
  test::TempDir dir;
  test::RecordingController c;
  HandImage img = fragmentedVolume();
  img.putHeaderNode(kStart + 200, 1024, 5, 6, 10, 2, /*numRecords=*/2);
  Volume v(HandImage::partitionDict(img.write(dir), kStart, kSectors), &c);
  ASSERT_TRUE(v.initializeVIB());
  EXPECT_FALSE(v.checkCatalogAndExtentsFile());
  EXPECT_EQ(c.progressReports.back().string(progress::kProgressStatus), "Checking Catalog File ... done");
  EXPECT_TRUE(c.progressReports.back().boolean(progress::kStopAnimation));

  // An extents tree whose root is 0: the overflow look-up answers "none".
  HandImage img2 = fragmentedVolume();
  img2.putHeaderNode(kStart + 20, 512, 0, 0, 0, 0);
  Volume v2(HandImage::partitionDict(img2.write(dir, "b.img"), kStart, kSectors), &c);
  ASSERT_TRUE(v2.initializeVIB());
  ASSERT_TRUE(v2.checkCatalogAndExtentsFile());
  EXPECT_EQ(v2.catalogExt.size(), 8u);
  bool found = true;
  EXPECT_TRUE(v2.extentsForID(4, 0, 16, 20, &found).empty());
  EXPECT_FALSE(found);

  // A bad extents header node leaves the extents tree unknown, but the
  // catalog is still checked and read, with the extents its fork gives.
  HandImage img3 = fragmentedVolume();
  img3.at(kStart + 20)[8] = 0;
  test::RecordingController c3;
  Volume v3(HandImage::partitionDict(img3.write(dir, "c.img"), kStart, kSectors), &c3);
  ASSERT_TRUE(v3.initializeVIB());
  EXPECT_TRUE(v3.checkCatalogAndExtentsFile());
  EXPECT_FALSE(v3.extentsTreeUsable);
  EXPECT_TRUE(v3.catalogHeaderUsable);
  EXPECT_EQ(v3.extRootNode, 0u);
  EXPECT_EQ(v3.catalogExt.size(), 8u);
  ASSERT_EQ(c3.progressReports.size(), 3u);
  EXPECT_EQ(c3.progressReports[1].string(progress::kProgressStatus), "Checking Extents File ... done");
  EXPECT_EQ(c3.progressReports[2].string(progress::kProgressStatus), "Checking Catalog File ...");
}

TEST(VolumeSetup, OverflowWalkEndsOnLoopsAndBadNodes) {
  test::TempDir dir;
  test::RecordingController c;
  HandImage img = fragmentedVolume();
  // The second leaf links back to the first and the record it wants is not there.
  img.putExtentLeaf(kStart + 23, 512, 2, {{0, 6, 9, {{50, 1}}}});
  // An index node whose child is itself.
  Volume v(HandImage::partitionDict(img.write(dir), kStart, kSectors), &c);
  ASSERT_TRUE(v.initializeVIB());
  ASSERT_TRUE(v.checkCatalogAndExtentsFile());
  EXPECT_EQ(v.extentsForID(6, 0, 4, 100), (std::vector<Extent>{{40, 1}}));

  img.putExtentIndex(kStart + 21, 512, {{{0, 0, 0, {}}, 1}});
  Volume v2(HandImage::partitionDict(img.write(dir, "b.img"), kStart, kSectors), &c);
  ASSERT_TRUE(v2.initializeVIB());
  v2.checkCatalogAndExtentsFile();
  EXPECT_TRUE(v2.extentsForID(6, 0, 4, 100).empty());

  // Record offsets pointing outside the node are skipped, not followed.
  storeBE16(img.at(kStart + 21) + 510, 600);
  Volume v3(HandImage::partitionDict(img.write(dir, "c.img"), kStart, kSectors), &c);
  ASSERT_TRUE(v3.initializeVIB());
  v3.checkCatalogAndExtentsFile();
  EXPECT_TRUE(v3.extentsForID(6, 0, 4, 100).empty());
}

TEST(VolumeSetup, FortyBlockStatusStraddlesTwoBitmapBlocks) {
  test::TempDir dir;
  test::RecordingController c;
  // 512-byte blocks: a bitmap block holds 4096 bits. Bitmap blocks at 50 and 70.
  HandImage img(200);
  img.putVIB(2, 0x482B, 512, 8192, ForkLayout{2, {{50, 1}, {70, 1}}}, {}, {});
  img.at(50)[510] = 0x10;  // blocks 4080..4087: a bit at position 3
  img.at(50)[511] = 0x00;
  img.at(70)[0] = 0x80;    // block 4096 used
  img.at(70)[1] = 0x01;    // block 4111 used
  img.at(70)[2] = 0x00;
  Volume v(HandImage::partitionDict(img.write(dir), 0, 200), &c);
  ASSERT_TRUE(v.initializeVIB());
  v.checkAllocationFile();
  ASSERT_EQ(v.allocationExt.size(), 2u);

  uint8_t flags[40];
  std::fill(flags, flags + 40, 1);
  v.get40BlocksUsedStatusFromBlock(4096 - 16, flags);
  std::vector<int> got(flags, flags + 40);
  std::vector<int> want(40, 0);
  // No mask: a set bit keeps every later block of its byte reading used.
  for (int i = 3; i < 8; ++i) want[i] = 1;
  for (int i = 16; i < 24; ++i) want[i] = 1;
  want[31] = 1;
  EXPECT_EQ(got, want);

  // At the end of the bitmap file the flags past it stay as the caller set them.
  std::fill(flags, flags + 40, 1);
  v.get40BlocksUsedStatusFromBlock(2 * 4096 - 8, flags);
  EXPECT_EQ(std::count(flags, flags + 8, 0), 8);
  EXPECT_EQ(std::count(flags + 8, flags + 40, 1), 32);
  // Beyond the bitmap file entirely: nothing changes.
  std::fill(flags, flags + 40, 1);
  v.get40BlocksUsedStatusFromBlock(5 * 4096, flags);
  EXPECT_EQ(std::count(flags, flags + 40, 1), 40);

  uint32_t bit = 0;
  EXPECT_EQ(v.getAllocationBlockForBlock(100, &bit), 0u);
  EXPECT_EQ(bit, 100u);
  // The walk stops once the index is used up, so an index ending exactly on
  // an extent boundary answers 0 too, as built.
  EXPECT_EQ(v.getAllocationBlockForBlock(4096 + 5, &bit), 0u);
  EXPECT_EQ(bit, 5u);
  EXPECT_EQ(v.allocationOffsetToSector(513, nullptr), 70);
  EXPECT_EQ(v.allocationOffsetToSector(1024, nullptr), kInvalidSector);
  EXPECT_FALSE(v.getIfUnusedSector(4096));
  EXPECT_TRUE(v.getIfUnusedSector(4097));

  EXPECT_TRUE(v.getIfUnusedSectorForCatalogNode(7));  // always, as built
}

}  // namespace
}  // namespace ambrel
