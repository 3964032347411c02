#include "scaninfo/ScanInfoIo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/Endian.h"
#include "base/ReadOnlyFile.h"

namespace ambrel::scaninfo {

void appendUtf16(std::string_view s, std::vector<uint16_t>& out) {
  size_t i = 0;
  while (i < s.size()) {
    uint32_t c = static_cast<uint8_t>(s[i]);
    size_t n = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
    uint32_t cp = 0xFFFD;
    size_t used = 1;
    if (n == 1) {
      cp = c;
    } else if (n > 1 && i + n <= s.size()) {
      uint32_t v = c & (0x7F >> n);
      bool ok = true;
      for (size_t k = 1; k < n; ++k) {
        uint8_t b = static_cast<uint8_t>(s[i + k]);
        if ((b & 0xC0) != 0x80) { ok = false; break; }
        v = (v << 6) | (b & 0x3F);
      }
      static constexpr uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
      if (ok && v >= kMin[n] && v <= 0x10FFFF && !(v >= 0xD800 && v <= 0xDFFF)) {
        cp = v;
        used = n;
      }
    }
    i += used;
    if (cp >= 0x10000) {
      if (out.size() + 2 > kMaxNameUnits) break;
      cp -= 0x10000;
      out.push_back(static_cast<uint16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<uint16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      if (out.size() + 1 > kMaxNameUnits) break;
      out.push_back(static_cast<uint16_t>(cp));
    }
  }
}

std::string utf8FromUtf16BE(const uint8_t* p, size_t units) {
  std::string out;
  out.reserve(units);
  for (size_t i = 0; i < units; ++i) {
    uint32_t c = loadBE16(p + 2 * i);
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < units) {
      uint32_t d = loadBE16(p + 2 * (i + 1));
      if (d >= 0xDC00 && d <= 0xDFFF) {
        c = 0x10000 + ((c - 0xD800) << 10) + (d - 0xDC00);
        ++i;
      } else {
        c = 0xFFFD;
      }
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = 0xFFFD;
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

FileWriter::FileWriter(int fd) : fd_(fd) {
  if (fd_ < 0) error_ = EBADF;
  buf_.reserve(kIoBuffer);
}

FileWriter::~FileWriter() {
  if (fd_ >= 0) ::close(fd_);
}

void FileWriter::put(const void* p, size_t n) {
  const uint8_t* b = static_cast<const uint8_t*>(p);
  if (buf_.size() + n > kIoBuffer) flush();
  if (n > kIoBuffer) {
    writeAll(b, n);
    return;
  }
  buf_.insert(buf_.end(), b, b + n);
}

void FileWriter::putBE32(uint32_t v) {
  uint8_t b[4];
  storeBE32(b, v);
  put(b, 4);
}

void FileWriter::flush() {
  if (!buf_.empty()) writeAll(buf_.data(), buf_.size());
  buf_.clear();
}

void FileWriter::rewrite(uint64_t at, const std::vector<uint8_t>& bytes) {
  flush();
  size_t done = 0;
  while (ok() && done < bytes.size()) {
    ssize_t w = ::pwrite(fd_, bytes.data() + done, bytes.size() - done, static_cast<off_t>(at + done));
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) error_ = w < 0 ? errno : EIO;
    else done += static_cast<size_t>(w);
  }
}

bool FileWriter::close() {
  flush();
  if (fd_ >= 0 && ::close(fd_) != 0 && ok()) error_ = errno;
  fd_ = -1;
  return ok();
}

void FileWriter::writeAll(const uint8_t* p, size_t n) {
  while (ok() && n > 0) {
    ssize_t w = ::write(fd_, p, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) {
      error_ = w < 0 ? errno : EIO;
      return;
    }
    p += w;
    n -= static_cast<size_t>(w);
  }
}

FileReader::FileReader(const std::string& path) {
  // Never blocks: a named pipe or the like is refused, not waited on.
  const ReadOnlyFile f = openReadOnlyFile(path, false);
  if (f.wrongKind) wrongKind_ = f.st.st_mode;
  fd_ = f.fd;
  if (fd_ < 0) {
    error_ = f.wrongKind ? EINVAL : f.error;
    return;
  }
  size_ = static_cast<uint64_t>(f.st.st_size);
  buf_.resize(static_cast<size_t>(std::min<uint64_t>(kIoBuffer, std::max<uint64_t>(size_, 1))));
}

FileReader::~FileReader() {
  if (fd_ >= 0) ::close(fd_);
}

bool FileReader::seek(uint64_t at) {
  if (at > size_) return false;
  position_ = at;
  begin_ = end_ = 0;
  return true;
}

bool FileReader::read(void* dst, size_t n) {
  if (n > remaining()) return false;
  uint8_t* out = static_cast<uint8_t*>(dst);
  while (n > 0) {
    if (begin_ == end_ && !fill()) return false;
    size_t take = std::min(n, end_ - begin_);
    std::memcpy(out, buf_.data() + begin_, take);
    begin_ += take;
    out += take;
    n -= take;
    position_ += take;
  }
  return true;
}

bool FileReader::readBE32(uint32_t& v) {
  uint8_t b[4];
  if (!read(b, 4)) return false;
  v = loadBE32(b);
  return true;
}

bool FileReader::skip(uint64_t n) {
  if (n > remaining()) return false;
  if (n <= end_ - begin_) {
    begin_ += static_cast<size_t>(n);
    position_ += n;
    return true;
  }
  return seek(position_ + n);
}

bool FileReader::fill() {
  for (;;) {
    ssize_t r = ::pread(fd_, buf_.data(), buf_.size(), static_cast<off_t>(position_));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) {
      if (r < 0) error_ = errno;
      return false;
    }
    begin_ = 0;
    end_ = static_cast<size_t>(r);
    return true;
  }
}

}  // namespace ambrel::scaninfo
