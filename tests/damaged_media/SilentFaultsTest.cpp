// Faults that used to pass in silence: a catalog node that cannot be read,
// and a drive that disappears while it is read. Both must be counted, told
// in the final message and in the command line's exit status.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "Damaged.h"

namespace ambrel::test {
namespace {

constexpr int kExitReadErrors = 3;
constexpr int kExitDriveGone = 4;

size_t rows(const std::string& tsv) { return static_cast<size_t>(std::count(tsv.begin(), tsv.end(), '\n')); }

struct WithLeaves {
  BuiltDrive drive{bareDrive(generatedVolume(120, 4))};
  const mk::NodeLayout& leaf(size_t i) const { return *leavesOf(drive.volume().catalog).at(i); }
};

TEST(UnreadableCatalogNode, IsCountedAndReported) {
  WithLeaves d;
  auto faults = std::make_shared<SectorFaults>();
  faults->add(SectorFaults::Kind::IOError, d.leaf(1).sector + 3);
  Scanned s(d.drive.path, 0, d.drive.sectors(), "Normal Scan", faults);
  EXPECT_EQ(s.volume->readErrors.nodes(), 1u);
  EXPECT_EQ(s.volume->readErrors.listed(), std::vector<uint64_t>{d.leaf(1).sector});
  // The final report carries the count, next to "Tree Complete".
  std::string told;
  for (const auto& r : s.controller.progressReports)
    if (r.contains(progress::kTreeComplete)) told = r.string(progress::kReadErrors);
  EXPECT_EQ(told, fmt::format("1 B-tree node could not be read (at sector {})", d.leaf(1).sector));
  EXPECT_TRUE(s.controller.alerts.empty());
}

TEST(UnreadableCatalogNode, TreeCommandSaysSoAndExitsWithItsOwnStatus) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  WithLeaves d;
  const CliRun whole = runCli("tree " + shellQuoted(d.drive.path));
  ASSERT_EQ(whole.status, 0) << whole.err;
  const CliRun r = runCli("tree " + shellQuoted(d.drive.path), "eio:" + std::to_string(d.leaf(1).sector + 3));
  EXPECT_LT(rows(r.out), rows(whole.out));
  EXPECT_NE(r.err.find("1 B-tree node could not be read"), std::string::npos) << r.err;
  EXPECT_EQ(r.status, kExitReadErrors) << r.err;
}

TEST(BadSectorInTheSearch, FindVolumesSaysSoAndExitsWithItsOwnStatus) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  WithLeaves d;
  const CliRun r = runCli("find-volumes " + shellQuoted(d.drive.path), "eio:100");
  EXPECT_NE(r.out.find("Valid"), std::string::npos) << r.out;
  EXPECT_NE(r.err.find("1 sector could not be read (at sector 100)"), std::string::npos) << r.err;
  EXPECT_EQ(r.status, kExitReadErrors);
}

// A drive whose reads fail with EIO is still there while its device node is;
// once the node is gone too, it has disappeared, whatever lists still say.
TEST(DriveGone, ToldByTheDeviceNodeWhenReadsFailWithEio) {
  WithLeaves d;
  RecordingController controller;
  controller.drives.push_back(driveDictFor(d.drive.path));
  DMedia media(*controller.drives[0].dict(), &controller);
  auto faults = std::make_shared<SectorFaults>();
  faults->vanishAfterReads(0);
  faults->setVanishError(EIO);
  media.setSectorFaults(faults);
  std::vector<uint8_t> buf(512);
  EXPECT_FALSE(media.readSector(10, 1, buf.data()));
  EXPECT_TRUE(controller.alerts.empty());  // a bad sector, as far as anyone can tell
  EXPECT_FALSE(media.isGone());

  std::filesystem::remove(d.drive.path);
  EXPECT_FALSE(media.readSector(10, 1, buf.data()));
  EXPECT_TRUE(media.isGone());
  ASSERT_EQ(controller.alerts.size(), 1u);
  EXPECT_EQ(controller.alerts[0].message,
            "The Drive or Volume being read is no longer available. The Program will quit now.");
  EXPECT_EQ(controller.terminateCalls, 1);
  // Once gone, nothing more is tried and nothing more is said.
  const uint64_t reads = faults->reads();
  EXPECT_FALSE(media.readSector(11, 1, buf.data()));
  EXPECT_EQ(faults->reads(), reads);
  EXPECT_EQ(controller.alerts.size(), 1u);
}

TEST(DriveGone, StopsATreeScanAtOnce) {
  WithLeaves d;
  auto faults = std::make_shared<SectorFaults>();
  faults->add(SectorFaults::Kind::Vanish, d.leaf(2).sector);
  Scanned s(d.drive.path, 0, d.drive.sectors(), "Advanced Scan", faults);
  EXPECT_TRUE(s.volume->isGone());
  EXPECT_TRUE(s.volume->stopTreeThread.load());
  EXPECT_EQ(s.controller.terminateCalls, 1);
  EXPECT_LT(faults->reads(), 20u) << "reads went on after the drive was gone";
}

}  // namespace
}  // namespace ambrel::test
