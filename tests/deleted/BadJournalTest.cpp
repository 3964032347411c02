// Journals whose info block or node copies lie: the search stays inside the
// volume and the nodes, and finds nothing rather than something wrong.
#include <gtest/gtest.h>

#include <cstring>

#include "deleted/DeletedHelpers.h"
#include "hfs/JournalInfo.h"

using namespace ambrel;
using namespace ambrel::test;

namespace {

std::unique_ptr<Built> journaledVolume() {
  mk::VolumeSpec v;
  v.journal = true;
  v.root = {fileEntry("live.txt", 5000), fileEntry("deleted.txt", 7000, true),
            folderEntry("Gone", {fileEntry("inside.txt", 9000)}, true)};
  return buildVolume(v);
}

void patchBE64(const std::string& image, uint64_t at, uint64_t value) {
  uint8_t b[8];
  storeBE64(b, value);
  patchBytes(image, at, b, sizeof b);
}

bool onlyTheRoot(const ScanResult& r) { return r.volume->dirRoot && r.volume->dirRoot->children().empty(); }

}  // namespace

TEST(BadJournal, AnInfoBlockThatPointsPastTheVolumeGivesNothing) {
  auto b = journaledVolume();
  const uint64_t volumeBytes = b->layout.sizeSectors * 512;
  patchBE64(b->image, journalInfoByte(b->layout) + 36, volumeBytes + 4096);
  ScanResult r = findDeleted(b->image, 0, b->layout.sizeSectors);
  EXPECT_EQ(r.volume->journalSize, 0u);
  EXPECT_TRUE(onlyTheRoot(r));

  // The volume header's info block number past the volume.
  auto c = journaledVolume();
  uint8_t block[4];
  storeBE32(block, 0xFFFFFFF0u);
  patchBytes(c->image, c->layout.HPlusVolStart * 512 + 1024 + 12, block, sizeof block);
  ScanResult s = findDeleted(c->image, 0, c->layout.sizeSectors);
  EXPECT_EQ(s.volume->journalSize, 0u);
  EXPECT_TRUE(onlyTheRoot(s));
}

TEST(BadJournal, JournalSizesOfZeroAndTwoToTheSixtyThirdStayBounded) {
  auto b = journaledVolume();
  patchBE64(b->image, journalInfoByte(b->layout) + 44, 0);
  ScanResult zero = findDeleted(b->image, 0, b->layout.sizeSectors);
  EXPECT_EQ(zero.volume->journalSize, 0u);
  EXPECT_TRUE(onlyTheRoot(zero));

  // Cut at the volume's end: the node copies in the real journal are still
  // found, and nothing past the volume is read.
  patchBE64(b->image, journalInfoByte(b->layout) + 44, uint64_t{1} << 63);
  ScanResult huge = findDeleted(b->image, 0, b->layout.sizeSectors);
  EXPECT_EQ(huge.volume->journalStart + huge.volume->journalSize, b->layout.sizeSectors * 512);
  const auto byID = entriesByFileID(*huge.volume->dirRoot);
  const mk::FileLayout* deleted = b->layout.find("deleted.txt");
  ASSERT_NE(deleted, nullptr);
  EXPECT_EQ(byID.count(deleted->cnid), 1u);
  EXPECT_FALSE(huge.volume->readErrors.any());
}

// A catalog header whose node size reads 0: the size is taken from the
// catalog's own leaves, else from the node copies in the journal; with
// neither, nothing is taken for a node.
TEST(BadJournal, ACatalogNodeSizeOfZeroIsTakenFromTheLeavesOrTheJournal) {
  auto zeroNodeSize = [](const Built& b) {
    const auto& nodes = b.layout.catalog.nodes;
    ASSERT_FALSE(nodes.empty());
    ASSERT_EQ(nodes[0].kind, 1);  // the header node
    const uint8_t zero[2] = {0, 0};
    patchBytes(b.image, nodes[0].sector * 512 + 14 + 18, zero, sizeof zero);
  };
  auto zeroCatalogFork = [](const Built& b) {
    const std::vector<uint8_t> zeros(80, 0);
    patchBytes(b.image, b.layout.HPlusVolStart * 512 + 1024 + 272, zeros.data(), zeros.size());
  };
  auto foundDeleted = [](const Built& b, const ScanResult& r) {
    const mk::FileLayout* deleted = b.layout.find("deleted.txt");
    return deleted && entriesByFileID(*r.volume->dirRoot).count(deleted->cnid) == 1;
  };
  {
    SCOPED_TRACE("from the catalog's leaves");
    auto b = journaledVolume();
    zeroNodeSize(*b);
    ScanResult r = findDeleted(b->image, 0, b->layout.sizeSectors);
    EXPECT_EQ(r.volume->catNodeSize, static_cast<int32_t>(b->layout.catalog.nodeSize / 512));
    EXPECT_TRUE(foundDeleted(*b, r));
  }
  {
    SCOPED_TRACE("from the journal's node copies");
    auto b = journaledVolume();
    zeroNodeSize(*b);
    zeroCatalogFork(*b);
    ScanResult r = findDeleted(b->image, 0, b->layout.sizeSectors);
    EXPECT_EQ(r.volume->catNodeSize, static_cast<int32_t>(b->layout.catalog.nodeSize / 512));
    EXPECT_TRUE(foundDeleted(*b, r));
  }
  {
    SCOPED_TRACE("no sound leaf anywhere");
    auto b = journaledVolume();
    zeroNodeSize(*b);
    zeroCatalogFork(*b);
    const std::vector<uint8_t> zeros(b->layout.catalog.nodeSize, 0);
    for (uint64_t sector : b->layout.journalNodeCopySectors) patchBytes(b->image, sector * 512, zeros.data(), zeros.size());
    ScanResult r = findDeleted(b->image, 0, b->layout.sizeSectors);
    EXPECT_EQ(r.volume->catNodeSize, 0);
    EXPECT_GT(r.volume->journalSize, 0u);
    EXPECT_EQ(r.volume->journalNodesFound, 0u);
    EXPECT_TRUE(onlyTheRoot(r));
  }
}

// Offset tables that go backwards or point past the node: the records they
// name are not read; the node copies left intact still give their records.
TEST(BadJournal, NodeCopiesWithOffsetsOutOfOrderOrPastTheNodeAreNotRead) {
  for (const uint16_t bad : {uint16_t{0xFFFF}, uint16_t{20}}) {
    SCOPED_TRACE(bad);
    auto b = journaledVolume();
    const auto& copies = b->layout.journalNodeCopySectors;
    ASSERT_FALSE(copies.empty());
    const uint32_t nodeSize = b->layout.catalog.nodeSize;
    // Every offset but the first (which marks the node end) made bad, in
    // every copy: 0xFFFF lies past the node, 20 goes backwards from the
    // second record on.
    for (uint64_t sector : copies) {
      auto node = imageBytes(b->image, sector * 512, nodeSize);
      const uint16_t records = loadBE16(&node[10]);
      for (uint32_t i = 1; i <= records; ++i) storeBE16(&node[nodeSize - 2 * (i + 1)], bad);
      patchBytes(b->image, sector * 512, node.data(), node.size());
    }
    ScanResult r = findDeleted(b->image, 0, b->layout.sizeSectors);
    ASSERT_NE(r.volume->dirRoot, nullptr);
    // Only the first record of each copy can still be read (the key ranges
    // of the others are gone): at most one entry per copy.
    EXPECT_LE(countEntries(*r.volume->dirRoot), copies.size() + 1);
  }
}

TEST(JournalInfo, HeadersInEitherByteOrderAndPlacesInsideTheVolume) {
  uint8_t head[512] = {};
  storeBE32(head, kJournalMagic);
  storeBE32(head + 4, kJournalEndian);
  storeBE64(head + 8, 4096);
  storeBE64(head + 16, 8192);
  storeBE64(head + 24, 1 << 20);
  storeBE32(head + 32, 4096);
  storeBE32(head + 40, 512);
  JournalHeader big = parseJournalHeader(head, sizeof head);
  EXPECT_TRUE(big.found);
  EXPECT_FALSE(big.littleEndian);
  EXPECT_EQ(big.start, 4096u);
  EXPECT_EQ(big.end, 8192u);
  EXPECT_EQ(big.size, 1u << 20);
  EXPECT_EQ(big.jhdrSize, 512u);

  uint8_t le[512] = {};
  for (size_t at : {0, 4, 32, 40})
    for (int k = 0; k < 4; ++k) le[at + k] = head[at + 3 - k];
  for (size_t at : {8, 16, 24})
    for (int k = 0; k < 8; ++k) le[at + k] = head[at + 7 - k];
  JournalHeader little = parseJournalHeader(le, sizeof le);
  EXPECT_TRUE(little.found);
  EXPECT_TRUE(little.littleEndian);
  EXPECT_EQ(little.start, big.start);
  EXPECT_EQ(little.size, big.size);
  EXPECT_EQ(little.blhdrSize, big.blhdrSize);

  uint8_t noise[512];
  std::memset(noise, 0x4a, sizeof noise);
  EXPECT_FALSE(parseJournalHeader(noise, sizeof noise).found);
  EXPECT_FALSE(parseJournalHeader(head, 40).found);

  // Flags: a journal on another device is not searched; a flags word
  // without the in-volume bit does not hide one.
  const uint64_t volume = 10u << 20;
  EXPECT_EQ(journalPlaceInVolume({kJournalInFSMask, 4096, 1 << 20}, volume).size, 1u << 20);
  EXPECT_EQ(journalPlaceInVolume({kJournalInFSMask | kJournalOnOtherDeviceMask, 4096, 1 << 20}, volume).size, 0u);
  EXPECT_EQ(journalPlaceInVolume({0, 4096, 1 << 20}, volume).size, 1u << 20);
  EXPECT_EQ(journalPlaceInVolume({kJournalInFSMask, volume, 512}, volume).size, 0u);
  const JournalPlace cut = journalPlaceInVolume({kJournalInFSMask, volume - 4096, uint64_t{1} << 63}, volume);
  EXPECT_EQ(cut.start + cut.size, volume);
}
