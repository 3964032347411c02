// JPEG, PNG, GIF, BMP and ICNS: how far each file reaches, from its own
// structure. Positions are byte offsets from the candidate's first byte.
#include <cstring>

#include "base/Endian.h"
#include "carving/Validators.h"

namespace ambrel {

namespace {

bool isLetter(uint8_t c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

// Bytes past the drive's end read as the zeros a failed read leaves.
uint8_t byteAt(Candidate& c, uint64_t pos) { return c.u8(pos).value_or(0); }
uint16_t be16At(Candidate& c, uint64_t pos) { return c.be16(pos).value_or(0); }
uint32_t be32At(Candidate& c, uint64_t pos) { return c.be32(pos).value_or(0); }

uint64_t colourTableBytes(uint8_t packed) { return 3ull << ((packed & 7) + 1); }

}  // namespace

bool checkPNG_Chunk(uint32_t length, const uint8_t type[4]) {
  if (static_cast<int32_t>(length) < 0) return false;
  for (int i = 0; i < 4; ++i)
    if (!isLetter(type[i])) return false;
  return true;
}

bool checkPNGFileAtBlock(Candidate& c, Sig& sig) {
  uint8_t head[29] = {};
  c.bytes(0, sizeof head, head);
  if (loadBE32(head + 8) != 13 || std::memcmp(head + 12, "IHDR", 4) != 0) return false;
  if (static_cast<int32_t>(loadBE32(head + 16)) < 1 || static_cast<int32_t>(loadBE32(head + 20)) < 1) return false;
  // Any even depth up to 16 passes, a looser test than the format's own list.
  const uint8_t depth = head[24];
  if (!(depth == 1 || (depth >= 2 && depth <= 16 && depth % 2 == 0))) return false;
  const uint8_t colour = head[25];
  if (!(colour == 0 || colour == 2 || colour == 3 || colour == 4 || colour == 6)) return false;
  if (head[26] != 0 || head[27] != 0 || head[28] > 1) return false;

  uint64_t p = 33;  // just past the header chunk
  while (!c.stopped()) {
    uint8_t chunk[8] = {};
    c.bytes(p, 8, chunk);  // past the drive's end: zeros, which no chunk passes
    const uint32_t length = loadBE32(chunk);
    if (!checkPNG_Chunk(length, chunk + 4)) break;
    p += uint64_t{length} + 12;
    if (std::memcmp(chunk + 4, "IEND", 4) == 0) break;
  }
  setFoundSizeWithSkip(c, sig, p);
  return true;
}

bool checkGIFFileAtBlock(Candidate& c, Sig& sig) {
  uint64_t p = 13;
  const uint8_t screen = byteAt(c, 10);
  if (screen & 0x80) p += colourTableBytes(screen);
  uint64_t length = 0;
  for (;;) {
    if (c.stopped()) {
      length = p;
      break;
    }
    const std::optional<uint8_t> b = c.u8(p);
    if (!b) {  // the drive ends here
      length = p;
      break;
    }
    if (*b == 0x3B) {
      length = p + 1;
      break;
    }
    if (*b == 0) {
      p = c.nextNonZero(p);  // zero bytes between blocks are tolerated
      continue;
    }
    if (*b == 0x21) {
      p += uint64_t{byteAt(c, p + 2)} + 3;  // introducer, label, first sub-block
      const uint8_t s = byteAt(c, p);
      if (s != 0) p += uint64_t{s} + 1;
      // The second sub-block's size is tested as if it were the next
      // introducer: one of 59 bytes ends the walk like the trailer.
      if (s == 0x3B) {
        length = p + 1;
        break;
      }
      continue;
    }
    if (*b == 0x2C) {
      p += 10;
      const uint8_t packed = byteAt(c, p - 1);
      if (packed & 0x80) p += colourTableBytes(packed);
      for (;;) {
        const std::optional<uint8_t> s = c.u8(p + 1);
        if (!s || *s == 0 || c.stopped()) break;
        p += uint64_t{*s} + 1;
      }
      p += 1;
      continue;
    }
    length = p;
    break;
  }
  setFoundSizeWithSkip(c, sig, length);
  return true;
}

bool checkJPGFileAtBlock(Candidate& c, Sig& sig) {
  uint64_t p = 2;
  uint32_t len = be16At(c, 4);
  bool frameSeen = false, scanSeen = false;
  uint32_t width = 0, height = 0;
  while (len != 0 && !c.stopped()) {
    p += uint64_t{len} + 2;
    const uint8_t m1 = byteAt(c, p), m2 = byteAt(c, p + 1);
    const bool isScan = m1 == 0xFF && m2 == 0xDA;
    if (m1 == 0xFF && m2 == 0xC0) {
      height = be16At(c, p + 5);
      width = be16At(c, p + 7);
      frameSeen = true;
    }
    if (!isScan && !scanSeen) {
      if (m1 < 0xFF || m2 == 0x00 || m2 == 0xFF) return false;
    }
    if (isScan) scanSeen = true;
    len = be16At(c, p + 2);
    if (frameSeen && scanSeen) {
      p += uint64_t{len} + 2;
      break;
    }
  }

  const uint32_t E = ((width * height * 3u) / 2u / 512u) & 0x7FFFFFu;
  const uint64_t F = c.firstSector();
  const uint64_t S0 = F + p / 512;
  uint64_t o = p % 512;
  const uint64_t L = S0 + (uint64_t{E} * 3) / 4 + 63;
  // Reads stop 63 sectors before the volume's end, wherever on the drive the
  // volume starts.
  const uint64_t end = c.areaEndSector();

  for (uint64_t at = S0; at < L && !c.stopped(); at += 63, o = 0) {
    if (!(at + 63 < end)) continue;
    const uint8_t* buf = c.sectors(at, 64);
    // FF D9 at offsets o ... 32255; the D9 may lie in the 64th sector.
    for (const uint8_t* p = buf + o; p < buf + 63 * 512;) {
      p = static_cast<const uint8_t*>(std::memchr(p, 0xFF, static_cast<size_t>(buf + 63 * 512 - p)));
      if (!p) break;
      if (p[1] == 0xD9) {
        setFoundSizeWithSkip(c, sig, (at - F) * 512 + static_cast<uint64_t>(p - buf) + 2);
        return true;
      }
      ++p;
    }
  }
  // The estimate, or the rest of the volume less one sector.
  if (S0 + E < end) sig.foundSize = (S0 - F + E) * 512;
  else sig.foundSize = end > F ? (end - F) * 512 - 512 : 0;
  sig.skipFileSize = false;
  return true;
}

bool checkBMPFileAtBlock(Candidate& c, Sig& sig) {
  const uint32_t reserved = c.le32(6).value_or(0);
  if (reserved != 0) {
    sig.skipFileSize = false;
    return false;
  }
  sig.foundSize = c.le32(2).value_or(0);
  sig.skipFileSize = false;
  return true;
}

bool checkICNS_FileAtBlock(Candidate& c, Sig& sig) {
  sig.foundSize = be32At(c, 4);
  sig.skipFileSize = false;
  return true;
}

}  // namespace ambrel
