// AVI, the ISO media family (QuickTime, MP4, 3GPP, 3GPP2) and MPEG program
// streams: how far each file reaches, from its own structure. Positions are
// byte offsets from the candidate's first byte.
#include <algorithm>
#include <cstring>

#include "base/Endian.h"
#include "carving/Validators.h"

namespace ambrel {

namespace {

// Top-level atoms walked at most; a fragmented recording of many hours has
// some tens of thousands.
constexpr uint32_t kMaxAtoms = 1u << 20;
// RIFF forms an AVI may continue with ("AVIX", for files past 1 GiB).
constexpr uint32_t kMaxAviParts = 4096;
// The bytes a carved AVI gets beyond its RIFF form: a margin kept on purpose.
constexpr uint64_t kAviMargin = 2040;

constexpr uint32_t kPackStart = 0x000001BA;
constexpr uint32_t kProgramEnd = 0x000001B9;
// Where the second pack header is looked for: within the first 63 sectors.
constexpr uint64_t kPackSearchBytes = 63 * 512;

bool lowerCaseName(const uint8_t type[4]) {
  for (int i = 0; i < 4; ++i)
    if (type[i] < 'a' || type[i] > 'z') return false;
  return true;
}

// Bytes from the candidate's start to the end of the area searched (the
// volume, or the drive in a drive search).
uint64_t bytesToAreaEnd(const Candidate& c) {
  const uint64_t end = c.areaEndSector(), first = c.firstSector();
  if (end <= first) return 0;
  return end - first > UINT64_MAX / 512 ? UINT64_MAX : (end - first) * 512;
}

// The end of the last top-level atom that is whole: it has a size (0, "to
// the end of the file", says nothing), a 64-bit size where the size field is
// 1, a name the rule accepts, and it ends within the area and on the drive.
uint64_t atomWalk(Candidate& c, bool (*nameOk)(const uint8_t[4])) {
  const uint64_t limit = std::min(c.bytesToDriveEnd(), bytesToAreaEnd(c));
  uint64_t p = 0;
  for (uint32_t n = 0; n < kMaxAtoms && !c.stopped(); ++n) {
    uint8_t head[16];
    if (!c.bytes(p, 8, head)) break;
    uint64_t size = loadBE32(head);
    uint64_t headLength = 8;
    if (size == 1) {
      if (!c.bytes(p + 8, 8, head + 8)) break;
      size = loadBE64(head + 8);
      headLength = 16;
    }
    if (size == 0 || size < headLength) break;
    if (p > limit || size > limit - p) break;
    if (!nameOk(head + 4)) break;
    p += size;
  }
  return p;
}

// The header length of the MPEG-1 (12 bytes) or MPEG-2 (14 and its
// stuffing) pack header at p; 0 when the bytes are neither.
uint32_t packHeaderLength(Candidate& c, uint64_t p) {
  const std::optional<uint8_t> b = c.u8(p + 4);
  if (!b) return 0;
  if ((*b >> 6) == 1) {
    const std::optional<uint8_t> stuffing = c.u8(p + 13);
    return stuffing ? 14 + (*stuffing & 7) : 0;
  }
  return (*b >> 4) == 2 ? 12 : 0;
}

bool codeAt(Candidate& c, uint64_t p, uint32_t code) { return c.be32(p) == std::optional<uint32_t>(code); }

enum class PackEnd { NextPack, ProgramEnd, Other };

// Walks the packets of the pack at p: the system header and the PES packets,
// each with its 16-bit length. Answers where they end and what stands there.
std::pair<uint64_t, PackEnd> packetsOfPack(Candidate& c, uint64_t p) {
  const uint32_t header = packHeaderLength(c, p);
  if (header == 0) return {p, PackEnd::Other};
  uint64_t q = p + header;
  while (!c.stopped()) {
    const std::optional<uint32_t> code = c.be32(q);
    if (!code) break;
    if (*code == kPackStart) return {q, PackEnd::NextPack};
    if (*code == kProgramEnd) return {q, PackEnd::ProgramEnd};
    if ((*code >> 8) != 1 || (*code & 0xFF) < 0xBB) break;
    const std::optional<uint16_t> length = c.be16(q + 4);
    if (!length || !c.has(q, 6 + uint64_t{*length})) break;
    q += 6 + uint64_t{*length};
  }
  return {q, PackEnd::Other};
}

}  // namespace

bool checkMOVAtomName(const uint8_t type[4]) { return lowerCaseName(type); }
bool checkMP4AtomName(const uint8_t type[4]) { return lowerCaseName(type); }

bool checkAVIFileAtBlock(Candidate& c, Sig& sig) {
  sig.skipFileSize = false;
  const uint32_t size = c.le32(4).value_or(0);
  // 0 and 0xFFFFFFFF are what a writer leaves when it never came back to
  // fill in the size: no length is known.
  if (size == 0 || size == 0xFFFFFFFF) {
    sig.foundSize = 0;
    return true;
  }
  uint64_t end = uint64_t{size} + 8;
  // An AVI past 1 GiB goes on in "AVIX" forms right after its first one.
  uint8_t form[4] = {};
  c.bytes(8, 4, form);
  if (std::memcmp(form, "AVI ", 4) == 0) {
    for (uint32_t n = 0; n < kMaxAviParts && !c.stopped(); ++n) {
      uint8_t head[12];
      if (!c.bytes(end, 12, head) || std::memcmp(head, "RIFF", 4) != 0 || std::memcmp(head + 8, "AVIX", 4) != 0) break;
      const uint32_t partSize = loadLE32(head + 4);
      if (partSize < 4 || !c.has(end + 8, partSize)) break;
      end += 8 + uint64_t{partSize};
    }
  }
  sig.foundSize = end + kAviMargin;
  return true;
}

bool checkMOVFileAtBlock(Candidate& c, Sig& sig) {
  sig.foundSize = atomWalk(c, checkMOVAtomName);
  sig.skipFileSize = false;
  return true;
}

bool checkMP4FileAtBlock(Candidate& c, Sig& sig) {
  // Reset on every call: the last hit may have renamed the record.
  sig.extension = "mp4";
  const uint16_t brand = c.be16(8).value_or(0);
  if (brand == 0x3367) return false;  // "3g": the 3GPP validators' files
  if (brand == 0x4D34) {              // "M4": the third letter says audio or video
    const uint8_t kind = c.u8(10).value_or(0);
    if (kind == 'V') sig.extension = "m4v";
    else if (kind == 'A') sig.extension = "m4a";
  }
  setFoundSizeWithSkip(c, sig, atomWalk(c, checkMP4AtomName));
  return true;
}

bool check3GPP_FileAtBlock(Candidate& c, Sig& sig) {
  setFoundSizeWithSkip(c, sig, atomWalk(c, checkMP4AtomName));
  return true;
}

bool check3GPP2_FileAtBlock(Candidate& c, Sig& sig) {
  setFoundSizeWithSkip(c, sig, atomWalk(c, checkMP4AtomName));
  return true;
}

bool checkMPGFileAtBlock(Candidate& c, Sig& sig) {
  const uint64_t F = c.firstSector();
  SectorRanges& done = c.state().mpgDoneArray;
  if (done.contains(F)) return false;
  if (!codeAt(c, 0, kPackStart)) {
    sig.foundSize = 0;
    sig.skipFileSize = true;
    sig.skipSize = 0;
    return true;
  }
  const uint32_t firstHeader = packHeaderLength(c, 0);
  if (firstHeader == 0) return false;

  // The second pack header, within the first 63 sectors: the distance to it
  // is the pack size of a stream of equal packs.
  const uint8_t* head = c.sectors(F, static_cast<uint32_t>(kPackSearchBytes / 512));
  uint64_t d = 0;
  for (uint64_t at = 4; at + 4 <= kPackSearchBytes; ++at) {
    const void* hit = std::memchr(head + at, 0x01, static_cast<size_t>(kPackSearchBytes - at));
    if (!hit) break;
    const uint64_t one = static_cast<uint64_t>(static_cast<const uint8_t*>(hit) - head);
    if (one >= 2 && one - 2 >= 4 && one + 2 <= kPackSearchBytes && loadBE32(head + one - 2) == kPackStart) {
      d = one - 2;
      break;
    }
    at = one;
  }
  // A pack shorter than its own header is no pack.
  if (d < firstHeader) return false;

  const uint64_t driveEnd = c.bytesToDriveEnd();
  uint64_t p = d;
  bool equalPacks = true, ended = false;
  while (!c.stopped() && codeAt(c, p, kPackStart)) {
    // The stream's packs all of one size: the next one stands d bytes on,
    // whatever this one holds (so a damaged pack costs only itself).
    if (d <= driveEnd && p <= driveEnd - d) {
      const bool lastPack = codeAt(c, p + d - 4, kProgramEnd);
      if (lastPack || codeAt(c, p + d, kPackStart)) {
        p += d;
        ended = lastPack;
        if (ended) break;
        continue;
      }
    }
    // Otherwise the pack's own packets say where it ends.
    const auto [q, what] = packetsOfPack(c, p);
    if (what == PackEnd::NextPack && q > p) {
      equalPacks = false;
      p = q;
      continue;
    }
    if (what == PackEnd::ProgramEnd) {
      p = q + 4;
      ended = true;
      break;
    }
    // The last pack: as long as the others in a stream of equal packs,
    // unless its packets go further; else where its packets end.
    const uint64_t assumed = std::min(driveEnd, p + d);
    p = equalPacks ? std::max(q, assumed) : q;
    break;
  }
  if (!ended && codeAt(c, p, kProgramEnd)) p += 4;
  // Later packs of this stream are not streams of their own.
  done.add(F, F + (p - 1) / 512);
  setFoundSizeWithSkip(c, sig, p);
  return true;
}

}  // namespace ambrel
