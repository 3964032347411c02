// Drives from the project's image builder: MBR chains with each extended
// type, and a search of a wiped drive whose volumes are damaged.
#include <gtest/gtest.h>

#include "DriveFile.h"
#include "ImageBuilder.h"
#include "support/BuiltEntries.h"

namespace ambrel::test {
namespace {

namespace mk = ambrel::mkimage;

mk::PartitionSpec hfsPartition(const std::string& volumeName, bool logical = false, const std::string& tableName = {}) {
  mk::PartitionSpec p;
  p.kind = mk::PartitionSpec::Kind::HFSPlus;
  p.logical = logical;
  p.name = tableName;
  mk::VolumeSpec v;
  v.name = volumeName;
  v.seed = std::hash<std::string>{}(volumeName);
  v.created = mk::hfsDateFromUnix(1700000000 + static_cast<int64_t>(v.seed % 100000));
  // The search wants at least one file and one folder besides the root.
  v.root = {sizedFile("note.txt", 3000), folderOf("Documents", {})};
  p.volume = v;
  return p;
}

mk::PartitionSpec otherPartition(bool logical = false) {
  mk::PartitionSpec p;
  p.kind = mk::PartitionSpec::Kind::Other;
  p.sizeSectors = 2048;
  p.logical = logical;
  p.name = "other";
  return p;
}

struct Built {
  TempDir dir;
  mk::DriveLayout layout;
  std::unique_ptr<OpenedDrive> drive;
};

std::unique_ptr<Built> build(const mk::DriveSpec& spec) {
  auto b = std::make_unique<Built>();
  const auto path = b->dir / "drive.img";
  b->layout = mk::buildImage(spec, path);
  b->drive = std::make_unique<OpenedDrive>(path);
  return b;
}

TEST(BuiltDrives, MbrLogicalsAreNumberedAfterPrimariesAndNamedFromCatalogs) {
  mk::DriveSpec spec;
  spec.table = mk::TableKind::MBR;
  spec.partitions = {hfsPartition("Primary One"), otherPartition(), hfsPartition("Logical A", true),
                     otherPartition(true), hfsPartition("Logical B", true)};
  for (uint8_t extended : {uint8_t{0x05}, uint8_t{0x0F}, uint8_t{0x85}}) {
    spec.extendedType = extended;
    auto b = build(spec);
    auto volumes = b->drive->partitions();
    std::vector<const mk::PartitionLayout*> hfs;
    for (const auto& p : b->layout.partitions)
      if (p.volume) hfs.push_back(&p);
    ASSERT_EQ(volumes.size(), 3u) << int{extended};
    for (size_t i = 0; i < hfs.size(); ++i) {
      EXPECT_EQ(volumes[i].dict()->u64("Volume Start"), hfs[i]->startSector);
      EXPECT_EQ(volumes[i].dict()->u64("Volume Size In Sectors"), hfs[i]->sizeSectors);
      EXPECT_EQ(volumes[i].dict()->string("Volume Name"), hfs[i]->volume->name);
    }
  }
}

TEST(BuiltDrives, DamagedVolumesOnAWipedDrive) {
  mk::DriveSpec spec;
  spec.table = mk::TableKind::MBR;
  spec.wipePartitionTable = true;
  auto zeroed = hfsPartition("Header Zeroed");
  zeroed.volume->damage.primaryHeader = mk::VolumeDamage::Header::Zeroed;
  auto broken = hfsPartition("Catalog Broken");
  broken.volume->damage.catalogHeaderCorrupted = true;
  auto looped = hfsPartition("Leaf Loop");
  mk::GenerateSpec many;
  many.files = 400;
  many.folders = 10;
  looped.volume->generate = many;
  looped.volume->damage.leafChain = mk::LeafChainDamage{mk::LeafChainDamage::Mode::Loop, -1};
  spec.partitions = {zeroed, broken, looped};
  auto b = build(spec);
  PlistArray volumes, rows;
  b->drive->media->initializeForVolumeThoroughScan({&b->drive->controller, &volumes, &rows});
  auto findAt = [&](uint64_t start) -> std::vector<const PlistDict*> {
    std::vector<const PlistDict*> out;
    for (const auto& v : volumes)
      if (v.dict()->u64("Volume Start") == start) out.push_back(v.dict());
    return out;
  };
  const auto& z = *b->layout.partitions[0].volume;
  auto fromAlternate = findAt(z.HPlusVolStart);
  ASSERT_EQ(fromAlternate.size(), 1u);
  EXPECT_EQ(fromAlternate[0]->string("Volume Name"), "Header Zeroed");
  EXPECT_EQ(fromAlternate[0]->u64("WhetherAlternateSector"), z.alternateHeaderSector);

  auto partial = findAt(b->layout.partitions[1].volume->HPlusVolStart);
  ASSERT_FALSE(partial.empty());
  EXPECT_EQ(partial[0]->string("Volume Name"), "Untitled");

  const auto& l = *b->layout.partitions[2].volume;
  auto loop = findAt(l.HPlusVolStart);
  ASSERT_FALSE(loop.empty());
  EXPECT_EQ(loop[0]->string("Volume Name"), "Leaf Loop");
  // The walk stops where the chain turns back, short of the header's count.
  EXPECT_LT(std::stoi(loop[0]->string("Volume Validity")), 100);
}

}  // namespace
}  // namespace ambrel::test
