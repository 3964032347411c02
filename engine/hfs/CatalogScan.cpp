// The tree scan of one volume: the catalog leaf walk ("Normal Scan") and its
// entry point, which also drives the node searches of the advanced scan.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <unordered_set>
#include <fmt/format.h>

#include "base/Endian.h"
#include "hfs/CatalogRecords.h"
#include "hfs/NodeReadAhead.h"
#include "hfs/Volume.h"

namespace ambrel {

namespace {

constexpr const char* kAdvancedScan = "Advanced Scan";

// A retrieve count above this means the chain has led back to a node
// several times: the walk ends.
constexpr uint32_t kMaxNodeVisits = 4;

}  // namespace

std::string Volume::driveText(const char* format) const {
  return fmt::format(fmt::runtime(format), volumeName, model, serial, revision);
}

void Volume::startPreventingSleep() {
  if (appController) appController->preventSleep(true);
}

void Volume::stopPreventingSleep() {
  if (appController) appController->preventSleep(false);
}

bool Volume::verifyLeafNodeDesc(const BTNodeDescriptor_& desc) { return desc.height == 1 && desc.kind == kBTLeafNode; }

bool Volume::convertHPlusCatalogKey(HFSPlusCatalogKey_* key) { return convertHPlusCatalogKeyBounded(key); }

void Volume::makeRoot() {
  if (dirRoot) return;
  auto root = std::make_unique<HDIR>();
  root->fileType = kHDIRFolder;
  root->fileID = kRootFolderID;
  root->parentID = kRootParentID;
  root->setFileName("Root");
  root->setBtreeHDIR(btree.get());
  root->setBtreeHDIRAdvScan(btreeAdvScan);
  btree->insert(kRootFolderID, root.get());
  dirRoot = std::move(root);
}

bool Volume::makeTree() {
  makeRoot();
  readFilesAndFolders();
  return true;
}

void Volume::startMakingTree(AppControllerInterface* controller, const std::string& mode) {
  if (controller) appController = controller;
  scanMode = mode;
  treeScanMode = mode == kAdvancedScan ? 1 : 0;
  advScanEntriesCanBePutIntoOrphanEntryArray = false;
  const bool advanced = treeScanMode == 1;
  bool alertShown = false;
  readErrors.clear();
  // A size from a damaged table or file: the scans cover the drive, no more.
  if (const uint64_t drive = deviceSectors(); drive > 0)
    sizeInSect = std::min(sizeInSect, drive > startSector ? drive - startSector : 0);
  // The machine stays awake from the first step to the last report: every
  // step of a scan can take long on a large or failing drive.
  startPreventingSleep();

  const bool headerRead = initializeVIB();
  blockSizeSource = headerRead ? BlockSizeSource::Header : BlockSizeSource::Assumed;
  bool usable = headerRead;
  bool catalogHeader = false;
  if (headerRead) {
    advScanEntriesCanBePutIntoOrphanEntryArray = true;
    catalogHeader = checkCatalogAndExtentsFile();
    if (!catalogHeader) {
      // The catalog is still where the volume header says, its nodes as
      // large as they show themselves; its leaves are found by reading it.
      getCatalogExtFromVIB();
      firstLeafNode = 0;
      catTreeDepth = 0;
      leafRecords = 0;
      usable = inferCatalogNodeSize();
    }
  }
  if (usable) {
    if (!catalogHeader) {
      searchForLeafNodes();
    } else {
      if (catTreeDepth > 1) enumerateLevel2IndexNodes();
      if (leafNodePointerArrayMade_ && (leafNodePointerArray.empty() || level2IndexNodeHasProblems))
        searchForLevel2IndexNodes();
      if (level2IndexNodeHasProblems) searchForLeafNodes();
    }
    if ((firstLeafNode != 0 || !leafNodePointerTotalArray.empty()) && catNodeSize != 0) {
      makeTree();
      // The advanced scan places these orphans itself, once the copies and
      // thread records that may hold their folders have been read.
      if (!advanced) {
        provideMissingParents({&orphanEntryArray}, orphanEntryArray, true, false);
        if (!orphanEntryArray.empty()) processOrphanEntriesWithIncrement(false, false);
      }
    }
    if (advanced) makeAdvTree();
  } else if (advanced) {
    // A header that was read says how large the blocks are; without one they
    // are learnt from the file records found, 4096 bytes failing that.
    if (!headerRead) blockSize = 8;
    makeAdvTree();
  } else {
    if (appController) {
      appController->alert("Can not process",
                           "Key data structures not found. Please try Advance Scan for tree on the desired volume.",
                           {"OK"});
      appController->destroyVolumeAndBackToPartList();
    }
    alertShown = true;
  }

  resolveLinks();
  processDuplicateEntries();
  if (!alertShown) {
    ProgressReport done{{progress::kProgressStatus, driveText("Tree Completed for {} on drive {} {} {}")},
                        {progress::kTreeComplete, true},
                        {progress::kBarDoubleValue, uint64_t{0}}};
    if (readErrors.any()) done.set(progress::kReadErrors, readErrors.summary());
    report(std::move(done));
  }
  stopPreventingSleep();
}

bool Volume::readFilesAndFolders() {
  const std::string status = driveText("Making Tree for {} on drive {} {} {}");
  report({{progress::kProgressStatus, status}, {progress::kProgressType, 1}, {progress::kBarMaxValue, uint64_t{leafRecords}}});
  report({{progress::kTimeRemaining, ""}});
  scanStart_ = std::chrono::steady_clock::now();
  scanRecordsSeen_ = 0;

  const size_t nodeBytes = static_cast<size_t>(catNodeSize) * kSectorSize;
  std::vector<uint8_t> node(nodeBytes);
  NodeReadAhead readAhead(*this, catNodeSize);
  bool strict = true;
  size_t nextA = 0, nextT = 0;
  uint32_t number = firstLeafNode;

  // The next node from the collected lists: level-2 pointers while strict,
  // then every leaf-looking node of the catalog in tolerant mode. Nodes whose
  // records were already read are passed over: going back through the part
  // of the chain already walked would only count as revisits and end the walk.
  std::unordered_set<uint32_t> processed;
  std::unordered_set<int64_t> bridgedAt;
  auto fromLists = [&](uint32_t& out) {
    while (strict && nextA < leafNodePointerArray.size()) {
      out = leafNodePointerArray[nextA++];
      if (!processed.count(out)) return true;
    }
    strict = false;
    while (nextT < leafNodePointerTotalArray.size()) {
      out = leafNodePointerTotalArray[nextT++];
      if (!processed.count(out)) return true;
    }
    return false;
  };

  // Without a first leaf (no catalog header) the walk starts from the lists.
  if (number == 0 && !fromLists(number)) number = 0;
  while (number != 0 && !stopTreeThread) {
    const int64_t sector = catNodeToSector(number);
    BTNodeDescriptor_ desc{};
    const bool read = sector != kInvalidSector &&
                      readAhead.read(number, static_cast<uint64_t>(sector), node.data(),
                                     [this](uint32_t n) { return catNodeToSector(n); });
    if (read) {
      std::memcpy(&desc, node.data(), sizeof desc);
      convertBTNodeDesc(&desc);
    }
    if (!read || !verifyLeafNodeDesc(desc)) {
      // A node of the chain that is no leaf: the walk goes on from the lists.
      // Counted once per node, however often the lists lead back to it.
      if (bridgedAt.insert(sector).second) {
        if (read) noteDamagedNode(sector);
        if (strict) ++chainBridges;
      }
      if (!fromLists(number)) break;
      continue;
    }
    const uint32_t key = static_cast<uint32_t>(sector);
    if (auto* seen = btreeForUsedCatNodeSector.retrieveKeyField(key)) {
      // A chain that keeps leading back here loops: it ends, and the lists
      // bridge to the nodes it never reached.
      if (seen->retrieveCount > kMaxNodeVisits) {
        if (strict && bridgedAt.insert(sector).second) ++chainBridges;
        if (!fromLists(number)) break;
        continue;
      }
      if (strict && desc.fLink != 0) {
        number = desc.fLink;
      } else if (!fromLists(number)) {
        break;
      }
      continue;
    }
    btreeForUsedCatNodeSector.insert(key, 1);
    processed.insert(number);
    scanRecordsSeen_ += desc.numRecords;
    for (uint32_t i = 0; i < desc.numRecords && !stopTreeThread; ++i)
      processLeafRecord(node, desc.numRecords, i, !strict);

    if (!strict) {
      if (!fromLists(number)) break;
    } else if (desc.fLink != 0) {
      number = desc.fLink;
    } else {
      if (scanRecordsSeen_ >= 2ULL * leafRecords) break;
      if (!fromLists(number)) break;
    }
  }

  ProgressReport done = counters();
  done.set(progress::kProgressStatus, status);
  done.set(progress::kBarDoubleValue, uint64_t{leafRecords});
  report(std::move(done));
  return true;
}

void Volume::reportEntryProgress() {
  if (entryCount % 100 != 0) return;
  const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - scanStart_).count();
  ProgressReport r = counters();
  r.set(progress::kTimeRemaining, timeRemainingText(elapsed, scanRecordsSeen_, 2ULL * leafRecords));
  r.set(progress::kProgressStatus, driveText("Making Tree for {} on drive {} {} {}"));
  r.set(progress::kBarIncrement, uint64_t{100});
  report(std::move(r));
}

Volume::ForkExtents Volume::collectForkExtents(const HFSPlusForkData_& fork, uint32_t fileID, uint8_t forkType,
                                       ExtentList& out, bool lookUpOverflow) {
  uint64_t sum = 0;
  size_t used = 0;
  for (const auto& d : fork.extents.extDesc) {
    if (d.startBlock == 0) break;
    out.push_back({d.startBlock, d.blockCount});
    sum += d.blockCount;
    ++used;
  }
  // A free slot in the record means it holds every extent of the fork.
  if (used < 8 || sum >= fork.totalBlocks) return sum == fork.totalBlocks ? ForkExtents::Complete : ForkExtents::Wrong;
  if (lookUpOverflow) {
    for (const Extent& e : extentsForID(fileID, forkType, static_cast<uint32_t>(sum), fork.totalBlocks)) {
      out.push_back(e);
      sum += e.blockCount;
    }
  }
  if (sum == fork.totalBlocks) return ForkExtents::Complete;
  return sum < fork.totalBlocks ? ForkExtents::Incomplete : ForkExtents::Wrong;
}

// A fork that is kept though its overflow extents could not be read: the file
// is listed, flagged, and named among those affected.
void Volume::noteMissingExtents(HDIR& entry) {
  if (entry.confidence == Confidence::Sure) entry.confidence = Confidence::ExtentsMissing;
  if (missingExtentFileIDs.size() < kMaxListedMissingExtents) missingExtentFileIDs.push_back(entry.fileID);
}

void Volume::processLeafRecord(const std::vector<uint8_t>& node, uint32_t numRecords, uint32_t index, bool tolerant) {
  const CatalogRecordView rec = catalogRecordAt(node, numRecords, index, tolerant);
  if (!rec.ok()) return;
  if (rec.recordType == kHFSPlusFolderThreadRecord) {
    uint32_t parent = 0;
    std::string name;
    if (rec.thread(parent, name)) noteFolderThread(rec.parentID, parent, std::move(name), true);
    return;
  }
  if (rec.name == ".DS_Store") return;
  if (rec.recordType != kHFSPlusFolderRecord && rec.recordType != kHFSPlusFileRecord) return;
  if (rec.parentID == kRootParentID) return;

  HDIR* parent = findDir(btree.get(), rec.parentID);
  auto entry = std::make_unique<HDIR>();
  entry->parentID = rec.parentID;

  if (rec.recordType == kHFSPlusFolderRecord) {
    HFSPlusCatalogFolder_ folder;
    if (!rec.folder(folder)) return;
    if (tolerant && !plausibleFolderRecord(folder)) return;
    if (!foldersMet_.insert(folder.folderID).second) return;  // one entry per folder
    entry->fileType = kHDIRFolder;
    entry->createDate = folder.createDate;
    entry->modDate = folder.contentModDate;
    entry->fileID = folder.folderID;
    maxFileID = std::max(maxFileID, folder.folderID);
    ++folderCount;
    ++entryCount;
    entry->setBtreeHDIR(btree.get());
    entry->setBtreeHDIRAdvScan(btreeAdvScan);
    if (parent) {
      entry->setFileName(suggestedRepeatFileName(rec.name, parent));
      entry->parent = parent;
      for (HDIR* up = parent; up; up = up->parent) up->addToChildrenCount(1);
      parent->addChild(std::move(entry));
    } else {
      entry->setFileName(rec.name);
      orphanEntryArray.push_back(std::move(entry));
    }
    reportEntryProgress();
    return;
  }

  HFSPlusCatalogFile_ file;
  if (!rec.file(file)) return;
  if (tolerant && !plausibleFileRecord(file)) return;
  // Only the advanced scan asks where live files lie (for the catalog nodes
  // it finds inside them): a standard scan keeps no 8 bytes a file for it.
  const bool noteBlocks = treeScanMode == 1;
  if (!plausibleForks(file)) {
    if (noteBlocks) noteUnlistedLiveFile(rec.parentID, rec.name, file);
    return;
  }
  entry->fileID = file.fileID;
  const ForkExtents data = collectForkExtents(file.dataFork, file.fileID, kDataForkType, entry->dataExt, true);
  const ForkExtents rsrc = collectForkExtents(file.resourceFork, file.fileID, kResourceForkType, entry->rscExt, true);
  const bool consistent = data != ForkExtents::Wrong && rsrc != ForkExtents::Wrong;
  // The same file met again (a chain that leads back, a second scan): listed once.
  if (consistent && fileMetBefore(*entry)) return;
  if (consistent && noteBlocks) noteLiveFileBlocks(rec.parentID, rec.name, entry->dataExt, entry->rscExt);
  entry->fileType = kHDIRFile;
  entry->createDate = file.createDate;
  entry->modDate = file.contentModDate;
  entry->fileID = file.fileID;
  maxFileID = std::max(maxFileID, file.fileID);
  entry->setFileName(parent ? suggestedRepeatFileName(rec.name, parent) : rec.name);
  entry->dataSize = file.dataFork.logicalSize;
  entry->rscSize = file.resourceFork.logicalSize;
  entry->fileSize = entry->dataSize + entry->rscSize;
  entry->blockSize = blockSize;
  entry->fileMode = byteSwapped(file.permissions.fileMode);
  applyCompression(*entry, file);
  noteLink(*entry, file);
  ++fileCount;
  ++entryCount;
  dataSize += entry->fileSize;
  if (!consistent) return;  // dropped, though the counters keep it
  if (data == ForkExtents::Incomplete || rsrc == ForkExtents::Incomplete) noteMissingExtents(*entry);

  entry->addToFileCount(1);
  if (parent) {
    entry->parent = parent;
    for (HDIR* up = parent; up; up = up->parent) {
      up->addToChildrenCount(1);
      up->addToFileSize(entry->fileSize);
      up->addToFileCount(1);
    }
    parent->addChild(std::move(entry));
  } else {
    orphanEntryArray.push_back(std::move(entry));
  }
  reportEntryProgress();
}

// Sizes must fit the volume and agree with the blocks the forks claim; forks
// of 4 GiB and more are left out on purpose.
bool Volume::plausibleForks(const HFSPlusCatalogFile_& f, bool anySize) const {
  const uint64_t blockBytes = static_cast<uint64_t>(blockSize) * kSectorSize;
  if (blockBytes == 0) return false;
  const uint64_t volumeBytes = sizeInSect * kSectorSize;
  const uint64_t data = f.dataFork.logicalSize, rsrc = f.resourceFork.logicalSize;
  if (data > volumeBytes || rsrc > volumeBytes || data + rsrc >= volumeBytes) return false;
  for (const HFSPlusForkData_* fork : {&f.dataFork, &f.resourceFork}) {
    if (!anySize && fork->logicalSize >= (uint64_t{1} << 32)) return false;
    // Against the fork's own block count: the volume header may be gone.
    if (fork->logicalSize > uint64_t{fork->totalBlocks} * blockBytes) return false;
    if (fork->totalBlocks != (fork->logicalSize + blockBytes - 1) / blockBytes) return false;
  }
  return true;
}

}  // namespace ambrel
