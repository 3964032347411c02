// Deleted files from the journal: the journal keeps earlier copies of catalog
// leaf nodes, and their records still name files and folders that are gone
// from the catalog, with their folders, dates and extents.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <fmt/format.h>
#include <unordered_set>

#include "base/Endian.h"
#include "carving/SignatureSearch.h"
#include "hfs/CatalogRecords.h"
#include "hfs/Geometry.h"
#include "hfs/JournalCopies.h"
#include "hfs/Volume.h"

namespace ambrel {

namespace {

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

void Volume::resetTreeForDeletedScan() {
  dirLostFiles = dirLostFolders = nullptr;
  dirRoot.reset();
  btree = std::make_unique<BTreeTableClass>();
  btreeAdvScan = btree.get();
  btreeFirstFileBlock.clear();
  orphanEntryArray.clear();
  deletedScanIDs_.clear();
  deletedScanFiles_.clear();
  folderThreads_.clear();
  openDeleted_.clear();
  privateDataFolderID_ = 0;
  filesMet_.clear();
  entryCount = folderCount = fileCount = 0;
  dataSize = 0;
  journalNodesFound = 0;
  fileLinks = folderLinks = symlinks = linksUnresolved = 0;
  makeRoot();
}

void Volume::scanForDeletedFiles(AppControllerInterface* controller, bool deleted, bool signatures,
                                 const std::vector<const Sig*>& sigs) {
  if (controller) appController = controller;
  if (deleted) {
    findDeletedFilesInJournal();
  } else {
    resetTreeForDeletedScan();
    fillVIB();
  }
  if (signatures && !stopTreeThread) {
    startPreventingSleep();
    // The signature search wants the header's geometry and the bitmap.
    totalBlocks = vib.totalBlocks;
    fillAllocationExt();
    SignatureSearch search(*this, sigs);
    search.signatureSearch();
    stopPreventingSleep();
    treeScanMode = 0;
  }
  report({{progress::kProgressStatus, "Tree Completed ..."},
          {progress::kTreeComplete, true},
          {progress::kBarDoubleValue, uint64_t{0}}});
}

void Volume::scanForDeletedFilesDisk(AppControllerInterface* controller, const std::vector<const Sig*>& sigs) {
  if (controller) appController = controller;
  resetTreeForDeletedScan();
  startPreventingSleep();
  SignatureSearch search(*this, sigs);
  search.signatureSearchDisk();
  stopPreventingSleep();
  report({{progress::kProgressStatus, "Tree Completed ..."},
          {progress::kTreeComplete, true},
          {progress::kBarDoubleValue, uint64_t{0}}});
}

void Volume::findDeletedFilesInJournal() {
  resetTreeForDeletedScan();
  // A volume of a partition or of the volume search is read from its own
  // start, as a volume device is read from sector 0.
  if (startSector == 0) {
    fillVIB();
  } else if (!initializeVIB()) {
    blockSize = 0;
  }
  catNodeSize = 0;
  const bool catalogHeader = checkCatalogAndExtentsFile();
  getJournalSizeAndStart();
  // A damaged catalog header leaves the node size unknown, and with it every
  // node copy in the journal. The catalog's own leaves, else the copies
  // themselves, show how large a node is; nothing is assumed, so a volume
  // that shows no sound leaf still finds nothing.
  if (!catalogHeader && blockSize > 0) {
    getCatalogExtFromVIB();
    firstLeafNode = 0;
    if (!inferCatalogNodeSize()) inferNodeSizeFromJournal();
  }
  startPreventingSleep();
  collectLiveFiles();
  searchCatFragsForDeletedFiles();
  placeOpenDeletedLeft();
  giveDeletedLinksTheirContent();
  flagReusedDeletedFiles();
  provideMissingParents({&orphanEntryArray}, orphanEntryArray, false, false);
  if (!orphanEntryArray.empty()) processOrphanEntriesWithIncrement(false, true);
  processDuplicateEntries();
  stopPreventingSleep();
  treeScanMode = 1;
}

void Volume::searchCatFragsForDeletedFiles() {
  entryCount = folderCount = fileCount = 0;
  dataSize = 0;
  const std::string status = fmt::format("Searching deleted files for {}", volumeName);
  const uint64_t total = journalSize / kSectorSize;
  report({{progress::kProgressStatus, status}, {progress::kProgressType, 1}, {progress::kBarDoubleValue, uint64_t{0}}});
  report({{progress::kBarMaxValue, total}, {progress::kBarMinValue, uint64_t{0}}});
  report({{progress::kTimeRemaining, ""}});
  if (total == 0 || catNodeSize <= 0 || catNodeSize > kMaxNodeSectors) return;

  const uint64_t nodeSectors = static_cast<uint64_t>(catNodeSize);
  const size_t nodeBytes = nodeSectors * kSectorSize;
  const uint64_t first = HPlusVolStart + journalStart / kSectorSize;
  // A busy journal holds the same node many times over; a copy identical to
  // one already read adds nothing, and reading its records again would cost
  // far more than the disk read. At most one digest per sector searched.
  DigestSet seen(static_cast<size_t>(std::min<uint64_t>(total / nodeSectors + 1, uint64_t{1} << 16)));
  std::string timeText;
  auto take = [&](const uint8_t* head) {
    if (!journalLeafDescriptor(head)) return;
    ++journalNodesFound;
    if (!seen.insert(nodeDigest(head, nodeBytes))) return;
    processDeletedNode(head, nodeBytes, timeText);
  };

  const auto start = std::chrono::steady_clock::now();
  {
    JournalCopyReader reader(*this, first, total, nodeSectors, stopTreeThread);
    for (uint64_t i = 0; i < reader.batches() && !stopTreeThread; ++i) {
      const JournalBatch& batch = reader.batch(i);
      for (const JournalBatch::Copy& copy : batch.copies) {
        if (stopTreeThread) break;
        ++journalNodesFound;
        if (seen.insert(copy.digest)) processDeletedNode(batch.sectors + copy.offset, nodeBytes, timeText);
      }
      if (stopTreeThread) break;
      // Once a batch: a report costs more than searching a few sectors.
      timeText = timeRemainingText(secondsSince(start), batch.done + batch.count, total);
      report({{progress::kProgressStatus, status},
              {progress::kBarIncrement, batch.count},
              {progress::kTimeRemaining, timeText}});
    }
  }

  // The buffer is circular: a copy that runs past the journal's end goes on
  // right after the journal header. The last carry sectors and the first
  // carry sectors after the header, side by side, hold every such copy.
  const uint64_t header = journalHeaderSize / kSectorSize;
  const uint64_t carry = nodeSectors - 1;
  if (stopTreeThread || carry == 0 || header == 0 || header + 2 * carry > total) return;
  std::vector<uint8_t> seam(2 * carry * kSectorSize);
  readSectorsSalvaging(first + total - carry, carry, seam.data());
  readSectorsSalvaging(first + header, carry, seam.data() + carry * kSectorSize);
  // Ends in the second half whose node begins in the first.
  for (uint64_t s = carry; s < 2 * carry && !stopTreeThread; ++s)
    if (looksLikeNodeEnd(seam.data() + s * kSectorSize)) take(seam.data() + (s - carry) * kSectorSize);
}

void Volume::processCatFragForDeletedFiles(uint64_t sector, const std::string& timeRemaining) {
  if (catNodeSize <= 0 || catNodeSize > kMaxNodeSectors) return;
  std::vector<uint8_t> node(static_cast<size_t>(catNodeSize) * kSectorSize);
  if (!readNode(sector, catNodeSize, node.data()) || !journalLeafDescriptor(node.data())) return;
  processDeletedNode(node.data(), node.size(), timeRemaining);
}

void Volume::processDeletedNode(const uint8_t* node, size_t bytes, const std::string& timeRemaining) {
  BTNodeDescriptor_ d;
  std::memcpy(&d, node, sizeof d);
  convertBTNodeDesc(&d);
  for (uint32_t r = 0; r < d.numRecords && !stopTreeThread; ++r)
    if (processDeletedRecord(node, bytes, d.numRecords, r) == RecordCheck::AbandonNode) break;
  ProgressReport done = counters();
  done.set(progress::kProgressStatus, fmt::format("Searching deleted files for {}", volumeName));
  done.set(progress::kTimeRemaining, timeRemaining);
  report(std::move(done));
}

RecordCheck Volume::processDeletedRecord(const uint8_t* node, size_t bytes, uint32_t numRecords, uint32_t index) {
  const CatalogRecordView rec = catalogRecordAt({node, bytes}, numRecords, index, true);
  if (!rec.ok()) return rec.check;
  if (rec.recordType == kHFSPlusFolderThreadRecord) {
    // Names a folder whose own record may be in no copy.
    uint32_t parent = 0;
    std::string name;
    if (rec.thread(parent, name)) noteFolderThread(rec.parentID, parent, std::move(name), false);
    return RecordCheck::Ok;
  }
  if (rec.parentID == kRootParentID) return RecordCheck::SkipRecord;
  if (rec.recordType != kHFSPlusFolderRecord && rec.recordType != kHFSPlusFileRecord) return RecordCheck::SkipRecord;

  // Deleted while open: the copy under its real name, in its real folder, is
  // wanted, and may come later in the journal.
  auto waitsForRealName = [&](uint32_t id) {
    return openDeletedName(rec.name, id) && (privateDataFolderID_ == 0 || rec.parentID == privateDataFolderID_);
  };
  if (rec.recordType == kHFSPlusFolderRecord) {
    HFSPlusCatalogFolder_ folder;
    if (!rec.folder(folder)) return RecordCheck::AbandonNode;
    if (!plausibleFolderRecord(folder)) return RecordCheck::SkipRecord;
    if (folder.folderID <= kLostFoldersID || deletedScanIDs_.count(folder.folderID)) return RecordCheck::Ok;
    if (waitsForRealName(folder.folderID)) {
      openDeleted_.try_emplace(folder.folderID, OpenDeleted{rec.parentID, rec.name, folder, {}});
      return RecordCheck::Ok;
    }
    placeDeletedFolder(rec.parentID, rec.name, folder);
    return RecordCheck::Ok;
  }
  HFSPlusCatalogFile_ file;
  if (!rec.file(file)) return RecordCheck::AbandonNode;
  if (!plausibleFileRecord(file) || !plausibleForks(file)) return RecordCheck::SkipRecord;
  if (file.fileID <= kLostFoldersID || deletedScanIDs_.count(file.fileID)) return RecordCheck::Ok;
  if (waitsForRealName(file.fileID)) {
    openDeleted_.try_emplace(file.fileID, OpenDeleted{rec.parentID, rec.name, {}, file});
    return RecordCheck::Ok;
  }
  return placeDeletedFile(rec.parentID, rec.name, file);
}

void Volume::placeOpenDeletedLeft() {
  // By ID, so the tree does not depend on the order of the journal.
  for (const auto& [id, o] : openDeleted_) {
    if (stopTreeThread) break;
    if (deletedScanIDs_.count(id)) continue;
    if (o.folder.recordType == kHFSPlusFolderRecord)
      placeDeletedFolder(o.parentID, o.name, o.folder);
    else
      placeDeletedFile(o.parentID, o.name, o.file);
  }
  openDeleted_.clear();
}

void Volume::placeDeletedFolder(uint32_t parentID, const std::string& name, const HFSPlusCatalogFolder_& folder) {
  // Files are in btree too: only a folder can be a parent.
  HDIR* parent = findDir(btree.get(), parentID);
  if (parent && parent->fileType != kHDIRFolder) parent = nullptr;
  // A record met in an earlier copy is placed once.
  deletedScanIDs_.insert(folder.folderID);
  auto entry = std::make_unique<HDIR>();
  entry->parentID = parentID;
  entry->setBtreeHDIR(btree.get());
  entry->setBtreeHDIRAdvScan(btreeAdvScan);
  entry->fileType = kHDIRFolder;
  entry->origin = EntryOrigin::Journal;
  entry->createDate = folder.createDate;
  entry->modDate = folder.contentModDate;
  entry->fileID = folder.folderID;
  maxFileID = std::max(maxFileID, folder.folderID);
  if (parent) {
    entry->setFileName(suggestedRepeatFileName(name, parent));
    entry->parent = parent;
    for (HDIR* up = parent; up; up = up->parent) up->addToChildrenCount(1);
    parent->addChildDelFile(std::move(entry));
  } else {
    entry->setFileName(name);
    orphanEntryArray.push_back(std::move(entry));
  }
}

RecordCheck Volume::placeDeletedFile(uint32_t parentID, const std::string& name, const HFSPlusCatalogFile_& file) {
  auto entry = std::make_unique<HDIR>();
  // The extents file still holds the overflow extents of live files only.
  const ForkExtents data = collectForkExtents(file.dataFork, file.fileID, kDataForkType, entry->dataExt, extentsTreeUsable);
  const ForkExtents rsrc = collectForkExtents(file.resourceFork, file.fileID, kResourceForkType, entry->rscExt,
                                              extentsTreeUsable);
  if (data == ForkExtents::Wrong || rsrc == ForkExtents::Wrong) return RecordCheck::SkipRecord;
  HDIR* parent = findDir(btree.get(), parentID);
  if (parent && parent->fileType != kHDIRFolder) parent = nullptr;
  deletedScanIDs_.insert(file.fileID);
  entry->parentID = parentID;
  entry->setBtreeHDIR(btree.get());
  entry->setBtreeHDIRAdvScan(btreeAdvScan);
  entry->fileType = kHDIRFile;
  entry->origin = EntryOrigin::Journal;
  entry->createDate = file.createDate;
  entry->modDate = file.contentModDate;
  entry->fileID = file.fileID;
  maxFileID = std::max(maxFileID, file.fileID);
  entry->dataSize = file.dataFork.logicalSize;
  entry->rscSize = file.resourceFork.logicalSize;
  entry->fileSize = entry->dataSize + entry->rscSize;
  entry->blockSize = blockSize;
  entry->fileMode = byteSwapped(file.permissions.fileMode);
  // A symbolic link is saved as one, its target never followed; a hard
  // link keeps the ID of the file it shared (its own forks are empty). A
  // folder link's record is left a plain entry: the folder it showed is not
  // part of this tree.
  noteLink(*entry, file);
  if (entry->linkKind == LinkKind::Folder) {
    entry->linkKind = LinkKind::None;
    entry->linkID = 0;
  }
  if (data == ForkExtents::Incomplete || rsrc == ForkExtents::Incomplete) noteMissingExtents(*entry);
  if (!entry->dataExt.empty()) btreeFirstFileBlock.insert(entry->dataExt.front().startBlock, 0);
  entry->addToFileCount(1);
  ++fileCount;
  ++entryCount;
  dataSize += entry->fileSize;
  HDIR* made = entry.get();
  if (parent) {
    entry->setFileName(suggestedRepeatFileName(name, parent));
    entry->parent = parent;
    for (HDIR* up = parent; up; up = up->parent) {
      up->addToChildrenCount(1);
      up->addToFileSize(entry->fileSize);
      up->addToFileCount(1);
    }
    made = parent->addChildDelFile(std::move(entry));
  } else {
    entry->setFileName(name);
    orphanEntryArray.push_back(std::move(entry));
  }
  deletedScanFiles_.push_back(made);
  return RecordCheck::Ok;
}

// The live catalog's files with their extents: a journal record of a live
// file, same blocks, is that file; any other whose blocks are in use again
// may no longer hold its bytes.
void Volume::inferNodeSizeFromJournal() {
  catNodeSize = 0;
  if (journalSize < kSectorSize) return;
  const uint64_t first = HPlusVolStart + journalStart / kSectorSize;
  std::vector<LeafEnd> ends;
  scanLeafEnds(first, first + journalSize / kSectorSize, 0, ends, nullptr);
  std::vector<uint8_t> masks;
  masks.reserve(ends.size());
  for (const LeafEnd& e : ends) masks.push_back(e.sizes);
  catNodeSize = nodeSizeByVote(masks);
}

void Volume::collectLiveFiles() {
  filesMet_.clear();
  liveInodes_.clear();
  if (catNodeSize <= 0 || firstLeafNode == 0) return;
  const uint64_t nodes = catalogNodeCount();
  std::unordered_set<uint32_t> visited;
  std::vector<uint8_t> node;
  for (uint32_t number = firstLeafNode; number != 0 && !stopTreeThread && visited.size() <= nodes;) {
    if (!visited.insert(number).second || !readCatalogNode(number, node)) break;
    BTNodeDescriptor_ d;
    std::memcpy(&d, node.data(), sizeof d);
    convertBTNodeDesc(&d);
    if (!verifyLeafNodeDesc(d)) break;
    for (uint32_t r = 0; r < d.numRecords; ++r) {
      const CatalogRecordView rec = catalogRecordAt(node, d.numRecords, r, true);
      if (rec.check == RecordCheck::AbandonNode) break;
      HFSPlusCatalogFolder_ folder;
      if (rec.ok() && rec.recordType == kHFSPlusFolderRecord && rec.parentID == kRootFolderID &&
          privateDataFolderName(rec.name) && rec.folder(folder))
        privateDataFolderID_ = folder.folderID;
      HFSPlusCatalogFile_ file;
      if (!rec.ok() || rec.recordType != kHFSPlusFileRecord || !rec.file(file)) continue;
      std::vector<Extent> data, rsrc;
      for (const auto& e : file.dataFork.extents.extDesc) {
        if (e.startBlock == 0) break;
        data.push_back({e.startBlock, e.blockCount});
      }
      for (const auto& e : file.resourceFork.extents.extDesc) {
        if (e.startBlock == 0) break;
        rsrc.push_back({e.startBlock, e.blockCount});
      }
      filesMet_.add(file.fileID, data, rsrc);
      if (rec.name.rfind("iNode", 0) == 0) liveInodes_[file.fileID] = LiveInode{rec.parentID, file};
    }
    number = d.fLink;
  }
}

void Volume::giveDeletedLinksTheirContent() {
  std::unordered_map<uint32_t, const HDIR*> journalInodes;
  for (HDIR* f : deletedScanFiles_)
    if (f && f->linkKind == LinkKind::None && f->fileName().rfind("iNode", 0) == 0) journalInodes.emplace(f->fileID, f);
  for (HDIR*& slot : deletedScanFiles_) {
    if (stopTreeThread) break;
    HDIR* link = slot;
    if (!link || link->linkKind != LinkKind::File || link->fileSize != 0) continue;
    const auto live = liveInodes_.find(link->linkID);
    const auto found = journalInodes.find(link->linkID);
    if (live != liveInodes_.end() && (privateDataFolderID_ == 0 || live->second.parentID == privateDataFolderID_)) {
      const HFSPlusCatalogFile_& file = live->second.file;
      ExtentList data, rsrc;
      const ForkExtents d = collectForkExtents(file.dataFork, file.fileID, kDataForkType, data, extentsTreeUsable);
      const ForkExtents r = collectForkExtents(file.resourceFork, file.fileID, kResourceForkType, rsrc, extentsTreeUsable);
      if (d == ForkExtents::Wrong || r == ForkExtents::Wrong) {
        ++linksUnresolved;
        continue;
      }
      // The file it names, under another name and with that file's ID, as
      // the live scan lists a link.
      link->fileID = file.fileID;
      link->dataExt = std::move(data);
      link->rscExt = std::move(rsrc);
      link->dataSize = file.dataFork.logicalSize;
      link->rscSize = file.resourceFork.logicalSize;
      link->fileSize = link->dataSize + link->rscSize;
      if (d == ForkExtents::Incomplete || r == ForkExtents::Incomplete) noteMissingExtents(*link);
      applyCompression(*link, file);
      // Its content is live: blocks in use say nothing against it.
      slot = nullptr;
    } else if (found != journalInodes.end()) {
      // Gone with its iNode: as sure as the iNode's own record.
      const HDIR& inode = *found->second;
      link->fileID = inode.fileID;
      link->dataExt = inode.dataExt;
      link->rscExt = inode.rscExt;
      link->dataSize = inode.dataSize;
      link->rscSize = inode.rscSize;
      link->fileSize = inode.fileSize;
    } else {
      ++linksUnresolved;
      continue;
    }
    ++fileLinks;
    if (!link->dataExt.empty()) btreeFirstFileBlock.insert(link->dataExt.front().startBlock, 0);
    dataSize += link->fileSize;
    for (HDIR* up = link->parent; up; up = up->parent) up->addToFileSize(link->fileSize);
  }
}

void Volume::flagReusedDeletedFiles() {
  if (!deletedScanFiles_.empty()) checkAllocationFile();
  auto firstEight = [](const ExtentList& all) {
    return std::span<const Extent>(all.data(), std::min<size_t>(all.size(), 8));
  };
  for (HDIR* f : deletedScanFiles_) {
    if (stopTreeThread) break;
    if (!f || f->confidence != Confidence::Sure) continue;
    const auto data = firstEight(f->dataExt), rsrc = firstEight(f->rscExt);
    const bool live = filesMet_.anyOf(f->fileID, [&](FileVersions::Extents d, FileVersions::Extents r) {
      return std::equal(d.begin(), d.end(), data.begin(), data.end()) &&
             std::equal(r.begin(), r.end(), rsrc.begin(), rsrc.end());
    });
    if (!live && (blocksInUse(f->dataExt) || blocksInUse(f->rscExt))) f->confidence = Confidence::BlocksReused;
  }
  deletedScanFiles_.clear();
}

}  // namespace ambrel
