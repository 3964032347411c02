#include "tree/CheckController.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>

namespace ambrel {
namespace {

// Attaches a child the way the scans do: parent set, counts raised upward.
HDIR* attach(HDIR* folder, uint16_t type, uint32_t id) {
  auto e = std::make_unique<HDIR>();
  e->fileType = type;
  e->fileID = id;
  e->setFileName(std::to_string(id));
  e->parent = folder;
  HDIR* added = folder->addChild(std::move(e));
  for (HDIR* a = folder; a; a = a->parent) a->addToChildrenCount(1);
  return added;
}

void mark(HDIR* e) { CheckController(e, true).run(); }
void unmark(HDIR* e) { CheckController(e, false).run(); }

// Root / A / B / file1, file2; Root / C / file3
struct Sample {
  HDIR root;
  HDIR *a, *b, *c, *f1, *f2, *f3;
  Sample() {
    root.fileType = kHDIRFolder;
    a = attach(&root, kHDIRFolder, 10);
    b = attach(a, kHDIRFolder, 11);
    f1 = attach(b, kHDIRFile, 12);
    f2 = attach(b, kHDIRFile, 13);
    c = attach(&root, kHDIRFolder, 14);
    f3 = attach(c, kHDIRFile, 15);
  }
  std::vector<int> marks() const {
    return {root.selected(), a->selected(), b->selected(), c->selected(),
            f1->selected(), f2->selected(), f3->selected()};
  }
};

TEST(CheckController, MarkingADeepFileMarksItsPathOnly) {
  Sample s;
  mark(s.f1);
  EXPECT_EQ(s.marks(), (std::vector<int>{1, 1, 1, 0, 1, 0, 0}));
  EXPECT_EQ(s.root.childrenSelected(), 3);
  EXPECT_EQ(s.b->childrenSelected(), 1);
}

TEST(CheckController, UnmarkingKeepsAncestorsThatStillHoldAMark) {
  Sample s;
  mark(s.f1);
  mark(s.f2);
  unmark(s.f1);
  EXPECT_EQ(s.marks(), (std::vector<int>{1, 1, 1, 0, 0, 1, 0}));
  unmark(s.f2);
  EXPECT_EQ(s.marks(), (std::vector<int>{0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(s.root.childrenSelected(), 0);

  // A mark in another branch keeps only the root.
  mark(s.f3);
  mark(s.f1);
  unmark(s.f1);
  EXPECT_EQ(s.marks(), (std::vector<int>{1, 0, 0, 1, 0, 0, 1}));
}

TEST(CheckController, MarkingAFolderMarksEverythingBelowAndUnmarkingClearsIt) {
  Sample s;
  mark(s.a);
  EXPECT_EQ(s.marks(), (std::vector<int>{1, 1, 1, 0, 1, 1, 0}));
  EXPECT_EQ(s.root.childrenSelected(), 4);
  unmark(s.b);
  // A keeps nothing below it, so it and the root go too.
  EXPECT_EQ(s.marks(), (std::vector<int>{0, 0, 0, 0, 0, 0, 0}));
}

TEST(CheckController, FolderWithZeroChildrenCountIsMarkedAlone) {
  Sample s;
  s.b->setChildrenCount(0);  // children array still holds two files
  mark(s.b);
  EXPECT_EQ(s.marks(), (std::vector<int>{1, 1, 1, 0, 0, 0, 0}));
  EXPECT_EQ(s.root.childrenSelected(), 2);
  // Marks below such a folder are not counted, so unmarking a sibling
  // still clears the ancestors.
  s.f1->setSelected(1);
  EXPECT_EQ(s.b->childrenSelected(), 1);
  EXPECT_EQ(s.a->childrenSelected(), 1);
  unmark(s.b);
  EXPECT_EQ(s.a->selected(), 0);
  EXPECT_EQ(s.f1->selected(), 1);
}

TEST(CheckController, MarkAllChildrenDirArraySetsTheWholeArray) {
  Sample s;
  CheckController::markAllChildrenDirArray(s.root, 1);
  EXPECT_EQ(s.marks(), (std::vector<int>{0, 1, 1, 1, 1, 1, 1}));
  EXPECT_EQ(s.root.childrenSelected(), 6);
  CheckController::markAllChildrenDirArray(*s.a, 0);
  EXPECT_EQ(s.root.childrenSelected(), 3);
}

// A plain mirror of the tree marked by the rules recounting everything, to
// check the kept counts over many random operations.
struct Ref {
  int selected = 0, childrenCount = 0;
  Ref* parent = nullptr;
  std::vector<Ref*> children;
};

int refCount(const std::vector<Ref*>& arr) {
  int n = 0;
  for (Ref* r : arr) {
    n += r->selected == 1;
    if (r->childrenCount > 0) n += refCount(r->children);
  }
  return n;
}

void refMarkAll(const std::vector<Ref*>& arr, int v) {
  for (Ref* r : arr) {
    r->selected = v;
    if (r->childrenCount > 0) refMarkAll(r->children, v);
  }
}

void refRun(Ref* e, bool flag) {
  if (flag) {
    e->selected = 1;
    for (Ref* a = e->parent; a; a = a->parent) a->selected = 1;
    if (e->childrenCount > 0) refMarkAll(e->children, 1);
  } else {
    e->selected = 0;
    if (e->childrenCount > 0) refMarkAll(e->children, 0);
    for (Ref* a = e->parent; a; a = a->parent)
      if (refCount(a->children) == 0) a->selected = 0;
  }
}

TEST(CheckController, AgreesWithRecountingOnRandomTrees) {
  std::mt19937 rng(7);
  for (int round = 0; round < 20; ++round) {
    HDIR root;
    root.fileType = kHDIRFolder;
    std::vector<Ref> refs(400);
    std::vector<HDIR*> entries{&root};
    std::vector<HDIR*> folders{&root};
    std::vector<size_t> folderRef{0};
    for (size_t i = 1; i < refs.size(); ++i) {
      size_t pick = rng() % folders.size();
      bool folder = rng() % 3 == 0;
      HDIR* e = attach(folders[pick], folder ? kHDIRFolder : kHDIRFile, static_cast<uint32_t>(i + 16));
      Ref& r = refs[i];
      r.parent = &refs[folderRef[pick]];
      r.parent->children.push_back(&r);
      for (Ref* a = r.parent; a; a = a->parent) ++a->childrenCount;
      entries.push_back(e);
      if (folder) {
        folders.push_back(e);
        folderRef.push_back(i);
      }
    }
    // Some folders with entries but childrenCount 0, as the scans can leave them.
    for (int k = 0; k < 5; ++k) {
      size_t pick = rng() % folders.size();
      folders[pick]->setChildrenCount(0);
      refs[folderRef[pick]].childrenCount = 0;
    }
    for (int op = 0; op < 300; ++op) {
      size_t i = rng() % entries.size();
      bool flag = rng() % 2 == 0;
      CheckController(entries[i], flag).run();
      refRun(&refs[i], flag);
    }
    for (size_t i = 0; i < entries.size(); ++i) {
      ASSERT_EQ(entries[i]->selected(), refs[i].selected) << "entry " << i;
      ASSERT_EQ(entries[i]->childrenSelected(), refCount(refs[i].children)) << "entry " << i;
      ASSERT_EQ(entries[i]->childrenSelected(), HDIR::countChildrenSelectedInArray(entries[i]->children()));
    }
  }
}

}  // namespace
}  // namespace ambrel
