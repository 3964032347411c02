#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>

#include "media/NodeChecks.h"
#include "Internal.h"

namespace ambrel::mkimage {

ImageFile::ImageFile(const std::filesystem::path& path, uint64_t sizeBytes) : size_(sizeBytes) {
  fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd_ < 0) throw BuildError("cannot create " + path.string() + ": " + std::strerror(errno));
  if (::ftruncate(fd_, static_cast<off_t>(sizeBytes)) != 0) {
    ::close(fd_);
    throw BuildError("cannot size " + path.string() + ": " + std::strerror(errno));
  }
}

ImageFile::~ImageFile() {
  if (fd_ >= 0) ::close(fd_);
}

void ImageFile::write(uint64_t offset, const void* data, size_t size) {
  if (offset + size > size_ || offset + size < offset) throw BuildError("write beyond the end of the image");
  const auto* p = static_cast<const uint8_t*>(data);
  while (size > 0) {
    ssize_t n = ::pwrite(fd_, p, size, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw BuildError(std::string("image write failed: ") + std::strerror(errno));
    p += n;
    offset += static_cast<uint64_t>(n);
    size -= static_cast<size_t>(n);
  }
}

void ImageFile::zero(uint64_t offset, size_t size) {
  static const std::vector<uint8_t> zeros(1 << 16);
  while (size > 0) {
    size_t n = std::min(size, zeros.size());
    write(offset, zeros.data(), n);
    offset += n;
    size -= n;
  }
}

void ImageFile::read(uint64_t offset, void* data, size_t size) const {
  auto* p = static_cast<uint8_t*>(data);
  while (size > 0) {
    ssize_t n = ::pread(fd_, p, size, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw BuildError("image read failed");
    p += n;
    offset += static_cast<uint64_t>(n);
    size -= static_cast<size_t>(n);
  }
}

void ImageFile::truncate(uint64_t sizeBytes) {
  if (::ftruncate(fd_, static_cast<off_t>(sizeBytes)) != 0) throw BuildError("cannot truncate the image");
  size_ = sizeBytes;
}

std::u16string utf8ToUtf16(const std::string& s) {
  std::u16string out;
  for (size_t i = 0; i < s.size();) {
    auto c = static_cast<uint8_t>(s[i]);
    uint32_t cp;
    size_t len;
    if (c < 0x80) { cp = c; len = 1; }
    else if ((c & 0xE0) == 0xC0) { cp = c & 0x1F; len = 2; }
    else if ((c & 0xF0) == 0xE0) { cp = c & 0x0F; len = 3; }
    else if ((c & 0xF8) == 0xF0) { cp = c & 0x07; len = 4; }
    else throw BuildError("name is not UTF-8: " + s);
    if (i + len > s.size()) throw BuildError("name is not UTF-8: " + s);
    for (size_t k = 1; k < len; ++k) {
      auto cc = static_cast<uint8_t>(s[i + k]);
      if ((cc & 0xC0) != 0x80) throw BuildError("name is not UTF-8: " + s);
      cp = (cp << 6) | (cc & 0x3F);
    }
    i += len;
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
  }
  return out;
}

// Host-order UTF-16 is little-endian here; the engine's decoder does the rest.
std::string utf16ToUtf8(const std::u16string& s) {
  return utf16LittleToUtf8(reinterpret_cast<const uint8_t*>(s.data()), s.size());
}

std::u16string foldCase(const std::u16string& s) {
  std::u16string out(s);
  for (auto& c : out) {
    if (c == 0) c = 0xFFFF;  // HFS+ sorts the null character last
    else if (c >= u'A' && c <= u'Z') c = static_cast<char16_t>(c + 0x20);
    else if (c >= 0xC0 && c <= 0xDE && c != 0xD7) c = static_cast<char16_t>(c + 0x20);
    else if (c >= 0x391 && c <= 0x3A9 && c != 0x3A2) c = static_cast<char16_t>(c + 0x20);
    else if (c >= 0x410 && c <= 0x42F) c = static_cast<char16_t>(c + 0x20);
    else if (c >= 0x400 && c <= 0x40F) c = static_cast<char16_t>(c + 0x50);
  }
  return out;
}

int compareUnits(const std::u16string& a, const std::u16string& b) {
  size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i)
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
  return a.size() < b.size() ? -1 : (a.size() > b.size() ? 1 : 0);
}

uint32_t crc32Of(const uint8_t* data, size_t size) {
  return static_cast<uint32_t>(::crc32(::crc32(0L, Z_NULL, 0), data, static_cast<uInt>(size)));
}

uint64_t splitmix64(uint64_t& state) {
  uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

void generatedBytes(uint64_t seed, uint64_t offset, uint8_t* out, size_t size) {
  // Each 8-byte word is a hash of (seed, word index), so any range can be
  // produced without the bytes before it.
  uint64_t word = offset / 8;
  size_t skip = offset % 8;
  size_t done = 0;
  while (done < size) {
    uint64_t state = seed * 0x100000001B3ULL + word;
    uint64_t v = splitmix64(state);
    uint8_t bytes[8];
    std::memcpy(bytes, &v, 8);
    size_t n = std::min<size_t>(8 - skip, size - done);
    std::memcpy(out + done, bytes + skip, n);
    done += n;
    skip = 0;
    ++word;
  }
}

std::vector<uint8_t> generatedBytes(uint64_t seed, uint64_t size) {
  std::vector<uint8_t> out(size);
  generatedBytes(seed, 0, out.data(), out.size());
  return out;
}

const FileLayout* VolumeLayout::find(const std::string& path) const {
  for (const auto& e : entries)
    if (e.path == path) return &e;
  return nullptr;
}

}  // namespace ambrel::mkimage
