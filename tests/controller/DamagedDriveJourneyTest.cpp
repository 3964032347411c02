// Journeys over drives that fail under the controller: what could not be
// read is said in the alert the user reads anyway, and a drive that goes
// away ends what read it.
#include <fmt/format.h>

#include "controller/Journey.h"
#include "media/SectorFaults.h"

using namespace ambrel;
using namespace ambrel::test;
namespace fs = std::filesystem;

namespace {

// Every drive opened while it lives reads through `faults`.
struct ProcessFaults {
  explicit ProcessFaults(const std::string& text) {
    std::string error;
    auto faults = SectorFaults::fromText(text, error);
    EXPECT_TRUE(faults) << error;
    SectorFaults::setProcessDefault(faults);
  }
  ~ProcessFaults() { SectorFaults::setProcessDefault(nullptr); }
};

std::vector<mk::EntrySpec> manyFiles() {
  std::vector<mk::EntrySpec> files;
  for (int i = 0; i < 300; ++i) files.push_back(sizedFile(fmt::format("file{:03}.txt", i), 700 + i));
  return {folderOf("Docs", std::move(files)), sizedFile("top.bin", 50000)};
}

// A catalog leaf node's first sector, not the first leaf: the scan reaches it
// after the tree has started.
uint64_t laterLeafSector(const mk::DriveLayout& layout) {
  const auto& catalog = layout.partitions.at(0).volume->catalog;
  std::vector<uint64_t> leaves;
  for (const auto& n : catalog.nodes)
    if (n.kind == -1) leaves.push_back(n.sector);
  EXPECT_GE(leaves.size(), 3u) << "the catalog needs several leaves";
  return leaves.empty() ? 0 : leaves[leaves.size() / 2];
}

const Alert* lastAlertTitled(const ScriptedUi& ui, const std::string& title) {
  for (auto it = ui.alerts.rbegin(); it != ui.alerts.rend(); ++it)
    if (it->title == title) return &*it;
  return nullptr;
}

}  // namespace

TEST_F(Journey, UnreadableSectorsAreNamedInTheAlertsOfTheListAndTheScan) {
  const auto layout = buildGptDrive(dir / "drive.img", "Worn", manyFiles());
  const uint64_t leaf = laterLeafSector(layout);
  // Sector 2 holds the first GPT entries: the backup table at the end of the
  // drive still lists the partition.
  ProcessFaults faults(fmt::format("eio:2,eio:{}", leaf));
  start(PlistArray{driveDictFor(dir / "drive.img")});
  app->driveTableSelectionDidChange(0);
  app->firstPageNextClicked();
  app->ptModePTListClicked();
  ASSERT_EQ(page(), Page::PTList);
  const Alert* listed = lastAlertTitled(ui, "Information");
  ASSERT_NE(listed, nullptr);
  EXPECT_NE(listed->message.find("Volumes listed there may be missing."), std::string::npos) << listed->message;
  EXPECT_EQ(app->tableRowCount(Table::Partitions), 1);

  app->partitionTableSelectionDidChange(0);
  app->ptListNextClicked(false);
  app->treeScanModeStandardScanClicked();
  ASSERT_TRUE(runUntil([this] { return page() == Page::Tree; }));
  const Alert* done = lastAlertTitled(ui, "Standard Scan Completed");
  ASSERT_NE(done, nullptr);
  EXPECT_NE(done->message.find("; entries there may be missing."), std::string::npos) << done->message;
  // What the other leaves hold is listed all the same.
  EXPECT_NE(entry("top.bin"), nullptr);
  ASSERT_NE(entry("Docs"), nullptr);
  EXPECT_GT(app->outlineChildCount(entry("Docs")), 0);
  EXPECT_FALSE(ui.terminated.load());
}

TEST_F(Journey, AnUnreadableSectorInTheVolumeSearchIsSaidWhenTheListIsShown) {
  buildGptDrive(dir / "drive.img", "Worn", manyFiles(), true);
  ProcessFaults faults("eio:2000+8");
  start(PlistArray{driveDictFor(dir / "drive.img")});
  app->driveTableSelectionDidChange(0);
  app->firstPageNextClicked();
  app->ptModeScanForPTClicked();
  ASSERT_TRUE(runUntil([this] { return page() == Page::PTScanList; }));
  const Alert* info = lastAlertTitled(ui, "Information");
  ASSERT_NE(info, nullptr);
  EXPECT_NE(info->message.find("Volumes in those sectors may be missing from the list."), std::string::npos)
      << info->message;
  EXPECT_EQ(app->tableRowCount(Table::PartitionScanList), 1);
}

TEST_F(Journey, ADriveThatVanishesDuringTheScanQuitsTheProgram) {
  const auto layout = buildGptDrive(dir / "drive.img", "Gone", manyFiles());
  ProcessFaults faults(fmt::format("vanish:{}", laterLeafSector(layout)));
  start(PlistArray{driveDictFor(dir / "drive.img")});
  app->driveTableSelectionDidChange(0);
  app->firstPageNextClicked();
  app->ptModePTListClicked();
  app->partitionTableSelectionDidChange(0);
  app->ptListNextClicked(false);
  app->treeScanModeStandardScanClicked();
  ASSERT_TRUE(runUntil([this] { return ui.terminated.load(); }));
  const Alert* gone = lastAlertTitled(ui, "! Error");
  ASSERT_NE(gone, nullptr);
  EXPECT_EQ(gone->message, "The Drive or Volume being read is no longer available. The Program will quit now.");
  EXPECT_EQ(gone->buttons, std::vector<std::string>{"Quit"});
  EXPECT_TRUE(app->terminated());
  ASSERT_TRUE(settle());
  EXPECT_EQ(ui.callsAfterTerminate, 0);
}

TEST_F(Journey, ADriveThatVanishesDuringTheSaveEndsTheSaveNotTheProgram) {
  const auto layout = buildGptDrive(dir / "drive.img", "Gone", manyFiles());
  const auto& volume = *layout.partitions.at(0).volume;
  // The drive answers the scan, then goes at the first read of a file's data.
  uint64_t firstData = UINT64_MAX;
  for (const auto& f : volume.entries)
    if (!f.dataExtents.empty()) firstData = std::min(firstData, volume.blockToSector(f.dataExtents[0].startBlock));
  ASSERT_NE(firstData, UINT64_MAX);
  ProcessFaults faults(fmt::format("vanish:{}", firstData));
  start(PlistArray{driveDictFor(dir / "drive.img")});
  scanFirstPartition();
  app->outlineViewSetObjectValue(app->outlineChild(nullptr, 0), true);
  saveTo(dir / "out");
  const Alert* gone = lastAlertTitled(ui, "! Can not save files");
  ASSERT_NE(gone, nullptr);
  EXPECT_EQ(gone->message, "The Drive or Volume being read is no longer available.");
  ASSERT_TRUE(app->lastSave().has_value());
  // Nothing read after the loss is kept as if whole.
  const SaveResult& r = *app->lastSave();
  EXPECT_LT(r.filesWritten, 301u);
  EXPECT_FALSE(ui.terminated.load());
  EXPECT_EQ(page(), Page::Tree);
}
