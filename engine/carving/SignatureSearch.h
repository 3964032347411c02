#pragma once
// The signature search: the free blocks of a volume, or every sector of a
// drive, looked at for the selected file types' signatures at each block
// start; a hit goes to its format's validator, and each accepted file becomes
// an entry under a folder for its category and one for its extension.
//
// One search is one object over a Volume (for a drive: a Volume made from the
// drive dictionary, blockSize 1, HPlusVolStart 0). It runs in the calling
// thread; the volume's stopTreeThread stops it between blocks.
//
//   SignatureSearch search(volume, selectedSigs);   // groups built here
//   SearchStats stats = search.signatureSearch();   // or signatureSearchDisk()
#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "carving/Sig.h"
#include "carving/Validator.h"

namespace ambrel {

class Volume;
class HDIR;

// Records that share an offset and a header length, looked up by header.
struct SigGroup {
  uint16_t offset = 0;        // "Signature Offset"
  uint8_t headerLength = 0;   // "Signature Header Length"
  std::unique_ptr<BTreeTableClassSig> table;  // "Signature BTree"
  // Which leading two bytes (one for one-byte headers) any key of the table
  // has: most blocks are turned away here without a table search.
  std::vector<uint64_t> prefix;
  // The record under "ID" in a two-byte group at offset 0: every block is
  // first tried with it (the MP3 rule).
  Sig* idRecord = nullptr;
  // An MP3 record with no extras: it refuses, before its validator runs,
  // every block that starts with no frame sync, "ID" or "RI".
  bool idRecordIsPlainMp3 = false;

  Sig* lookup(uint64_t key) const;
};

struct SearchStats {
  uint64_t examined = 0;          // the examined counter, skips included
  uint64_t accepted = 0;          // matches a validator accepted
  uint64_t unreadableBatches = 0; // batches holding sectors that could not be read (those read as zeros)
  uint64_t notListed = 0;         // accepted past the 32-bit block numbers an extent can hold
  uint64_t sizesCut = 0;          // files whose size was cut at the drive's end
  bool stopped = false;
};

class SignatureSearch {
 public:
  // `selected`: the chosen file types' records in tree order (copied: the
  // search's validators write into its own copies). `validators`: the
  // dispatch table (tests may substitute entries).
  SignatureSearch(Volume& volume, const std::vector<const Sig*>& selected,
                  const ValidatorTable& validators = builtInValidators());
  ~SignatureSearch();
  SignatureSearch(const SignatureSearch&) = delete;
  SignatureSearch& operator=(const SignatureSearch&) = delete;

  // The free blocks of the volume between startPos and endPos (percent).
  // Needs blockSize, totalBlocks and allocationExt (fillAllocationExt).
  SearchStats signatureSearch();
  // Every sector of the drive between startPos and endPos.
  SearchStats signatureSearchDisk();

  const std::vector<SigGroup>& groups() const { return btreeSigArray_; }
  // Progress goes out at most this often (a second; tests shorten it).
  void setProgressInterval(std::chrono::milliseconds interval) { progressInterval_ = interval; }
  SearchState& state() { return state_; }

  // Sector batches: 40 blocks for a volume; 317 sectors read and 315
  // examined for a drive (the overlap lets a key near a batch's end be read).
  static constexpr uint32_t kVolumeBatchBlocks = 40;
  static constexpr uint32_t kDriveBatchRead = 317;
  static constexpr uint32_t kDriveBatchExamined = 315;

 private:
  struct Batch;
  void populateBTreeSigArray();
  void prepareRoot();
  // Looks at one block whose bytes start at `bytes`; returns the block to go
  // on with (block + 1, or further after a carved file's skip).
  uint64_t matchBlock(uint64_t block, const uint8_t* bytes, SectorSource& source);
  bool runCheckForSig(Sig& sig, uint16_t hdr16, bool& ran, uint64_t block, SectorSource& source);
  uint64_t acceptMatch(uint64_t block, Sig& sig, const Sig& primary, bool throughExtra, SectorSource& source);
  void rtfAttachmentTest(uint64_t block, Sig& sig, SectorSource& source);
  HDIR* addFileToListAtBlock(uint64_t block, const Sig& sig);
  HDIR* addRtfGraphicToListAtBlock(uint64_t block, const Sig& sig, const std::string& fileName, HDIR* bundle);
  HDIR* folderNamed(HDIR* parent, const std::string& name, int32_t childrenCount, int32_t parentAdds);
  std::unique_ptr<HDIR> fileEntry(uint64_t block, const Sig& sig, HDIR* parent, const std::string& name,
                                  uint64_t* size);
  uint64_t entrySize(uint64_t block, const Sig& sig);
  void sendProgress(uint64_t examined, uint64_t count, bool drive);
  void pace();
  CarveGeometry geometry() const;

  Volume& volume_;
  ValidatorTable validators_;
  std::vector<std::unique_ptr<Sig>> sigArray_;  // the search's copies, in tree order
  std::vector<SigGroup> btreeSigArray_;
  SearchState state_;
  SearchStats stats_;
  std::vector<uint8_t> scratch_;  // the candidates' read buffer
  std::string status_;
  uint64_t driveSectors_ = 0;
  bool driveSearch_ = false;
  uint32_t keySlackBytes_ = 0;  // how far past a block start a key may reach
  bool updateStatus_ = false;
  std::chrono::milliseconds progressInterval_{1000};
  std::chrono::steady_clock::time_point start_{}, lastTick_{};
};

// Sets up a volume (from a partition or range dictionary) for the search of
// its free blocks: its header, block size and count, and the allocation
// file's extents. False with `error` set when no volume header was found.
bool prepareVolumeForSignatureSearch(Volume& volume, std::string& error);

// A name of up to 3 characters in lower case; "tiff"/"jpeg"-like 4-character
// names (fourth character F or G) as "tif"/"jpg"; nullopt otherwise.
std::optional<std::string> standardSigExtensionForExtension(const std::string& extension);

// The picture extensions an RTF document's attachments may have.
bool isSupportedRTFGraphic(const std::string& extension);

}  // namespace ambrel
