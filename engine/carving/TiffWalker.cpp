#include "carving/TiffWalker.h"

#include <algorithm>

#include "carving/Validators.h"

namespace ambrel {

namespace {

constexpr uint16_t kImageWidth = 256;
constexpr uint16_t kStripOffsets = 273;
constexpr uint16_t kStripByteCounts = 279;
constexpr uint16_t kTileOffsets = 324;
constexpr uint16_t kTileByteCounts = 325;
constexpr uint16_t kSubIFDs = 330;
constexpr uint16_t kJPEGInterchangeFormat = 513;
constexpr uint16_t kJPEGInterchangeFormatLength = 514;
constexpr uint16_t kExifIFD = 34665;
constexpr uint16_t kGpsIFD = 34853;
constexpr uint16_t kInteropIFD = 40965;

// SubIFDs listed by one entry; cameras use one to three.
constexpr uint32_t kMaxSubIfdsPerEntry = 64;

}  // namespace

TiffWalker::TiffWalker(Candidate& c, uint64_t base, TiffLimits limits) : c_(c), base_(base), limits_(limits) {}

uint32_t TiffWalker::typeSize(uint16_t type) {
  switch (type) {
    case 1: case 2: case 6: case 7: return 1;
    case 3: case 8: return 2;
    case 4: case 9: case 11: case 13: return 4;
    case 5: case 10: case 12: case 16: case 17: case 18: return 8;
    default: return 0;
  }
}

std::optional<uint16_t> TiffWalker::u16(uint64_t pos) { return bigEndian_ ? c_.be16(pos) : c_.le16(pos); }
std::optional<uint32_t> TiffWalker::u32(uint64_t pos) { return bigEndian_ ? c_.be32(pos) : c_.le32(pos); }

std::optional<uint32_t> TiffWalker::readHeader() {
  const auto order = c_.be16(base_);
  if (!order) return std::nullopt;
  if (*order == 0x4949) bigEndian_ = false;
  else if (*order == 0x4D4D) bigEndian_ = true;
  else return std::nullopt;
  const auto magic = u16(base_ + 2);
  const auto ifd0 = u32(base_ + 4);
  if (!magic || !ifd0) return std::nullopt;
  magic_ = *magic;
  return *ifd0;
}

void TiffWalker::addIfd(uint64_t offset, TiffIfdKind kind) { queue_.emplace_back(offset, kind); }
void TiffWalker::addRange(uint64_t offset, uint64_t length) { ranges_.emplace_back(offset, length); }

std::vector<uint64_t> TiffWalker::values(const TiffEntry& e, uint32_t max) {
  std::vector<uint64_t> out;
  const uint32_t size = typeSize(e.type);
  const bool unsignedType = e.type == 1 || e.type == 3 || e.type == 4 || e.type == 13 || e.type == 16 || e.type == 18;
  if (!unsignedType || size == 0) return out;
  uint64_t n = std::min<uint64_t>(e.count, max);
  if (valuesRead_ >= limits_.maxValuesRead) return out;
  n = std::min<uint64_t>(n, limits_.maxValuesRead - valuesRead_);
  // Values that would lie past the drive's end are not there to read.
  if (!c_.has(e.valuePos, n * size)) return out;
  out.reserve(static_cast<size_t>(n));
  for (uint64_t i = 0; i < n; ++i) {
    const uint64_t at = e.valuePos + i * size;
    std::optional<uint64_t> v;
    switch (size) {
      case 1: v = c_.u8(at); break;
      case 2: v = u16(at); break;
      case 4: v = u32(at); break;
      default: v = bigEndian_ ? c_.be64(at) : c_.le64(at); break;
    }
    if (!v) break;
    out.push_back(*v);
  }
  valuesRead_ += out.size();
  return out;
}

void TiffWalker::reach(uint64_t from, uint64_t length, TiffWalkResult& r) {
  if (length == 0) return;
  if (!c_.has(from, length)) {
    r.pastDriveEnd = true;
    return;
  }
  r.end = std::max(r.end, from + length);
}

void TiffWalker::countPairs(const std::vector<TiffEntry>& offsets, const std::vector<TiffEntry>& counts,
                           TiffWalkResult& r) {
  for (size_t k = 0; k < offsets.size() && k < counts.size(); ++k) {
    const auto off = values(offsets[k], UINT32_MAX);
    const auto len = values(counts[k], UINT32_MAX);
    if (off.size() < offsets[k].count || len.size() < counts[k].count) r.capped = true;
    for (size_t i = 0; i < off.size() && i < len.size(); ++i) {
      if (len[i] == 0) continue;
      reach(base_ + off[i], len[i], r);
      r.imageDataFound = true;
    }
  }
}

void TiffWalker::visit(uint64_t offset, TiffIfdKind kind, TiffWalkResult& r) {
  if (offset == 0 || c_.stopped()) return;
  if (visited_.size() >= limits_.maxIfds) {
    r.capped = true;
    return;
  }
  const uint64_t pos = base_ + offset;
  if (!visited_.insert(pos).second) return;  // a loop, or a second pointer to it
  TiffIfd ifd;
  ifd.pos = pos;
  ifd.kind = kind;
  const auto count = u16(pos);
  if (!count) {
    r.pastDriveEnd = true;
    return;
  }
  ifd.entryCount = *count;
  if (*count == 0 || *count > limits_.maxEntriesPerIfd) {
    if (*count > limits_.maxEntriesPerIfd) r.capped = true;
    r.ifds.push_back(ifd);
    return;
  }
  const uint64_t ifdBytes = 2 + 12ull * *count + 4;
  if (!c_.has(pos, ifdBytes)) {
    r.pastDriveEnd = true;
    r.ifds.push_back(ifd);
    return;
  }
  reach(pos, ifdBytes, r);

  std::vector<TiffEntry> stripOffsets, stripCounts, tileOffsets, tileCounts;
  std::optional<uint64_t> jpegAt, jpegLength;
  std::vector<TiffEntry> entries;
  entries.reserve(*count);
  for (uint32_t i = 0; i < *count; ++i) {
    const uint64_t at = pos + 2 + 12ull * i;
    TiffEntry e;
    e.tag = u16(at).value_or(0);
    e.type = u16(at + 2).value_or(0);
    e.count = u32(at + 4).value_or(0);
    const uint32_t size = typeSize(e.type);
    if (size != 0) ++ifd.validTypes;
    e.valueBytes = uint64_t{size} * e.count;
    if (e.valueBytes <= 4) {
      e.valuePos = at + 8;
    } else {
      e.valuePos = base_ + u32(at + 8).value_or(0);
      reach(e.valuePos, e.valueBytes, r);
    }
    entries.push_back(e);
  }
  r.ifds.push_back(ifd);

  for (const TiffEntry& e : entries) {
    switch (e.tag) {
      case kStripOffsets: stripOffsets.push_back(e); break;
      case kStripByteCounts: stripCounts.push_back(e); break;
      case kTileOffsets: tileOffsets.push_back(e); break;
      case kTileByteCounts: tileCounts.push_back(e); break;
      case kJPEGInterchangeFormat: {
        auto v = values(e, 1);
        if (!v.empty()) jpegAt = v[0];
        break;
      }
      case kJPEGInterchangeFormatLength: {
        auto v = values(e, 1);
        if (!v.empty()) jpegLength = v[0];
        break;
      }
      case kExifIFD:
      case kGpsIFD:
      case kInteropIFD: {
        auto v = values(e, 1);
        const TiffIfdKind k = e.tag == kExifIFD ? TiffIfdKind::Exif : e.tag == kGpsIFD ? TiffIfdKind::Gps : TiffIfdKind::Interop;
        if (!v.empty()) enqueue(v[0], k, r);
        break;
      }
      case kSubIFDs:
        for (uint64_t v : values(e, kMaxSubIfdsPerEntry)) enqueue(v, TiffIfdKind::SubIfd, r);
        break;
      default: break;
    }
    if (onEntry) onEntry(r.ifds.back(), e);
  }
  countPairs(stripOffsets, stripCounts, r);
  countPairs(tileOffsets, tileCounts, r);
  if (jpegAt && jpegLength && *jpegLength > 0) {
    reach(base_ + *jpegAt, *jpegLength, r);
    r.imageDataFound = true;
  }
  const auto next = u32(pos + 2 + 12ull * *count);
  if (next && *next != 0) enqueue(*next, kind == TiffIfdKind::Main ? TiffIfdKind::Chain : kind, r);
}

void TiffWalker::enqueue(uint64_t offset, TiffIfdKind kind, TiffWalkResult& r) {
  // More pointers than IFDs that may be visited are not worth keeping.
  if (queue_.size() >= 4ull * limits_.maxIfds) {
    r.capped = true;
    return;
  }
  queue_.emplace_back(offset, kind);
}

TiffWalkResult TiffWalker::walk(uint64_t ifd0Offset) {
  TiffWalkResult r;
  r.headerOk = true;
  r.bigEndian = bigEndian_;
  reach(base_, 8, r);
  queue_.insert(queue_.begin(), {ifd0Offset, TiffIfdKind::Main});
  // Breadth first, in the order pointers were met.
  for (size_t i = 0; i < queue_.size() && !c_.stopped(); ++i) {
    const auto [offset, kind] = queue_[i];
    visit(offset, kind, r);
    if (r.capped && visited_.size() >= limits_.maxIfds) break;
  }
  queue_.clear();
  for (const auto& [offset, length] : ranges_) {
    reach(base_ + offset, length, r);
  }
  return r;
}

bool checkTIFF_FileAtBlock(Candidate& c, Sig& sig) {
  TiffWalker walker(c);
  const auto ifd0 = walker.readHeader();
  if (!ifd0 || walker.magic() != 42 || *ifd0 < 8) return false;
  bool hasImageTag = false;
  walker.onEntry = [&](const TiffIfd& ifd, const TiffEntry& e) {
    if (ifd.kind == TiffIfdKind::Main && (e.tag == kImageWidth || e.tag == kImageWidth + 1)) hasImageTag = true;
  };
  const TiffWalkResult r = walker.walk(*ifd0);
  if (r.ifds.empty()) return false;
  const TiffIfd& first = r.ifds.front();
  // IFD0 must read as a directory: some entries, each of a known type, and
  // the image's size among them.
  if (first.kind != TiffIfdKind::Main || first.entryCount == 0 || first.validTypes != first.entryCount ||
      !hasImageTag)
    return false;
  if (r.imageDataFound && r.end > 0) {
    setFoundSizeWithSkip(c, sig, r.end);
  } else {
    // Where the pixels lie is not known, so neither is the length.
    sig.foundSize = 0;
    sig.skipFileSize = false;
  }
  return true;
}

}  // namespace ambrel
