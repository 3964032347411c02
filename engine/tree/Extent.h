#pragma once
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <span>
#include <vector>

namespace ambrel {

// One run of allocation blocks of a fork.
struct Extent {
  uint32_t startBlock = 0;
  uint32_t blockCount = 0;

  bool operator==(const Extent&) const = default;
};

// The extents of one fork of an entry. Nearly every fork has a single
// extent, and a tree holds millions of entries: one extent is kept inline,
// more go to the heap. 16 bytes where a vector costs 24 and an allocation.
class ExtentList {
 public:
  using value_type = Extent;
  using iterator = Extent*;
  using const_iterator = const Extent*;

  ExtentList() = default;
  ExtentList(std::span<const Extent> from) { assign(from); }  // NOLINT: lists and vectors convert freely
  ExtentList(const std::vector<Extent>& from) { assign(from); }  // NOLINT
  ExtentList(std::initializer_list<Extent> from) { assign({from.begin(), from.size()}); }
  ExtentList(const ExtentList& other) { assign(other); }
  ExtentList(ExtentList&& other) noexcept { take(other); }
  ExtentList& operator=(const ExtentList& other) {
    if (this != &other) assign(other);
    return *this;
  }
  ExtentList& operator=(ExtentList&& other) noexcept {
    if (this != &other) {
      release();
      take(other);
    }
    return *this;
  }
  ExtentList& operator=(std::span<const Extent> from) {
    assign(from);
    return *this;
  }
  ExtentList& operator=(const std::vector<Extent>& from) {
    assign(from);
    return *this;
  }
  ExtentList& operator=(std::initializer_list<Extent> from) {
    assign({from.begin(), from.size()});
    return *this;
  }
  ~ExtentList() { release(); }

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  Extent* data() { return capacity_ ? many_ : &one_; }
  const Extent* data() const { return capacity_ ? many_ : &one_; }
  Extent* begin() { return data(); }
  Extent* end() { return data() + size_; }
  const Extent* begin() const { return data(); }
  const Extent* end() const { return data() + size_; }
  Extent& operator[](size_t i) { return data()[i]; }
  const Extent& operator[](size_t i) const { return data()[i]; }
  const Extent& front() const { return data()[0]; }
  const Extent& back() const { return data()[size_ - 1]; }
  operator std::span<const Extent>() const { return {data(), size_}; }  // NOLINT
  std::vector<Extent> toVector() const { return {begin(), end()}; }

  void push_back(const Extent& e) {
    if (size_ == capacityOf()) grow(size_ + 1);
    data()[size_++] = e;
  }
  void clear() { size_ = 0; }
  void reserve(size_t n) {
    if (n > capacityOf()) grow(n);
  }
  // Shrinking keeps the storage; growing fills with empty extents.
  void resize(size_t n) {
    if (n > capacityOf()) grow(n);
    for (size_t i = size_; i < n; ++i) data()[i] = Extent{};
    size_ = static_cast<uint32_t>(n);
  }

  friend bool operator==(const ExtentList& a, const ExtentList& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
  }
  friend bool operator==(const ExtentList& a, const std::vector<Extent>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
  }

 private:
  size_t capacityOf() const { return capacity_ ? capacity_ : 1; }
  void assign(std::span<const Extent> from) {
    // `from` may lie inside this list's own storage only when it is this list.
    if (from.size() > capacityOf()) {
      release();
      grow(from.size());
    }
    std::copy(from.begin(), from.end(), data());
    size_ = static_cast<uint32_t>(from.size());
  }
  void grow(size_t wanted) {
    const size_t cap = std::max<size_t>(wanted, capacityOf() * 2);
    auto* fresh = new Extent[cap];
    std::copy(begin(), end(), fresh);
    const uint32_t kept = size_;
    release();
    many_ = fresh;
    size_ = kept;
    capacity_ = static_cast<uint32_t>(cap);
  }
  void release() {
    if (capacity_) delete[] many_;
    capacity_ = 0;
    size_ = 0;
    one_ = Extent{};
  }
  void take(ExtentList& other) {
    size_ = other.size_;
    capacity_ = other.capacity_;
    if (capacity_) many_ = other.many_;
    else one_ = other.one_;
    other.capacity_ = 0;
    other.size_ = 0;
    other.one_ = Extent{};
  }

  union {
    Extent one_{};
    Extent* many_;
  };
  uint32_t size_ = 0;
  uint32_t capacity_ = 0;  // 0: the one inline extent
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
