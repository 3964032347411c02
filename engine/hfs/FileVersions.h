#pragma once
// The files the scans have met, by ID, with where their forks lie: several
// versions per ID at most in a damaged or journaled catalog, one almost
// always. Kept flat (every extent in one array, an open-addressed index of
// IDs) because a scan notes each of millions of files: a map node and two
// vectors per file cost more time and memory than the file's own entry.
//
// A healthy catalog names each file once, so the index is only built when
// an ID comes back: until then a bit per ID answers "never met" from a
// table small enough to stay in the cache.
#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

#include "tree/Extent.h"

namespace ambrel {

class FileVersions {
 public:
  using Extents = std::span<const Extent>;

  void clear() {
    extents_.clear();
    versions_.clear();
    slots_.clear();
    met_.clear();
    highIdsMet_ = false;
    indexed_ = false;
    scattered_ = false;
  }
  bool empty() const { return versions_.empty(); }

  void add(uint32_t id, Extents data, Extents rsrc) {
    const uint32_t index = static_cast<uint32_t>(versions_.size());
    versions_.push_back(Version{id, static_cast<uint32_t>(extents_.size()), static_cast<uint32_t>(data.size()),
                                static_cast<uint32_t>(rsrc.size()), kNone});
    extents_.insert(extents_.end(), data.begin(), data.end());
    extents_.insert(extents_.end(), rsrc.begin(), rsrc.end());
    noteMet(id);
    if (indexed_) link(index);
  }

  // visit(data, rsrc) for each version of `id` in the order added, until it returns true.
  template <class Visit>
  bool anyOf(uint32_t id, Visit visit) const {
    if (!mayHaveMet(id)) return false;
    if (!indexed_) buildIndex();
    for (uint32_t at = slots_[findSlot(id)]; at != kNone; at = versions_[at].next)
      if (visit(data(at), rsrc(at))) return true;
    return false;
  }

  // Every version: visit(index, data, rsrc); indexes are stable until clear().
  template <class Visit>
  void forEach(Visit visit) const {
    for (uint32_t i = 0; i < versions_.size(); ++i) visit(i, data(i), rsrc(i));
  }
  Extents data(uint32_t index) const { return {extents_.data() + versions_[index].dataAt, versions_[index].dataCount}; }
  Extents rsrc(uint32_t index) const {
    return {extents_.data() + versions_[index].dataAt + versions_[index].dataCount, versions_[index].rsrcCount};
  }

 private:
  static constexpr uint32_t kNone = UINT32_MAX;
  static constexpr size_t kCrowded = 64;
  struct Version {
    uint32_t id;
    uint32_t dataAt, dataCount, rsrcCount;  // the resource fork's follow the data fork's
    uint32_t next;  // the next version of the same ID
  };

  // IDs as they are: a catalog numbers its files mostly in sequence, so
  // neighbouring IDs share cache lines. IDs that crowd one part of the table
  // (a damaged catalog's) switch it to scattered positions.
  size_t findSlot(uint32_t id, size_t* probes = nullptr) const {
    const size_t mask = slots_.size() - 1;
    size_t i = (scattered_ ? static_cast<size_t>((id * 0x9E3779B97F4A7C15ull) >> 32) : id) & mask;
    size_t n = 0;
    for (; slots_[i] != kNone && versions_[slots_[i]].id != id; ++n) i = (i + 1) & mask;
    if (probes) *probes = n;
    return i;
  }
  uint32_t& slotOf(uint32_t id) const {
    size_t probes = 0;
    size_t i = findSlot(id, &probes);
    if (probes > kCrowded && !scattered_) {
      scattered_ = true;
      rebuild(slots_.size());
      i = findSlot(id);
    }
    return slots_[i];
  }
  void rebuild(size_t size) const {
    std::vector<uint32_t> old(size, kNone);
    old.swap(slots_);
    for (uint32_t head : old)
      if (head != kNone) slots_[findSlot(versions_[head].id)] = head;
  }
  // Version `index` into the index, at the end of its ID's chain: versions
  // are seen in the order added.
  void link(uint32_t index) const {
    if ((size_t{index} + 1) * 2 > slots_.size()) rebuild(slots_.empty() ? 1024 : slots_.size() * 2);
    uint32_t& slot = slotOf(versions_[index].id);
    if (slot == kNone) {
      slot = index;
      return;
    }
    uint32_t at = slot;
    while (versions_[at].next != kNone) at = versions_[at].next;
    versions_[at].next = index;
  }
  void buildIndex() const {
    size_t size = 1024;
    while (size < versions_.size() * 2 + 2) size *= 2;
    slots_.assign(size, kNone);
    for (uint32_t i = 0; i < versions_.size(); ++i) link(i);
    indexed_ = true;
  }

  // IDs below kBitIds have a bit each (grown as they come, at most 8 MiB);
  // a file ID above that is rare enough to send every ID there to the index.
  static constexpr uint32_t kBitIds = 1u << 26;
  void noteMet(uint32_t id) {
    if (id >= kBitIds) {
      highIdsMet_ = true;
      return;
    }
    const size_t word = id >> 6;
    if (word >= met_.size()) met_.resize(std::min<size_t>(std::max(word + 1, met_.size() * 2), kBitIds / 64), 0);
    met_[word] |= uint64_t{1} << (id & 63);
  }
  bool mayHaveMet(uint32_t id) const {
    if (id >= kBitIds) return highIdsMet_;
    const size_t word = id >> 6;
    return word < met_.size() && (met_[word] >> (id & 63) & 1);
  }

  std::vector<Extent> extents_;
  // The index is a cache of versions_ (built when first needed), hence mutable.
  mutable std::vector<Version> versions_;
  mutable std::vector<uint32_t> slots_;  // heads of the chains, kNone when empty
  mutable bool indexed_ = false;
  mutable bool scattered_ = false;
  std::vector<uint64_t> met_;  // a bit per ID below kBitIds
  bool highIdsMet_ = false;
};

}  // namespace ambrel
