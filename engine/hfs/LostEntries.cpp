// Entries whose parent folder was not placed (yet): attached to their real
// parents in repeated passes, the rest under "Lost Files" or "Lost Folders".
#include <algorithm>
#include <chrono>
#include <fmt/format.h>
#include <unordered_map>

#include "hfs/Volume.h"

namespace ambrel {

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Places the entries of `array` whose parent `table` knows, pass after pass,
// exactly as passes over the whole array would: in each pass by position, an
// entry is placed when its parent is known at that moment, and another pass
// runs while the last one placed a folder. Instead of rescanning, the first
// pass notes who waits for which parent ID; placing a folder releases its
// waiters into this pass (those behind it) or the next (those before it).
// `place` takes the entry and its parent and says whether it placed a folder.
// `passDone` runs after each pass. Returns false when stopped.
template <class Place, class PassDone>
bool placeInPasses(HDIR::ChildArray& array, BTreeTableClass* table, const std::atomic<bool>& stop, Place place,
                   PassDone passDone) {
  std::unordered_map<uint32_t, std::vector<size_t>> waiting;
  std::vector<size_t> current, next;
  auto release = [&](uint32_t id, size_t placedAt) {
    auto it = waiting.find(id);
    if (it == waiting.end() || !findDir(table, id)) return;
    for (size_t pos : it->second) (pos > placedAt ? current : next).push_back(pos);
    waiting.erase(it);
  };
  // Places the entry at pos if its parent is known; true when it was a folder.
  auto tryPlace = [&](size_t pos, bool firstPass) {
    HDIR* e = array[pos].get();
    HDIR* parent = findDir(table, e->parentID);
    if (!parent) {
      if (firstPass) waiting[e->parentID].push_back(pos);
      return false;
    }
    const uint32_t id = e->fileID;
    const bool folder = place(std::move(array[pos]), parent);
    if (folder) release(id, pos);
    return folder;
  };

  bool placedFolder = false;
  for (size_t pos = 0; pos < array.size(); ++pos) {
    if (stop.load()) return false;
    if (!array[pos]) continue;
    placedFolder |= tryPlace(pos, true);
  }
  // In the first pass every waiter stands before the folder that releases
  // it, so all released ones went to `next`.
  passDone();
  while (placedFolder) {
    placedFolder = false;
    current.swap(next);
    next.clear();
    // A min-heap by position: the pass visits entries in array order.
    std::make_heap(current.begin(), current.end(), std::greater<>());
    while (!current.empty()) {
      if (stop.load()) return false;
      std::pop_heap(current.begin(), current.end(), std::greater<>());
      const size_t pos = current.back();
      current.pop_back();
      if (!array[pos]) continue;
      const size_t before = current.size();
      placedFolder |= tryPlace(pos, false);
      for (size_t i = before; i < current.size(); ++i)
        std::push_heap(current.begin(), current.begin() + static_cast<std::ptrdiff_t>(i) + 1, std::greater<>());
    }
    passDone();
  }
  return true;
}

// Drops the moved-out slots, keeping the order of what is left.
void compact(HDIR::ChildArray& array) {
  size_t kept = 0;
  for (auto& e : array)
    if (e) array[kept++] = std::move(e);
  array.resize(kept);
}

size_t countLeft(const HDIR::ChildArray& array) {
  size_t n = 0;
  for (const auto& e : array) n += e != nullptr;
  return n;
}

}  // namespace

void Volume::addChildrenUp(HDIR* from, int32_t n, uint64_t size, uint32_t files) {
  for (HDIR* a = from; a; a = a->parent) {
    a->addToChildrenCount(n);
    a->addToFileSize(size);
    a->addToFileCount(files);
  }
}

void Volume::processOrphanEntriesWithIncrement(bool increment, bool showVolNameOnly) {
  const std::string s = showVolNameOnly ? fmt::format("Processing Orphan Entries for {}", volumeName)
                                        : fmt::format("Processing Orphan Entries for {} on drive {} {} {}", volumeName,
                                                      model, serial, revision);
  const uint64_t n0 = orphanEntryArray.size();
  report({{progress::kProgressStatus, s}, {progress::kProgressType, 1}, {progress::kBarDoubleValue, 0.0}});
  report({{progress::kProgressStatus, s}, {progress::kBarMaxValue, n0}, {progress::kBarMinValue, 0}});

  auto place = [&](std::unique_ptr<HDIR> e, HDIR* parent) {
    e->setFileName(suggestedRepeatFileName(e->fileName(), parent));
    ProgressReport r = counters();
    r.set(progress::kProgressStatus, s);
    r.set(progress::kBarIncrement, 1);
    report(std::move(r));
    bool folder = false;
    if (e->fileType == kHDIRFolder) {
      e->parent = parent;
      addChildrenUp(parent, 1, 0, 0);
      if (increment) {
        ++folderCount;
        ++entryCount;
      }
      e->setBtreeHDIR(btree.get());
      folder = true;
    } else if (e->fileType == kHDIRFile) {
      e->parent = parent;
      addChildrenUp(parent, 1, e->fileSize, 1);
      if (increment) {
        ++fileCount;
        ++entryCount;
        dataSize += e->fileSize;
      }
    } else {
      return false;  // only leaves the array
    }
    parent->addChild(std::move(e));
    return folder;
  };
  auto passDone = [&] {
    ProgressReport r = counters();
    r.set(progress::kProgressStatus, s);
    r.set(progress::kBarMaxValue, uint64_t{countLeft(orphanEntryArray)} + n0);
    report(std::move(r));
  };
  const bool finished = placeInPasses(orphanEntryArray, btree.get(), stopTreeThread, place, passDone);
  compact(orphanEntryArray);
  if (!finished || stopTreeThread.load() || orphanEntryArray.empty() || !dirRoot) {
    orphanEntryArray.clear();
    return;
  }

  const std::string l = showVolNameOnly ? fmt::format("Processing Lost Entries for {}", volumeName)
                                        : fmt::format("Processing Lost Entries for {} on drive {} {} {}", volumeName,
                                                      model, serial, revision);
  report({{progress::kProgressStatus, l}, {progress::kProgressType, 1}, {progress::kBarDoubleValue, 0.0}});
  dirLostFiles = findDir(btree.get(), kLostFilesID);
  if (!dirLostFiles) {
    auto lost = std::make_unique<HDIR>();
    lost->fileType = kHDIRFolder;
    lost->fileID = kLostFilesID;
    lost->parentID = kRootFolderID;
    lost->setFileName("Lost Files");
    lost->parent = dirRoot.get();
    ++folderCount;
    ++entryCount;
    addChildrenUp(dirRoot.get(), 1, 0, 0);
    dirLostFiles = dirRoot->addChild(std::move(lost));
  }
  const uint64_t total = orphanEntryArray.size();
  report({{progress::kProgressStatus, l}, {progress::kBarMaxValue, total}, {progress::kBarMinValue, 0}});
  const auto started = Clock::now();
  for (uint64_t j = 0; j < total; ++j) {
    if (stopTreeThread.load()) break;
    if (j > 0)
      report({{progress::kProgressStatus, l},
              {progress::kBarIncrement, 1},
              {progress::kTimeRemaining, timeRemainingText(secondsSince(started), j, total)}});
    std::unique_ptr<HDIR>& e = orphanEntryArray[j];
    e->setFileName(suggestedRepeatFileName(e->fileName(), dirLostFiles));
    e->parentID = kLostFilesID;
    e->parent = dirLostFiles;
    // A folder still orphaned here is left out of the tree, as built.
    if (e->fileType != kHDIRFile) continue;
    addChildrenUp(dirLostFiles, 1, e->fileSize, 1);
    if (increment) {
      ++fileCount;
      ++entryCount;
      dataSize += e->fileSize;
    }
    dirLostFiles->addChild(std::move(e));
  }
  // Each entry above reported the one before it; the last one is reported here
  // so that the bar reaches its maximum.
  if (total > 0 && !stopTreeThread.load()) report({{progress::kProgressStatus, l}, {progress::kBarIncrement, 1}});
  orphanEntryArray.clear();
}

HDIR* Volume::makeLostFolderFor(uint32_t missingID) {
  auto lost = std::make_unique<HDIR>();
  lost->fileType = kHDIRFolder;
  lost->fileID = missingID;
  lost->parentID = kLostFoldersID;
  lost->setFileName(fmt::format("LostFolder{}", missingID));
  lost->setBtreeHDIRAdvScan(btreeAdvScan);
  lost->parent = dirLostFolders;
  HDIR* added = dirLostFolders->addChildAdvScan(std::move(lost));
  addChildrenUp(dirLostFolders, 1, 0, 0);
  return added;
}

void Volume::processAdvScanEntries() {
  if (!dirRoot) return;
  if (!btreeAdvScan) btreeAdvScan = btree.get();
  const std::string folders =
      fmt::format("Processing Folders for {} on drive {} {} {}", volumeName, model, serial, revision);
  const uint64_t folderTotal = advScanFolderArray.size();
  report({{progress::kProgressStatus, folders},
          {progress::kProgressType, 1},
          {progress::kBarDoubleValue, 0.0},
          {progress::kBarMaxValue, folderTotal},
          {progress::kBarMinValue, 0}});

  auto lostFolders = std::make_unique<HDIR>();
  lostFolders->fileType = kHDIRFolder;
  lostFolders->fileID = kLostFoldersID;
  lostFolders->parentID = kRootFolderID;
  lostFolders->setFileName("Lost Folders");
  lostFolders->parent = dirRoot.get();
  lostFolders->setBtreeHDIR(btree.get());
  lostFolders->setBtreeHDIRAdvScan(btreeAdvScan);
  dirLostFolders = dirRoot->addChild(std::move(lostFolders));
  dirRoot->addToChildrenCount(1);
  btreeAdvScan->insert(kLostFoldersID, dirLostFolders);

  auto started = Clock::now();
  uint64_t done = 0;
  auto timeText = [&](uint64_t total) -> std::string {
    if (done <= total / 20) return "Calculating ...";
    return timeRemainingText(secondsSince(started), done, total);
  };

  auto placeFolder = [&](std::unique_ptr<HDIR> f, HDIR* parent) {
    f->setFileName(suggestedRepeatFileName(f->fileName(), parent));
    f->parent = parent;
    f->parentID = parent->fileID;
    addChildrenUp(parent, 1, 0, 0);
    ++folderCount;
    ++entryCount;
    ++done;
    const uint32_t id = f->fileID;
    // Entered where its children look for it, whatever table its parent has.
    HDIR* added = parent->addChildAdvScan(std::move(f));
    if (added && !findDir(btreeAdvScan, id)) btreeAdvScan->insert(id, added);
    ProgressReport r = counters();
    r.set(progress::kProgressStatus, folders);
    r.set(progress::kBarIncrement, 1);
    r.set(progress::kTimeRemaining, timeText(folderTotal));
    report(std::move(r));
    return true;
  };
  for (auto& f : advScanFolderArray) f->setBtreeHDIRAdvScan(btreeAdvScan);
  auto passDone = [&] {
    report({{progress::kProgressStatus, folders}, {progress::kBarMaxValue, uint64_t{countLeft(advScanFolderArray)}}});
  };
  const bool finished = placeInPasses(advScanFolderArray, btreeAdvScan, stopTreeThread, placeFolder, passDone);
  compact(advScanFolderArray);
  if (!finished) return;

  // Each folder still without a parent gets a lost folder of its own, even
  // when several share one missing ID (the names then repeat, as built).
  for (auto& f : advScanFolderArray) {
    if (stopTreeThread.load()) break;
    HDIR* lost = makeLostFolderFor(f->parentID);
    f->parent = lost;
    lost->addChildAdvScan(std::move(f));
    addChildrenUp(lost, 1, 0, 0);
    folderCount += 2;
    entryCount += 2;
  }
  compact(advScanFolderArray);

  const std::string files = fmt::format("Processing Files for {} on drive {} {} {}", volumeName, model, serial, revision);
  const uint64_t fileTotal = advScanFileArray.size();
  report({{progress::kProgressStatus, files}, {progress::kProgressType, 1}, {progress::kBarDoubleValue, 0.0}});
  report({{progress::kProgressStatus, files}, {progress::kBarMaxValue, fileTotal}, {progress::kBarMinValue, 0}});
  const uint64_t volumeBlocks = blockSize > 0 ? sizeInSect / static_cast<uint64_t>(blockSize) : 0;
  started = Clock::now();
  done = 0;
  for (auto& f : advScanFileArray) {
    if (stopTreeThread.load()) break;
    f->setBtreeHDIRAdvScan(btreeAdvScan);
    if (f->fileName().empty() || f->fileID == 0 || f->parentID == 0 || f->fileSize == 0 ||
        (!f->dataExt.empty() && f->dataExt.front().startBlock >= volumeBlocks) ||
        (!f->rscExt.empty() && f->rscExt.front().startBlock >= volumeBlocks)) {
      // A skipped file still counts towards the bar's maximum.
      ++done;
      report({{progress::kProgressStatus, files}, {progress::kBarIncrement, 1}});
      continue;
    }
    dataSize += f->dataSize + f->rscSize;
    const uint64_t size = f->fileSize;
    if (HDIR* parent = findDir(btreeAdvScan, f->parentID)) {
      f->setFileName(suggestedRepeatFileName(f->fileName(), parent));
      f->parent = parent;
      f->parentID = parent->fileID;
      parent->addChildAdvScan(std::move(f));
      addChildrenUp(parent, 1, size, 1);
      ++fileCount;
      ++entryCount;
    } else {
      // The lost folder enters btreeAdvScan under the missing ID, so later
      // files of the same parent find it.
      HDIR* lost = makeLostFolderFor(f->parentID);
      f->parent = lost;
      lost->addChildAdvScan(std::move(f));
      addChildrenUp(lost, 1, size, 1);
      ++folderCount;
      ++fileCount;
      entryCount += 2;
    }
    ++done;
    ProgressReport r = counters();
    r.set(progress::kProgressStatus, files);
    r.set(progress::kBarIncrement, 1);
    r.set(progress::kTimeRemaining, timeText(fileTotal));
    report(std::move(r));
  }
  compact(advScanFileArray);
}

}  // namespace ambrel
