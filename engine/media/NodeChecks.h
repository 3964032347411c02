#pragma once
// Plausibility checks on B-tree nodes and records, as pure functions over byte
// spans in disk order. The partition naming pass, the volume search and the
// node scans all judge candidate nodes with these, so a node found anywhere on
// a drive is tested by the same code as one reached through its tree.
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "media/Records.h"
#include "tree/Extent.h"

namespace ambrel {

inline constexpr size_t kNodeDescriptorSize = sizeof(BTNodeDescriptor_);
// The largest B-tree node HFS+ allows; anything claiming more is not a node.
inline constexpr uint32_t kMaxNodeSizeBytes = 32768;

// A node descriptor in host order; nullopt when the span is too short.
std::optional<BTNodeDescriptor_> nodeDescriptorOf(std::span<const uint8_t> node);

// A B-tree header node: no backward link, kind 1, height 0, exactly 3 records.
bool isGoodHeaderNode(const BTNodeDescriptor_& desc);
// A leaf node: kind -1 and height 1.
bool isLeafNode(const BTNodeDescriptor_& desc);

// The header record right after the descriptor, converted; nullopt when the
// span is too short.
std::optional<BTHeaderRecord> headerRecordOf(std::span<const uint8_t> node);

// Header node test plus its record in one step (the test the naming pass and
// the search make on the first sector of a B-tree file).
std::optional<BTHeaderRecord> headerRecordIfGood(std::span<const uint8_t> node);

// The root folder's name from the first leaf node of a catalog: the node is a
// leaf with no backward link, its first key (at byte 14) has parent ID 1 and
// the folder record after the key has record type 1 and folder ID 2. nullopt
// when any of this fails or the key runs past the span. The name may be empty.
std::optional<std::string> rootFolderNameOf(std::span<const uint8_t> node);

// Record offsets of a node of `nodeSize` bytes (at most the span's size),
// checked: each at least 14, inside the node and before the offset table,
// strictly increasing. Empty when the table is implausible.
std::vector<uint16_t> recordOffsetsOf(std::span<const uint8_t> node, uint32_t nodeSize);

// UTF-16 text to UTF-8; unpaired surrogates become U+FFFD.
std::string utf16BigToUtf8(const uint8_t* units, size_t count);
std::string utf16LittleToUtf8(const uint8_t* units, size_t count);

// Whether the extent key (fileID, forkType, startBlock) sorts at or after the
// on-disk key at `key` (an HFSPlusExtentKey_ in disk order), in the extents
// B-tree's own order: file ID, then fork type, then start block.
bool extentKeyNotBefore(uint32_t fileID, uint8_t forkType, uint32_t startBlock, const uint8_t* key);

// Extents-overflow B-tree look-up: the extents of (fileID, forkType) from
// `startBlock` on, until `totalBlocks` is reached or no further record
// matches. readNode fills a node of nodeSize bytes and answers false when it
// cannot. Descends from rootNode by the tree's key order and then follows
// forward links; every walk is bounded by a visited set.
using NodeReader = std::function<bool(uint32_t node, std::vector<uint8_t>& bytes)>;
std::vector<Extent> overflowExtentsFor(uint32_t fileID, uint8_t forkType, uint32_t startBlock,
                                       uint32_t totalBlocks, uint32_t rootNode, uint32_t nodeSize,
                                       const NodeReader& readNode);

}  // namespace ambrel
