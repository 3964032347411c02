// The search of a whole drive for HFS+ volume headers, the grading of each
// volume found, and the mapping of B-tree nodes to drive sectors.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <fmt/format.h>

#include "base/Endian.h"
#include "media/DMedia.h"
#include "media/NodeChecks.h"

namespace ambrel {

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint64_t kChunkSectors = 63;
constexpr uint64_t kChunkBytes = kChunkSectors * kSectorSize;  // 32256
// Chunks fetched per read: the logic still works chunk by chunk, but the
// drive is read in larger pieces so the search runs near read speed.
constexpr uint64_t kChunksPerRead = 32;
// The node size assumed when the catalog header node is unusable (8 KiB).
constexpr int32_t kAssumedCatalogNodeSectors = 16;
constexpr uint64_t kNodesPerReport = 50;
constexpr uint64_t kChunksPerReport = 100;

double secondsSince(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

bool isHFSPlusSignature(uint16_t sig) { return sig == kHFSPlusSigWord || sig == kHFSXSigWord; }

// Consecutive 63-sector chunks read in larger pieces. Sectors past the drive's
// end, and sectors that cannot be read, read as zeros.
class ChunkWindow {
 public:
  explicit ChunkWindow(DMedia& media) : media_(media), buffer_(kChunksPerRead * kChunkBytes) {}

  const uint8_t* chunkAt(uint64_t sector) {
    const uint64_t span = kChunksPerRead * kChunkSectors;
    if (!valid_ || sector < start_ || sector + kChunkSectors > start_ + span) {
      start_ = sector;
      valid_ = true;
      const uint64_t left = media_.sizeInSect > sector ? media_.sizeInSect - sector : 0;
      const uint64_t count = std::min(left, span);
      // Past the drive's end no stale candidates stay behind; a bad sector
      // reads as zeros and costs only itself.
      std::memset(buffer_.data() + count * kSectorSize, 0, buffer_.size() - count * kSectorSize);
      if (count > 0) media_.readSectorsSalvaging(sector, count, buffer_.data());
    }
    return buffer_.data() + (sector - start_) * kSectorSize;
  }

 private:
  DMedia& media_;
  std::vector<uint8_t> buffer_;
  uint64_t start_ = 0;
  bool valid_ = false;
};

}  // namespace

bool DMedia::verifyVIB(const VolumeInformationBlock& h) const {
  return h.fileCount != 0 && h.folderCount != 0 && verifyVIBLayout(h);
}

bool DMedia::verifyVIBLayout(const VolumeInformationBlock& h) const {
  const uint32_t sectorsPerBlock = h.blockSize / kSectorSize;
  const bool blockSizeOk = h.blockSize >= 1024 && h.blockSize % kSectorSize == 0 &&
                           (sectorsPerBlock == 2 || sectorsPerBlock == 4 || sectorsPerBlock == 8 ||
                            sectorsPerBlock == 16);
  if (!blockSizeOk) return false;
  if (h.totalBlocks == 0 || h.createDate == 0 || h.modifyDate == 0 || h.dataClumpSize == 0 ||
      (h.signature == 0 && h.version == 0))
    return false;
  for (const HFSPlusForkData_* fork : {&h.catalogFile, &h.extentsFile}) {
    if (fork->logicalSize == 0 || fork->clumpSize == 0 || fork->totalBlocks == 0 ||
        fork->extents.extDesc[0].startBlock == 0 || fork->extents.extDesc[0].blockCount == 0)
      return false;
  }
  return true;
}

uint64_t DMedia::catalogNodeToSector(uint32_t node) const {
  if (catNodeSize <= 0 || blockSize <= 0) return kNoSector;
  const uint32_t nodeSectors = static_cast<uint32_t>(catNodeSize);
  const uint32_t bs = static_cast<uint32_t>(blockSize);
  uint32_t r = node;
  for (const Extent& e : catalogExt) {
    // Byte counts in 32 bits, as the system computes them.
    const uint32_t nodeBytes = r * nodeSectors * kSectorSize;
    const uint32_t extentBytes = e.blockCount * bs * kSectorSize;
    if (nodeBytes < extentBytes)
      return HPlusVolStart + uint64_t{e.startBlock} * bs + uint64_t{r} * nodeSectors;
    r -= e.blockCount * bs / nodeSectors;
  }
  return kNoSector;
}

uint64_t DMedia::extentsNodeToSector(uint32_t node) const {
  if (extNodeSize <= 0 || blockSize <= 0) return kNoSector;
  const uint32_t nodeSectors = static_cast<uint32_t>(extNodeSize);
  const uint32_t bs = static_cast<uint32_t>(blockSize);
  uint32_t r = node;
  // Bounded by the header's eight descriptors.
  for (const auto& d : vib.extentsFile.extents.extDesc) {
    const uint32_t nodeBytes = r * nodeSectors * kSectorSize;
    const uint32_t extentBytes = d.blockCount * bs * kSectorSize;
    if (nodeBytes < extentBytes)
      return HPlusVolStart + uint64_t{d.startBlock} * bs + uint64_t{r} * nodeSectors;
    r -= d.blockCount * bs / nodeSectors;
  }
  return kNoSector;
}

int DMedia::readingAgreement(const VolumeInformationBlock& h, uint64_t start, bool alternate) {
  const uint64_t bs = h.blockSize / kSectorSize;
  const uint64_t size = bs * h.totalBlocks;
  uint8_t sector[kSectorSize] = {};
  const uint64_t catalog = start + uint64_t{h.catalogFile.extents.extDesc[0].startBlock} * bs;
  if (catalog < sizeInSect && readSector(catalog, 1, sector) && headerRecordIfGood(sector)) return 2;
  // The header's other copy: the alternate for a primary reading, and back.
  const uint64_t other = alternate ? start + 2 : start + size - 2;
  std::memset(sector, 0, sizeof sector);
  if (other < sizeInSect && readSector(other, 1, sector)) {
    VolumeInformationBlock copy;
    std::memcpy(&copy, sector, sizeof copy);
    convertVIB(&copy);
    if (isHFSPlusSignature(copy.signature) && copy.createDate == h.createDate) return 1;
  }
  // Catalog leaves where the header puts the catalog, at either common node size.
  for (uint64_t nodeSectors : {uint64_t{8}, uint64_t{16}})
    for (uint64_t n = 1; n <= 8; ++n) {
      const uint64_t at = catalog + n * nodeSectors;
      if (at >= sizeInSect || n * nodeSectors >= uint64_t{h.catalogFile.extents.extDesc[0].blockCount} * bs) break;
      std::memset(sector, 0, sizeof sector);
      if (!readSector(at, 1, sector)) continue;
      if (auto d = nodeDescriptorOf(sector); d && isLeafNode(*d) && d->numRecords > 0) return 1;
    }
  return 0;
}

void DMedia::reportNodeWalk(uint64_t done, uint64_t total, double elapsedSeconds) {
  if (!appController) return;
  appController->updateVolumeScanProgress(ProgressReport{
      {progress::kTimeRemainingForSubTask, timeRemainingText(elapsedSeconds, done, total)},
      {progress::kProgressStatus, 1}});
}

uint32_t DMedia::countLeafNodes(int32_t nodeSizeInSectors) {
  if (nodeSizeInSectors <= 0 || blockSize <= 0) return 0;
  const uint64_t bs = static_cast<uint32_t>(blockSize);
  const uint64_t nodeSectors = static_cast<uint32_t>(nodeSizeInSectors);
  uint64_t total = 0;
  for (const Extent& e : catalogExt) total += e.blockCount * bs / nodeSectors;
  uint64_t leaves = 0, done = 0;
  const auto started = Clock::now();
  uint8_t sector[kSectorSize];
  for (const Extent& e : catalogExt) {
    const uint64_t nodes = e.blockCount * bs / nodeSectors;
    const uint64_t first = HPlusVolStart + e.startBlock * bs;
    for (uint64_t n = 0; n < nodes && !abortVolumeScan.load(); ++n) {
      // Block counts come from disk: nodes past the drive's end are not read
      // (and are no leaves).
      if (first + n * nodeSectors >= sizeInSect) break;
      std::memset(sector, 0, sizeof sector);
      readSector(first + n * nodeSectors, 1, sector);
      if (auto desc = nodeDescriptorOf(sector); desc && isLeafNode(*desc)) ++leaves;
      if (++done % kNodesPerReport == 0) reportNodeWalk(done, total, secondsSince(started));
    }
  }
  return total == 0 ? 0 : static_cast<uint32_t>(leaves * 100 / total);
}

void DMedia::verifyVolumeAndGetData(std::string& result, uint64_t whetherAlternateSector) {
  const size_t countBefore = volumeScanArray.size();
  btreeForUsedCatNodeSector.clear();
  result = "Valid";
  const BTreeSetup setup = readBTreeHeaders();
  if (!setup.extentsHeaderGood) result = "Partial Valid";
  const uint64_t volumeSize = uint64_t{static_cast<uint32_t>(blockSize)} * vib.totalBlocks;

  bool haveValidity = false;
  uint32_t validity = 0;
  bool listed = false;
  if (setup.catalogHeaderGood) {
    // The leaf chain, guarded against cycles by the visited-node table.
    uint64_t records = 0, done = 0;
    const auto started = Clock::now();
    uint8_t sector[kSectorSize];
    for (uint32_t node = firstLeafNode; node != 0 && !abortVolumeScan.load();) {
      if (btreeForUsedCatNodeSector.retrieveKeyField(node)) break;
      const uint64_t at = catalogNodeToSector(node);
      if (at == kNoSector) break;
      std::memset(sector, 0, sizeof sector);
      readSector(at, 1, sector);
      auto desc = nodeDescriptorOf(sector);
      if (!desc || !isLeafNode(*desc) || desc->numRecords == 0) break;
      btreeForUsedCatNodeSector.insert(node, 0);
      records += desc->numRecords;
      if (++done % kNodesPerReport == 0) reportNodeWalk(done, setup.catalogTotalNodes, secondsSince(started));
      node = desc->fLink;
    }
    validity = setup.catalogLeafRecords > records ? static_cast<uint32_t>(records * 100 / setup.catalogLeafRecords)
                                                   : 100;
    haveValidity = true;

    const uint64_t at = catalogNodeToSector(firstLeafNode);
    uint8_t node[2 * kSectorSize] = {};
    if (at != kNoSector) readSector(at, 2, node);
    if (auto name = at != kNoSector ? rootFolderNameOf(node) : std::nullopt) {
      PlistDict volume = volumeDictionary(HPlusVolStart, volumeSize, {}, 1);
      volume.set("Volume Validity", fmt::format("{}", validity));
      volume.set("WhetherAlternateSector", whetherAlternateSector);
      if (!name->empty()) volume.set("Volume Name", *name);
      else volume.erase("Volume Name");
      volumeScanArray.push_back(std::move(volume));
      result = "Valid";
      listed = true;
    }
  }
  if (!listed) {
    const uint32_t leafShare =
        countLeafNodes(setup.catalogHeaderGood ? catNodeSize : kAssumedCatalogNodeSectors);
    if (!haveValidity || leafShare > validity) validity = leafShare;
    PlistDict volume = volumeDictionary(HPlusVolStart, volumeSize, "Untitled", 1);
    volume.set("Volume Validity", fmt::format("{}", validity));
    volume.set("WhetherAlternateSector", whetherAlternateSector);
    volumeScanArray.push_back(std::move(volume));
    result = "Partial Valid";
  }
  if (abortVolumeScan.load() && volumeScanArray.size() > countBefore) {
    volumeScanArray.items.pop_back();
    result = "Invalid";
  }
}

ProgressReport DMedia::completeReport() const {
  ProgressReport done{{progress::kScanComplete, true}};
  if (readErrors.any()) done.set(progress::kReadErrors, readErrors.summary());
  return done;
}

void DMedia::initializeForVolumeQuickScan(const VolumeScanRequest& request) {
  AppControllerInterface* controller = request.controller ? request.controller : appController;
  auto send = [controller](ProgressReport r) {
    if (controller) controller->updateVolumeScanProgress(r);
  };
  readErrors.clear();
  const uint64_t total = sizeInSect;
  const uint64_t chunks = total / kChunkSectors;
  send({{progress::kBarMaxValue, sizeInBytes / kChunkBytes}});
  ChunkWindow window(*this);
  const auto started = Clock::now();
  uint64_t passes = 0;
  uint64_t s = 0;
  while (s < total && !abortVolumeScan.load()) {
    if (++passes % kChunksPerReport == 0)
      send({{progress::kBarIncrement, 100},
            {progress::kTimeRemaining, timeRemainingText(secondsSince(started), passes, chunks)}});
    const uint8_t* chunk = window.chunkAt(s);
    uint64_t next = s + kChunkSectors;
    for (uint64_t i = 0; i < kChunkSectors; ++i) {
      if (!isHFSPlusSignature(loadBE16(chunk + i * kSectorSize))) continue;
      // Only the first candidate of a chunk is examined.
      if (s + i >= 2) {
        std::memcpy(&vib, chunk + i * kSectorSize, sizeof vib);
        convertVIB(&vib);
        HPlusVolStart = s + i - 2;
        const uint64_t end = HPlusVolStart + uint64_t{vib.blockSize / kSectorSize} * vib.totalBlocks;
        if (end < total) {
          std::string result;
          verifyVolumeAndGetData(result, 0);
          if (result == "Valid") {
            if (request.rows)
              request.rows->push_back(PlistDict{
                  {"Found Column", fmt::format("Volume Start Signature Found At Sector: {}", HPlusVolStart)},
                  {"Validity Column", result}});
            send({{progress::kBarIncrement, (end - s) / kChunkSectors}});
            send({{progress::kVolumesFound, 1}});
            // Nothing inside a valid volume is searched.
            if (end > s) next = end;
          }
        }
      }
      break;
    }
    s = next;
  }
  if (request.volumes)
    for (const auto& v : volumeScanArray) request.volumes->push_back(v);
  send(completeReport());
}

void DMedia::initializeForVolumeThoroughScan(const VolumeScanRequest& request) {
  AppControllerInterface* controller = request.controller ? request.controller : appController;
  auto send = [controller](ProgressReport r) {
    if (controller) controller->updateVolumeScanProgress(r);
  };
  volFoundAtSectorArray.clear();
  readErrors.clear();
  send({{progress::kBarMaxValue, sizeInBytes / kChunkBytes}});
  send({{progress::kBarDoubleValue, 0}});
  send({{progress::kTimeRemaining, ""}});

  const uint64_t total = sizeInSect;
  const uint64_t chunks = (total + kChunkSectors - 1) / kChunkSectors;
  ChunkWindow window(*this);
  auto estimateStart = Clock::now();
  uint64_t chunk = 0, chunkAtEstimateStart = 0;

  auto alreadyListed = [&](uint64_t start) {
    return std::find(volFoundAtSectorArray.begin(), volFoundAtSectorArray.end(), start) != volFoundAtSectorArray.end();
  };
  auto verifyAt = [&](uint64_t start, uint64_t alternateSector) {
    HPlusVolStart = start;
    send({{progress::kStartAnimation, true}, {progress::kProgressStatus, true}});
    std::string result;
    verifyVolumeAndGetData(result, alternateSector);
    send({{progress::kStopAnimation, true}});
    if (result != "Invalid" && !alreadyListed(start)) {
      if (request.rows)
        request.rows->push_back(PlistDict{{"Found Column", fmt::format("Volume Found At Sector: {}", start)},
                                          {"Validity Column", result}});
      volFoundAtSectorArray.push_back(start);
      send({{progress::kVolumesFound, true}});
    }
    // The estimate starts afresh after each verification.
    estimateStart = Clock::now();
    chunkAtEstimateStart = chunk;
  };

  // A reading of a header whose place the disk does not confirm (a copy in a
  // journal, a primary header read as an alternate one, a volume whose
  // catalog is gone): kept, and listed at the end only when no confirmed
  // reading of a volume with that creation date was found.
  struct Reading {
    VolumeInformationBlock header;
    uint64_t start, alternateSector;
    int agreement;
    size_t order;
  };
  std::vector<Reading> unconfirmed;
  constexpr size_t kMaxUnconfirmed = 4096;
  // Where the listed volumes lie, by creation date: a reading of the same
  // date that overlaps none of them is another volume (a cloned partition),
  // not a copy of a header of one of them.
  struct Listed {
    uint32_t createDate;
    uint64_t start, end;
  };
  std::vector<Listed> listed;
  auto note = [&](const VolumeInformationBlock& h, uint64_t start) {
    listed.push_back({h.createDate, start, start + uint64_t{h.blockSize / kSectorSize} * h.totalBlocks});
  };
  auto overlapsListed = [&](const Reading& r) {
    const uint64_t end = r.start + uint64_t{r.header.blockSize / kSectorSize} * r.header.totalBlocks;
    for (const Listed& l : listed)
      if (l.createDate == r.header.createDate && r.start < l.end && l.start < end) return true;
    return false;
  };
  auto consider = [&](const VolumeInformationBlock& h, uint64_t start, uint64_t alternateSector) {
    if (alreadyListed(start)) return;
    const int agreement = readingAgreement(h, start, alternateSector != 0);
    if (agreement == 2) {
      vib = h;
      verifyAt(start, alternateSector);
      btreeForVIBCreateDate.insert(h.createDate, 0);
      note(h, start);
    } else if (unconfirmed.size() < kMaxUnconfirmed) {
      unconfirmed.push_back({h, start, alternateSector, agreement, unconfirmed.size()});
    }
  };

  for (uint64_t pos = 0; pos < total && !abortVolumeScan.load(); pos += kChunkSectors, ++chunk) {
    if ((chunk + 1) % kChunksPerReport == 0)
      send({{progress::kTimeRemaining, timeRemainingText(secondsSince(estimateStart), chunk - chunkAtEstimateStart,
                                                     chunks - chunkAtEstimateStart)},
            {progress::kBarIncrement, 100}});
    const uint8_t* bytes = window.chunkAt(pos);
    for (uint64_t i = 0; i < kChunkSectors && !abortVolumeScan.load(); ++i) {
      const uint8_t* sector = bytes + i * kSectorSize;
      if (!isHFSPlusSignature(loadBE16(sector))) continue;
      const uint64_t s = pos + i;
      if (s >= total) break;
      VolumeInformationBlock h;
      std::memcpy(&h, sector, sizeof h);
      convertVIB(&h);
      // Every plausible header is looked at: its creation date alone may be
      // shared with the journal's copies of it. An alternate header may still
      // carry the counts of a new volume.
      if (!verifyVIBLayout(h)) continue;
      const uint64_t size = uint64_t{h.blockSize / kSectorSize} * h.totalBlocks;
      if (verifyVIB(h) && s >= 2 && s - 2 + size <= total) consider(h, s - 2, 0);
      if (s >= 2 && size < s - 2 && !abortVolumeScan.load()) consider(h, s - size + 2, s);
    }
  }
  // For each creation date no confirmed reading accounted for, the best of
  // the others: the one the disk agrees with most, an alternate header's
  // before a copy read as a primary one, the first met before later ones.
  // A date already accounted for is listed again only for a reading the disk
  // agrees with somewhat and that lies clear of every volume of that date.
  std::stable_sort(unconfirmed.begin(), unconfirmed.end(), [](const Reading& a, const Reading& b) {
    if (a.agreement != b.agreement) return a.agreement > b.agreement;
    return (a.alternateSector != 0) > (b.alternateSector != 0);
  });
  for (const Reading& r : unconfirmed) {
    if (abortVolumeScan.load()) break;
    if (alreadyListed(r.start)) continue;
    if (btreeForVIBCreateDate.retrieveKeyField(r.header.createDate) && (r.agreement == 0 || overlapsListed(r)))
      continue;
    btreeForVIBCreateDate.insert(r.header.createDate, 0);
    vib = r.header;
    verifyAt(r.start, r.alternateSector);
    note(r.header, r.start);
  }
  if (request.volumes)
    for (const auto& v : volumeScanArray) request.volumes->push_back(v);
  send(completeReport());
}

}  // namespace ambrel
