// The order-5 insert-only B-tree behind the keyed tables: exact shapes for
// small inputs, the counters, the variants, and agreement with std::map.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "tree/KeyedTable.h"

using namespace ambrel;

namespace {

template <class Table>
std::vector<uint64_t> keysOf(const typename Table::Node* node) {
  std::vector<uint64_t> out;
  for (int i = 0; i < node->count; ++i) out.push_back(node->key[i]->keyField);
  return out;
}

// Checks the B-tree invariants; returns the leaf depth and appends keys in order.
template <class Table>
int checkNode(const typename Table::Node* node, bool isRoot, std::vector<uint64_t>& inOrder) {
  EXPECT_GE(node->count, isRoot ? 1 : 2);
  EXPECT_LE(node->count, 4);
  const bool leaf = node->branch[0] == nullptr;
  int depth = -1;
  for (int i = 0; i <= node->count; ++i) {
    if (leaf) {
      EXPECT_EQ(node->branch[i], nullptr);
    } else {
      EXPECT_NE(node->branch[i], nullptr);
      int d = checkNode<Table>(node->branch[i], false, inOrder);
      if (depth < 0) depth = d;
      EXPECT_EQ(d, depth) << "leaves at different depths";
    }
    if (i < node->count) inOrder.push_back(node->key[i]->keyField);
  }
  return leaf ? 1 : depth + 1;
}

struct FakeSig {
  std::string name;
  std::vector<std::string> extraExts;
  void addToExtraExts(FakeSig* other) { extraExts.push_back(other->name); }
};

}  // namespace

TEST(KeyedTable, FiveKeysInOrderSplitIntoThreeNodes) {
  BTreeTableClass table;
  EXPECT_TRUE(table.empty());
  for (uint32_t k = 1; k <= 4; ++k) EXPECT_TRUE(table.insert(k, nullptr));
  EXPECT_EQ(table.numNodes(), 1);
  EXPECT_EQ(keysOf<BTreeTableClass>(table.root()), (std::vector<uint64_t>{1, 2, 3, 4}));

  table.insert(5, nullptr);
  const auto* root = table.root();
  EXPECT_EQ(keysOf<BTreeTableClass>(root), std::vector<uint64_t>{3});
  EXPECT_EQ(keysOf<BTreeTableClass>(root->branch[0]), (std::vector<uint64_t>{1, 2}));
  EXPECT_EQ(keysOf<BTreeTableClass>(root->branch[1]), (std::vector<uint64_t>{4, 5}));
  EXPECT_EQ(table.numNodes(), 3);
  EXPECT_EQ(table.numItems(), 5);
}

TEST(KeyedTable, SplitMedianDependsOnWhereTheNewKeyFalls) {
  // New key low in a full node: the median is the old third key.
  BTreeTableClass low;
  for (uint32_t k : {10, 20, 30, 40, 5}) low.insert(k, nullptr);
  EXPECT_EQ(keysOf<BTreeTableClass>(low.root()), std::vector<uint64_t>{20});
  EXPECT_EQ(keysOf<BTreeTableClass>(low.root()->branch[0]), (std::vector<uint64_t>{5, 10}));
  EXPECT_EQ(keysOf<BTreeTableClass>(low.root()->branch[1]), (std::vector<uint64_t>{30, 40}));

  // New key in the middle (location 1): m = 2, the key joins the left half.
  BTreeTableClass mid;
  for (uint32_t k : {10, 20, 30, 40, 25}) mid.insert(k, nullptr);
  EXPECT_EQ(keysOf<BTreeTableClass>(mid.root()), std::vector<uint64_t>{25});
  EXPECT_EQ(keysOf<BTreeTableClass>(mid.root()->branch[0]), (std::vector<uint64_t>{10, 20}));
  EXPECT_EQ(keysOf<BTreeTableClass>(mid.root()->branch[1]), (std::vector<uint64_t>{30, 40}));

  // Location 2: m = 3, the key goes to the new right node.
  BTreeTableClass high;
  for (uint32_t k : {10, 20, 30, 40, 35}) high.insert(k, nullptr);
  EXPECT_EQ(keysOf<BTreeTableClass>(high.root()), std::vector<uint64_t>{30});
  EXPECT_EQ(keysOf<BTreeTableClass>(high.root()->branch[0]), (std::vector<uint64_t>{10, 20}));
  EXPECT_EQ(keysOf<BTreeTableClass>(high.root()->branch[1]), (std::vector<uint64_t>{35, 40}));
}

TEST(KeyedTable, DuplicatesKeepTheFirstItemAndStillCountTheCall) {
  BTreeTableClass table;
  auto* first = reinterpret_cast<HDIR*>(0x1000);
  auto* second = reinterpret_cast<HDIR*>(0x2000);
  for (uint32_t k = 1; k <= 5; ++k) table.insert(k, k == 4 ? first : nullptr);
  table.insert(4, second);
  EXPECT_EQ(table.numItems(), 6);
  EXPECT_EQ(table.numNodes(), 3);
  EXPECT_EQ(keysOf<BTreeTableClass>(table.root()->branch[1]), (std::vector<uint64_t>{4, 5}));
  ASSERT_NE(table.retrieveKeyField(4), nullptr);
  EXPECT_EQ(table.retrieveKeyField(4)->dir, first);
}

TEST(KeyedTable, RetrieveMissesAndClear) {
  BTreeTableClass table;
  EXPECT_EQ(table.retrieveKeyField(7), nullptr);
  for (uint32_t k = 10; k <= 100; k += 10) table.insert(k, nullptr);
  EXPECT_EQ(table.retrieveKeyField(5), nullptr);    // smaller than every key: branch 0 down to nil
  EXPECT_EQ(table.retrieveKeyField(55), nullptr);
  EXPECT_EQ(table.retrieveKeyField(1000), nullptr);
  EXPECT_NE(table.retrieveKeyField(70), nullptr);
  EXPECT_EQ(table.retrieveKeyField(0xFFFFFFFF), nullptr);  // unsigned compare

  const int nodes = table.numNodes();
  EXPECT_TRUE(table.clear());
  EXPECT_TRUE(table.empty());
  EXPECT_EQ(table.numItems(), 10);
  EXPECT_EQ(table.numNodes(), nodes);
  EXPECT_EQ(table.retrieveKeyField(70), nullptr);
  table.insert(70, nullptr);
  EXPECT_NE(table.retrieveKeyField(70), nullptr);
}

TEST(KeyedTable, UInt32TableCountsLookUps) {
  BTreeTableClassUInt32 seen;
  seen.insert(512, 0);
  seen.insert(0x80000000u, 5);  // creator-set count
  for (int i = 0; i < 3; ++i) ASSERT_NE(seen.retrieveKeyField(512), nullptr);
  EXPECT_EQ(seen.retrieveKeyField(512)->retrieveCount, 4u);  // that look-up counts too
  EXPECT_EQ(seen.retrieveKeyField(0x80000000u)->retrieveCount, 6u);
  EXPECT_EQ(seen.retrieveKeyField(513), nullptr);
}

TEST(KeyedTable, SignatureTableMergesExtensionsOfTheSameHeader) {
  BTreeTableClassSigT<FakeSig> sigs;
  FakeSig jpeg{"jpg", {}}, jpe{"jpe", {}}, png{"png", {}};
  const uint64_t jpegHeader = 0xFFD8FFE000104A46ULL;
  sigs.insert(jpegHeader, &jpeg);
  sigs.insert(0x89504E470D0A1A0AULL, &png);
  sigs.insert(jpegHeader, &jpe);
  EXPECT_EQ(sigs.numItems(), 3);
  EXPECT_EQ(sigs.retrieveKeyField(jpegHeader)->sig, &jpeg);
  EXPECT_EQ(jpeg.extraExts, std::vector<std::string>{"jpe"});
  // Looking up does not merge anything.
  sigs.retrieveKeyField(jpegHeader);
  EXPECT_EQ(jpeg.extraExts.size(), 1u);
  // Keys compare as unsigned 64-bit numbers (high half first).
  sigs.insert(0x0000000100000000ULL, &png);
  sigs.insert(0x00000000FFFFFFFFULL, &png);
  EXPECT_NE(sigs.retrieveKeyField(0x0000000100000000ULL), nullptr);
  EXPECT_NE(sigs.retrieveKeyField(0x00000000FFFFFFFFULL), nullptr);
}

TEST(KeyedTable, AgreesWithStdMapOnAMillionRandomKeysWithDuplicates) {
  BTreeTableClass table;
  std::map<uint32_t, HDIR*> reference;
  std::mt19937 rng(1234);
  constexpr int kInserts = 1000000;
  for (int i = 0; i < kInserts; ++i) {
    // A narrow range forces many duplicates.
    const uint32_t key = (i % 3 == 0) ? rng() % 50000 : rng();
    auto* payload = reinterpret_cast<HDIR*>(static_cast<uintptr_t>(i + 1));
    table.insert(key, payload);
    reference.emplace(key, payload);  // emplace keeps the first, like the table
  }
  EXPECT_EQ(table.numItems(), kInserts);

  std::vector<uint64_t> inOrder;
  checkNode<BTreeTableClass>(table.root(), true, inOrder);
  ASSERT_EQ(inOrder.size(), reference.size());
  auto it = reference.begin();
  for (size_t i = 0; i < inOrder.size(); ++i, ++it) ASSERT_EQ(inOrder[i], it->first);

  for (const auto& [key, payload] : reference) {
    const auto* item = table.retrieveKeyField(key);
    ASSERT_NE(item, nullptr);
    ASSERT_EQ(item->dir, payload);
  }
  std::mt19937 probe(99);
  for (int i = 0; i < 100000; ++i) {
    const uint32_t key = probe();
    ASSERT_EQ(table.retrieveKeyField(key) != nullptr, reference.count(key) == 1);
  }
}
