#include "scaninfo/BinaryPlistCheck.h"

#include <cstring>
#include <vector>

#include <fmt/format.h>

namespace ambrel {
namespace {

constexpr size_t kHeaderSize = 8;
constexpr size_t kTrailerSize = 32;

uint64_t loadBEN(const uint8_t* p, size_t n) {
  uint64_t v = 0;
  for (size_t i = 0; i < n; ++i) v = (v << 8) | p[i];
  return v;
}

struct ObjectInfo {
  uint8_t type = 0;     // high nibble of the marker
  size_t refsAt = 0;    // where the references of a container start
  uint64_t refCount = 0;
};

class Checker {
 public:
  Checker(std::span<const uint8_t> bytes, std::string& error) : b_(bytes), error_(error) {}

  bool run() {
    if (b_.size() < kHeaderSize + kTrailerSize) return fail("too short for a binary property list");
    if (std::memcmp(b_.data(), "bplist0", 7) != 0) return fail("not a binary property list");
    const uint8_t* t = b_.data() + b_.size() - kTrailerSize;
    offsetSize_ = t[6];
    refSize_ = t[7];
    numObjects_ = loadBEN(t + 8, 8);
    topObject_ = loadBEN(t + 16, 8);
    tableOffset_ = loadBEN(t + 24, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8)
      return fail("bad offset or reference size in the trailer");
    const uint64_t tableLimit = b_.size() - kTrailerSize;
    if (tableOffset_ < kHeaderSize || tableOffset_ > tableLimit) return fail("offset table outside the file");
    if (numObjects_ == 0 || numObjects_ > (tableLimit - tableOffset_) / offsetSize_)
      return fail("object count does not fit the offset table");
    if (topObject_ >= numObjects_) return fail("top object out of range");

    objects_.resize(numObjects_);
    for (uint64_t i = 0; i < numObjects_; ++i) {
      uint64_t at = loadBEN(b_.data() + tableOffset_ + i * offsetSize_, offsetSize_);
      if (!parseObject(i, at)) return false;
    }
    return walk();
  }

 private:
  bool fail(const std::string& what) {
    error_ = what;
    return false;
  }

  // Reads a length that follows a 0xF nibble: an integer object of 1 to 8 bytes.
  bool extendedCount(size_t& pos, uint64_t& count) {
    if (pos >= tableOffset_) return false;
    uint8_t m = b_[pos++];
    if ((m >> 4) != 0x1 || (m & 0xF) > 3) return false;
    size_t n = size_t{1} << (m & 0xF);
    if (n > tableOffset_ - pos) return false;
    count = loadBEN(&b_[pos], n);
    pos += n;
    return true;
  }

  bool parseObject(uint64_t index, uint64_t at) {
    if (at < kHeaderSize || at >= tableOffset_) return fail(fmt::format("object {} lies outside the object area", index));
    size_t pos = at;
    uint8_t marker = b_[pos++];
    uint8_t type = marker >> 4, low = marker & 0xF;
    ObjectInfo& info = objects_[index];
    info.type = type;
    uint64_t count = low;
    if ((type == 0x4 || type == 0x5 || type == 0x6 || type == 0xA || type == 0xC || type == 0xD) && low == 0xF) {
      if (!extendedCount(pos, count)) return fail(fmt::format("object {} has a bad length", index));
    }
    const uint64_t room = tableOffset_ - pos;
    uint64_t unit = 1;
    switch (type) {
      case 0x0:
        if (low != 0x0 && low != 0x8 && low != 0x9 && low != 0xF) return fail(fmt::format("object {} has an unknown marker", index));
        count = 0;
        break;
      case 0x1: if (low > 4) return fail(fmt::format("object {} is an integer of bad size", index)); count = uint64_t{1} << low; break;
      case 0x2: if (low != 2 && low != 3) return fail(fmt::format("object {} is a real of bad size", index)); count = uint64_t{1} << low; break;
      case 0x3: if (low != 3) return fail(fmt::format("object {} is a date of bad size", index)); count = 8; break;
      case 0x4: case 0x5: break;
      case 0x6: unit = 2; break;
      case 0x8: if (low > 7) return fail(fmt::format("object {} is a UID of bad size", index)); count = uint64_t{low} + 1; break;
      case 0xA: case 0xC: unit = refSize_; break;
      case 0xD: unit = refSize_; if (count > room / 2) return fail(fmt::format("object {} runs past the object area", index)); count *= 2; break;
      default: return fail(fmt::format("object {} has an unknown type", index));
    }
    if (count > room / unit) return fail(fmt::format("object {} runs past the object area", index));
    if (type == 0xA || type == 0xC || type == 0xD) {
      info.refsAt = pos;
      info.refCount = count;
    }
    return true;
  }

  uint64_t ref(const ObjectInfo& info, uint64_t k) const {
    return loadBEN(&b_[info.refsAt + k * refSize_], refSize_);
  }

  // Depth-first from the top object: every reference in range, no cycle, a
  // bounded depth, and the size of the tree the reader would build bounded by
  // the file's length (shared children count once per reference).
  bool walk() {
    const uint64_t budget = b_.size();
    std::vector<uint8_t> state(numObjects_, 0);  // 0 new, 1 on the path, 2 done
    std::vector<uint64_t> expanded(numObjects_, 0);
    struct Frame { uint64_t object; uint64_t next; uint64_t size; };
    std::vector<Frame> stack;
    stack.push_back({topObject_, 0, 1});
    state[topObject_] = 1;
    while (!stack.empty()) {
      Frame& f = stack.back();
      const ObjectInfo& info = objects_[f.object];
      if (f.next < info.refCount) {
        uint64_t k = f.next++;
        uint64_t child = ref(info, k);
        if (child >= numObjects_) return fail(fmt::format("object {} refers to a missing object", f.object));
        if (info.type == 0xD && k < info.refCount / 2) {
          uint8_t kt = objects_[child].type;
          if (kt != 0x5 && kt != 0x6) return fail(fmt::format("object {} has a key that is not a string", f.object));
        }
        if (state[child] == 1) return fail("object references form a loop");
        if (state[child] == 2) {
          f.size += expanded[child];
          if (f.size > budget) return fail("shared objects expand beyond the file's size");
          continue;
        }
        if (stack.size() >= kMaxBinaryPlistDepth) return fail("objects nested too deeply");
        state[child] = 1;
        stack.push_back({child, 0, 1});
        continue;
      }
      uint64_t done = f.object, size = f.size;
      state[done] = 2;
      expanded[done] = size;
      stack.pop_back();
      if (!stack.empty()) {
        stack.back().size += size;
        if (stack.back().size > budget) return fail("shared objects expand beyond the file's size");
      }
    }
    return true;
  }

  std::span<const uint8_t> b_;
  std::string& error_;
  uint8_t offsetSize_ = 0, refSize_ = 0;
  uint64_t numObjects_ = 0, topObject_ = 0, tableOffset_ = 0;
  std::vector<ObjectInfo> objects_;
};

}  // namespace

bool checkBinaryPlist(std::span<const uint8_t> bytes, std::string& error) {
  return Checker(bytes, error).run();
}

}  // namespace ambrel
