// `ambrel-cli recover`: volumes by number, patterns, scan info files, and the
// exit status when something could not be saved.
#include <gtest/gtest.h>

#include <fstream>

#include "output/OutputHelpers.h"
#include "support/CliRun.h"
#include "scaninfo/VolumeScanInfo.h"

using namespace ambrel;
using namespace ambrel::test;
namespace fs = std::filesystem;

namespace {

int recover(const std::string& args, std::string& out, const std::string& prefix = "") {
  return runCli("recover " + args, out, prefix);
}

mk::VolumeSpec sampleVolume(const std::string& name, uint64_t seed) {
  mk::VolumeSpec v;
  v.name = name;
  v.seed = seed;
  v.root = {folderOf("Docs", {fileSpec("a.txt", 1200), fileSpec("b.pdf", 50000)}),
            folderOf("Pics", {fileSpec("c.jpg", 300000, 0, 3), fileSpec("notes.txt", 10, 700)})};
  return v;
}

}  // namespace

TEST(CliRecover, SavesTheChosenVolumeAndWhatThePatternsSelect) {
  TempDir dir;
  mk::DriveSpec drive;
  drive.table = mk::TableKind::GPT;
  mk::PartitionSpec p1, p2;
  p1.volume = sampleVolume("First", 1);
  p2.volume = sampleVolume("Second", 2);
  drive.partitions = {p1, p2};
  const std::string image = (dir / "gpt.img").string();
  const auto layout = mk::buildImage(drive, image);
  const auto& second = *layout.partitions[1].volume;

  std::string out;
  const fs::path all = dir / "all";
  ASSERT_EQ(recover("'" + image + "' --volume 2 --out '" + all.string() + "'", out), 0) << out;
  EXPECT_NE(out.find("Saved " + all.string() + ": 4 files, 351910 bytes"), std::string::npos) << out;
  EXPECT_NE(out.find("Failures: 0 creates, 0 writes, 0 reads"), std::string::npos) << out;
  for (const char* path : {"Docs/a.txt", "Docs/b.pdf", "Pics/c.jpg", "Pics/notes.txt"}) {
    const auto* f = second.find(path);
    ASSERT_NE(f, nullptr) << path;
    EXPECT_EQ(readFile(all / "Root" / path), mk::generatedBytes(f->dataSeed, f->dataSize)) << path;
  }
  EXPECT_TRUE(fs::exists(all / "Root/Pics/._notes.txt"));

  const fs::path some = dir / "some";
  ASSERT_EQ(recover("'" + image + "' --out '" + some.string() + "' --select '*.txt' --select '*/Pics/c.jpg'", out), 0)
      << out;
  EXPECT_EQ(pathsUnder(some), (std::set<std::string>{"Root", "Root/Docs", "Root/Docs/a.txt", "Root/Pics",
                                                      "Root/Pics/c.jpg", "Root/Pics/notes.txt",
                                                      "Root/Pics/._notes.txt"}));
  // Volume 1 this time: its own content.
  EXPECT_EQ(readFile(some / "Root/Pics/c.jpg"),
            mk::generatedBytes(layout.partitions[0].volume->find("Pics/c.jpg")->dataSeed, 300000));

  EXPECT_EQ(recover("'" + image + "' --out '" + (dir / "none").string() + "' --select '*.mov'", out), 1);
  EXPECT_NE(out.find("no recovered entry matches"), std::string::npos) << out;

  writeFile(dir / "plain-file", {1});
  EXPECT_EQ(recover("'" + image + "' --out '" + (dir / "plain-file").string() + "'", out), 2);
  EXPECT_NE(out.find("! Can not save"), std::string::npos) << out;
}

TEST(CliRecover, FailedWritesMakeTheExitStatusNonZero) {
  TempDir dir;
  mk::DriveSpec drive;
  drive.table = mk::TableKind::None;
  drive.volume = sampleVolume("Vol", 3);
  const std::string image = (dir / "bare.img").string();
  mk::buildImage(drive, image);
  std::string out;
  // 100 blocks of 512 bytes at most per file: c.jpg cannot be written whole.
  const int rc = recover("'" + image + "' --out '" + (dir / "out").string() + "'", out, "trap '' XFSZ; ulimit -f 100; ");
  EXPECT_EQ(rc, 1) << out;
  EXPECT_NE(out.find("Failures: 0 creates, 1 writes, 0 reads"), std::string::npos) << out;
  EXPECT_NE(out.find("failed: could not write \"c.jpg\" for /Root/Pics/c.jpg"), std::string::npos) << out;
  EXPECT_EQ(fs::file_size(dir / "out/Root/Docs/b.pdf"), 50000u);
}

TEST(CliRecover, SavesFromAScanInfoFileOnlyWithItsOwnDrive) {
  TempDir dir;
  mk::DriveSpec drive;
  drive.table = mk::TableKind::None;
  drive.volume = sampleVolume("Vol", 4);
  const std::string image = (dir / "bare.img").string();
  const auto layout = mk::buildImage(drive, image);
  const uint64_t sectors = fs::file_size(image) / 512;
  ScanResult scanned = scan(image, 0, sectors, "Normal Scan");
  ASSERT_NE(scanned.volume->dirRoot, nullptr);
  const std::string asi = (dir / "scan.asi").string();
  ASSERT_FALSE(saveScanInfo(asi, *scanned.volume, PlistArray{volumeDict(image, 0, sectors)}, scanned.controller.get()));

  std::string out;
  const fs::path dest = dir / "out";
  ASSERT_EQ(recover("'" + asi + "' --out '" + dest.string() + "' --select '*/Docs'", out), 0) << out;
  EXPECT_EQ(pathsUnder(dest), (std::set<std::string>{"Root", "Root/Docs", "Root/Docs/a.txt", "Root/Docs/b.pdf"}));
  const auto* b = layout.volume->find("Docs/b.pdf");
  EXPECT_EQ(readFile(dest / "Root/Docs/b.pdf"), mk::generatedBytes(b->dataSeed, b->dataSize));

  // The drive's first sectors changed: not the drive the file was made from.
  {
    std::fstream f(image, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(100);
    f.put('\x5A');
  }
  EXPECT_EQ(recover("'" + asi + "' --out '" + (dir / "again").string() + "'", out), 2);
  EXPECT_NE(out.find("Drive Not Connected"), std::string::npos) << out;
  EXPECT_FALSE(fs::exists(dir / "again/Root"));
}
