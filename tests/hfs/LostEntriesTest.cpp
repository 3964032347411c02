#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "hfs/HandImage.h"
#include "hfs/Volume.h"
#include "support/RecordingController.h"
#include "tree/CheckController.h"

namespace ambrel {
namespace {

struct Fixture {
  test::RecordingController c;
  Volume v{test::HandImage::partitionDict("/nonexistent", 0, 1 << 20), &c};
  Fixture() {
    v.blockSize = 8;
    auto root = std::make_unique<HDIR>();
    root->fileType = kHDIRFolder;
    root->fileID = kRootFolderID;
    root->parentID = kRootParentID;
    root->setFileName("Root");
    root->setBtreeHDIR(v.btree.get());
    root->setBtreeHDIRAdvScan(v.btreeAdvScan);
    v.dirRoot = std::move(root);
    v.btree->insert(kRootFolderID, v.dirRoot.get());
  }
  HDIR* root() { return v.dirRoot.get(); }
};

std::unique_ptr<HDIR> folder(uint32_t id, uint32_t parentID, const std::string& name) {
  auto e = std::make_unique<HDIR>();
  e->fileType = kHDIRFolder;
  e->fileID = id;
  e->parentID = parentID;
  e->setFileName(name);
  return e;
}

std::unique_ptr<HDIR> file(uint32_t id, uint32_t parentID, const std::string& name, uint64_t size) {
  auto e = std::make_unique<HDIR>();
  e->fileType = kHDIRFile;
  e->fileID = id;
  e->parentID = parentID;
  e->setFileName(name);
  e->fileSize = e->dataSize = size;
  e->addDataExt({100, 1});
  return e;
}

// "name(childrenCount,fileSize)[children...]" of a whole tree.
std::string dump(const HDIR& e) {
  std::string s = std::string(e.fileName()) + "(" + std::to_string(e.childrenCount()) + "," + std::to_string(e.fileSize) + ")";
  if (e.children().empty()) return s;
  s += "[";
  for (const auto& c : e.children()) s += dump(*c) + " ";
  return s + "]";
}

size_t countReports(const test::RecordingController& c, const std::string& key) {
  size_t n = 0;
  for (const auto& r : c.progressReports) n += r.contains(key);
  return n;
}

TEST(SuggestedName, DotsUnderscoresAndTheFirstMatch) {
  Fixture f;
  HDIR* dir = f.root();
  auto add = [&](const std::string& name) {
    std::string given = f.v.suggestedRepeatFileName(name, dir);
    dir->addChild(file(0, 2, given, 1));
    return given;
  };
  EXPECT_EQ(add("report.txt"), "report.txt");
  EXPECT_EQ(add("report.txt"), "report_.txt");
  EXPECT_EQ(add("report.txt"), "report__.txt");
  EXPECT_EQ(add("report.txt"), "report___.txt");
  EXPECT_EQ(add("README"), "README");
  EXPECT_EQ(add("README"), "README_");
  EXPECT_EQ(add("README"), "README_");  // not compared again: repeats
  EXPECT_EQ(add("a.b.txt"), "a.b.txt");
  EXPECT_EQ(add("a.b.txt"), "a.b_.txt");
  EXPECT_EQ(add(".profile"), ".profile");
  EXPECT_EQ(add(".profile"), "_.profile");
  EXPECT_EQ(add("Report.txt"), "Report.txt");  // case differs: no duplicate
  EXPECT_EQ(dir->firstChildNamed("report.txt")->nameRepeatCount, 3);
  EXPECT_EQ(dir->firstChildNamed("README")->nameRepeatCount, 2);
  EXPECT_EQ(f.v.suggestedRepeatFileName("x", nullptr), "x");
}

TEST(OrphanEntries, PlacedInLaterPassesWithCountsAndPaths) {
  Fixture f;
  f.v.orphanEntryArray.push_back(file(30, 20, "f.txt", 100));
  f.v.orphanEntryArray.push_back(folder(20, 21, "A/B"));
  f.v.orphanEntryArray.push_back(folder(21, 2, "Top"));
  f.v.processOrphanEntriesWithIncrement(true, true);
  EXPECT_TRUE(f.v.orphanEntryArray.empty());
  EXPECT_EQ(dump(*f.root()), "Root(3,100)[Top(2,100)[A/B(1,100)[f.txt(0,100) ] ] ]");
  HDIR* top = f.root()->childAtIndex(0);
  HDIR* ab = top->childAtIndex(0);
  EXPECT_EQ(pathNameOf(*top), "/Root");
  EXPECT_EQ(pathNameOf(*ab), "/Root/Top");
  EXPECT_EQ(ab->parent, top);
  EXPECT_EQ(ab->childAtIndex(0)->parent, ab);
  EXPECT_EQ(ab->fileCount, 1u);
  EXPECT_EQ(f.root()->fileCount, 1u);
  EXPECT_EQ(findDir(f.v.btree.get(), 20), ab);
  EXPECT_EQ(f.v.folderCount, 2u);
  EXPECT_EQ(f.v.fileCount, 1u);
  EXPECT_EQ(f.v.entryCount, 3u);
  EXPECT_EQ(f.v.dataSize, 100u);
  // Three passes, each ending with a report of what is left.
  ASSERT_FALSE(f.c.progressReports.empty());
  EXPECT_EQ(f.c.progressReports[0].string(progress::kProgressStatus), "Processing Orphan Entries for Hand Volume");
  EXPECT_EQ(countReports(f.c, progress::kBarIncrement), 3u);
  EXPECT_EQ(countReports(f.c, progress::kBarMaxValue), 1u + 3u);
  EXPECT_EQ(f.c.progressReports.back().u64(progress::kBarMaxValue), 3u);  // 0 left + N0
}

TEST(OrphanEntries, LeftoversGoToLostFilesWhichASecondRunReuses) {
  Fixture f;
  f.v.orphanEntryArray.push_back(file(40, 99, "x.txt", 10));
  f.v.orphanEntryArray.push_back(folder(41, 98, "still orphan"));
  f.v.orphanEntryArray.push_back(file(42, 99, "x.txt", 5));
  f.v.processOrphanEntriesWithIncrement(false, false);
  ASSERT_NE(f.v.dirLostFiles, nullptr);
  HDIR* lost = f.v.dirLostFiles;
  EXPECT_EQ(lost->fileID, kLostFilesID);
  EXPECT_EQ(lost->parentID, kRootFolderID);
  EXPECT_EQ(pathNameOf(*lost), "/Root");
  EXPECT_EQ(lost->parent, f.root());
  EXPECT_EQ(findDir(f.v.btree.get(), kLostFilesID), lost);
  // The folder is left out; the two files are renamed within Lost Files.
  EXPECT_EQ(dump(*f.root()), "Root(3,15)[Lost Files(2,15)[x.txt(0,10) x_.txt(0,5) ] ]");
  EXPECT_EQ(lost->childAtIndex(1)->parentID, kLostFilesID);
  EXPECT_EQ(f.v.folderCount, 1u);  // Lost Files is always counted
  EXPECT_EQ(f.v.fileCount, 0u);    // without increment the files are not
  EXPECT_TRUE(f.v.orphanEntryArray.empty());
  EXPECT_EQ(f.c.progressReports.back().string(progress::kProgressStatus).rfind("Processing Lost Entries for Hand Volume on drive Hand S1 R1", 0), 0u);

  f.v.orphanEntryArray.push_back(file(43, 97, "y", 1));
  f.v.processOrphanEntriesWithIncrement(true, true);
  EXPECT_EQ(f.v.dirLostFiles, lost);
  EXPECT_EQ(f.root()->children().size(), 1u);
  EXPECT_EQ(dump(*f.root()), "Root(4,16)[Lost Files(3,16)[x.txt(0,10) x_.txt(0,5) y(0,1) ] ]");
  EXPECT_EQ(f.v.folderCount, 1u);
}

TEST(OrphanEntries, StopLeavesEveryEntryWholeAndEmptiesTheArray) {
  Fixture f;
  f.v.orphanEntryArray.push_back(file(40, 2, "a", 10));
  f.v.setStopTreeThread(true);
  f.v.processOrphanEntriesWithIncrement(true, true);
  EXPECT_TRUE(f.v.orphanEntryArray.empty());
  EXPECT_EQ(f.root()->childrenCount(), 0);
  EXPECT_TRUE(f.root()->children().empty());
}

// The passes as plainly described: over the whole array, erasing as placed.
void referencePasses(Volume& v) {
  bool placedFolder = true;
  while (placedFolder) {
    placedFolder = false;
    for (size_t i = 0; i < v.orphanEntryArray.size();) {
      HDIR* e = v.orphanEntryArray[i].get();
      HDIR* parent = findDir(v.btree.get(), e->parentID);
      if (!parent) {
        ++i;
        continue;
      }
      e->setFileName(v.suggestedRepeatFileName(e->fileName(), parent));
      e->parent = parent;
      for (HDIR* a = parent; a; a = a->parent) {
        a->addToChildrenCount(1);
        if (e->fileType == kHDIRFile) a->addToFileSize(e->fileSize);
      }
      if (e->fileType == kHDIRFolder) {
        e->setBtreeHDIR(v.btree.get());
        placedFolder = true;
      }
      parent->addChild(std::move(v.orphanEntryArray[i]));
      v.orphanEntryArray.erase(v.orphanEntryArray.begin() + static_cast<std::ptrdiff_t>(i));
    }
  }
}

TEST(OrphanEntries, IndexedPassesAgreeWithPlainPasses) {
  std::mt19937 rng(11);
  for (int round = 0; round < 30; ++round) {
    Fixture fast, plain;
    // Folder IDs 100.. in a random order; parents among them, the root, or missing.
    const int folders = 60, files = 120;
    std::vector<std::unique_ptr<HDIR>> entries;
    for (int i = 0; i < folders; ++i) {
      uint32_t parent = rng() % 5 == 0 ? 2 : (rng() % 7 == 0 ? 5000 : 100 + rng() % folders);
      if (parent == uint32_t(100 + i)) parent = 2;
      entries.push_back(folder(100 + i, parent, "d" + std::to_string(rng() % 4)));
    }
    for (int i = 0; i < files; ++i)
      entries.push_back(file(1000 + i, 100 + rng() % (folders + 3), "f" + std::to_string(rng() % 3) + ".txt", 1 + rng() % 9));
    std::shuffle(entries.begin(), entries.end(), rng);
    for (auto& e : entries) {
      fast.v.orphanEntryArray.push_back(e->mutableCopy());
      plain.v.orphanEntryArray.push_back(std::move(e));
    }
    fast.v.processOrphanEntriesWithIncrement(false, true);
    referencePasses(plain.v);
    // Compare the placed part (the fast run also made Lost Files at the end).
    std::string fastTree = dump(*fast.root());
    if (fast.v.dirLostFiles) {
      auto lostAt = fastTree.find("Lost Files(");
      ASSERT_NE(lostAt, std::string::npos);
      ASSERT_EQ(fast.root()->children().back().get(), fast.v.dirLostFiles);
      std::unique_ptr<HDIR> lost = fast.root()->removeChildAtIndex(fast.root()->children().size() - 1);
      for (HDIR* a = fast.root(); a; a = a->parent) {
        a->subtractToChildrenCount(lost->childrenCount() + 1);
        a->fileSize -= lost->fileSize;
      }
    }
    ASSERT_EQ(dump(*fast.root()), dump(*plain.root())) << "round " << round;
  }
}

TEST(AdvScanEntries, LostFolderPerMissingParentFoundAgainByFiles) {
  Fixture f;
  f.v.advScanFolderArray.push_back(folder(50, 345, "Orphaned"));
  f.v.advScanFolderArray.push_back(folder(51, 2, "Docs"));
  f.v.advScanFolderArray.push_back(folder(52, 51, "Sub"));
  f.v.advScanFileArray.push_back(file(60, 345, "late.txt", 7));
  f.v.advScanFileArray.push_back(file(61, 52, "in sub.txt", 3));
  f.v.advScanFileArray.push_back(file(62, 777, "elsewhere", 2));
  f.v.advScanFileArray.push_back(file(63, 52, "", 3));           // no name: skipped
  f.v.advScanFileArray.push_back(file(64, 52, "empty.txt", 0));  // size 0: skipped
  auto far = file(65, 52, "far.txt", 4);
  far->dataExt = {{1u << 30, 1}};  // beyond the volume's blocks: skipped
  f.v.advScanFileArray.push_back(std::move(far));
  f.v.processAdvScanEntries();

  HDIR* lostFolders = f.v.dirLostFolders;
  ASSERT_NE(lostFolders, nullptr);
  EXPECT_EQ(lostFolders->fileID, kLostFoldersID);
  EXPECT_EQ(findDir(f.v.btreeAdvScan, kLostFoldersID), lostFolders);
  HDIR* lost345 = findDir(f.v.btreeAdvScan, 345);
  ASSERT_NE(lost345, nullptr);
  EXPECT_EQ(lost345->fileName(), "LostFolder345");
  EXPECT_EQ(lost345->parentID, kLostFoldersID);
  EXPECT_EQ(pathNameOf(*lost345), "/Root/Lost Folders");
  EXPECT_EQ(lost345->parent, lostFolders);
  EXPECT_EQ(dump(*f.root()),
            "Root(9,12)[Lost Folders(5,9)[LostFolder345(2,7)[Orphaned(0,0) late.txt(0,7) ] "
            "LostFolder777(1,2)[elsewhere(0,2) ] ] Docs(2,3)[Sub(1,3)[in sub.txt(0,3) ] ] ]");
  EXPECT_EQ(findDir(f.v.btreeAdvScan, 52)->childAtIndex(0)->parentID, 52u);
  EXPECT_EQ(pathNameOf(*lost345->childAtIndex(0)), "/Root/Lost Folders/LostFolder345");
  // Skipped files stay in their array.
  EXPECT_EQ(f.v.advScanFileArray.size(), 3u);
  EXPECT_TRUE(f.v.advScanFolderArray.empty());
  EXPECT_EQ(f.v.folderCount, 2u + 2u + 1u);  // Docs, Sub; LostFolder345 + Orphaned; LostFolder777
  EXPECT_EQ(f.v.fileCount, 3u);
  EXPECT_EQ(f.v.entryCount, 2u + 2u + 2u + 2u);
  EXPECT_EQ(f.v.dataSize, 12u);
}

// The last bar maximum sent under a status beginning with `prefix`, and the
// increments sent under it after that.
std::pair<uint64_t, uint64_t> barUnder(const test::RecordingController& c, const std::string& prefix) {
  uint64_t max = 0, sum = 0;
  for (const auto& r : c.progressReports) {
    if (r.string(progress::kProgressStatus).rfind(prefix, 0) != 0) continue;
    if (r.contains(progress::kBarMaxValue)) {
      max = r.u64(progress::kBarMaxValue);
      sum = 0;
    }
    sum += r.u64(progress::kBarIncrement);
  }
  return {max, sum};
}

TEST(ProgressBar, PlacingLostAndSkippedEntriesFillsTheBar) {
  Fixture f;
  // Lost files: none of their parents is known.
  for (uint32_t i = 0; i < 5; ++i) f.v.orphanEntryArray.push_back(file(40 + i, 900 + i, "lost" + std::to_string(i), 5));
  f.v.processOrphanEntriesWithIncrement(true, false);
  auto [lostMax, lostDone] = barUnder(f.c, "Processing Lost Entries for");
  EXPECT_EQ(lostMax, 5u);
  EXPECT_EQ(lostDone, 5u);

  // Files of the advanced scan, three of which are skipped.
  f.v.advScanFolderArray.push_back(folder(51, 2, "Docs"));
  f.v.advScanFileArray.push_back(file(61, 51, "kept.txt", 3));
  f.v.advScanFileArray.push_back(file(62, 51, "", 3));
  f.v.advScanFileArray.push_back(file(63, 51, "empty.txt", 0));
  f.v.advScanFileArray.push_back(file(0, 51, "no id", 2));
  f.v.advScanFileArray.push_back(file(64, 777, "elsewhere", 2));
  f.v.processAdvScanEntries();
  auto [filesMax, filesDone] = barUnder(f.c, "Processing Files for");
  EXPECT_EQ(filesMax, 5u);
  EXPECT_EQ(filesDone, 5u);
}

TEST(EmptyFolders, RemovedWithCountsAndTablesCleared) {
  Fixture f;
  HDIR* root = f.root();
  std::function<HDIR*(HDIR*, std::unique_ptr<HDIR>)> place = [&](HDIR* parent, std::unique_ptr<HDIR> e) {
    e->parent = parent;
    const uint64_t size = e->fileType == kHDIRFile ? e->fileSize : 0;
    HDIR* added = parent->addChild(std::move(e));
    for (HDIR* a = parent; a; a = a->parent) {
      a->addToChildrenCount(1);
      a->addToFileSize(size);
    }
    added->setBtreeHDIR(f.v.btree.get());
    return added;
  };
  HDIR* empty = place(root, folder(20, 2, "zeros"));
  place(empty, file(21, 20, "z1", 0));
  HDIR* inner = place(empty, folder(22, 20, "inner"));
  place(inner, file(23, 22, "z2", 0));
  HDIR* keep = place(root, folder(30, 2, "keep"));
  HDIR* mid = place(keep, folder(31, 30, "mid"));
  HDIR* drop = place(keep, folder(32, 30, "drop"));
  HDIR* deep = place(mid, folder(33, 31, "deep"));
  place(deep, file(34, 33, "data.bin", 9));
  place(root, file(40, 2, "zero.txt", 0));
  CheckController(drop, true).run();
  ASSERT_EQ(root->childrenCount(), 10);
  ASSERT_EQ(root->childrenSelected(), 2);

  f.v.processDuplicateEntries();
  EXPECT_EQ(dump(*root), "Root(5,9)[keep(3,9)[mid(2,9)[deep(1,9)[data.bin(0,9) ] ] ] zero.txt(0,0) ]");
  EXPECT_EQ(findDir(f.v.btree.get(), 20), nullptr);
  EXPECT_EQ(findDir(f.v.btree.get(), 22), nullptr);
  EXPECT_EQ(findDir(f.v.btree.get(), 32), nullptr);
  EXPECT_EQ(findDir(f.v.btree.get(), 31), mid);
  // The marked folder went and its mark with it; its parent keeps its own.
  EXPECT_EQ(root->childrenSelected(), 1);
  EXPECT_EQ(keep->selected(), 1);
  ASSERT_EQ(f.c.progressReports.size(), 2u);
  EXPECT_EQ(f.c.progressReports[0].string(progress::kProgressStatus),
            "Removing empty folders. This may take several minutes ...");
  EXPECT_TRUE(f.c.progressReports[0].boolean(progress::kStartAnimation));
  EXPECT_TRUE(f.c.progressReports[1].boolean(progress::kStopAnimation));

  // The root stays even when everything goes.
  Fixture g;
  place = [&](HDIR* parent, std::unique_ptr<HDIR> e) {
    e->parent = parent;
    HDIR* added = parent->addChild(std::move(e));
    for (HDIR* a = parent; a; a = a->parent) a->addToChildrenCount(1);
    return added;
  };
  place(place(g.root(), folder(20, 2, "a")), folder(21, 20, "b"));
  g.v.removeZeroSizeFolders(g.root());
  EXPECT_EQ(dump(*g.root()), "Root(0,0)");
}

}  // namespace
}  // namespace ambrel
