// Scan info journeys: saved from the quit prompt, opened again in a new run
// and saved from; the drive checked; files that cannot be opened now; the
// message server's three messages.
#include <ctime>

#include "controller/Journey.h"
#include "core/MessageServer.h"
#include "hfs/Volume.h"
#include "media/DMedia.h"
#include "scaninfo/ScanInfoFile.h"

using namespace ambrel;
using namespace ambrel::test;
namespace fs = std::filesystem;

namespace {

constexpr const char* kDriveNotConnected =
    "The drive to which this scan info belongs is either not connected or has been modified in any way. So saving "
    "and preview will not work. Please connect the drive and restart Ambrel.";

std::vector<mk::EntrySpec> entries() {
  return {fileOf("letter.txt", textBytes("Dear drive,\nplease give my files back.\n")),
          folderOf("Music", {sizedFile("song.mp3", 123457), sizedFile("cover.jpg", 4096)})};
}

}  // namespace

TEST_F(Journey, SaveScanInfoFromTheQuitPromptThenReopenAndSave) {
  const auto layout = buildGptDrive(dir / "drive.img", "Tunes", entries());
  const PlistDict drive = driveDictFor(dir / "drive.img");
  start(PlistArray{drive});
  scanFirstPartition();
  const fs::path asi = dir / "tunes scan";  // the panel's name, without the extension

  // Quitting from an unsaved tree asks; Yes saves, and the program quits when that is done.
  ui.savePanels.push_back(asi.string());
  EXPECT_FALSE(app->terminateApplication());
  ASSERT_EQ(ui.alertCount("Do you want to save scan info?"), 1);
  const Alert& prompt = ui.alerts[ui.alerts.size() - 1];
  EXPECT_EQ(prompt.message,
            "After scanning the physical drive, scan results obtained can be saved so that recovery process could be "
            "carried out in next restart without scanning the drive again. Just open the saved scan info and proceed "
            "with recovery process.");
  EXPECT_EQ(prompt.buttons, (std::vector<std::string>{"Yes", "No", "Cancel"}));
  ASSERT_EQ(ui.panelsShown.back(), "save");
  EXPECT_EQ(ui.panelRequests.back().requiredExtension, "asi");
  EXPECT_EQ(ui.panelRequests.back().proposedName.rfind("ambrel scan info ", 0), 0u);
  EXPECT_FALSE(app->scanInfoOrSavingNotProcessing());
  EXPECT_FALSE(ui.isEnabled(Control::SaveScanButton));
  ASSERT_TRUE(runUntil([this] { return ui.terminated.load(); }));
  EXPECT_EQ(ui.alertCount("Scan Info Saved"), 1);
  EXPECT_EQ(ui.lastAlert()->message, "Saving location: " + asi.string() + ".asi");
  EXPECT_EQ(ui.text(Control::TextFieldTreeStatus), "Scan Info Saved");
  ASSERT_TRUE(fs::exists(asi.string() + ".asi"));
  EXPECT_FALSE(checkScanInfoHeader(asi.string() + ".asi").has_value());

  // A new run: the file opens on the first page, with the drive found again.
  ASSERT_TRUE(settle());
  app.reset();
  ui.reset();
  start(PlistArray{drive});
  ui.openPanels.push_back(asi.string() + ".asi");
  app->open();
  EXPECT_EQ(ui.panelRequests.back().requiredExtension, "asi");
  ASSERT_EQ(ui.page, Page::Tree);
  EXPECT_FALSE(app->scanInfoOrSavingNotProcessing());
  ASSERT_TRUE(runUntil([this] { return ui.alertCount("Scan Info Opened") == 1; }));
  EXPECT_EQ(ui.lastAlert()->message, "From File: " + asi.string() + ".asi");
  EXPECT_EQ(ui.alertCount("Drive Not Connected"), 0);
  EXPECT_EQ(ui.alertCount("Standard Scan Completed"), 0);  // nothing was scanned this time
  EXPECT_EQ(ui.text(Control::TextFieldTreeStatus), "Scan Info Opened");
  ASSERT_NE(app->selectedDrive(), nullptr);
  EXPECT_EQ(app->selectedDrive()->path, drive.string("device path"));
  EXPECT_FALSE(ui.isEnabled(Control::SaveScanButton));  // it came from a file
  EXPECT_TRUE(ui.isEnabled(Control::ButtonTreeBackToPartitions));
  EXPECT_EQ(app->tableRowCount(Table::Partitions), 1);

  app->outlineViewSetObjectValue(entry("Music"), true);
  saveTo(dir / "out");
  EXPECT_EQ(ui.lastAlert()->title, "Saving Completed");
  const auto& vol = *layout.partitions[0].volume;
  const auto saved = filesUnder(dir / "out");
  ASSERT_EQ(saved.size(), 2u);
  EXPECT_EQ(saved.at("Root/Music/song.mp3"), mk::generatedBytes(vol.find("Music/song.mp3")->dataSeed, 123457));
  EXPECT_EQ(saved.at("Root/Music/cover.jpg"), mk::generatedBytes(vol.find("Music/cover.jpg")->dataSeed, 4096));

  // The tree came from a file: going back and quitting ask nothing.
  app->treeBackToPartitionsClicked();
  EXPECT_EQ(ui.page, Page::PTList);
  EXPECT_EQ(ui.alertCount("Information"), 1);  // only the save's warning
  EXPECT_TRUE(app->terminateApplication());
}

TEST_F(Journey, AScanInfoFileWhoseDriveIsAbsentOpensButSavesAndPreviewsNothing) {
  buildGptDrive(dir / "drive.img", "Gone", entries());
  start(PlistArray{driveDictFor(dir / "drive.img")});
  scanFirstPartition();
  ui.savePanels.push_back((dir / "gone.asi").string());
  app->save();
  ASSERT_TRUE(runUntil([this] { return ui.alertCount("Scan Info Saved") == 1; }));
  // Saved: going back asks nothing now.
  app->treeBackToPartitionsClicked();
  EXPECT_EQ(ui.page, Page::PTList);
  EXPECT_EQ(ui.alertCount("Information"), 0);
  ASSERT_TRUE(settle());
  app.reset();

  // The same drive, changed: its first sectors differ.
  std::vector<uint8_t> sector(512, 0x5A);
  {
    FILE* f = std::fopen((dir / "drive.img").c_str(), "r+b");
    ASSERT_NE(f, nullptr);
    std::fseek(f, 3 * 512, SEEK_SET);
    std::fwrite(sector.data(), 1, sector.size(), f);
    std::fclose(f);
  }
  ui.reset();
  start(PlistArray{driveDictFor(dir / "drive.img")});
  app->openScanInfoFile((dir / "gone.asi").string());  // as the message server hands it over
  EXPECT_GE(ui.bringToFrontCalls, 1);
  ASSERT_TRUE(runUntil([this] { return ui.alertCount("Scan Info Opened") == 1; }));
  ASSERT_EQ(ui.alertCount("Drive Not Connected"), 1);
  const Alert* notConnected = nullptr;
  for (const auto& a : ui.alerts)
    if (a.title == "Drive Not Connected") notConnected = &a;
  EXPECT_EQ(notConnected->message, kDriveNotConnected);
  EXPECT_TRUE(app->driveNotConnected());
  EXPECT_EQ(app->selectedDrive(), nullptr);
  app->outlineViewSetObjectValue(app->outlineChild(nullptr, 0), true);
  ui.folderPanels.push_back((dir / "out").string());
  app->saveData();
  EXPECT_EQ(ui.lastAlert()->title, "Drive Not Connected");
  EXPECT_TRUE(ui.panelsShown.empty() || ui.panelsShown.back() != "folder");
  app->outlineViewSelectionDidChange(entry("letter.txt"));
  app->preview();
  EXPECT_EQ(ui.lastAlert()->title, "Drive Not Connected");
  EXPECT_FALSE(ui.previewVisible);
}

TEST_F(Journey, FilesThatCannotBeOpenedNowOrAtAll) {
  buildGptDrive(dir / "drive.img", "Files", entries());
  start(PlistArray{driveDictFor(dir / "drive.img")});
  // An interrupted file and a foreign one.
  ScanInfo info;
  info.volume.volumeScanType = 3;
  info.first5Sectors.assign(2560, 0);
  HDIR root;
  root.setFileName("Root");
  root.fileType = kHDIRFolder;
  ASSERT_FALSE(writeScanInfo((dir / "ok.asi").string(), info, root, nullptr).has_value());
  auto bytes = readFile(dir / "ok.asi");
  auto incomplete = bytes;
  const std::string complete = "Complete";
  auto at = std::search(incomplete.begin(), incomplete.end(), complete.begin(), complete.end());
  ASSERT_NE(at, incomplete.end());
  std::copy_n("UnComple", 8, at);
  writeFile(dir / "incomplete.asi", incomplete);
  ui.openPanels.push_back((dir / "incomplete.asi").string());
  app->open();
  EXPECT_EQ(ui.lastAlert()->title, "! Error");
  EXPECT_EQ(ui.lastAlert()->message, "This scan info file is incomplete.");
  EXPECT_EQ(ui.page, Page::FirstPage);

  // Handed over while a page other than the first is shown.
  app->driveTableSelectionDidChange(0);
  app->firstPageNextClicked();
  app->openScanInfoFile((dir / "ok.asi").string());
  EXPECT_EQ(ui.lastAlert()->title, "! Can not open file now");
  EXPECT_EQ(ui.lastAlert()->message,
            "Tarnwell Ambrel is at a stage where it can not open this scan info file. For opening this file either "
            "return to the main screen (where drives and volumes are listed) or quitTarnwell Ambrel and try opening the "
            "file again. This file can also be opened by returning to the main screen and pressing \"Open Scan Info\" "
            "button");
  EXPECT_EQ(ui.page, Page::PTMode);

  // The message server: the three messages, and a client list that loses the dead.
  MessageServer server(*app);
  server.addMessageClient({1, 10});
  server.addMessageClient({2, 20});
  server.addMessageClient({3, 30});
  server.connectionDidDie(20, [](const MessageClient& c) { return c.id != 3; });
  ASSERT_EQ(server.clients().size(), 1u);
  EXPECT_EQ(server.clients()[0].id, 1);
  ASSERT_TRUE(settle());
  const int fronts = ui.bringToFrontCalls;
  server.broadcastMessageString("BringFront");
  EXPECT_EQ(ui.bringToFrontCalls, fronts + 1);
  // And once more a moment later.
  ASSERT_TRUE(settle());
  EXPECT_EQ(ui.bringToFrontCalls, fronts + 2);
  server.broadcastMessageString("AlreadyRunning");
  EXPECT_EQ(ui.lastAlert()->title, "Cannot open this scan info file now");
  EXPECT_EQ(ui.lastAlert()->message,
            "The program is already running. For opening this scan info file either quit the program and then launch "
            "this file OR open this file from the already running program.");
  app->ptModeCancelClicked();
  ASSERT_EQ(ui.page, Page::FirstPage);
  server.broadcastMessageString((dir / "ok.asi").string());
  EXPECT_EQ(ui.page, Page::Tree);
  ASSERT_TRUE(runUntil([this] { return ui.alertCount("Scan Info Opened") == 1; }));
  // A whole-drive file whose drive is not listed.
  EXPECT_EQ(ui.alertCount("Drive Not Connected"), 1);
}

TEST(ScanInfoName, ProposedNameFollowsTheDatePattern) {
  std::tm tm{};
  tm.tm_year = 2026 - 1900;
  tm.tm_mon = 10;
  tm.tm_mday = 3;
  tm.tm_hour = 18;
  tm.tm_min = 5;
  tm.tm_sec = 9;
  tm.tm_isdst = -1;
  EXPECT_EQ(scanInfoProposedName(std::mktime(&tm)), "ambrel scan info November 03, 2026, 6_05_09 PM");
  tm.tm_hour = 0;
  EXPECT_EQ(scanInfoProposedName(std::mktime(&tm)), "ambrel scan info November 03, 2026, 12_05_09 AM");
}
