// The three table readers and the two naming passes, on hand-built drives.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "DriveFile.h"

namespace ambrel::test {
namespace {

struct Listed {
  uint64_t start, size;
  std::string name;
};

std::vector<Listed> listed(const PlistArray& volumes) {
  std::vector<Listed> out;
  for (const auto& v : volumes) {
    const PlistDict& d = *v.dict();
    out.push_back({d.u64("Volume Start"), d.u64("Volume Size In Sectors"), d.string("Volume Name")});
  }
  return out;
}

void expectVolumes(const PlistArray& volumes, const std::vector<Listed>& want) {
  auto got = listed(volumes);
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) {
    EXPECT_EQ(got[i].start, want[i].start) << "volume " << i;
    EXPECT_EQ(got[i].size, want[i].size) << "volume " << i;
    EXPECT_EQ(got[i].name, want[i].name) << "volume " << i;
  }
}

TinyVolumeLayout named(const std::string& name, uint32_t blocks = 64) {
  TinyVolumeLayout s;
  s.name = name;
  s.totalBlocks = blocks;
  return s;
}

TEST(MBR, PrimariesThenLogicalsInChainOrderNamedFromCatalogs) {
  Drive d(4096);
  const auto alpha = named("Alpha");
  const uint64_t n = tinyVolumeSectors(alpha);  // 512 sectors
  // Primary: HFS with a volume, Linux, HFS without a volume, extended at 2048.
  setMbrEntry(d, 0, 0, 0xAF, 64, static_cast<uint32_t>(n));
  d.place(64, buildTinyVolume(alpha));
  setMbrEntry(d, 0, 1, 0x83, 600, 100);
  setMbrEntry(d, 0, 2, 0xAF, 800, 200);
  setMbrEntry(d, 0, 3, 0x05, 2048, 2048);
  // EBR 1 at 2048: a logical HFS volume at 2048+16, link to EBR 2 at extended offset + 1024.
  setMbrEntry(d, 2048, 0, 0xAF, 16, static_cast<uint32_t>(n));
  d.place(2048 + 16, buildTinyVolume(named("Gamma")));
  setMbrEntry(d, 2048, 1, 0x05, 1024, 1024);
  // EBR 2 at 3072: logical relative to its own EBR.
  setMbrEntry(d, 3072, 0, 0xAF, 16, static_cast<uint32_t>(n));
  d.place(3072 + 16, buildTinyVolume(named("Delta")));

  OpenedDrive drive(d);
  auto volumes = drive.partitions();
  expectVolumes(volumes, {{64, n, "Alpha"}, {800, 200, "Untitled 2"}, {2064, n, "Gamma"}, {3088, n, "Delta"}});
  const PlistDict& first = *volumes[0].dict();
  EXPECT_EQ(first.i64("Volume Scan Type", -1), 0);
  EXPECT_EQ(first.string("Path"), drive.path);
  EXPECT_EQ(first.string("Model"), "Disk Image");
  EXPECT_TRUE(first.contains("Serial") && first.contains("Revision"));
  EXPECT_EQ(drive.media->volumePMArray.size(), 4u);
}

TEST(MBR, UntitledNumbersCountHfsEntriesOnly) {
  Drive d(4096);
  setMbrEntry(d, 0, 0, 0x0B, 63, 100);
  setMbrEntry(d, 0, 1, 0xAF, 200, 100);
  setMbrEntry(d, 0, 2, 0xAF, 400, 100);
  setMbrEntry(d, 0, 3, 0x0F, 1000, 3000);
  setMbrEntry(d, 1000, 0, 0xAF, 63, 100);
  OpenedDrive drive(d);
  expectVolumes(drive.partitions(), {{200, 100, "Untitled 1"}, {400, 100, "Untitled 2"}, {1063, 100, "Untitled 3"}});
}

TEST(MBR, ChainsThatPointBackEnd) {
  // An EBR whose link names itself, and a two-EBR cycle: each table is read once.
  for (uint32_t backTo : {0u, 1u}) {
    Drive d(2048);
    setMbrEntry(d, 0, 0, 0x05, 1000, 1000);
    setMbrEntry(d, 1000, 0, 0xAF, 10, 50);
    if (backTo == 0) {
      setMbrEntry(d, 1000, 1, 0x05, 0, 1000);  // extended offset + 0: itself
    } else {
      setMbrEntry(d, 1000, 1, 0x85, 500, 100);  // to 1500 ...
      setMbrEntry(d, 1500, 0, 0xAF, 10, 50);
      setMbrEntry(d, 1500, 1, 0x05, 0, 100);  // ... and back to 1000
    }
    OpenedDrive drive(d);
    if (backTo == 0) expectVolumes(drive.partitions(), {{1010, 50, "Untitled 1"}});
    else expectVolumes(drive.partitions(), {{1010, 50, "Untitled 1"}, {1510, 50, "Untitled 2"}});
  }
}

TEST(MBR, LinksPastTheDriveAndEmptySlotsAddNothing) {
  Drive d(256);
  setMbrEntry(d, 0, 1, 0xAF, 100, 50);
  setMbrEntry(d, 0, 2, 0x05, 0xFFFFFF00u, 10);  // extended partition beyond the end
  OpenedDrive drive(d);
  expectVolumes(drive.partitions(), {{100, 50, "Untitled 1"}});
}

TEST(InitializeChoice, BootSignatureWithoutProtectiveEntryIsMbrEvenWithPartitionMap) {
  Drive d(512);
  writeApm(d, {{"Vol", "Apple_HFS", 100, 50}});
  setMbrEntry(d, 0, 0, 0xAF, 300, 20);
  OpenedDrive drive(d);
  EXPECT_EQ(drive.media->partitionTableKind(), PartitionTableKind::MBR);
  expectVolumes(drive.partitions(), {{300, 20, "Untitled 1"}});
}

TEST(InitializeChoice, NoTableYieldsNothingAndAppendsToTheGivenList) {
  Drive d(256);
  OpenedDrive drive(d);
  PlistArray list{PlistValue("kept")};
  drive.media->initialize(list);
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(*list[0].string(), "kept");
  EXPECT_TRUE(drive.controller.alerts.empty());
}

std::string gptName(const std::string& ascii) {
  std::string s = ascii;
  s.resize(36, '\0');
  return s;
}

TEST(GPT, ListsHfsEntriesUntilTheFirstEmptyOneAndNamesFromCatalogs) {
  Drive d(4096);
  const auto vol = named("Macintosh HD");
  const uint64_t n = tinyVolumeSectors(vol);
  writeGpt(d, {{true, 40, 40 + n - 1, "disk image"},
               {false, 600, 699, "Linux data"},
               {true, 1000, 1199, "No Catalog"},
               {true, 1200, 1299, "Fourth"},
               {true, 1300, 1399, "Fifth, from the next entry sector"}});
  d.place(40, buildTinyVolume(vol));
  OpenedDrive drive(d);
  expectVolumes(drive.partitions(), {{40, n, "Macintosh HD"},
                                     {1000, 200, gptName("No Catalog")},
                                     {1200, 100, gptName("Fourth")},
                                     {1300, 100, gptName("Fifth, from the next entry sector")}});
}

TEST(GPT, AnEmptyThirdEntryEndsTheTable) {
  Drive d(4096);
  writeGpt(d, {{true, 100, 199, "one"}, {true, 200, 299, "two"}, {true, 300, 399, "three"}, {true, 400, 499, "four"}});
  std::memset(d.sector(2) + 2 * 128, 0, 16);  // clear the third entry's type
  OpenedDrive drive(d);
  expectVolumes(drive.partitions(), {{100, 100, gptName("one")}, {200, 100, gptName("two")}});
}

TEST(GPT, LargerEntriesAreSteppedBySize) {
  Drive d(4096);
  writeGpt(d, {{true, 100, 199, "a"}, {true, 200, 299, "b"}, {true, 300, 399, "c"}}, 128, 256);
  OpenedDrive drive(d);
  expectVolumes(drive.partitions(), {{100, 100, gptName("a")}, {200, 100, gptName("b")}, {300, 100, gptName("c")}});
}

TEST(GPT, ImplausibleEntrySizesAndArraysPastTheDriveListNothing) {
  struct Case {
    uint32_t count, size;
    uint64_t lba;
  };
  // Zero or too small a size (would divide by zero or read past the sector),
  // more than a sector, an array of empty entries at the drive's end, an
  // array wholly past it, no entries. (A huge count reads the entries there
  // are: see the damaged-media suite.)
  for (const Case& c : {Case{128, 0, 2}, Case{128, 64, 2}, Case{128, 1024, 2}, Case{128, 128, 4000},
                        Case{128, 128, 5000}, Case{0, 128, 2}}) {
    Drive d(4096);
    writeGpt(d, {{true, 100, 199, "x"}});
    uint8_t* h = d.sector(1);
    h[80] = c.count & 0xFF, h[81] = (c.count >> 8) & 0xFF, h[82] = (c.count >> 16) & 0xFF, h[83] = c.count >> 24;
    h[84] = c.size & 0xFF, h[85] = (c.size >> 8) & 0xFF, h[86] = 0, h[87] = 0;
    for (int i = 0; i < 8; ++i) h[72 + i] = static_cast<uint8_t>(c.lba >> (8 * i));
    OpenedDrive drive(d);
    EXPECT_TRUE(drive.partitions().empty()) << "count " << c.count << " size " << c.size << " lba " << c.lba;
  }
}

TEST(GPT, BadSignatureYieldsNothing) {
  Drive d(1024);
  writeGpt(d, {{true, 100, 199, "x"}});
  d.sector(1)[0] = 'X';
  OpenedDrive drive(d);
  EXPECT_TRUE(drive.partitions().empty());
}

TEST(ApplePartitionMap, TypeComparisonIncludesTheTerminatingNul) {
  Drive d(4096);
  const auto vol = named("Inside");
  const uint64_t n = tinyVolumeSectors(vol);
  writeApm(d, {{"Apple_Driver43", "Apple_Driver43", 64, 32},
               {"MacOS", "Apple_HFS", 100, static_cast<uint32_t>(n)},
               {"Extra", "Apple_HFS_Extra", 700, 100},
               {"Case Sensitive", "Apple_HFSX", 800, 100},
               {"Free", "Apple_Free", 900, 100},
               {"Short", "Apple_HF", 1000, 100}});
  d.place(100, buildTinyVolume(vol));
  OpenedDrive drive(d);
  expectVolumes(drive.partitions(), {{100, n, "Inside"}, {800, 100, "Case Sensitive"}});
}

TEST(ApplePartitionMap, WrapperNamesFromTheEmbeddedCatalogOrKeepsItsOwn) {
  Drive d(4096);
  const auto inner = named("Embedded Name");
  // Wrapper at 100: allocation blocks of 2048 bytes start at sector 100+8; the
  // embedded volume begins at block 6, i.e. sector 100 + 8 + 4*6 = 132.
  writeApm(d, {{"Wrapped", "Apple_HFS", 100, 1200}, {"Wrong Embed", "Apple_HFS", 1400, 1000},
               {"Plain", "Apple_HFS", 2500, 1000}});
  writeWrapperMdb(d, 100, "Wrapper Name", 0x482B, 8, 2048, 6, 300);
  d.place(132, buildTinyVolume(inner));
  writeWrapperMdb(d, 1400, "Kept Wrapper", 0x0000, 8, 2048, 6, 300);
  d.place(1432, buildTinyVolume(named("Not Reached")));
  d.place(2500, buildTinyVolume(named("Unwrapped")));
  OpenedDrive drive(d);
  expectVolumes(drive.partitions(), {{100, 1200, "Embedded Name"}, {1400, 1000, "Kept Wrapper"},
                                     {2500, 1000, "Unwrapped"}});
  EXPECT_EQ(drive.media->HPlusVolStart, 2500u);
}

TEST(ApplePartitionMap, EntryCountsPastTheDriveStopAtItsEnd) {
  Drive d(64);
  writeApm(d, {{"MacOS", "Apple_HFS", 10, 20}});
  d.sector(1)[4] = 0x7F;  // 2^31 - ish entries claimed
  OpenedDrive drive(d);
  expectVolumes(drive.partitions(), {{10, 20, "MacOS"}});
}

TEST(Naming, CatalogWhoseSecondExtentIsInTheOverflowFile) {
  Drive d(2048);
  auto vol = named("Overflowed");
  vol.catalogInOverflow = true;
  vol.leafNodes = 2;
  const uint64_t n = tinyVolumeSectors(vol);
  writeGpt(d, {{true, 64, 64 + n - 1, "gpt name"}});
  d.place(64, buildTinyVolume(vol));
  OpenedDrive drive(d);
  expectVolumes(drive.partitions(), {{64, n, "Overflowed"}});
  ASSERT_EQ(drive.media->catalogExt.size(), 2u);
  EXPECT_EQ(drive.media->catalogExt[0], (Extent{3, 1}));
  EXPECT_EQ(drive.media->catalogExt[1], (Extent{7, 2}));
  EXPECT_EQ(drive.media->extentsExt, (std::vector<Extent>{{1, 2}}));
  EXPECT_EQ(drive.media->catNodeSize, 8);
  EXPECT_EQ(drive.media->extNodeSize, 8);
  EXPECT_EQ(drive.media->blockSize, 8);
}

TEST(Naming, BrokenCatalogHeaderOrHfsxKeepOrTakeNames) {
  Drive d(4096);
  auto broken = named("Never Seen");
  broken.catalogHeaderBroken = true;
  auto hfsx = named("Case Sensitive");
  hfsx.hfsx = true;
  const uint64_t n = tinyVolumeSectors(broken);
  writeGpt(d, {{true, 100, 100 + n - 1, "Provisional"}, {true, 1000, 1000 + n - 1, "X"}});
  d.place(100, buildTinyVolume(broken));
  d.place(1000, buildTinyVolume(hfsx));
  OpenedDrive drive(d);
  expectVolumes(drive.partitions(), {{100, n, gptName("Provisional")}, {1000, n, "Case Sensitive"}});
}

}  // namespace
}  // namespace ambrel::test
