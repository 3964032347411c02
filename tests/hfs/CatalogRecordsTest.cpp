// Records of catalog leaves found anywhere, and the geometry learnt from
// them: what skips one record, what ends a node, which node and block sizes
// the bytes agree with.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "base/Endian.h"
#include "hfs/CatalogRecords.h"
#include "hfs/Geometry.h"

namespace ambrel {
namespace {

constexpr uint32_t kNode = 512;

// A key named "a" under parentID, then the record type of a folder thread.
void putRecord(std::vector<uint8_t>& node, uint32_t at, uint32_t parentID) {
  storeBE16(&node[at], 8);
  storeBE32(&node[at + 2], parentID);
  storeBE16(&node[at + 6], 1);
  storeBE16(&node[at + 8], 'a');
  storeBE16(&node[at + 10], 3);
}

// A leaf of kNode bytes holding records of the given lengths (each at least
// 12: a key with a one-letter name, and a record type), one after another.
std::vector<uint8_t> leafWith(const std::vector<uint16_t>& lengths, uint32_t parentID = 16) {
  std::vector<uint8_t> node(kNode, 0);
  node[8] = 0xFF;  // leaf
  node[9] = 1;     // height
  storeBE16(&node[10], static_cast<uint16_t>(lengths.size()));
  uint32_t at = 14;
  for (size_t i = 0; i < lengths.size(); ++i) {
    storeBE16(&node[kNode - 2 - 2 * i], static_cast<uint16_t>(at));
    putRecord(node, at, parentID);
    at += lengths[i];
  }
  storeBE16(&node[kNode - 2 - 2 * lengths.size()], static_cast<uint16_t>(at));
  return node;
}

TEST(CatalogRecords, ARecordEndingAtTheOffsetTableOfAFullNodeIsRead) {
  // Two records filling the node up to its offset table (3 slots).
  const uint16_t first = 100;
  const uint16_t second = static_cast<uint16_t>(kNode - 6 - 14 - first);
  const auto node = leafWith({first, second});
  for (bool checked : {true, false}) {
    const CatalogRecordView r = catalogRecordAt(node, 2, 1, checked);
    EXPECT_EQ(r.check, RecordCheck::Ok) << checked;
    EXPECT_EQ(r.recordType, 3);
  }
  // A 12-byte record placed to end right at the free-space slot is read; one
  // byte later it runs into the table.
  for (uint16_t end : {uint16_t(kNode - 6), uint16_t(kNode - 5)}) {
    auto moved = leafWith({first, second});
    const uint16_t at = static_cast<uint16_t>(end - 12);
    storeBE16(&moved[kNode - 4], at);
    putRecord(moved, at, 16);
    EXPECT_EQ(catalogRecordAt(moved, 2, 1, true).check,
              end == kNode - 6 ? RecordCheck::Ok : RecordCheck::AbandonNode);
  }
}

TEST(CatalogRecords, ContentFailuresSkipTheRecordPlaceFailuresEndTheNode) {
  auto node = leafWith({40, 40}, /*parentID=*/0);
  EXPECT_EQ(catalogRecordAt(node, 2, 0, true).check, RecordCheck::SkipRecord);  // parent ID 0
  storeBE16(&node[kNode - 2], 10);  // an offset inside the descriptor
  EXPECT_EQ(catalogRecordAt(node, 2, 0, true).check, RecordCheck::AbandonNode);
  auto longKey = leafWith({40, 40});
  storeBE16(&longKey[14], 600);  // key length beyond any key
  EXPECT_EQ(catalogRecordAt(longKey, 2, 0, true).check, RecordCheck::SkipRecord);
}

TEST(Geometry, LeafNodesAreRecognisedAtTheirOwnSizeOnly) {
  // A 1024-byte leaf: descriptor in its first sector, offset table in its last.
  std::vector<uint8_t> node(1024, 0);
  node[8] = 0xFF;
  node[9] = 1;
  storeBE16(&node[10], 3);
  const uint16_t offsets[] = {14, 60, 120, 200};
  for (int i = 0; i < 4; ++i) storeBE16(&node[1024 - 2 - 2 * i], offsets[i]);
  const uint8_t* head = node.data();
  const uint8_t* tail = node.data() + 512;
  EXPECT_TRUE(looksLikeNodeEnd(tail));
  EXPECT_TRUE(plausibleLeafNode(head, tail, 1024));
  EXPECT_FALSE(plausibleLeafNode(tail, tail, 512));  // its last sector alone is no node
  EXPECT_FALSE(plausibleLeafNode(head, tail, 256));  // smaller than a sector
  // Offsets that do not rise, or a free-space offset inside the table.
  storeBE16(&node[1024 - 6], 50);
  EXPECT_FALSE(plausibleLeafNode(head, tail, 1024));
  storeBE16(&node[1024 - 6], 120);
  storeBE16(&node[1024 - 8], 1020);
  EXPECT_FALSE(plausibleLeafNode(head, tail, 1024));
  EXPECT_TRUE(plausibleLeafNode(head, tail, 2048));  // where the table would leave room
  node[9] = 2;  // an index height
  storeBE16(&node[1024 - 8], 200);
  EXPECT_FALSE(plausibleLeafNode(head, tail, 1024));
}

TEST(Geometry, TheNodeSizeMostEndsAgreeWith) {
  EXPECT_EQ(nodeSizeByVote({}), 0);
  // Every end agrees with 8 sectors; some also with 16 (neighbours alike).
  EXPECT_EQ(nodeSizeByVote({0x08, 0x18, 0x08, 0x18}), 8);
  EXPECT_EQ(nodeSizeByVote({0x10, 0x18, 0x10}), 16);
  EXPECT_EQ(nodeSizeByVote({0x80}), 0);  // 128 sectors is no node size
}

TEST(Geometry, TheBlockSizeEveryForkAgreesWith) {
  auto fork = [](uint64_t size, uint32_t blockBytes, uint32_t firstBlock) {
    ForkSample f;
    f.logicalSize = size;
    f.totalBlocks = static_cast<uint32_t>((size + blockBytes - 1) / blockBytes);
    f.extentBlocks = f.totalBlocks;
    f.lastBlock = firstBlock + f.totalBlocks;
    return f;
  };
  std::vector<ForkSample> forks;
  for (uint32_t i = 1; i < 40; ++i) forks.push_back(fork(i * 1500, 2048, 100 + 10 * i));
  BlockSizeGuess g = blockSizeFromForks(forks, 1 << 20);
  EXPECT_EQ(g.sectors, 4);
  EXPECT_TRUE(g.unique);
  // Forks that all fit one block of any size say nothing: 4 KiB, not sure.
  g = blockSizeFromForks({fork(100, 512, 10), fork(300, 512, 20)}, 1 << 20);
  EXPECT_EQ(g.sectors, 8);
  EXPECT_FALSE(g.unique);
  EXPECT_EQ(blockSizeFromForks({}, 1 << 20).sectors, 0);
  // Extents past the volume's end rule a size out.
  forks = {fork(100, 512, 1000), fork(100, 512, 2000)};
  g = blockSizeFromForks(forks, 2001 * 8);
  EXPECT_EQ(g.sectors, 8);
  EXPECT_FALSE(g.unique);
}

}  // namespace
}  // namespace ambrel
