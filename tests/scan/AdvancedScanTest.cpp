// The node searches and the advanced scan: which nodes are found where, and
// what becomes of the records in them.
#include <gtest/gtest.h>

#include <algorithm>

#include "ImageBuilder.h"
#include "scan/ContentCheck.h"
#include "scan/DamageTally.h"
#include "scan/ScanHelpers.h"
#include "support/BuiltEntries.h"

using namespace ambrel;
using namespace ambrel::test;
namespace mk = ambrel::mkimage;

namespace {

mk::EntrySpec deleted(mk::EntrySpec e) {
  e.deleted = true;
  return e;
}

bool isBelow(const HDIR* e, const HDIR* folder) {
  for (const HDIR* up = e->parent; up; up = up->parent)
    if (up == folder) return true;
  return false;
}

std::vector<uint32_t> leafNodesInChainOrder(const mk::BTreeLayout& tree) {
  std::vector<uint32_t> leaves;
  for (const auto& n : tree.nodes)
    if (n.kind == -1) leaves.push_back(n.node);
  return leaves;
}

}  // namespace

TEST(NodeSearch, LevelTwoIndexNodesAndEveryLeafOfTheCatalogFile) {
  mk::VolumeSpec v;
  v.nodeSize = 4096;
  v.catalogExtents = 3;  // nodes are found across the catalog's extents
  v.generate = mk::GenerateSpec{3000, 100, 11, 1, 500, true};
  auto b = buildVolume(v);
  ASSERT_GE(b->layout.catalog.depth, 3u);

  RecordingController controller;
  Volume volume(volumeDict(b->image, 0, b->layout.sizeSectors), &controller);
  ASSERT_TRUE(volume.initializeVIB());
  ASSERT_TRUE(volume.checkCatalogAndExtentsFile());

  // The builder numbers leaves in key order, which is the chain's order.
  const auto leaves = leafNodesInChainOrder(b->layout.catalog);
  volume.enumerateLevel2IndexNodes();
  EXPECT_FALSE(volume.level2IndexNodeHasProblems);
  EXPECT_EQ(volume.leafNodePointerArray, leaves);

  // Found by visiting the catalog file: the same list, from whichever
  // level-2 node the visit meets first.
  volume.leafNodePointerArray.clear();
  volume.searchForLevel2IndexNodes();
  EXPECT_FALSE(volume.level2IndexNodeHasProblems);
  EXPECT_EQ(volume.leafNodePointerArray, leaves);

  volume.searchForLeafNodes();
  std::vector<uint32_t> sorted = leaves;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(volume.leafNodePointerTotalArray, sorted);  // file order
}

TEST(NodeSearch, OneLevelCatalogAddsNothingAndFlagsNothing) {
  mk::VolumeSpec v;
  v.root = {sizedFile("a", 10), sizedFile("b", 20)};
  auto b = buildVolume(v);
  ASSERT_EQ(b->layout.catalog.depth, 1u);
  RecordingController controller;
  Volume volume(volumeDict(b->image, 0, b->layout.sizeSectors), &controller);
  ASSERT_TRUE(volume.initializeVIB());
  ASSERT_TRUE(volume.checkCatalogAndExtentsFile());
  volume.enumerateLevel2IndexNodes();
  EXPECT_TRUE(volume.leafNodePointerArray.empty());
  EXPECT_FALSE(volume.level2IndexNodeHasProblems);
}

TEST(NodeSearch, SectorSearchFindsLiveLeavesAndOldCopiesAnywhere) {
  mk::VolumeSpec v;
  v.journal = true;
  v.root = {folderOf("Keep", {sizedFile("kept.txt", 10000)}), deleted(sizedFile("old.txt", 3000)),
            deleted(folderOf("Gone", {sizedFile("gone1.txt", 5000), sizedFile("gone2.txt", 7000)}))};
  v.generate = mk::GenerateSpec{400, 20, 3, 1, 100, false};
  v.damage.oldNodeCopies = 2;
  auto b = buildVolume(v);
  ASSERT_FALSE(b->layout.journalNodeCopySectors.empty());
  ASSERT_FALSE(b->layout.freeSpaceNodeCopySectors.empty());

  RecordingController controller;
  Volume volume(volumeDict(b->image, 0, b->layout.sizeSectors), &controller);
  ASSERT_TRUE(volume.initializeVIB());
  ASSERT_TRUE(volume.checkCatalogAndExtentsFile());
  volume.searchCatFrags();

  // A node is taken for a leaf only with 1 to 254 records; a leaf packed with
  // more short thread records is passed over.
  std::vector<uint64_t> expected;
  size_t crowded = 0;
  for (const auto& n : b->layout.catalog.nodes) {
    if (n.kind != -1) continue;
    if (n.numRecords <= 254) expected.push_back(n.sector);
    else ++crowded;
  }
  EXPECT_GT(crowded, 0u);
  for (uint64_t s : b->layout.journalNodeCopySectors) expected.push_back(s);
  for (uint64_t s : b->layout.freeSpaceNodeCopySectors) expected.push_back(s);
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(volume.CatNodeArray, expected);

  // Live nodes are those inside the catalog file.
  for (const auto& n : b->layout.catalog.nodes) EXPECT_TRUE(volume.sectorIsInCatalogFile(n.sector));
  for (uint64_t s : b->layout.freeSpaceNodeCopySectors) EXPECT_FALSE(volume.sectorIsInCatalogFile(s));
}

// Deleted entries come back from old node copies: under their deleted folder,
// rebuilt at its own place from its old record; a file whose folder no copy
// keeps goes into a lost folder named after the missing ID.
TEST(AdvancedScan, DeletedEntriesComeBackUnderTheirFolderOrALostFolder) {
  mk::VolumeSpec v;
  v.journal = true;
  mk::EntrySpec unkept = deleted(folderOf("Unkept", {sizedFile("orphan.txt", 4000)}));
  unkept.inOldNodes = false;
  v.root = {folderOf("Keep", {sizedFile("kept.txt", 10000)}), deleted(sizedFile("old.txt", 3000)),
            deleted(folderOf("Gone", {sizedFile("gone1.txt", 5000), sizedFile("gone2.txt", 7000)})), unkept};
  v.damage.oldNodeCopies = 1;
  auto b = buildVolume(v);

  ScanResult normal = scan(b->image, 0, b->layout.sizeSectors, "Normal Scan");
  ScanResult advanced = scan(b->image, 0, b->layout.sizeSectors, "Advanced Scan");
  ASSERT_NE(advanced.volume->dirRoot, nullptr);
  const HDIR* lostFolders = nullptr;
  for (const auto& c : advanced.volume->dirRoot->children())
    if (c->fileID == kLostFoldersID) lostFolders = c.get();
  ASSERT_NE(lostFolders, nullptr);
  EXPECT_EQ(lostFolders->fileName(), "Lost Folders");

  const auto normalIDs = entriesByFileID(*normal.volume->dirRoot);
  const auto advancedIDs = entriesByFileID(*advanced.volume->dirRoot);
  const mk::FileLayout* unkeptLayout = b->layout.find("Unkept");
  ASSERT_NE(unkeptLayout, nullptr);
  for (const auto& e : b->layout.entries) {
    if (!e.deleted || e.folder) continue;
    SCOPED_TRACE(e.path);
    EXPECT_EQ(normalIDs.count(e.cnid), 0u);
    ASSERT_EQ(advancedIDs.count(e.cnid), 1u);
    const HDIR* h = advancedIDs.find(e.cnid)->second;
    EXPECT_EQ(h->dataSize, e.dataSize);
    EXPECT_TRUE(sameExtentList(h->dataExt, e.dataExtents));
    EXPECT_EQ(h->confidence, Confidence::Sure);  // their blocks are free and hold their bytes
    if (e.parentID == unkeptLayout->cnid) {
      EXPECT_TRUE(isBelow(h, lostFolders));
      EXPECT_EQ(h->parent->fileName(), "LostFolder" + std::to_string(e.parentID));
    } else {
      EXPECT_EQ(entryPath(*h), e.path);
    }
  }
  // Every live file of the normal scan is in the advanced tree too, once.
  for (const auto& [id, entry] : normalIDs) EXPECT_EQ(advancedIDs.count(id), 1u) << entry->fileName();
}

// A leaf chain that leads back to a leaf already read (itself, or the one
// before) is bridged by the leaf lists: every record is read once and every
// live file is in the tree once, with the leaves after the loop too.
TEST(StandardScan, ALeafChainLoopingBackIsBridgedAndEveryRecordReadOnce) {
  for (int32_t leaf : {0, -1, 12}) {
    SCOPED_TRACE(leaf);
    mk::VolumeSpec v;
    v.nodeSize = 4096;
    v.generate = mk::GenerateSpec{1500, 60, 3, 1, 2000, false};
    v.damage.leafChain = mk::LeafChainDamage{mk::LeafChainDamage::Mode::Loop, leaf};
    auto b = buildVolume(v);
    ASSERT_GT(leafNodesInChainOrder(b->layout.catalog).size(), 14u);
    ScanResult r = scan(b->image, 0, b->layout.sizeSectors, "Normal Scan");
    ASSERT_NE(r.volume->dirRoot, nullptr);
    EXPECT_TRUE(r.controller->sawTreeComplete());
    const auto ids = entriesByFileID(*r.volume->dirRoot);
    uint32_t files = 0;
    for (const auto& e : b->layout.entries) {
      if (e.folder) continue;
      ++files;
      ASSERT_EQ(ids.count(e.cnid), 1u) << e.path;
      EXPECT_TRUE(sameExtentList(ids.find(e.cnid)->second->dataExt, e.dataExtents)) << e.path;
    }
    EXPECT_EQ(r.volume->fileCount, files);
    EXPECT_EQ(r.volume->dirRoot->fileCount, files);
  }
}

// An extents B-tree of more than one level is searched in its own key order
// (file ID, fork type, start block): a resource fork's records lie among the
// same file's data-fork records, not after every data fork of the volume.
TEST(StandardScan, OverflowExtentsOfResourceForksFoundInATwoLevelExtentsTree) {
  mk::VolumeSpec v;
  v.blockSize = 512;
  for (int i = 0; i < 200; ++i) {
    mk::EntrySpec e = sizedFile("r" + std::to_string(i), 5000 + 17 * i);
    e.rsrcSize = 6000 + 13 * i;
    e.rsrcFragments = 10;
    if (i % 3 == 0) e.dataFragments = 9;  // data-fork overflow records too
    v.root.push_back(e);
  }
  auto b = buildVolume(v);
  ASSERT_GE(b->layout.extentsTree.depth, 2u);

  ScanResult r = scan(b->image, 0, b->layout.sizeSectors, "Normal Scan");
  ASSERT_NE(r.volume->dirRoot, nullptr);
  const auto ids = entriesByFileID(*r.volume->dirRoot);
  const bool tsk = haveTool("icat");
  for (const auto& e : b->layout.entries) {
    if (e.folder || e.cnid == kRootFolderID) continue;
    SCOPED_TRACE(e.path);
    ASSERT_EQ(ids.count(e.cnid), 1u);
    const HDIR& got = *ids.find(e.cnid)->second;
    EXPECT_TRUE(sameExtentList(got.dataExt, e.dataExtents));
    EXPECT_TRUE(sameExtentList(got.rscExt, e.rsrcExtents));
    const auto rsrc = rsrcOf(b->image, *r.volume, got);
    EXPECT_TRUE(rsrc == *builtRsrc(e));
    EXPECT_TRUE(dataOf(b->image, *r.volume, got) == *builtData(e));
    if (tsk) {
      std::string icat;
      runCommand("icat '" + b->image + "' " + std::to_string(e.cnid) + "-4353 2>/dev/null", &icat);
      EXPECT_TRUE(icat == std::string(rsrc.begin(), rsrc.end()));
    }
  }
}

// A read that fails or comes back short must not leave the bytes of the
// previous batch where nodes are looked for: here the image ends early, and
// the catalog nodes of the first megabyte must not be found again past its end.
TEST(NodeSearch, AShortBatchReadLeftOldBytesThatLookedLikeNodes) {
  TempDir dir;
  const std::string image = (dir / "cut.img").string();
  mk::DriveSpec d;
  d.table = mk::TableKind::None;
  mk::VolumeSpec v;
  v.blockSize = 512;
  v.sizeBytes = 4 << 20;
  v.generate = mk::GenerateSpec{300, 10, 5, 1, 1000, false};
  d.volume = v;
  constexpr uint64_t kKeptSectors = 2016 + 10;  // one search batch and a little
  d.truncateToBytes = kKeptSectors * 512;
  const mk::DriveLayout layout = mk::buildImage(d, image);
  const mk::VolumeLayout& vol = *layout.volume;
  std::vector<uint64_t> leaves;
  for (const auto& n : vol.catalog.nodes)
    if (n.kind == -1 && n.numRecords <= 254) leaves.push_back(n.sector);  // fuller ones are passed over
  ASSERT_GT(leaves.size(), 3u);
  ASSERT_LT(leaves.back(), kKeptSectors - 16);  // every leaf in the part that was kept

  RecordingController controller;
  Volume volume(volumeDict(image, 0, vol.sizeSectors), &controller);
  ASSERT_TRUE(volume.initializeVIB());
  ASSERT_TRUE(volume.checkCatalogAndExtentsFile());
  volume.searchCatFrags();
  EXPECT_EQ(volume.CatNodeArray, leaves);
}
