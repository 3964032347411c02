// Camera RAW files. All but MRW are TIFF structures with their maker's own
// marks; MRW is a list of blocks, one of which holds a TIFF structure. The
// file's end is the furthest byte its structure reaches; 0 when the pixels
// cannot be located, so that no file is cut short on a guess.
#include <algorithm>
#include <cstring>
#include <string>

#include "carving/TiffWalker.h"
#include "carving/Validators.h"

namespace ambrel {

namespace {

constexpr uint16_t kMake = 271;
constexpr uint16_t kMakerNote = 37500;
constexpr uint16_t kSr2Private = 0xC634;  // Sony: offset of its private IFD
constexpr uint16_t kSr2SubIfdOffset = 0x7200;
constexpr uint16_t kSr2SubIfdLength = 0x7201;
constexpr uint16_t kNikonPreviewIfd = 0x0011;

// Olympus maker-note sub-IFDs: equipment, camera settings, raw development,
// raw development 2, image processing, focus info.
constexpr uint16_t kOlympusSubIfds[] = {0x2010, 0x2020, 0x2030, 0x2031, 0x2040, 0x2050};
constexpr uint16_t kOlympusCameraSettings = 0x2020;
constexpr uint16_t kOlympusPreviewStart = 0x0101;
constexpr uint16_t kOlympusPreviewLength = 0x0102;

bool startsWith(Candidate& c, uint64_t pos, const char* text, size_t n) {
  uint8_t buf[16] = {};
  if (n > sizeof buf || !c.bytes(pos, n, buf)) return false;
  return std::memcmp(buf, text, n) == 0;
}

// The first value of an entry as an offset (LONG or IFD type, or four
// BYTEs as Sony writes its private IFD's offset).
std::optional<uint64_t> offsetValue(TiffWalker& w, const TiffEntry& e) {
  if (e.count < 1) return std::nullopt;
  if (e.type == 4 || e.type == 13 || (e.type == 1 && e.count == 4) || (e.type == 7 && e.count == 4)) {
    const auto v = w.u32(e.valuePos);
    if (v) return *v;
  }
  return std::nullopt;
}

// IFD0 must read as a directory: some entries, each of a known type.
bool firstIfdSound(const TiffWalkResult& r) {
  if (r.ifds.empty()) return false;
  const TiffIfd& first = r.ifds.front();
  return first.kind == TiffIfdKind::Main && first.entryCount > 0 && first.validTypes == first.entryCount;
}

void setRawLength(Candidate& c, Sig& sig, bool located, uint64_t end) {
  if (located && end > 0) {
    setFoundSizeWithSkip(c, sig, end);
  } else {
    sig.foundSize = 0;
    sig.skipFileSize = false;
  }
}

// Where a maker note lies, met while walking the main structure.
struct MakerNote {
  bool found = false;
  uint64_t pos = 0;
  uint64_t bytes = 0;
};

}  // namespace

bool checkCR2FileAtBlock(Candidate& c, Sig& sig) {
  TiffWalker w(c);
  const auto ifd0 = w.readHeader();
  if (!ifd0 || w.bigEndian() || w.magic() != 42 || *ifd0 < 16) return false;
  // "CR", major version 2, then the raw IFD's offset.
  if (!startsWith(c, 8, "CR\x02", 3)) return false;
  if (const auto rawIfd = w.u32(12); rawIfd && *rawIfd != 0) w.addIfd(*rawIfd);
  const TiffWalkResult r = w.walk(*ifd0);
  if (!firstIfdSound(r)) return false;
  setRawLength(c, sig, r.imageDataFound, r.end);
  return true;
}

bool checkNEF_FileAtBlock(Candidate& c, Sig& sig) {
  TiffWalker w(c);
  const auto ifd0 = w.readHeader();
  if (!ifd0 || w.magic() != 42 || *ifd0 < 8) return false;
  bool nikonMake = false;
  MakerNote note;
  w.onEntry = [&](const TiffIfd& ifd, const TiffEntry& e) {
    if (ifd.kind == TiffIfdKind::Main && e.tag == kMake && e.type == 2) nikonMake = startsWith(c, e.valuePos, "NIKON", 5);
    if (e.tag == kMakerNote && !note.found && startsWith(c, e.valuePos, "Nikon\0", 6))
      note = {true, e.valuePos, e.valueBytes};
  };
  TiffWalkResult r = w.walk(*ifd0);
  if (!firstIfdSound(r) || !(nikonMake || note.found)) return false;
  uint64_t end = r.end;
  bool located = r.imageDataFound;
  // The maker note holds a TIFF structure of its own, 10 bytes in, whose
  // offsets count from there; its preview IFD points at a JPEG.
  if (note.found && note.bytes > 18) {
    TiffWalker inner(c, note.pos + 10);
    const auto innerIfd0 = inner.readHeader();
    if (innerIfd0 && inner.magic() == 42) {
      inner.onEntry = [&](const TiffIfd&, const TiffEntry& e) {
        if (e.tag == kNikonPreviewIfd)
          if (const auto v = offsetValue(inner, e)) inner.addIfd(*v);
      };
      const TiffWalkResult m = inner.walk(*innerIfd0);
      end = std::max(end, m.end);
      located = located || m.imageDataFound;
    }
  }
  setRawLength(c, sig, located, end);
  return true;
}

bool checkSONY_RAWFileAtBlock(Candidate& c, Sig& sig) {
  TiffWalker w(c);
  const auto ifd0 = w.readHeader();
  if (!ifd0 || w.bigEndian() || w.magic() != 42 || *ifd0 < 8) return false;
  bool sonyMake = false;
  std::optional<uint64_t> sr2Offset, sr2Length;
  w.onEntry = [&](const TiffIfd& ifd, const TiffEntry& e) {
    if (ifd.kind == TiffIfdKind::Main && e.tag == kMake && e.type == 2) sonyMake = startsWith(c, e.valuePos, "SONY", 4);
    // The private IFD of SR2 and ARW files, and the encrypted block it names.
    if (ifd.kind == TiffIfdKind::Main && e.tag == kSr2Private)
      if (const auto v = offsetValue(w, e)) w.addIfd(*v);
    if (ifd.kind == TiffIfdKind::Added && e.tag == kSr2SubIfdOffset) sr2Offset = offsetValue(w, e);
    if (ifd.kind == TiffIfdKind::Added && e.tag == kSr2SubIfdLength) sr2Length = offsetValue(w, e);
    if (sr2Offset && sr2Length) {
      w.addRange(*sr2Offset, *sr2Length);
      sr2Offset.reset();
      sr2Length.reset();
    }
  };
  const TiffWalkResult r = w.walk(*ifd0);
  if (!firstIfdSound(r) || !sonyMake) return false;
  setRawLength(c, sig, r.imageDataFound, r.end);
  return true;
}

bool checkORF_FileAtBlock(Candidate& c, Sig& sig) {
  TiffWalker w(c);
  const auto ifd0 = w.readHeader();
  // "IIRO", "IIRS" and "MMOR": the maker's own magic numbers.
  if (!ifd0 || *ifd0 < 8) return false;
  const uint16_t magic = w.magic();
  if (magic != 0x4F52 && magic != 0x5352) return false;
  MakerNote note;
  w.onEntry = [&](const TiffIfd&, const TiffEntry& e) {
    if (e.tag == kMakerNote && !note.found && startsWith(c, e.valuePos, "OLYMP", 5))
      note = {true, e.valuePos, e.valueBytes};
  };
  const TiffWalkResult r = w.walk(*ifd0);
  if (r.ifds.empty() || r.ifds.front().entryCount == 0) return false;
  uint64_t end = r.end;
  bool located = r.imageDataFound && firstIfdSound(r);
  if (note.found) {
    // "OLYMPUS\0" + byte order: offsets count from the note's start, its IFD
    // 12 bytes in. The older "OLYMP\0": offsets from the file's TIFF header,
    // the IFD 8 bytes in.
    const bool newStyle = startsWith(c, note.pos, "OLYMPUS\0", 8);
    TiffWalker inner(c, newStyle ? note.pos : 0);
    inner.setByteOrder(w.bigEndian());
    if (newStyle) {
      const auto order = c.be16(note.pos + 8);
      if (order == 0x4949) inner.setByteOrder(false);
      if (order == 0x4D4D) inner.setByteOrder(true);
    }
    uint64_t settingsAt = UINT64_MAX;
    std::optional<uint64_t> previewStart, previewLength;
    const uint64_t innerBase = newStyle ? note.pos : 0;
    inner.onEntry = [&](const TiffIfd& ifd, const TiffEntry& e) {
      if (ifd.kind == TiffIfdKind::Main &&
          std::find(std::begin(kOlympusSubIfds), std::end(kOlympusSubIfds), e.tag) != std::end(kOlympusSubIfds)) {
        // As an IFD-typed offset, or as an undefined block that is the IFD.
        std::optional<uint64_t> v = offsetValue(inner, e);
        if (!v && e.type == 7 && e.count > 4 && e.valuePos >= innerBase) v = e.valuePos - innerBase;
        if (v) {
          inner.addIfd(*v);
          if (e.tag == kOlympusCameraSettings) settingsAt = innerBase + *v;
        }
      }
      if (ifd.pos == settingsAt && e.tag == kOlympusPreviewStart) previewStart = offsetValue(inner, e);
      if (ifd.pos == settingsAt && e.tag == kOlympusPreviewLength) previewLength = offsetValue(inner, e);
    };
    const uint64_t noteIfd = newStyle ? 12 : note.pos + 8;
    const TiffWalkResult m = inner.walk(noteIfd);
    end = std::max(end, m.end);
    if (previewStart && previewLength && *previewLength > 0 && c.has(innerBase + *previewStart, *previewLength))
      end = std::max(end, innerBase + *previewStart + *previewLength);
  }
  setRawLength(c, sig, located, end);
  return true;
}

namespace {

// MRW: "\0MRM", the length of the header blocks, then blocks of a 4-byte
// name and a 32-bit length; the raw pixels follow the header blocks.
constexpr uint32_t kMrwPRD = 0x00505244;  // "\0PRD": sensor size and packing
constexpr uint32_t kMrwTTW = 0x00545457;  // "\0TTW": a TIFF structure
constexpr uint8_t kMrwPacked = 0x59;
constexpr uint8_t kMrwUnpacked = 0x52;

}  // namespace

bool checkMRWFileAtBlock(Candidate& c, Sig& sig) {
  const auto headerBytes = c.be32(4);
  if (!headerBytes || *headerBytes < 8) return false;
  const uint64_t dataStart = 8 + uint64_t{*headerBytes};
  if (!c.has(0, dataStart)) return false;
  uint64_t rawBytes = 0;
  bool prdFound = false;
  uint64_t tiffEnd = 0;
  // Blocks lie wholly inside the header; positions only grow.
  for (uint64_t p = 8; p + 8 <= dataStart && !c.stopped();) {
    const uint32_t name = c.be32(p).value_or(0);
    const uint64_t length = c.be32(p + 4).value_or(0);
    if ((name >> 24) != 0 || length > dataStart - p - 8) return false;
    const uint64_t body = p + 8;
    if (name == kMrwPRD && length >= 19) {
      const uint64_t height = c.be16(body + 8).value_or(0);
      const uint64_t width = c.be16(body + 10).value_or(0);
      const uint8_t storage = c.u8(body + 18).value_or(0);
      if (height == 0 || width == 0) return false;
      if (storage == kMrwPacked) rawBytes = height * width * 3 / 2;        // 12 bits a pixel
      else if (storage == kMrwUnpacked) rawBytes = height * width * 2;     // 16 bits a pixel
      else return false;
      prdFound = true;
    } else if (name == kMrwTTW) {
      TiffWalker w(c, body);
      const auto ifd0 = w.readHeader();
      if (ifd0 && w.magic() == 42) tiffEnd = w.walk(*ifd0).end;
    }
    p = body + length;
  }
  if (!prdFound) return false;
  const uint64_t end = std::max(dataStart + rawBytes, tiffEnd);
  // Pixels that would run past the drive are not there: the length is not known.
  setRawLength(c, sig, c.has(0, end), end);
  return true;
}

}  // namespace ambrel
