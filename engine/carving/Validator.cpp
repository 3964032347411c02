#include "carving/Validator.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "base/Endian.h"
#include "carving/Validators.h"

namespace ambrel {

void SectorRanges::add(uint64_t first, uint64_t last) {
  if (last < first) return;
  // Merge with a run that starts before `first` and reaches it (or touches it).
  auto it = runs_.upper_bound(first);
  if (it != runs_.begin()) {
    auto before = std::prev(it);
    if (before->second == UINT64_MAX || before->second + 1 >= first) {
      first = before->first;
      last = std::max(last, before->second);
      it = runs_.erase(before);
    }
  }
  // And with every run that starts inside the new one or right after it.
  while (it != runs_.end() && (last == UINT64_MAX || it->first <= last + 1)) {
    last = std::max(last, it->second);
    it = runs_.erase(it);
  }
  runs_.emplace(first, last);
}

bool SectorRanges::contains(uint64_t sector) const {
  auto it = runs_.upper_bound(sector);
  if (it == runs_.begin()) return false;
  return std::prev(it)->second >= sector;
}

bool MemorySectorSource::readSectors(uint64_t sector, uint32_t count, uint8_t* out) {
  const uint64_t want = uint64_t{count} * 512;
  std::memset(out, 0, want);
  if (sector >= sectorCount()) return false;
  const uint64_t from = sector * 512;
  const uint64_t n = std::min<uint64_t>(want, bytes_.size() - from);
  std::memcpy(out, bytes_.data() + from, n);
  return sector + count <= sectorCount();
}

Candidate::Candidate(SectorSource& source, const CarveGeometry& geometry, uint64_t block, SearchState& state,
                     std::vector<uint8_t>* scratch)
    : source_(source),
      geometry_(geometry),
      block_(block),
      state_(state),
      driveSectors_(source.sectorCount()),
      buffer_(scratch ? scratch : &own_) {
  const uint64_t bs = geometry_.blockSize > 0 ? uint64_t(geometry_.blockSize) : 1;
  // A block number so large that its sector overflows lies past any drive.
  firstSector_ = block > (UINT64_MAX - geometry_.HPlusVolStart) / bs ? UINT64_MAX
                                                                      : geometry_.HPlusVolStart + block * bs;
}

uint64_t Candidate::volumeSectors() const {
  const uint64_t bs = geometry_.blockSize > 0 ? uint64_t(geometry_.blockSize) : 0;
  if (bs && geometry_.totalBlocks > UINT64_MAX / bs) return UINT64_MAX;
  return bs * geometry_.totalBlocks;
}

uint64_t Candidate::areaEndSector() const {
  if (geometry_.areaEnd != 0) return geometry_.areaEnd;
  const uint64_t v = volumeSectors();
  return v > UINT64_MAX - geometry_.HPlusVolStart ? UINT64_MAX : geometry_.HPlusVolStart + v;
}

uint64_t Candidate::bytesToDriveEnd() const {
  if (firstSector_ >= driveSectors_) return 0;
  const uint64_t sectors = driveSectors_ - firstSector_;
  return sectors > UINT64_MAX / 512 ? UINT64_MAX : sectors * 512;
}

bool Candidate::has(uint64_t pos, uint64_t n) const {
  const uint64_t limit = bytesToDriveEnd();
  return pos <= limit && n <= limit - pos;
}

bool Candidate::readSectors(uint64_t sector, uint32_t count, uint8_t* out) {
  std::memset(out, 0, size_t{count} * 512);
  if (sector >= driveSectors_) return false;
  const uint64_t inDrive = std::min<uint64_t>(count, driveSectors_ - sector);
  bool ok = source_.readSectors(sector, static_cast<uint32_t>(inDrive), out);
  if (!ok) {
    // Whatever the source left is not trusted: unreadable sectors read as
    // zeros, one sector each, so one bad sector costs only itself.
    std::memset(out, 0, size_t{count} * 512);
    for (uint64_t i = 0; i < inDrive; ++i)
      if (!source_.readSectors(sector + i, 1, out + i * 512)) std::memset(out + i * 512, 0, 512);
  }
  return ok && inDrive == count;
}

bool Candidate::load(uint64_t sector, uint32_t count) {
  if (window_ && sector >= windowFirst_ && sector - windowFirst_ + count <= windowSectors_) return true;
  if (sector >= driveSectors_) return false;
  uint64_t available = 0;
  if (const uint8_t* p = source_.cached(sector, &available); p && available >= count) {
    window_ = p;
    windowFirst_ = sector;
    windowSectors_ = available;
    return true;
  }
  // Walks go forward: read well ahead, in units the kernel reads quickly.
  const uint32_t n = std::max(count, kMaxViewSectors);
  if (buffer_->size() < size_t{n} * 512) buffer_->resize(size_t{n} * 512);
  readSectors(sector, n, buffer_->data());
  window_ = buffer_->data();
  windowFirst_ = sector;
  windowSectors_ = n;
  return true;
}

const uint8_t* Candidate::sectors(uint64_t sector, uint32_t count) {
  count = std::min(count, kMaxViewSectors);
  if (sector >= driveSectors_ || driveSectors_ - sector < count) {
    // Partly past the drive's end: read (zero-filled) into the buffer.
    const uint32_t n = std::max(count, kMaxViewSectors);
    if (buffer_->size() < size_t{n} * 512) buffer_->resize(size_t{n} * 512);
    readSectors(sector, n, buffer_->data());
    window_ = buffer_->data();
    windowFirst_ = sector;
    windowSectors_ = n;
    return window_;
  }
  load(sector, count);
  return window_ + (sector - windowFirst_) * 512;
}

bool Candidate::bytes(uint64_t pos, size_t n, uint8_t* out) {
  if (!has(pos, n)) return false;
  while (n > 0) {
    const uint64_t sector = firstSector_ + pos / 512;
    if (!load(sector)) return false;
    const uint64_t at = (sector - windowFirst_) * 512 + pos % 512;
    const size_t take = static_cast<size_t>(std::min<uint64_t>(n, windowSectors_ * 512 - at));
    std::memcpy(out, window_ + at, take);
    out += take;
    pos += take;
    n -= take;
  }
  return true;
}

uint64_t Candidate::nextNonZero(uint64_t pos, uint64_t searchLimit) {
  const uint64_t limit = std::min(bytesToDriveEnd(), searchLimit);
  while (pos < limit) {
    if (stopped()) return pos;
    const uint64_t sector = firstSector_ + pos / 512;
    if (!load(sector)) return limit;
    uint64_t at = (sector - windowFirst_) * 512 + pos % 512;
    const uint64_t end = std::min<uint64_t>(windowSectors_ * 512, at + (limit - pos));
    for (; at < end; ++at, ++pos)
      if (window_[at] != 0) return pos;
  }
  return limit;
}

std::optional<uint8_t> Candidate::u8(uint64_t pos) {
  uint8_t b;
  return bytes(pos, 1, &b) ? std::optional(b) : std::nullopt;
}
std::optional<uint16_t> Candidate::be16(uint64_t pos) {
  uint8_t b[2];
  return bytes(pos, 2, b) ? std::optional(loadBE16(b)) : std::nullopt;
}
std::optional<uint32_t> Candidate::be32(uint64_t pos) {
  uint8_t b[4];
  return bytes(pos, 4, b) ? std::optional(loadBE32(b)) : std::nullopt;
}
std::optional<uint64_t> Candidate::be64(uint64_t pos) {
  uint8_t b[8];
  return bytes(pos, 8, b) ? std::optional(loadBE64(b)) : std::nullopt;
}
std::optional<uint16_t> Candidate::le16(uint64_t pos) {
  uint8_t b[2];
  return bytes(pos, 2, b) ? std::optional(loadLE16(b)) : std::nullopt;
}
std::optional<uint32_t> Candidate::le32(uint64_t pos) {
  uint8_t b[4];
  return bytes(pos, 4, b) ? std::optional(loadLE32(b)) : std::nullopt;
}
std::optional<uint64_t> Candidate::le64(uint64_t pos) {
  uint8_t b[8];
  return bytes(pos, 8, b) ? std::optional(loadLE64(b)) : std::nullopt;
}

void Candidate::fillDataFromBlock(uint64_t block, uint64_t size, std::vector<uint8_t>& out) {
  const uint32_t unitSectors = geometry_.blockSize == 1 ? 8 : static_cast<uint32_t>(std::max(geometry_.blockSize, 1));
  const uint64_t unitBytes = uint64_t{unitSectors} * 512;
  const uint64_t bs = geometry_.blockSize > 0 ? uint64_t(geometry_.blockSize) : 1;
  if (block > (UINT64_MAX - geometry_.HPlusVolStart) / bs) return;
  const uint64_t first = geometry_.HPlusVolStart + block * bs;
  const uint64_t units = (size + unitBytes - 1) / unitBytes;
  std::vector<uint8_t> unit(unitBytes);
  for (uint64_t u = 0; u < units; ++u) {
    if (stopped()) return;
    const uint64_t sector = first + u * unitSectors;
    // A unit that does not lie wholly on the drive is a failed read.
    if (sector >= driveSectors_ || driveSectors_ - sector < unitSectors) return;
    std::fill(unit.begin(), unit.end(), 0);
    if (!source_.readSectors(sector, unitSectors, unit.data())) return;
    const uint64_t take = u + 1 < units ? unitBytes : size - (units - 1) * unitBytes;
    out.insert(out.end(), unit.begin(), unit.begin() + static_cast<std::ptrdiff_t>(take));
  }
}

void setFoundSizeWithSkip(Candidate& c, Sig& sig, uint64_t foundSize) {
  sig.foundSize = foundSize;
  sig.skipFileSize = true;
  const uint64_t blocks = foundSize / c.blockBytes();
  sig.skipSize = blocks > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(blocks);
}

namespace {

struct Named {
  ValidatorFn fn;
  const char* name;
  bool built;
};

Named entryFor(uint32_t code) {
  switch (code) {
    case 1: return {checkMSOFileAtBlock, "checkMSOFileAtBlock:sig:", true};
    case 2: return {checkBMPFileAtBlock, "checkBMPFileAtBlock:sig:", true};
    case 3: return {checkJPGFileAtBlock, "checkJPGFileAtBlock:sig:", true};
    case 4: return {checkGIFFileAtBlock, "checkGIFFileAtBlock:sig:", true};
    case 5: return {checkTIFF_FileAtBlock, "checkTIFF_FileAtBlock:sig:", true};
    case 6: return {checkPNGFileAtBlock, "checkPNGFileAtBlock:sig:", true};
    case 8: return {checkCR2FileAtBlock, "checkCR2FileAtBlock:sig:", true};
    case 9: return {checkNEF_FileAtBlock, "checkNEF_FileAtBlock:sig:", true};
    case 10: return {checkSONY_RAWFileAtBlock, "checkSONY_RAWFileAtBlock:sig:", true};
    case 11: return {checkMRWFileAtBlock, "checkMRWFileAtBlock:sig:", true};
    case 12: return {checkORF_FileAtBlock, "checkORF_FileAtBlock:sig:", true};
    case 13: return {checkWAVFileAtBlock, "checkWAVFileAtBlock:sig:", true};
    case 14: return {checkMIDIFileAtBlock, "checkMIDIFileAtBlock:sig:", true};
    case 15: return {checkMOVFileAtBlock, "checkMOVFileAtBlock:sig:", true};
    case 16: return {checkMP3FileAtBlock, "checkMP3FileAtBlock:sig:", true};
    case 17: return {checkMP4FileAtBlock, "checkMP4FileAtBlock:sig:", true};
    case 18: return {checkAVIFileAtBlock, "checkAVIFileAtBlock:sig:", true};
    case 19: return {checkMPGFileAtBlock, "checkMPGFileAtBlock:sig:", true};
    case 20: return {checkICNS_FileAtBlock, "checkICNS_FileAtBlock:sig:", true};
    case 21: return {checkZIP_FileAtBlock, "checkZIP_FileAtBlock:sig:", true};
    case 23: return {checkRAR_FileAtBlock, "checkRAR_FileAtBlock:sig:", true};
    case 24: return {checkPDF_FileAtBlock, "checkPDF_FileAtBlock:sig:", true};
    case 25: return {checkRTF_FileAtBlock, "checkRTF_FileAtBlock:sig:", true};
    case 26: return {check3GPP_FileAtBlock, "check3GPP_FileAtBlock:sig:", true};
    case 27: return {check3GPP2_FileAtBlock, "check3GPP2_FileAtBlock:sig:", true};
    case 28: return {checkAIFF_FileAtBlock, "checkAIFF_FileAtBlock:sig:", true};
    case 29: return {checkRAR5_FileAtBlock, "checkRAR5_FileAtBlock:sig:", true};
    default: return {nullptr, "", false};  // 0, 7, 22: accepted as matched
  }
}

}  // namespace

const ValidatorTable& builtInValidators() {
  static const ValidatorTable table = [] {
    ValidatorTable t;
    for (uint32_t code = 0; code <= kHighestValidatorCode; ++code) t.byCode[code] = entryFor(code).fn;
    return t;
  }();
  return table;
}

bool validatorIsBuilt(uint32_t code) { return entryFor(code).built; }
const char* validatorName(uint32_t code) { return entryFor(code).name; }

}  // namespace ambrel
