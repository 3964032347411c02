#pragma once
#include <cstdint>
#include <vector>

namespace ambrel {

// One run of allocation blocks of a fork.
struct Extent {
  uint32_t startBlock = 0;
  uint32_t blockCount = 0;

  bool operator==(const Extent&) const = default;
};

// The extents of a B-tree file cut to the first `blocks` allocation blocks
// of its volume: an extent reaching past them ends there, and those after it
// are dropped, since where their nodes fall in the file is no longer known.
// True when anything was cut.
inline bool cutExtentsToBlocks(std::vector<Extent>& extents, uint64_t blocks) {
  for (size_t i = 0; i < extents.size(); ++i) {
    Extent& e = extents[i];
    if (uint64_t{e.startBlock} + e.blockCount <= blocks) continue;
    e.blockCount = e.startBlock < blocks ? static_cast<uint32_t>(blocks - e.startBlock) : 0;
    extents.resize(e.blockCount ? i + 1 : i);
    return true;
  }
  return false;
}

}  // namespace ambrel
