// Office compound documents and RTF documents (with the pictures an RTFD
// bundle names).
#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "base/Endian.h"
#include "carving/SignatureSearch.h"
#include "carving/Validators.h"

namespace ambrel {

namespace {

bool utf16Prefix(const uint8_t* name, const char* ascii) {
  for (size_t i = 0; ascii[i]; ++i)
    if (name[2 * i] != static_cast<uint8_t>(ascii[i]) || name[2 * i + 1] != 0) return false;
  return true;
}

}  // namespace

bool checkMSOFileAtBlock(Candidate& c, Sig& sig) {
  uint8_t header[512];
  if (!c.bytes(0, sizeof header, header)) return false;
  // Sectors are 512 bytes unless the header says 4096 (version 4 files):
  // a size read from the file wins over the assumption.
  const uint16_t shift = loadLE16(header + 30);
  const uint64_t sectorBytes = shift == 12 ? 4096 : 512;
  const uint64_t dirSector = loadLE32(header + 48);
  // The directory's first sector, counted after the header's own sector.
  const uint64_t dirPos = (dirSector + 1) * sectorBytes;
  uint8_t dir[512];
  if (!c.bytes(dirPos, sizeof dir, dir)) return false;
  // The first entry is the root storage: named "Root Entry" by most
  // writers, "R" by some older ones; its type byte says so either way.
  constexpr uint8_t kRootStorage = 5;
  if (!utf16Prefix(dir, "Root") && dir[66] != kRootStorage) return false;
  std::string extension = "ppt";
  // The stream that tells the kind may sit anywhere in the directory: its
  // sectors are followed through the allocation table, as far as the
  // header's own table sectors reach, and only so far.
  const uint64_t perTableSector = sectorBytes / 4;
  auto nextSector = [&](uint64_t sector) -> std::optional<uint64_t> {
    const uint64_t index = sector / perTableSector;
    if (index >= 109) return std::nullopt;
    const uint32_t tableSector = loadLE32(header + 76 + 4 * index);
    if (tableSector >= 0xFFFFFFFAu) return std::nullopt;
    const auto next = c.le32((uint64_t{tableSector} + 1) * sectorBytes + (sector % perTableSector) * 4);
    if (!next || *next >= 0xFFFFFFFAu) return std::nullopt;
    return *next;
  };
  constexpr int kMaxDirectorySectors = 64;  // a loop in the chain ends here too
  std::vector<uint8_t> entries(static_cast<size_t>(sectorBytes));
  uint64_t sector = dirSector;
  for (int n = 0; n < kMaxDirectorySectors && extension == "ppt"; ++n) {
    if (!c.bytes((sector + 1) * sectorBytes, entries.size(), entries.data())) break;
    for (size_t at = 0; at + 128 <= entries.size(); at += 128) {
      const uint8_t* name = entries.data() + at;
      if (utf16Prefix(name, "Word")) {
        extension = "doc";
        break;
      }
      if (utf16Prefix(name, "Work") || utf16Prefix(name, "Book")) {
        extension = "xls";
        break;
      }
    }
    const auto next = nextSector(sector);
    if (!next) break;
    sector = *next;
  }
  sig.extension = extension;
  // The most that so many allocation-table sectors can describe, plus the
  // header: an upper bound, never short of the file.
  const uint64_t tableSectors = loadLE32(header + 44);
  sig.foundSize = tableSectors * (sectorBytes / 4) * sectorBytes + sectorBytes;
  sig.skipFileSize = false;
  return true;
}

namespace {

// Names longer than this are not file names; their text is not kept.
constexpr size_t kMaxGraphicText = 4096;
// Pictures one document may name; more are ignored.
constexpr size_t kMaxGraphics = 10000;

// The leading integer of a text, as a number field reads it: blanks, a
// sign, digits; 0 when there is none.
int64_t leadingInteger(const std::string& s) {
  size_t i = 0;
  while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r')) ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == '-' || s[i] == '+')) negative = s[i++] == '-';
  int64_t v = 0;
  for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
    if (v > (INT64_MAX - 9) / 10) break;
    v = v * 10 + (s[i] - '0');
  }
  return negative ? -v : v;
}

std::vector<std::string> splitAt(const std::string& s, const std::string& sep) {
  std::vector<std::string> parts;
  size_t from = 0;
  for (;;) {
    const size_t at = s.find(sep, from);
    parts.push_back(s.substr(from, at == std::string::npos ? std::string::npos : at - from));
    if (at == std::string::npos) return parts;
    from = at + sep.size();
  }
}

RtfdEntry graphicEntry(const std::string& text) {
  const auto parts = splitAt(text, " \\");
  RtfdEntry e;
  e.fileName = parts[0];
  if (parts.size() > 1 && parts[1].size() > 5) e.width = leadingInteger(parts[1].substr(5)) / 20;
  if (parts.size() > 2 && parts[2].size() > 6) e.height = leadingInteger(parts[2].substr(6)) / 20;
  return e;
}

// Reads the document as one stream of characters, keeping only what the
// rules need: where its last "}" is and the text of each picture it names.
// Nothing grows with the document's length but the list of pictures.
class RtfScan {
 public:
  void feed(const uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; ++i, ++pos_) {
      const char ch = static_cast<char>(p[i]);
      if (inGraphic_) {
        if (skip_ > 0) {
          --skip_;  // the blank after the word
        } else if (ch == '}') {
          closeGraphic();
        } else if (graphic_.size() < kMaxGraphicText) {
          graphic_.push_back(ch);
        } else {
          graphicTooLong_ = true;
        }
      } else {
        matchWord(ch);
      }
      if (ch == '}') lastBrace_ = pos_ + 1;
    }
  }

  uint64_t length() const { return lastBrace_; }
  // A picture named inside the document: one whose text a "}" closed.
  bool sawGraphic() const { return closedGraphics_ > 0; }
  std::vector<RtfdEntry>& graphics() { return graphics_; }

 private:
  void matchWord(char ch) {
    static constexpr char kWord[] = "NeXTGraphic";
    static constexpr size_t kLen = sizeof kWord - 1;
    // The word has no repeated prefix, so a mismatch restarts at its first letter.
    matched_ = ch == kWord[matched_] ? matched_ + 1 : (ch == kWord[0] ? 1 : 0);
    if (matched_ < kLen) return;
    matched_ = 0;
    inGraphic_ = true;
    skip_ = 1;
    graphic_.clear();
    graphicTooLong_ = false;
  }

  void closeGraphic() {
    inGraphic_ = false;
    ++closedGraphics_;
    // The text runs up to the "}" without the character before it.
    if (!graphic_.empty()) graphic_.pop_back();
    if (!graphicTooLong_ && graphics_.size() < kMaxGraphics) graphics_.push_back(graphicEntry(graphic_));
  }

  uint64_t pos_ = 0;
  uint64_t lastBrace_ = 0;
  size_t matched_ = 0;
  bool inGraphic_ = false;
  uint64_t closedGraphics_ = 0;
  bool graphicTooLong_ = false;
  int skip_ = 0;
  std::string graphic_;
  std::vector<RtfdEntry> graphics_;
};

std::string extensionOf(const std::string& name) {
  const size_t dot = name.rfind('.');
  return dot == std::string::npos ? std::string() : name.substr(dot + 1);
}

void cleanGraphics(std::vector<RtfdEntry>& list) {
  std::vector<RtfdEntry> kept;
  for (RtfdEntry& e : list) {
    e.fileName.erase(std::remove(e.fileName.begin(), e.fileName.end(), '\\'), e.fileName.end());
    if (!isSupportedRTFGraphic(extensionOf(e.fileName))) continue;
    const bool seen = std::any_of(kept.begin(), kept.end(), [&](const RtfdEntry& k) { return k.fileName == e.fileName; });
    if (!seen) kept.push_back(std::move(e));
  }
  list = std::move(kept);
}

}  // namespace

bool checkRTF_FileAtBlock(Candidate& c, Sig& sig) {
  sig.skipSize = 0;
  // Block by block until a block's text stops short of the block (a zero
  // byte), the volume's end or the drive's end.
  const uint64_t blockSectors = uint64_t(std::max(c.blockSize(), 1));
  const uint64_t end = std::min(c.areaEndSector(), c.driveSectors());
  RtfScan scan;
  uint64_t textBytes = 0;
  bool shortBlock = false;
  for (uint64_t at = c.firstSector(); at < end && !shortBlock && !c.stopped(); at += blockSectors) {
    for (uint64_t s = 0; s < blockSectors && !shortBlock; s += Candidate::kMaxViewSectors) {
      const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(Candidate::kMaxViewSectors, blockSectors - s));
      const uint8_t* buf = c.sectors(at + s, n);
      const size_t bytes = size_t{n} * 512;
      const void* zero = std::memchr(buf, 0, bytes);
      const size_t take = zero ? static_cast<size_t>(static_cast<const uint8_t*>(zero) - buf) : bytes;
      scan.feed(buf, take);
      textBytes += take;
      shortBlock = zero != nullptr;
    }
    if (at > UINT64_MAX - blockSectors) break;
  }
  if (textBytes == 0) return false;
  sig.foundSize = scan.length();
  if (!scan.sawGraphic()) return true;

  SearchState& state = c.state();
  state.rtfdArray = std::move(scan.graphics());
  cleanGraphics(state.rtfdArray);
  if (state.rtfdArray.empty()) return true;
  sig.skipSize = static_cast<uint32_t>(state.rtfdArray.size());
  state.lookForRtfAttachments = true;
  return true;
}

}  // namespace ambrel
