#pragma once
// Saving the marked entries of a recovered tree into a folder the user chose:
// both forks of every marked file, read sector by sector through the entry's
// extents. Runs in the calling thread (the GUI puts it on a worker); abort()
// may be called from any thread.
#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/AppControllerInterface.h"
#include "tree/EntryFilter.h"
#include "tree/HDIR.h"

namespace ambrel {

class Volume;

// A sector reader: sector, count of 512-byte sectors, buffer; false on failure.
using SectorReadFn = std::function<bool(uint64_t sector, int32_t count, void* buffer)>;

// What a save or a preview reads from: the tree's volume geometry and a reader.
struct ForkSource {
  uint64_t HPlusVolStart = 0;
  int32_t blockSize = 0;  // sectors per allocation block, for entries that carry none
  int32_t volumeScanType = 0;
  SectorReadFn read;
  // Copies bytes from a sector on straight into a file (DMedia::copySaveSectors);
  // unset, or -1, when only reads will do.
  std::function<int64_t(uint64_t sector, uint64_t bytes, int outFd)> copy;
  // The compression attribute of a file (header and inline payload), for
  // compressed entries; empty when it cannot be found or read.
  std::function<std::vector<uint8_t>(uint32_t fileID)> compressionAttribute;
};
// The volume's readSaveSector / readPreviewSector as sources.
ForkSource saveSourceOf(Volume& volume);
ForkSource previewSourceOf(Volume& volume);

// The destination as the checks before a save see it.
struct DestinationInfo {
  bool exists = false;
  bool writable = false;
  uint64_t freeBytes = 0;
  uint64_t blockBytes = 1;  // the allocation unit, 1 when unknown
  bool infoAvailable = false;  // file-system type known
  bool canSaveSlashes = true;  // an "hfs" destination, or unknown
};
DestinationInfo destinationInfo(const std::string& path);

struct MarkedCount {
  uint64_t markedData = 0;  // sum of fileSize of marked files
  uint32_t markedFiles = 0;
};
// countMarkedDataAndFiles: every marked file in the tree, marked folders or not.
MarkedCount countMarkedDataAndFiles(const HDIR& root);
// "%@ in %@ Files" with "0 KB" for nothing marked.
std::string markedDataText(const MarkedCount& count);
// "Saved: %.2f KB" and so on.
std::string savedDataText(uint64_t bytes);

// What the save needs on the destination: both forks of every file it will
// write (only through marked folders, as it goes), each resource fork with
// its sidecar's header, every file rounded up to the destination's
// allocation unit `blockBytes` and a unit for each folder it makes. Counted
// from the fork sizes, which are what is written: markedData counts
// fileSize, which a scan info file need not keep equal to them.
uint64_t bytesToWrite(const HDIR& root, uint64_t blockBytes = 1, const FilteredTree* filter = nullptr);

// Accounts for every marked file the save reaches: saveCount = filesWritten +
// filesIncomplete + emptyFiles + the visited ones of filesNotSaved.
struct SaveResult {
  bool aborted = false;
  int32_t saveCount = 0;    // marked files visited
  uint64_t savedData = 0;   // bytes written, both forks
  uint64_t bytesRemoved = 0;  // of those, in files removed again (not saved)
  uint32_t filesWritten = 0;     // saved whole under their own names
  // Kept with zeros where the drive could not be read, or cut short by Stop,
  // under a name marked " (incomplete)".
  uint32_t filesIncomplete = 0;
  // Marked files of which nothing was kept: not creatable, not writable (what
  // was written is removed), nothing readable, or below a folder that could
  // not be made (these are not visited).
  uint32_t filesNotSaved = 0;
  uint32_t emptyFiles = 0;       // no bytes in either fork: counted, not created
  uint32_t foldersCreated = 0;
  uint32_t failedCreates = 0;
  uint32_t failedWrites = 0;
  uint32_t failedReads = 0;      // files with sectors that could not be read
  uint64_t unreadableSectors = 0;
  uint32_t renamed = 0;      // names made safe or numbered to avoid a collision
  uint32_t damagedCompressed = 0;  // compressed files with parts that could not be decoded
  // Symbolic links made as links (counted in filesWritten too), and those
  // the destination refused, written as small files holding their target.
  uint32_t symlinksCreated = 0, symlinksAsFiles = 0;
  // Folder links not followed: their folder was already open above them.
  uint32_t linkLoops = 0;
  // Entries of the private metadata folders (a hard-linked file's or a
  // linked folder's one copy) not saved there: their content is saved at
  // each of their links.
  uint32_t savedAtLinks = 0;
  // Files saved whose content may be wrong: the scan listed them with a
  // confidence other than sure (assumed block size, reused blocks, missing extents).
  uint32_t uncertain = 0;
  std::vector<std::string> uncertainFiles;  // the first of them, "path (why)"
  // The first problems and renames, as lines a user can read. Every file not
  // saved whole has a problem line, up to kMaxListedProblems.
  std::vector<std::string> problems;
  size_t unlistedProblems = 0;  // beyond kMaxListedProblems
  std::vector<std::string> renames;

  uint32_t filesNotWhole() const { return filesIncomplete + filesNotSaved; }
  bool anyFailure() const {
    return failedCreates + failedWrites + failedReads + damagedCompressed + filesNotWhole() > 0;
  }
};

// One file the save kept, as a report hears of it: the folder it is in (open
// while the call lasts), its name there, its path below the destination, and
// whether it is whole or kept marked incomplete.
struct SavedFile {
  const HDIR& entry;
  int dirFd;
  const std::string& name;
  std::string path;
  bool whole;
  bool symlink;
  // Its resource fork was written beside it, as "._" + name (AppleDouble).
  bool sidecar = false;
};

class Saver {
 public:
  struct Options {
    // How "/" in names is written; from the destination's type when unset.
    std::optional<bool> canSaveSlashes;
    // Ask the controller the final "Saving Completed" / "Saving Aborted" alert.
    bool finalAlert = true;
    // Hears of every file kept (a report).
    std::function<void(const SavedFile&)> onSaved;
    // Entries it does not keep are not saved, below folder links too (not owned).
    const FilteredTree* filter = nullptr;
  };

  Saver(const HDIR& root, ForkSource source, AppControllerInterface* controller);
  Saver(const HDIR& root, ForkSource source, AppControllerInterface* controller, Options options);

  // saveFilesAndFolders: writes the marked entries of the tree under
  // `destination` (the root folder itself becomes its first level).
  SaveResult saveFilesAndFolders(const std::string& destination);

  // abortDataSaving: noticed before the next child, extent, group or block.
  void abort() { abortSaving_.store(true); }
  bool aborting() const { return abortSaving_.load(); }

  // Progress so far; safe to read from another thread.
  uint64_t savedData() const { return savedData_.load(); }

  static constexpr size_t kMaxListedProblems = 1000;
  // A failed read is tried again sector by sector; after this many failures
  // in a row the rest of that read is given up as unreadable, so that a dead
  // area costs one read of each chunk and a few more, not one per sector.
  static constexpr uint64_t kMaxBadSectorRun = 8;
  static constexpr size_t kMaxOpenFolders = 64;

 private:
  struct Walk;
  enum class Copy { Done, WriteFailed, Aborted };
  // How one fork's copy went.
  struct ForkCopy {
    uint64_t written = 0;
    uint64_t sectorsRead = 0;
    uint64_t sectorsUnreadable = 0;
    bool noGeometry = false;  // no block size: nothing could be read
    int writeError = 0;
  };

  // Copies a fork through its extents; what cannot be read is written as
  // zeros and counted in `out`.
  Copy copyFork(const HDIR& entry, std::span<const Extent> extents, uint64_t logicalSize, int fd, ForkCopy& out);
  // A compressed entry's uncompressed content; parts that cannot be read or
  // decoded are written as zeros and counted in `badChunks`.
  Copy copyCompressed(const HDIR& entry, int fd, ForkCopy& out, uint32_t& badChunks, bool& opened,
                      std::string& why);
  // `count` sectors into `buffer`; a failed read is tried again sector by
  // sector, the sectors that still fail left as zeros.
  // A small fork (at most `max` bytes) into memory; false when it is larger,
  // unreadable in part, or cannot be copied.
  bool readSmallFork(const HDIR& entry, size_t max, std::string& out);
  void readPiece(uint64_t sector, uint64_t count, uint8_t* buffer, ForkCopy& out);
  bool writeAll(int fd, const uint8_t* data, size_t size);
  void reportWrite(uint64_t bytes);
  void problem(std::string text);
  void renamedEntry(const HDIR& entry, const std::string& to);
  int32_t blockSizeOf(const HDIR& entry) const;

  const HDIR& root_;
  ForkSource source_;
  AppControllerInterface* controller_;
  Options options_;
  std::atomic<bool> abortSaving_{false};
  std::atomic<uint64_t> savedData_{0};
  std::vector<uint8_t> buffer_;
  bool copyRefused_ = false;  // the source said it cannot copy: reads only
  SaveResult result_;
};

}  // namespace ambrel
