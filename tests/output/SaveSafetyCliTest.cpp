// What `ambrel-cli` writes, and refuses to write, when saving goes wrong or
// its arguments point somewhere dangerous.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "output/OutputHelpers.h"
#include "support/CliRun.h"
#include "scaninfo/VolumeScanInfo.h"
#include "tree/CheckController.h"

using namespace ambrel;
using namespace ambrel::test;
namespace fs = std::filesystem;

namespace {

std::string bareImage(const fs::path& dir, std::vector<mk::EntrySpec> root) {
  mk::DriveSpec drive;
  drive.table = mk::TableKind::None;
  drive.volume = mk::VolumeSpec{};
  drive.volume->name = "Vol";
  drive.volume->root = std::move(root);
  const std::string image = (dir / "bare.img").string();
  mk::buildImage(drive, image);
  return image;
}

}  // namespace

TEST(SaveSafety, DataFilesWereSavedExecutable) {
  TempDir dir;
  mk::EntrySpec tool = fileSpec("run.sh", 40);
  tool.mode = 0755;
  const std::string image =
      bareImage(dir.path(), {folderOf("Docs", {fileSpec("a.txt", 1200)}), fileSpec("b.bin", 10), tool});
  std::string out;
  const fs::path dest = dir / "out";
  ASSERT_EQ(runCli("recover '" + image + "' --out '" + dest.string() + "'", out, "umask 022; "), 0) << out;
  // Executable only where the catalog says so.
  for (const auto& [p, mode] : {std::pair{"Root/Docs/a.txt", 0644u}, {"Root/b.bin", 0644u}, {"Root/run.sh", 0755u}}) {
    struct stat st {};
    ASSERT_EQ(::stat((dest / p).c_str(), &st), 0) << p;
    EXPECT_EQ(st.st_mode & 07777, mode) << p;
  }
}

TEST(SaveSafety, ScanInfoFileOverwroteTheScannedDrive) {
  TempDir dir;
  const std::string image = bareImage(dir.path(), {fileSpec("a.txt", 1200)});
  const auto before = readFile(image);
  fs::create_symlink(image, dir / "link.img");
  std::string out;
  for (const std::string& target : {image, (dir / "link.img").string()}) {
    EXPECT_EQ(runCli("tree '" + image + "' --save-scan-info '" + target + "'", out), 2) << target;
    EXPECT_NE(out.find("ambrel-cli: ! Error"), std::string::npos) << out;
  }
  EXPECT_TRUE(readFile(image) == before);
  ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(runCli("tree '" + image + "' --save-scan-info '" + (dir / "pipe").string() + "'", out), 2) << out;
  EXPECT_TRUE(fs::is_fifo(dir / "pipe"));
  EXPECT_EQ(runCli("tree '" + image + "' --save-scan-info '" + dir.path().string() + "'", out), 2) << out;
  // A fine target still works, and leaves no temporary file beside it.
  ASSERT_EQ(runCli("tree '" + image + "' --save-scan-info '" + (dir / "ok.asi").string() + "'", out), 0) << out;
  EXPECT_EQ(pathsUnder(dir.path()), (std::set<std::string>{"bare.img", "pipe", "ok.asi"}));
}

TEST(SaveSafety, ScanInfoFileOverwroteTheImageBehindALoopDevice) {
  if (::geteuid() != 0 || !haveTool("losetup")) GTEST_SKIP() << "making loop devices needs root and losetup";
  TempDir dir;
  const std::string image = bareImage(dir.path(), {fileSpec("a.txt", 1200)});
  const auto before = readFile(image);
  std::string loop;
  if (runCommand("losetup -f --show -r '" + image + "' 2>/dev/null", &loop) != 0 || loop.rfind("/dev/loop", 0) != 0)
    GTEST_SKIP() << "this machine does not let the test bind a loop device";
  loop = loop.substr(0, loop.find('\n'));
  std::string out, outDevice;
  // Scanning the loop device, writing over the file behind it.
  const int rc = runCli("tree '" + loop + "' --save-scan-info '" + image + "'", out);
  // Scanning the file, writing to the loop device over it.
  const int rcDevice = runCli("tree '" + image + "' --save-scan-info '" + loop + "'", outDevice);
  runCommand("losetup -d " + loop);
  EXPECT_EQ(rc, 2) << out;
  EXPECT_NE(out.find("would overwrite the drive being scanned"), std::string::npos) << out;
  EXPECT_EQ(rcDevice, 2) << outDevice;
  EXPECT_NE(outDevice.find("is not a regular file"), std::string::npos) << outDevice;
  EXPECT_TRUE(readFile(image) == before);
}

TEST(SaveSafety, SelectAlsoSavedWhatTheScanInfoFileHadMarked) {
  TempDir dir;
  const std::string image = bareImage(
      dir.path(), {folderOf("Docs", {fileSpec("a.txt", 1200)}), folderOf("Pics", {fileSpec("c.jpg", 3000)})});
  const uint64_t sectors = fs::file_size(image) / 512;
  ScanResult scanned = scan(image, 0, sectors, "Normal Scan");
  ASSERT_NE(scanned.volume->dirRoot, nullptr);
  const HDIR* pics = scanned.volume->dirRoot->firstChildNamed("Pics");
  ASSERT_NE(pics, nullptr);
  CheckController(const_cast<HDIR*>(pics), true).run();
  const std::string asi = (dir / "scan.asi").string();
  ASSERT_FALSE(saveScanInfo(asi, *scanned.volume, PlistArray{volumeDict(image, 0, sectors)}, scanned.controller.get()));
  std::string out;
  const fs::path dest = dir / "out";
  ASSERT_EQ(runCli("recover '" + asi + "' --out '" + dest.string() + "' --select '*/Docs'", out), 0) << out;
  EXPECT_EQ(pathsUnder(dest), (std::set<std::string>{"Root", "Root/Docs", "Root/Docs/a.txt"}));
}

TEST(SaveSafety, OutFolderWasMadeBeforeARefusal) {
  TempDir dir;
  const std::string image = bareImage(dir.path(), {fileSpec("a.txt", 1200)});
  const uint64_t sectors = fs::file_size(image) / 512;
  ScanResult scanned = scan(image, 0, sectors, "Normal Scan");
  ASSERT_NE(scanned.volume->dirRoot, nullptr);
  const std::string asi = (dir / "scan.asi").string();
  ASSERT_FALSE(saveScanInfo(asi, *scanned.volume, PlistArray{volumeDict(image, 0, sectors)}, scanned.controller.get()));
  std::string out;
  // A file that claims a petabyte: no disk has room, and the folder that
  // used to be made before the check stays unmade.
  {
    HDIR* a = scanned.volume->dirRoot->firstChildNamed("a.txt");
    ASSERT_NE(a, nullptr);
    a->dataSize = a->fileSize = uint64_t{1} << 50;
    const std::string huge = (dir / "huge.asi").string();
    ASSERT_FALSE(
        saveScanInfo(huge, *scanned.volume, PlistArray{volumeDict(image, 0, sectors)}, scanned.controller.get()));
    EXPECT_EQ(runCli("recover '" + huge + "' --out '" + (dir / "full/out").string() + "'", out), 2) << out;
    EXPECT_NE(out.find("ambrel-cli: ! Not enough free disk space: "), std::string::npos) << out;
    EXPECT_FALSE(fs::exists(dir / "full"));
  }
  {
    std::fstream f(image, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(100);
    f.put('\x5A');
  }
  EXPECT_EQ(runCli("recover '" + asi + "' --out '" + (dir / "never").string() + "'", out), 2) << out;
  EXPECT_NE(out.find("Drive Not Connected"), std::string::npos) << out;
  EXPECT_FALSE(fs::exists(dir / "never"));
  EXPECT_EQ(runCli("recover '" + image + "' --out '" + (dir / "none").string() + "' --select '*.mov'", out), 1);
  EXPECT_FALSE(fs::exists(dir / "none"));
}

TEST(SaveSafety, FailedResourceForkLeftAnEmptySidecarAndRawNamesReachedTheTerminal) {
  TempDir dir;
  const std::string evil = "evil\x1b]0;owned\x07.txt";
  const std::string image = bareImage(dir.path(), {fileSpec("small.txt", 10, 3000), fileSpec(evil, 5000)});
  std::string out;
  const fs::path dest = dir / "out";
  // 2 blocks of 512 bytes at most per file: the sidecar and the second file
  // cannot be written.
  EXPECT_EQ(runCli("recover '" + image + "' --out '" + dest.string() + "'", out, "trap '' XFSZ; ulimit -f 2; "), 1);
  EXPECT_EQ(pathsUnder(dest), (std::set<std::string>{"Root"})) << out;
  EXPECT_EQ(out.find('\x1b'), std::string::npos) << out;
  EXPECT_EQ(out.find('\x07'), std::string::npos) << out;
  EXPECT_NE(out.find("evil\\x1B]0;owned\\x07.txt"), std::string::npos) << out;
  EXPECT_NE(out.find("Saved " + dest.string() + ": 0 files, 0 bytes"), std::string::npos) << out;
}

TEST(SaveSafety, FreeSpaceCheckCountedFileSizesNotWhatIsWritten) {
  // 20 files of 100 bytes with a resource fork of 100 bytes: 4,000 bytes of
  // fileSize, but 40 files of one 4 KiB page each on a 64 KiB tmpfs. The
  // check passed and the save ran out of space half-way.
  TempDir dir;
  std::vector<mk::EntrySpec> files;
  for (int i = 0; i < 20; ++i) files.push_back(fileSpec("f" + std::to_string(i) + ".txt", 100, 100));
  const std::string image = bareImage(dir.path(), files);
  fs::create_directory(dir / "mnt");
  const std::string onTmpfs = "unshare -rm sh -c 'mount -t tmpfs -o size=64k tmpfs \"" + (dir / "mnt").string() +
                              "\" && exec \"$0\" \"$@\"' ";
  std::string out;
  if (runCommand(onTmpfs + "true 2>&1", &out) != 0) GTEST_SKIP() << "no private tmpfs mount here: " << out;
  EXPECT_EQ(runCli("recover '" + image + "' --out '" + (dir / "mnt/out").string() + "'", out, onTmpfs), 2) << out;
  EXPECT_NE(out.find("ambrel-cli: ! Not enough free disk space: "), std::string::npos) << out;
  EXPECT_EQ(out.find("Saved"), std::string::npos) << out;

  // What fits is saved: 3 files and their sidecars, 6 pages.
  EXPECT_EQ(runCli("recover '" + image + "' --out '" + (dir / "mnt/out").string() + "' --select '*/f1.txt' --select "
                "'*/f2.txt' --select '*/f3.txt'",
                out, onTmpfs),
            0)
      << out;
  EXPECT_NE(out.find("Saved " + (dir / "mnt/out").string() + ": 3 files, 600 bytes"), std::string::npos) << out;
}

TEST(SaveSafety, FilesBelowAFolderThatCouldNotBeMadeWentUncounted) {
  // A tmpfs with room for 4 inodes: its own root, the --out folder, Root and
  // A. The file z and the folder B cannot be created; B's two files are not
  // saved either, and are counted and named with it.
  TempDir dir;
  const std::string image = bareImage(
      dir.path(), {folderOf("A", {folderOf("B", {fileSpec("b1", 10), fileSpec("b2", 10)})}), fileSpec("z", 10)});
  fs::create_directory(dir / "mnt");
  const std::string onTmpfs = "unshare -rm sh -c 'mount -t tmpfs -o size=1m,nr_inodes=4 tmpfs \"" +
                              (dir / "mnt").string() + "\" && exec \"$0\" \"$@\"' ";
  std::string out;
  if (runCommand(onTmpfs + "true 2>&1", &out) != 0) GTEST_SKIP() << "no private tmpfs mount here: " << out;
  const std::string dest = (dir / "mnt/out").string();
  EXPECT_EQ(runCli("recover '" + image + "' --out '" + dest + "'", out, onTmpfs), 1) << out;
  EXPECT_NE(out.find("failed: could not create \"z\" for /Root/z: No space left on device"), std::string::npos) << out;
  EXPECT_NE(out.find("failed: could not create \"B\" for /Root/A/B: No space left on device"), std::string::npos)
      << out;
  EXPECT_NE(out.find("failed: 2 marked files below /Root/A/B were not saved: their folder could not be created"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("Saved " + dest + ": 0 files, 0 bytes"), std::string::npos) << out;
  EXPECT_NE(out.find("Not saved whole: 3 files (0 kept with \"(incomplete)\" in their names, 3 not saved)"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("Failures: 2 creates, 0 writes, 0 reads"), std::string::npos) << out;
}
