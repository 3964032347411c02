#pragma once
// The attributes B-tree (catalog node ID 8): extended attributes of files,
// among them "com.apple.decmpfs" of compressed files. Parsing is done over
// byte spans and reading through a node callback, so that records are tested
// and fuzzed from bytes and the tree is read with the same distrust as the
// catalog: record offsets checked, every walk bounded by a visited set.
//
// Key: key length, pad, file ID, start block, name length, UTF-16BE name
// (all big-endian). Records: 0x10 inline data (8 reserved bytes, size, the
// bytes), 0x20 fork data (4 reserved, a fork descriptor), 0x30 more extents
// of a fork-data attribute (4 reserved, eight extents).
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "media/NodeChecks.h"
#include "media/Records.h"

namespace ambrel {

inline constexpr uint32_t kAttributesFileID = 8;
inline constexpr uint32_t kAttrInlineData = 0x10;
inline constexpr uint32_t kAttrForkData = 0x20;
inline constexpr uint32_t kAttrExtents = 0x30;
// Names are at most 127 UTF-16 units.
inline constexpr uint16_t kMaxAttrNameLength = 127;

struct AttributeRecord {
  uint32_t fileID = 0;
  uint32_t startBlock = 0;
  std::u16string name;  // UTF-16 units as stored
  uint32_t recordType = 0;
  std::span<const uint8_t> inlineData;  // kAttrInlineData: inside the node given
  HFSPlusForkData_ fork{};              // kAttrForkData, host order
  HFSPlusExtentRecord_ extents{};       // kAttrExtents, host order

  std::string nameUtf8() const;
};

// Record `index` of a leaf node of nodeSize bytes, checked: its offset from
// the checked offset table, the key and the record ending before the next
// record (or the offset table), a name of at most 127 units, a known type
// whose body fits. nullopt for anything else.
std::optional<AttributeRecord> attributeRecordAt(std::span<const uint8_t> node, uint32_t nodeSize, size_t index);

// Key order of the tree: file ID, then the name unit by unit (a prefix
// first), then start block.
int compareAttributeKeys(uint32_t fileA, std::u16string_view nameA, uint32_t startA, uint32_t fileB,
                         std::u16string_view nameB, uint32_t startB);

std::u16string utf16FromAscii(std::string_view ascii);

class AttributesTree {
 public:
  struct Header {
    uint32_t nodeSize = 0;
    uint32_t rootNode = 0;
    uint32_t firstLeafNode = 0;
    uint32_t totalNodes = 0;
  };
  // A header node's values, checked (node size a power of two 512..32768).
  static std::optional<Header> headerOf(std::span<const uint8_t> headerNode);

  AttributesTree(Header header, NodeReader readNode);

  // The record holding (fileID, name, startBlock): a descent from the root;
  // when the index leads nowhere, the leaf chain is walked once and kept as
  // an index of the nodes holding each file's records. The record's
  // inlineData points into `node`, which the caller keeps.
  std::optional<AttributeRecord> find(uint32_t fileID, std::u16string_view name, uint32_t startBlock,
                                      std::vector<uint8_t>& node);

  // Every record of one file, in key order (through find's means).
  std::vector<AttributeRecord> recordsOf(uint32_t fileID, std::vector<std::vector<uint8_t>>& nodes);

  // Nodes read so far, for tests of the bounds.
  uint64_t nodesRead() const { return nodesRead_; }

 private:
  bool read(uint32_t number, std::vector<uint8_t>& node);
  // Index nodes are few and every descent passes through them: they are kept
  // once read (up to kMaxCachedIndexNodes).
  const std::vector<uint8_t>* indexNode(uint32_t number, std::vector<uint8_t>& scratch);
  static constexpr size_t kMaxCachedIndexNodes = 4096;
  // The leaf where the key belongs, its bytes left in `leaf`.
  std::optional<uint32_t> descend(uint32_t fileID, std::u16string_view name, uint32_t startBlock,
                                  std::vector<uint8_t>& leaf);
  void buildLeafIndex();

  Header header_;
  NodeReader readNode_;
  uint64_t nodesRead_ = 0;
  bool leafIndexBuilt_ = false;
  std::unordered_map<uint32_t, std::vector<uint32_t>> leavesOfFile_;
  std::unordered_map<uint32_t, std::vector<uint8_t>> indexNodes_;
};

}  // namespace ambrel
