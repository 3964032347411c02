#include <algorithm>
#include <cstring>

#include "Internal.h"
#include "base/Endian.h"
#include "media/Records.h"

namespace ambrel::mkimage {
namespace {

constexpr uint32_t kDescriptorSize = sizeof(BTNodeDescriptor_);
constexpr uint32_t kHeaderMapOffset = kDescriptorSize + sizeof(BTHeaderRecord) + 128;  // after the user data record

// Bits held by the header node's map record and by one map node.
uint32_t headerMapBits(uint32_t nodeSize) { return (nodeSize - 256) * 8; }
uint32_t mapNodeBits(uint32_t nodeSize) { return (nodeSize - 20) * 8; }

// Greedy packing: a record fits while the records, the descriptor and the
// offset table (one slot per record plus the free-space slot) fit the node.
template <class SizeOf>
std::vector<BTreePlan::PlannedNode> pack(uint32_t items, uint32_t nodeSize, SizeOf sizeOf) {
  std::vector<BTreePlan::PlannedNode> nodes;
  uint32_t used = kDescriptorSize, n = 0, first = 0;
  for (uint32_t i = 0; i < items; ++i) {
    size_t s = sizeOf(i);
    if (kDescriptorSize + s + 4 > nodeSize) throw BuildError("a B-tree record does not fit a node");
    if (n > 0 && used + s + 2 * (n + 2) > nodeSize) {
      nodes.push_back({0, first, n, 0});
      first = i;
      n = 0;
      used = kDescriptorSize;
    }
    used += static_cast<uint32_t>(s);
    ++n;
  }
  if (n > 0) nodes.push_back({0, first, n, 0});
  return nodes;
}

void putDescriptor(uint8_t* node, uint32_t fLink, uint32_t bLink, int8_t kind, uint8_t height, uint16_t numRecords) {
  using D = BTNodeDescriptor_;
  storeBE32(node + offsetof(D, fLink), fLink);
  storeBE32(node + offsetof(D, bLink), bLink);
  node[offsetof(D, kind)] = static_cast<uint8_t>(kind);
  node[offsetof(D, height)] = height;
  storeBE16(node + offsetof(D, numRecords), numRecords);
  storeBE16(node + offsetof(D, reserved), 0);
}

void setBit(uint8_t* map, uint32_t bit) { map[bit / 8] |= static_cast<uint8_t>(0x80 >> (bit % 8)); }

}  // namespace

BTreePlan planBTree(const BTreeSource& source, uint32_t nodeSize) {
  BTreePlan plan;
  plan.nodeSize = nodeSize;
  if (source.count == 0) return plan;
  if (source.count > UINT32_MAX) throw BuildError("too many B-tree records");
  auto leaves = pack(static_cast<uint32_t>(source.count), nodeSize, [&](uint32_t i) { return source.leafSize(i); });
  for (auto& leaf : leaves) leaf.firstRecord = leaf.first;
  plan.levels.push_back(std::move(leaves));
  while (plan.levels.back().size() > 1) {
    const auto& below = plan.levels.back();
    auto upper = pack(static_cast<uint32_t>(below.size()), nodeSize,
                      [&](uint32_t i) { return source.indexKeySize(below[i].firstRecord) + 4; });
    for (auto& node : upper) node.firstRecord = below[node.first].firstRecord;
    plan.levels.push_back(std::move(upper));
  }
  uint32_t next = 1;
  for (auto& level : plan.levels)
    for (auto& node : level) node.number = next++;
  plan.usedNodes = next;
  return plan;
}

uint32_t mapNodesFor(uint32_t totalNodes, uint32_t nodeSize) {
  uint32_t inHeader = headerMapBits(nodeSize);
  if (totalNodes <= inHeader) return 0;
  uint32_t per = mapNodeBits(nodeSize);
  return (totalNodes - inHeader + per - 1) / per;
}

void writeBTree(const BTreePlan& plan, const BTreeSource& source, const BTreeParams& params,
                uint32_t totalNodes, uint32_t leafRecords,
                const std::function<void(uint32_t, const uint8_t*)>& sink, std::vector<NodeLayout>* nodesOut) {
  const uint32_t ns = params.nodeSize;
  const uint32_t mapNodes = mapNodesFor(totalNodes, ns);
  const uint32_t used = plan.usedNodes + mapNodes;
  if (used > totalNodes) throw BuildError("B-tree file too small for its nodes");
  std::vector<uint8_t> node(ns);
  auto record = [&](NodeLayout layout) {
    if (nodesOut) nodesOut->push_back(layout);
  };

  // Header node: header record, user data record, map record.
  std::fill(node.begin(), node.end(), 0);
  const uint32_t firstMap = mapNodes ? plan.usedNodes : 0;
  putDescriptor(node.data(), firstMap, 0, 1, 0, 3);
  uint8_t* h = node.data() + kDescriptorSize;
  uint32_t firstLeaf = plan.levels.empty() ? 0 : plan.levels[0].front().number;
  uint32_t lastLeaf = plan.levels.empty() ? 0 : plan.levels[0].back().number;
  using R = BTHeaderRecord;
  storeBE16(h + offsetof(R, treeDepth), static_cast<uint16_t>(plan.depth()));
  storeBE32(h + offsetof(R, rootNode), plan.rootNode());
  storeBE32(h + offsetof(R, leafRecords), leafRecords);
  storeBE32(h + offsetof(R, firstLeafNode), firstLeaf);
  storeBE32(h + offsetof(R, lastLeafNode), lastLeaf);
  storeBE16(h + offsetof(R, nodeSize), static_cast<uint16_t>(ns));
  storeBE16(h + offsetof(R, maxKeyLength), params.maxKeyLength);
  storeBE32(h + offsetof(R, totalNodes), totalNodes);
  storeBE32(h + offsetof(R, freeNodes), totalNodes - used);
  storeBE32(h + offsetof(R, clumpSize), params.clumpSize);
  h[offsetof(R, btreeType)] = params.btreeType;
  h[offsetof(R, keyCompareType)] = params.keyCompareType;
  storeBE32(h + offsetof(R, attributes), params.attributes);
  // Map bits cover nodes 0..used-1 across the header and the map nodes.
  auto markUsed = [&](uint8_t* map, uint32_t fromNode, uint32_t bits) {
    for (uint32_t b = 0; b < bits && fromNode + b < used; ++b) setBit(map, b);
  };
  markUsed(node.data() + kHeaderMapOffset, 0, headerMapBits(ns));
  storeBE16(&node[ns - 2], kDescriptorSize);
  storeBE16(&node[ns - 4], kDescriptorSize + sizeof(BTHeaderRecord));
  storeBE16(&node[ns - 6], kHeaderMapOffset);
  storeBE16(&node[ns - 8], static_cast<uint16_t>(ns - 8));
  sink(0, node.data());
  record({0, 1, 0, 3, 0});

  // Leaves and index levels.
  for (size_t level = 0; level < plan.levels.size(); ++level) {
    const auto& nodes = plan.levels[level];
    const bool leaf = level == 0;
    for (size_t k = 0; k < nodes.size(); ++k) {
      const auto& pn = nodes[k];
      std::fill(node.begin(), node.end(), 0);
      uint32_t fLink = k + 1 < nodes.size() ? nodes[k + 1].number : 0;
      uint32_t bLink = k > 0 ? nodes[k - 1].number : 0;
      int8_t kind = leaf ? -1 : 0;
      uint8_t height = static_cast<uint8_t>(level + 1);
      putDescriptor(node.data(), fLink, bLink, kind, height, static_cast<uint16_t>(pn.count));
      uint32_t off = kDescriptorSize;
      for (uint32_t r = 0; r < pn.count; ++r) {
        storeBE16(&node[ns - 2 * (r + 1)], static_cast<uint16_t>(off));
        if (leaf) {
          off += static_cast<uint32_t>(source.leafRecord(pn.first + r, &node[off]));
        } else {
          const auto& child = plan.levels[level - 1][pn.first + r];
          off += static_cast<uint32_t>(source.indexKey(child.firstRecord, &node[off]));
          storeBE32(&node[off], child.number);
          off += 4;
        }
      }
      storeBE16(&node[ns - 2 * (pn.count + 1)], static_cast<uint16_t>(off));
      sink(pn.number, node.data());
      record({pn.number, kind, height, static_cast<uint16_t>(pn.count), 0});
    }
  }

  // Map nodes, chained by forward link.
  uint32_t covered = headerMapBits(ns);
  for (uint32_t m = 0; m < mapNodes; ++m) {
    std::fill(node.begin(), node.end(), 0);
    uint32_t number = plan.usedNodes + m;
    putDescriptor(node.data(), m + 1 < mapNodes ? number + 1 : 0, 0, 2, 0, 1);
    markUsed(node.data() + kDescriptorSize, covered, mapNodeBits(ns));
    covered += mapNodeBits(ns);
    storeBE16(&node[ns - 2], kDescriptorSize);
    storeBE16(&node[ns - 4], static_cast<uint16_t>(ns - 6));
    sink(number, node.data());
    record({number, 2, 0, 1, 0});
  }
}

}  // namespace ambrel::mkimage
