#pragma once
// What a scan or search could not read: single sectors (after a failed larger
// read was retried piece by piece) and B-tree nodes that could not be read
// whole. Kept so that the final message and the command line's exit status
// can tell the truth; written by the scanning thread only.
#include <algorithm>
#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

namespace ambrel {

class ReadErrors {
 public:
  // A sector or node is counted once however often a walk comes back to it;
  // past this many distinct ones they are counted without that check, so a
  // dying drive cannot make the record grow without bound.
  static constexpr size_t kRemembered = 1000000;
  static constexpr size_t kListed = 10;

  void noteSector(uint64_t sector) { note(sector, sectors_); }
  // A node by its first sector.
  void noteNode(uint64_t firstSector) { note(firstSector, nodes_); }
  void clear() { *this = ReadErrors(); }

  uint64_t sectors() const { return sectors_; }
  uint64_t nodes() const { return nodes_; }
  bool any() const { return sectors_ + nodes_ > 0; }
  // The first sectors met (a node by its first sector), in the order met.
  const std::vector<uint64_t>& listed() const { return listed_; }

  // "2 sectors and 1 B-tree node could not be read (at sectors 100, 101,
  // 2048)"; empty when everything was read.
  std::string summary() const;

 private:
  void note(uint64_t sector, uint64_t& counter) {
    // Nodes and sectors apart: a node's first sector may also fail alone.
    const uint64_t key = &counter == &nodes_ ? ~sector : sector;
    if (seen_.size() < kRemembered && !seen_.insert(key).second) return;
    ++counter;
    // A node and a sector of it failing both are one place to the reader.
    if (std::find(listed_.begin(), listed_.end(), sector) != listed_.end()) return;
    if (listed_.size() < kListed) listed_.push_back(sector);
    else unlisted_ = true;
  }

  uint64_t sectors_ = 0;
  uint64_t nodes_ = 0;
  std::vector<uint64_t> listed_;
  bool unlisted_ = false;  // some place met is not in listed_
  std::unordered_set<uint64_t> seen_;
};

}  // namespace ambrel
