// Discovery on the machine the tests run on: its udev database (or sysfs
// alone), and a real loop device where the machine lets us make one.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "ImageBuilder.h"
#include "media/DMedia.h"
#include "media/DeviceAccess.h"
#include "media/DriveFinder.h"
#include "media/DriveList.h"
#include "support/RecordingController.h"
#include "support/TempDir.h"

namespace ambrel {
namespace {

namespace fs = std::filesystem;
namespace mk = ambrel::mkimage;
using namespace test;

std::vector<std::string> pathsOf(const PlistArray& list) {
  std::vector<std::string> out;
  for (const auto& d : list) out.push_back(d.dict()->string("device path"));
  return out;
}

// The access modes of this process's descriptors open on `path`.
std::vector<int> openModesOf(const std::string& path) {
  std::vector<int> modes;
  std::error_code ec;
  for (fs::directory_iterator it("/proc/self/fd", ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code ec2;
    if (fs::read_symlink(it->path(), ec2) != path || ec2) continue;
    std::ifstream info("/proc/self/fdinfo/" + it->path().filename().string());
    for (std::string key; info >> key;) {
      if (key != "flags:") continue;
      std::string octal;
      info >> octal;
      modes.push_back(static_cast<int>(std::stoul(octal, nullptr, 8)) & O_ACCMODE);
      break;
    }
  }
  return modes;
}

TEST(RealMachine, EveryListedDriveOpensReadOnlyOrSaysHowToGetAccess) {
  const DriveLists lists = initialDriveList();
  size_t opened = 0;
  std::vector<std::string> refused;
  for (const PlistArray* list : {&lists.driveDictArray, &lists.volumeDictArray}) {
    for (const auto& item : *list) {
      const PlistDict& d = *item.dict();
      const std::string path = d.string("device path");
      ASSERT_FALSE(path.empty());
      EXPECT_TRUE(d.contains("device size")) << path;
      const int probe = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
      const int error = errno;
      if (probe >= 0) ::close(probe);
      RecordingController controller;
      controller.drives = lists.driveDictArray;
      controller.volumes = lists.volumeDictArray;
      DMedia media(d, &controller);
      if (probe < 0) {
        ASSERT_TRUE(error == EACCES || error == EPERM) << path << ": " << std::strerror(error);
        refused.push_back(path);
        uint8_t sector[512];
        EXPECT_FALSE(media.readSector(0, 1, sector));
        ASSERT_EQ(controller.alerts.size(), 1u);
        EXPECT_EQ(controller.alerts[0].message.rfind("A valid fileDesc could not be obtained for drive: " + path, 0), 0u);
        EXPECT_NE(controller.alerts[0].message.find(deviceAccessHint(path)), std::string::npos);
        EXPECT_NE(openFailureText(path, error).find("access denied"), std::string::npos);
        continue;
      }
      ASSERT_TRUE(media.isOpen()) << path;
      EXPECT_EQ(openModesOf(path), std::vector<int>{O_RDONLY}) << path;
      uint8_t sector[512];
      EXPECT_TRUE(media.readSector(0, 1, sector)) << path;
      ++opened;
    }
  }
  // libudev and sysfs alone list the same drives.
  DiscoveryRoots sysfsOnly;
  sysfsOnly.useUdev = false;
  EXPECT_EQ(pathsOf(initialDriveList(sysfsOnly).driveDictArray), pathsOf(lists.driveDictArray));
  if (opened == 0 && !refused.empty())
    GTEST_SKIP() << "this machine lets no process read its drives (" << refused.front() << ": "
                 << deviceAccessHint(refused.front()) << ")";
}

// A loop device bound to an image, detached when the test ends.
struct LoopDevice {
  std::string path;
  explicit LoopDevice(const std::string& image) {
    std::string out;
    if (runCommand("losetup -f --show -r -P '" + image + "' 2>/dev/null", &out) == 0 && out.rfind("/dev/loop", 0) == 0)
      path = out.substr(0, out.find('\n'));
  }
  ~LoopDevice() {
    if (!path.empty()) runCommand("losetup -d " + path);
  }
  std::string name() const { return fs::path(path).filename().string(); }
};

TEST(RealLoopDevice, ImageOnALoopDeviceIsNotADriveButOpensWithItsIdentity) {
  if (::geteuid() != 0 || !haveTool("losetup")) GTEST_SKIP() << "making loop devices needs root and losetup";
  TempDir dir;
  mk::DriveSpec spec;
  spec.table = mk::TableKind::GPT;
  mk::PartitionSpec p;
  p.volume = mk::VolumeSpec{};
  p.volume->name = "Loop Test";
  p.volume->journal = true;
  spec.partitions = {p};
  const std::string image = (dir / "loop.img").string();
  mk::buildImage(spec, image);
  LoopDevice loop(image);
  if (loop.path.empty()) GTEST_SKIP() << "this machine does not let the test bind a loop device";
  const std::string partition = loop.path + "p1";
  // The kernel reads the table in its own time.
  for (int i = 0; i < 20 && !fs::exists("/sys/class/block/" + loop.name() + "p1"); ++i) usleep(100000);

  const DriveLists lists = initialDriveList();
  for (const auto& d : lists.responseFindMedia) EXPECT_NE(d.dict()->string("device path"), loop.path);
  for (const auto& d : lists.driveDictArray) EXPECT_NE(d.dict()->string("device path"), loop.path);
  for (const auto& v : lists.volumeDictArray) EXPECT_NE(v.dict()->string("device path"), partition);
  if (fs::exists("/sys/class/block/" + loop.name() + "p1")) {
    bool found = false;
    for (const auto& d : lists.responseFindMedia) {
      if (d.dict()->string("device path") != partition) continue;
      found = true;
      EXPECT_TRUE(d.dict()->boolean("WhetherVolume"));
      EXPECT_EQ(d.dict()->string("Content"), "Apple_HFS");
    }
    EXPECT_TRUE(found) << "the partition of the bound image was not among the media";
  }

  // Opened directly by path: its size, and no model or serial to claim.
  std::string error;
  const PlistDict dict = driveDictionaryWithIdentity(loop.path, error);
  ASSERT_FALSE(dict.empty()) << error;
  EXPECT_EQ(dict.u64("device size"), fs::file_size(image));
  EXPECT_EQ(dict.string("device model"), "-");
  EXPECT_EQ(dict.string("device serial"), "-");
  DMedia media(dict, nullptr);
  ASSERT_TRUE(media.isOpen());
  EXPECT_EQ(openModesOf(loop.path), std::vector<int>{O_RDONLY});
  std::vector<uint8_t> first(2560);
  ASSERT_TRUE(media.readSector(0, 5, first.data()));
  auto bytes = readFile(image);
  bytes.resize(2560);
  EXPECT_EQ(first, bytes);
}

}  // namespace
}  // namespace ambrel
