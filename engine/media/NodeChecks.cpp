#include "media/NodeChecks.h"

#include <cstring>
#include <unordered_set>

#include "base/Endian.h"

namespace ambrel {

namespace {

constexpr size_t kHeaderRecordEnd = kNodeDescriptorSize + sizeof(BTHeaderRecord);
// Offset of the first key's name length: descriptor, key length, parent ID.
constexpr size_t kFirstKeyAt = kNodeDescriptorSize;
constexpr uint32_t kRootParentID = 1;
constexpr uint32_t kRootFolderID = 2;
// A catalog key is at most 2 + 6 + 255 code units.
constexpr uint16_t kMaxCatalogKeyLength = 6 + 2 * 255;
constexpr size_t kExtentKeySize = sizeof(HFSPlusExtentKey_);
constexpr size_t kExtentRecordSize = sizeof(HFSPlusExtentRecord_);
// Extents trees deeper than this do not occur; a longer descent is a loop.
constexpr int kMaxDescent = 16;

void appendUtf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

template <class Load>
std::string utf16ToUtf8(const uint8_t* units, size_t count, Load load) {
  std::string out;
  out.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    uint32_t u = load(units + 2 * i);
    if (u >= 0xD800 && u <= 0xDBFF && i + 1 < count) {
      uint32_t low = load(units + 2 * (i + 1));
      if (low >= 0xDC00 && low <= 0xDFFF) {
        appendUtf8(out, 0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00));
        ++i;
        continue;
      }
    }
    if (u >= 0xD800 && u <= 0xDFFF) u = 0xFFFD;
    appendUtf8(out, u);
  }
  return out;
}

}  // namespace

std::optional<BTNodeDescriptor_> nodeDescriptorOf(std::span<const uint8_t> node) {
  if (node.size() < kNodeDescriptorSize) return std::nullopt;
  BTNodeDescriptor_ desc;
  std::memcpy(&desc, node.data(), sizeof desc);
  convertBTNodeDesc(&desc);
  return desc;
}

bool isGoodHeaderNode(const BTNodeDescriptor_& desc) {
  return desc.bLink == 0 && desc.kind == kBTHeaderNode && desc.height == 0 && desc.numRecords == 3;
}

bool isLeafNode(const BTNodeDescriptor_& desc) { return desc.kind == kBTLeafNode && desc.height == 1; }

std::optional<BTHeaderRecord> headerRecordOf(std::span<const uint8_t> node) {
  if (node.size() < kHeaderRecordEnd) return std::nullopt;
  BTHeaderRecord hdr;
  std::memcpy(&hdr, node.data() + kNodeDescriptorSize, sizeof hdr);
  convertBTHdrRec(&hdr);
  return hdr;
}

std::optional<BTHeaderRecord> headerRecordIfGood(std::span<const uint8_t> node) {
  auto desc = nodeDescriptorOf(node);
  if (!desc || !isGoodHeaderNode(*desc)) return std::nullopt;
  return headerRecordOf(node);
}

std::optional<std::string> rootFolderNameOf(std::span<const uint8_t> node) {
  auto desc = nodeDescriptorOf(node);
  if (!desc || desc->bLink != 0 || !isLeafNode(*desc)) return std::nullopt;
  if (node.size() < kFirstKeyAt + 8) return std::nullopt;
  const uint8_t* key = node.data() + kFirstKeyAt;
  const uint16_t keyLength = loadBE16(key);
  if (keyLength < 6 || keyLength > kMaxCatalogKeyLength) return std::nullopt;
  if (loadBE32(key + 2) != kRootParentID) return std::nullopt;
  const uint16_t nameLength = loadBE16(key + 6);
  if (8 + size_t{nameLength} * 2 > size_t{keyLength} + 2) return std::nullopt;
  const size_t recordAt = kFirstKeyAt + 2 + keyLength;
  if (recordAt + sizeof(HFSPlusCatalogFolder_) > node.size()) return std::nullopt;
  HFSPlusCatalogFolder_ folder;
  std::memcpy(&folder, node.data() + recordAt, sizeof folder);
  convertHPlusCatalogFolder(&folder);
  if (folder.recordType != kHFSPlusFolderRecord || folder.folderID != kRootFolderID) return std::nullopt;
  return utf16BigToUtf8(key + 8, nameLength);
}

std::vector<uint16_t> recordOffsetsOf(std::span<const uint8_t> node, uint32_t nodeSize) {
  auto desc = nodeDescriptorOf(node);
  if (!desc || nodeSize > node.size() || nodeSize < kNodeDescriptorSize) return {};
  const size_t count = desc->numRecords;
  const size_t tableBytes = 2 * (count + 1);
  if (count == 0 || tableBytes > nodeSize - kNodeDescriptorSize) return {};
  const size_t tableStart = nodeSize - tableBytes;
  std::vector<uint16_t> offsets(count);
  for (size_t i = 0; i < count; ++i) {
    const uint16_t at = loadBE16(node.data() + nodeSize - 2 - 2 * i);
    if (at < kNodeDescriptorSize || at >= tableStart) return {};
    if (i > 0 && at <= offsets[i - 1]) return {};
    offsets[i] = at;
  }
  return offsets;
}

std::string utf16BigToUtf8(const uint8_t* units, size_t count) {
  return utf16ToUtf8(units, count, [](const uint8_t* p) { return uint32_t{loadBE16(p)}; });
}

std::string utf16LittleToUtf8(const uint8_t* units, size_t count) {
  return utf16ToUtf8(units, count, [](const uint8_t* p) { return uint32_t{loadLE16(p)}; });
}

bool extentKeyNotBefore(uint32_t fileID, uint8_t forkType, uint32_t startBlock, const uint8_t* key) {
  const uint8_t keyFork = key[2];
  const uint32_t keyFile = loadBE32(key + 4);
  const uint32_t keyStart = loadBE32(key + 8);
  if (fileID != keyFile) return fileID > keyFile;
  if (forkType != keyFork) return forkType > keyFork;
  return startBlock >= keyStart;
}

std::vector<Extent> overflowExtentsFor(uint32_t fileID, uint8_t forkType, uint32_t startBlock,
                                       uint32_t totalBlocks, uint32_t rootNode, uint32_t nodeSize,
                                       const NodeReader& readNode) {
  std::vector<Extent> found;
  if (rootNode == 0 || nodeSize < 512 || nodeSize > kMaxNodeSizeBytes) return found;
  std::vector<uint8_t> bytes;
  uint32_t current = rootNode;
  std::unordered_set<uint32_t> visited;

  // Index levels: the last record (from the end) whose key the searched key
  // does not sort before gives the child.
  for (int depth = 0;; ++depth) {
    if (depth > kMaxDescent || !visited.insert(current).second) return found;
    bytes.assign(nodeSize, 0);
    if (!readNode(current, bytes) || bytes.size() < nodeSize) return found;
    auto desc = nodeDescriptorOf(bytes);
    if (!desc) return found;
    if (desc->kind != kBTIndexNode) break;
    auto offsets = recordOffsetsOf(bytes, nodeSize);
    bool descended = false;
    for (size_t i = offsets.size(); i-- > 0;) {
      const size_t at = offsets[i];
      if (at + kExtentKeySize + 4 > nodeSize) continue;
      const uint8_t* key = bytes.data() + at;
      if (extentKeyNotBefore(fileID, forkType, startBlock, key)) {
        current = loadBE32(key + kExtentKeySize);
        descended = true;
        break;
      }
    }
    if (!descended) return found;
  }

  // Leaf level: records with the running start block, then forward links.
  uint32_t running = startBlock;
  visited.clear();
  bool haveNode = true;  // the descent ended on this leaf
  while (current != 0 && visited.insert(current).second) {
    if (!haveNode) {
      bytes.assign(nodeSize, 0);
      if (!readNode(current, bytes) || bytes.size() < nodeSize) return found;
    }
    haveNode = false;
    auto desc = nodeDescriptorOf(bytes);
    if (!desc || desc->kind != kBTLeafNode) return found;
    auto offsets = recordOffsetsOf(bytes, nodeSize);
    size_t lowerBound = 0;
    bool matched = true;
    while (matched) {
      matched = false;
      for (size_t i = offsets.size(); i-- > lowerBound;) {
        const size_t at = offsets[i];
        if (at + kExtentKeySize + kExtentRecordSize > nodeSize) continue;
        const uint8_t* key = bytes.data() + at;
        if (key[2] != forkType || loadBE32(key + 4) != fileID || loadBE32(key + 8) != running) continue;
        HFSPlusExtentRecord_ rec;
        std::memcpy(&rec, key + kExtentKeySize, sizeof rec);
        convertHPlusExtRec(&rec);
        for (const auto& d : rec.extDesc) {
          if (d.startBlock == 0) break;
          found.push_back({d.startBlock, d.blockCount});
          running += d.blockCount;
        }
        if (running >= totalBlocks) return found;
        lowerBound = i + 1;
        matched = true;
        break;
      }
    }
    current = desc->fLink;
  }
  return found;
}

}  // namespace ambrel
