#pragma once
// Scan info files (.asi): a finished scan kept on disk so that it can be
// opened again without scanning the drive.
//
//   0      4 + archive of "UnComple" (while writing) or "Complete"
//          4 + archive of the version string (once complete), zeros to 1024
//   1024   4 + archive of the Volume
//          4 + archive of the partition list (volumeScanType 0) or of the
//              volume-search list (1)
//          2560 bytes: the drive's sectors 0-4 (every type but 2)
//          the tree: one entry block per HDIR in pre-order (HFSPlusDir
//          record, UTF-16 name and path, extent pairs); the file ends with
//          the last entry
//
// All integers are big-endian. Both directions stream: the writer walks the
// tree, the reader builds it entry by entry; neither holds more than one
// entry's bytes. The reader trusts nothing in the file.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/AppControllerInterface.h"
#include "base/PlistValue.h"
#include "scaninfo/ArchivedClasses.h"
#include "tree/HDIR.h"

namespace ambrel {

inline constexpr const char* kScanInfoIncomplete = "UnComple";
inline constexpr const char* kScanInfoComplete = "Complete";
inline constexpr const char* kScanInfoVersion = "Tarnwell Ambrel Scan Info Version 1.0.2";
inline constexpr size_t kScanInfoHeaderSize = 1024;
inline constexpr size_t kScanInfoDriveBytes = 2560;
inline constexpr uint64_t kScanInfoProgressStep = 100;

#pragma pack(push, 1)
// One tree entry as stored, big-endian.
struct HFSPlusDir {
  uint16_t fileNameLength;   // UTF-16 units of the name that follows
  uint16_t pathNameLength;   // UTF-16 units of the path after the name
  uint16_t fileType;         // 1 folder, 2 file
  uint32_t createDate;       // HFS+ seconds
  uint32_t modDate;          // HFS+ seconds
  uint32_t parentID;
  uint32_t fileID;
  uint64_t fileSize;
  uint64_t dataSize;         // no data pairs follow when 0, whatever the count
  uint64_t rscSize;          // no resource pairs follow when 0
  uint32_t fileCount;
  int32_t blockSize;
  uint8_t selected;
  int32_t childrenCount;     // the entry's own field, not the number of blocks
  int32_t childRecordCount;  // entry blocks that follow as direct children
  int32_t dataExtCount;
  int32_t rscExtCount;
};
#pragma pack(pop)
static_assert(sizeof(HFSPlusDir) == 71);

// Entry <-> record. The lengths and counts are the caller's: the names are
// written after the record and the counts decide what follows.
void convertHDirToHPDir(const HDIR& dir, HFSPlusDir& record);  // record in big-endian
void convertHPDirToHDir(const HFSPlusDir& record, HDIR& dir);  // record in big-endian

// Everything of a scan info file but its tree.
struct ScanInfo {
  VolumeArchive volume;
  // partitionListDictArray (volumeScanType 0) or partitionScanListDictArray (1).
  PlistArray partitionList;
  // Sectors 0-4 of the drive; 2560 bytes, absent for a volume device (type 2).
  std::vector<uint8_t> first5Sectors;
};

// Why a file was refused or could not be written: an alert's title and text.
struct ScanInfoError {
  std::string title;
  std::string message;
};

// Where a scan info file may be written: a new file, or an existing regular
// file (a symbolic link is followed to it), and never the drive being
// scanned, `drivePath`, nor anything that resolves to it (the same device and
// inode, or the file behind a loop device). The refusal to show, or nothing
// when fine; `resolved` then receives the real path to write.
std::optional<ScanInfoError> checkScanInfoDestination(const std::string& path, const std::string& drivePath,
                                                      std::string* resolved = nullptr);

// Writes `path` (replacing it), after checkScanInfoDestination with the
// volume's own path as the drive. The file is written under a temporary name
// beside `path`, its marker "UnComple" until the whole tree is in, and renamed
// into place only once complete: on failure nothing is left, and an earlier
// file at `path` stays as it was. Progress goes to `controller` as tree
// reports ("Saving Scan Info", one step per archive and per 100 entries); it
// may be null.
std::optional<ScanInfoError> writeScanInfo(const std::string& path, const ScanInfo& info, const HDIR& root,
                                           AppControllerInterface* controller, uint64_t* entriesWritten = nullptr);

// The header check done before opening: the marker must be "Complete" and
// the version ours. Gives the refusal to show, or nothing when fine.
std::optional<ScanInfoError> checkScanInfoHeader(const std::string& path);

struct ScanInfoContents {
  ScanInfo info;
  std::unique_ptr<HDIR> root;
  uint64_t entryCount = 0;
};

// Reads a whole file (header check included). A damaged body is refused
// with "! Error" and the place where it went wrong, never read past.
struct ScanInfoReadResult {
  std::optional<ScanInfoContents> contents;
  ScanInfoError error;
};
ScanInfoReadResult readScanInfo(const std::string& path, AppControllerInterface* controller);

}  // namespace ambrel
