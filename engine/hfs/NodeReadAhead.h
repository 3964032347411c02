#pragma once
// B-tree nodes read in runs. A catalog's leaves mostly lie one after another
// on the disk, in the order the walk asks for them: one request for a run of
// them costs a fraction of one request each. What a run cannot read is left
// to the node-by-node reads, which report it, and no run is tried again
// before the walk is past the one that failed, so a bad sector still costs
// its own node and a failing drive meets each bad stretch at most twice.
#include <cstdint>
#include <cstring>
#include <vector>

#include "media/DMedia.h"

namespace ambrel {

class NodeReadAhead {
 public:
  // Nodes of `nodeSectors` sectors, at most `runNodes` in one request.
  NodeReadAhead(DMedia& media, int32_t nodeSectors, uint32_t runNodes = 32)
      : media_(media), nodeSectors_(nodeSectors), runNodes_(runNodes) {}

  // Node `number`, at `sector`, into `out` (nodeSectors * 512 bytes), read as
  // DMedia::readNode does: false, and reported, when it cannot be read.
  // sectorOf(n) gives the sector of node n (negative when it has none); the
  // run holds only the nodes that follow this one directly on the disk.
  template <class SectorOf>
  bool read(uint32_t number, uint64_t sector, uint8_t* out, SectorOf sectorOf) {
    const size_t nodeBytes = static_cast<size_t>(nodeSectors_) * kSectorSize;
    if (number >= first_ && number - first_ < count_ && sector == firstSector_ + uint64_t{number - first_} * nodeSectors_) {
      std::memcpy(out, run_.data() + (number - first_) * nodeBytes, nodeBytes);
      return true;
    }
    count_ = 0;
    if (sector >= skipUntil_ && runNodes_ > 1) {
      uint32_t n = 1;
      while (n < runNodes_ && number + n > number) {
        const int64_t next = sectorOf(number + n);
        if (next < 0 || static_cast<uint64_t>(next) != sector + uint64_t{n} * nodeSectors_) break;
        ++n;
      }
      if (n > 1) {
        run_.resize(n * nodeBytes);
        if (media_.readSectorsQuietly(sector, static_cast<int32_t>(n * nodeSectors_), run_.data())) {
          first_ = number;
          firstSector_ = sector;
          count_ = n;
          std::memcpy(out, run_.data(), nodeBytes);
          return true;
        }
        skipUntil_ = sector + uint64_t{n} * nodeSectors_;
      }
    }
    return media_.readNode(sector, nodeSectors_, out);
  }

 private:
  DMedia& media_;
  int32_t nodeSectors_;
  uint32_t runNodes_;
  std::vector<uint8_t> run_;
  uint32_t first_ = 0;
  uint64_t firstSector_ = 0;
  uint32_t count_ = 0;
  uint64_t skipUntil_ = 0;  // no runs start before this sector: one failed there
};

}  // namespace ambrel
