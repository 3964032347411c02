#include "core/TreeListing.h"

#include <fmt/format.h>

#include <charconv>
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

// Rows gather here and reach the stream in large writes: a listing of
// millions of rows is otherwise mostly the cost of small formatted prints.
class RowBuffer {
 public:
  explicit RowBuffer(std::FILE* out) : out_(out) { buf_.reserve(kFlushAt + 4096); }
  ~RowBuffer() { flush(); }

  void flush() {
    if (!buf_.empty()) std::fwrite(buf_.data(), 1, buf_.size(), out_);
    buf_.clear();
  }
  void endRow() {
    if (buf_.size() >= kFlushAt) flush();
  }
  void put(char c) { buf_.push_back(c); }
  std::string& raw() { return buf_; }
  void put(std::string_view s) { buf_.append(s); }
  template <class Int>
  void number(Int n) {
    char tmp[24];
    const auto r = std::to_chars(tmp, tmp + sizeof tmp, n);
    buf_.append(tmp, r.ptr);
  }
  // "YYYY-MM-DDTHH:MM:SSZ" of an HFS date; nothing for 0.
  void date(uint32_t hfsSeconds) {
    if (hfsSeconds == 0) return;
    char tmp[20];
    hfsDateChars(hfsSeconds, tmp);
    buf_.append(tmp, sizeof tmp);
  }
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

 private:
  static constexpr size_t kFlushAt = size_t{1} << 20;
  std::FILE* out_;
  std::string buf_;
};

// TSV cells cannot hold tabs or line breaks, and a listing must not carry a
// name's control characters to a terminal: those are escaped, and so is the
// backslash that starts an escape (as escapedControls). JSON strings escape
// as jsonQuote. Both first make the text valid UTF-8, each bad byte U+FFFD;
// done here in one pass without a string per cell. A path's parts are
// escaped one by one: "/" ends any UTF-8 sequence, so it comes out the same.
void putEscaped(std::string& out, std::string_view text, bool json) {
  static constexpr char kHex[] = "0123456789abcdef";
  for (size_t i = 0; i < text.size();) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x80) {
      const size_t n = utf8SequenceLength(text.substr(i));
      if (n == 0) {
        out += "\xEF\xBF\xBD";
        ++i;
        continue;
      }
      // U+0080 to U+009F, which some terminals take as commands.
      const auto next = static_cast<unsigned char>(text[i + 1]);
      if (!json && c == 0xC2 && next < 0xA0) {
        out += "\\u00";
        out += kHex[next >> 4];
        out += kHex[next & 15];
      } else {
        out.append(text.substr(i, n));
      }
      i += n;
      continue;
    }
    ++i;
    if (c == '\t') out += "\\t";
    else if (c == '\n') out += "\\n";
    else if (c == '\r') out += "\\r";
    else if (c == '\\') out += "\\\\";
    else if (json && c == '"') out += "\\\"";
    else if (c < 0x20 || c == 0x7F) {
      out += json ? "\\u00" : "\\x";
      out += kHex[c >> 4];
      out += kHex[c & 15];
    } else {
      out += static_cast<char>(c);
    }
  }
}

// The rows of one folder share its path: escaped once for all of them.
class PathCells {
 public:
  explicit PathCells(bool json) : json_(json) {}
  void put(RowBuffer& out, const std::string& pathName, std::string_view name) {
    if (pathName != pathName_) {
      pathName_ = pathName;
      escaped_.clear();
      putEscaped(escaped_, pathName, json_);
    }
    std::string& buf = out.raw();
    if (json_) buf += '"';
    buf += escaped_;
    buf += '/';
    putEscaped(buf, name, json_);
    if (json_) buf += '"';
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
  if (json) {
    row.put('[');
  } else {
    for (size_t i = 0; i < std::size(kColumns); ++i) {
      if (i) row.put('\t');
      row.put(kColumns[i]);
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
    if (json) {
      row.put(first ? "\n{\"path\":" : ",\n{\"path\":");
      paths.put(row, pathName, e->fileName());
      row.put(",\"type\":\"");
      row.put(type);
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
      row.put(confidence);
      row.put("\"}");
    } else {
      paths.put(row, pathName, e->fileName());
      row.put('\t');
      row.put(type);
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
      row.put(confidence);
      row.put('\n');
    }
    row.endRow();
    first = false;
    return true;
  }, [](const HDIR&, const std::string&) {});
  if (json) row.put("\n]\n");
}

}  // namespace ambrel
