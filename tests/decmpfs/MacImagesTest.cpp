// The shared Mac images whose names suggest compression (hfsplus_zlib, the
// "-c" archives): their files are not HFS+-compressed (the zlib is the disk
// image's own, "-c" the case-sensitive format), so the scans must find no
// compressed file there, and every file saved must match the reference
// hashes The Sleuth Kit recorded for it.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "output/OutputHelpers.h"

namespace ambrel {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

std::string md5Of(const fs::path& file) {
  std::string out;
  test::runCommand("md5sum '" + file.string() + "'", &out);
  return out.substr(0, 32);
}

TEST(SharedMacImages, NoCompressedFilesAndEverySavedFileMatchesItsReferenceHash) {
  const auto data = test::sharedTestData();
  if (data.empty()) GTEST_SKIP() << "shared test data not present";
  if (!test::haveTool("md5sum")) GTEST_SKIP() << "md5sum missing";
  struct Image {
    const char* file;
    const char* hashes;
    uint64_t start;
  };
  const Image images[] = {
      {"dfvfs/hfsplus_zlib.DERIVED.raw.gz", "hfsplus_zlib.raw.filehashes.tsv", 40},
      {"shockpkg-archive-files/test-archive-hfsp-c.DERIVED.raw.gz", "test-archive-hfsp-c.raw.filehashes.tsv", 40},
      {"shockpkg-archive-files/test-archive-hfsp-j-c.DERIVED.raw.gz", "test-archive-hfsp-j-c.raw.filehashes.tsv", 40},
  };
  for (const Image& img : images) {
    SCOPED_TRACE(img.file);
    TempDir dir;
    const std::string image = (dir / "image.raw").string();
    ASSERT_EQ(test::runCommand("gzip -dc '" + (data / "hfs_images" / img.file).string() + "' > '" + image + "'"), 0);
    auto scanned = test::scan(image, img.start, fs::file_size(image) / 512 - img.start, "Normal Scan");
    Volume& v = *scanned.volume;
    EXPECT_EQ(v.compressedFiles, 0u);
    EXPECT_EQ(v.compressedUnreadable, 0u);

    test::markAll(v);
    Saver::Options options;
    options.finalAlert = false;
    Saver saver(*v.dirRoot, saveSourceOf(v), nullptr, options);
    const fs::path out = dir / "out";
    fs::create_directories(out);
    const SaveResult r = saver.saveFilesAndFolders(out.string());
    EXPECT_FALSE(r.anyFailure());

    std::ifstream tsv(data / "reference_outputs" / img.hashes);
    size_t checked = 0;
    for (std::string line; std::getline(tsv, line);) {
      if (line.empty() || line[0] == '#') continue;
      std::istringstream fields(line);
      std::string type, inode, dataSize, dataMd5, rsrcSize, rsrcMd5, path;
      fields >> type >> inode >> dataSize >> dataMd5 >> rsrcSize >> rsrcMd5;
      std::getline(fields >> std::ws, path);
      // Files the scan leaves out of the tree on purpose.
      if (path == ".journal" || path == ".journal_info_block") continue;
      const fs::path saved = out / "Root" / path;
      if (type == "l/l") {
        // A symbolic link is saved as one; its data fork is its target.
        ASSERT_TRUE(fs::is_symlink(saved)) << path;
        const std::string target = fs::read_symlink(saved).string();
        const fs::path copy = dir / "target";
        std::ofstream(copy, std::ios::binary) << target;
        EXPECT_EQ(md5Of(copy), dataMd5) << path;
      } else if (dataSize == "0") {
        EXPECT_TRUE(!fs::exists(saved) || fs::file_size(saved) == 0) << path;
      } else {
        ASSERT_TRUE(fs::exists(saved)) << path;
        EXPECT_EQ(md5Of(saved), dataMd5) << path;
      }
      ++checked;
    }
    EXPECT_GE(checked, 5u);
  }
}

}  // namespace
}  // namespace ambrel
