#include "carving/SignatureSearch.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fmt/format.h>

#include "base/Endian.h"
#include "base/ProgressReport.h"
#include "hfs/Volume.h"

namespace ambrel {

namespace {

constexpr uint64_t kID = 0x4944;  // "ID": the ID3 tag an MP3 record carries
// The largest allocation block the search reads 40 of at a time (1 MiB);
// HFS+ volumes use 4 KiB, and a header claiming more than this is damaged.
constexpr int32_t kMaxBlockSectors = 2048;

// A float percentage of a size, truncated; negative or NaN gives 0.
template <class T>
T truncated(float value) {
  if (!(value > 0)) return 0;
  if (value >= static_cast<float>(std::numeric_limits<T>::max())) return std::numeric_limits<T>::max();
  return static_cast<T>(value);
}

uint64_t keyAt(const uint8_t* p, uint8_t length) {
  uint64_t v = 0;
  for (uint8_t i = 0; i < length; ++i) v = (v << 8) | p[i];
  return v;
}

uint32_t prefixOf(uint64_t key, uint8_t length) {
  return length >= 2 ? static_cast<uint32_t>((key >> (8 * (length - 2))) & 0xFFFF) : static_cast<uint32_t>(key & 0xFF);
}

uint64_t driveSectorsOf(Volume& v) {
  std::string error;
  const PlistDict drive = driveDictionaryForPath(v.path, error);
  const uint64_t sectors = drive.u64("device size") / kSectorSize;
  if (sectors > 0) return sectors;
  return v.sizeInSect;
}

// The allocation file's bits, one bitmap block kept at a time. Each block is
// judged by its own bit alone: a free block just after a used one in the same
// byte is free, and searched.
class AllocationBits {
 public:
  explicit AllocationBits(Volume& v) : v_(v) {}

  // flags[i] is 0 when block first + i is free; bits the bitmap does not
  // hold (or that cannot be read) leave their flag as the caller set it.
  void freeOf40(uint64_t first, uint8_t flags[]) {
    const uint64_t bitsPerBlock = uint64_t(v_.blockSize) * kSectorSize * 8;
    for (uint32_t i = 0; i < SignatureSearch::kVolumeBatchBlocks; ++i) {
      const uint64_t bit = first + i;
      if (!load(bit / bitsPerBlock)) continue;
      const uint64_t at = bit % bitsPerBlock;
      if (((block_[at / 8] >> (7 - at % 8)) & 1) == 0) flags[i] = 0;
    }
  }

 private:
  bool load(uint64_t index) {
    if (index == index_) return ok_;
    index_ = index;
    ok_ = false;
    uint64_t rest = index;
    for (const Extent& e : v_.allocationExt) {
      if (rest < e.blockCount) {
        const uint64_t sectors = uint64_t(v_.blockSize);
        block_.assign(sectors * kSectorSize, 0);
        ok_ = v_.readSector(v_.HPlusVolStart + (uint64_t{e.startBlock} + rest) * sectors,
                            static_cast<int32_t>(sectors), block_.data());
        break;
      }
      rest -= e.blockCount;
    }
    return ok_;
  }

  Volume& v_;
  std::vector<uint8_t> block_;
  uint64_t index_ = UINT64_MAX;
  bool ok_ = false;
};

}  // namespace

bool prepareVolumeForSignatureSearch(Volume& volume, std::string& error) {
  if (!volume.initializeVIB()) {
    error = "no HFS+ or HFSX volume header was found, so its free blocks are not known";
    return false;
  }
  if (volume.blockSize > kMaxBlockSectors) {
    error = fmt::format("the volume header gives blocks of {} bytes, more than any volume uses",
                        uint64_t(volume.blockSize) * kSectorSize);
    return false;
  }
  volume.totalBlocks = volume.vib.totalBlocks;
  // The extents tree lets a fragmented allocation file be followed.
  volume.checkCatalogAndExtentsFile();
  volume.fillAllocationExt();
  if (volume.allocationExt.empty()) {
    error = "the volume header gives no allocation file";
    return false;
  }
  return true;
}

Sig* SigGroup::lookup(uint64_t key) const {
  const uint32_t p = prefixOf(key, headerLength);
  if (!((prefix[p >> 6] >> (p & 63)) & 1)) return nullptr;
  auto* item = table->retrieveKeyField(key);
  return item ? item->sig : nullptr;
}

// The sectors the search reads: the current batch straight from its buffer,
// anything else from the drive.
struct SignatureSearch::Batch : SectorSource {
  Volume& volume;
  uint64_t driveSectors;
  std::vector<uint8_t> buffer;
  uint64_t first = 0;    // absolute sector of buffer[0]
  uint64_t sectors = 0;  // sectors of the buffer that came from the drive
  bool good = false;

  Batch(Volume& v, uint64_t drive) : volume(v), driveSectors(drive) {}
  uint64_t sectorCount() const override { return driveSectors; }
  bool readSectors(uint64_t sector, uint32_t count, uint8_t* out) override {
    if (good && sector >= first && sector - first + count <= sectors) {
      std::memcpy(out, buffer.data() + (sector - first) * kSectorSize, size_t{count} * kSectorSize);
      return true;
    }
    return volume.readSector(sector, static_cast<int32_t>(count), out);
  }
  const uint8_t* cached(uint64_t sector, uint64_t* count) override {
    if (!good || sector < first || sector - first >= sectors) return nullptr;
    *count = sectors - (sector - first);
    return buffer.data() + (sector - first) * kSectorSize;
  }

  // Reads `want` sectors from `at` into the buffer; what lies past the drive
  // or could not be read is zero. A bad sector costs only itself; false when
  // there was one.
  bool fill(uint64_t at, uint64_t want) {
    first = at;
    const size_t bytes = static_cast<size_t>(want) * kSectorSize;
    if (buffer.size() < bytes) buffer.resize(bytes);
    sectors = at < driveSectors ? std::min(want, driveSectors - at) : 0;
    good = sectors > 0;
    const bool whole = !good || volume.readSectorsSalvaging(at, sectors, buffer.data()) == 0;
    if (sectors < want) std::memset(buffer.data() + sectors * kSectorSize, 0, bytes - sectors * kSectorSize);
    return whole;
  }
};

SignatureSearch::SignatureSearch(Volume& volume, const std::vector<const Sig*>& selected,
                                 const ValidatorTable& validators)
    : volume_(volume), validators_(validators) {
  for (const Sig* s : selected)
    if (s) sigArray_.push_back(s->mutableCopy());
  state_.stop = &volume_.stopTreeThread;
  populateBTreeSigArray();
}

SignatureSearch::~SignatureSearch() = default;

void SignatureSearch::populateBTreeSigArray() {
  btreeSigArray_.clear();
  for (const auto& sig : sigArray_) {
    // A header length outside 1 ... 8 names no bytes a block could match.
    if (sig->headerLength < 1 || sig->headerLength > 8) continue;
    auto it = std::find_if(btreeSigArray_.begin(), btreeSigArray_.end(), [&](const SigGroup& g) {
      return g.offset == sig->offset && g.headerLength == sig->headerLength;
    });
    if (it == btreeSigArray_.end()) {
      SigGroup g;
      g.offset = sig->offset;
      g.headerLength = sig->headerLength;
      g.table = std::make_unique<BTreeTableClassSig>();
      g.prefix.assign(65536 / 64, 0);
      btreeSigArray_.push_back(std::move(g));
      it = btreeSigArray_.end() - 1;
    }
    it->table->insert(sig->header, sig.get());
    const uint32_t p = prefixOf(sig->header, sig->headerLength);
    it->prefix[p >> 6] |= uint64_t{1} << (p & 63);
  }
  keySlackBytes_ = 0;
  for (SigGroup& g : btreeSigArray_) {
    keySlackBytes_ = std::max<uint32_t>(keySlackBytes_, uint32_t{g.offset} + g.headerLength);
    if (g.headerLength == 2 && g.offset == 0) g.idRecord = g.lookup(kID);
    g.idRecordIsPlainMp3 = g.idRecord && g.idRecord->typeOfFile == 16 && g.idRecord->extension == "mp3" &&
                           g.idRecord->extraExts().empty() && validators_.forCode(16) != nullptr;
  }
}

CarveGeometry SignatureSearch::geometry() const {
  CarveGeometry g{volume_.HPlusVolStart, volume_.blockSize, volume_.totalBlocks, 0};
  if (driveSearch_) g.areaEnd = driveSectors_;
  return g;
}

void SignatureSearch::prepareRoot() {
  if (!volume_.btree) volume_.btree = std::make_unique<BTreeTableClass>();
  if (!volume_.dirRoot) {
    auto root = std::make_unique<HDIR>();
    root->fileType = kHDIRFolder;
    root->fileID = kRootFolderID;
    root->parentID = kRootParentID;
    root->setFileName("Root");
    root->setBtreeHDIR(volume_.btree.get());
    volume_.btree->insert(kRootFolderID, root.get());
    volume_.dirRoot = std::move(root);
  }
  // Carved entries never take a catalog ID that HFS+ reserves.
  volume_.maxFileID = std::max<uint32_t>(volume_.maxFileID, 16);
}

void SignatureSearch::pace() {
  const auto now = std::chrono::steady_clock::now();
  if (now - lastTick_ >= progressInterval_) {
    lastTick_ = now;
    updateStatus_ = true;
  }
}

void SignatureSearch::sendProgress(uint64_t examined, uint64_t count, bool drive) {
  if (!volume_.appController) return;
  const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  const uint64_t unit = drive ? kSectorSize : uint64_t(volume_.blockSize) * kSectorSize;
  ProgressReport r;
  r.set(progress::kTimeRemaining,
        examined <= count / 500 ? std::string("Calculating ...") : timeRemainingText(elapsed, examined, count));
  r.set(progress::kPercentDone, count ? examined * 100 / count : uint64_t{0});
  r.set(progress::kTotalSize, count * unit);
  r.set(progress::kSizeDone, examined * unit);
  r.set(progress::kProgressStatus, status_);
  r.set(progress::kFolders, volume_.folderCount);
  r.set(progress::kFiles, volume_.fileCount);
  r.set(progress::kEntriesFound, volume_.entryCount);
  r.set(progress::kData, volume_.dataSize);
  r.set(progress::kBarDoubleValue, examined);
  volume_.appController->updateProgress(r);
}

SearchStats SignatureSearch::signatureSearch() {
  stats_ = {};
  prepareRoot();
  const uint64_t totalBlocks = volume_.totalBlocks;
  const int32_t bs = volume_.blockSize;
  if (bs <= 0 || bs > kMaxBlockSectors) return stats_;
  const float span = static_cast<float>(totalBlocks) * (volume_.endPos - volume_.startPos) / 100.0f;
  uint32_t count = truncated<uint32_t>(span);
  const uint32_t first = truncated<uint32_t>(static_cast<float>(totalBlocks) * volume_.startPos / 100.0f);
  // A float holds 24 bits: on a large volume "to 100 %" could stop short of
  // the last blocks. The whole rest means the whole rest.
  if (volume_.endPos >= 100.0f && totalBlocks > first) count = static_cast<uint32_t>(std::min<uint64_t>(totalBlocks - first, UINT32_MAX));

  status_ = fmt::format("Performing Signature Search For Deleted Files on {}", volume_.volumeName);
  if (volume_.appController) {
    volume_.appController->updateProgress(
        {{progress::kProgressStatus, status_}, {progress::kProgressType, 1}, {progress::kBarMaxValue, count}});
    volume_.appController->updateProgress({{progress::kTimeRemaining, ""}});
  }
  start_ = lastTick_ = std::chrono::steady_clock::now();
  updateStatus_ = false;

  driveSectors_ = driveSectorsOf(volume_);
  driveSearch_ = false;
  Batch batch(volume_, driveSectors_);
  const uint64_t blockBytes = uint64_t(bs) * kSectorSize;
  // Keys at large offsets of the last blocks reach past the 40 blocks.
  const uint64_t slackSectors = keySlackBytes_ > blockBytes ? (keySlackBytes_ - blockBytes + kSectorSize - 1) / kSectorSize : 0;
  const uint64_t readSectors = uint64_t{kVolumeBatchBlocks} * bs + slackSectors;

  AllocationBits bitmap(volume_);
  uint64_t examined = 0;
  const uint64_t end = uint64_t{first} + count;
  uint64_t b = first;
  while (b < end && !volume_.stopTreeThread.load()) {
    uint8_t used[kVolumeBatchBlocks];
    std::memset(used, 1, sizeof used);
    bitmap.freeOf40(b, used);
    bool anyFree = false;
    for (uint32_t i = 0; i < kVolumeBatchBlocks; ++i)
      if (!used[i] && b + i < totalBlocks) anyFree = true;
    // A batch of used blocks needs no bytes: none of them is examined.
    if (anyFree && !batch.fill(volume_.HPlusVolStart + b * uint64_t(bs), readSectors)) ++stats_.unreadableBatches;

    uint64_t next = b + kVolumeBatchBlocks;
    for (uint32_t i = 0; i < kVolumeBatchBlocks; ++i) {
      const uint64_t B = b + i;
      ++examined;
      if (state_.rtfdArray.empty()) state_.lookForRtfAttachments = false;
      if (volume_.stopTreeThread.load()) break;
      if (updateStatus_ && examined != 0) {
        sendProgress(examined, count, false);
        updateStatus_ = false;
      }
      // Blocks past the volume's end hold no file of it.
      if (B >= totalBlocks || used[i]) continue;
      if (B <= UINT32_MAX && volume_.btreeFirstFileBlock.retrieveKeyField(static_cast<uint32_t>(B))) continue;
      const uint64_t after = matchBlock(B, batch.buffer.data() + i * blockBytes, batch);
      if (after > B + 1) {
        examined += after - B;
        if (after >= b + kVolumeBatchBlocks) {
          next = after;
          break;
        }
        i = static_cast<uint32_t>(after - b) - 1;
      }
    }
    pace();
    b = next;
  }
  stats_.examined = examined;
  stats_.stopped = volume_.stopTreeThread.load();
  return stats_;
}

SearchStats SignatureSearch::signatureSearchDisk() {
  stats_ = {};
  prepareRoot();
  const uint64_t total = driveSectors_ = driveSectorsOf(volume_);
  driveSearch_ = true;
  uint64_t count = truncated<uint64_t>(static_cast<float>(total) * (volume_.endPos - volume_.startPos) / 100.0f);
  const uint64_t first = truncated<uint64_t>(static_cast<float>(total) * volume_.startPos / 100.0f);
  if (volume_.endPos >= 100.0f && total > first) count = total - first;
  volume_.totalBlocks = count;
  volume_.blockSize = 1;
  volume_.HPlusVolStart = 0;

  status_ = fmt::format("Performing Signature Search on drive {} {} {}", volume_.model, volume_.serial, volume_.revision);
  if (volume_.appController) {
    volume_.appController->updateProgress(
        {{progress::kProgressStatus, status_}, {progress::kProgressType, 1}, {progress::kBarMaxValue, count}});
    volume_.appController->updateProgress({{progress::kTimeRemaining, ""}});
  }
  start_ = lastTick_ = std::chrono::steady_clock::now();
  updateStatus_ = false;

  Batch batch(volume_, total);
  const uint64_t slackSectors = (keySlackBytes_ + kSectorSize - 1) / kSectorSize;
  const uint64_t readSectors = std::max<uint64_t>(kDriveBatchRead, kDriveBatchExamined + slackSectors);

  uint64_t examined = 0;
  const uint64_t end = first + count;
  uint64_t b = first;
  while (b < end && !volume_.stopTreeThread.load()) {
    if (!batch.fill(b, readSectors)) ++stats_.unreadableBatches;
    uint64_t next = b + kDriveBatchExamined;
    for (uint32_t i = 0; i < kDriveBatchExamined; ++i) {
      const uint64_t S = b + i;
      ++examined;
      if (state_.rtfdArray.empty()) state_.lookForRtfAttachments = false;
      if (volume_.stopTreeThread.load()) break;
      if (updateStatus_ && examined != 0) {
        sendProgress(examined, count, true);
        updateStatus_ = false;
      }
      if (S >= total) break;  // past the drive's end there is nothing to examine
      const uint64_t after = matchBlock(S, batch.buffer.data() + size_t{i} * kSectorSize, batch);
      if (after > S + 1) {
        examined += after - S;
        if (after >= b + kDriveBatchExamined) {
          next = after;
          break;
        }
        i = static_cast<uint32_t>(after - b) - 1;
      }
    }
    pace();
    b = next;
  }
  stats_.examined = examined;
  stats_.stopped = volume_.stopTreeThread.load();
  return stats_;
}

uint64_t SignatureSearch::matchBlock(uint64_t block, const uint8_t* bytes, SectorSource& source) {
  const uint16_t hdr16 = loadBE16(bytes);
  const bool mp3Frame = hdr16 > 0xFFDF || hdr16 == 0x4944 || hdr16 == 0x5249;
  bool forced = false;
  bool ran = false;
  for (size_t g = 0; g < btreeSigArray_.size(); ++g) {
    if (volume_.stopTreeThread.load(std::memory_order_relaxed)) break;
    const SigGroup& group = btreeSigArray_[g];
    bool retried = false;
  again:
    Sig* sig = nullptr;
    if (group.idRecord && !forced) {
      // Every block whose start may be an MPEG audio frame is tried with the
      // MP3 record first, whatever its bytes.
      forced = true;
      // A plain MP3 record refuses any other block before its validator
      // runs, and the group is then tried with the block's own bytes.
      if (group.idRecordIsPlainMp3 && !mp3Frame) {
        retried = true;
        goto again;
      }
      sig = group.idRecord;
    } else {
      const uint8_t* key = bytes + group.offset;
      const uint32_t p = group.headerLength >= 2 ? uint32_t{key[0]} << 8 | key[1] : key[0];
      if (!((group.prefix[p >> 6] >> (p & 63)) & 1)) continue;
      auto* item = group.table->retrieveKeyField(keyAt(key, group.headerLength));
      if (!item) continue;
      sig = item->sig;
    }
    if (runCheckForSig(*sig, hdr16, ran, block, source)) return acceptMatch(block, *sig, *sig, false, source);
    if (!sig->extraExts().empty()) {
      for (const auto& extra : sig->extraExts())
        if (runCheckForSig(*extra, hdr16, ran, block, source)) return acceptMatch(block, *extra, *sig, true, source);
      return block + 1;  // no further group for this block
    }
    // The MP3 rule kept the validator from running: try the group once more
    // with the bytes the block really holds.
    if (sig->extension == "mp3" && !ran && !retried) {
      retried = true;
      goto again;
    }
  }
  return block + 1;
}

bool SignatureSearch::runCheckForSig(Sig& sig, uint16_t hdr16, bool& ran, uint64_t block, SectorSource& source) {
  ValidatorFn fn = validators_.forCode(sig.typeOfFile);
  if (!fn) return true;  // no validator: accepted as matched
  if (sig.typeOfFile == 16) {
    if (!(hdr16 > 0xFFDF || hdr16 == 0x4944 || hdr16 == 0x5249)) return false;
    ran = true;
  }
  Candidate candidate(source, geometry(), block, state_, &scratch_);
  return fn(candidate, sig);
}

}  // namespace ambrel
