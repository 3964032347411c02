// What the scans have met so far, so that each file is listed once: a file
// is its ID and the blocks of its forks. Also the folder thread records,
// which name a folder and its parent when the folder's own record is gone,
// and the checks that mark an old version whose blocks are in use again.
#include <algorithm>
#include <unordered_set>

#include "hfs/CatalogRecords.h"
#include "hfs/Volume.h"

namespace ambrel {

namespace {

bool startsWith(FileVersions::Extents whole, FileVersions::Extents part) {
  return part.size() <= whole.size() && std::equal(part.begin(), part.end(), whole.begin());
}

bool same(FileVersions::Extents a, FileVersions::Extents b) { return std::equal(a.begin(), a.end(), b.begin(), b.end()); }

}  // namespace

bool Volume::fileMetBefore(const HDIR& e, bool incomplete) {
  const bool met = filesMet_.anyOf(e.fileID, [&](FileVersions::Extents data, FileVersions::Extents rsrc) {
    if (same(data, e.dataExt) && same(rsrc, e.rscExt)) return true;
    // A copy that lacks the overflow extents of a file met whole.
    return incomplete && startsWith(data, e.dataExt) && startsWith(rsrc, e.rscExt);
  });
  if (!met) filesMet_.add(e.fileID, e.dataExt, e.rscExt);
  return met;
}

bool Volume::otherVersionMet(const HDIR& e) const {
  return filesMet_.anyOf(e.fileID, [&](FileVersions::Extents data, FileVersions::Extents rsrc) {
    return !same(data, e.dataExt) || !same(rsrc, e.rscExt);
  });
}

void Volume::noteFolderThread(uint32_t folderID, uint32_t parentID, std::string name, bool live) {
  if (folderID <= kLostFoldersID || parentID == 0) return;
  auto it = folderThreads_.find(folderID);
  if (it != folderThreads_.end()) {
    const FolderThread& had = it->second;
    // The live catalog's thread wins over a copy's; among copies the first,
    // unless it only names where the folder waited, deleted while open.
    if (had.live) return;
    if (!live && !(openDeletedName(had.name, folderID) && !openDeletedName(name, folderID))) return;
  }
  folderThreads_[folderID] = FolderThread{parentID, std::move(name), live};
}

bool Volume::blocksInUse(std::span<const Extent> extents) {
  if (allocationExt.empty() || blockSize <= 0) return false;
  const uint64_t bitsPerBlock = static_cast<uint64_t>(blockSize) * kSectorSize * 8;
  std::vector<uint8_t> bitmap;
  uint64_t loaded = UINT64_MAX;
  for (const Extent& e : extents) {
    for (uint64_t b = e.startBlock; b < uint64_t{e.startBlock} + e.blockCount; ++b) {
      const uint64_t index = b / bitsPerBlock;
      if (index != loaded) {
        if (!readBitmapBlock(index, bitmap)) return false;
        loaded = index;
      }
      const uint64_t bit = b % bitsPerBlock;
      if (bitmap[bit / 8] & (0x80 >> (bit % 8))) return true;
    }
  }
  return false;
}

void Volume::flagReusedBlocks() {
  if (advScanFileArray.empty()) return;
  // Every run of blocks of every file met, with the version it belongs to.
  struct Run {
    uint64_t start, end;
    uint32_t owner;  // version index in filesMet_
  };
  std::vector<Run> runs;
  uint64_t longest = 0;
  filesMet_.forEach([&](uint32_t version, FileVersions::Extents data, FileVersions::Extents rsrc) {
    for (const FileVersions::Extents list : {data, rsrc})
      for (const Extent& e : list) {
        runs.push_back({e.startBlock, uint64_t{e.startBlock} + e.blockCount, version});
        longest = std::max<uint64_t>(longest, e.blockCount);
      }
  });
  std::sort(runs.begin(), runs.end(), [](const Run& a, const Run& b) { return a.start < b.start; });
  auto overlapsAnother = [&](const HDIR& f) {
    for (const ExtentList* list : {&f.dataExt, &f.rscExt})
      for (const Extent& e : *list) {
        const uint64_t s = e.startBlock, end = s + e.blockCount;
        auto it = std::lower_bound(runs.begin(), runs.end(), s > longest ? s - longest : 0,
                                   [](const Run& r, uint64_t v) { return r.start < v; });
        for (; it != runs.end() && it->start < end; ++it)
          if (it->end > s && !(same(filesMet_.data(it->owner), f.dataExt) && same(filesMet_.rsrc(it->owner), f.rscExt)))
            return true;
      }
    return false;
  };
  for (auto& f : advScanFileArray) {
    if (stopTreeThread) return;
    if (!f || f->confidence != Confidence::Sure) continue;
    // Blocks another file now holds, or an old version's blocks marked in use.
    if (overlapsAnother(*f) || (otherVersionMet(*f) && (blocksInUse(f->dataExt) || blocksInUse(f->rscExt))))
      f->confidence = Confidence::BlocksReused;
  }
}

void Volume::noteLiveFileBlocks(uint32_t parentID, const std::string& name, std::span<const Extent> data,
                                std::span<const Extent> rsrc) {
  // The journal holds this volume's own node copies.
  if (parentID == kRootFolderID && (name == ".journal" || name == ".journal_info_block")) return;
  for (const std::span<const Extent> list : {data, rsrc})
    for (const Extent& e : list)
      if (e.blockCount)
        liveFileRuns_.push_back(
            {e.startBlock, static_cast<uint32_t>(std::min<uint64_t>(uint64_t{e.startBlock} + e.blockCount - 1, UINT32_MAX))});
  liveFileRunsSorted_ = false;
}

void Volume::noteUnlistedLiveFile(uint32_t parentID, const std::string& name, const HFSPlusCatalogFile_& file) {
  if (!plausibleForks(file, true)) return;
  ExtentList data, rsrc;
  if (collectForkExtents(file.dataFork, file.fileID, kDataForkType, data, extentsTreeUsable) == ForkExtents::Wrong ||
      collectForkExtents(file.resourceFork, file.fileID, kResourceForkType, rsrc, extentsTreeUsable) ==
          ForkExtents::Wrong)
    return;
  noteLiveFileBlocks(parentID, name, data, rsrc);
}

bool Volume::insideLiveFile(uint64_t sector, uint64_t sectors) {
  if (liveFileRuns_.empty() || blockSize <= 0 || sector < HPlusVolStart) return false;
  if (!liveFileRunsSorted_) {
    std::sort(liveFileRuns_.begin(), liveFileRuns_.end(),
              [](const BlockRun& a, const BlockRun& b) { return a.start < b.start; });
    // Merged, so that one look-up answers.
    std::vector<BlockRun> merged;
    for (const BlockRun& r : liveFileRuns_) {
      if (!merged.empty() && r.start <= uint64_t{merged.back().last} + 1)
        merged.back().last = std::max(merged.back().last, r.last);
      else
        merged.push_back(r);
    }
    liveFileRuns_.swap(merged);
    liveFileRunsSorted_ = true;
  }
  const uint64_t bs = static_cast<uint64_t>(blockSize);
  const uint64_t first = (sector - HPlusVolStart) / bs;
  const uint64_t last = (sector + (sectors ? sectors : 1) - 1 - HPlusVolStart) / bs;
  auto it = std::upper_bound(liveFileRuns_.begin(), liveFileRuns_.end(), first,
                             [](uint64_t v, const BlockRun& r) { return v < r.start; });
  if (it == liveFileRuns_.begin()) return false;
  --it;
  return first >= it->start && last <= it->last;
}

void Volume::provideMissingParents(const std::vector<HDIR::ChildArray*>& waiting, HDIR::ChildArray& into,
                                   bool count, bool fromAdvScanFolders) {
  std::unordered_set<uint32_t> present;
  for (const HDIR::ChildArray* array : waiting)
    for (const auto& e : *array)
      if (e && e->fileType == kHDIRFolder) present.insert(e->fileID);
  std::unordered_map<uint32_t, size_t> oldFolders;  // folders of old copies by ID
  if (fromAdvScanFolders)
    for (size_t i = 0; i < advScanFolderArray.size(); ++i)
      if (advScanFolderArray[i]) oldFolders.emplace(advScanFolderArray[i]->fileID, i);
  std::vector<uint32_t> wanted;
  for (const HDIR::ChildArray* array : waiting)
    for (const auto& e : *array)
      if (e) wanted.push_back(e->parentID);
  std::unordered_set<uint32_t> tried;
  bool moved = false;
  while (!wanted.empty() && !stopTreeThread) {
    const uint32_t id = wanted.back();
    wanted.pop_back();
    if (id <= kRootFolderID || !tried.insert(id).second || present.count(id) || findDir(btree.get(), id)) continue;
    std::unique_ptr<HDIR> folder;
    if (auto it = oldFolders.find(id); it != oldFolders.end()) {
      // The folder's record from an old copy joins those waiting for it.
      folder = std::move(advScanFolderArray[it->second]);
      moved = true;
    } else if (auto t = folderThreads_.find(id); t != folderThreads_.end()) {
      // Only its thread record is left: name and parent, no dates.
      folder = std::make_unique<HDIR>();
      folder->fileType = kHDIRFolder;
      folder->fileID = id;
      folder->parentID = t->second.parentID;
      folder->setFileName(t->second.name);
      folder->setBtreeHDIR(btree.get());
      maxFileID = std::max(maxFileID, id);
    } else {
      continue;
    }
    if (count) {
      ++folderCount;
      ++entryCount;
    }
    present.insert(id);
    wanted.push_back(folder->parentID);
    into.push_back(std::move(folder));
  }
  if (moved)
    advScanFolderArray.erase(std::remove(advScanFolderArray.begin(), advScanFolderArray.end(), nullptr),
                             advScanFolderArray.end());
}

}  // namespace ambrel
