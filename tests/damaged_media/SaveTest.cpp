// Files whose blocks lie past the drive's end (a truncated image, a catalog
// that points beyond the drive): they cannot be saved, and saving must say so
// and name them, never write zeros and call it done.
#include <filesystem>

#include "Damaged.h"

namespace ambrel::test {
namespace {

// Three files in folders of their own; the image ends where the second one's
// data begins, so the second and third lie wholly past it.
struct CutAfterTheFirstFile {
  BuiltDrive drive;
  explicit CutAfterTheFirstFile()
      : drive([] {
          mk::VolumeSpec v;
          v.name = "Cut";
          v.root = {folderOf("x", {sizedFile("a.txt", 700)}), folderOf("y", {sizedFile("b.bin", 20000)}),
                    folderOf("z", {sizedFile("c.bin", 30000)})};
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

// (Saving from a scan info file of a drive that has since become shorter:
// ScanInfoOfAFailingDrive.)
TEST(ExtentsPastTheDrive, RecoverCountsThemAsReadFailuresAndNamesTheFiles) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  CutAfterTheFirstFile cut;
  const auto out = cut.drive.dir / "out";
  expectNamedAsUnreadable(runCli("recover " + shellQuoted(cut.drive.path) + " --out " + shellQuoted(out.string())), out);
}

}  // namespace
}  // namespace ambrel::test
