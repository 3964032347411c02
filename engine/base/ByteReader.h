#pragma once
// A bounded cursor over a byte span: reads fail instead of running past the end.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "base/Endian.h"

namespace ambrel {

class ByteReader {
 public:
  explicit ByteReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

  size_t size() const { return bytes_.size(); }
  size_t offset() const { return offset_; }
  size_t remaining() const { return bytes_.size() - offset_; }

  // True when [offset, offset + length) lies inside the span; overflow-safe.
  bool has(size_t offset, size_t length) const {
    return offset <= bytes_.size() && length <= bytes_.size() - offset;
  }
  bool seek(size_t offset) {
    if (offset > bytes_.size()) return false;
    offset_ = offset;
    return true;
  }
  bool skip(size_t length) {
    if (!has(offset_, length)) return false;
    offset_ += length;
    return true;
  }

  std::optional<uint8_t> u8() { return take<uint8_t>(1, [](const uint8_t* p) { return *p; }); }
  std::optional<uint16_t> be16() { return take<uint16_t>(2, [](const uint8_t* p) { return loadBE16(p); }); }
  std::optional<uint32_t> be32() { return take<uint32_t>(4, [](const uint8_t* p) { return loadBE32(p); }); }
  std::optional<uint64_t> be64() { return take<uint64_t>(8, [](const uint8_t* p) { return loadBE64(p); }); }
  std::optional<uint16_t> le16() { return take<uint16_t>(2, [](const uint8_t* p) { return loadLE16(p); }); }
  std::optional<uint32_t> le32() { return take<uint32_t>(4, [](const uint8_t* p) { return loadLE32(p); }); }
  std::optional<uint64_t> le64() { return take<uint64_t>(8, [](const uint8_t* p) { return loadLE64(p); }); }

  std::optional<std::span<const uint8_t>> bytes(size_t length) {
    if (!has(offset_, length)) return std::nullopt;
    auto out = bytes_.subspan(offset_, length);
    offset_ += length;
    return out;
  }

  // Random access without moving the cursor.
  std::optional<uint16_t> peekBE16(size_t at) const { return has(at, 2) ? std::optional(loadBE16(&bytes_[at])) : std::nullopt; }
  std::optional<uint32_t> peekBE32(size_t at) const { return has(at, 4) ? std::optional(loadBE32(&bytes_[at])) : std::nullopt; }
  std::optional<uint64_t> peekBE64(size_t at) const { return has(at, 8) ? std::optional(loadBE64(&bytes_[at])) : std::nullopt; }
  std::optional<uint32_t> peekLE32(size_t at) const { return has(at, 4) ? std::optional(loadLE32(&bytes_[at])) : std::nullopt; }

 private:
  template <class T, class F>
  std::optional<T> take(size_t n, F load) {
    if (!has(offset_, n)) return std::nullopt;
    T v = load(&bytes_[offset_]);
    offset_ += n;
    return v;
  }

  std::span<const uint8_t> bytes_;
  size_t offset_ = 0;
};

}  // namespace ambrel
