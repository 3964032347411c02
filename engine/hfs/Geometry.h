#pragma once
// Learning a volume's geometry from what is left of it: the catalog node size
// from the nodes themselves, and the allocation block size from the file
// records, for when the headers that state them are gone. Pure functions over
// bytes, so that they can be tested and fuzzed alone.
#include <cstdint>
#include <vector>

namespace ambrel {

// Node sizes tried, in sectors: 512 bytes to 32 KiB.
inline constexpr int32_t kMinNodeSectors = 1;
inline constexpr int32_t kMaxNodeSectors = 64;

// Whether a catalog leaf of nodeBytes could begin with `head` (its first 14
// bytes at least) and end with `tail` (its last 512 bytes): a leaf descriptor
// with 1 to 254 records, and an offset table that starts at 14, rises
// strictly, leaves room for each record and ends before the table itself.
bool plausibleLeafNode(const uint8_t* head, const uint8_t* tail, uint32_t nodeBytes);

// Whether the sector could be the last one of a B-tree node: its last word is
// 14 (the first record's offset) and the word before it is above 14.
bool looksLikeNodeEnd(const uint8_t* sector);

// Votes of node ends for node sizes: bit k of each mask stands for 2^k
// sectors. The size that the most ends agree with (the smaller on a tie), in
// sectors; 0 when no end agrees with any.
int32_t nodeSizeByVote(const std::vector<uint8_t>& masks);

// One fork of a file record, as the record gives it.
struct ForkSample {
  uint64_t logicalSize = 0;
  uint32_t totalBlocks = 0;
  uint64_t extentBlocks = 0;  // blocks of its eight extents
  uint64_t lastBlock = 0;     // one past its highest block
  bool allEightUsed = false;
};

struct BlockSizeGuess {
  int32_t sectors = 0;  // 0: no fork says anything
  bool unique = false;  // no other size agrees with as many forks
};

// The allocation block size (1 to 128 sectors) that the most forks agree
// with: a fork's block count is its size in blocks, its extents add up to it
// (or stay below it with all eight used) and lie inside the volume.
BlockSizeGuess blockSizeFromForks(const std::vector<ForkSample>& forks, uint64_t volumeSectors);

}  // namespace ambrel
