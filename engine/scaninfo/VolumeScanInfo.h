#pragma once
// Scan info files for a scanned Volume: its archive, saving it with its
// partition list and drive sectors, opening one back into a Volume with its
// tree, and finding the drive the file belongs to.
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hfs/Volume.h"
#include "scaninfo/ScanInfoFile.h"

namespace ambrel {

// The keys a Volume archives (which depend on its volumeScanType).
VolumeArchive volumeArchiveOf(const Volume& volume);
// A Volume as its initWithCoder: makes it: the archived fields, a fresh empty
// btree, nothing read from the drive yet.
std::unique_ptr<Volume> volumeFromArchive(const VolumeArchive& archive, AppControllerInterface* controller);

// Saves the volume's tree. `partitionList` is partitionListDictArray for a
// volume from the partition table (type 0), partitionScanListDictArray for
// one found by the header search (1), ignored otherwise. Sectors 0-4 are read
// through the volume. Sets scanInfoSaved on success.
std::optional<ScanInfoError> saveScanInfo(const std::string& path, Volume& volume, const PlistArray& partitionList,
                                          AppControllerInterface* controller, uint64_t* entriesWritten = nullptr);

struct OpenedScanInfo {
  std::unique_ptr<Volume> volume;  // dirRoot is the tree; openedScanInfo and scanInfoSaved are set
  PlistArray partitionList;        // as saved, for type 0 or 1
  std::vector<uint8_t> first5Sectors;
  uint64_t entryCount = 0;
};
struct OpenScanInfoResult {
  std::optional<OpenedScanInfo> opened;
  ScanInfoError error;
};
OpenScanInfoResult openScanInfo(const std::string& path, AppControllerInterface* controller);

// The drive a file belongs to: the first of `driveDicts` whose sectors 0-4
// equal first5Sectors and whose model and serial equal the volume's; -1 when
// none does (driveNotConnected).
int findScanInfoDrive(const Volume& volume, const std::vector<uint8_t>& first5Sectors, const PlistArray& driveDicts);
// For a volume device (type 2): the first mounted volume of the same size in
// sectors and "Volume Name"; -1 when none is mounted (volumeNotConnected).
int findScanInfoVolume(const Volume& volume, const PlistArray& volumeDicts);

}  // namespace ambrel
