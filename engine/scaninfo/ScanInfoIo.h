#pragma once
#include <sys/types.h>
// The byte-level pieces under scan info files: UTF-16 names, a buffered
// writer and a bounded reader over one descriptor. Internal to scaninfo/.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ambrel::scaninfo {

inline constexpr size_t kIoBuffer = 1 << 20;
// A name or path field holds at most this many UTF-16 units.
inline constexpr size_t kMaxNameUnits = 0xFFFF;

// Appends `s` (UTF-8) to `out` as UTF-16 code units, stopping before `out`
// would exceed kMaxNameUnits (never splitting a surrogate pair). Bytes that
// are not UTF-8 become U+FFFD.
void appendUtf16(std::string_view s, std::vector<uint16_t>& out);

// Big-endian UTF-16 to UTF-8; an unpaired surrogate becomes U+FFFD.
std::string utf8FromUtf16BE(const uint8_t* p, size_t units);

// Buffered writes to a descriptor it owns. The first error sticks: later
// calls do nothing and ok() stays false.
class FileWriter {
 public:
  explicit FileWriter(int fd);
  ~FileWriter();
  FileWriter(const FileWriter&) = delete;
  FileWriter& operator=(const FileWriter&) = delete;

  bool ok() const { return error_ == 0; }
  int error() const { return error_; }

  void put(const void* p, size_t n);
  void putBE32(uint32_t v);
  void flush();
  // Rewrites bytes already flushed, at an absolute offset.
  void rewrite(uint64_t at, const std::vector<uint8_t>& bytes);
  // Flushes and closes; false (with error()) when anything failed.
  bool close();

 private:
  void writeAll(const uint8_t* p, size_t n);

  int fd_ = -1;
  int error_ = 0;
  std::vector<uint8_t> buf_;
};

// Reads of exact sizes that never go past the file's end as it was when
// opened.
class FileReader {
 public:
  explicit FileReader(const std::string& path);
  ~FileReader();
  FileReader(const FileReader&) = delete;
  FileReader& operator=(const FileReader&) = delete;

  bool isOpen() const { return fd_ >= 0 && error_ == 0; }
  int error() const { return error_; }
  // The kind of file refused (a named pipe, a folder, ...), 0 when none was.
  mode_t wrongKind() const { return wrongKind_; }
  uint64_t size() const { return size_; }
  uint64_t position() const { return position_; }
  uint64_t remaining() const { return size_ > position_ ? size_ - position_ : 0; }

  bool seek(uint64_t at);
  // Exactly n bytes, or false (the file ends or a read fails).
  bool read(void* dst, size_t n);
  bool readBE32(uint32_t& v);
  // Passes over n bytes; false when fewer remain.
  bool skip(uint64_t n);

 private:
  bool fill();

  int fd_ = -1;
  int error_ = 0;
  mode_t wrongKind_ = 0;
  uint64_t size_ = 0;
  uint64_t position_ = 0;
  std::vector<uint8_t> buf_;
  size_t begin_ = 0, end_ = 0;
};

// Creates a new file beside `target` under a hidden temporary name (mode
// 0644 less the umask) and gives its descriptor, or -1 with errno set.
int createTemporaryBeside(const std::string& target, std::string& tempPath);

}  // namespace ambrel::scaninfo
