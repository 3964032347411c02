// Partition tables whose counts and sizes a damaged or hostile drive made
// absurd: what the table still says must be listed, and nothing beyond the
// drive believed.
#include "Damaged.h"
#include "base/Endian.h"

namespace ambrel::test {
namespace {

mk::DriveSpec gptWithOneVolume() {
  mk::DriveSpec d;
  d.table = mk::TableKind::GPT;
  mk::PartitionSpec p;
  p.name = "Data";
  p.volume = generatedVolume(5, 1);
  d.partitions.push_back(p);
  return d;
}

std::vector<uint8_t> le32(uint32_t v) { return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}; }
std::vector<uint8_t> le64(uint64_t v) {
  std::vector<uint8_t> out;
  for (int i = 0; i < 8; ++i) out.push_back(uint8_t(v >> (8 * i)));
  return out;
}

PlistArray partitionsOf(const std::string& image) {
  RecordingController controller;
  controller.drives.push_back(driveDictFor(image));
  DMedia media(*controller.drives[0].dict(), &controller);
  PlistArray list;
  media.initialize(list);
  return list;
}

TEST(GptEntryCount, AbsurdCountReadsEntriesUntilTheFirstEmptyOne) {
  BuiltDrive d(gptWithOneVolume());
  d.patch(512 + 80, le32(0xFFFFFFFFu));
  const PlistArray list = partitionsOf(d.path);
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].dict()->u64("Volume Start"), d.layout.partitions[0].startSector);
  EXPECT_EQ(list[0].dict()->string("Volume Name"), "Damaged");  // named from its catalog
}

TEST(GptEntryCount, ArrayRunningPastTheDrivesEndIsReadUpToIt) {
  BuiltDrive d(gptWithOneVolume());
  const uint64_t last = d.sectors() - 1;
  // The entry array moved to the drive's last sector: four used entries
  // there, and a count that would run 31 sectors past the end.
  const std::vector<uint8_t> image = readFile(d.path);
  const std::vector<uint8_t> entry(image.begin() + 1024, image.begin() + 1024 + 128);
  std::vector<uint8_t> sector;
  for (int i = 0; i < 4; ++i) {
    std::vector<uint8_t> e = entry;
    const auto first = le64(100 + 10 * i), lastLba = le64(109 + 10 * i);
    std::copy(first.begin(), first.end(), e.begin() + 32);
    std::copy(lastLba.begin(), lastLba.end(), e.begin() + 40);
    sector.insert(sector.end(), e.begin(), e.end());
  }
  d.patch(last * 512, sector);
  d.patch(512 + 72, le64(last));
  d.patch(512 + 80, le32(128));
  const PlistArray list = partitionsOf(d.path);
  ASSERT_EQ(list.size(), 4u);
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(list[i].dict()->u64("Volume Start"), 100 + 10 * i);
    EXPECT_EQ(list[i].dict()->u64("Volume Size In Sectors"), 10u);
  }
}

// The protective MBR and the GPT header are one sector each: when the first
// cannot be read, the header behind it still lists the volume; when the
// header cannot, the backup header at the drive's end does. A readable
// sector 0 without a boot signature still means no GPT.
TEST(UnreadableGptSector, TheOtherCopiesStillListTheVolume) {
  BuiltDrive d(gptWithOneVolume());
  for (const uint64_t bad : {uint64_t{0}, uint64_t{1}}) {
    SCOPED_TRACE(bad);
    RecordingController controller;
    controller.drives.push_back(driveDictFor(d.path));
    DMedia media(*controller.drives[0].dict(), &controller);
    auto faults = std::make_shared<SectorFaults>();
    faults->add(SectorFaults::Kind::IOError, bad);
    media.setSectorFaults(faults);
    EXPECT_EQ(media.partitionTableKind(), PartitionTableKind::GPT);
    PlistArray list;
    media.initialize(list);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].dict()->u64("Volume Start"), d.layout.partitions[0].startSector);
    EXPECT_EQ(list[0].dict()->string("Volume Name"), "Damaged");
    EXPECT_EQ(media.readErrors.listed(), std::vector<uint64_t>{bad});
    EXPECT_TRUE(controller.alerts.empty());
  }
  d.patch(0, std::vector<uint8_t>(512, 0));
  EXPECT_TRUE(partitionsOf(d.path).empty());
}

}  // namespace
}  // namespace ambrel::test
