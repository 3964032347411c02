// Tables made by other tools, and real images made elsewhere: the volumes
// listed (and the Valid volumes a search finds) agree with The Sleuth Kit's
// mmls on start and length.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>

#include "DriveFile.h"

namespace ambrel::test {
namespace {

struct Span {
  uint64_t start, length;
  bool operator<(const Span& o) const { return start != o.start ? start < o.start : length < o.length; }
  bool operator==(const Span&) const = default;
};

// mmls rows (not Meta, not unallocated) whose description passes `take`.
template <class Take>
std::set<Span> mmlsRows(const std::string& image, Take take) {
  std::string out;
  EXPECT_EQ(runCommand("mmls '" + image + "'", &out), 0) << out;
  std::set<Span> rows;
  std::istringstream in(out);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string slot, kind, start, end, length;
    if (!(fields >> slot >> kind >> start >> end >> length)) continue;
    if (kind == "Meta" || kind.find("---") != std::string::npos) continue;
    if (start.empty() || !std::isdigit(static_cast<unsigned char>(start[0]))) continue;
    std::string description;
    std::getline(fields, description);
    description.erase(0, description.find_first_not_of(' '));
    if (take(description)) rows.insert({std::stoull(start), std::stoull(length)});
  }
  return rows;
}

std::set<Span> spansOf(const PlistArray& volumes) {
  std::set<Span> out;
  for (const auto& v : volumes) out.insert({v.dict()->u64("Volume Start"), v.dict()->u64("Volume Size In Sectors")});
  return out;
}

std::set<Span> validFound(OpenedDrive& drive) {
  PlistArray volumes, rows;
  drive.media->initializeForVolumeThoroughScan({&drive.controller, &volumes, &rows});
  std::set<uint64_t> validStarts;
  for (const auto& r : rows) {
    if (r.dict()->string("Validity Column") != "Valid") continue;
    const std::string found = r.dict()->string("Found Column");
    validStarts.insert(std::stoull(found.substr(found.rfind(' ') + 1)));
  }
  std::set<Span> out;
  for (const auto& v : volumes)
    if (validStarts.count(v.dict()->u64("Volume Start")) && v.dict()->string("Volume Name") != "Untitled")
      out.insert({v.dict()->u64("Volume Start"), v.dict()->u64("Volume Size In Sectors")});
  return out;
}

bool isDosHfs(const std::string& d) { return d.find("(0xaf)") != std::string::npos; }
bool isMacHfs(const std::string& d) { return d == "Apple_HFS" || d == "Apple_HFSX"; }

void makeSparseFile(const std::string& path, uint64_t bytes) {
  int fd = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(bytes)), 0);
  ::close(fd);
}

void writeAt(const std::string& path, uint64_t sector, const std::vector<uint8_t>& bytes) {
  int fd = ::open(path.c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(sector * 512)),
            static_cast<ssize_t>(bytes.size()));
  ::close(fd);
}

TEST(OtherTools, SfdiskMbrWithLogicalPartitionsAgreesWithMmls) {
  if (!haveTool("sfdisk") || !haveTool("mmls")) GTEST_SKIP() << "sfdisk or mmls not installed";
  TempDir dir;
  const std::string image = (dir / "mbr.img").string();
  makeSparseFile(image, 64ull << 20);
  const std::string script =
      "label: dos\n"
      "start=2048, size=8192, type=af\n"
      "start=10240, size=4096, type=83\n"
      "start=16384, size=100000, type=5\n"
      "start=18432, size=8192, type=af\n"
      "start=28672, size=4096, type=83\n"
      "start=34816, size=8192, type=af\n";
  std::ofstream(dir / "layout") << script;
  std::string out;
  ASSERT_EQ(runCommand("sfdisk -q '" + image + "' < '" + (dir / "layout").string() + "' 2>&1", &out), 0) << out;
  writeAt(image, 18432, buildTinyVolume({.name = "Logical One"}));

  OpenedDrive drive{std::filesystem::path(image)};
  auto volumes = drive.partitions();
  const auto expected = mmlsRows(image, isDosHfs);
  EXPECT_EQ(expected.size(), 3u);
  EXPECT_EQ(spansOf(volumes), expected);
  ASSERT_EQ(volumes.size(), 3u);
  EXPECT_EQ(volumes[0].dict()->string("Volume Name"), "Untitled 1");
  EXPECT_EQ(volumes[1].dict()->string("Volume Name"), "Logical One");
  EXPECT_EQ(volumes[2].dict()->string("Volume Name"), "Untitled 3");
}

TEST(OtherTools, SgdiskGptAgreesWithMmls) {
  if (!haveTool("sgdisk") || !haveTool("mmls")) GTEST_SKIP() << "sgdisk or mmls not installed";
  TempDir dir;
  const std::string image = (dir / "gpt.img").string();
  makeSparseFile(image, 32ull << 20);
  std::string out;
  ASSERT_EQ(runCommand("sgdisk -n1:2048:+4M -t1:AF00 -c1:hfsone -n2:0:+2M -t2:8300 -c2:linux "
                       "-n3:0:+1M -t3:AF00 -c3:hfsthree '" + image + "' 2>&1",
                       &out),
            0)
      << out;
  writeAt(image, 2048, buildTinyVolume({.name = "From Catalog"}));
  OpenedDrive drive{std::filesystem::path(image)};
  auto volumes = drive.partitions();
  const auto expected = mmlsRows(image, [](const std::string& d) { return d == "hfsone" || d == "hfsthree"; });
  EXPECT_EQ(expected.size(), 2u);
  EXPECT_EQ(spansOf(volumes), expected);
  ASSERT_EQ(volumes.size(), 2u);
  EXPECT_EQ(volumes[0].dict()->string("Volume Name"), "From Catalog");
  EXPECT_EQ(volumes[1].dict()->string("Volume Name").substr(0, 8), "hfsthree");
}

TEST(OtherTools, XorrisoHfsPlusInAnApplePartitionMap) {
  if (!haveTool("xorriso") || !haveTool("mmls")) GTEST_SKIP() << "xorriso or mmls not installed";
  TempDir dir;
  std::filesystem::create_directories(dir / "src" / "folder");
  std::ofstream(dir / "src" / "a.txt") << "hello";
  std::ofstream(dir / "src" / "folder" / "b.txt") << "world";
  const std::string image = (dir / "x.iso").string();
  std::string out;
  ASSERT_EQ(runCommand("xorriso -as mkisofs -hfsplus -V ORACLEVOL -o '" + image + "' '" + (dir / "src").string() +
                           "' 2>&1",
                       &out),
            0)
      << out;
  OpenedDrive drive{std::filesystem::path(image)};
  auto volumes = drive.partitions();
  const auto expected = mmlsRows(image, isMacHfs);
  ASSERT_EQ(expected.size(), 1u);
  EXPECT_EQ(spansOf(volumes), expected);
  ASSERT_EQ(volumes.size(), 1u);
  EXPECT_EQ(volumes[0].dict()->string("Volume Name"), "ORACLEVOL");
  OpenedDrive searched{std::filesystem::path(image)};
  EXPECT_EQ(validFound(searched), expected);
}

// Real images of ../shared/testdata, unpacked into a scratch folder.
class RealImages : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = sharedTestData();
    if (root_.empty()) GTEST_SKIP() << "shared test data not present";
    if (!haveTool("mmls")) GTEST_SKIP() << "mmls not installed";
  }

  // The image at `relative`, unpacked when it is gzip'ed or 7-zipped; empty
  // when it or its unpacker is missing.
  std::string unpacked(const std::string& relative) {
    const auto source = root_ / relative;
    if (!std::filesystem::exists(source)) return {};
    const std::string ext = source.extension().string();
    if (ext == ".gz") {
      const std::string out = (dir_ / source.stem()).string();
      if (runCommand("gzip -dc '" + source.string() + "' > '" + out + "'") != 0) return {};
      return out;
    }
    if (ext == ".7z") {
      if (!haveTool("7z")) return {};
      if (runCommand("7z x -y -o'" + dir_.path().string() + "' '" + source.string() + "' >/dev/null") != 0) return {};
      return (dir_ / source.stem()).string();
    }
    return source.string();
  }

  std::filesystem::path root_;
  TempDir dir_;
};

TEST_F(RealImages, TablesAgreeWithMmls) {
  struct Case {
    const char* file;
    bool (*hfs)(const std::string&);
    size_t volumes;
  };
  const Case cases[] = {
      {"hfs_images/hfsinspect/MBR.dmg.7z", isDosHfs, 1},
      {"hfs_images/disktype-sampler/udif-udrw.image.gz", isMacHfs, 1},
      {"partition_tables/disktype-sampler/dos-partitions-extended.image.gz", isDosHfs, 0},
      {"partition_tables/disktype-sampler/dos-partitions-primary.image.gz", isDosHfs, 0},
      {"partition_tables/dfvfs/mbr.raw", isDosHfs, 0},
  };
  int ran = 0;
  for (const Case& c : cases) {
    const std::string image = unpacked(c.file);
    if (image.empty()) continue;
    ++ran;
    OpenedDrive drive{std::filesystem::path(image)};
    auto volumes = drive.partitions();
    EXPECT_EQ(volumes.size(), c.volumes) << c.file;
    EXPECT_EQ(spansOf(volumes), mmlsRows(image, c.hfs)) << c.file;
  }
  if (ran == 0) GTEST_SKIP() << "none of the images is present";
}

TEST_F(RealImages, GptImagesAndTheirNames) {
  struct Case {
    const char* file;
    uint64_t start, length;
    const char* name;
  };
  // mmls shows GPT names, not types: the HFS+ rows are these.
  const Case cases[] = {
      {"hfs_images/hfsinspect/test.img.gz", 40, 204720, "Test HFS Plus Volume"},
      {"hfs_images/shockpkg-archive-files/test-archive-hfsp.DERIVED.raw.gz", 40, 4480, "test-archive-hfsp"},
      {"hfs_images/shockpkg-archive-files/test-archive-hfsp-c.DERIVED.raw.gz", 40, 4480, "test-archive-hfsp-c"},
      {"hfs_images/dfvfs/hfsplus_zlib.DERIVED.raw.gz", 40, 3744, "hfsplus_test"},
  };
  int ran = 0;
  for (const Case& c : cases) {
    const std::string image = unpacked(c.file);
    if (image.empty()) continue;
    ++ran;
    OpenedDrive drive{std::filesystem::path(image)};
    auto volumes = drive.partitions();
    ASSERT_EQ(volumes.size(), 1u) << c.file;
    EXPECT_EQ(spansOf(volumes), (std::set<Span>{{c.start, c.length}})) << c.file;
    EXPECT_TRUE(mmlsRows(image, [](const std::string&) { return true; }).count({c.start, c.length})) << c.file;
    EXPECT_EQ(volumes[0].dict()->string("Volume Name"), c.name) << c.file;
    OpenedDrive searched{std::filesystem::path(image)};
    EXPECT_EQ(validFound(searched), (std::set<Span>{{c.start, c.length}})) << c.file;
  }
  for (const char* empty : {"partition_tables/disktype-sampler/gpt.image.gz",
                            "partition_tables/disktype-sampler/gpt-empty.image.gz"}) {
    const std::string image = unpacked(empty);
    if (image.empty()) continue;
    ++ran;
    OpenedDrive drive{std::filesystem::path(image)};
    EXPECT_TRUE(drive.partitions().empty()) << empty;
  }
  if (ran == 0) GTEST_SKIP() << "none of the images is present";
}

TEST_F(RealImages, SearchOfTheMbrImageRejectsJournalCopiesOfTheHeader) {
  const std::string image = unpacked("hfs_images/hfsinspect/MBR.dmg.7z");
  if (image.empty()) GTEST_SKIP() << "MBR.dmg or 7z missing";
  OpenedDrive drive{std::filesystem::path(image)};
  EXPECT_EQ(validFound(drive), mmlsRows(image, isDosHfs));
  PlistArray quickVolumes, quickRows;
  OpenedDrive quick{std::filesystem::path(image)};
  quick.media->initializeForVolumeQuickScan({&quick.controller, &quickVolumes, &quickRows});
  ASSERT_EQ(quickRows.size(), 1u);
  EXPECT_EQ(quickRows[0].dict()->string("Found Column"), "Volume Start Signature Found At Sector: 63");
}

TEST_F(RealImages, HfsWrapperNamedFromItsEmbeddedVolume) {
  // The wrapper image has no partition map; give it one around sector 64.
  const std::string wrapped = unpacked("hfs_images/disktype-sampler/hfs-plus-wrapped.image.gz");
  if (wrapped.empty()) GTEST_SKIP() << "wrapper image missing";
  std::ifstream in(wrapped, std::ios::binary);
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  Drive d(64 + bytes.size() / 512);
  writeApm(d, {{"Wrapped", "Apple_HFS", 64, static_cast<uint32_t>(bytes.size() / 512)}});
  d.place(64, bytes);
  OpenedDrive drive(d);
  auto volumes = drive.partitions();
  ASSERT_EQ(volumes.size(), 1u);
  // The embedded volume's root folder is named like the wrapper here; its
  // start proves the embedded header was reached.
  EXPECT_EQ(volumes[0].dict()->string("Volume Name"), "HFS Plus Wrapped");
  EXPECT_EQ(drive.media->HPlusVolStart, 64u + 45056 / 512);
  EXPECT_EQ(drive.media->vib.signature, kHFSPlusSigWord);
}

}  // namespace
}  // namespace ambrel::test
