// Files whose blocks lie past the drive's end (a truncated image, a catalog
// or scan info file that points beyond the drive): they cannot be saved, and
// saving must say so and name them, never write zeros and call it done.
#include <filesystem>

#include "Damaged.h"

namespace ambrel::test {
namespace {

mk::EntrySpec folderWith(const std::string& folder, const std::string& file, uint64_t size) {
  mk::EntrySpec f;
  f.name = file;
  f.dataSize = size;
  mk::EntrySpec d;
  d.name = folder;
  d.folder = true;
  d.children.push_back(f);
  return d;
}

// Three files in folders of their own; the image ends where the second one's
// data begins, so the second and third lie wholly past it.
struct CutAfterTheFirstFile {
  BuiltDrive drive;
  explicit CutAfterTheFirstFile()
      : drive([] {
          mk::VolumeSpec v;
          v.name = "Cut";
          v.root = {folderWith("x", "a.txt", 700), folderWith("y", "b.bin", 20000), folderWith("z", "c.bin", 30000)};
          return bareDrive(v);
        }()) {
    const auto* b = drive.volume().find("y/b.bin");
    const auto* c = drive.volume().find("z/c.bin");
    EXPECT_TRUE(b && c);
    const uint32_t first = std::min(b->dataExtents.at(0).startBlock, c->dataExtents.at(0).startBlock);
    for (const auto& ext : drive.volume().catalog.extents)
      EXPECT_LE(ext.startBlock + ext.blockCount, first) << "the catalog must stay on the image";
    drive.truncateTo(drive.volume().blockToSector(first) * 512);
  }
};

void expectNamedAsUnreadable(const CliRun& r, const std::filesystem::path& out) {
  EXPECT_EQ(r.status, 3) << r.out << r.err;  // finished with read errors
  EXPECT_EQ(r.out.find("0 reads"), std::string::npos) << r.out;
  EXPECT_NE(r.err.find("could not read /Root/y/b.bin"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("could not read /Root/z/c.bin"), std::string::npos) << r.err;
  const std::vector<uint8_t> a = readFile(out / "Root" / "x" / "a.txt");
  EXPECT_EQ(a.size(), 700u);
  // Nothing of the unreadable files may pass for a whole saved file.
  for (const char* lost : {"y/b.bin", "z/c.bin"}) {
    std::error_code ec;
    const auto size = std::filesystem::file_size(out / "Root" / lost, ec);
    EXPECT_TRUE(ec || size == 0) << lost << " saved with " << size << " bytes";
  }
}

TEST(ExtentsPastTheDrive, RecoverCountsThemAsReadFailuresAndNamesTheFiles) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  CutAfterTheFirstFile cut;
  const auto out = cut.drive.dir / "out";
  const CliRun r = runCli("recover " + shellQuoted(cut.drive.path) + " --out " + shellQuoted(out.string()));
  expectNamedAsUnreadable(r, out);
}

TEST(ExtentsPastTheDrive, RecoverFromAScanInfoFileCountsThemToo) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  CutAfterTheFirstFile cut;
  const auto asi = cut.drive.dir / "cut.asi";
  const CliRun saved = runCli("tree " + shellQuoted(cut.drive.path) + " --save-scan-info " + shellQuoted(asi.string()));
  ASSERT_TRUE(std::filesystem::exists(asi)) << saved.err;
  const auto out = cut.drive.dir / "out";
  const CliRun r = runCli("recover " + shellQuoted(asi.string()) + " --out " + shellQuoted(out.string()));
  expectNamedAsUnreadable(r, out);
}

}  // namespace
}  // namespace ambrel::test
