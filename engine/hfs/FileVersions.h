#pragma once
// The files the scans have met, by ID, with where their forks lie: several
// versions per ID at most in a damaged or journaled catalog, one almost
// always. Kept flat (every extent in one array, an open-addressed index of
// IDs) because a scan notes each of millions of files: a map node and two
// vectors per file cost more time and memory than the file's own entry.
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
    scattered_ = false;
  }
  bool empty() const { return versions_.empty(); }

  void add(uint32_t id, Extents data, Extents rsrc) {
    if ((versions_.size() + 1) * 2 > slots_.size()) grow();
    Version v{id, static_cast<uint32_t>(extents_.size()), static_cast<uint32_t>(data.size()),
              static_cast<uint32_t>(rsrc.size()), kNone};
    extents_.insert(extents_.end(), data.begin(), data.end());
    extents_.insert(extents_.end(), rsrc.begin(), rsrc.end());
    const uint32_t index = static_cast<uint32_t>(versions_.size());
    uint32_t& slot = slotOf(id);
    if (slot == kNone) {
      slot = index;
    } else {
      // Appended at the end of the chain: versions are seen in the order met.
      uint32_t at = slot;
      while (versions_[at].next != kNone) at = versions_[at].next;
      versions_[at].next = index;
    }
    versions_.push_back(v);
  }

  // visit(data, rsrc) for each version of `id` in the order added, until it returns true.
  template <class Visit>
  bool anyOf(uint32_t id, Visit visit) const {
    if (slots_.empty()) return false;
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
  uint32_t& slotOf(uint32_t id) {
    size_t probes = 0;
    size_t i = findSlot(id, &probes);
    if (probes > kCrowded && !scattered_) {
      scattered_ = true;
      rebuild(slots_.size());
      i = findSlot(id);
    }
    return slots_[i];
  }
  void grow() { rebuild(slots_.empty() ? 1024 : slots_.size() * 2); }
  void rebuild(size_t size) {
    std::vector<uint32_t> old(size, kNone);
    old.swap(slots_);
    for (uint32_t head : old)
      if (head != kNone) slots_[findSlot(versions_[head].id)] = head;
  }

  std::vector<Extent> extents_;
  std::vector<Version> versions_;
  std::vector<uint32_t> slots_;  // heads of the chains, kNone when empty
  bool scattered_ = false;
};

}  // namespace ambrel
