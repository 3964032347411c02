#pragma once
// An entry's name in 24 bytes: up to 23 bytes kept inline (most file names),
// longer ones on the heap. A tree holds millions of names; std::string costs
// 32 bytes each and an allocation from the 16th byte on.
#include <cstdint>
#include <cstring>
#include <string_view>

namespace ambrel {

class EntryName {
 public:
  EntryName() = default;
  explicit EntryName(std::string_view s) { set(s); }
  EntryName(const EntryName& other) { set(other.view()); }
  EntryName(EntryName&& other) noexcept {
    std::memcpy(bytes_, other.bytes_, sizeof bytes_);
    other.bytes_[kTag] = 0;
  }
  EntryName& operator=(const EntryName& other) {
    if (this != &other) set(other.view());
    return *this;
  }
  EntryName& operator=(EntryName&& other) noexcept {
    if (this != &other) {
      release();
      std::memcpy(bytes_, other.bytes_, sizeof bytes_);
      other.bytes_[kTag] = 0;
    }
    return *this;
  }
  ~EntryName() { release(); }

  std::string_view view() const {
    const uint8_t tag = static_cast<uint8_t>(bytes_[kTag]);
    return tag == kHeap ? std::string_view(heapPtr(), heapSize()) : std::string_view(bytes_, tag);
  }
  // `s` may point into this name: the new bytes are in place before the old go.
  void set(std::string_view s) {
    if (s.size() <= kInline) {
      char copy[kInline];
      std::memcpy(copy, s.data(), s.size());
      release();
      std::memcpy(bytes_, copy, s.size());
      bytes_[kTag] = static_cast<char>(s.size());
    } else {
      char* p = new char[s.size()];
      std::memcpy(p, s.data(), s.size());
      release();
      const uint32_t size = static_cast<uint32_t>(s.size());
      std::memcpy(bytes_, &p, sizeof p);
      std::memcpy(bytes_ + sizeof p, &size, sizeof size);
      bytes_[kTag] = static_cast<char>(kHeap);
    }
  }

 private:
  static constexpr size_t kInline = 23;
  static constexpr size_t kTag = 23;
  static constexpr uint8_t kHeap = 0xFF;
  char* heapPtr() const {
    char* p;
    std::memcpy(&p, bytes_, sizeof p);
    return p;
  }
  uint32_t heapSize() const {
    uint32_t n;
    std::memcpy(&n, bytes_ + sizeof(char*), sizeof n);
    return n;
  }
  void release() {
    if (static_cast<uint8_t>(bytes_[kTag]) == kHeap) delete[] heapPtr();
    bytes_[kTag] = 0;
  }
  // Inline: the bytes, the length in the last. Heap: pointer and size first,
  // kHeap in the last.
  alignas(8) char bytes_[24] = {};
};

}  // namespace ambrel
