#include "tree/HDIR.h"

#include <gtest/gtest.h>

namespace ambrel {
namespace {

std::unique_ptr<HDIR> entry(uint16_t type, uint32_t id, const std::string& name) {
  auto e = std::make_unique<HDIR>();
  e->fileType = type;
  e->fileID = id;
  e->setFileName(name);
  return e;
}

TEST(HDIR, NewEntryIsEmpty) {
  HDIR e;
  EXPECT_EQ(e.fileType, 0);
  EXPECT_EQ(e.selected(), 0);
  EXPECT_FALSE(e.hasParent);
  EXPECT_TRUE(e.children().empty());
  EXPECT_TRUE(e.dataExt.empty());
  EXPECT_EQ(e.btreeHDIR(), nullptr);
  EXPECT_FALSE(e.expandable());
}

TEST(HDIR, AddChildIndexesFoldersOnlyAndStoresACopy) {
  BTreeTableClass table;
  HDIR root;
  root.setBtreeHDIR(&table);
  auto folderPtr = entry(kHDIRFolder, 20, "Docs");
  HDIR& folder = *folderPtr;
  folder.hasParent = true;
  HDIR* added = root.addChild(folder);
  ASSERT_NE(added, &folder);
  EXPECT_FALSE(added->hasParent);
  EXPECT_EQ(added->parent, nullptr);
  EXPECT_EQ(root.childrenCount(), 0);  // callers keep the counts
  folder.setFileName("Changed");
  EXPECT_EQ(added->fileName(), "Docs");
  ASSERT_NE(table.retrieveKeyField(20), nullptr);
  EXPECT_EQ(table.retrieveKeyField(20)->dir, added);

  auto filePtr = entry(kHDIRFile, 21, "a.txt");
  HDIR& file = *filePtr;
  const int32_t nodes = table.numNodes();
  const int32_t items = table.numItems();
  HDIR* addedFile = root.addChild(file);
  EXPECT_EQ(table.retrieveKeyField(21), nullptr);
  EXPECT_EQ(table.numItems(), items);
  EXPECT_EQ(table.numNodes(), nodes);
  ASSERT_EQ(root.children().size(), 2u);
  EXPECT_EQ(root.childAtIndex(1), addedFile);
}

TEST(HDIR, EachAddingOperationIndexesItsOwnTable) {
  BTreeTableClass std_, adv;
  HDIR root;
  root.setBtreeHDIR(&std_);
  root.setBtreeHDIRAdvScan(&adv);
  HDIR* a = root.addChildAdvScan(entry(kHDIRFolder, 30, "adv"));
  EXPECT_EQ(adv.retrieveKeyField(30)->dir, a);
  EXPECT_EQ(std_.retrieveKeyField(30), nullptr);

  HDIR* d = root.addChildDelFile(entry(kHDIRFile, 31, "deleted"));
  EXPECT_EQ(std_.retrieveKeyField(31)->dir, d);
  EXPECT_EQ(root.childAtIndex(1), d);

  root.addChildFromScanFile(entry(kHDIRFolder, 32, "scan"));
  root.addChildSig(entry(kHDIRFolder, 33, "sig"));
  EXPECT_EQ(std_.retrieveKeyField(32), nullptr);
  EXPECT_EQ(adv.retrieveKeyField(33), nullptr);
  EXPECT_EQ(root.children().size(), 4u);

  // A second folder with an ID already indexed is added but not indexed.
  HDIR* again = root.addChildAdvScan(entry(kHDIRFolder, 30, "adv2"));
  EXPECT_EQ(adv.retrieveKeyField(30)->dir, a);
  EXPECT_EQ(root.children().back().get(), again);
}

TEST(HDIR, MutableCopyCopiesEverythingButHasParent) {
  BTreeTableClass t1, t2;
  HDIR parent;
  auto srcPtr = entry(kHDIRFolder, 44, "src");
  HDIR& src = *srcPtr;
  src.fileMode = 0100755;
  src.createDate = 1;
  src.modDate = 2;
  src.parentID = 3;
  src.fileSize = 4;
  src.dataSize = 5;
  src.rscSize = 6;
  src.fileCount = 7;
  src.blockSize = 8;
  src.nameRepeatCount = 9;
  src.parent = &parent;
  src.hasParent = true;
  src.setBtreeHDIR(&t1);
  src.setBtreeHDIRAdvScan(&t2);
  src.addDataExt({10, 11});
  src.addRscExt({12, 13});
  src.setChildrenCount(1);
  src.setSelected(1);
  HDIR* child = src.addChildSig(entry(kHDIRFile, 45, "kid"));
  child->parent = &src;
  child->setSelected(1);

  auto copy = src.mutableCopy();
  EXPECT_FALSE(copy->hasParent);
  EXPECT_EQ(copy->fileName(), "src");
  EXPECT_EQ(copy->fileMode, 0100755);
  EXPECT_EQ(copy->fileType, kHDIRFolder);
  EXPECT_EQ(copy->createDate, 1u);
  EXPECT_EQ(copy->modDate, 2u);
  EXPECT_EQ(copy->parentID, 3u);
  EXPECT_EQ(copy->fileID, 44u);
  EXPECT_EQ(copy->fileSize, 4u);
  EXPECT_EQ(copy->dataSize, 5u);
  EXPECT_EQ(copy->rscSize, 6u);
  EXPECT_EQ(copy->fileCount, 7u);
  EXPECT_EQ(copy->blockSize, 8);
  EXPECT_EQ(copy->nameRepeatCount, 9);
  EXPECT_EQ(copy->parent, &parent);
  EXPECT_EQ(copy->btreeHDIR(), &t1);
  EXPECT_EQ(copy->btreeHDIRAdvScan(), &t2);
  EXPECT_EQ(copy->selected(), 1);
  EXPECT_EQ(copy->childrenCount(), 1);
  EXPECT_EQ(copy->dataExt, (std::vector<Extent>{{10, 11}}));
  EXPECT_EQ(copy->rscExt, (std::vector<Extent>{{12, 13}}));
  ASSERT_EQ(copy->children().size(), 1u);
  HDIR* copiedKid = copy->childAtIndex(0);
  EXPECT_NE(copiedKid, child);
  EXPECT_EQ(copiedKid->fileName(), "kid");
  EXPECT_EQ(copiedKid->parent, copy.get());
  EXPECT_EQ(copiedKid->holder(), copy.get());
  EXPECT_EQ(copy->childrenSelected(), 1);
}

TEST(HDIR, HandedOverEntryIsAddedWithoutCopyAndLosesHasParent) {
  HDIR root;
  auto e = entry(kHDIRFile, 50, "x");
  e->hasParent = true;
  HDIR* raw = e.get();
  EXPECT_EQ(root.addChild(std::move(e)), raw);
  EXPECT_FALSE(raw->hasParent);
  EXPECT_EQ(raw->holder(), &root);
}

TEST(HDIR, FirstChildNamedFollowsAddsRenamesAndRemovals) {
  HDIR dir;
  EXPECT_EQ(dir.firstChildNamed("a"), nullptr);
  HDIR* a1 = dir.addChild(entry(kHDIRFile, 1, "a"));
  EXPECT_EQ(dir.firstChildNamed("a"), a1);
  HDIR* a2 = dir.addChild(entry(kHDIRFile, 2, "a"));
  HDIR* b = dir.addChild(entry(kHDIRFile, 3, "b"));
  EXPECT_EQ(dir.firstChildNamed("a"), a1);  // the first, not the latest
  EXPECT_EQ(dir.firstChildNamed("b"), b);
  EXPECT_EQ(dir.firstChildNamed("A"), nullptr);  // exact match only
  a1->setFileName("c");
  EXPECT_EQ(dir.firstChildNamed("a"), a2);
  EXPECT_EQ(dir.firstChildNamed("c"), a1);
  dir.removeChildAtIndex(1);  // a2
  EXPECT_EQ(dir.firstChildNamed("a"), nullptr);
  EXPECT_EQ(dir.firstChildNamed("b"), b);
}

// The index is built on first use and then kept up by every add, growing
// many times over: each name must still lead to the first child of that name.
TEST(HDIR, FirstChildNamedKeepsTheFirstOfEachNameAsTheFolderGrows) {
  HDIR dir;
  std::vector<HDIR*> first(1000, nullptr);
  first[0] = dir.addChild(entry(kHDIRFile, 0, "n0"));
  EXPECT_EQ(dir.firstChildNamed("n0"), first[0]);
  for (uint32_t i = 1; i < 3000; ++i) {
    HDIR* added = dir.addChild(entry(kHDIRFile, i, "n" + std::to_string(i % 1000)));
    if (!first[i % 1000]) first[i % 1000] = added;
  }
  for (uint32_t k = 0; k < 1000; ++k) ASSERT_EQ(dir.firstChildNamed("n" + std::to_string(k)), first[k]) << k;
  EXPECT_EQ(dir.firstChildNamed("n1000"), nullptr);
  EXPECT_EQ(dir.firstChildNamed(""), nullptr);
}

TEST(HDIR, DeepChainIsDestroyedWithoutRecursion) {
  auto top = std::make_unique<HDIR>();
  HDIR* at = top.get();
  for (int i = 0; i < 200000; ++i) {
    at->setChildrenCount(1);
    at = at->addChild(entry(kHDIRFolder, static_cast<uint32_t>(i + 16), "d"));
  }
  at->setSelected(1);
  EXPECT_EQ(top->childrenSelected(), 1);
  auto copy = top->mutableCopy();
  EXPECT_EQ(copy->childrenSelected(), 1);
  top.reset();
  copy.reset();
  SUCCEED();
}

}  // namespace
}  // namespace ambrel
