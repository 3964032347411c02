// Real volumes (Mac-made ones from the shared test data, and an xorriso
// volume of 3,000 files with 2 KiB blocks and 4 KiB nodes) intact and damaged
// in six ways, scanned both ways and measured against The Sleuth Kit on the undamaged copy:
// no wrong bytes, no file twice, every file whose record survives found.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "media/DMedia.h"
#include "scan/RealDamage.h"

using namespace ambrel;
using namespace ambrel::test;

namespace {

const char* const kDamages[] = {"none",          "catalog header", "extents header", "root node",
                                "10% of leaves", "primary header", "first 1 MiB"};

struct Subject {
  std::string name;
  std::string image;
  uint64_t start = 0, sectors = 0;
  std::function<std::vector<uint8_t>(const std::string&, uint32_t, bool)> bytesOf;
};

// The first volume the partition table (or its absence) gives.
bool locate(Subject& s) {
  std::string error;
  PlistDict drive = driveDictionaryForPath(s.image, error);
  if (drive.empty()) return false;
  RecordingController controller;
  DMedia media(drive, &controller);
  PlistArray volumes;
  media.initialize(volumes);
  s.start = 0;
  s.sectors = media.sizeInSect;
  if (!volumes.empty()) {
    s.start = volumes[0].dict()->u64("Volume Start");
    s.sectors = volumes[0].dict()->u64("Volume Size In Sectors");
  }
  return true;
}

// Every damage, both scans: the rows of the table, and the rules each row keeps.
void damageAndMeasure(const Subject& s, const TempDir& dir) {
  const VolumeSurvey survey = surveyVolume(s.image, s.start, s.sectors);
  ASSERT_GT(survey.nodeSectors, 0) << s.name;
  for (const char* damage : kDamages) {
    SCOPED_TRACE(std::string(s.name) + ", " + damage);
    const SectorRanges ranges = damageRanges(survey, damage);
    ASSERT_EQ(ranges.empty(), std::string(damage) == "none");
    const std::string copy = (dir / "damaged.img").string();
    ASSERT_EQ(runCommand("cp --sparse=always '" + s.image + "' '" + copy + "'"), 0);
    zeroRanges(copy, ranges);
    // The walk cannot follow the chain when the catalog's header node is gone.
    const bool chainLost = rangeHit(ranges, survey.catalogHeader, 1);
    for (const char* mode : {"Normal Scan", "Advanced Scan"}) {
      const bool advanced = std::string(mode) == "Advanced Scan";
      ScanResult r = scan(copy, s.start, s.sectors, mode);
      const auto want = expectedFromFls(s.image, copy, survey, ranges, advanced, chainLost, s.bytesOf);
      const Tally t = tallyScan(copy, *r.volume, want);
      printTallyRow(s.name, damage, advanced ? "advanced" : "standard", t);
      EXPECT_EQ(t.wrong, 0u) << mode << "\n" << t.problemText();
      EXPECT_EQ(t.duplicates, 0u) << mode << "\n" << t.problemText();
      if (advanced || r.controller->gaveUp == 0) {
        EXPECT_EQ(t.anywhere, t.expected) << mode << "\n" << t.problemText();
        EXPECT_EQ(t.atPath, t.pathKnown) << mode << "\n" << t.problemText();
      }
    }
  }
}

struct SharedImage {
  const char* file;    // under hfs_images/
  const char* unpack;  // shell command writing the raw image to stdout, "" for raw files
};

const SharedImage kShared[] = {
    {"hfsinspect/MBR.dmg.7z", "7z e -so"},
    {"shockpkg-archive-files/test-archive-hfsp-j.DERIVED.raw.gz", "gzip -dc"},
    {"shockpkg-archive-files/test-archive-hfsp-j-c.DERIVED.raw.gz", "gzip -dc"},
    {"dfvfs/hfsplus.raw", ""},
};

class DamagedSharedImages : public ::testing::TestWithParam<SharedImage> {};

}  // namespace

TEST_P(DamagedSharedImages, NoWrongBytesNoFileTwiceEverySurvivingFileFound) {
  const auto data = sharedTestData();
  if (data.empty()) GTEST_SKIP() << "shared test data not present";
  if (!haveTool("fls") || !haveTool("icat")) GTEST_SKIP() << "The Sleuth Kit missing";
  const SharedImage& img = GetParam();
  TempDir dir;
  Subject s;
  s.name = std::filesystem::path(img.file).filename().string();
  s.image = (data / "hfs_images" / img.file).string();
  if (*img.unpack) {
    const std::string raw = (dir / "image.raw").string();
    ASSERT_EQ(runCommand(std::string(img.unpack) + " '" + s.image + "' > '" + raw + "' 2>/dev/null"), 0);
    s.image = raw;
  }
  ASSERT_TRUE(locate(s));
  const std::string intact = s.image;
  const uint64_t start = s.start;
  s.bytesOf = [intact, start](const std::string&, uint32_t inode, bool rsrc) {
    return icatBytes(intact, start, inode, rsrc);
  };
  damageAndMeasure(s, dir);
}

INSTANTIATE_TEST_SUITE_P(Shared, DamagedSharedImages, ::testing::ValuesIn(kShared), [](const auto& info) {
  std::string name = std::filesystem::path(info.param.file).filename().string();
  for (char& c : name)
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  return name;
});

// 3,000 files in 30 folders, made by xorriso: 2 KiB blocks, 4 KiB nodes. The
// source files are the byte oracle.
TEST(DamagedXorrisoVolume, NoWrongBytesNoFileTwiceEverySurvivingFileFound) {
  if (!haveTool("fls") || !haveTool("xorriso")) GTEST_SKIP() << "xorriso or The Sleuth Kit missing";
  TempDir dir;
  const auto src = dir / "src";
  uint64_t state = 12345;
  for (int f = 0; f < 30; ++f)
    for (int i = 0; i < 100; ++i) {
      const auto p = src / ("folder " + std::to_string(f)) / ("file-" + std::to_string(i) + ".dat");
      std::filesystem::create_directories(p.parent_path());
      std::string bytes(static_cast<size_t>((f * 100 + i) * 37 % 9000 + 1), '\0');
      for (char& c : bytes) {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        c = static_cast<char>(state >> 56);
      }
      std::ofstream(p, std::ios::binary) << bytes;
    }
  Subject s;
  s.name = "xorriso 3,000 files";
  s.image = (dir / "x.iso").string();
  ASSERT_EQ(runCommand("xorriso -as mkisofs -quiet -hfsplus -o '" + s.image + "' '" + src.string() + "' 2>/dev/null"), 0);
  ASSERT_TRUE(locate(s));
  s.bytesOf = [src](const std::string& path, uint32_t, bool rsrc) {
    return rsrc ? std::vector<uint8_t>{} : readFile(src / path);
  };
  damageAndMeasure(s, dir);
}
