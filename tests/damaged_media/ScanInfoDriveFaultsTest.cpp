// A scan info file whose drive is gone, has become shorter than when it was
// scanned, or disappears while the saved tree is read from it: the command
// line says so, and no file is saved looking whole when it is not.
#include <fmt/format.h>

#include <filesystem>

#include "Damaged.h"

namespace ambrel::test {
namespace {

namespace fs = std::filesystem;

constexpr int kExitCannotStart = 2, kExitReadErrors = 3, kExitDriveGone = 4;
const char* const kFiles[] = {"a.txt", "b.txt", "c.txt", "d.txt"};

// Four files of 40,000 bytes, one after the other on the drive.
struct ScannedDrive {
  BuiltDrive drive;
  std::string asi;
  ScannedDrive()
      : drive([] {
          mk::VolumeSpec v;
          v.name = "Kept";
          std::vector<mk::EntrySpec> files;
          for (const char* name : kFiles) files.push_back(sizedFile(name, 40000));
          v.root = {folderOf("Docs", std::move(files))};
          mk::DriveSpec d;
          mk::PartitionSpec p;
          p.volume = v;
          d.partitions.push_back(p);
          return d;
        }()),
        asi((drive.dir / "scan.asi").string()) {
    const CliRun r = runCli("tree " + shellQuoted(drive.path) + " --save-scan-info " + shellQuoted(asi));
    EXPECT_EQ(r.status, 0) << r.err;
  }
  const mk::FileLayout& file(const std::string& name) const { return *drive.volume().find("Docs/" + name); }
  // The byte where a file's data begins on the drive.
  uint64_t byteOf(const std::string& name) const {
    return drive.volume().blockToSector(file(name).dataExtents.at(0).startBlock) * 512;
  }
  CliRun recover(const fs::path& out, const std::string& faults = "") const {
    return runCli("recover " + shellQuoted(asi) + " --out " + shellQuoted(out.string()), faults);
  }
};

// What was saved under `out`: the files whole under their own names, the
// others absent or kept under a name that says they are incomplete; each
// one not saved whole is named in the message. Returns the files saved whole.
int checkSaved(const ScannedDrive& d, const fs::path& out, const CliRun& r) {
  const fs::path docs = out / "Root" / "Docs";
  int whole = 0;
  for (const char* name : kFiles) {
    SCOPED_TRACE(name);
    const auto& f = d.file(name);
    if (fs::exists(docs / name)) {
      EXPECT_TRUE(readFile(docs / name) == mk::generatedBytes(f.dataSeed, f.dataSize)) << "saved wrong";
      ++whole;
    } else {
      EXPECT_NE(r.err.find(fmt::format("/Root/Docs/{}", name)), std::string::npos) << r.err;
    }
  }
  if (fs::exists(docs))
    for (const auto& e : fs::directory_iterator(docs)) {
      const std::string name = e.path().filename().string();
      EXPECT_TRUE(name.size() == 5 || name.find("(incomplete)") != std::string::npos) << name << " left behind";
    }
  return whole;
}

TEST(ScanInfoOfAFailingDrive, GoneIsToldAndNothingIsSaved) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  ScannedDrive d;
  const std::string gone = d.drive.path + ".away";
  fs::rename(d.drive.path, gone);
  const fs::path out = d.drive.dir / "out";
  const CliRun r = d.recover(out);
  EXPECT_EQ(r.status, kExitCannotStart) << r.err;
  EXPECT_NE(r.err.find("Drive Not Connected: "), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("recorded drive: " + d.drive.path), std::string::npos) << r.err;
  EXPECT_FALSE(fs::exists(out));
  // Named under a path that does not open: said, and nothing saved either.
  const CliRun named = runCli("recover " + shellQuoted(d.asi) + " --drive " + shellQuoted(d.drive.path) + " --out " +
                              shellQuoted(out.string()));
  EXPECT_EQ(named.status, kExitCannotStart) << named.err;
  EXPECT_NE(named.err.find("cannot open " + d.drive.path + ": No such file or directory"), std::string::npos)
      << named.err;
  EXPECT_FALSE(fs::exists(out));
  // The file itself still opens: its tree lists without the drive.
  const CliRun listed = runCli("tree " + shellQuoted(d.asi));
  EXPECT_EQ(listed.status, 0) << listed.err;
  EXPECT_NE(listed.out.find("/Root/Docs/d.txt\tfile"), std::string::npos) << listed.out;
}

TEST(ScanInfoOfAFailingDrive, ShorterThanTheFileSaysCostsTheFilesPastItsEnd) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  ScannedDrive d;
  // Cut half-way through c.txt: a and b are whole, c is cut, d is gone.
  d.drive.truncateTo(d.byteOf("c.txt") + 20480);
  const fs::path out = d.drive.dir / "out";
  const CliRun r = d.recover(out);
  EXPECT_EQ(r.status, kExitReadErrors) << r.err;
  EXPECT_EQ(r.err.find("Sanitizer"), std::string::npos) << r.err;
  EXPECT_EQ(checkSaved(d, out, r), 2);
  EXPECT_NE(r.err.find("could not read /Root/Docs/c.txt"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("could not read /Root/Docs/d.txt"), std::string::npos) << r.err;

  // Cut before the sectors that tell the drive apart: not the same drive.
  d.drive.truncateTo(1024);
  const fs::path out2 = d.drive.dir / "out2";
  const CliRun shortest = d.recover(out2);
  EXPECT_EQ(shortest.status, kExitCannotStart) << shortest.err;
  EXPECT_NE(shortest.err.find("Drive Not Connected: "), std::string::npos) << shortest.err;
  EXPECT_FALSE(fs::exists(out2));
}

TEST(ScanInfoOfAFailingDrive, VanishingWhileItsTreeIsSavedKeepsWhatCameBefore) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  ScannedDrive d;
  // Lost at the first sector of c.txt.
  const fs::path out = d.drive.dir / "out";
  const CliRun r = d.recover(out, fmt::format("vanish:{}", d.byteOf("c.txt") / 512));
  EXPECT_EQ(r.status, kExitDriveGone) << r.err;
  EXPECT_NE(r.err.find("The Drive or Volume being read is no longer available."), std::string::npos) << r.err;
  EXPECT_EQ(checkSaved(d, out, r), 2);

  // Lost at the first look, while the drive is matched to the file.
  const fs::path out2 = d.drive.dir / "out2";
  const CliRun first = d.recover(out2, "vanish-after:0");
  EXPECT_EQ(first.status, kExitCannotStart) << first.err;
  EXPECT_NE(first.err.find("Drive Not Connected: "), std::string::npos) << first.err;
  EXPECT_FALSE(fs::exists(out2));
}

}  // namespace
}  // namespace ambrel::test
