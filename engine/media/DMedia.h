#pragma once
// One drive (a block device or a disk-image file) and its sector readers.
// The device is opened read-only once and the descriptor kept for the
// object's life; every read is a positioned read on it.
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "base/AppControllerInterface.h"
#include "base/PlistValue.h"
#include "media/ReadErrors.h"
#include "media/Records.h"
#include "media/SectorFaults.h"
#include "tree/Extent.h"
#include "tree/KeyedTable.h"

namespace ambrel {

inline constexpr uint32_t kSectorSize = 512;

enum class PartitionTableKind { None, MBR, GPT, ApplePartitionMap };
const char* partitionTableKindName(PartitionTableKind kind);

// The table kind told from sectors 0 and 1: a protective MBR entry (0xEE) with
// the boot signature is GPT, the boot signature alone is MBR (even when
// sector 1 holds a partition-map signature), else a 'PM' in sector 1.
PartitionTableKind partitionTableKindOf(const uint8_t* sector0, const uint8_t* sector1);

class DMedia {
 public:
  // From a drive dictionary ("device path", "device size", identity keys).
  DMedia(const PlistDict& driveDict, AppControllerInterface* appController);
  virtual ~DMedia();
  DMedia(const DMedia&) = delete;
  DMedia& operator=(const DMedia&) = delete;

  // Positioned reads of count sectors. A read succeeds only when every byte
  // asked for came back; what a failed or short read did not deliver is
  // zeroed, what it did deliver is kept. A read of 0 sectors succeeds
  // without touching the buffer.
  // A read that fails on a drive that has disappeared alerts (once for each
  // reader) and stops running searches and scans.
  bool readSector(uint64_t sector, int32_t count, void* buffer);
  bool readPreviewSector(uint64_t sector, int32_t count, void* buffer);
  bool readSaveSector(uint64_t sector, int32_t count, void* buffer);
  // Copies `bytes` from `sector` on to `outFd` at its offset inside the
  // kernel, for a save. Returns the bytes copied, short when something
  // failed (the caller reads that piece again the ordinary way, which
  // handles bad sectors and a lost drive), or -1 when this drive cannot be
  // copied so at all (sector faults are set, it is gone, or the kernel
  // cannot send from it).
  int64_t copySaveSectors(uint64_t sector, uint64_t bytes, int outFd);

  // count sectors read as one piece when possible; when that fails, again in
  // 63-sector chunks and then sector by sector, so that a bad sector costs
  // only itself. Unreadable sectors are zeroed and noted in readErrors.
  // Returns how many sectors could not be read.
  uint64_t readSectorsSalvaging(uint64_t sector, uint64_t count, void* buffer);
  // One read as a second reading thread makes it: nothing reported, noted or
  // retried, so safe beside the scanning thread. False when the read was not
  // whole; the scanning thread then reads that piece again the usual way.
  bool readSectorsQuietly(uint64_t sector, int32_t count, void* buffer);

  // A B-tree node (or its first sector) at `sector`, read as readSector
  // does; a failure is noted in readErrors as one unreadable node.
  bool readNode(uint64_t sector, int32_t count, void* buffer);
  // One sector (a volume header, a table sector); a failure is noted.
  bool readOneSector(uint64_t sector, void* buffer);

  // What the current scan or search could not read (written by the
  // scanning thread only).
  ReadErrors readErrors;
  // The drive disappeared while it was read: it failed with ENXIO or ENODEV,
  // its device node is gone or is another device now, or the controller no
  // longer lists it. From then on every read fails at once, and each reader
  // has alerted once.
  bool isGone() const { return gone_.load(); }

  // The opened device's own size in sectors (0 when not known).
  uint64_t deviceSectors();
  // Allocation blocks of the volume in vib from HPlusVolStart that lie on
  // the drive: the header's total, cut at the drive's end.
  uint64_t volumeBlocksOnDrive();

  // Volumes whose partition-table size ran past the drive's end were cut to
  // it: volume start -> the size the table gave.
  std::map<uint64_t, uint64_t> sizesCutToDrive;

  // Reads through this fault table from now on (tests); null reads the
  // device as it is. A new DMedia takes SectorFaults::processDefault().
  void setSectorFaults(std::shared_ptr<SectorFaults> faults) { faults_ = std::move(faults); }

  PartitionTableKind partitionTableKind();

  // Partition tables: initialize reads sectors 0 and 1, picks GPT, MBR or the
  // Apple partition map, fills volumePMArray through one reader and a naming
  // pass, and appends its dictionaries to partitionList.
  void initialize(PlistArray& partitionList);
  void readAndInterpretMBR();
  // Appends the non-empty entries of the MBR or EBR at tableSector to list
  // ("System ID", "Relative Sector", "Number Of Sectors"). A table sector
  // already read adds nothing, which ends a chain that points back into itself.
  void fillPTList(PlistArray& list, uint32_t tableSector, uint32_t firstExtOffset);
  void readAndInterpretGPT();
  void readAndInterpretPM();
  void getVolumeNamesGPT();
  void getVolumeNamesPM();

  // Volume search. The scan request stands for the worker's argument array:
  // the controller, the list receiving volume dictionaries and the list
  // receiving result rows.
  struct VolumeScanRequest {
    AppControllerInterface* controller = nullptr;
    PlistArray* volumes = nullptr;
    PlistArray* rows = nullptr;
  };
  bool verifyVIB(const VolumeInformationBlock& header) const;
  // The same checks but for the file and folder counts, which an alternate
  // header may still hold from when the volume was made.
  bool verifyVIBLayout(const VolumeInformationBlock& header) const;
  // vib and HPlusVolStart must be set first; result becomes "Valid",
  // "Partial Valid" or "Invalid".
  void verifyVolumeAndGetData(std::string& result, uint64_t whetherAlternateSector);
  void initializeForVolumeQuickScan(const VolumeScanRequest& request);
  void initializeForVolumeThoroughScan(const VolumeScanRequest& request);
  // kNoSector for a node beyond the B-tree file's extents.
  static constexpr uint64_t kNoSector = UINT64_MAX;
  uint64_t catalogNodeToSector(uint32_t node) const;
  uint64_t extentsNodeToSector(uint32_t node) const;

  void setAbortVolumeScan(bool value) { abortVolumeScan.store(value); }
  bool isOpen() const { return fd_ >= 0; }
  // Opens the device now if it is not open yet (reads do this themselves).
  bool openDevice() { return ensureOpen(); }

  std::string path;
  uint64_t sizeInBytes = 0;
  uint64_t sizeInSect = 0;
  std::string model;
  std::string serial;
  std::string revision;
  int32_t diskPlatform = 0;
  int32_t machinePlatform = 0;
  PlistData firtNonZeroSect;
  uint32_t firstNonZeroSect = 0;
  PlistDict response;
  PlistArray volumePMArray;
  PlistArray volumeScanArray;
  BTreeTableClassUInt32 btreeForUsedCatNodeSector;
  BTreeTableClassUInt32 btreeForVIBCreateDate;
  MasterDirectoryBlock mdb{};
  VolumeInformationBlock vib{};
  uint64_t HPlusVolStart = 0;
  std::vector<Extent> catalogExt;
  std::vector<Extent> extentsExt;
  int32_t extNodeSize = 0;
  int32_t catNodeSize = 0;
  uint32_t extRootNode = 0;
  uint32_t catRootNode = 0;
  uint32_t firstLeafNode = 0;
  int32_t blockSize = 0;
  std::atomic<bool> abortVolumeScan{false};
  AppControllerInterface* appController = nullptr;  // not owned
  std::string cPath;
  std::vector<uint64_t> volFoundAtSectorArray;

 protected:
  // Called once, on the reading thread, when the drive is found gone.
  virtual void onDriveGone() {}

 private:
  enum class Reader { Scan, Preview, Save };
  // Bytes read before the read ended, and the errno that ended it (0 when
  // the device simply ended).
  struct RawRead {
    uint64_t bytes = 0;
    int error = 0;
  };
  RawRead readRaw(uint64_t sector, int32_t count, void* buffer);
  bool ensureOpen();
  bool isListed(const PlistArray& dicts) const;
  // Every reader: reads, zeroes what was not delivered, asks whether a
  // failing drive is still there. bytesRead (optional) receives what came back.
  bool read(Reader reader, uint64_t sector, int32_t count, void* buffer, uint64_t* bytesRead = nullptr);
  bool driveHasGone(int error) const;
  // The device path no longer names the device that was opened.
  bool deviceNodeGone() const;
  void reportGone(Reader reader);
  // Size in sectors of a volume of the partition table, cut to the drive.
  uint64_t sizeWithinDrive(uint64_t start, uint64_t size);
  PlistDict volumeDictionary(uint64_t start, uint64_t sizeInSectors, std::string name, int scanType) const;
  // Steps shared by both naming passes once vib holds a volume header: the
  // B-tree files' extents and header nodes, then the root folder's name.
  void nameVolumeFromHeader(PlistDict& volume);
  // Fills extentsExt and catalogExt from vib and reads both header nodes;
  // false members tell which header node was not good.
  struct BTreeSetup {
    bool extentsHeaderGood = false;
    bool catalogHeaderGood = false;
    uint32_t catalogLeafRecords = 0;
    uint32_t catalogTotalNodes = 0;
  };
  BTreeSetup readBTreeHeaders();
  uint32_t countLeafNodes(int32_t nodeSizeInSectors);
  // "Scan Complete", with what could not be read.
  ProgressReport completeReport() const;
  // How far the disk agrees with header h read as a volume starting at
  // `start`: 2 when the catalog's header node lies where h says, 1 when only
  // h's other copy (or catalog leaves) does, 0 when nothing does.
  int readingAgreement(const VolumeInformationBlock& h, uint64_t start, bool alternate);
  void reportNodeWalk(uint64_t done, uint64_t total, double elapsedSeconds);

  std::set<uint32_t> mbrTablesRead_;

  std::mutex openMutex_;
  std::atomic<int> fd_{-1};
  std::shared_ptr<SectorFaults> faults_;
  std::atomic<bool> gone_{false};
  std::atomic<bool> goneAlerted_[3] = {false, false, false};
};

// The controller's own reader, for a device path no DMedia holds (a mounted
// volume's device while the drive list is built). Opens, reads and closes.
bool readAppSector(AppControllerInterface* appController, uint64_t sector, const std::string& path,
                   int32_t count, void* buffer);

// A drive dictionary for a block device or a disk-image file, with its size
// taken from the device; empty with `error` set when the path cannot be used.
PlistDict driveDictionaryForPath(const std::string& path, std::string& error);

}  // namespace ambrel
