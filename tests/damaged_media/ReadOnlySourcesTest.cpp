// A drive being recovered is never written: every descriptor the program
// holds on it was opened read-only, so that even a bug cannot write through it.
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

#include "Damaged.h"
#include "carving/SignatureSearch.h"

namespace ambrel::test {
namespace {

namespace fs = std::filesystem;

// The descriptors of this process open on `path` (as the kernel names it).
std::vector<int> descriptorsOn(const std::string& path) {
  std::vector<int> out;
  const std::string want = fs::canonical(path).string();
  for (const auto& e : fs::directory_iterator("/proc/self/fd")) {
    std::error_code ec;
    const fs::path target = fs::read_symlink(e.path(), ec);
    if (!ec && target.string() == want) out.push_back(std::stoi(e.path().filename().string()));
  }
  return out;
}

void expectNoWriteGoesThrough(const std::string& source) {
  std::string error;
  const PlistDict drive = driveDictionaryForPath(source, error);
  ASSERT_FALSE(drive.empty()) << error;
  RecordingController controller;
  controller.drives.push_back(drive);
  // The readers of a drive: the partition tables and the volume search, a
  // volume's scan and the signature search over its free blocks.
  DMedia media(drive, &controller);
  PlistArray list;
  media.initialize(list);
  ASSERT_EQ(list.size(), 1u);
  PlistArray volumes, rows;
  media.initializeForVolumeQuickScan({&controller, &volumes, &rows});
  Volume volume(*list[0].dict(), &controller);
  volume.startMakingTree(&controller, "Normal Scan");
  ASSERT_TRUE(volume.dirRoot);
  std::string why;
  ASSERT_TRUE(prepareVolumeForSignatureSearch(volume, why)) << why;

  const std::vector<int> fds = descriptorsOn(source);
  EXPECT_GE(fds.size(), 2u) << "the drive and the volume each keep one";
  const char byte = 'x';
  for (int fd : fds) {
    EXPECT_EQ(::fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY) << "descriptor " << fd;
    errno = 0;
    EXPECT_EQ(::write(fd, &byte, 1), -1);
    EXPECT_EQ(errno, EBADF) << "descriptor " << fd;
    errno = 0;
    EXPECT_EQ(::pwrite(fd, &byte, 1, 0), -1);
    EXPECT_EQ(errno, EBADF) << "descriptor " << fd;
  }
}

// A disk image, then the same drive as a block device (a loop device the
// test attaches writable, so that only the program's own open mode can refuse).
TEST(SourcesNeverWritten, DescriptorsOnADiskImageOrABlockDeviceRefuseWrites) {
  mk::DriveSpec d;
  d.table = mk::TableKind::GPT;
  mk::PartitionSpec p;
  p.volume = generatedVolume(30, 3);
  d.partitions.push_back(p);
  BuiltDrive built(d);
  const std::vector<uint8_t> before = readFile(built.path);
  expectNoWriteGoesThrough(built.path);
  EXPECT_TRUE(readFile(built.path) == before) << "the image changed";

  struct Loop {
    std::string device;
    ~Loop() {
      if (!device.empty()) runCommand("losetup -d '" + device + "'");
    }
  } loop;
  if (runCommand("losetup -f --show '" + built.path + "' 2>/dev/null", &loop.device) != 0 || loop.device.empty()) {
    loop.device.clear();
    GTEST_SKIP() << "no loop device here";
  }
  while (!loop.device.empty() && loop.device.back() == '\n') loop.device.pop_back();
  expectNoWriteGoesThrough(loop.device);
  EXPECT_TRUE(readFile(built.path) == before) << "the image changed";
}

}  // namespace
}  // namespace ambrel::test
