#pragma once
// What a format validator sees: the candidate file that starts at a matched
// block, read through a bounded reader of the drive's sectors.
//
// A validator is a plain function `bool check(Candidate&, Sig&)`: it reads the
// candidate's structure, answers YES (a file of its format starts here) or NO,
// and leaves in the Sig what it established: foundSize (bytes; 0 = no length
// known, the search then gives the file the user's maximum size),
// skipFileSize and skipSize. The search hands it the drive's sectors; tests
// and fuzzers hand it bytes in memory (MemorySectorSource). Nothing a
// validator reads can reach past the drive's end: positions there read as
// nothing (nullopt / false), sectors that cannot be read come back as zeros,
// as a zeroed buffer after a failed read would.
//
// docs/format/carving.md tells how a new validator plugs into the dispatch.
#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "carving/Sig.h"

namespace ambrel {

class HDIR;

// Absolute sectors of a drive (or of bytes in memory standing for one).
class SectorSource {
 public:
  virtual ~SectorSource() = default;
  virtual uint64_t sectorCount() const = 0;
  // Reads count sectors from `sector` into out; false when any of them could
  // not be read. Callers never ask past sectorCount().
  virtual bool readSectors(uint64_t sector, uint32_t count, uint8_t* out) = 0;
  // Sectors already in memory from `sector` on (their number in *count), or
  // nullptr: what a search has just read is not read again.
  virtual const uint8_t* cached(uint64_t sector, uint64_t* count) { return nullptr; }
};

// Bytes in memory as a drive; a trailing partial sector reads zero-padded.
class MemorySectorSource : public SectorSource {
 public:
  explicit MemorySectorSource(std::span<const uint8_t> bytes) : bytes_(bytes) {}
  uint64_t sectorCount() const override { return (bytes_.size() + 511) / 512; }
  bool readSectors(uint64_t sector, uint32_t count, uint8_t* out) override;

 private:
  std::span<const uint8_t> bytes_;
};

// Where blocks lie: block b starts at sector HPlusVolStart + b * blockSize.
// The drive search uses blockSize 1 and HPlusVolStart 0.
struct CarveGeometry {
  uint64_t HPlusVolStart = 0;
  int32_t blockSize = 1;     // sectors per block
  uint64_t totalBlocks = 0;  // the volume's blocks (drive search: sectors searched)
  // Absolute sector where the searched volume ends (a drive search: the
  // drive's end); 0: HPlusVolStart + blockSize * totalBlocks.
  uint64_t areaEnd = 0;
};

// One picture an RTF document names, or (wrapper) the RTFD bundle that the
// last carved document became; the wrapper is always the last entry.
struct RtfdEntry {
  std::string fileName;  // "RTF Graphics Object Filename"
  int64_t width = 0;     // "RTF Graphics Object Width", points
  int64_t height = 0;    // "RTF Graphics Object Height", points
  bool wrapper = false;
  uint64_t wrapperBlock = 0;    // "RTF Graphics Wrapper Block Number"
  HDIR* parentDir = nullptr;    // "RTF Graphics Parent HDir", inside the tree
};

// A set of absolute sectors kept as merged runs, so that a stream of any
// length costs one entry and memory grows only with the files carved.
class SectorRanges {
 public:
  // Adds sectors first ... last (inclusive); nothing when last < first.
  void add(uint64_t first, uint64_t last);
  bool contains(uint64_t sector) const;
  size_t runCount() const { return runs_.size(); }
  bool empty() const { return runs_.empty(); }

 private:
  std::map<uint64_t, uint64_t> runs_;  // first sector -> last sector, disjoint and not touching
};

// State one search keeps across blocks, shared by the validators.
struct SearchState {
  SectorRanges mp3DoneArray;  // sectors of MP3 streams already carved
  SectorRanges mpgDoneArray;  // sectors of MPEG program streams already carved
  std::vector<RtfdEntry> rtfdArray;
  bool lookForRtfAttachments = false;
  const std::atomic<bool>* stop = nullptr;  // the search's stop flag

  bool stopped() const { return stop && stop->load(std::memory_order_relaxed); }
};

class Candidate {
 public:
  // `scratch`, when given, holds the sectors read (a search lends one buffer
  // to all its candidates).
  Candidate(SectorSource& source, const CarveGeometry& geometry, uint64_t block, SearchState& state,
            std::vector<uint8_t>* scratch = nullptr);
  Candidate(const Candidate&) = delete;
  Candidate& operator=(const Candidate&) = delete;

  uint64_t block() const { return block_; }
  int32_t blockSize() const { return geometry_.blockSize; }
  uint64_t blockBytes() const { return uint64_t(geometry_.blockSize) * 512; }
  uint64_t HPlusVolStart() const { return geometry_.HPlusVolStart; }
  uint64_t totalBlocks() const { return geometry_.totalBlocks; }
  // F: the candidate's first sector (absolute).
  uint64_t firstSector() const { return firstSector_; }
  // V: the volume's size in sectors (blockSize * totalBlocks).
  uint64_t volumeSectors() const;
  // The absolute sector where the volume ends on the drive. A rule that
  // stops reading "before the volume's size" compares absolute sectors with
  // this, so that a volume far into its drive is read to its real end.
  uint64_t areaEndSector() const;
  uint64_t driveSectors() const { return driveSectors_; }
  // Bytes from the candidate's start to the drive's end.
  uint64_t bytesToDriveEnd() const;
  bool stopped() const { return state_.stopped(); }
  SearchState& state() { return state_; }

  // Absolute sectors into out (count * 512 bytes), zero-filled first:
  // sectors past the drive's end and sectors that cannot be read stay zero.
  // False when any sector was not read.
  bool readSectors(uint64_t sector, uint32_t count, uint8_t* out);
  // The same sectors without a copy: valid until the next read through this
  // candidate. count is at most kMaxViewSectors.
  const uint8_t* sectors(uint64_t sector, uint32_t count);
  static constexpr uint32_t kMaxViewSectors = 256;

  // Positions are byte offsets from the candidate's start. nullopt / false
  // only past the drive's end.
  std::optional<uint8_t> u8(uint64_t pos);
  std::optional<uint16_t> be16(uint64_t pos);
  std::optional<uint32_t> be32(uint64_t pos);
  std::optional<uint64_t> be64(uint64_t pos);
  std::optional<uint16_t> le16(uint64_t pos);
  std::optional<uint32_t> le32(uint64_t pos);
  std::optional<uint64_t> le64(uint64_t pos);
  bool bytes(uint64_t pos, size_t n, uint8_t* out);
  bool has(uint64_t pos, uint64_t n) const;
  // The first position at or after pos whose byte is not zero; the drive's
  // end (bytesToDriveEnd()) when there is none. With a limit, the search
  // stops there and answers it.
  uint64_t nextNonZero(uint64_t pos, uint64_t limit = UINT64_MAX);

  // A carved file's bytes as the preview reader gives them: size bytes from
  // `block`, in units of one block (8 sectors when blocks are sectors),
  // stopping at the stop flag or a failed read (what was read stays).
  void fillDataFromBlock(uint64_t block, uint64_t size, std::vector<uint8_t>& out);

 private:
  // Makes the window hold sectors [sector, sector + count); false past the
  // drive's end.
  bool load(uint64_t sector, uint32_t count = 1);

  SectorSource& source_;
  CarveGeometry geometry_;
  uint64_t block_;
  SearchState& state_;
  uint64_t firstSector_;
  uint64_t driveSectors_;
  // The sectors around the last position read: in the source's memory, or
  // read into the buffer.
  std::vector<uint8_t> own_;
  std::vector<uint8_t>* buffer_;
  const uint8_t* window_ = nullptr;
  uint64_t windowFirst_ = 0;
  uint64_t windowSectors_ = 0;
};

// A validator: YES when a file of its format starts at the candidate.
using ValidatorFn = bool (*)(Candidate&, Sig&);

// File-type codes that have a validator. 29 is RAR 5, whose archives the
// older RAR walk cannot read; codes above it have none.
inline constexpr uint32_t kHighestValidatorCode = 29;

// The validator of each code 0 ... 29; nullptr where a code has none (a match
// is then accepted as it stands). The search takes a copy, so tests can swap
// entries.
struct ValidatorTable {
  ValidatorFn byCode[kHighestValidatorCode + 1] = {};
  ValidatorFn forCode(uint32_t code) const { return code <= kHighestValidatorCode ? byCode[code] : nullptr; }
};
// The validators this build has.
const ValidatorTable& builtInValidators();
// Whether a code's validator exists in this build (for listings).
bool validatorIsBuilt(uint32_t code);
// The name of a code's validator ("checkJPGFileAtBlock:sig:"), "" for none.
const char* validatorName(uint32_t code);

// Sets foundSize and the skip from it, as the validators that skip whole blocks do.
void setFoundSizeWithSkip(Candidate& c, Sig& sig, uint64_t foundSize);

}  // namespace ambrel
