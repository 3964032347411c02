// Deleted files found by name in the journal's old catalog nodes, on volumes
// built with known deletions: where they are placed, what their bytes are,
// and what the search does with copies, stops and volumes without a journal.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>

#include "deleted/DeletedHelpers.h"
#include "media/SectorFaults.h"
#include "output/Saver.h"
#include "tree/CheckController.h"

using namespace ambrel;
using namespace ambrel::test;

namespace {

const HDIR* childWithID(const HDIR& dir, uint32_t id) {
  for (const auto& c : dir.children())
    if (c->fileID == id) return c.get();
  return nullptr;
}

mk::VolumeSpec volumeWithDeletions() {
  mk::VolumeSpec v;
  v.journal = true;
  v.journalSize = 2u << 20;
  v.journalLeafCopies = 4;  // more than the live leaves: the live folders are known too
  mk::EntrySpec unkept = folderEntry("Unkept", {fileEntry("orphan.txt", 4000, true)}, true);
  unkept.inOldNodes = false;
  v.root = {folderEntry("Keep", {fileEntry("kept.txt", 10000), fileEntry("gone here.txt", 9000, true)}),
            fileEntry("old.txt", 3000, true),
            folderEntry("Gone", {fileEntry("gone1.txt", 5000), fileEntry("gone2.txt", 70000),
                                 folderEntry("Deeper", {fileEntry("deep.bin", 20000)})},
                        true),
            unkept};
  return v;
}

}  // namespace

// Every deleted file whose record survives is listed once, by name, in its
// folder (rebuilt from the old records when the folder is gone too), or in
// "Lost Files" when no copy names its folder; its bytes are its own.
TEST(DeletedFiles, ListedOnceByNameInTheirFolderWithTheirBytes) {
  auto b = buildVolume(volumeWithDeletions());
  ScanResult r = findDeleted(b->image, 0, b->layout.sizeSectors);
  ASSERT_NE(r.volume->dirRoot, nullptr);
  const Volume& v = *r.volume;
  EXPECT_EQ(v.journalStart, b->layout.journalStart);
  EXPECT_EQ(v.journalSize, b->layout.journalSize);
  EXPECT_GT(v.journalNodesFound, 0u);
  const HDIR* lostFiles = childWithID(*v.dirRoot, kLostFilesID);
  const mk::FileLayout* unkept = b->layout.find("Unkept");
  ASSERT_NE(unkept, nullptr);

  const auto byID = entriesByFileID(*v.dirRoot);
  size_t deletedFiles = 0;
  for (const auto& e : b->layout.entries) {
    if (!e.deleted || e.folder) continue;
    ++deletedFiles;
    SCOPED_TRACE(e.path);
    ASSERT_EQ(byID.count(e.cnid), 1u);
    const HDIR* h = byID.find(e.cnid)->second;
    EXPECT_EQ(h->fileName(), e.name);
    EXPECT_EQ(h->createDate, e.created);
    EXPECT_EQ(h->modDate, e.modified);
    EXPECT_EQ(h->dataSize, e.dataSize);
    EXPECT_TRUE(sameExtentList(h->dataExt, e.dataExtents));
    if (e.parentID == unkept->cnid) {
      ASSERT_NE(lostFiles, nullptr);
      EXPECT_EQ(h->parent, lostFiles);
      EXPECT_EQ(lostFiles->fileName(), "Lost Files");
    } else {
      EXPECT_EQ(entryPath(*h), e.path);
    }
    // Their blocks are free and hold what was deleted.
    EXPECT_EQ(h->confidence, Confidence::Sure);
    auto want = builtData(e);
    ASSERT_TRUE(want.has_value());
    EXPECT_TRUE(dataOf(b->image, v, *h) == *want);
  }
  EXPECT_EQ(deletedFiles, 6u);
  // Live files found in the journal are listed as well, each once.
  for (const auto& e : b->layout.entries)
    if (!e.deleted && !e.folder) {
      EXPECT_LE(byID.count(e.cnid), 1u) << e.path;
    }
  for (const auto& [id, entry] : byID) EXPECT_EQ(byID.count(id), 1u) << entry->fileName();
}

// The journal is circular: a leaf copy that runs past its end goes on right
// after the journal header, and is read as one node all the same.
TEST(DeletedFiles, ALeafCopyAcrossTheJournalEndIsPutBackTogether) {
  mk::VolumeSpec spec = volumeWithDeletions();
  spec.journalWrap = true;
  auto b = buildVolume(spec);
  const auto& l = b->layout;
  const size_t nodeBytes = l.catalog.nodeSize;
  const uint64_t journalByte = l.HPlusVolStart * 512 + l.journalStart;
  const uint64_t journalEnd = journalByte + l.journalSize;
  ASSERT_NE(l.journalWrappedCopySector, 0u);
  const uint64_t tailBytes = journalEnd - l.journalWrappedCopySector * 512;
  ASSERT_GT(tailBytes, 0u);
  ASSERT_LT(tailBytes, nodeBytes);
  // The copy as the journal holds it: its end, then after the 512-byte header.
  auto node = imageBytes(b->image, l.journalWrappedCopySector * 512, tailBytes);
  const auto rest = imageBytes(b->image, journalByte + 512, nodeBytes - tailBytes);
  node.insert(node.end(), rest.begin(), rest.end());
  auto holdsName = [&](const std::string& name) {
    std::vector<uint8_t> utf16;
    for (char c : name) utf16.insert(utf16.end(), {0, static_cast<uint8_t>(c)});
    return std::search(node.begin(), node.end(), utf16.begin(), utf16.end()) != node.end();
  };

  ScanResult r = findDeleted(b->image, 0, l.sizeSectors);
  ASSERT_NE(r.volume->dirRoot, nullptr);
  const auto byID = entriesByFileID(*r.volume->dirRoot);
  size_t inWrapped = 0;
  for (const auto& e : l.entries) {
    if (!e.deleted || e.folder || !holdsName(e.name)) continue;
    SCOPED_TRACE(e.path);
    ++inWrapped;
    ASSERT_EQ(byID.count(e.cnid), 1u);
    const HDIR* h = byID.find(e.cnid)->second;
    EXPECT_EQ(h->fileName(), e.name);
    EXPECT_EQ(h->dataSize, e.dataSize);
    auto want = builtData(e);
    ASSERT_TRUE(want.has_value());
    EXPECT_TRUE(dataOf(b->image, *r.volume, *h) == *want);
  }
  EXPECT_GT(inWrapped, 0u);
  // Nothing lost and nothing more than with the same copies laid out in one piece.
  auto flat = buildVolume(volumeWithDeletions());
  ScanResult f = findDeleted(flat->image, 0, flat->layout.sizeSectors);
  EXPECT_EQ(r.volume->journalNodesFound, f.volume->journalNodesFound);
  const auto wrappedTree = treeOf(*r.volume), flatTree = treeOf(*f.volume);
  EXPECT_SAME_TREE(wrappedTree, flatTree);
}

// The same nodes once more further on in the journal: nothing new, nothing twice.
TEST(DeletedFiles, ARecordInSeveralJournalCopiesIsPlacedOnce) {
  auto b = buildVolume(volumeWithDeletions());
  ScanResult before = findDeleted(b->image, 0, b->layout.sizeSectors);
  const auto& l = b->layout;
  ASSERT_FALSE(l.journalNodeCopySectors.empty());
  const uint64_t journalEnd = l.HPlusVolStart * 512 + l.journalStart + l.journalSize;
  const size_t nodeBytes = l.catalog.nodeSize;
  uint64_t at = journalEnd - nodeBytes;
  size_t copied = 0;
  for (auto it = l.journalNodeCopySectors.rbegin(); it != l.journalNodeCopySectors.rend(); ++it) {
    if (at <= l.journalNodeCopySectors.back() * 512 + nodeBytes) break;
    const auto node = imageBytes(b->image, *it * 512, nodeBytes);
    patchBytes(b->image, at, node.data(), node.size());
    at -= nodeBytes;
    ++copied;
  }
  ASSERT_GT(copied, 1u);
  ScanResult after = findDeleted(b->image, 0, l.sizeSectors);
  EXPECT_EQ(after.volume->journalNodesFound, before.volume->journalNodesFound + copied);
  const auto was = treeOf(*before.volume), now = treeOf(*after.volume);
  EXPECT_SAME_TREE(now, was);
  const auto byID = entriesByFileID(*after.volume->dirRoot);
  for (const auto& [id, entry] : byID) EXPECT_EQ(byID.count(id), 1u) << entry->fileName();
}

TEST(DeletedFiles, AVolumeWithoutAJournalGivesJustTheRoot) {
  mk::VolumeSpec v;
  v.root = {fileEntry("a.txt", 5000), fileEntry("b.txt", 5000, true)};
  auto b = buildVolume(v);
  ScanResult r = findDeleted(b->image, 0, b->layout.sizeSectors);
  ASSERT_NE(r.volume->dirRoot, nullptr);
  EXPECT_EQ(r.volume->journalSize, 0u);
  EXPECT_EQ(r.volume->dirRoot->fileName(), "Root");
  EXPECT_TRUE(r.volume->dirRoot->children().empty());
  EXPECT_TRUE(r.controller->sawTreeComplete());
}

// The search's reports: its status, a bar over the journal's sectors that
// the increments fill exactly, and the counters of what was found.
TEST(DeletedFiles, ProgressCoversEveryJournalSectorOnce) {
  auto b = buildVolume(volumeWithDeletions());
  ScanResult r = findDeleted(b->image, 0, b->layout.sizeSectors);
  const std::string status = "Searching deleted files for Test";
  uint64_t barMax = 0, increments = 0, lastFiles = 0;
  bool sawStatus = false, sawComplete = false;
  for (const auto& p : r.controller->progressReports) {
    if (p.contains(progress::kBarMaxValue) && barMax == 0 && p.contains(progress::kBarMinValue))
      barMax = p.u64(progress::kBarMaxValue);
    if (p.contains(progress::kProgressStatus) && p.string(progress::kProgressStatus) == status) {
      sawStatus = true;
      if (p.contains(progress::kBarIncrement)) increments += p.u64(progress::kBarIncrement);
      if (p.contains(progress::kFiles)) lastFiles = p.u64(progress::kFiles);
    }
    if (p.contains(progress::kTreeComplete)) {
      sawComplete = true;
      EXPECT_EQ(p.string(progress::kProgressStatus), "Tree Completed ...");
    }
  }
  EXPECT_TRUE(sawStatus);
  EXPECT_TRUE(sawComplete);
  EXPECT_EQ(barMax, b->layout.journalSize / 512);
  EXPECT_EQ(increments, barMax);
  EXPECT_EQ(lastFiles, r.volume->fileCount);
  EXPECT_GT(r.volume->fileCount, 0u);
}

// Stop ends the search between sectors: the bar stops short, the search
// reports the tree complete, and what was found so far is kept.
TEST(DeletedFiles, StopEndsTheSearchBetweenSectorsAndKeepsTheTreeSoFar) {
  mk::VolumeSpec v = volumeWithDeletions();
  v.journalSize = 8u << 20;
  auto b = buildVolume(v);
  ScanResult whole = findDeleted(b->image, 0, b->layout.sizeSectors);
  ScanResult stopped = findDeleted(b->image, 0, b->layout.sizeSectors, 12);
  ASSERT_NE(stopped.volume->dirRoot, nullptr);
  EXPECT_TRUE(stopped.volume->stopTreeThread.load());
  uint64_t increments = 0;
  for (const auto& p : stopped.controller->progressReports)
    if (p.contains(progress::kBarIncrement)) increments += p.u64(progress::kBarIncrement);
  EXPECT_LT(increments, b->layout.journalSize / 512);
  EXPECT_TRUE(stopped.controller->sawTreeComplete());
  // The node copies lie at the journal's start: they were searched before the stop.
  const auto all = entriesByFileID(*whole.volume->dirRoot);
  const auto kept = entriesByFileID(*stopped.volume->dirRoot);
  EXPECT_GT(stopped.volume->fileCount, 0u);
  for (const auto& [id, e] : kept) EXPECT_EQ(all.count(id), 1u) << e->fileName();
}

TEST(DeletedFiles, ADeletedSymbolicLinkIsFoundAsALinkNotAFileHoldingItsTarget) {
  mk::VolumeSpec spec = volumeWithDeletions();
  mk::EntrySpec link;
  link.name = "gone-link";
  link.symlinkTo = "../Keep/kept.txt";
  link.deleted = true;
  spec.root.push_back(link);
  auto b = buildVolume(spec);
  const mk::FileLayout* built = b->layout.find("gone-link");
  ASSERT_NE(built, nullptr);
  ScanResult r = findDeleted(b->image, 0, b->layout.sizeSectors);
  ASSERT_NE(r.volume->dirRoot, nullptr);
  const auto byID = entriesByFileID(*r.volume->dirRoot);
  ASSERT_EQ(byID.count(built->cnid), 1u);
  const HDIR& h = *byID.find(built->cnid)->second;
  EXPECT_EQ(h.fileName(), "gone-link");
  EXPECT_EQ(h.linkKind, LinkKind::Symlink);
  EXPECT_EQ(h.dataSize, link.symlinkTo->size());
  // The deleted files beside it are still plain files.
  for (const auto& e : b->layout.entries) {
    if (e.deleted && !e.folder && e.cnid != built->cnid && byID.count(e.cnid)) {
      EXPECT_EQ(byID.find(e.cnid)->second->linkKind, LinkKind::None) << e.path;
    }
  }

  // Saved as a link to its target, which is not followed.
  TempDir dir;
  CheckController(r.volume->dirRoot.get(), true).run();
  Saver::Options options;
  options.finalAlert = false;
  const SaveResult saved =
      Saver(*r.volume->dirRoot, saveSourceOf(*r.volume), nullptr, options).saveFilesAndFolders(dir.path().string());
  EXPECT_EQ(saved.symlinksCreated, 1u);
  size_t links = 0;
  for (const auto& e : std::filesystem::recursive_directory_iterator(dir.path()))
    if (e.is_symlink()) {
      ++links;
      EXPECT_EQ(e.path().filename(), "gone-link");
      EXPECT_EQ(std::filesystem::read_symlink(e.path()).string(), *link.symlinkTo);
    }
  EXPECT_EQ(links, 1u);
}

// The journal is read in 1 MiB batches, every other one on a second thread:
// a leaf copy across any batch's start is still whole, and a bad sector in
// any batch costs only the copy it is in, and is noted.
TEST(DeletedFiles, CopiesAcrossBatchStartsAreWholeAndABadSectorCostsOnlyItsCopy) {
  mk::VolumeSpec v = volumeWithDeletions();
  v.journalSize = 4u << 20;
  auto b = buildVolume(v);
  const auto& l = b->layout;
  const size_t nodeBytes = l.catalog.nodeSize;
  const uint64_t journalByte = l.HPlusVolStart * 512 + l.journalStart;
  ASSERT_FALSE(l.journalNodeCopySectors.empty());
  ASSERT_LT(l.journalNodeCopySectors.back() * 512 + nodeBytes, journalByte + (1u << 20) - nodeBytes);
  ScanResult before = findDeleted(b->image, 0, l.sizeSectors);

  // One copy across the start of each batch after the first, half before it.
  const auto node = imageBytes(b->image, l.journalNodeCopySectors.front() * 512, nodeBytes);
  std::vector<uint64_t> lastSectors;
  for (uint64_t k = 1; k <= 3; ++k) {
    const uint64_t at = journalByte + (k << 20) - nodeBytes / 2;
    patchBytes(b->image, at, node.data(), node.size());
    lastSectors.push_back((at + nodeBytes) / 512 - 1);
  }
  ScanResult across = findDeleted(b->image, 0, l.sizeSectors);
  EXPECT_EQ(across.volume->journalNodesFound, before.volume->journalNodesFound + 3);
  EXPECT_FALSE(across.volume->readErrors.any());
  const auto beforeTree = treeOf(*before.volume), acrossTree = treeOf(*across.volume);
  EXPECT_SAME_TREE(acrossTree, beforeTree);

  // The copy that ends in the second batch loses its last sector; a sector of
  // the fourth batch that holds no copy fails too.
  const uint64_t emptySector = (journalByte + (3u << 20) + (256u << 10)) / 512;
  auto searchWith = [&](std::shared_ptr<SectorFaults> faults) {
    return findDeleted(b->image, 0, l.sizeSectors, 0, std::move(faults));
  };
  auto faults = std::make_shared<SectorFaults>();
  faults->add(SectorFaults::Kind::IOError, lastSectors[0]);
  faults->add(SectorFaults::Kind::IOError, emptySector);
  ScanResult damaged = searchWith(faults);
  EXPECT_EQ(damaged.volume->journalNodesFound, before.volume->journalNodesFound + 2);
  EXPECT_EQ(damaged.volume->readErrors.sectors(), 2u);
  EXPECT_EQ(damaged.volume->readErrors.listed(), (std::vector<uint64_t>{lastSectors[0], emptySector}));
  const auto damagedTree = treeOf(*damaged.volume);
  EXPECT_SAME_TREE(damagedTree, beforeTree);

  // The drive lost in the fourth batch: said once, on the searching thread.
  // The second thread may meet the loss while the third batch is still being
  // read, as a drive pulled out meets every read from then on; whatever was
  // found is what the whole search finds, and nothing past the loss is.
  auto lost = std::make_shared<SectorFaults>();
  lost->add(SectorFaults::Kind::Vanish, emptySector);
  ScanResult gone = searchWith(lost);
  EXPECT_TRUE(gone.volume->isGone());
  ASSERT_EQ(gone.controller->alerts.size(), 1u);
  EXPECT_EQ(gone.controller->alerts[0].title, "! Error");
  EXPECT_LE(gone.volume->journalNodesFound, before.volume->journalNodesFound + 2);
  const auto all = entriesByFileID(*across.volume->dirRoot);
  for (const auto& [id, e] : entriesByFileID(*gone.volume->dirRoot)) EXPECT_EQ(all.count(id), 1u) << e->fileName();
}

// A hard link's record holds no content: met in the journal, it is given the
// content of the live iNode file it names, and saved with those bytes.
TEST(DeletedFiles, AHardLinkMetInTheJournalIsSavedWithItsFilesContent) {
  mk::VolumeSpec spec = volumeWithDeletions();
  const std::string text = "the linked file's own words\n";
  mk::EntrySpec linked;
  linked.name = "linked.txt";
  linked.data = std::vector<uint8_t>(text.begin(), text.end());
  mk::EntrySpec link;
  link.name = "kept-link";
  link.hardLinkTo = "linked.txt";
  spec.root.push_back(linked);
  spec.root.push_back(link);
  auto b = buildVolume(spec);
  const std::vector<uint8_t> want(text.begin(), text.end());

  ScanResult r = findDeleted(b->image, 0, b->layout.sizeSectors);
  ASSERT_NE(r.volume->dirRoot, nullptr);
  const HDIR* found = nullptr;
  for (const auto& c : r.volume->dirRoot->children())
    if (c->fileName() == "kept-link") found = c.get();
  ASSERT_NE(found, nullptr) << "the link's record is in the journal's copies of the live leaves";
  EXPECT_EQ(found->linkKind, LinkKind::File);
  EXPECT_EQ(found->dataSize, want.size());
  EXPECT_GE(r.volume->fileLinks, 1u);
  EXPECT_TRUE(dataOf(b->image, *r.volume, *found) == want);

  TempDir dir;
  CheckController(r.volume->dirRoot.get(), true).run();
  Saver::Options options;
  options.finalAlert = false;
  Saver(*r.volume->dirRoot, saveSourceOf(*r.volume), nullptr, options).saveFilesAndFolders(dir.path().string());
  EXPECT_TRUE(readFile(dir.path() / "Root" / "kept-link") == want);
}
