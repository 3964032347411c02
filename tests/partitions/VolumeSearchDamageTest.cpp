// The thorough search of a drive whose volume lost its primary header or its
// first megabyte: the journal's copies of the header never stand for the
// volume, and a volume whose alternate header survives is listed.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

#include "DriveFile.h"
#include "ImageBuilder.h"
#include "support/BuiltEntries.h"

namespace ambrel::test {
namespace {

namespace mk = ambrel::mkimage;

struct Found {
  uint64_t start = 0;
  std::string validity, name;
};

std::vector<Found> volumeSearch(const std::string& image, bool quick) {
  OpenedDrive drive{std::filesystem::path(image)};
  PlistArray volumes, rows;
  if (quick)
    drive.media->initializeForVolumeQuickScan({&drive.controller, &volumes, &rows});
  else
    drive.media->initializeForVolumeThoroughScan({&drive.controller, &volumes, &rows});
  std::vector<Found> out;
  for (const auto& row : rows) {
    const std::string found = row.dict()->string("Found Column");
    Found f;
    f.start = std::stoull(found.substr(found.rfind(' ') + 1));
    f.validity = row.dict()->string("Validity Column");
    for (const auto& v : volumes)
      if (v.dict()->u64("Volume Start") == f.start) f.name = v.dict()->string("Volume Name");
    out.push_back(f);
  }
  return out;
}

std::vector<Found> thoroughSearch(const std::string& image) { return volumeSearch(image, false); }

void zeroSectors(const std::string& image, uint64_t first, uint64_t count) {
  const int fd = ::open(image.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  const std::vector<uint8_t> zeros(count * 512, 0);
  ASSERT_EQ(::pwrite(fd, zeros.data(), zeros.size(), static_cast<off_t>(first * 512)),
            static_cast<ssize_t>(zeros.size()));
  ::close(fd);
}

// A GPT drive with room after its one journaled volume, so that a header copy
// in the journal, read as a primary header, describes a volume that fits.
mk::DriveLayout buildJournaledDrive(const std::string& image) {
  mk::DriveSpec d;
  d.table = mk::TableKind::GPT;
  mk::PartitionSpec p;
  mk::VolumeSpec v;
  v.name = "Journaled";
  v.journal = true;
  v.generate = mk::GenerateSpec{200, 12, 3, 1, 8000, false};
  v.root.push_back(sizedFile("gone.txt", 3000));
  v.root.back().deleted = true;
  p.volume = v;
  d.partitions.push_back(p);
  d.sizeBytes = 64 << 20;
  return mk::buildImage(d, image);
}

// A wiped GPT drive holding a volume and its byte-for-byte clone (the same
// spec, so the same creation date and content) at another start.
mk::DriveLayout buildClonedDrive(const std::string& image) {
  mk::DriveSpec d;
  d.table = mk::TableKind::GPT;
  mk::PartitionSpec p;
  mk::VolumeSpec v;
  v.name = "Cloned";
  v.created = mk::hfsDateFromUnix(1650000000);  // given, so that both partitions carry it
  v.generate = mk::GenerateSpec{40, 6, 2, 1, 4000, false};
  p.volume = v;
  d.partitions = {p, p};
  d.wipePartitionTable = true;
  d.sizeBytes = 48 << 20;
  return mk::buildImage(d, image);
}

std::vector<uint8_t> sectorsOf(const std::string& image, uint64_t first, uint64_t count) {
  std::vector<uint8_t> out(count * 512);
  const int fd = ::open(image.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_GE(fd, 0);
  EXPECT_EQ(::pread(fd, out.data(), out.size(), static_cast<off_t>(first * 512)), static_cast<ssize_t>(out.size()));
  ::close(fd);
  return out;
}

}  // namespace

TEST(VolumeSearchDamage, AJournalCopyOfTheHeaderStoodForTheVolumeWhosePrimaryHeaderIsGone) {
  TempDir dir;
  const std::string image = (dir / "drive.img").string();
  const mk::DriveLayout layout = buildJournaledDrive(image);
  const mk::VolumeLayout& vol = *layout.partitions[0].volume;
  ASSERT_FALSE(vol.journalNodeCopySectors.empty());
  zeroSectors(image, vol.startSector + 2, 1);

  const auto found = thoroughSearch(image);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].start, vol.startSector);
  EXPECT_EQ(found[0].validity, "Valid");
  EXPECT_EQ(found[0].name, "Journaled");
}

TEST(VolumeSearchDamage, AVolumeWhoseFirstMegabyteIsGoneWasNotListed) {
  TempDir dir;
  const std::string image = (dir / "drive.img").string();
  const mk::DriveLayout layout = buildJournaledDrive(image);
  const mk::VolumeLayout& vol = *layout.partitions[0].volume;
  zeroSectors(image, vol.startSector, 2048);

  const auto found = thoroughSearch(image);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].start, vol.startSector);
  EXPECT_EQ(found[0].validity, "Partial Valid");  // its catalog lay in that megabyte
}

// A Mac-made volume: its alternate header still has the counts of a freshly
// made volume (no folders), and the journal holds six copies of the header.
TEST(VolumeSearchDamage, MacVolumeFoundFromItsAlternateHeaderOnly) {
  const auto data = sharedTestData();
  if (data.empty()) GTEST_SKIP() << "shared test data not present";
  TempDir dir;
  const std::string image = (dir / "mbr.img").string();
  ASSERT_EQ(runCommand("7z e -so '" + (data / "hfs_images/hfsinspect/MBR.dmg.7z").string() + "' > '" + image +
                       "' 2>/dev/null"),
            0);
  const uint64_t start = 63;
  for (uint64_t zeroed : {uint64_t{1}, uint64_t{2048}}) {
    SCOPED_TRACE(zeroed);
    const std::string copy = (dir / "copy.img").string();
    ASSERT_EQ(runCommand("cp '" + image + "' '" + copy + "'"), 0);
    zeroSectors(copy, zeroed == 1 ? start + 2 : start, zeroed);
    const auto found = thoroughSearch(copy);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].start, start);
    EXPECT_EQ(found[0].validity, "Valid");
    EXPECT_EQ(found[0].name, "HFS Plus");
  }
}

TEST(VolumeSearchDamage, AClonedVolumeIsListedTwiceAndEachVolumeOnce) {
  TempDir dir;
  const std::string image = (dir / "drive.img").string();
  const mk::DriveLayout layout = buildClonedDrive(image);
  ASSERT_EQ(layout.partitions.size(), 2u);
  const mk::VolumeLayout& first = *layout.partitions[0].volume;
  const mk::VolumeLayout& second = *layout.partitions[1].volume;
  ASSERT_NE(first.startSector, second.startSector);
  ASSERT_EQ(first.sizeSectors, second.sizeSectors);
  // A clone indeed: the same bytes, creation date included, at both starts.
  ASSERT_TRUE(sectorsOf(image, first.startSector, first.sizeSectors) ==
              sectorsOf(image, second.startSector, second.sizeSectors));

  // Each volume's primary and alternate header both lead to its start: listed
  // once each, by the quick search as by the thorough one.
  for (const bool quick : {false, true}) {
    SCOPED_TRACE(quick ? "quick search" : "thorough search");
    const auto found = volumeSearch(image, quick);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].start, first.startSector);
    EXPECT_EQ(found[1].start, second.startSector);
    for (const auto& f : found) {
      EXPECT_EQ(f.validity, "Valid");
      EXPECT_EQ(f.name, "Cloned");
    }
  }

  // The clone found from its alternate header alone, and the first volume from both.
  zeroSectors(image, second.startSector + 2, 1);
  auto found = thoroughSearch(image);
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0].start, first.startSector);
  EXPECT_EQ(found[1].start, second.startSector);
  EXPECT_EQ(found[1].name, "Cloned");

  // And the first volume from its alternate alone, the clone from both.
  ASSERT_EQ(runCommand("cp '" + image + "' '" + image + ".b'"), 0);
  const std::string other = image + ".b";
  const std::vector<uint8_t> header = sectorsOf(image, first.startSector + 2, 1);
  const int fd = ::open(other.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::pwrite(fd, header.data(), 512, static_cast<off_t>((second.startSector + 2) * 512)), 512);
  ::close(fd);
  zeroSectors(other, first.startSector + 2, 1);
  found = thoroughSearch(other);
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0].start, first.startSector);
  EXPECT_EQ(found[1].start, second.startSector);
}

TEST(VolumeSearchDamage, ClonesWhoseCatalogHeadersAreGoneAreStillTwoVolumes) {
  // Nothing confirms either reading at once (their catalogs' header nodes
  // are zeroed), so both are weighed among the unconfirmed ones: a clone used
  // to be dropped there as a second reading of the first volume's creation date.
  TempDir dir;
  const std::string image = (dir / "drive.img").string();
  const mk::DriveLayout layout = buildClonedDrive(image);
  const mk::VolumeLayout& first = *layout.partitions[0].volume;
  const mk::VolumeLayout& second = *layout.partitions[1].volume;
  ASSERT_FALSE(first.catalog.nodes.empty());
  ASSERT_EQ(first.catalog.nodes[0].kind, 1);
  const uint64_t headerNode = first.catalog.nodes[0].sector - first.startSector;
  for (const auto* v : {&first, &second}) zeroSectors(image, v->startSector + headerNode, 1);

  const auto found = thoroughSearch(image);
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0].start, first.startSector);
  EXPECT_EQ(found[1].start, second.startSector);
}

}  // namespace ambrel::test
