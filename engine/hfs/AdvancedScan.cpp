// Searches for catalog nodes when the B-tree cannot be walked from its
// header alone: level-2 index nodes, every leaf of the catalog file, and
// leaf nodes anywhere on the volume (old copies included).
#include <chrono>
#include <cstring>
#include <fmt/format.h>
#include <unordered_set>

#include "base/Endian.h"
#include "hfs/CatalogRecords.h"
#include "hfs/Geometry.h"
#include "hfs/Volume.h"

namespace ambrel {

namespace {

constexpr uint32_t kVolumeJournaledBit = 0x2000;

// Node size assumed when none is known yet: 8 KiB, the common catalog size.
constexpr int32_t kAssumedCatNodeSectors = 16;

BTNodeDescriptor_ descriptorOf(const std::vector<uint8_t>& node) {
  BTNodeDescriptor_ d{};
  if (node.size() >= sizeof d) {
    std::memcpy(&d, node.data(), sizeof d);
    convertBTNodeDesc(&d);
  }
  return d;
}

// Height, kind, a record at least, and the first record right after the descriptor.
bool validNodeOfLevel(const std::vector<uint8_t>& node, int8_t kind, uint8_t height) {
  if (node.size() < 512) return false;
  const BTNodeDescriptor_ d = descriptorOf(node);
  return d.height == height && d.kind == kind && d.numRecords != 0 && loadBE16(&node[node.size() - 2]) == 14;
}

// The child node numbers of an index node's records, in record order; stops
// at the first record that does not lie inside the node.
void appendChildPointers(const std::vector<uint8_t>& node, std::vector<uint32_t>& out) {
  const BTNodeDescriptor_ d = descriptorOf(node);
  const size_t bytes = node.size();
  for (uint32_t r = 0; r < d.numRecords; ++r) {
    if (2 + 2 * size_t{r} + 14 > bytes) return;
    const size_t offset = loadBE16(&node[bytes - 2 - 2 * r]);
    if (offset < 14 || offset + 2 > bytes) return;
    const size_t child = offset + 2 + loadBE16(&node[offset]);
    if (child + 4 > bytes) return;
    out.push_back(loadBE32(&node[child]));
  }
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

bool Volume::readCatalogNode(uint32_t number, std::vector<uint8_t>& node) {
  node.assign(static_cast<size_t>(catNodeSize) * kSectorSize, 0);
  const int64_t sector = catNodeToSector(number);
  return sector != kInvalidSector && !node.empty() && readNode(static_cast<uint64_t>(sector), catNodeSize, node.data());
}

uint64_t Volume::catalogNodeCount() const {
  if (catNodeSize <= 0) return 0;
  uint64_t sectors = 0;
  for (const Extent& e : catalogExt) sectors += uint64_t{e.blockCount} * static_cast<uint64_t>(blockSize);
  return sectors / static_cast<uint64_t>(catNodeSize);
}

// Visits the nodes of the catalog file in file order; visit returns false to stop.
void Volume::forEachCatalogFileNode(const std::function<bool(uint64_t sector, uint64_t number)>& visit) {
  if (catNodeSize <= 0) return;
  uint64_t number = 0;
  for (const Extent& e : catalogExt) {
    const uint64_t nodes = uint64_t{e.blockCount} * static_cast<uint64_t>(blockSize) / static_cast<uint64_t>(catNodeSize);
    const uint64_t first = HPlusVolStart + uint64_t{e.startBlock} * static_cast<uint64_t>(blockSize);
    for (uint64_t k = 0; k < nodes; ++k, ++number) {
      if (stopTreeThread) return;
      if (!visit(first + k * static_cast<uint64_t>(catNodeSize), number)) return;
    }
  }
}

void Volume::enumerateLevel2IndexNodes() {
  level2IndexNodeHasProblems = false;
  leafNodePointerArray.clear();
  leafNodePointerArrayMade_ = true;
  std::vector<uint8_t> node;
  uint32_t number = catRootNode;
  for (int32_t level = catTreeDepth; level > 1; --level) {
    if (stopTreeThread) return;
    if (!readCatalogNode(number, node) || !validNodeOfLevel(node, kBTIndexNode, static_cast<uint8_t>(level))) {
      level2IndexNodeHasProblems = true;
      return;
    }
    if (level > 2) {
      std::vector<uint32_t> first;
      appendChildPointers(node, first);
      if (first.empty()) {
        level2IndexNodeHasProblems = true;
        return;
      }
      number = first.front();
      continue;
    }
    collectLevel2Chain(number, node);
    return;
  }
}

// Walks the level-2 index nodes along their forward links from `number`
// (whose node is already in `node`), collecting every child pointer.
void Volume::collectLevel2Chain(uint32_t number, std::vector<uint8_t>& node) {
  std::unordered_set<uint32_t> visited;
  while (true) {
    if (!visited.insert(number).second) return;  // a chain that loops
    appendChildPointers(node, leafNodePointerArray);
    number = descriptorOf(node).fLink;
    if (number == 0 || stopTreeThread) return;
    if (!readCatalogNode(number, node) || !validNodeOfLevel(node, kBTIndexNode, 2)) {
      level2IndexNodeHasProblems = true;
      return;
    }
  }
}

void Volume::searchForLevel2IndexNodes() {
  const std::string status = driveText("Searching Catalog File for {} on drive {} {} {}");
  const uint64_t total = catalogNodeCount();
  report({{progress::kProgressStatus, status}, {progress::kProgressType, 1}, {progress::kBarMaxValue, total}});
  report({{progress::kTimeRemaining, ""}});
  const auto start = std::chrono::steady_clock::now();

  std::vector<uint8_t> node(static_cast<size_t>(catNodeSize) * kSectorSize);
  uint64_t visited = 0;
  bool found = false;
  forEachCatalogFileNode([&](uint64_t sector, uint64_t) {
    report({{progress::kProgressStatus, status},
                  {progress::kBarIncrement, uint64_t{1}},
                  {progress::kTimeRemaining, timeRemainingText(secondsSince(start), visited, total)}});
    ++visited;
    if (!readNode(sector, catNodeSize, node.data()) || !validNodeOfLevel(node, kBTIndexNode, 2)) return true;
    const BTNodeDescriptor_ d = descriptorOf(node);
    found = d.bLink != 0 || d.fLink != 0;
    return !found;
  });
  if (!found || stopTreeThread) {
    level2IndexNodeHasProblems = true;
    return;
  }
  report({{progress::kProgressType, 0}, {progress::kStartAnimation, true}});

  uint32_t number = static_cast<uint32_t>(visited - 1);
  if (!readCatalogNode(number, node) || !validNodeOfLevel(node, kBTIndexNode, 2)) {
    level2IndexNodeHasProblems = true;
    return;
  }
  // Back to the first node of the level, or to the last good one.
  std::unordered_set<uint32_t> seen{number};
  std::vector<uint8_t> previous;
  for (uint32_t back = descriptorOf(node).bLink; back != 0 && !stopTreeThread;) {
    if (!seen.insert(back).second) break;
    if (!readCatalogNode(back, previous) || !validNodeOfLevel(previous, kBTIndexNode, 2)) {
      level2IndexNodeHasProblems = true;
      break;
    }
    number = back;
    node.swap(previous);
    back = descriptorOf(node).bLink;
  }
  leafNodePointerArray.clear();
  leafNodePointerArrayMade_ = true;
  collectLevel2Chain(number, node);
}

void Volume::searchForLeafNodes() {
  leafNodePointerTotalArray.clear();
  const std::string status = driveText("Searching Catalog File for {} on drive {} {} {}");
  const uint64_t total = catalogNodeCount();
  report({{progress::kProgressStatus, status}, {progress::kProgressType, 1}, {progress::kBarMaxValue, total}, {progress::kTimeRemaining, ""}});
  const auto start = std::chrono::steady_clock::now();
  std::vector<uint8_t> node(static_cast<size_t>(catNodeSize) * kSectorSize);
  uint64_t visited = 0;
  forEachCatalogFileNode([&](uint64_t sector, uint64_t number) {
    report({{progress::kProgressStatus, status},
                  {progress::kBarIncrement, uint64_t{1}},
                  {progress::kTimeRemaining, timeRemainingText(secondsSince(start), visited, total)}});
    ++visited;
    if (readNode(sector, catNodeSize, node.data()) && validNodeOfLevel(node, kBTLeafNode, 1))
      leafNodePointerTotalArray.push_back(static_cast<uint32_t>(number));
    return true;
  });
}

void Volume::processCatFrags() {
  if (CatNodeArray.empty()) return;
  const std::string status = driveText("Processing Catalog Fragments for {} on drive {} {} {}");
  const uint64_t total = CatNodeArray.size();
  report({{progress::kProgressStatus, status},
                {progress::kProgressType, 1},
                {progress::kBarDoubleValue, uint64_t{0}},
                {progress::kBarMaxValue, total},
                {progress::kBarMinValue, uint64_t{0}}});
  if (catNodeSize == 0) catNodeSize = kAssumedCatNodeSectors;
  const auto start = std::chrono::steady_clock::now();
  std::vector<uint8_t> node(static_cast<size_t>(catNodeSize) * kSectorSize);

  // The live catalog's nodes first, then the copies elsewhere: a file met in
  // both is listed once, as the live catalog has it.
  uint64_t processed = 0;
  // Copies inside the journal are told apart from those in free space.
  if (journalSize == 0 && vib.journalInfoBlock != 0 && (vib.attributes & kVolumeJournaledBit)) getJournalSizeAndStart();
  for (const bool livePass : {true, false}) {
    for (uint64_t i = 0; i < total && !stopTreeThread; ++i) {
      const uint64_t sector = CatNodeArray[i];
      const bool live = advScanEntriesCanBePutIntoOrphanEntryArray && sectorIsInCatalogFile(sector);
      if (live != livePass) continue;
      if (processed > 0)
        report({{progress::kBarIncrement, uint64_t{1}},
                {progress::kTimeRemaining, timeRemainingText(secondsSince(start), processed, total)}});
      ++processed;
      // A node inside a live file is another volume's, kept in that file
      // (a disk image): its block numbers would read this volume's blocks.
      if (!live && insideLiveFile(sector, static_cast<uint64_t>(catNodeSize))) {
        ++foreignNodesSkipped;
        continue;
      }
      getIfUnusedSectorForCatalogNode(sector);
      if (!readNode(sector, catNodeSize, node.data())) continue;
      const BTNodeDescriptor_ d = descriptorOf(node);
      fragmentOrigin_ = live ? EntryOrigin::Catalog : inJournal(sector) ? EntryOrigin::Journal : EntryOrigin::FreeSpace;
      for (uint32_t r = 0; r < d.numRecords && !stopTreeThread; ++r) {
        if (processFragmentRecord(node, d.numRecords, r, live) == RecordCheck::AbandonNode) break;
      }
    }
  }
}

RecordCheck Volume::processFragmentRecord(const std::vector<uint8_t>& node, uint32_t numRecords, uint32_t index, bool live) {
  const CatalogRecordView rec = catalogRecordAt(node, numRecords, index, true);
  if (!rec.ok()) return rec.check;
  if (rec.recordType == kHFSPlusFolderThreadRecord) {
    uint32_t parent = 0;
    std::string name;
    if (rec.thread(parent, name)) noteFolderThread(rec.parentID, parent, std::move(name), live);
    return RecordCheck::Ok;
  }
  if (rec.recordType != kHFSPlusFolderRecord && rec.recordType != kHFSPlusFileRecord) return RecordCheck::SkipRecord;
  if (rec.parentID == kRootParentID) return RecordCheck::SkipRecord;

  HDIR entry;
  entry.parentID = rec.parentID;
  entry.setFileName(rec.name);
  if (rec.recordType == kHFSPlusFolderRecord) {
    HFSPlusCatalogFolder_ folder;
    // A record that does not fit is structural; dates and IDs are content,
    // and a record that fails them is skipped alone.
    if (!rec.folder(folder)) return RecordCheck::AbandonNode;
    if (!plausibleFolderRecord(folder)) return RecordCheck::SkipRecord;
    entry.fileType = kHDIRFolder;
    entry.origin = fragmentOrigin_;
    entry.createDate = folder.createDate;
    entry.modDate = folder.contentModDate;
    entry.fileID = folder.folderID;
    maxFileID = std::max(maxFileID, folder.folderID);
    // One entry per folder: the first record met (the live one, when there is one).
    if (!foldersMet_.insert(folder.folderID).second) return RecordCheck::Ok;
    if (live) {
      ++folderCount;  // counted now, as the standard walk counts its entries
      ++entryCount;
      addToOrphanEntryArray(entry);
    } else {
      addToAdvScanFolderArray(entry);
    }
    return RecordCheck::Ok;
  }

  HFSPlusCatalogFile_ file;
  if (!rec.file(file)) return RecordCheck::AbandonNode;
  if (!plausibleFileRecord(file)) return RecordCheck::SkipRecord;
  if (!plausibleForks(file)) {
    if (live) noteUnlistedLiveFile(rec.parentID, rec.name, file);
    return RecordCheck::SkipRecord;
  }
  entry.fileType = kHDIRFile;
  entry.origin = fragmentOrigin_;
  entry.createDate = file.createDate;
  entry.modDate = file.contentModDate;
  entry.fileID = file.fileID;
  maxFileID = std::max(maxFileID, file.fileID);
  entry.dataSize = file.dataFork.logicalSize;
  entry.rscSize = file.resourceFork.logicalSize;
  entry.fileSize = entry.dataSize + entry.rscSize;
  entry.blockSize = blockSize;
  entry.fileMode = byteSwapped(file.permissions.fileMode);
  if (blockSizeSource == BlockSizeSource::Assumed) entry.confidence = Confidence::AssumedGeometry;
  // A record no longer in the catalog may have lost its attribute, and its
  // file ID may since name another file: only live records are looked up.
  if (live) applyCompression(entry, file);
  noteLink(entry, file);
  // The extents file describes the live files only: an old copy of a record
  // keeps its own eight extents and, when it needs more, is flagged.
  const bool overflow = live && extentsTreeUsable;
  const ForkExtents data = collectForkExtents(file.dataFork, file.fileID, kDataForkType, entry.dataExt, overflow);
  const ForkExtents rsrc = collectForkExtents(file.resourceFork, file.fileID, kResourceForkType, entry.rscExt, overflow);
  if (data == ForkExtents::Wrong || rsrc == ForkExtents::Wrong) return RecordCheck::SkipRecord;
  const bool incomplete = data == ForkExtents::Incomplete || rsrc == ForkExtents::Incomplete;
  // The same file (ID and blocks) met before is listed once; another version
  // of it is kept.
  if (fileMetBefore(entry, incomplete)) return RecordCheck::Ok;
  if (live) noteLiveFileBlocks(rec.parentID, rec.name, entry.dataExt, entry.rscExt);
  if (incomplete) noteMissingExtents(entry);
  entry.addToFileCount(1);
  if (live) {
    ++fileCount;
    ++entryCount;
    dataSize += entry.fileSize;
    addToOrphanEntryArray(entry);
  } else {
    addToAdvScanFileArray(entry);
  }
  return RecordCheck::Ok;
}

void Volume::addToOrphanEntryArray(const HDIR& entry) { orphanEntryArray.push_back(entry.mutableCopy()); }
void Volume::addToAdvScanFolderArray(const HDIR& entry) { advScanFolderArray.push_back(entry.mutableCopy()); }
void Volume::addToAdvScanFileArray(const HDIR& entry) { advScanFileArray.push_back(entry.mutableCopy()); }

bool Volume::makeAdvTree() {
  makeRoot();
  searchCatFrags();
  if (blockSizeSource != BlockSizeSource::Header) inferBlockSizeFromRecords();
  checkAllocationFile();
  // The standard walk's orphans are still here: they are placed together
  // with the live records found now, which are counted as they are found.
  processCatFrags();
  flagReusedBlocks();
  // Folders that entries look for come from old copies or thread records.
  provideMissingParents({&orphanEntryArray}, orphanEntryArray, true, true);
  if (!orphanEntryArray.empty()) processOrphanEntriesWithIncrement(false, false);
  provideMissingParents({&advScanFolderArray, &advScanFileArray}, advScanFolderArray, false, false);
  // Deleted files and earlier versions are placed even when every folder
  // they belong to is live.
  if (!advScanFileArray.empty()) processAdvScanEntries();
  return true;
}

bool Volume::inJournal(uint64_t sector) const {
  if (journalSize == 0 || sector < HPlusVolStart) return false;
  const uint64_t offset = (sector - HPlusVolStart) * kSectorSize;
  return offset >= journalStart && offset - journalStart < journalSize;
}

}  // namespace ambrel
