// Sizes and counts read from disk that reach far past the drive: volumes are
// cut to the drive (and the listing says so), B-tree files to their volume,
// so that no walk runs over sectors that do not exist.
#include <fmt/format.h>

#include "Damaged.h"

namespace ambrel::test {
namespace {

// Byte offsets in the volume header.
constexpr uint64_t kCatalogTotalBlocks = 1024 + 272 + 12;
constexpr uint64_t kCatalogFirstExtentCount = 1024 + 272 + 16 + 4;

TEST(HugeCatalogExtent, IsCutToTheVolumeAndTheScansEnd) {
  mk::VolumeSpec v = generatedVolume(400, 4);
  v.damage.overwriteNodes = 3;  // the index is damaged: the catalog file is searched node by node
  v.damage.overwriteSeed = 2;
  BuiltDrive d(bareDrive(v));
  d.patch(kCatalogTotalBlocks, be32(0x7FFFFFF0));
  d.patch(kCatalogFirstExtentCount, be32(0x7FFFFFF0));
  for (const char* mode : {"Normal Scan", "Advanced Scan"}) {
    SCOPED_TRACE(mode);
    Scanned s(d.path, 0, d.sectors(), mode);
    EXPECT_FALSE(s.controller.guardStopped) << "the scan did not end by itself";
    ASSERT_FALSE(s.volume->catalogExt.empty());
    uint64_t blocks = 0;
    for (const Extent& e : s.volume->catalogExt) blocks += e.blockCount;
    EXPECT_LE(blocks, d.volume().totalBlocks);
    ASSERT_TRUE(s.volume->dirRoot);
    const auto counts = idCounts(*s.volume->dirRoot);
    EXPECT_GT(counts.size(), 300u);
    // (The advanced scan lists live entries found by the node search a
    // second time, damaged or not; that is another matter.)
    if (std::string(mode) == "Normal Scan") {
      for (const auto& [id, n] : counts) EXPECT_EQ(n, 1) << "catalog node ID " << id;
    }
  }
}

TEST(HugeVolumeSize, ScanCoversOnlyTheDrive) {
  BuiltDrive d(bareDrive(generatedVolume(20, 2)));
  Scanned s(d.path, 0, uint64_t{1} << 56, "Advanced Scan");
  EXPECT_FALSE(s.controller.guardStopped) << "the scan did not end by itself";
  EXPECT_EQ(s.volume->sizeInSect, d.sectors());
  ASSERT_TRUE(s.volume->dirRoot);
  size_t live = 0;
  for (const auto& e : d.volume().entries) live += !e.deleted;
  EXPECT_EQ(idCounts(*s.volume->dirRoot).size(), live);
}

// A catalog header whose node size is 0, not a power of two or past the
// largest node: the size is taken from the leaves, and the standard scan
// still lists every live entry once.
TEST(CatalogNodeSize, ZeroOrImpossibleIsTakenFromTheLeaves) {
  for (const uint16_t bad : {uint16_t{0}, uint16_t{1000}, uint16_t{65535}}) {
    SCOPED_TRACE(bad);
    BuiltDrive d(bareDrive(generatedVolume(60, 3)));
    const auto& header = d.volume().catalog.nodes.at(0);
    ASSERT_EQ(header.kind, 1);
    d.patch(header.sector * 512 + 14 + 18, {uint8_t(bad >> 8), uint8_t(bad)});
    Scanned s(d.path, 0, d.sectors(), "Normal Scan");
    EXPECT_FALSE(s.controller.guardStopped) << "the scan did not end by itself";
    EXPECT_EQ(s.volume->catNodeSize, static_cast<int32_t>(d.volume().catalog.nodeSize / 512));
    ASSERT_TRUE(s.volume->dirRoot);
    size_t live = 0;
    for (const auto& e : d.volume().entries) live += !e.deleted;
    const auto counts = idCounts(*s.volume->dirRoot);
    EXPECT_EQ(counts.size(), live);
    for (const auto& [id, n] : counts) EXPECT_EQ(n, 1) << "catalog node ID " << id;
  }
}

mk::DriveSpec gpt() {
  mk::DriveSpec d;
  d.table = mk::TableKind::GPT;
  mk::PartitionSpec p;
  p.volume = generatedVolume(5, 1);
  d.partitions.push_back(p);
  return d;
}

TEST(HugePartitionSize, IsCutToTheDriveAndTheListingSaysSo) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  BuiltDrive d(gpt());
  const uint64_t start = d.layout.partitions[0].startSector;
  // The first entry's last LBA, as a damaged table might hold it.
  d.patch(1024 + 40, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00});
  const uint64_t tableSize = 0x00FFFFFFFFFFFFFFull - start + 1;
  const uint64_t cut = d.sectors() - start;

  const CliRun text = runCli("partitions " + shellQuoted(d.path));
  EXPECT_EQ(text.status, 0) << text.err;
  EXPECT_NE(text.out.find(fmt::format("{:>14}  {:>14}  Damaged", start, cut)), std::string::npos) << text.out;
  EXPECT_NE(text.out.find(fmt::format("the table says {} sectors; cut to the drive's end", tableSize)),
            std::string::npos)
      << text.out;
  EXPECT_EQ(text.out.find(std::to_string(tableSize) + "  "), std::string::npos) << text.out;

  const CliRun json = runCli("partitions --json " + shellQuoted(d.path));
  EXPECT_NE(json.out.find(fmt::format("\"Volume Size In Sectors\":{},", cut)), std::string::npos) << json.out;
  EXPECT_NE(json.out.find(fmt::format("\"Size In Table\":{}", tableSize)), std::string::npos) << json.out;
}

TEST(HugePartitionSize, ApplePartitionMapAndMbrSizesAreCutToo) {
  for (auto table : {mk::TableKind::APM, mk::TableKind::MBR}) {
    mk::DriveSpec spec = gpt();
    spec.table = table;
    BuiltDrive d(spec);
    const auto& p = d.layout.partitions[0];
    if (table == mk::TableKind::APM) {
      const std::vector<uint8_t> image = readFile(d.path);
      uint64_t entry = 1;
      while (entry < 64 && std::string(reinterpret_cast<const char*>(&image[entry * 512 + 48])) != "Apple_HFS") ++entry;
      ASSERT_LT(entry, 64u);
      d.patch(entry * 512 + 12, be32(0xFFFFFF00u));  // pmPartBlkCnt
    } else {
      d.patch(p.tableSector * 512 + 446 + 12, {0x00, 0xFF, 0xFF, 0xFF});  // the entry's sector count
    }
    RecordingController controller;
    controller.drives.push_back(driveDictFor(d.path));
    DMedia media(*controller.drives[0].dict(), &controller);
    PlistArray list;
    media.initialize(list);
    ASSERT_EQ(list.size(), 1u) << static_cast<int>(table);
    EXPECT_EQ(list[0].dict()->u64("Volume Size In Sectors"), d.sectors() - p.startSector) << static_cast<int>(table);
    EXPECT_EQ(media.sizesCutToDrive.count(p.startSector), 1u) << static_cast<int>(table);
  }
}

}  // namespace
}  // namespace ambrel::test
