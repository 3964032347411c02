// One bad sector may cost only itself: not the volume next to it, not the
// catalog node beside it.
#include "Damaged.h"

namespace ambrel::test {
namespace {

TEST(BadSectorInABatch, CostsOnlyItselfAndIsNoted) {
  TempDir dir;
  const std::string image = (dir / "d.img").string();
  std::vector<uint8_t> bytes(200 * 512);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i / 512 % 250 + 1);
  writeFile(image, bytes);
  RecordingController controller;
  controller.drives.push_back(driveDictFor(image));
  DMedia media(*controller.drives[0].dict(), &controller);
  for (bool whole : {false, true}) {
    SCOPED_TRACE(whole ? "the whole read fails" : "a short count before the bad sector");
    auto faults = std::make_shared<SectorFaults>();
    faults->setWholeReadFails(whole);
    faults->add(SectorFaults::Kind::IOError, 70);
    faults->add(SectorFaults::Kind::IOError, 150, 2);
    media.setSectorFaults(faults);
    media.readErrors.clear();
    std::vector<uint8_t> buf(200 * 512, 0xEE);
    EXPECT_EQ(media.readSectorsSalvaging(0, 200, buf.data()), 3u);
    for (uint64_t s = 0; s < 200; ++s) {
      const bool bad = s == 70 || s == 150 || s == 151;
      EXPECT_EQ(buf[s * 512], bad ? 0 : bytes[s * 512]) << "sector " << s;
    }
    EXPECT_EQ(media.readErrors.sectors(), 3u);
    EXPECT_EQ(media.readErrors.listed(), (std::vector<uint64_t>{70, 150, 151}));
    EXPECT_EQ(media.readErrors.summary(), "3 sectors could not be read (at sectors 70, 150, 151)");
  }
  EXPECT_TRUE(controller.alerts.empty());
}

// The summary names each place once: a node and its own first sector failing
// both are one place, and what is past the list is marked as such.
TEST(ReadErrorsSummary, NamesEachPlaceOnce) {
  ReadErrors e;
  e.noteNode(100);
  e.noteSector(100);
  e.noteSector(100);
  EXPECT_EQ(e.summary(), "1 sector and 1 B-tree node could not be read (at sector 100)");
  for (uint64_t s = 1; s <= ReadErrors::kListed; ++s) e.noteSector(1000 + s);
  EXPECT_EQ(e.sectors(), 1 + ReadErrors::kListed);
  EXPECT_EQ(e.listed().size(), ReadErrors::kListed);
  EXPECT_TRUE(e.summary().ends_with(", 1009, ...)")) << e.summary();
}

// A GPT drive whose table is gone: the volume must be found by searching.
struct Wiped {
  BuiltDrive drive;
  uint64_t start;
  Wiped() : drive([] {
      mk::DriveSpec d;
      d.table = mk::TableKind::GPT;
      mk::PartitionSpec p;
      p.volume = generatedVolume(40, 4);
      d.partitions.push_back(p);
      d.wipePartitionTable = true;
      return d;
    }()), start(drive.layout.partitions[0].startSector) {}
};

TEST(BadSectorNearAVolume, QuickAndThoroughSearchesStillFindIt) {
  Wiped w;
  // In the same 63-sector chunk as the volume header, before the volume.
  const uint64_t header = w.start + 2;
  const uint64_t bad = header / 63 * 63 + 1;
  ASSERT_LT(bad, w.start);
  for (bool quick : {true, false}) {
    SCOPED_TRACE(quick ? "quick" : "thorough");
    RecordingController controller;
    controller.drives.push_back(driveDictFor(w.drive.path));
    DMedia media(controller.drives[0].dict() ? *controller.drives[0].dict() : PlistDict{}, &controller);
    auto faults = std::make_shared<SectorFaults>();
    faults->add(SectorFaults::Kind::IOError, bad);
    media.setSectorFaults(faults);
    PlistArray volumes, rows;
    DMedia::VolumeScanRequest request{&controller, &volumes, &rows};
    if (quick) media.initializeForVolumeQuickScan(request);
    else media.initializeForVolumeThoroughScan(request);
    ASSERT_EQ(volumes.size(), 1u);
    EXPECT_EQ(volumes[0].dict()->u64("Volume Start"), w.start);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].dict()->string("Validity Column"), "Valid");
    EXPECT_GT(faults->faultsMet(), 0u);
  }
}

TEST(BadSectorNearAVolume, FindVolumesListsIt) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  Wiped w;
  const std::string bad = "eio:" + std::to_string(w.start - 20);
  for (const char* mode : {"--quick ", ""}) {
    const CliRun r = runCli(std::string("find-volumes ") + mode + shellQuoted(w.drive.path), bad);
    EXPECT_EQ(r.out.find("No volumes found."), std::string::npos) << mode << r.out;
    EXPECT_NE(r.out.find(" " + std::to_string(w.start) + " "), std::string::npos) << mode << r.out;
  }
}

TEST(BadSectorNearACatalogNode, AdvancedScanStillReadsTheNode) {
  mk::VolumeSpec v = generatedVolume(200, 6);
  v.damage.catalogHeaderCorrupted = true;  // only the node search can find the leaves
  BuiltDrive d(bareDrive(v));
  const auto leaves = leavesOf(d.volume().catalog);
  ASSERT_GE(leaves.size(), 3u);
  // The last sector of a leaf, and a sector of its 63-sector search chunk
  // outside the node.
  const mk::NodeLayout& leaf = *leaves[1];
  const uint64_t nodeSectors = d.volume().catalog.nodeSize / 512;
  const uint64_t last = leaf.sector + nodeSectors - 1;
  const uint64_t chunk = last / 63 * 63;
  const uint64_t bad = chunk >= leaf.sector ? chunk + 62 : chunk;
  ASSERT_TRUE(bad < leaf.sector || bad > last);
  ASSERT_EQ(bad / 63, last / 63);

  auto faults = std::make_shared<SectorFaults>();
  faults->add(SectorFaults::Kind::IOError, bad);
  Scanned s(d.path, 0, d.sectors(), "Advanced Scan", faults);
  ASSERT_TRUE(s.volume->dirRoot);
  const auto counts = idCounts(*s.volume->dirRoot);
  std::vector<uint32_t> missing;
  for (uint32_t id : liveFileIDs(d.volume()))
    if (!counts.count(id)) missing.push_back(id);
  EXPECT_TRUE(missing.empty()) << missing.size() << " files missing, the first " << missing.front();
}

}  // namespace
}  // namespace ambrel::test
