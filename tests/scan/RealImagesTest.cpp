// HFS+ images made on real Macs and by other tools: the standard scan's tree
// agrees with what fls reads from the same volume.
#include <gtest/gtest.h>

#include <filesystem>

#include "media/DMedia.h"
#include "scan/ScanHelpers.h"

using namespace ambrel;
using namespace ambrel::test;

namespace {

struct RealImage {
  const char* file;     // under hfs_images/
  const char* unpack;   // shell command that writes the raw image to stdout, "" for raw files
  uint64_t volumeStart; // where fls found the volume
};

// Images whose files are compressed (decmpfs) are left out: fls reports their
// uncompressed size while the catalog's data fork is empty.
const RealImage kImages[] = {
    {"hfsplus-forensic/hfs_plus_volume.bin", "", 0},
    {"hfsplus-forensic/hfs_plus_nested.bin", "", 0},
    {"dfvfs/hfsplus.raw", "", 0},
    {"disktype-sampler/hfs-plus.image.gz", "gzip -dc", 0},
    {"disktype-sampler/hfs-plus-wrapped.image.gz", "gzip -dc", 0},
    {"disktype-sampler/udif-udrw.image.gz", "gzip -dc", 64},
    {"go-filesystems-hfsplus/hfsplus.dmg.gz", "gzip -dc", 0},
    {"hfsinspect/test.img.gz", "gzip -dc", 40},
    {"hfsinspect/MBR.dmg.7z", "7z e -so", 63},
    {"hfsinspect/hfsj.bin.7z", "7z e -so", 0},
    {"hfsplus-rs/hfsp-small.img.xz", "xz -dc", 0},
    {"hfsplus-rs/hfsp-many2.img.xz", "xz -dc", 0},
    {"shockpkg-archive-files/test-archive-hfsp.DERIVED.raw.gz", "gzip -dc", 40},
    {"shockpkg-archive-files/test-archive-hfsp-j.DERIVED.raw.gz", "gzip -dc", 40},
};

class RealImages : public ::testing::TestWithParam<RealImage> {};

}  // namespace

TEST_P(RealImages, StandardScanAgreesWithFls) {
  const auto data = sharedTestData();
  if (data.empty()) GTEST_SKIP() << "shared test data not present";
  if (!haveTool("fls")) GTEST_SKIP() << "The Sleuth Kit missing";
  const RealImage& img = GetParam();
  const auto source = data / "hfs_images" / img.file;
  ASSERT_TRUE(std::filesystem::exists(source)) << source;
  TempDir dir;
  std::string image = source.string();
  if (*img.unpack) {
    image = (dir / "image.raw").string();
    ASSERT_EQ(runCommand(std::string(img.unpack) + " '" + source.string() + "' > '" + image + "' 2>/dev/null"), 0);
  }

  // Where the partition table (or its absence) puts the volume.
  std::string error;
  PlistDict drive = driveDictionaryForPath(image, error);
  ASSERT_FALSE(drive.empty()) << error;
  RecordingController controller;
  DMedia media(drive, &controller);
  PlistArray volumes;
  media.initialize(volumes);
  uint64_t start = 0, sectors = media.sizeInSect;
  if (!volumes.empty()) {
    start = volumes[0].dict()->u64("Volume Start");
    sectors = volumes[0].dict()->u64("Volume Size In Sectors");
  }
  EXPECT_EQ(start, img.volumeStart);

  ScanResult r = scan(image, start, sectors, "Normal Scan");
  ASSERT_NE(r.volume->dirRoot, nullptr);
  EXPECT_TRUE(r.controller->alerts.empty());
  auto expected = keptByScan(flsTree(image, img.volumeStart));
  auto got = treeOf(*r.volume);
  // fls follows a hard link to the file it stands for; the scan lists the
  // link's own empty catalog record. Both name the same path.
  for (auto& [path, listed] : got) {
    auto it = expected.find(path);
    if (it != expected.end() && !listed.folder && listed.size == 0 && it->second.id != listed.id) {
      EXPECT_TRUE(got.count("^^^^HFS+ Private Data/iNode" + std::to_string(it->second.id))) << path;
      it->second = listed;
    }
  }
  EXPECT_SAME_TREE(got, expected);
}

INSTANTIATE_TEST_SUITE_P(Shared, RealImages, ::testing::ValuesIn(kImages), [](const auto& info) {
  std::string name = std::filesystem::path(info.param.file).filename().string();
  for (char& c : name)
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  return name;
});
