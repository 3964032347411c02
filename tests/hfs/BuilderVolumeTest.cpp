// Volume setup on volumes from the image builder, checked against where the
// builder says it put everything.
#include <gtest/gtest.h>

#include <set>

#include "ImageBuilder.h"
#include "hfs/Volume.h"
#include "support/BuiltEntries.h"
#include "support/RecordingController.h"
#include "support/TempDir.h"

using namespace ambrel;
namespace mk = ambrel::mkimage;

namespace {

PlistDict partition(const std::string& image, uint64_t start, uint64_t sectors) {
  return PlistDict{{"Volume Start", start}, {"Volume Size In Sectors", sectors}, {"Volume Name", "V"},
                   {"Volume Scan Type", 0}, {"Path", image},                     {"Model", ""},
                   {"Serial", ""},          {"Revision", ""}};
}

std::vector<Extent> extentsOf(const std::vector<mk::ExtentLayout>& layout) {
  std::vector<Extent> out;
  for (const auto& e : layout) out.push_back({e.startBlock, e.blockCount});
  return out;
}

struct Fixture {
  test::TempDir dir;
  std::string image = (dir / "drive.img").string();
  mk::VolumeLayout layout;
  test::RecordingController controller;
  std::unique_ptr<Volume> volume;

  explicit Fixture(const mk::VolumeSpec& spec) {
    mk::DriveSpec d;
    d.table = mk::TableKind::APM;
    mk::PartitionSpec p;
    p.volume = spec;
    d.partitions.push_back(p);
    layout = *mk::buildImage(d, image).partitions[0].volume;
    volume = std::make_unique<Volume>(partition(image, layout.startSector, layout.sizeSectors), &controller);
  }
};

}  // namespace

TEST(BuilderVolume, HeadersFoundWrappedAndFromTheAlternate) {
  for (bool wrapper : {false, true}) {
    for (auto header : {mk::VolumeDamage::Header::Intact, mk::VolumeDamage::Header::Zeroed}) {
      SCOPED_TRACE(::testing::Message() << "wrapper " << wrapper << ", header " << static_cast<int>(header));
      mk::VolumeSpec spec;
      spec.wrapper = wrapper;
      spec.blockSize = 2048;
      spec.damage.primaryHeader = header;
      spec.root = {test::sizedFile("a", 5000)};
      Fixture f(spec);
      ASSERT_TRUE(f.volume->initializeVIB());
      EXPECT_EQ(f.volume->HPlusVolStart, f.layout.HPlusVolStart);
      EXPECT_EQ(f.volume->blockSize, 4);
      EXPECT_EQ(+f.volume->vib.totalBlocks, f.layout.totalBlocks);
      EXPECT_EQ(+f.volume->vib.fileCount, f.layout.fileCount);
      ASSERT_TRUE(f.volume->checkCatalogAndExtentsFile());
      EXPECT_EQ(f.volume->catNodeSize, static_cast<int32_t>(f.layout.catalog.nodeSize / 512));
      EXPECT_EQ(f.volume->firstLeafNode, f.layout.catalog.firstLeafNode);
      EXPECT_EQ(f.volume->catRootNode, f.layout.catalog.rootNode);
      EXPECT_EQ(f.volume->leafRecords, f.layout.catalog.leafRecords / 2);
    }
  }
}

TEST(BuilderVolume, OverflowExtentsOfForksAndOfTheCatalog) {
  mk::VolumeSpec spec;
  spec.nodeSize = 4096;
  spec.catalogExtents = 11;
  mk::EntrySpec both = test::sizedFile("both forks", 30 * 4096, 13);
  both.rsrcSize = 20 * 4096;
  both.rsrcFragments = 10;
  spec.root = {test::sizedFile("twelve", 12 * 4096 + 1, 12), both, test::sizedFile("eight", 8 * 4096, 8)};
  Fixture f(spec);
  ASSERT_TRUE(f.volume->initializeVIB());
  ASSERT_TRUE(f.volume->checkCatalogAndExtentsFile());
  EXPECT_EQ(f.volume->catalogExt, extentsOf(f.layout.catalog.extents));
  for (const auto& n : f.layout.catalog.nodes)
    EXPECT_EQ(f.volume->catNodeToSector(n.node), static_cast<int64_t>(n.sector)) << "node " << n.node;
  uint64_t catalogNodes = 0;
  for (const auto& e : f.layout.catalog.extents) catalogNodes += e.blockCount * 4096ull / f.layout.catalog.nodeSize;
  EXPECT_EQ(f.volume->catNodeToSector(static_cast<uint32_t>(catalogNodes)), kInvalidSector);

  for (const char* name : {"twelve", "both forks"}) {
    const auto* e = f.layout.find(name);
    ASSERT_NE(e, nullptr);
    for (bool rsrc : {false, true}) {
      const auto& want = rsrc ? e->rsrcExtents : e->dataExtents;
      if (want.size() <= 8) continue;
      uint32_t firstEight = 0, total = 0;
      for (size_t i = 0; i < want.size(); ++i) {
        if (i < 8) firstEight += want[i].blockCount;
        total += want[i].blockCount;
      }
      bool found = false;
      const auto overflow = f.volume->extentsForID(e->cnid, rsrc ? 0xFF : 0x00, firstEight, total, &found);
      EXPECT_TRUE(found);
      EXPECT_EQ(overflow, extentsOf({want.begin() + 8, want.end()})) << name << (rsrc ? " resource" : " data");
    }
  }
  // A fork that needs no overflow record finds none.
  const auto* eight = f.layout.find("eight");
  EXPECT_TRUE(f.volume->extentsForID(eight->cnid, 0, 8, 8).empty());
}

TEST(BuilderVolume, BitmapQueriesAgreeWithTheBlocksInUse) {
  mk::VolumeSpec spec;
  spec.blockSize = 512;  // a bitmap block covers 4096 blocks: queries cross them
  spec.generate = mk::GenerateSpec{300, 10, 4, 1, 20000, false};
  Fixture f(spec);
  ASSERT_TRUE(f.volume->initializeVIB());
  f.volume->checkAllocationFile();
  ASSERT_EQ(f.volume->allocationExt, extentsOf(f.layout.allocationExtents));

  // The bitmap as written, read straight from the image.
  std::set<uint32_t> used;
  {
    std::vector<uint8_t> image = test::readFile(f.image);
    uint64_t bit = 0;
    for (const auto& e : f.layout.allocationExtents) {
      const uint64_t first = f.layout.blockToSector(e.startBlock) * 512;
      for (uint64_t byte = 0; byte < uint64_t{e.blockCount} * 512 && bit < f.layout.totalBlocks; ++byte)
        for (int b = 7; b >= 0 && bit < f.layout.totalBlocks; --b, ++bit)
          if (image[first + byte] >> b & 1) used.insert(static_cast<uint32_t>(bit));
    }
  }
  EXPECT_EQ(f.layout.totalBlocks - used.size(), f.layout.freeBlocks);

  // A block reads free only when its own bit and the bits before it within
  // its byte are all clear.
  auto expectedFree = [&](uint32_t block) {
    for (uint32_t b = block & ~7u; b <= block; ++b)
      if (used.count(b)) return false;
    return true;
  };
  for (uint32_t start : {0u, 100u, 4070u, 4095u, 4096u, 8170u}) {
    if (start + 40 > f.layout.totalBlocks) continue;
    uint8_t flags[40];
    std::fill(std::begin(flags), std::end(flags), 1);
    f.volume->get40BlocksUsedStatusFromBlock(start, flags);
    for (uint32_t i = 0; i < 40; ++i)
      EXPECT_EQ(flags[i] == 0, expectedFree(start + i)) << "block " << start + i;
  }
}

TEST(BuilderVolume, JournalLocation) {
  mk::VolumeSpec spec;
  spec.journal = true;
  spec.root = {test::sizedFile("a", 100)};
  Fixture f(spec);
  ASSERT_TRUE(f.volume->initializeVIB());
  EXPECT_EQ(+f.volume->vib.journalInfoBlock, f.layout.journalInfoBlock);
  f.volume->getJournalSizeAndStart();
  EXPECT_EQ(f.volume->journalStart, f.layout.journalStart);
  EXPECT_EQ(f.volume->journalSize, f.layout.journalSize);
}
