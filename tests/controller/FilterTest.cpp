// The tree page's filter and the marks' running tally: what is shown,
// counted, found and saved once a filter is applied, the refusals of bad
// values, and the tally against a count over the whole tree after every
// kind of click.
#include <fmt/format.h>

#include <random>

#include "controller/Journey.h"
#include "core/MarkTally.h"
#include "core/ShownTree.h"
#include "tree/CheckController.h"

using namespace ambrel;
using namespace ambrel::test;
namespace fs = std::filesystem;

namespace {

HDIR* add(HDIR* parent, uint16_t type, const std::string& name, uint64_t size) {
  auto e = std::make_unique<HDIR>();
  e->fileType = type;
  e->fileSize = e->dataSize = size;
  e->setFileName(name);
  e->parent = parent;
  parent->addToChildrenCount(1);
  return parent->addChild(std::move(e));
}

// Folders three deep with files of varied names and sizes at every level.
struct Tree {
  HDIR root;
  std::vector<HDIR*> entries;
  Tree() {
    root.fileType = kHDIRFolder;
    root.setFileName("Root");
    std::mt19937 rng(7);
    std::vector<HDIR*> folders{&root};
    for (int i = 0; i < 400; ++i) {
      HDIR* in = folders[rng() % folders.size()];
      if (i % 7 == 0 && folders.size() < 40) {
        folders.push_back(add(in, kHDIRFolder, fmt::format("dir{}", i), 0));
        entries.push_back(folders.back());
      } else {
        static const char* const kinds[] = {"jpg", "JPG", "txt", "pdf"};
        entries.push_back(add(in, kHDIRFile, fmt::format("f{}.{}", i, kinds[i % 4]), 100 + rng() % 5000));
      }
    }
    // An empty folder: marking it changes no count.
    entries.push_back(add(&root, kHDIRFolder, "empty", 0));
  }
};

}  // namespace

TEST(MarkTally, FollowsEveryClickAsACountOverTheWholeTreeWouldWithAndWithoutAFilter) {
  for (bool filtered : {false, true}) {
    SCOPED_TRACE(filtered ? "filtered" : "whole tree");
    Tree t;
    EntryFilter f;
    f.extensions = {"jpg"};
    f.maxSize = 3000;
    std::unique_ptr<FilteredTree> kept = filtered ? std::make_unique<FilteredTree>(t.root, f) : nullptr;
    // Some marks already there (a scan info file keeps them).
    CheckController(t.entries[3], true).run();
    CheckController(t.entries[20], true).run();
    auto tally = MarkTally::build(t.root, kept.get());
    ASSERT_TRUE(tally);
    EXPECT_EQ(tally->total().markedFiles, countMarkedKept(t.root, kept.get()).markedFiles);
    std::mt19937 rng(11);
    for (int step = 0; step < 600; ++step) {
      HDIR* item = step % 97 == 0 ? &t.root : t.entries[rng() % t.entries.size()];
      const bool mark = rng() % 3 != 0;
      tally->mark(item, mark);
      const MarkedCount want = countMarkedKept(t.root, kept.get());
      ASSERT_EQ(tally->total().markedFiles, want.markedFiles) << "step " << step << " " << item->fileName();
      ASSERT_EQ(tally->total().markedData, want.markedData) << "step " << step;
    }
    tally->mark(&t.root, true);
    EXPECT_EQ(tally->total().markedFiles, tally->all().markedFiles);
    EXPECT_GT(tally->all().markedFiles, 0u);
    tally->mark(&t.root, false);
    EXPECT_EQ(tally->total().markedFiles, 0u);
  }
}

TEST(MarkTally, RefusesATreeThatMarkingAFolderWouldNotReachWholeAndTheShownTreeCountsInstead) {
  Tree t;
  // A folder with entries but no children count: CheckController stops there.
  HDIR* odd = add(&t.root, kHDIRFolder, "odd", 0);
  HDIR* inside = add(odd, kHDIRFile, "inside.txt", 10);
  odd->setChildrenCount(0);
  EXPECT_FALSE(MarkTally::build(t.root, nullptr));
  auto shown = ShownTree::build(t.root, {});
  EXPECT_FALSE(shown->tally);
  CheckController(&t.root, true).run();
  CheckController(inside, true).run();
  EXPECT_EQ(shown->marked().markedFiles, countMarkedDataAndFiles(t.root).markedFiles);
  EXPECT_EQ(shown->allFiles, shown->shownFiles);
}

TEST(TreeFilterInput, BadValuesAreRefusedWithTheFieldNamed) {
  std::string error;
  auto parse = [&](TreeFilterInput in) { error.clear(); return treeFilterFrom(in, error); };
  EXPECT_FALSE(parse({"12 apples", "", "", "", false}));
  EXPECT_EQ(error, "Minimum size \"12 apples\" is not a size. Write it as 1500, 500KB, 20MB or 2GB (1 KB = 1000 bytes).");
  EXPECT_FALSE(parse({"", "-5", "", "", false}));
  EXPECT_NE(error.find("Maximum size \"-5\""), std::string::npos);
  EXPECT_FALSE(parse({"2MB", "1.5MB", "", "", false}));
  EXPECT_EQ(error, "The minimum size (2MB) is above the maximum size (1.5MB): no file could pass.");
  EXPECT_FALSE(parse({"", "", "", " , .", false}));
  EXPECT_NE(error.find("name no extension"), std::string::npos);

  auto f = parse({" 1KB ", "1.5MB", "  IMG_* ", "JPG, .png", true});
  ASSERT_TRUE(f) << error;
  EXPECT_EQ(f->minSize, 1000u);
  EXPECT_EQ(f->maxSize, 1500000u);
  EXPECT_EQ(f->names, std::vector<std::string>{"IMG_*"});
  EXPECT_EQ(f->extensions, (std::vector<std::string>{"jpg", "png"}));
  EXPECT_TRUE(f->matchCase);
  // Empty fields filter nothing; equal bounds are one size.
  auto none = parse({" ", "", "", "", false});
  ASSERT_TRUE(none);
  EXPECT_FALSE(none->active());
  EXPECT_TRUE(parse({"500", "500", "", "", false}));
}

namespace {

std::vector<std::string> shownNames(AppController& app, const HDIR* folder) {
  std::vector<std::string> names;
  for (int i = 0; i < app.outlineChildCount(folder); ++i) names.emplace_back(app.outlineChild(folder, i)->fileName());
  return names;
}

}  // namespace

TEST_F(Journey, AFilterHidesCountsFindsAndSavesOnlyWhatPasses) {
  buildGptDrive(dir / "drive.img", "Filter",
                {folderOf("Photos", {sizedFile("IMG_1.jpg", 40000), sizedFile("img_2.JPG", 900),
                                     sizedFile("notes.txt", 50000)}),
                 folderOf("Docs", {sizedFile("report.pdf", 60000), folderOf("Old", {sizedFile("a.txt", 10)})}),
                 sizedFile("IMG_3.jpg", 70000)});
  start(PlistArray{driveDictFor(dir / "drive.img")});
  scanFirstPartition();
  HDIR* root = app->outlineChild(nullptr, 0);
  ASSERT_TRUE(root);
  EXPECT_EQ(ui.text(Control::TextFieldFilterStatus), "");
  EXPECT_FALSE(ui.isEnabled(Control::FilterClearButton));

  // Bad values: an alert names the field, and nothing changes.
  ui.answer("Filter Not Applied", 0);
  app->applyTreeFilter({"20MB", "1KB", "", "", false});
  ASSERT_TRUE(ui.lastAlert());
  EXPECT_EQ(ui.lastAlert()->title, "Filter Not Applied");
  EXPECT_FALSE(app->treeFilterRunning());

  // JPEG files of at least 1 KB (any case of the extension).
  app->applyTreeFilter({"1KB", "", "", "jpg", false});
  EXPECT_TRUE(app->treeFilterRunning());
  EXPECT_EQ(ui.text(Control::TextFieldFilterStatus), "Filtering…");
  ASSERT_TRUE(runUntil([this] { return !app->treeFilterRunning(); }));
  EXPECT_EQ(ui.text(Control::TextFieldFilterStatus), "Filter: 2 of 6 files shown");
  EXPECT_TRUE(ui.isEnabled(Control::FilterClearButton));
  EXPECT_EQ(shownNames(*app, root), (std::vector<std::string>{"IMG_3.jpg", "Photos"}));
  EXPECT_EQ(shownNames(*app, entry("Photos")), std::vector<std::string>{"IMG_1.jpg"});
  EXPECT_FALSE(app->outlineIsItemExpandable(entry("Docs")));

  // Marking the root marks only what is shown, as far as counting and saving go.
  app->outlineViewSetObjectValue(root, true);
  EXPECT_EQ(app->markedFiles(), 2u);
  EXPECT_EQ(app->markedData(), 110000u);
  app->find("o");  // Docs, Old, notes.txt and report.pdf have one too, but are hidden
  ASSERT_TRUE(runUntil([this] { return !app->findThreadRunning() && ui.text(Control::FindTextField) != " "; }));
  std::vector<std::string> found;
  for (HDIR* m : app->findArray()) found.emplace_back(m->fileName());
  EXPECT_EQ(found, (std::vector<std::string>{"Root", "Photos"}));

  saveTo(dir / "out");
  const auto saved = filesUnder(dir / "out");
  std::vector<std::string> paths;
  for (const auto& [path, bytes] : saved) paths.push_back(path);
  EXPECT_EQ(paths, (std::vector<std::string>{"Root/IMG_3.jpg", "Root/Photos/IMG_1.jpg"}));
  EXPECT_EQ(saved.at("Root/IMG_3.jpg").size(), 70000u);

  // Showing all again: the hidden entries were marked too, and now count.
  app->clearTreeFilter();
  ASSERT_TRUE(runUntil([this] { return !app->treeFilterRunning(); }));
  EXPECT_EQ(ui.text(Control::TextFieldFilterStatus), "");
  EXPECT_EQ(ui.text(Control::FilterMinSizeField), "");
  EXPECT_EQ(app->outlineChildCount(root), 3);
  EXPECT_EQ(app->markedFiles(), 6u);
}

TEST_F(Journey, MarksWaitForAFilterBeingAppliedAndAnOlderFilterIsDropped) {
  buildGptDrive(dir / "drive.img", "Filter",
                {sizedFile("a.jpg", 2000), sizedFile("b.txt", 3000), sizedFile("c.jpg", 9000)});
  start(PlistArray{driveDictFor(dir / "drive.img")});
  scanFirstPartition();
  HDIR* root = app->outlineChild(nullptr, 0);
  app->applyTreeFilter({"", "", "", "txt", false});
  app->applyTreeFilter({"", "5KB", "", "", false});
  // The filter's worker reads the marks: a click meanwhile is undone.
  app->outlineViewSetObjectValue(root, true);
  EXPECT_EQ(root->selected(), 0);
  // A find made meanwhile looks at the tree shown before: its matches go.
  app->find("c.jpg");
  ASSERT_TRUE(runUntil([this] { return !app->treeFilterRunning(); }));
  ASSERT_TRUE(settle());
  EXPECT_TRUE(app->findArray().empty());
  EXPECT_EQ(ui.text(Control::FindTextField), "");
  EXPECT_EQ(shownNames(*app, root), (std::vector<std::string>{"a.jpg", "b.txt"}));
  EXPECT_EQ(ui.text(Control::TextFieldFilterStatus), "Filter: 2 of 3 files shown");
  app->outlineViewSetObjectValue(root, true);
  EXPECT_EQ(app->markedFiles(), 2u);
  EXPECT_EQ(app->markedData(), 5000u);
  // Leaving the tree drops the filter with it.
  ui.answer("Information", 0);
  app->treeBackToPartitionsClicked();
  EXPECT_FALSE(app->shownTree());
}
