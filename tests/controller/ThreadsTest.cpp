// Find on the tree page, and the workers: a flood of reports applied by the
// test's own loop, Stop during every long operation, a new request replacing
// a running one, and nothing applied once its page has been left.
#include <fmt/format.h>

#include "controller/Journey.h"
#include "hfs/Volume.h"
#include "media/DMedia.h"

using namespace ambrel;
using namespace ambrel::test;
namespace fs = std::filesystem;

namespace {

// A volume of many plain files, for scans that take a while.
void buildManyFiles(const fs::path& image, uint32_t files, bool wipeTable = false, uint64_t driveBytes = 0) {
  mk::DriveSpec drive;
  drive.table = mk::TableKind::GPT;
  drive.wipePartitionTable = wipeTable;
  mk::PartitionSpec part;
  mk::VolumeSpec vol;
  vol.name = "Many";
  mk::GenerateSpec gen;
  gen.files = files;
  gen.folders = files / 100;
  gen.minSize = 1;
  gen.maxSize = 600;
  gen.variedNames = false;
  vol.generate = gen;
  part.volume = vol;
  if (driveBytes) {
    // The volume at the drive's far end.
    drive.sizeBytes = driveBytes;
    part.startSector = driveBytes / 512 - (136u << 11);
    part.sizeSectors = 128u << 11;
  }
  drive.partitions.push_back(part);
  mk::buildImage(drive, image);
}

int32_t rootFiles(AppController& app) {
  HDIR* root = app.outlineChild(nullptr, 0);
  return root ? static_cast<int32_t>(root->fileCount) : -1;
}

}  // namespace

TEST_F(Journey, FindIsCaseInsensitiveAndNextNextPreviousShowsOneTwoOne) {
  buildGptDrive(dir / "drive.img", "Find",
                {folderOf("Work", {fileOf("report.doc", textBytes("r")), fileOf("budget.xls", textBytes("b"))}),
                 fileOf("Notes.DOC", textBytes("n")), folderOf("docs", {fileOf("a.txt", textBytes("a"))})});
  start(PlistArray{driveDictFor(dir / "drive.img")});
  scanFirstPartition();
  app->find("DOC");
  EXPECT_EQ(ui.text(Control::FindTextField), " ");
  ASSERT_TRUE(runUntil([this] { return !app->findThreadRunning() && ui.text(Control::FindTextField) != " "; }));
  // Pre-order: the root's children in their catalog order, each before what it holds.
  std::vector<std::string> names;
  for (HDIR* m : app->findArray()) names.emplace_back(m->fileName());
  EXPECT_EQ(names, (std::vector<std::string>{"docs", "Notes.DOC", "report.doc"}));
  EXPECT_EQ(app->findCount(), 3);
  EXPECT_EQ(ui.text(Control::FindTextField), "3 Matches Found");
  for (Control c : {Control::MarkAllButton, Control::UnmarkAllButton, Control::NextButton, Control::PrevButton})
    EXPECT_TRUE(ui.isEnabled(c));

  app->findNext();
  app->findNext();
  app->findPrev();
  ASSERT_EQ(ui.revealed.size(), 3u);
  const auto& m = app->findArray();
  EXPECT_EQ(ui.revealed, (std::vector<const HDIR*>{m[0], m[1], m[0]}));
  // Walking on: forward again from the first, past the end back to the start.
  app->findNext();
  app->findNext();
  app->findNext();
  EXPECT_EQ(std::vector<const HDIR*>(ui.revealed.end() - 3, ui.revealed.end()),
            (std::vector<const HDIR*>{m[1], m[2], m[0]}));
  app->findPrev();
  EXPECT_EQ(ui.revealed.back(), m[2]);
  // The shown match is the selection: a file can be previewed.
  EXPECT_TRUE(ui.isEnabled(Control::PreviewButton));

  app->markAllFound();
  EXPECT_EQ(app->markedFiles(), 3u);  // Notes.DOC, report.doc and docs/a.txt
  EXPECT_EQ(ui.text(Control::TextFieldMarkedData), "0.00 KB in 3 Files");
  EXPECT_TRUE(ui.isEnabled(Control::SaveButton));
  EXPECT_EQ(entry("Work/budget.xls")->selected(), 0);
  app->unmarkAllFound();
  EXPECT_EQ(app->markedFiles(), 0u);
  EXPECT_EQ(ui.text(Control::TextFieldMarkedData), "0 KB in 0 Files");
  EXPECT_FALSE(ui.isEnabled(Control::SaveButton));

  app->find("no such name");
  ASSERT_TRUE(runUntil([this] { return ui.text(Control::FindTextField) == "0 Matches Found"; }));
  EXPECT_TRUE(app->findArray().empty());
  EXPECT_FALSE(ui.isEnabled(Control::NextButton));
  app->findNext();  // nothing to show
  EXPECT_EQ(ui.revealed.size(), 7u);
}

TEST_F(Journey, ANewFindReplacesARunningOneAndLeavingTheTreeDropsItsResult) {
  buildManyFiles(dir / "drive.img", 20000);
  start(PlistArray{driveDictFor(dir / "drive.img")});
  scanFirstPartition();
  ASSERT_EQ(rootFiles(*app), 20000);
  app->find("f");
  app->find("f1999");  // f1999 and f19990 to f19999
  ASSERT_TRUE(runUntil([this] { return !app->findThreadRunning() && app->findCount() > 0; }));
  ASSERT_TRUE(settle());
  EXPECT_EQ(app->findCount(), 11);
  EXPECT_EQ(ui.text(Control::FindTextField), "11 Matches Found");

  // A find still running when the tree is left says nothing afterwards.
  app->find("f");
  ui.answer("Information", 0);  // Ignore
  app->treeBackToPartitionsClicked();
  ASSERT_EQ(ui.page, Page::PTList);
  const auto enabledBefore = ui.enabled;
  const auto textsBefore = ui.texts;
  ASSERT_TRUE(settle());
  EXPECT_EQ(ui.enabled, enabledBefore);
  EXPECT_EQ(ui.texts, textsBefore);
  EXPECT_TRUE(app->findArray().empty());
}

TEST_F(Journey, AFloodOfScanReportsIsAppliedByTheMainLoop) {
  buildManyFiles(dir / "drive.img", 30000);
  start(PlistArray{driveDictFor(dir / "drive.img")});
  std::vector<std::string> entriesShown;
  ui.onChange = [&](Control c) {
    if (c == Control::TreeProgEntriesField && !ui.text(c).empty()) entriesShown.push_back(ui.text(c));
  };
  scanFirstPartition();
  EXPECT_EQ(rootFiles(*app), 30000);
  // Many reports, each applied in turn, the counts only growing.
  EXPECT_GT(ui.bars[Control::TreeProgBar].updates, 20);
  ASSERT_GT(entriesShown.size(), 20u);
  for (size_t i = 1; i < entriesShown.size(); ++i)
    EXPECT_LE(std::stoull(entriesShown[i - 1]), std::stoull(entriesShown[i])) << i;
  EXPECT_EQ(ui.text(Control::TreeProgStatusField), "Tree Completed for Many on drive " + app->selectedPTVolume()->model +
                                                     " " + app->selectedPTVolume()->serial + " " +
                                                     app->selectedPTVolume()->revision);
  EXPECT_FALSE(ui.animating[Control::TreeProgIndicator]);
}

TEST_F(Journey, StopEndsTheVolumeSearchAndTheTreeScan) {
  // A volume at the end of a 1 GiB drive: found only by a search that gets there.
  buildManyFiles(dir / "drive.img", 20000, true, 1ull << 30);
  start(PlistArray{driveDictFor(dir / "drive.img")});
  app->driveTableSelectionDidChange(0);
  app->firstPageNextClicked();
  app->ptModeScanForPTClicked();
  // The search waits for its first report to be applied: it has not begun.
  app->volumeScanStopClicked();
  ASSERT_TRUE(runUntil([this] { return page() == Page::PTScanList; }));
  EXPECT_EQ(app->tableRowCount(Table::PartitionScanList), 0);
  EXPECT_LT(ui.bars[Control::VolumeScanBar].value, ui.bars[Control::VolumeScanBar].max);

  // Unstopped, the same search finds it; then the tree scan is stopped.
  ASSERT_TRUE(settle());
  EXPECT_EQ(sleep.held.load(), 0);
  app->ptScanListBackToDrivesClicked();
  app->driveTableSelectionDidChange(0);
  app->firstPageNextClicked();
  app->ptModeScanForPTClicked();
  ASSERT_TRUE(runUntil([this] { return page() == Page::PTScanList; }));
  int found = -1;
  for (int r = 0; r < app->tableRowCount(Table::PartitionScanList); ++r)
    if (app->tableCellText(Table::PartitionScanList, r, "Volume Name") == "Many") found = r;
  ASSERT_GE(found, 0);
  ASSERT_TRUE(settle());
  app->partitionScanListSelectionDidChange(found);
  app->volumeScanListNextClicked();
  app->treeScanModeStandardScanClicked();
  app->stopTree();
  ASSERT_TRUE(runUntil([this] { return page() == Page::Tree; }));
  EXPECT_LT(rootFiles(*app), 20000);
  EXPECT_EQ(ui.lastAlert()->title, "Standard Scan Completed");
  ASSERT_TRUE(settle());
  EXPECT_EQ(sleep.held.load(), 0);
  EXPECT_GE(sleep.granted.load(), 3);  // every scan held the machine awake, not only the first
}

TEST_F(Journey, StopEndsTheSignatureSearchAndTheSave) {
  mk::DriveSpec drive;
  drive.table = mk::TableKind::GPT;
  mk::PartitionSpec part;
  mk::VolumeSpec vol;
  vol.name = "Stop";
  vol.root = {sizedFile("large.bin", 40u << 20)};
  for (int i = 0; i < 3; ++i) {
    mk::PayloadSpec p;
    p.bytes = makePng(30 + i, 30, static_cast<uint8_t>(i));
    vol.freePayloads.push_back(p);
  }
  part.volume = vol;
  drive.partitions.push_back(part);
  mk::buildImage(drive, dir / "drive.img");
  start(PlistArray{driveDictFor(dir / "drive.img")});

  // The drive's signature search, stopped before it has looked at a block.
  app->driveTableSelectionDidChange(0);
  app->firstPageNextClicked();
  app->ptModeSigSearchClicked();
  for (int c = 0; c < app->sigOutlineChildCount(nullptr); ++c) {
    SigNode* category = app->sigOutlineChild(nullptr, c);
    for (int i = 0; i < app->sigOutlineChildCount(category); ++i)
      if (app->sigOutlineText(app->sigOutlineChild(category, i)) == "PNG")
        app->sigOutlineSetMark(app->sigOutlineChild(category, i), true);
  }
  app->sigSelNextClicked("1", 0);
  ASSERT_EQ(ui.page, Page::RawSlider);
  app->rawSliderNextClicked(0, 100);
  app->stopTree();
  ASSERT_TRUE(runUntil([this] { return page() == Page::Tree; }));
  EXPECT_EQ(rootFiles(*app), 0);
  ui.answer("Information", 0);
  app->treeBackToPartitionsClicked();

  // A save stopped at once: "Saving Aborted", the file not written whole.
  scanFirstPartition();
  app->outlineViewSetObjectValue(app->outlineChild(nullptr, 0), true);
  fs::create_directories(dir / "out");
  ui.folderPanels.push_back((dir / "out").string());
  app->saveData();
  app->abortDataSaving();
  ASSERT_TRUE(runUntil([this] { return app->scanInfoOrSavingNotProcessing(); }));
  EXPECT_EQ(ui.lastAlert()->title, "Saving Aborted");
  // The file cut by the stop is kept only under a name that says so.
  EXPECT_EQ(ui.lastAlert()->message, "Saving location was: " + (dir / "out").string() +
                                         "\n0 files were saved whole.\n1 files are incomplete and were kept under "
                                         "names ending in \"(incomplete)\".");
  EXPECT_EQ(ui.text(Control::TextFieldTreeStatus), "Saving Aborted");
  ASSERT_TRUE(app->lastSave().has_value());
  EXPECT_TRUE(app->lastSave()->aborted);
  EXPECT_FALSE(fs::exists(dir / "out" / "Root" / "large.bin"));
  const fs::path kept = dir / "out" / "Root" / "large (incomplete).bin";
  ASSERT_TRUE(fs::exists(kept));
  EXPECT_LT(fs::file_size(kept), 40u << 20);
  EXPECT_TRUE(ui.isEnabled(Control::SaveButton));
}

TEST_F(Journey, QuittingDuringAVolumeSearchQuitsAndNothingIsShownAfterwards) {
  buildManyFiles(dir / "drive.img", 100, true, 1ull << 30);
  start(PlistArray{driveDictFor(dir / "drive.img")});
  app->driveTableSelectionDidChange(0);
  app->firstPageNextClicked();
  app->ptModeScanForPTClicked();
  ASSERT_TRUE(runUntil([this] { return ui.bars[Control::VolumeScanBar].updates >= 3; }));
  EXPECT_TRUE(app->terminateApplication());
  EXPECT_TRUE(ui.terminated.load());
  ASSERT_TRUE(settle());
  EXPECT_EQ(ui.callsAfterTerminate, 0);
  EXPECT_EQ(ui.page, Page::PTScanProg);
}

TEST_F(Journey, PreviewLoadsByKindCapsAMovieAndASecondRequestReplacesTheFirst) {
  const auto picture = makePng(20, 20, 1);
  std::vector<uint8_t> control(5000);
  for (size_t i = 0; i < control.size(); ++i) control[i] = static_cast<uint8_t>(i % 32);
  buildGptDrive(dir / "drive.img", "Look",
                {sizedFile("movie.mov", 20000000), fileOf("pic.png", picture), fileOf("raw.bin", control),
                 fileOf("hello.txt", textBytes("Hello\tthere\n"))});
  start(PlistArray{driveDictFor(dir / "drive.img")});
  scanFirstPartition();

  // The first preview of an unsaved tree warns once; "Go Back" drops it.
  ui.answer("Information", 0);
  app->outlineViewSelectionDidChange(entry("hello.txt"));
  app->preview();
  EXPECT_EQ(ui.lastAlert()->message.rfind("It is strongly recommended to save \xE2\x80\x9Cscan information\xE2\x80\x9D", 0), 0u);
  EXPECT_EQ(ui.lastAlert()->buttons, (std::vector<std::string>{"Go Back", "Preview"}));
  EXPECT_FALSE(ui.previewVisible);
  app->preview();
  EXPECT_EQ(ui.alertCount("Information"), 1);
  ASSERT_TRUE(ui.previewVisible);
  EXPECT_EQ(ui.text(Control::PreviewText).substr(0, 12), "Hello.there.");
  EXPECT_EQ(app->outlineToolTip(entry("hello.txt"), "Files"), "hello.txt\nPreview showing");
  EXPECT_EQ(app->outlineToolTip(entry("pic.png"), "Files"), "pic.png\nDouble click for preview");

  // Control bytes only: a block of points.
  app->outlineViewSelectionDidChange(entry("raw.bin"));
  app->preview();
  const std::string dots = ui.text(Control::PreviewText);
  ASSERT_FALSE(dots.empty());
  EXPECT_EQ(dots.find_first_not_of('.'), std::string::npos);

  // A movie loads on a worker; a picture asked for meanwhile replaces it.
  app->outlineViewSelectionDidChange(entry("movie.mov"));
  app->preview();
  app->outlineViewSelectionDidChange(entry("pic.png"));
  app->preview();
  ASSERT_TRUE(runUntil([this] { return !ui.previewImage.empty(); }));
  ASSERT_TRUE(settle());
  EXPECT_EQ(ui.previewName, "pic.png");
  EXPECT_EQ(ui.previewImage, picture);
  EXPECT_TRUE(ui.previewMovieData.empty());

  // The movie alone: loading stops just past 15,000,000 bytes.
  app->outlineViewSelectionDidChange(entry("movie.mov"));
  app->preview();
  ASSERT_TRUE(runUntil([this] { return !ui.previewMovieData.empty(); }));
  EXPECT_GT(ui.previewMovieData.size(), 15000000u);
  EXPECT_LE(ui.previewMovieData.size(), 15000000u + 4096);
  EXPECT_EQ(ui.previewMovieName, "abc.mov");
  EXPECT_EQ(ui.text(Control::MovieSizeLoaded), fmt::format("Loaded {:.2f} %", ui.previewMovieData.size() * 100.0 / 20000000));
  EXPECT_EQ(ui.text(Control::MovieStatus), "Click the Play button");
  EXPECT_EQ(ui.text(Control::MovieDuration), "Duration: 0:00:01");

  // An image the front end cannot decode is shown as text.
  ui.imagesDecode = false;
  app->outlineViewSelectionDidChange(entry("pic.png"));
  app->preview();
  ASSERT_TRUE(runUntil([this] { return ui.text(Control::PreviewText).size() > 0; }));
  EXPECT_EQ(ui.text(Control::PreviewText).substr(1, 3), "PNG");

  // Closing the preview window is always allowed; leaving the tree closes it.
  EXPECT_TRUE(app->windowShouldClose(true));
  EXPECT_FALSE(ui.previewVisible);
}
