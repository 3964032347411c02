// Built images read back by The Sleuth Kit and sgdisk: the output is a real
// drive, not just one the builder agrees with.
#include <set>

#include "Oracle.h"
#include "base/Endian.h"

namespace ambrel::mkimage::test {
namespace {

using ambrel::test::TempDir;

EntrySpec sizedFile(const std::string& name, uint64_t size, uint32_t fragments = 1) {
  EntrySpec e;
  e.name = name;
  e.dataSize = size;
  e.dataFragments = fragments;
  return e;
}

EntrySpec folder(const std::string& name, std::vector<EntrySpec> children) {
  EntrySpec e;
  e.name = name;
  e.folder = true;
  e.children = std::move(children);
  return e;
}

// A small tree with what a reader must get right: nesting, Unicode, a slash
// and a colon in names, an empty file, a resource fork, fragmented forks (one
// beyond eight extents), a deleted file.
VolumeSpec sampleVolume(const std::string& name, bool hfsx) {
  VolumeSpec v;
  v.name = name;
  v.hfsx = hfsx;
  EntrySpec withRsrc = textFile("Icon file", "data fork");
  withRsrc.rsrcSize = 3000;
  EntrySpec gone = textFile("gone.txt", "deleted text");
  gone.deleted = true;
  v.root = {
      folder("Documents", {textFile("letter.txt", "Dear reader,\n"), sizedFile("big.bin", 70000, 3),
                           folder("Nested", {folder("Deeper", {sizedFile("deep.dat", 5000)})}), gone}),
      folder("Fotos 2023", {sizedFile("Cafe\xcc\x81 menu.jpg", 12000), sizedFile("a/b slash.txt", 10),
                            sizedFile("c:d colon.txt", 11)}),
      sizedFile("empty", 0), withRsrc, sizedFile("scattered.zip", 90000, 11)};
  return v;
}

// fls lists exactly the described tree, and icat returns every fork's bytes.
void expectVolumeReadsBack(const std::filesystem::path& image, const VolumeLayout& v, const VolumeSpec& spec,
                           bool checkContent = true) {
  const uint64_t offset = v.startSector;
  std::string fsstat = tsk("fsstat", image, offset, "");
  EXPECT_NE(fsstat.find(std::string("File System Type: ") + (v.hfsx ? "HFSX" : "HFS+")), std::string::npos) << fsstat;
  EXPECT_NE(fsstat.find("Volume Name: " + v.name), std::string::npos) << fsstat;
  EXPECT_NE(fsstat.find("Number of files: " + std::to_string(v.fileCount)), std::string::npos);
  EXPECT_NE(fsstat.find("Number of folders: " + std::to_string(v.folderCount)), std::string::npos);
  EXPECT_EQ(flsTree(image, offset), expectedTree(v));
  if (!checkContent) return;
  // Explicit contents by path, from the description.
  std::map<std::string, const EntrySpec*> explicitData;
  std::function<void(const std::vector<EntrySpec>&, const std::string&)> walk = [&](const auto& list, const std::string& at) {
    for (const auto& e : list) {
      std::string n = e.name;
      std::replace(n.begin(), n.end(), '/', ':');
      std::string p = at.empty() ? n : at + "/" + n;
      explicitData[p] = &e;
      walk(e.children, p);
    }
  };
  walk(spec.root, "");
  for (const auto& e : v.entries) {
    if (e.folder || e.deleted || e.name.rfind(".journal", 0) == 0) continue;
    std::string want = expectedFork(e, false);
    if (!e.generatedData) {
      const auto& d = *explicitData.at(e.path)->data;
      want.assign(d.begin(), d.end());
    }
    EXPECT_TRUE(sameBytes(icat(image, offset, e.cnid, false), want)) << e.path;
    if (e.rsrcSize) {
      EXPECT_TRUE(sameBytes(icat(image, offset, e.cnid, true), expectedFork(e, true))) << e.path;
    }
  }
}

TEST(MkimageTsk, GptDriveWithHfsPlusAndHfsxVolumes) {
  SKIP_WITHOUT_TSK();
  TempDir dir;
  DriveSpec d;
  d.table = TableKind::GPT;
  PartitionSpec a, b;
  a.volume = sampleVolume("Macintosh HD", false);
  a.volume->journal = true;
  b.kind = PartitionSpec::Kind::HFSX;
  b.volume = sampleVolume("Case Sensitive", true);
  b.volume->blockSize = 2048;
  b.volume->nodeSize = 4096;
  d.partitions = {a, b};
  auto image = dir / "gpt.img";
  DriveLayout layout = buildImage(d, image);
  ASSERT_EQ(layout.partitions.size(), 2u);

  std::string mmls = tsk("mmls", image, 0, "");
  EXPECT_NE(mmls.find("GUID Partition Table"), std::string::npos) << mmls;
  for (const auto& p : layout.partitions) {
    char row[64];
    std::snprintf(row, sizeof row, "%010llu   %010llu", static_cast<unsigned long long>(p.startSector),
                  static_cast<unsigned long long>(p.startSector + p.sizeSectors - 1));
    EXPECT_NE(mmls.find(row), std::string::npos) << row << "\n" << mmls;
    EXPECT_NE(mmls.find(p.name), std::string::npos);
  }
  expectVolumeReadsBack(image, *layout.partitions[0].volume, *a.volume);
  expectVolumeReadsBack(image, *layout.partitions[1].volume, *b.volume);
}

TEST(MkimageTsk, GptPassesSgdiskVerification) {
  if (!ambrel::test::haveTool("sgdisk")) GTEST_SKIP() << "sgdisk is not installed";
  TempDir dir;
  DriveSpec d;
  d.table = TableKind::GPT;
  PartitionSpec hfs, other, gap, hfsx;
  hfs.volume = VolumeSpec{};
  other.kind = PartitionSpec::Kind::Other;
  other.sizeSectors = 4096;
  gap.kind = PartitionSpec::Kind::Free;
  gap.sizeSectors = 2048;
  hfsx.kind = PartitionSpec::Kind::HFSX;
  d.partitions = {hfs, other, gap, hfsx};
  auto image = dir / "gpt.img";
  DriveLayout layout = buildImage(d, image);
  std::string out;
  EXPECT_EQ(runCommand("sgdisk -v " + quoted(image) + " 2>&1", &out), 0);
  EXPECT_NE(out.find("No problems found"), std::string::npos) << out;
  ASSERT_EQ(runCommand("sgdisk -p " + quoted(image) + " 2>&1", &out), 0);
  // Three entries: the free gap has none. HFS kinds carry type code AF00.
  EXPECT_NE(out.find("AF00"), std::string::npos) << out;
  EXPECT_NE(out.find("8300"), std::string::npos) << out;
  EXPECT_EQ(layout.partitions.size(), 4u);
  EXPECT_EQ(layout.partitions[3].startSector, layout.partitions[2].startSector + 2048);
}

class MkimageMbr : public ::testing::TestWithParam<uint8_t> {};

TEST_P(MkimageMbr, ExtendedChainOfLogicalHfsPartitions) {
  SKIP_WITHOUT_TSK();
  TempDir dir;
  DriveSpec d;
  d.table = TableKind::MBR;
  d.extendedType = GetParam();
  for (int i = 0; i < 4; ++i) {
    PartitionSpec p;
    p.kind = i == 3 ? PartitionSpec::Kind::HFSX : PartitionSpec::Kind::HFSPlus;
    p.logical = i >= 1;
    p.volume = VolumeSpec{};
    p.volume->name = "Vol" + std::to_string(i);
    p.volume->hfsx = i == 3;
    p.volume->root = {textFile("f" + std::to_string(i) + ".txt", "volume " + std::to_string(i))};
    d.partitions.push_back(p);
  }
  auto image = dir / "mbr.img";
  DriveLayout layout = buildImage(d, image);
  ASSERT_EQ(layout.ebrSectors.size(), 3u);
  // A header search tells volumes apart by creation date, so defaults differ.
  std::set<uint32_t> created;
  for (const auto& p : layout.partitions) created.insert(loadBE32(&readSector(image, p.startSector + 2)[16]));
  EXPECT_EQ(created.size(), 4u);
  std::string mmls = tsk("mmls", image, 0, "");
  EXPECT_NE(mmls.find("DOS Partition Table"), std::string::npos) << mmls;
  size_t hfsRows = 0;
  for (size_t at = 0; (at = mmls.find("(0xaf)", at)) != std::string::npos; ++at) ++hfsRows;
  EXPECT_EQ(hfsRows, 4u) << mmls;
  char ext[8];
  std::snprintf(ext, sizeof ext, "(0x%02x)", GetParam());
  EXPECT_NE(mmls.find(ext), std::string::npos) << mmls;
  for (size_t i = 0; i < layout.partitions.size(); ++i) {
    const auto& p = layout.partitions[i];
    char row[32];
    std::snprintf(row, sizeof row, "%010llu", static_cast<unsigned long long>(p.startSector));
    EXPECT_NE(mmls.find(row), std::string::npos) << mmls;
    ASSERT_TRUE(p.volume);
    EXPECT_EQ(flsTree(image, p.startSector), expectedTree(*p.volume));
    EXPECT_EQ(icat(image, p.startSector, 16, false), "volume " + std::to_string(i));
  }
}

INSTANTIATE_TEST_SUITE_P(ExtendedTypes, MkimageMbr, ::testing::Values(0x05, 0x0F, 0x85));

TEST(MkimageTsk, ApplePartitionMapWithFreeSpaceAndWrappedVolume) {
  SKIP_WITHOUT_TSK();
  TempDir dir;
  DriveSpec d;
  d.table = TableKind::APM;
  PartitionSpec a, gap, b;
  a.volume = sampleVolume("Classic", false);
  a.volume->wrapper = true;
  gap.kind = PartitionSpec::Kind::Free;
  gap.sizeSectors = 2048;
  b.kind = PartitionSpec::Kind::HFSX;
  b.volume = sampleVolume("Unix", true);
  d.partitions = {a, gap, b};
  auto image = dir / "apm.img";
  DriveLayout layout = buildImage(d, image);
  std::string mmls = tsk("mmls", image, 0, "");
  EXPECT_NE(mmls.find("MAC Partition Map"), std::string::npos) << mmls;
  for (const char* type : {"Apple_partition_map\n", "Apple_HFS\n", "Apple_HFSX\n", "Apple_Free\n"})
    EXPECT_NE(mmls.find(type), std::string::npos) << type << "\n" << mmls;
  const VolumeLayout& wrapped = *layout.partitions[0].volume;
  EXPECT_TRUE(wrapped.wrapped);
  EXPECT_GT(wrapped.HPlusVolStart, wrapped.startSector);
  std::string fsstat = tsk("fsstat", image, wrapped.startSector, "");
  EXPECT_NE(fsstat.find("embedded in an HFS wrapper at offset " +
                        std::to_string((wrapped.HPlusVolStart - wrapped.startSector) * 512)),
            std::string::npos)
      << fsstat;
  expectVolumeReadsBack(image, wrapped, *a.volume);
  expectVolumeReadsBack(image, *layout.partitions[2].volume, *b.volume);
}

struct Geometry {
  uint32_t blockSize, nodeSize;
};

class MkimageGeometry : public ::testing::TestWithParam<Geometry> {};

TEST_P(MkimageGeometry, BareVolumeReadsBack) {
  SKIP_WITHOUT_TSK();
  TempDir dir;
  DriveSpec d = bareDrive(sampleVolume("Bare", false));
  d.volume->blockSize = GetParam().blockSize;
  d.volume->nodeSize = GetParam().nodeSize;
  d.volume->extentsNodeSize = GetParam().nodeSize;
  auto image = dir / "bare.img";
  DriveLayout layout = buildImage(d, image);
  ASSERT_TRUE(layout.volume);
  EXPECT_EQ(layout.volume->blockSize, GetParam().blockSize);
  EXPECT_EQ(layout.volume->catalog.nodeSize, GetParam().nodeSize);
  expectVolumeReadsBack(image, *layout.volume, *d.volume);
}

INSTANTIATE_TEST_SUITE_P(BlockAndNodeSizes, MkimageGeometry,
                         ::testing::Values(Geometry{512, 4096}, Geometry{1024, 8192}, Geometry{2048, 4096},
                                           Geometry{4096, 8192}, Geometry{8192, 4096}),
                         [](const auto& info) {
                           return "block" + std::to_string(info.param.blockSize) + "_node" + std::to_string(info.param.nodeSize);
                         });

// Thousands of generated files: three index levels, varied names, and (HFSX)
// names that differ only in case; the catalog also spread over eleven extents.
TEST(MkimageTsk, GeneratedTreesWithDeepCatalogs) {
  SKIP_WITHOUT_TSK();
  TempDir dir;
  for (bool hfsx : {false, true}) {
    DriveSpec d;
    d.table = TableKind::None;
    VolumeSpec v;
    v.name = hfsx ? "GenX" : "Gen";
    v.hfsx = hfsx;
    v.blockSize = 512;
    v.nodeSize = 4096;
    v.catalogExtents = hfsx ? 11 : 1;
    v.generate = GenerateSpec{2500, 60, hfsx ? 9u : 7u, 0, 1500, true};
    d.volume = v;
    auto image = dir / "gen.img";
    DriveLayout layout = buildImage(d, image);
    const VolumeLayout& vl = *layout.volume;
    EXPECT_GE(vl.catalog.depth, 3u);
    EXPECT_EQ(vl.catalog.extents.size(), hfsx ? 11u : 1u);
    if (hfsx) {
      EXPECT_GE(vl.extentsTree.leafRecords, 1u);
    }
    auto expected = expectedTree(vl);
    EXPECT_GE(expected.size(), 2560u);
    EXPECT_EQ(flsTree(image, 0), expected);
    if (hfsx) {
      bool twins = false;
      for (const auto& [path, what] : expected)
        if (path.find("FILE 0.TXT") != std::string::npos) twins = true;
      EXPECT_TRUE(twins) << "no case-only twin was generated";
    }
    // A sample of contents (every 250th file).
    size_t k = 0;
    for (const auto& e : vl.entries)
      if (!e.folder && e.cnid > 2 && k++ % 250 == 0) {
        EXPECT_TRUE(sameBytes(icat(image, 0, e.cnid, false), expectedFork(e, false))) << e.path;
      }
  }
}

}  // namespace
}  // namespace ambrel::mkimage::test
