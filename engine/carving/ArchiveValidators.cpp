// PDF and ZIP (ended by a trailer found in the sectors that follow), and RAR
// archives, whose length is the sum of their blocks.
#include <cstring>
#include <vector>
#include <zlib.h>

#include "base/Endian.h"
#include "carving/Validators.h"

namespace ambrel {

namespace {

constexpr uint32_t kTrailerReadSectors = 64;
constexpr uint32_t kTrailerStepSectors = 63;
// Offsets searched in one read; the 64th sector is there for patterns that
// straddle into it, and is searched from the next read's start.
constexpr uint32_t kTrailerSearchEnd = 32256;

// Where the pattern ends the file, measured from the read's first byte; the
// finder answers the file's length past that offset, or nothing.
struct TrailerHit {
  bool found = false;
  uint64_t x = 0;
  uint64_t tail = 0;  // bytes of the file from x on
};

// Reads of 64 sectors stepping by 63, from the candidate's first sector up to
// the limit, while a whole read lies before the volume's end.
template <class Finder>
bool trailerSearch(Candidate& c, Sig& sig, uint64_t limit, Finder find) {
  const uint64_t F = c.firstSector();
  const uint64_t end = c.areaEndSector();
  for (uint64_t at = F; at < limit && !c.stopped(); at += kTrailerStepSectors) {
    if (at > UINT64_MAX - kTrailerStepSectors || !(at + kTrailerStepSectors < end)) break;
    const uint8_t* buf = c.sectors(at, kTrailerReadSectors);
    const TrailerHit hit = find(buf, (at - F) * 512);
    if (hit.found) {
      setFoundSizeWithSkip(c, sig, (at - F) * 512 + hit.x + hit.tail);
      return true;
    }
  }
  return false;
}

// No trailer: the user's maximum size, or what is left of the volume less
// one sector.
void trailerFallback(Candidate& c, Sig& sig) {
  const uint64_t F = c.firstSector();
  const uint64_t V = c.volumeSectors();
  const uint64_t into = F - c.HPlusVolStart();
  if (into + sig.userSize / 512 < V) {
    sig.foundSize = sig.userSize;
  } else {
    const uint64_t blockStart = c.block() * uint64_t(c.blockSize());
    sig.foundSize = V > blockStart + 1 ? (V - blockStart) * 512 - 512 : 0;
  }
  sig.skipFileSize = false;
}

uint64_t addCapped(uint64_t a, uint64_t b) { return a > UINT64_MAX - b ? UINT64_MAX : a + b; }

}  // namespace

bool checkPDF_FileAtBlock(Candidate& c, Sig& sig) {
  const uint64_t limit = addCapped(addCapped(c.firstSector(), sig.userSize / 512), 63);
  uint8_t carried[2] = {0, 0};  // nothing stands before the file's first byte
  const bool found = trailerSearch(c, sig, limit, [&](const uint8_t* buf, uint64_t) {
    TrailerHit hit;
    for (const uint8_t* p = buf; p < buf + kTrailerSearchEnd;) {
      p = static_cast<const uint8_t*>(std::memchr(p, '%', static_cast<size_t>(buf + kTrailerSearchEnd - p)));
      if (!p) break;
      if (std::memcmp(p, "%EOF", 4) == 0) {
        const uint64_t x = static_cast<uint64_t>(p - buf);
        // The line break two bytes before may lie in the sector the previous
        // read did not search: its last two bytes are carried over.
        const uint8_t before = x >= 2 ? p[-2] : carried[x];
        if (before == 13 || before == 10) {
          hit = {true, x, 4};
          break;
        }
      }
      ++p;
    }
    carried[0] = buf[kTrailerSearchEnd - 2];
    carried[1] = buf[kTrailerSearchEnd - 1];
    return hit;
  });
  if (!found) trailerFallback(c, sig);
  return true;
}

bool checkZIP_FileAtBlock(Candidate& c, Sig& sig) {
  // Half the user's maximum size is searched: the rule as it stands.
  const uint64_t limit = addCapped(addCapped(c.firstSector(), sig.userSize / 1024), 63);
  const bool found = trailerSearch(c, sig, limit, [](const uint8_t* buf, uint64_t) {
    TrailerHit hit;
    for (const uint8_t* p = buf; p < buf + kTrailerSearchEnd;) {
      p = static_cast<const uint8_t*>(std::memchr(p, 'P', static_cast<size_t>(buf + kTrailerSearchEnd - p)));
      if (!p) break;
      if (p[1] == 'K' && p[2] == 5 && p[3] == 6) {
        hit = {true, static_cast<uint64_t>(p - buf), 22ull + loadLE16(p + 20)};
        break;
      }
      ++p;
    }
    return hit;
  });
  if (!found) trailerFallback(c, sig);
  return true;
}

namespace {

bool isRarBlockType(uint8_t t) { return t >= 0x72 && t <= 0x7B; }
constexpr uint8_t kRarEndBlock = 0x7B;
constexpr uint8_t kRarFileBlock = 0x74;

}  // namespace

bool checkRAR_FileAtBlock(Candidate& c, Sig& sig) {
  uint64_t p = 7;  // past the marker block
  if (!isRarBlockType(c.u8(p + 2).value_or(0))) {
    setFoundSizeWithSkip(c, sig, 7);
    return true;
  }
  bool fileBlockSeen = false;
  for (;;) {
    if (c.stopped()) break;
    // Past the drive's end reads as the zeros of a failed read: no block.
    const auto typeByte = c.u8(p + 2);
    const uint8_t type = typeByte.value_or(0);
    if (!isRarBlockType(type)) {
      // Archives written without an end block stop after their last file
      // block: what was walked is the archive. Without a file block there
      // is nothing to save; a block that runs past what can be read is cut.
      if (fileBlockSeen && typeByte) break;
      sig.skipFileSize = false;
      return false;
    }
    if (type == kRarFileBlock) fileBlockSeen = true;
    const bool longBlock = (c.u8(p + 4).value_or(0) & 0x80) != 0;
    const uint16_t headSize = c.le16(p + 5).value_or(0);
    const uint64_t added = longBlock ? c.le32(p + 7).value_or(0) : 0;
    const uint64_t next = p + headSize + added;
    if (type == kRarEndBlock || (!longBlock && headSize == 0)) {
      p = next;
      break;
    }
    // A long block of no size at all would be read again and again; it ends
    // the walk as a zero head size does.
    if (next == p) break;
    p = next;
  }
  setFoundSizeWithSkip(c, sig, p);
  return true;
}

namespace {

// RAR 5: after the 8-byte signature, headers of CRC32, a variable-length
// header size, type, flags, and (by flags) extra and data sizes.
constexpr uint64_t kRar5SignatureBytes = 8;
constexpr uint64_t kRar5MaxHeader = 2 * 1024 * 1024;  // the format's own limit
enum : uint64_t { kRar5Main = 1, kRar5File, kRar5Service, kRar5Encryption, kRar5End };

// A variable-length number: 7 bits a byte, low first, at most 10 bytes.
std::optional<uint64_t> vint(const uint8_t* p, size_t n, size_t& at) {
  uint64_t v = 0;
  for (int shift = 0; shift < 70 && at < n; shift += 7) {
    const uint8_t b = p[at++];
    if (shift < 64) v |= uint64_t{b & 0x7Fu} << shift;
    if (!(b & 0x80)) return v;
  }
  return std::nullopt;
}

struct Rar5Header {
  uint64_t type = 0;
  uint64_t next = 0;  // the position right after its data area
};

// The header at p, with its CRC checked; nullopt for anything that is not one.
std::optional<Rar5Header> rar5Header(Candidate& c, uint64_t p, std::vector<uint8_t>& buf) {
  uint8_t head[4 + 10];
  if (!c.bytes(p, 4, head)) return std::nullopt;
  size_t sizeBytes = 0;
  uint8_t sizeField[10] = {};
  for (; sizeBytes < 10; ++sizeBytes) {
    const auto b = c.u8(p + 4 + sizeBytes);
    if (!b) return std::nullopt;
    sizeField[sizeBytes] = *b;
    if (!(*b & 0x80)) break;
  }
  if (sizeBytes == 10) return std::nullopt;
  ++sizeBytes;
  size_t at = 0;
  const auto headerSize = vint(sizeField, sizeBytes, at);
  if (!headerSize || *headerSize == 0 || *headerSize > kRar5MaxHeader) return std::nullopt;
  const uint64_t crcBytes = sizeBytes + *headerSize;
  buf.resize(static_cast<size_t>(crcBytes));
  if (!c.bytes(p + 4, buf.size(), buf.data())) return std::nullopt;
  const uint32_t crc = static_cast<uint32_t>(::crc32(0L, buf.data(), static_cast<uInt>(buf.size())));
  if (crc != loadLE32(head)) return std::nullopt;
  at = sizeBytes;
  const auto type = vint(buf.data(), buf.size(), at);
  const auto flags = vint(buf.data(), buf.size(), at);
  if (!type || !flags || *type < kRar5Main || *type > kRar5End) return std::nullopt;
  uint64_t dataSize = 0;
  if (*flags & 1) {
    if (!vint(buf.data(), buf.size(), at)) return std::nullopt;
  }
  if (*flags & 2) {
    const auto d = vint(buf.data(), buf.size(), at);
    if (!d) return std::nullopt;
    dataSize = *d;
  }
  const uint64_t headerEnd = p + 4 + crcBytes;
  if (dataSize > UINT64_MAX - headerEnd) return std::nullopt;
  return Rar5Header{*type, headerEnd + dataSize};
}

}  // namespace

bool checkRAR5_FileAtBlock(Candidate& c, Sig& sig) {
  std::vector<uint8_t> buf;
  const auto first = rar5Header(c, kRar5SignatureBytes, buf);
  if (!first || (first->type != kRar5Main && first->type != kRar5Encryption)) {
    sig.skipFileSize = false;
    return false;
  }
  // Encrypted headers cannot be walked; neither can a header that fails its
  // check: the length stays unknown rather than guessed.
  sig.foundSize = 0;
  sig.skipFileSize = false;
  if (first->type == kRar5Encryption) return true;
  uint64_t p = first->next;
  while (!c.stopped() && c.has(p, 1)) {
    const auto h = rar5Header(c, p, buf);
    if (!h || h->type == kRar5Encryption) return true;
    if (h->type == kRar5End) {
      // An end that the drive does not hold is no length to carve by.
      if (c.has(0, h->next)) setFoundSizeWithSkip(c, sig, h->next);
      return true;
    }
    p = h->next;  // always past the header: positions only grow
  }
  return true;
}

}  // namespace ambrel
