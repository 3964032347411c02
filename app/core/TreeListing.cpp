#include "core/TreeListing.h"

#include <fmt/format.h>

#include <charconv>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <cstring>
#include <vector>

#include "base/PlistValue.h"
#include "base/Text.h"
#include "tree/Links.h"

namespace ambrel {

namespace {

constexpr int64_t kHfsToUnix = 2082844800;

const char* const kColumns[] = {"path",     "type",      "fileID",  "parentID", "fileSize",    "dataSize",  "rscSize",
                                "fileCount", "created", "modified", "dataExtents", "rscExtents", "confidence"};

// Rows gather in a buffer written to the stream 1 MiB at a time, by a
// thread of its own: the next rows are formatted while the kernel copies
// the last ones. Each row first makes sure of the room it may need, so its
// cells are put without a check each.
class RowBuffer {
 public:
  explicit RowBuffer(std::FILE* out) : out_(out), buf_(new char[kCapacity]), at_(buf_.get()) {}
  ~RowBuffer() {
    flush();
    if (writer_.joinable()) {
      {
        std::lock_guard lock(mutex_);
        done_ = true;
      }
      wake_.notify_all();
      writer_.join();
    }
  }

  // Room for `bytes` more before the next flush; rows longer than the
  // buffer (a name of thousands of characters) grow it.
  void reserve(size_t bytes) {
    if (static_cast<size_t>(buf_.get() + capacity_ - at_) >= bytes) return;
    if (at_ - buf_.get() >= static_cast<ptrdiff_t>(kFlushAt)) flush();
    const size_t used = static_cast<size_t>(at_ - buf_.get());
    if (capacity_ - used >= bytes) return;
    capacity_ = used + bytes + kCapacity;
    std::unique_ptr<char[]> bigger(new char[capacity_]);
    std::memcpy(bigger.get(), buf_.get(), used);
    buf_ = std::move(bigger);
    at_ = buf_.get() + used;
  }
  void endRow() {
    if (at_ - buf_.get() >= static_cast<ptrdiff_t>(kFlushAt)) flush();
  }
  char*& cursor() { return at_; }
  void put(char c) { *at_++ = c; }
  template <size_t N>
  void put(const char (&text)[N]) {
    std::memcpy(at_, text, N - 1);
    at_ += N - 1;
  }
  void put(std::string_view s) {
    std::memcpy(at_, s.data(), s.size());
    at_ += s.size();
  }
  template <class Int>
  void number(Int n) {
    at_ = std::to_chars(at_, at_ + 24, n).ptr;
  }
  // "YYYY-MM-DDTHH:MM:SSZ" of an HFS date; nothing for 0.
  void date(uint32_t hfsSeconds) {
    if (hfsSeconds == 0) return;
    hfsDateChars(hfsSeconds, at_);
    at_ += 20;
  }
  // Room extents() needs.
  static size_t extentsBytes(std::span<const Extent> extents) { return extents.size() * 24; }
  void extents(std::span<const Extent> extents) {
    for (size_t i = 0; i < extents.size(); ++i) {
      if (i) put(',');
      number(extents[i].startBlock);
      put('+');
      number(extents[i].blockCount);
    }
  }

  // Writes a date as 20 characters.
  static void hfsDateChars(uint32_t hfsSeconds, char* p) {
    const int64_t t = int64_t{hfsSeconds} - kHfsToUnix;
    int64_t days = t / 86400, secs = t % 86400;
    if (secs < 0) {
      secs += 86400;
      --days;
    }
    // Days since 1970-01-01 to a proleptic Gregorian date, by 400-year eras.
    const int64_t z = days + 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const int64_t doe = z - era * 146097;
    const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const int64_t mp = (5 * doy + 2) / 153;
    const int64_t day = doy - (153 * mp + 2) / 5 + 1;
    const int64_t month = mp < 10 ? mp + 3 : mp - 9;
    const int64_t year = yoe + era * 400 + (month <= 2);
    auto two = [](char* at, int64_t v) {
      at[0] = static_cast<char>('0' + v / 10);
      at[1] = static_cast<char>('0' + v % 10);
    };
    two(p, year / 100);
    two(p + 2, year % 100);
    p[4] = '-';
    two(p + 5, month);
    p[7] = '-';
    two(p + 8, day);
    p[10] = 'T';
    two(p + 11, secs / 3600);
    p[13] = ':';
    two(p + 14, secs / 60 % 60);
    p[16] = ':';
    two(p + 17, secs % 60);
    p[19] = 'Z';
  }

  // Hands what is gathered to the writer and goes on in the other buffer.
  void flush() {
    const size_t used = static_cast<size_t>(at_ - buf_.get());
    if (used == 0) return;
    std::unique_lock lock(mutex_);
    wake_.wait(lock, [&] { return !pending_; });
    std::swap(buf_, spare_);
    std::swap(capacity_, spareCapacity_);
    if (!buf_) {
      buf_.reset(new char[kCapacity]);
      capacity_ = kCapacity;
    }
    pendingBytes_ = used;
    pending_ = true;
    if (!writer_.joinable()) writer_ = std::thread([this] { writeLoop(); });
    lock.unlock();
    wake_.notify_all();
    at_ = buf_.get();
  }

 private:
  static constexpr size_t kFlushAt = size_t{1} << 20;
  static constexpr size_t kCapacity = kFlushAt + 64 * 1024;

  void writeLoop() {
    std::unique_lock lock(mutex_);
    for (;;) {
      wake_.wait(lock, [&] { return pending_ || done_; });
      if (!pending_) return;
      const char* data = spare_.get();
      const size_t n = pendingBytes_;
      lock.unlock();
      std::fwrite(data, 1, n, out_);
      lock.lock();
      pending_ = false;
      wake_.notify_all();
    }
  }

  std::FILE* out_;
  std::unique_ptr<char[]> buf_;
  size_t capacity_ = kCapacity;
  char* at_;
  // The buffer the writer has or had last; empty until the first flush.
  std::unique_ptr<char[]> spare_;
  size_t spareCapacity_ = 0;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::thread writer_;
  size_t pendingBytes_ = 0;
  bool pending_ = false;
  bool done_ = false;
};

// What putEscaped may make of `bytes` bytes at most ("\u00xx" for one byte).
constexpr size_t escapedBytes(size_t bytes) { return 6 * bytes; }

// TSV cells cannot hold tabs or line breaks, and a listing must not carry a
// name's control characters to a terminal: those are escaped, and so is the
// backslash that starts an escape (as escapedControls). JSON strings escape
// as jsonQuote. Both first make the text valid UTF-8, each bad byte U+FFFD;
// done here in one pass without a string per cell. A path's parts are
// escaped one by one: "/" ends any UTF-8 sequence, so it comes out the same.
// `out` has room for escapedBytes(text.size()).
char* putEscaped(char* out, std::string_view text, bool json) {
  static constexpr char kHex[] = "0123456789abcdef";
  auto plain = [json](unsigned char c) { return c >= 0x20 && c < 0x7F && c != '\\' && !(json && c == '"'); };
  for (size_t i = 0; i < text.size();) {
    // Most names are plain text: copied in runs.
    size_t run = i;
    while (run < text.size() && plain(static_cast<unsigned char>(text[run]))) ++run;
    if (run > i) {
      std::memcpy(out, text.data() + i, run - i);
      out += run - i;
      i = run;
      if (i == text.size()) break;
    }
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x80) {
      const size_t n = utf8SequenceLength(text.substr(i));
      if (n == 0) {
        std::memcpy(out, "\xEF\xBF\xBD", 3);
        out += 3;
        ++i;
        continue;
      }
      // U+0080 to U+009F, which some terminals take as commands.
      const auto next = static_cast<unsigned char>(text[i + 1]);
      if (!json && c == 0xC2 && next < 0xA0) {
        std::memcpy(out, "\\u00", 4);
        out[4] = kHex[next >> 4];
        out[5] = kHex[next & 15];
        out += 6;
      } else {
        std::memcpy(out, text.data() + i, n);
        out += n;
      }
      i += n;
      continue;
    }
    ++i;
    const char* escape = c == '\t' ? "\\t" : c == '\n' ? "\\n" : c == '\r' ? "\\r" : c == '\\' ? "\\\\" : c == '"' ? "\\\"" : nullptr;
    if (escape) {
      out[0] = escape[0];
      out[1] = escape[1];
      out += 2;
    } else {
      std::memcpy(out, json ? "\\u00" : "\\x", json ? 4 : 2);
      out += json ? 4 : 2;
      *out++ = kHex[c >> 4];
      *out++ = kHex[c & 15];
    }
  }
  return out;
}

// The rows of one folder share its path: escaped once for all of them.
class PathCells {
 public:
  explicit PathCells(bool json) : json_(json) {}
  // Room put() needs.
  size_t bytes(const std::string& pathName, std::string_view name) const {
    return escapedBytes(pathName.size() + name.size()) + 4;
  }
  void put(RowBuffer& out, const std::string& pathName, std::string_view name) {
    if (pathName != pathName_) {
      pathName_ = pathName;
      escaped_.resize(escapedBytes(pathName.size()));
      escaped_.resize(static_cast<size_t>(putEscaped(escaped_.data(), pathName, json_) - escaped_.data()));
    }
    char*& at = out.cursor();
    if (json_) *at++ = '"';
    std::memcpy(at, escaped_.data(), escaped_.size());
    at += escaped_.size();
    *at++ = '/';
    at = putEscaped(at, name, json_);
    if (json_) *at++ = '"';
  }

 private:
  bool json_;
  std::string pathName_ = "\n", escaped_;  // no path is "\n"
};

}  // namespace

std::string hfsDateText(uint32_t hfsSeconds) {
  if (hfsSeconds == 0) return {};
  char buf[20];
  RowBuffer::hfsDateChars(hfsSeconds, buf);
  return std::string(buf, sizeof buf);
}

void writeTreeListing(const HDIR& root, ListingFormat format, std::FILE* out, const FilteredTree* filter) {
  const bool json = format == ListingFormat::Json;
  RowBuffer row(out);
  row.reserve(1024);
  if (json) {
    row.put('[');
  } else {
    for (size_t i = 0; i < std::size(kColumns); ++i) {
      if (i) row.put('\t');
      row.put(std::string_view(kColumns[i]));
    }
    row.put('\n');
  }
  bool first = true;
  PathCells paths(json);
  // A folder link lists its folder's entries below it; one that leads back is listed, not entered.
  forEachThroughLinks(root, [&](const HDIR& entry, const std::string& pathName) {
    if (filter && !filter->keeps(entry)) return false;
    const HDIR* e = &entry;
    const char* type = e->linkKind == LinkKind::Symlink  ? "symlink"
                       : e->linkKind == LinkKind::Folder ? (e->isFolder() ? "folderlink" : "file")
                       : e->isFolder()                   ? "folder"
                                                         : "file";
    // Only a file's content can be uncertain.
    const char* confidence = e->fileType == kHDIRFolder ? "" : confidenceText(e->confidence);
    // The fixed cells, their names and numbers, take well under 512 bytes.
    row.reserve(512 + paths.bytes(pathName, e->fileName()) + RowBuffer::extentsBytes(e->dataExt) +
                RowBuffer::extentsBytes(e->rscExt));
    if (json) {
      if (first) row.put("\n{\"path\":");
      else row.put(",\n{\"path\":");
      paths.put(row, pathName, e->fileName());
      row.put(",\"type\":\"");
      row.put(std::string_view(type));
      row.put("\",\"fileID\":");
      row.number(e->fileID);
      row.put(",\"parentID\":");
      row.number(e->parentID);
      row.put(",\"fileSize\":");
      row.number(e->fileSize);
      row.put(",\"dataSize\":");
      row.number(e->dataSize);
      row.put(",\"rscSize\":");
      row.number(e->rscSize);
      row.put(",\"fileCount\":");
      row.number(e->fileCount);
      row.put(",\"created\":\"");
      row.date(e->createDate);
      row.put("\",\"modified\":\"");
      row.date(e->modDate);
      row.put("\",\"dataExtents\":\"");
      row.extents(e->dataExt);
      row.put("\",\"rscExtents\":\"");
      row.extents(e->rscExt);
      row.put("\",\"confidence\":\"");
      row.put(std::string_view(confidence));
      row.put("\"}");
    } else {
      paths.put(row, pathName, e->fileName());
      row.put('\t');
      row.put(std::string_view(type));
      row.put('\t');
      row.number(e->fileID);
      row.put('\t');
      row.number(e->parentID);
      row.put('\t');
      row.number(e->fileSize);
      row.put('\t');
      row.number(e->dataSize);
      row.put('\t');
      row.number(e->rscSize);
      row.put('\t');
      row.number(e->fileCount);
      row.put('\t');
      row.date(e->createDate);
      row.put('\t');
      row.date(e->modDate);
      row.put('\t');
      row.extents(e->dataExt);
      row.put('\t');
      row.extents(e->rscExt);
      row.put('\t');
      row.put(std::string_view(confidence));
      row.put('\n');
    }
    row.endRow();
    first = false;
    return true;
  }, [](const HDIR&, const std::string&) {});
  row.reserve(8);
  if (json) row.put("\n]\n");
}

}  // namespace ambrel
