// Partition tables (MBR with extended partitions, GPT, Apple partition map)
// and the passes that name each HFS+ volume from its own catalog.
#include <cstring>
#include <optional>
#include <fmt/format.h>

#include "base/Text.h"
#include "media/DMedia.h"
#include "media/TableKind.h"
#include "media/NodeChecks.h"

namespace ambrel {

namespace {

constexpr uint8_t kHFSSystemID = 0xAF;
// GPT type GUID 48465300-0000-11AA-AA11-00306543ECAC after conversion.
constexpr uint64_t kHFSPlusGUIDHigh = 0x005346480000AA11ULL;
constexpr uint64_t kHFSPlusGUIDLow = 0xAA1100306543ECACULL;
constexpr size_t kGPTNameUnits = 36;
// Extended boot records a real disk holds are few; this caps a crafted chain
// of distinct sectors as well as the visited set caps a looping one.
constexpr size_t kMaxMBRTables = 4096;
constexpr size_t kMDBBytes = sizeof(MasterDirectoryBlock);

bool isExtendedLink(int64_t systemID) { return systemID == 5 || systemID == 15 || systemID == 133; }

bool isHFSPlusSignature(uint16_t sig) { return sig == kHFSPlusSigWord || sig == kHFSXSigWord; }

// A classic Mac name field of fixed width, up to its first NUL, as UTF-8:
// classic Mac OS wrote these in MacRoman.
std::string macRomanText(const void* bytes, size_t width) {
  return macRomanToUtf8(static_cast<const uint8_t*>(bytes), strnlen(static_cast<const char*>(bytes), width));
}

}  // namespace

PlistDict DMedia::volumeDictionary(uint64_t start, uint64_t sizeInSectors, std::string name, int scanType) const {
  return PlistDict{{"Volume Start", start},          {"Volume Size In Sectors", sizeInSectors},
                   {"Volume Name", std::move(name)}, {"Volume Scan Type", scanType},
                   {"Path", path},                   {"Model", model},
                   {"Serial", serial},               {"Revision", revision}};
}

uint64_t DMedia::sizeWithinDrive(uint64_t start, uint64_t size) {
  const uint64_t room = start < sizeInSect ? sizeInSect - start : 0;
  if (size <= room) return size;
  sizesCutToDrive[start] = size;
  return room;
}

void DMedia::initialize(PlistArray& partitionList) {
  sizesCutToDrive.clear();
  readErrors.clear();
  uint8_t sector0[kSectorSize] = {};
  uint8_t sector1[kSectorSize] = {};
  const bool first = readOneSector(0, sector0);
  readOneSector(1, sector1);
  switch (partitionTableKindOf(first, sector0, sector1)) {
    case PartitionTableKind::GPT:
      readAndInterpretGPT();
      getVolumeNamesGPT();
      break;
    case PartitionTableKind::MBR:
      readAndInterpretMBR();
      getVolumeNamesGPT();  // the same naming pass serves MBR volumes
      break;
    case PartitionTableKind::ApplePartitionMap:
      readAndInterpretPM();
      getVolumeNamesPM();
      break;
    case PartitionTableKind::None: break;
  }
  for (const auto& v : volumePMArray) partitionList.push_back(v);
}

void DMedia::fillPTList(PlistArray& list, uint32_t tableSector, uint32_t firstExtOffset) {
  if (mbrTablesRead_.size() >= kMaxMBRTables || !mbrTablesRead_.insert(tableSector).second) return;
  if (tableSector >= sizeInSect) return;
  MasterBootRecord mbr{};
  readOneSector(tableSector, &mbr);
  convertMBR(&mbr);
  if (mbr.bootSignature != 0xAA55) return;
  for (const auto& entry : mbr.partitions) {
    if (entry.systemID == 0) continue;
    // Sums are 32-bit, as the on-disk fields are.
    const uint32_t base = isExtendedLink(entry.systemID) ? firstExtOffset : tableSector;
    const uint32_t start = entry.relativeSector + base;
    list.push_back(PlistDict{{"System ID", int{entry.systemID}},
                             {"Relative Sector", uint64_t{start}},
                             {"Number Of Sectors", uint64_t{entry.numberOfSectors}}});
  }
}

void DMedia::readAndInterpretMBR() {
  PlistArray list;
  mbrTablesRead_.clear();
  fillPTList(list, 0, 0);
  uint32_t firstExtOffset = 0;
  for (const auto& e : list) {
    const PlistDict* d = e.dict();
    if (isExtendedLink(d->i64("System ID"))) firstExtOffset = static_cast<uint32_t>(d->u64("Relative Sector"));
  }
  // The list grows while it is walked: every link met is followed in turn.
  for (size_t i = 0; i < list.size(); ++i) {
    const PlistDict entry = *list[i].dict();
    if (isExtendedLink(entry.i64("System ID")))
      fillPTList(list, static_cast<uint32_t>(entry.u64("Relative Sector")), firstExtOffset);
  }
  int number = 0;
  for (const auto& e : list) {
    const PlistDict* d = e.dict();
    if (d->i64("System ID") != kHFSSystemID) continue;
    const uint64_t start = d->u64("Relative Sector");
    volumePMArray.push_back(volumeDictionary(start, sizeWithinDrive(start, d->u64("Number Of Sectors")),
                                             fmt::format("Untitled {}", ++number), 0));
  }
}

void DMedia::readAndInterpretGPT() {
  GUIDPartitionTableHeader hdr{};
  // An unreadable primary header: the backup in the drive's last sector
  // names the backup array, which lists the same partitions.
  if (!readOneSector(1, &hdr) && sizeInSect > 2) readOneSector(sizeInSect - 1, &hdr);
  convertGPTHeader(&hdr);
  if (hdr.signature != kGPTSignature) return;
  const uint32_t entrySize = hdr.sizeOfPartitionEntry;
  // An entry must hold the 128 bytes read from it and fit in one sector.
  if (entrySize < sizeof(GUIDPartitionTableEntry) || entrySize > kSectorSize) return;
  const uint32_t perSector = kSectorSize / entrySize;
  const uint64_t count = hdr.numberOfPartitionEntries;
  const uint64_t arrayLBA = hdr.partitionEntryLBA;

  // Entries are read until the first empty one; a count or an array that
  // runs past the drive ends at the drive's end, as the table itself must.
  uint8_t sector[kSectorSize];
  uint64_t loaded = UINT64_MAX;
  // The backup table at the drive's end stands in for sectors of the
  // primary array that cannot be read: one bad sector must not hide every
  // partition listed after it.
  std::optional<uint64_t> backupArrayLBA;
  bool backupTried = false;
  auto backupArray = [&]() -> std::optional<uint64_t> {
    if (backupTried) return backupArrayLBA;
    backupTried = true;
    const uint64_t at = hdr.alternateLBA > 1 && hdr.alternateLBA < sizeInSect ? hdr.alternateLBA : sizeInSect - 1;
    GUIDPartitionTableHeader backup{};
    if (!readOneSector(at, &backup)) return std::nullopt;
    convertGPTHeader(&backup);
    if (backup.signature == kGPTSignature && backup.sizeOfPartitionEntry == entrySize &&
        backup.partitionEntryLBA > 1 && backup.partitionEntryLBA < sizeInSect)
      backupArrayLBA = backup.partitionEntryLBA;
    return backupArrayLBA;
  };
  for (uint64_t i = 0; i < count; ++i) {
    const uint64_t at = arrayLBA + i / perSector;
    if (at < arrayLBA || at >= sizeInSect) break;
    if (at != loaded) {
      if (!readOneSector(at, sector)) {
        const auto backup = backupArray();
        const uint64_t stand = backup ? *backup + i / perSector : sizeInSect;
        if (stand >= sizeInSect || !readOneSector(stand, sector)) std::memset(sector, 0, sizeof sector);
      }
      loaded = at;
    }
    GUIDPartitionTableEntry entry;
    std::memcpy(&entry, sector + (i % perSector) * entrySize, sizeof entry);
    convertGPTEntry(&entry);
    if (entry.typeGUIDHigh == 0 && entry.typeGUIDLow == 0) break;  // the first empty entry ends the table
    if (entry.typeGUIDHigh != kHFSPlusGUIDHigh || entry.typeGUIDLow != kHFSPlusGUIDLow) continue;
    const uint64_t first = entry.startingLBA;
    const uint64_t last = entry.endingLBA;
    // The name is taken whole, trailing NUL units included.
    std::string name = utf16LittleToUtf8(reinterpret_cast<const uint8_t*>(entry.partitionName), kGPTNameUnits);
    // An entry that ends before it starts has no sectors.
    const uint64_t size = last >= first ? last - first + 1 : 0;
    volumePMArray.push_back(volumeDictionary(first, sizeWithinDrive(first, size), std::move(name), 0));
  }
}

void DMedia::readAndInterpretPM() {
  PartitionMap first{};
  readOneSector(1, &first);
  convertPM(&first);
  if (first.pmSig != kPartitionMapSignature) return;
  const int64_t entries = first.pmMapBlkCnt;
  // The first entry (sector 1) is never a volume; the map cannot run past the drive.
  for (int64_t i = 0; i < entries - 1; ++i) {
    const uint64_t at = static_cast<uint64_t>(i) + 2;
    if (at >= sizeInSect) break;
    PartitionMap pm{};
    readOneSector(at, &pm);
    convertPM(&pm);
    // Compared with their terminating NUL: "Apple_HFS_Foo" is not taken.
    const bool hfs = std::memcmp(pm.pmParType, "Apple_HFS", 10) == 0;
    const bool hfsx = std::memcmp(pm.pmParType, "Apple_HFSX", 11) == 0;
    if (!hfs && !hfsx) continue;
    volumePMArray.push_back(volumeDictionary(pm.pmPyPartStart, sizeWithinDrive(pm.pmPyPartStart, pm.pmPartBlkCnt),
                                             macRomanText(pm.pmPartName, sizeof pm.pmPartName), 0));
  }
}

DMedia::BTreeSetup DMedia::readBTreeHeaders() {
  BTreeSetup setup;
  catalogExt.clear();
  extentsExt.clear();
  blockSize = static_cast<int32_t>(vib.blockSize / kSectorSize);
  const uint64_t bs = static_cast<uint32_t>(blockSize);

  uint8_t sector[kSectorSize];
  for (const auto& d : vib.extentsFile.extents.extDesc)
    if (d.startBlock != 0) extentsExt.push_back({d.startBlock, d.blockCount});
  std::memset(sector, 0, sizeof sector);
  readSector(HPlusVolStart + uint64_t{vib.extentsFile.extents.extDesc[0].startBlock} * bs, 1, sector);
  if (auto hdr = headerRecordIfGood(sector)) {
    setup.extentsHeaderGood = true;
    extNodeSize = hdr->nodeSize / kSectorSize;
    extRootNode = hdr->rootNode;
  }

  uint64_t sum = 0;
  for (const auto& d : vib.catalogFile.extents.extDesc) {
    if (d.startBlock == 0) continue;
    catalogExt.push_back({d.startBlock, d.blockCount});
    sum += d.blockCount;
  }
  if (setup.extentsHeaderGood && sum < vib.catalogFile.totalBlocks && extNodeSize > 0) {
    const uint32_t nodeBytes = static_cast<uint32_t>(extNodeSize) * kSectorSize;
    auto reader = [this, nodeBytes](uint32_t node, std::vector<uint8_t>& bytes) {
      const uint64_t at = extentsNodeToSector(node);
      if (at == kNoSector) return false;
      return readSector(at, static_cast<int32_t>(nodeBytes / kSectorSize), bytes.data());
    };
    for (const Extent& e : overflowExtentsFor(4, kDataForkType, static_cast<uint32_t>(sum),
                                              vib.catalogFile.totalBlocks, extRootNode, nodeBytes, reader))
      catalogExt.push_back(e);
  }

  // Block counts come from disk: nothing past the volume's blocks on the drive.
  cutExtentsToBlocks(catalogExt, volumeBlocksOnDrive());

  std::memset(sector, 0, sizeof sector);
  readSector(HPlusVolStart + uint64_t{vib.catalogFile.extents.extDesc[0].startBlock} * bs, 1, sector);
  if (auto hdr = headerRecordIfGood(sector)) {
    setup.catalogHeaderGood = true;
    catNodeSize = hdr->nodeSize / kSectorSize;
    catRootNode = hdr->rootNode;
    firstLeafNode = hdr->firstLeafNode;
    setup.catalogLeafRecords = hdr->leafRecords;
    setup.catalogTotalNodes = hdr->totalNodes;
  }
  return setup;
}

void DMedia::nameVolumeFromHeader(PlistDict& volume) {
  if (!readBTreeHeaders().catalogHeaderGood) return;
  const uint64_t at = catalogNodeToSector(firstLeafNode);
  if (at == kNoSector) return;
  uint8_t node[2 * kSectorSize] = {};
  readSector(at, 2, node);
  if (auto name = rootFolderNameOf(node); name && !name->empty()) volume.set("Volume Name", *name);
}

void DMedia::getVolumeNamesGPT() {
  for (auto& v : volumePMArray) {
    PlistDict& volume = *v.dict();
    HPlusVolStart = volume.u64("Volume Start");
    vib = {};
    readSector(HPlusVolStart + 2, 1, &vib);
    convertVIB(&vib);
    if (!isHFSPlusSignature(vib.signature)) continue;
    nameVolumeFromHeader(volume);
  }
}

void DMedia::getVolumeNamesPM() {
  for (auto& v : volumePMArray) {
    PlistDict& volume = *v.dict();
    const uint64_t start = volume.u64("Volume Start");
    uint8_t sector[kSectorSize] = {};
    readSector(start + 2, 1, sector);
    std::memcpy(&mdb, sector, kMDBBytes);
    convertMDB(&mdb);
    if (mdb.drSigWord == kHFSSigWord) {
      // drVN read as C text (the Pascal length byte is not used), in MacRoman.
      std::string wrapperName = macRomanText(mdb.drVN, sizeof mdb.drVN);
      if (!wrapperName.empty()) volume.set("Volume Name", wrapperName);
      if (!isHFSPlusSignature(mdb.drEmbedSigWord)) continue;
      HPlusVolStart = start + mdb.drAlBlSt + uint64_t{mdb.drAlBlkSiz / kSectorSize} * mdb.drEmbedExtent.xdrStABN;
      vib = {};
      readSector(HPlusVolStart + 2, 1, &vib);
      convertVIB(&vib);
      nameVolumeFromHeader(volume);
      continue;
    }
    std::memcpy(&vib, sector, sizeof vib);
    convertVIB(&vib);
    if (!isHFSPlusSignature(vib.signature)) continue;
    HPlusVolStart = start;
    nameVolumeFromHeader(volume);
  }
}

}  // namespace ambrel
