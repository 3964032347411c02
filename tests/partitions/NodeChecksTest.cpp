// The node checks over bytes: descriptor tests, record offset tables, the
// root folder's name, UTF-16 text and the bounded extents-overflow look-up.
#include <gtest/gtest.h>

#include <map>

#include "base/Endian.h"
#include "media/NodeChecks.h"

namespace ambrel {
namespace {

constexpr uint32_t kNode = 512;

std::vector<uint8_t> node(int8_t kind, uint8_t height, std::vector<uint16_t> offsets, uint32_t fLink = 0,
                          uint32_t bLink = 0) {
  std::vector<uint8_t> n(kNode, 0);
  storeBE32(n.data(), fLink);
  storeBE32(n.data() + 4, bLink);
  n[8] = static_cast<uint8_t>(kind);
  n[9] = height;
  storeBE16(n.data() + 10, static_cast<uint16_t>(offsets.size()));
  for (size_t i = 0; i < offsets.size(); ++i) storeBE16(n.data() + kNode - 2 - 2 * i, offsets[i]);
  return n;
}

TEST(NodeChecks, DescriptorKindsAndHeaderNodeTest) {
  EXPECT_FALSE(nodeDescriptorOf(std::span<const uint8_t>()).has_value());
  auto header = node(1, 0, {14, 120, 248});
  ASSERT_TRUE(nodeDescriptorOf(header));
  EXPECT_TRUE(isGoodHeaderNode(*nodeDescriptorOf(header)));
  EXPECT_FALSE(isGoodHeaderNode(*nodeDescriptorOf(node(1, 0, {14, 120}))));        // 2 records
  EXPECT_FALSE(isGoodHeaderNode(*nodeDescriptorOf(node(1, 1, {14, 120, 248}))));   // height
  EXPECT_FALSE(isGoodHeaderNode(*nodeDescriptorOf(node(1, 0, {14, 120, 248}, 0, 5))));  // backward link
  EXPECT_TRUE(isLeafNode(*nodeDescriptorOf(node(-1, 1, {14}))));
  EXPECT_FALSE(isLeafNode(*nodeDescriptorOf(node(-1, 2, {14}))));
  EXPECT_FALSE(isLeafNode(*nodeDescriptorOf(node(0, 1, {14}))));
  // Header record fields, converted.
  storeBE32(header.data() + 14 + 2, 7);      // root
  storeBE32(header.data() + 14 + 6, 1234);   // leaf records
  storeBE16(header.data() + 14 + 18, 8192);  // node size
  auto hdr = headerRecordIfGood(header);
  ASSERT_TRUE(hdr);
  EXPECT_EQ(uint32_t{hdr->rootNode}, 7u);  // copied: packed fields do not bind to references
  EXPECT_EQ(uint32_t{hdr->leafRecords}, 1234u);
  EXPECT_EQ(uint16_t{hdr->nodeSize}, 8192);
  EXPECT_FALSE(headerRecordOf(std::span<const uint8_t>(header.data(), 100)));
}

TEST(NodeChecks, RecordOffsetTablesAreDistrusted) {
  EXPECT_EQ(recordOffsetsOf(node(-1, 1, {14, 40, 90}), kNode), (std::vector<uint16_t>{14, 40, 90}));
  EXPECT_TRUE(recordOffsetsOf(node(-1, 1, {13}), kNode).empty());          // inside the descriptor
  EXPECT_TRUE(recordOffsetsOf(node(-1, 1, {14, 14}), kNode).empty());      // duplicate
  EXPECT_TRUE(recordOffsetsOf(node(-1, 1, {40, 14}), kNode).empty());      // decreasing
  EXPECT_TRUE(recordOffsetsOf(node(-1, 1, {14, 508}), kNode).empty());     // into the offset table
  EXPECT_TRUE(recordOffsetsOf(node(-1, 1, {}), kNode).empty());            // no records
  auto many = node(-1, 1, {14});
  storeBE16(many.data() + 10, 300);  // a table larger than the node
  EXPECT_TRUE(recordOffsetsOf(many, kNode).empty());
  EXPECT_TRUE(recordOffsetsOf(node(-1, 1, {14}), kNode * 2).empty());    // node larger than the span
}

std::vector<uint8_t> firstLeaf(const std::u16string& name, uint32_t parent = 1, int16_t type = 1,
                               uint32_t folderID = 2) {
  auto n = node(-1, 1, {14});
  n.resize(1024);
  uint8_t* key = n.data() + 14;
  storeBE16(key, static_cast<uint16_t>(6 + 2 * name.size()));
  storeBE32(key + 2, parent);
  storeBE16(key + 6, static_cast<uint16_t>(name.size()));
  for (size_t i = 0; i < name.size(); ++i) storeBE16(key + 8 + 2 * i, name[i]);
  uint8_t* rec = key + 8 + 2 * name.size();
  storeBE16(rec, static_cast<uint16_t>(type));
  storeBE32(rec + 8, folderID);
  return n;
}

TEST(NodeChecks, RootFolderNameOnlyFromARealRootRecord) {
  EXPECT_EQ(rootFolderNameOf(firstLeaf(u"Macintosh HD")), "Macintosh HD");
  EXPECT_EQ(rootFolderNameOf(firstLeaf(u"")), "");
  EXPECT_EQ(rootFolderNameOf(firstLeaf(u"Caf\u00e9 \U0001F600")), "Caf\xc3\xa9 \xf0\x9f\x98\x80");
  EXPECT_FALSE(rootFolderNameOf(firstLeaf(u"x", 2)));        // parent is not 1
  EXPECT_FALSE(rootFolderNameOf(firstLeaf(u"x", 1, 3)));     // a thread record
  EXPECT_FALSE(rootFolderNameOf(firstLeaf(u"x", 1, 1, 16))); // not the root folder
  auto withBackLink = firstLeaf(u"x");
  storeBE32(withBackLink.data() + 4, 9);
  EXPECT_FALSE(rootFolderNameOf(withBackLink));
  auto longName = firstLeaf(u"x");
  storeBE16(longName.data() + 14 + 6, 600);  // name longer than its key
  EXPECT_FALSE(rootFolderNameOf(longName));
  auto hugeKey = firstLeaf(u"x");
  storeBE16(hugeKey.data() + 14, 0xFFFF);
  EXPECT_FALSE(rootFolderNameOf(hugeKey));
  // The folder record must fit in the span.
  auto full = firstLeaf(std::u16string(255, u'a'));
  EXPECT_TRUE(rootFolderNameOf(full));
  EXPECT_FALSE(rootFolderNameOf(std::span<const uint8_t>(full.data(), 600)));
}

TEST(NodeChecks, Utf16Conversions) {
  const uint8_t be[] = {0x00, 'A', 0xD8, 0x3D, 0xDE, 0x00, 0xDC, 0x00, 0x00, 'z'};
  EXPECT_EQ(utf16BigToUtf8(be, 5), "A\xf0\x9f\x98\x80\xef\xbf\xbdz");  // pair, lone low surrogate
  const uint8_t le[] = {'h', 0, 'i', 0, 0, 0};
  EXPECT_EQ(utf16LittleToUtf8(le, 3), std::string("hi\0", 3));
  const uint8_t loneHigh[] = {0xD8, 0x00};
  EXPECT_EQ(utf16BigToUtf8(loneHigh, 1), "\xef\xbf\xbd");
}

// An extents B-tree in memory: node number -> bytes.
struct Tree {
  std::map<uint32_t, std::vector<uint8_t>> nodes;
  int reads = 0;
  NodeReader reader() {
    return [this](uint32_t n, std::vector<uint8_t>& bytes) {
      ++reads;
      auto it = nodes.find(n);
      if (it == nodes.end()) return false;
      bytes = it->second;
      return true;
    };
  }
};

// A record of (fork, file, start) with extents of blockCount each.
void putRecord(std::vector<uint8_t>& n, uint16_t at, uint8_t fork, uint32_t file, uint32_t start,
               std::vector<std::pair<uint32_t, uint32_t>> extents) {
  storeBE16(n.data() + at, 10);
  n[at + 2] = fork;
  storeBE32(n.data() + at + 4, file);
  storeBE32(n.data() + at + 8, start);
  for (size_t i = 0; i < extents.size(); ++i) {
    storeBE32(n.data() + at + 12 + 8 * i, extents[i].first);
    storeBE32(n.data() + at + 16 + 8 * i, extents[i].second);
  }
}

void putIndex(std::vector<uint8_t>& n, uint16_t at, uint8_t fork, uint32_t file, uint32_t start, uint32_t child) {
  storeBE16(n.data() + at, 10);
  n[at + 2] = fork;
  storeBE32(n.data() + at + 4, file);
  storeBE32(n.data() + at + 8, start);
  storeBE32(n.data() + at + 12, child);
}

TEST(OverflowExtents, DescendsThenFollowsLeavesUntilTheTotal) {
  Tree t;
  // Index root 1 -> leaves 2 (file 3, and file 4 from block 10) and 3 (file 4 from block 30).
  auto root = node(0, 2, {14, 30});
  putIndex(root, 14, 0, 3, 0, 2);
  putIndex(root, 30, 0, 4, 30, 3);
  t.nodes[1] = root;
  auto leafA = node(-1, 1, {14, 90}, 3);
  putRecord(leafA, 14, 0, 3, 0, {{500, 5}});
  putRecord(leafA, 90, 0, 4, 10, {{100, 10}, {200, 10}});
  t.nodes[2] = leafA;
  auto leafB = node(-1, 1, {14}, 0, 2);
  putRecord(leafB, 14, 0, 4, 30, {{300, 5}});
  t.nodes[3] = leafB;

  // From block 10: the root's second key (4, 30) sorts after it, so leaf 2.
  auto got = overflowExtentsFor(4, 0, 10, 35, 1, kNode, t.reader());
  EXPECT_EQ(got, (std::vector<Extent>{{100, 10}, {200, 10}, {300, 5}}));
  // Stops once the total is reached, before the next leaf.
  EXPECT_EQ(overflowExtentsFor(4, 0, 10, 30, 1, kNode, t.reader()), (std::vector<Extent>{{100, 10}, {200, 10}}));
  // Nothing for another fork, or with no root.
  EXPECT_TRUE(overflowExtentsFor(4, 0xFF, 0, 30, 1, kNode, t.reader()).empty());
  EXPECT_TRUE(overflowExtentsFor(4, 0, 10, 30, 0, kNode, t.reader()).empty());
}

TEST(OverflowExtents, LoopsAndBadNodesEndTheWalk) {
  Tree t;
  // An index node pointing at itself, and a leaf chain that links back.
  auto selfIndex = node(0, 2, {14});
  putIndex(selfIndex, 14, 0, 0, 0, 1);
  t.nodes[1] = selfIndex;
  EXPECT_TRUE(overflowExtentsFor(4, 0, 0, 100, 1, kNode, t.reader()).empty());
  EXPECT_LE(t.reads, 2);

  Tree chain;
  auto a = node(-1, 1, {14}, 2);
  putRecord(a, 14, 0, 4, 0, {{10, 1}});
  auto b = node(-1, 1, {14}, 1);
  putRecord(b, 14, 0, 9, 0, {{20, 1}});
  chain.nodes[1] = a;
  chain.nodes[2] = b;
  EXPECT_EQ(overflowExtentsFor(4, 0, 0, 100, 1, kNode, chain.reader()), (std::vector<Extent>{{10, 1}}));
  EXPECT_LE(chain.reads, 2);

  // A missing node, an index node whose keys all sort after the search, and
  // node sizes out of range.
  Tree missing;
  EXPECT_TRUE(overflowExtentsFor(4, 0, 0, 100, 5, kNode, missing.reader()).empty());
  Tree after;
  auto idx = node(0, 2, {14});
  putIndex(idx, 14, 0, 9, 0, 2);
  after.nodes[1] = idx;
  EXPECT_TRUE(overflowExtentsFor(4, 0, 0, 100, 1, kNode, after.reader()).empty());
  EXPECT_TRUE(overflowExtentsFor(4, 0, 0, 100, 1, 0, t.reader()).empty());
  EXPECT_TRUE(overflowExtentsFor(4, 0, 0, 100, 1, 65536, t.reader()).empty());
}

}  // namespace
}  // namespace ambrel
