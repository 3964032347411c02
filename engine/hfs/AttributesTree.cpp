#include "hfs/AttributesTree.h"

#include <algorithm>
#include <cstring>
#include <unordered_set>

#include "base/Endian.h"

namespace ambrel {

namespace {

constexpr size_t kKeyFixedBytes = 14;  // key length, pad, file ID, start block, name length
// Index levels of any real tree are far fewer; a deeper descent is a loop.
constexpr int kMaxDepth = 16;
// A leaf chain longer than this many nodes is not walked further.
constexpr uint64_t kMaxLeafWalk = 1u << 22;

struct KeyView {
  uint32_t fileID = 0;
  uint32_t startBlock = 0;
  std::u16string name;
  size_t bodyOffset = 0;
};

// The key at [start, end) of a node, checked.
std::optional<KeyView> keyAt(std::span<const uint8_t> node, size_t start, size_t end) {
  if (start + kKeyFixedBytes > end) return std::nullopt;
  const uint16_t keyLength = loadBE16(&node[start]);
  const uint16_t nameLength = loadBE16(&node[start + 12]);
  if (nameLength > kMaxAttrNameLength || kKeyFixedBytes - 2 + 2 * size_t{nameLength} > keyLength) return std::nullopt;
  if (start + 2 + size_t{keyLength} > end) return std::nullopt;
  KeyView k;
  k.fileID = loadBE32(&node[start + 4]);
  k.startBlock = loadBE32(&node[start + 8]);
  k.name.resize(nameLength);
  for (size_t i = 0; i < nameLength; ++i) k.name[i] = static_cast<char16_t>(loadBE16(&node[start + kKeyFixedBytes + 2 * i]));
  k.bodyOffset = start + 2 + keyLength;
  return k;
}

// Record i's extent in the node: from its offset to the next one, or to the
// offset table for the last.
size_t recordEnd(const std::vector<uint16_t>& offsets, size_t i, uint32_t nodeSize) {
  return i + 1 < offsets.size() ? offsets[i + 1] : nodeSize - 2 * (offsets.size() + 1);
}

}  // namespace

std::string AttributeRecord::nameUtf8() const {
  std::vector<uint8_t> be(2 * name.size());
  for (size_t i = 0; i < name.size(); ++i) storeBE16(&be[2 * i], static_cast<uint16_t>(name[i]));
  return utf16BigToUtf8(be.data(), name.size());
}

std::u16string utf16FromAscii(std::string_view ascii) { return {ascii.begin(), ascii.end()}; }

int compareAttributeKeys(uint32_t fileA, std::u16string_view nameA, uint32_t startA, uint32_t fileB,
                         std::u16string_view nameB, uint32_t startB) {
  if (fileA != fileB) return fileA < fileB ? -1 : 1;
  const int c = nameA.compare(nameB);
  if (c != 0) return c < 0 ? -1 : 1;
  if (startA != startB) return startA < startB ? -1 : 1;
  return 0;
}

namespace {
// Record `index` given the node's offset table, checked once for all its
// records: a hostile node of thousands of records must not cost its table
// once per record.
std::optional<AttributeRecord> recordAt(std::span<const uint8_t> node, uint32_t nodeSize,
                                        const std::vector<uint16_t>& offsets, size_t index);
}  // namespace

std::optional<AttributeRecord> attributeRecordAt(std::span<const uint8_t> node, uint32_t nodeSize, size_t index) {
  return recordAt(node, nodeSize, recordOffsetsOf(node, nodeSize), index);
}

namespace {

std::optional<AttributeRecord> recordAt(std::span<const uint8_t> node, uint32_t nodeSize,
                                        const std::vector<uint16_t>& offsets, size_t index) {
  if (index >= offsets.size()) return std::nullopt;
  const size_t end = recordEnd(offsets, index, nodeSize);
  const auto key = keyAt(node, offsets[index], end);
  if (!key) return std::nullopt;
  const size_t body = key->bodyOffset;
  if (body + 4 > end) return std::nullopt;
  AttributeRecord r;
  r.fileID = key->fileID;
  r.startBlock = key->startBlock;
  r.name = key->name;
  r.recordType = loadBE32(&node[body]);
  switch (r.recordType) {
    case kAttrInlineData: {
      if (body + 16 > end) return std::nullopt;
      const uint32_t size = loadBE32(&node[body + 12]);
      if (size > end - body - 16) return std::nullopt;
      r.inlineData = node.subspan(body + 16, size);
      return r;
    }
    case kAttrForkData:
      if (body + 8 + sizeof(HFSPlusForkData_) > end) return std::nullopt;
      std::memcpy(&r.fork, &node[body + 8], sizeof r.fork);
      convertHPlusForkData(&r.fork);
      return r;
    case kAttrExtents:
      if (body + 8 + sizeof(HFSPlusExtentRecord_) > end) return std::nullopt;
      std::memcpy(&r.extents, &node[body + 8], sizeof r.extents);
      convertHPlusExtRec(&r.extents);
      return r;
    default:
      return std::nullopt;
  }
}

}  // namespace

std::optional<AttributesTree::Header> AttributesTree::headerOf(std::span<const uint8_t> headerNode) {
  const auto rec = headerRecordIfGood(headerNode);
  if (!rec) return std::nullopt;
  const uint32_t size = rec->nodeSize;
  if (size < 512 || size > kMaxNodeSizeBytes || (size & (size - 1)) != 0) return std::nullopt;
  Header h{size, rec->rootNode, rec->firstLeafNode, rec->totalNodes};
  if (h.rootNode >= h.totalNodes || h.firstLeafNode >= h.totalNodes) return std::nullopt;
  return h;
}

AttributesTree::AttributesTree(Header header, NodeReader readNode) : header_(header), readNode_(std::move(readNode)) {}

bool AttributesTree::read(uint32_t number, std::vector<uint8_t>& node) {
  if (number == 0 || number >= header_.totalNodes) return false;
  node.assign(header_.nodeSize, 0);
  ++nodesRead_;
  return readNode_ && readNode_(number, node) && node.size() >= header_.nodeSize;
}

const std::vector<uint8_t>* AttributesTree::indexNode(uint32_t number, std::vector<uint8_t>& scratch) {
  if (const auto it = indexNodes_.find(number); it != indexNodes_.end()) return &it->second;
  if (!read(number, scratch)) return nullptr;
  const auto desc = nodeDescriptorOf(scratch);
  if (desc && desc->kind == kBTIndexNode && indexNodes_.size() < kMaxCachedIndexNodes)
    return &indexNodes_.emplace(number, scratch).first->second;
  return &scratch;
}

std::optional<uint32_t> AttributesTree::descend(uint32_t fileID, std::u16string_view name, uint32_t startBlock,
                                                std::vector<uint8_t>& scratch) {
  std::unordered_set<uint32_t> visited;
  uint32_t current = header_.rootNode;
  for (int depth = 0; depth < kMaxDepth; ++depth) {
    if (!visited.insert(current).second) return std::nullopt;
    const std::vector<uint8_t>* held = indexNode(current, scratch);
    if (!held) return std::nullopt;
    const std::vector<uint8_t>& node = *held;
    const auto desc = nodeDescriptorOf(node);
    if (!desc) return std::nullopt;
    if (desc->kind == kBTLeafNode) return current;
    if (desc->kind != kBTIndexNode) return std::nullopt;
    const auto offsets = recordOffsetsOf(node, header_.nodeSize);
    std::optional<uint32_t> child;
    // The last index record whose key the searched key does not sort before.
    for (size_t i = 0; i < offsets.size(); ++i) {
      const size_t end = recordEnd(offsets, i, header_.nodeSize);
      const auto key = keyAt(node, offsets[i], end);
      if (!key || key->bodyOffset + 4 > end) continue;
      if (compareAttributeKeys(fileID, name, startBlock, key->fileID, key->name, key->startBlock) < 0) break;
      child = loadBE32(&node[key->bodyOffset]);
    }
    if (!child) return std::nullopt;
    current = *child;
  }
  return std::nullopt;
}

void AttributesTree::buildLeafIndex() {
  leafIndexBuilt_ = true;
  std::vector<uint8_t> node;
  std::unordered_set<uint32_t> visited;
  uint32_t current = header_.firstLeafNode;
  while (current != 0 && visited.size() < kMaxLeafWalk && visited.insert(current).second && read(current, node)) {
    const auto desc = nodeDescriptorOf(node);
    if (!desc || desc->kind != kBTLeafNode) break;
    const auto offsets = recordOffsetsOf(node, header_.nodeSize);
    for (size_t i = 0; i < offsets.size(); ++i) {
      const auto rec = recordAt(node, header_.nodeSize, offsets, i);
      if (!rec) continue;
      auto& nodes = leavesOfFile_[rec->fileID];
      if (nodes.empty() || nodes.back() != current) nodes.push_back(current);
    }
    current = desc->fLink;
  }
}

std::optional<AttributeRecord> AttributesTree::find(uint32_t fileID, std::u16string_view name, uint32_t startBlock,
                                                    std::vector<uint8_t>& node) {
  auto inNode = [&]() -> std::optional<AttributeRecord> {
    const auto desc = nodeDescriptorOf(node);
    if (!desc || desc->kind != kBTLeafNode) return std::nullopt;
    const auto offsets = recordOffsetsOf(node, header_.nodeSize);
    for (size_t i = 0; i < offsets.size(); ++i) {
      auto rec = recordAt(node, header_.nodeSize, offsets, i);
      if (rec && compareAttributeKeys(fileID, name, startBlock, rec->fileID, rec->name, rec->startBlock) == 0)
        return rec;
    }
    return std::nullopt;
  };
  if (descend(fileID, name, startBlock, node)) {
    if (auto rec = inNode()) return rec;
  }
  if (!leafIndexBuilt_) buildLeafIndex();
  const auto it = leavesOfFile_.find(fileID);
  if (it == leavesOfFile_.end()) return std::nullopt;
  for (uint32_t leaf : it->second) {
    if (!read(leaf, node)) continue;
    if (auto rec = inNode()) return rec;
  }
  return std::nullopt;
}

std::vector<AttributeRecord> AttributesTree::recordsOf(uint32_t fileID, std::vector<std::vector<uint8_t>>& nodes) {
  std::vector<AttributeRecord> out;
  std::vector<uint32_t> leaves;
  std::unordered_set<uint32_t> visited;
  // From the leaf where the file's first key would be, along the chain while
  // its keys can still belong to the file.
  std::vector<uint8_t> node;
  if (const auto first = descend(fileID, u"", 0, node)) {
    uint32_t current = *first;
    while (current != 0 && visited.insert(current).second && read(current, node)) {
      const auto desc = nodeDescriptorOf(node);
      if (!desc || desc->kind != kBTLeafNode) break;
      leaves.push_back(current);
      const auto last = desc->numRecords ? attributeRecordAt(node, header_.nodeSize, desc->numRecords - 1u) : std::nullopt;
      if (!last || last->fileID > fileID) break;
      current = desc->fLink;
    }
  } else {
    if (!leafIndexBuilt_) buildLeafIndex();
    const auto it = leavesOfFile_.find(fileID);
    if (it != leavesOfFile_.end()) leaves = it->second;
  }
  for (uint32_t leaf : leaves) {
    nodes.emplace_back();
    if (!read(leaf, nodes.back())) continue;
    const auto offsets = recordOffsetsOf(nodes.back(), header_.nodeSize);
    for (size_t i = 0; i < offsets.size(); ++i) {
      auto rec = recordAt(nodes.back(), header_.nodeSize, offsets, i);
      if (rec && rec->fileID == fileID) out.push_back(std::move(*rec));
    }
  }
  return out;
}

}  // namespace ambrel
