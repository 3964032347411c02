#include "hfs/Volume.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <unordered_set>

#include "base/Endian.h"
#include "media/NodeChecks.h"

namespace ambrel {

namespace {

bool isHFSPlusSignature(uint16_t sig) { return sig == kHFSPlusSigWord || sig == kHFSXSigWord; }

std::string formatted(const PlistDict& dict, const char* key) {
  const PlistValue* v = dict.find(key);
  return v ? v->describe() : PlistValue().describe();
}

// A B-tree header node as the checks accept it.
bool isHeaderNode(const BTNodeDescriptor_& d) {
  return d.bLink == 0 && d.kind == kBTHeaderNode && d.height == 0 && d.numRecords == 3;
}

// Extents of a fork whose start block is non-zero, all eight looked at.
void appendForkExtents(const HFSPlusForkData_& fork, std::vector<Extent>& into, uint64_t* blockSum = nullptr) {
  for (const auto& d : fork.extents.extDesc) {
    if (d.startBlock == 0) continue;
    into.push_back({d.startBlock, d.blockCount});
    if (blockSum) *blockSum += d.blockCount;
  }
}

// Offset of record `index` of a node, or 0 when the offset table or the
// offset itself is out of place (offsets below 14 are the descriptor).
uint32_t recordOffset(const uint8_t* node, uint32_t nodeBytes, uint32_t index, uint32_t needed) {
  const uint64_t slot = uint64_t{nodeBytes} - 2 - 2 * uint64_t{index};
  if (2 * uint64_t{index} + 2 + sizeof(BTNodeDescriptor_) > nodeBytes) return 0;
  const uint32_t off = loadBE16(node + slot);
  if (off < sizeof(BTNodeDescriptor_) || uint64_t{off} + needed > slot) return 0;
  return off;
}

}  // namespace

Volume::Volume(const PlistDict& dict, AppControllerInterface* controller) : DMedia(dict, controller) {
  if (dict.contains("WhetherDiskDict")) {
    path = dict.string("device path");
    if (dict.contains("WhetherUSB")) {
      isUSBDevice = true;
      model = formatted(dict, "Vendor Identification");
      serial = formatted(dict, "Product Identification");
      revision = formatted(dict, "Product Revision Level");
    } else {
      model = formatted(dict, "device model");
      serial = formatted(dict, "device serial");
      revision = formatted(dict, "device revision");
    }
    sizeInBytes = dict.u64("device size");
    sizeInSect = sizeInBytes >> 9;
    volumeScanType = 3;
    HPlusVolStart = 0;
    blockSize = 1;  // every sector is its own block
    btree = std::make_unique<BTreeTableClass>();
    maxFileID = 9;
  } else if (dict.contains("WhetherVolume")) {
    isUSBDevice = dict.contains("WhetherUSB");
    // A "WhetherVolume" that is not YES fills nothing more, as built.
    if (dict.boolean("WhetherVolume")) {
      path = dict.string("device path");
      volumeName = dict.string("Volume Name");
      sizeInSect = dict.u64("device size") >> 9;
      deletedFilesPath = "Deleted Files";
      volumeScanType = 2;
      HPlusVolStart = 0;
      btree = std::make_unique<BTreeTableClass>();
      maxFileID = 9;
      isJournaled = dict.string("Journaled") == "Yes";
    }
  } else {
    isUSBDevice = dict.contains("WhetherUSB");
    path = dict.string("Path");
    model = dict.string("Model");
    serial = dict.string("Serial");
    revision = dict.string("Revision");
    volumeName = dict.string("Volume Name");
    sizeInSect = dict.u64("Volume Size In Sectors");
    startSector = dict.u64("Volume Start");
    lostFoldersPath = "Lost Folder";
    lostFilesPath = "Lost Files";
    lostFileName = "Lost File";
    deletedFilesPath = "Deleted Files";
    deletedFileName = "Deleted File";
    volumeScanType = static_cast<int32_t>(dict.i64("Volume Scan Type"));
    vibAtSector = volumeScanType == 1 ? dict.u64("WhetherAlternateSector") : 0;
    btree = std::make_unique<BTreeTableClass>();
    btreeAdvScan = btree.get();
    maxFileID = 0;
    catNodeSize = 0;
  }
  cPath = path;
}

Volume::~Volume() {
  // The tree first: the tables only point into it.
  dirLostFiles = dirLostFolders = nullptr;
  dirRoot.reset();
  orphanEntryArray.clear();
  advScanFolderArray.clear();
  advScanFileArray.clear();
}

std::string Volume::description() const {
  return fmt::format("{} {} {} {} {} size:{}", volumeName, path, model, serial, revision, sizeInSect * 512);
}

void Volume::report(ProgressReport r) {
  if (appController) appController->updateProgress(r);
}

ProgressReport Volume::counters() const {
  return ProgressReport{{progress::kFolders, folderCount},
                        {progress::kFiles, fileCount},
                        {progress::kEntriesFound, entryCount},
                        {progress::kData, dataSize}};
}

bool Volume::readMDB(uint64_t sector) {
  uint8_t buf[kSectorSize] = {};
  const bool ok = readOneSector(sector, buf);
  std::memcpy(&mdb, buf, sizeof mdb);
  convertMDB(&mdb);
  return ok;
}

bool Volume::readVIB(uint64_t sector) {
  uint8_t buf[kSectorSize] = {};
  const bool ok = readOneSector(sector, buf);
  std::memcpy(&vib, buf, sizeof vib);
  convertVIB(&vib);
  return ok;
}

// The HFS+ volume embedded in the wrapper whose MDB was just read.
bool Volume::embeddedVolume(uint64_t volumeStart) {
  if (!isHFSPlusSignature(mdb.drEmbedSigWord)) return false;
  const uint64_t sectorsPerBlock = mdb.drAlBlkSiz / 512;
  HPlusVolStart = volumeStart + mdb.drAlBlSt + sectorsPerBlock * mdb.drEmbedExtent.xdrStABN;
  readVIB(HPlusVolStart + 2);
  if (isHFSPlusSignature(vib.signature)) return true;
  const uint64_t embeddedSectors = uint64_t{mdb.drEmbedExtent.xdrNumABlks} * sectorsPerBlock;
  if (embeddedSectors < 2) return false;
  readVIB(HPlusVolStart + embeddedSectors - 2);
  return isHFSPlusSignature(vib.signature);
}

bool Volume::initializeVIB() {
  const uint64_t s = startSector;
  const uint64_t first = vibAtSector ? vibAtSector : s + 2;
  readMDB(first);
  bool found = false;
  if (mdb.drSigWord == kHFSSigWord) {
    found = embeddedVolume(s);
  } else if (isHFSPlusSignature(mdb.drSigWord)) {
    HPlusVolStart = s;
    readVIB(first);
    found = isHFSPlusSignature(vib.signature);
  } else if (sizeInSect >= 2) {
    const uint64_t alternate = s + sizeInSect - 2;
    readMDB(alternate);
    if (mdb.drSigWord == kHFSSigWord) {
      found = embeddedVolume(s);
    } else if (isHFSPlusSignature(mdb.drSigWord)) {
      HPlusVolStart = s;
      readVIB(alternate);
      found = isHFSPlusSignature(vib.signature);
    } else {
      HPlusVolStart = s;
    }
  } else {
    HPlusVolStart = s;
  }
  if (!found) return false;
  // A header whose block size is under one sector would make every block
  // computation divide by zero; no real volume has one.
  if (vib.blockSize < 512) return false;
  blockSize = static_cast<int32_t>(vib.blockSize / 512);
  return true;
}

void Volume::fillVIB() {
  readVIB(2);
  if (vib.signature == kHFSSigWord) {
    readMDB(2);
    if (isHFSPlusSignature(mdb.drEmbedSigWord)) {
      HPlusVolStart = mdb.drAlBlSt + uint64_t{mdb.drAlBlkSiz / 512} * mdb.drEmbedExtent.xdrStABN;
      readVIB(HPlusVolStart + 2);
    } else {
      HPlusVolStart = 0;
    }
  }
  totalBlocks = vib.totalBlocks;
  blockSize = static_cast<int32_t>((vib.blockSize >> 9) & 0x7FFFFF);
}

bool Volume::checkCatalogAndExtentsFile() {
  ProgressReport start = counters();
  start.set(progress::kProgressStatus, "Checking Extents File ...");
  start.set(progress::kProgressType, 0);
  start.set(progress::kStartAnimation, true);
  report(std::move(start));

  extentsExt.clear();
  appendForkExtents(vib.extentsFile, extentsExt);

  uint8_t sector[kSectorSize] = {};
  auto readHeaderNode = [&](const HFSPlusForkData_& fork, BTHeaderRecord& hdr) {
    std::memset(sector, 0, sizeof sector);
    readNode(HPlusVolStart + uint64_t{fork.extents.extDesc[0].startBlock} * static_cast<uint32_t>(blockSize), 1,
             sector);
    BTNodeDescriptor_ desc;
    std::memcpy(&desc, sector, sizeof desc);
    convertBTNodeDesc(&desc);
    if (!isHeaderNode(desc)) return false;
    std::memcpy(&hdr, sector + sizeof desc, sizeof hdr);
    convertBTHdrRec(&hdr);
    // A node size that no B-tree has would make every node read wrong; the
    // scans then find the size from the nodes themselves.
    return hdr.nodeSize >= 512 && hdr.nodeSize <= 32768 && (hdr.nodeSize & (hdr.nodeSize - 1)) == 0;
  };

  // Without its header node the extents B-tree is unknown: the catalog is
  // still read, and forks that need overflow extents are listed as incomplete.
  BTHeaderRecord hdr;
  extentsTreeUsable = readHeaderNode(vib.extentsFile, hdr);
  extNodeSize = extentsTreeUsable ? hdr.nodeSize / 512 : 0;
  extRootNode = extentsTreeUsable ? hdr.rootNode : 0;
  report({{progress::kProgressStatus, "Checking Extents File ... done"}, {progress::kStopAnimation, true}});
  report({{progress::kProgressStatus, "Checking Catalog File ..."}, {progress::kStartAnimation, true}});

  catalogExt.clear();
  uint64_t sum = 0;
  appendForkExtents(vib.catalogFile, catalogExt, &sum);
  if (vib.catalogFile.totalBlocks > sum) {
    for (const Extent& e :
         extentsForID(kCatalogFileID, kDataForkType, static_cast<uint32_t>(sum), vib.catalogFile.totalBlocks))
      catalogExt.push_back(e);
  }
  // Block counts come from disk: the node searches walk nothing past the volume.
  cutExtentsToBlocks(catalogExt, volumeBlocksOnDrive());
  catalogHeaderUsable = readHeaderNode(vib.catalogFile, hdr);
  if (!catalogHeaderUsable) {
    report({{progress::kProgressStatus, "Checking Catalog File ... done"}, {progress::kStopAnimation, true}});
    return false;
  }
  catNodeSize = hdr.nodeSize / 512;
  catRootNode = hdr.rootNode;
  firstLeafNode = hdr.firstLeafNode;
  leafRecords = hdr.leafRecords / 2;
  catTreeDepth = hdr.treeDepth;
  return true;
}

void Volume::checkAllocationFile() {
  allocationExt.clear();
  uint64_t sum = 0;
  appendForkExtents(vib.allocationFile, allocationExt, &sum);
  if (vib.allocationFile.totalBlocks > sum) {
    for (const Extent& e :
         extentsForID(kAllocationFileID, kDataForkType, static_cast<uint32_t>(sum), vib.allocationFile.totalBlocks))
      allocationExt.push_back(e);
  }
}

void Volume::fillAllocationExt() {
  extentsExt.clear();
  appendForkExtents(vib.extentsFile, extentsExt);
  checkAllocationFile();
}

void Volume::getCatalogExtFromVIB() {
  catalogExtAsPerVIB.clear();
  for (const auto& d : vib.catalogFile.extents.extDesc) {
    if (d.blockCount == 0) break;
    catalogExtAsPerVIB.push_back({d.startBlock, d.blockCount});
  }
  cutExtentsToBlocks(catalogExtAsPerVIB, volumeBlocksOnDrive());
}

namespace {

// Node N of a B-tree file laid out in `extents`: the node capacity of each
// extent is skipped until the one that holds N.
template <class Range>
int64_t nodeToSector(const Range& extents, uint32_t node, int32_t nodeSize, int32_t blockSize, uint64_t volStart) {
  if (nodeSize <= 0 || blockSize <= 0) return kInvalidSector;
  uint64_t n = node;
  const uint64_t size = static_cast<uint64_t>(nodeSize);
  const uint64_t bs = static_cast<uint64_t>(blockSize);
  for (const auto& e : extents) {
    const uint64_t extentSectors = uint64_t{e.blockCount} * bs;
    if (n * size < extentSectors) {
      const uint64_t sector = volStart + uint64_t{e.startBlock} * bs + n * size;
      return sector > static_cast<uint64_t>(INT64_MAX) ? kInvalidSector : static_cast<int64_t>(sector);
    }
    n -= extentSectors / size;
  }
  return kInvalidSector;
}

}  // namespace

int64_t Volume::catNodeToSector(uint32_t node) const {
  return nodeToSector(catalogExt, node, catNodeSize, blockSize, HPlusVolStart);
}

int64_t Volume::extNodeToSector(uint32_t node) const {
  return nodeToSector(vib.extentsFile.extents.extDesc, node, extNodeSize, blockSize, HPlusVolStart);
}

std::vector<Extent> Volume::extentsForID(uint32_t fileID, uint8_t fork, uint32_t startBlock, uint32_t totalBlocks,
                                         bool* found) {
  std::vector<Extent> result;
  if (found) *found = extRootNode != 0;
  if (extRootNode == 0 || extNodeSize <= 0) return result;
  const uint32_t nodeBytes = static_cast<uint32_t>(extNodeSize) * kSectorSize;
  std::vector<uint8_t> node(nodeBytes);
  // Every node is read at most once: a link or child pointing back ends the walk.
  std::unordered_set<uint32_t> visited;
  BTNodeDescriptor_ desc{};
  auto load = [&](uint32_t number) {
    if (stopTreeThread.load() || !visited.insert(number).second) return false;
    const int64_t sector = extNodeToSector(number);
    if (sector == kInvalidSector) return false;
    std::fill(node.begin(), node.end(), 0);
    if (!readNode(static_cast<uint64_t>(sector), extNodeSize, node.data())) return false;
    std::memcpy(&desc, node.data(), sizeof desc);
    convertBTNodeDesc(&desc);
    return true;
  };
  const uint32_t maxRecords = (nodeBytes - sizeof(BTNodeDescriptor_)) / 2;
  auto records = [&] { return std::min<uint32_t>(desc.numRecords, maxRecords); };

  if (!load(extRootNode)) return result;
  while (desc.kind == kBTIndexNode) {
    uint32_t child = 0;
    bool descend = false;
    for (uint32_t i = records(); i-- > 0;) {
      const uint32_t off = recordOffset(node.data(), nodeBytes, i, sizeof(HFSPlusExtentKey_) + 4);
      if (!off) continue;
      const uint8_t* rec = node.data() + off;
      if (extentKeyNotBefore(fileID, fork, startBlock, rec)) {
        child = loadBE32(rec + sizeof(HFSPlusExtentKey_));
        descend = true;
        break;
      }
    }
    if (!descend || !load(child)) return result;
  }

  uint64_t running = startBlock;
  uint32_t lower = 0;
  for (;;) {
    bool matched = false;
    for (uint32_t i = records(); i-- > lower;) {
      const uint32_t off = recordOffset(node.data(), nodeBytes, i, sizeof(HFSPlusExtentKey_) + sizeof(HFSPlusExtentRecord_));
      if (!off) continue;
      const uint8_t* rec = node.data() + off;
      if (rec[2] != fork || loadBE32(rec + 4) != fileID || loadBE32(rec + 8) != running) continue;
      HFSPlusExtentRecord_ extents;
      std::memcpy(&extents, rec + sizeof(HFSPlusExtentKey_), sizeof extents);
      convertHPlusExtRec(&extents);
      for (const auto& d : extents.extDesc) {
        if (d.startBlock == 0) break;
        result.push_back({d.startBlock, d.blockCount});
        running += d.blockCount;
      }
      if (running >= totalBlocks) return result;
      lower = i + 1;
      matched = true;
      break;
    }
    if (matched) continue;
    if (desc.fLink == 0 || !load(desc.fLink)) return result;
    lower = 0;
  }
}

bool Volume::sectorIsInThisExtArray(const std::vector<Extent>& extents, uint64_t sector) const {
  if (blockSize <= 0) return false;
  const uint64_t bs = static_cast<uint64_t>(blockSize);
  for (const Extent& e : extents) {
    const uint64_t first = HPlusVolStart + uint64_t{e.startBlock} * bs;
    if (first <= sector && sector < first + uint64_t{e.blockCount} * bs) return true;
  }
  return false;
}

bool Volume::sectorIsInCatalogFile(uint64_t sector) const {
  if (!catalogExt.empty()) return sectorIsInThisExtArray(catalogExt, sector);
  if (!catalogExtAsPerVIB.empty()) return sectorIsInThisExtArray(catalogExtAsPerVIB, sector);
  return false;
}

bool Volume::readBitmapBlock(uint64_t index, std::vector<uint8_t>& buf) {
  if (blockSize <= 0) return false;
  for (const Extent& e : allocationExt) {
    if (index < e.blockCount) {
      const uint64_t block = uint64_t{e.startBlock} + index;
      buf.assign(static_cast<size_t>(blockSize) * kSectorSize, 0);
      return readSector(HPlusVolStart + block * static_cast<uint64_t>(blockSize), blockSize, buf.data());
    }
    index -= e.blockCount;
  }
  return false;
}

void Volume::get40BlocksUsedStatusFromBlock(uint32_t block, uint8_t flags[40]) {
  if (blockSize <= 0) return;
  const uint64_t bitsPerBlock = static_cast<uint64_t>(blockSize) * 4096;
  const uint64_t index = block / bitsPerBlock;
  const uint64_t bit = block % bitsPerBlock;
  std::vector<uint8_t> buf;
  if (!readBitmapBlock(index, buf)) return;
  // No mask, deliberately: a block reads free only when its bit and the more
  // significant bits of its byte are all clear.
  auto freeAt = [&](uint64_t b) { return (buf[b / 8] >> (7 - b % 8)) == 0; };
  int i = 0;
  for (; i < 40 && bit + i < bitsPerBlock; ++i)
    if (freeAt(bit + i)) flags[i] = 0;
  if (i == 40 || !readBitmapBlock(index + 1, buf)) return;
  for (uint64_t b = 0; i < 40; ++i, ++b)
    if (freeAt(b)) flags[i] = 0;
}

uint32_t Volume::getAllocationBlockForBlock(uint32_t block, uint32_t* returnedBitIndex) const {
  if (blockSize <= 0) return 0;
  const uint64_t bitsPerBlock = static_cast<uint64_t>(blockSize) * 4096;
  uint64_t index = block / bitsPerBlock;
  if (returnedBitIndex) *returnedBitIndex = static_cast<uint32_t>(block % bitsPerBlock);
  uint32_t result = 0;
  for (size_t i = 0; index != 0 && i < allocationExt.size(); ++i) {
    if (index < allocationExt[i].blockCount) {
      result = static_cast<uint32_t>(allocationExt[i].startBlock + index);
      break;
    }
    index -= allocationExt[i].blockCount;
  }
  return result;
}

int64_t Volume::allocationOffsetToSector(uint64_t offset, uint32_t* /*skipOffset, not handed back as built*/) const {
  if (blockSize <= 0) return kInvalidSector;
  const uint64_t bytesPerBlock = static_cast<uint64_t>(blockSize) * kSectorSize;
  uint64_t index = offset / bytesPerBlock;
  const uint64_t r = offset % bytesPerBlock;
  for (const Extent& e : allocationExt) {
    if (index < e.blockCount)
      return static_cast<int64_t>(HPlusVolStart + (index + e.startBlock) * static_cast<uint64_t>(blockSize) + r / 512);
    index -= e.blockCount;
  }
  return kInvalidSector;
}

bool Volume::getIfUnusedSector(uint64_t sector) {
  if (blockSize <= 0) return false;
  const uint64_t block = sector / static_cast<uint64_t>(blockSize);
  const uint64_t byteOffset = block / 8;
  const int64_t at = allocationOffsetToSector(byteOffset, nullptr);
  if (at == kInvalidSector) return false;
  uint8_t buf[kSectorSize] = {};
  if (!readSector(static_cast<uint64_t>(at), 1, buf)) return false;
  return (buf[byteOffset % kSectorSize] & (0x80 >> (block % 8))) == 0;
}

bool Volume::getIfUnusedSectorForCatalogNode(uint64_t sector) {
  btreeForUsedCatNodeSector.retrieveKeyField(static_cast<uint32_t>(sector));
  return true;  // deliberately: the node search processes every node it found
}

}  // namespace ambrel
