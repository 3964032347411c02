// Whole user journeys through the controller, page by page, on drives made by
// the image builder: what each page shows, every alert's words, and what
// ends up on disk.
#include <fmt/format.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "controller/Journey.h"
#include "hfs/Volume.h"
#include "media/DMedia.h"
#include "output/Saver.h"

using namespace ambrel;
using namespace ambrel::test;
namespace fs = std::filesystem;

namespace {

constexpr const char* kBackFromTreeMessage =
    "Please save \"Scan Info\" to retain the recovered data tree before going back to the previous step. Click on "
    "Ignore button to go back to the previous step or click on Go Back button to save \"Scan Info\"";

// What a volume with these contents should give back when saved whole.
std::vector<mk::EntrySpec> sampleEntries() {
  return {fileOf("readme.txt", textBytes("Recovered by the controller journey.\n")),
          folderOf("Photos", {sizedFile("beach.jpg", 300000), sizedFile("tiny.jpg", 1),
                              folderOf("2023", {sizedFile("party.png", 8193)})}),
          folderOf("Documents", {fileOf("report.doc", textBytes("quarterly report")),
                                 fileOf("notes.txt", textBytes("doc notes")), sizedFile("empty.dat", 0)})};
}

// The bytes each file of the layout holds, keyed "Root/relative/path" (the
// root folder is saved under its name in the tree).
std::map<std::string, std::vector<uint8_t>> expectedFiles(const mk::VolumeLayout& vol,
                                                          const std::vector<mk::EntrySpec>& entries) {
  std::map<std::string, std::vector<uint8_t>> out;
  std::function<void(const std::vector<mk::EntrySpec>&, const std::string&)> walk =
      [&](const std::vector<mk::EntrySpec>& list, const std::string& prefix) {
        for (const auto& e : list) {
          const std::string path = prefix.empty() ? e.name : prefix + "/" + e.name;
          if (e.folder) {
            walk(e.children, path);
            continue;
          }
          if (e.dataLength() == 0) continue;  // a marked file with no forks leaves nothing behind
          if (e.data) {
            out["Root/" + path] = *e.data;
          } else {
            const mk::FileLayout* f = vol.find(path);
            EXPECT_NE(f, nullptr) << path;
            if (f) out["Root/" + path] = mk::generatedBytes(f->dataSeed, f->dataSize);
          }
        }
      };
  walk(entries, "");
  return out;
}

}  // namespace

TEST_F(Journey, DrivePartitionsStandardScanMarkAndSaveGiveTheSourceFilesBack) {
  const auto entries = sampleEntries();
  const auto layout = buildGptDrive(dir / "drive.img", "Journey", entries);
  start(PlistArray{driveDictFor(dir / "drive.img")});
  EXPECT_EQ(ui.page, Page::FirstPage);
  EXPECT_EQ(std::string(pageIdentifier(ui.page)), "first page");
  EXPECT_EQ(app->tableRowCount(Table::Drives), 1);
  EXPECT_EQ(app->tableCellText(Table::Drives, 0, "Size"), sizeText(fs::file_size(dir / "drive.img")));

  scanFirstPartition();
  EXPECT_EQ(app->tableCellText(Table::Partitions, 0, "Volume Name"), "Journey");
  ASSERT_EQ(ui.page, Page::Tree);
  std::vector<std::string> seen;
  for (Page p : ui.pages) seen.push_back(pageIdentifier(p));
  EXPECT_EQ(seen, (std::vector<std::string>{"first page", "PT mode", "PT list", "Tree scan mode", "Tree prog", "Tree"}));

  // The closing alert, the Back button, the totals.
  const Alert* done = ui.lastAlert();
  ASSERT_NE(done, nullptr);
  EXPECT_EQ(done->title, "Standard Scan Completed");
  EXPECT_EQ(done->message,
            "Check for lost data in the recovered data tree. If the desired data is still not obtained, click on \"Back "
            "To Volumes\" button and select \xE2\x80\x9C" "Advance Scan\xE2\x80\x9D on the volume.");
  EXPECT_EQ(ui.titles[Control::ButtonTreeBackToPartitions], "Back To Volumes");
  EXPECT_EQ(ui.toolTips[Control::ButtonTreeBackToPartitions], "Back To Volume List");
  EXPECT_EQ(ui.text(Control::TextFieldMarkedData), "0 KB in 0 Files");
  EXPECT_FALSE(ui.isEnabled(Control::SaveButton));
  HDIR* root = app->outlineChild(nullptr, 0);
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(ui.text(Control::TextFieldTreeTotals), fmt::format("{} in 7 Files", sizeTextOrZero(root->fileSize)));

  // Marking a folder marks what is under it; the totals follow.
  HDIR* photos = entry("Photos");
  ASSERT_NE(photos, nullptr);
  app->outlineViewSetObjectValue(photos, true);
  EXPECT_EQ(app->markedFiles(), 3u);
  EXPECT_EQ(app->markedData(), 300000u + 1 + 8193);
  EXPECT_EQ(ui.text(Control::TextFieldMarkedData), "308.19 KB in 3 Files");
  EXPECT_TRUE(ui.isEnabled(Control::SaveButton));
  EXPECT_EQ(app->outlineObjectValue(entry("Photos/2023/party.png"), "Mark"), "1");
  app->outlineViewSetObjectValue(photos, false);
  EXPECT_EQ(ui.text(Control::TextFieldMarkedData), "0 KB in 0 Files");
  app->outlineViewSetObjectValue(root, true);

  const fs::path out = dir / "out";
  saveTo(out);
  EXPECT_EQ(ui.alertCount("Information"), 1);  // the same-volume warning, answered Yes
  ASSERT_EQ(ui.panelsShown.back(), "folder");
  EXPECT_EQ(ui.panelRequests.back().prompt, "Save");
  EXPECT_EQ(ui.lastAlert()->title, "Saving Completed");
  EXPECT_EQ(ui.lastAlert()->message, "Saved at: " + out.string());
  EXPECT_EQ(ui.text(Control::TextFieldTreeStatus), "Saving Completed");
  ASSERT_TRUE(app->lastSave().has_value());
  EXPECT_FALSE(app->lastSave()->anyFailure());
  EXPECT_EQ(filesUnder(out), expectedFiles(*layout.partitions[0].volume, entries));
  // Everything is offered again afterwards.
  EXPECT_TRUE(ui.isEnabled(Control::SaveButton));
  EXPECT_TRUE(ui.isEnabled(Control::ButtonTreeBackToPartitions));
  EXPECT_FALSE(ui.isEnabled(Control::StopSaveButton));
  EXPECT_GE(sleep.granted.load(), 1);
}

TEST_F(Journey, WipedTableSearchForVolumesThenAdvancedScan) {
  const auto entries = sampleEntries();
  const auto layout = buildGptDrive(dir / "wiped.img", "Lost Table", entries, true);
  start(PlistArray{driveDictFor(dir / "wiped.img")});
  app->driveTableSelectionDidChange(0);
  app->firstPageNextClicked();
  app->ptModePTListClicked();
  EXPECT_EQ(app->tableRowCount(Table::Partitions), 0);  // nothing left of the table
  // The partition list's own way to the search.
  app->ptListNextClicked(true);
  ASSERT_EQ(ui.page, Page::PTScanProg);
  ASSERT_TRUE(runUntil([this] { return page() == Page::PTScanList; }));
  ASSERT_EQ(app->tableRowCount(Table::PartitionScanList), 1);
  const uint64_t start = layout.partitions[0].startSector;
  EXPECT_EQ(app->tableCellText(Table::PartitionScanList, 0, "Volume Name"), "Lost Table");
  EXPECT_EQ(app->tableCellText(Table::PartitionScanList, 0, "Start Sector"), std::to_string(start));
  EXPECT_EQ(app->tableCellText(Table::PartitionScanList, 0, "Found"), fmt::format("Volume Found At Sector: {}", start));
  EXPECT_EQ(app->tableCellText(Table::PartitionScanList, 0, "Validity"), "Valid (100%)");
  EXPECT_EQ(app->tableCellText(Table::FoundVolumes, 0, "Validity"), "Valid");
  EXPECT_GT(ui.bars[Control::VolumeScanBar].updates, 1);
  EXPECT_EQ(ui.text(Control::PleaseWaitForValidatingVolumeTextField), "");

  app->volumeScanListNextClicked();  // nothing selected: nothing happens
  EXPECT_EQ(ui.page, Page::PTScanList);
  app->partitionScanListSelectionDidChange(0);
  EXPECT_TRUE(ui.isEnabled(Control::VolumeScanListNext));
  app->volumeScanListNextClicked();
  ASSERT_EQ(ui.page, Page::TreeScanMode);
  app->treeScanModeAdvScanClicked();
  ASSERT_TRUE(runUntil([this] { return page() == Page::Tree; }));
  EXPECT_EQ(ui.lastAlert()->title, "Advance Scan Completed");
  EXPECT_EQ(ui.lastAlert()->message,
            "Check for lost data in the recovered data tree. If the desired data is still not obtained, you can always "
            "perform Raw Signature Search on the physical drive.");
  EXPECT_EQ(ui.titles[Control::ButtonTreeBackToPartitions], "Back To Found Volumes");
  ASSERT_NE(entry("Documents/report.doc"), nullptr);
  app->outlineViewSetObjectValue(entry("Documents"), true);
  saveTo(dir / "out");
  auto expected = expectedFiles(*layout.partitions[0].volume, entries);
  std::erase_if(expected, [](const auto& kv) { return kv.first.find("/Documents/") == std::string::npos; });
  const auto saved = filesUnder(dir / "out");
  for (const auto& [path, bytes] : expected) {
    auto it = saved.find(path);
    ASSERT_NE(it, saved.end()) << path;
    EXPECT_EQ(it->second, bytes) << path;
  }
  // Whatever else the advanced scan listed holds one of these files' bytes, never others.
  for (const auto& [path, bytes] : saved) {
    bool known = false;
    for (const auto& kv : expected) known |= kv.second == bytes;
    EXPECT_TRUE(known) << path;
  }

  // Back (the Ignore answer) leads to the found volumes again.
  app->treeBackToPartitionsClicked();
  EXPECT_EQ(ui.page, Page::PTScanList);
  EXPECT_EQ(app->selectedPTVolume(), nullptr);
  app->ptScanListBackToDrivesClicked();
  EXPECT_EQ(ui.page, Page::FirstPage);
  EXPECT_EQ(app->selectedDrive(), nullptr);
}

TEST_F(Journey, BackFromAnUnsavedTreeAsksAndGoBackKeepsTheTree) {
  buildGptDrive(dir / "drive.img", "Keep", sampleEntries());
  start(PlistArray{driveDictFor(dir / "drive.img")});
  scanFirstPartition();
  ui.answer("Information", 1);  // "Go Back"
  app->treeBackToPartitionsClicked();
  ASSERT_EQ(ui.lastAlert()->title, "Information");
  EXPECT_EQ(ui.lastAlert()->message, kBackFromTreeMessage);
  EXPECT_EQ(ui.lastAlert()->buttons, (std::vector<std::string>{"Ignore", "Go Back"}));
  EXPECT_EQ(ui.page, Page::Tree);
  ASSERT_NE(app->selectedPTVolume(), nullptr);
  EXPECT_NE(entry("Photos/beach.jpg"), nullptr);

  ui.answer("Information", 0);  // "Ignore"
  app->treeBackToPartitionsClicked();
  EXPECT_EQ(ui.page, Page::PTList);
  EXPECT_EQ(app->selectedPTVolume(), nullptr);
  EXPECT_EQ(ui.frameRestores, 1);
  EXPECT_EQ(app->outlineChildCount(nullptr), 0);
  // The partitions are still listed; the same volume can be scanned again.
  EXPECT_EQ(app->tableRowCount(Table::Partitions), 1);
  app->ptListBackToDrivesClicked();
  EXPECT_EQ(ui.page, Page::FirstPage);
}

TEST_F(Journey, RefusalsOfTheWizard) {
  buildGptDrive(dir / "drive.img", "Refuse", sampleEntries());
  start(PlistArray{driveDictFor(dir / "drive.img")});
  // Next with nothing selected does nothing.
  EXPECT_FALSE(ui.isEnabled(Control::FirstPageNext));
  app->firstPageNextClicked();
  EXPECT_EQ(ui.page, Page::FirstPage);
  EXPECT_EQ(ui.pages.size(), 1u);
  // Selecting a drive enables it; selecting a row that is not there does not.
  app->driveTableSelectionDidChange(5);
  EXPECT_FALSE(ui.isEnabled(Control::FirstPageNext));
  app->driveTableSelectionDidChange(0);
  EXPECT_TRUE(ui.isEnabled(Control::FirstPageNext));
  EXPECT_EQ(ui.selectedRows[Table::Volumes], -1);
  // Actions of other pages do nothing here.
  app->ptModePTListClicked();
  app->treeScanModeStandardScanClicked();
  app->saveData();
  EXPECT_EQ(ui.page, Page::FirstPage);
  app->firstPageNextClicked();
  EXPECT_EQ(ui.page, Page::PTMode);
  app->ptModeCancelClicked();
  EXPECT_EQ(ui.page, Page::FirstPage);
  app->firstPageNextClicked();
  app->ptModePTListClicked();
  app->ptListNextClicked(false);  // no partition selected
  EXPECT_EQ(ui.page, Page::PTList);
  app->partitionTableSelectionDidChange(0);
  app->ptListNextClicked(false);
  app->treeScanModeCancelClicked();
  EXPECT_EQ(ui.page, Page::PTList);
  EXPECT_EQ(app->selectedPTVolume(), nullptr);
  EXPECT_TRUE(ui.alerts.empty());
}

TEST_F(Journey, MarkingAndQuittingDuringASaveAreRefused) {
  buildGptDrive(dir / "drive.img", "Busy",
                {sizedFile("big.bin", 48u << 20), folderOf("Other", {sizedFile("small.txt", 100)})});
  start(PlistArray{driveDictFor(dir / "drive.img")});
  scanFirstPartition();
  app->outlineViewSetObjectValue(entry("big.bin"), true);
  fs::create_directories(dir / "out");
  ui.folderPanels.push_back((dir / "out").string());
  app->saveData();
  // The save runs until the main loop has applied its end: it is running now.
  ASSERT_FALSE(app->scanInfoOrSavingNotProcessing());
  EXPECT_FALSE(ui.isEnabled(Control::SaveButton));
  EXPECT_FALSE(ui.isEnabled(Control::ButtonTreeBackToPartitions));
  EXPECT_FALSE(ui.isEnabled(Control::SaveScanButton));
  EXPECT_TRUE(ui.isEnabled(Control::StopSaveButton));

  HDIR* other = entry("Other");
  app->outlineViewSetObjectValue(other, true);
  ASSERT_EQ(ui.lastAlert()->title, "Process Running");
  EXPECT_EQ(ui.lastAlert()->message,
            "Can not check/uncheck while current process (Data Saving/Scan Info Saving/Scan Info Opening) is running. "
            "Please wait for the process to finish first.");
  EXPECT_EQ(other->selected(), 0);

  EXPECT_FALSE(app->terminateApplication());
  EXPECT_EQ(ui.lastAlert()->title, "Process Running");
  EXPECT_EQ(ui.lastAlert()->message,
            "Scan info saving/opening or data saving is in process. The program can quit if that process is completed "
            "or aborted.");
  EXPECT_FALSE(app->windowShouldClose(false));
  EXPECT_FALSE(ui.terminated.load());
  // Going back and saving scan info are refused the same quiet way: their buttons are off.
  app->treeBackToPartitionsClicked();
  app->save();
  EXPECT_EQ(ui.page, Page::Tree);

  ASSERT_TRUE(runUntil([this] { return app->scanInfoOrSavingNotProcessing(); }));
  EXPECT_EQ(ui.alertCount("Saving Completed"), 1);
  EXPECT_EQ(fs::file_size(dir / "out" / "Root" / "big.bin"), 48u << 20);
  // Afterwards marking works again, and quitting asks about the scan info.
  app->outlineViewSetObjectValue(other, true);
  EXPECT_EQ(other->selected(), 1);
  ui.answer("Do you want to save scan info?", 2);  // Cancel
  EXPECT_FALSE(app->terminateApplication());
  EXPECT_FALSE(ui.terminated.load());
  ui.answer("Do you want to save scan info?", 1);  // No
  EXPECT_TRUE(app->terminateApplication());
  EXPECT_TRUE(ui.terminated.load());
}

TEST_F(Journey, AFullDestinationIsRefusedBeforeAnythingIsWritten) {
  struct statvfs vfs {};
  ASSERT_EQ(::statvfs(dir.path().c_str(), &vfs), 0);
  const uint64_t freeBytes = uint64_t{vfs.f_bavail} * vfs.f_frsize;
  // Files (each under the 4 GiB a fork may have) larger together than the
  // free space, which cost nothing on disk.
  constexpr uint64_t kPiece = 3ull << 30;
  std::vector<mk::EntrySpec> pieces;
  for (uint64_t total = 0; total <= freeBytes; total += kPiece) {
    mk::EntrySpec piece = sizedFile(fmt::format("piece{}.bin", pieces.size()), kPiece);
    piece.sparse = true;
    pieces.push_back(std::move(piece));
  }
  buildGptDrive(dir / "drive.img", "Full", {folderOf("huge", pieces), sizedFile("fits.txt", 10)});
  start(PlistArray{driveDictFor(dir / "drive.img")});
  scanFirstPartition();
  app->outlineViewSetObjectValue(app->outlineChild(nullptr, 0), true);
  ASSERT_GT(app->markedData(), freeBytes);
  fs::create_directories(dir / "out");
  ui.folderPanels.push_back((dir / "out").string());
  app->saveData();
  ASSERT_EQ(ui.lastAlert()->title, "! Not enough free disk space");
  EXPECT_EQ(ui.lastAlert()->message, "The volume you have chosen to save data does not have enough free space available.");
  EXPECT_TRUE(app->scanInfoOrSavingNotProcessing());
  ASSERT_TRUE(settle());
  EXPECT_FALSE(app->lastSave().has_value());
  EXPECT_TRUE(fs::is_empty(dir / "out"));

  // Within the space, a folder that cannot be written to is refused too.
  app->outlineViewSetObjectValue(entry("huge"), false);
  fs::create_directories(dir / "ro");
  bool mounted = false;
  if (::getuid() != 0) {
    fs::permissions(dir / "ro", fs::perms::owner_read | fs::perms::owner_exec);
  } else {
    // Permissions do not stop root: a read-only mount does.
    const std::string ro = (dir / "ro").string();
    mounted = runCommand("mount --bind '" + ro + "' '" + ro + "' 2>/dev/null") == 0;
    if (mounted && runCommand("mount -o remount,ro,bind '" + ro + "' 2>/dev/null") != 0) {
      runCommand("umount '" + ro + "'");
      mounted = false;
    }
  }
  if (::access((dir / "ro").c_str(), W_OK) == 0) GTEST_SKIP() << "no folder here that this user cannot write to";
  ui.folderPanels.push_back((dir / "ro").string());
  app->saveData();
  if (mounted) runCommand("umount '" + (dir / "ro").string() + "'");
  EXPECT_EQ(ui.lastAlert()->title, "! Can not save");
  EXPECT_EQ(ui.lastAlert()->message, "The volume chosen to save data to, is not writable.");
  EXPECT_TRUE(app->scanInfoOrSavingNotProcessing());
  EXPECT_FALSE(app->lastSave().has_value());
}
