// The notification thread: a drive that comes, goes, or a volume mounted
// gives one refresh, after the delay its kind of change waits.
#include <gtest/gtest.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>

#include "drives/Machine.h"
#include "media/DriveList.h"
#include "media/DriveWatcher.h"
#include "support/TempDir.h"

namespace ambrel {
namespace {

using namespace test;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Records every refresh with the drive list it built.
struct Refreshes {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<DriveWatcher::Cause> causes;
  std::vector<Clock::time_point> times;
  std::vector<std::vector<std::string>> drives, volumes;

  DriveWatcher::Refresh callback(const DiscoveryRoots& roots) {
    return [this, roots](DriveWatcher::Cause cause) {
      const DriveLists lists = initialDriveList(roots);
      std::lock_guard lock(mutex);
      causes.push_back(cause);
      times.push_back(Clock::now());
      drives.emplace_back();
      for (const auto& d : lists.driveDictArray) drives.back().push_back(d.dict()->string("device path"));
      volumes.emplace_back();
      for (const auto& v : lists.volumeDictArray) volumes.back().push_back(v.dict()->string("device path"));
      changed.notify_all();
    };
  }
  // Waits for the n-th refresh; false when it does not come in `limit`.
  bool waitFor(size_t n, std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, limit, [&] { return causes.size() >= n; });
  }
  bool waitForCause(DriveWatcher::Cause cause, std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, limit, [&] { return std::find(causes.begin(), causes.end(), cause) != causes.end(); });
  }
  size_t count() {
    std::lock_guard lock(mutex);
    return causes.size();
  }
};

DriveWatcher::Timing fastRescan() {
  DriveWatcher::Timing t;
  t.rescanInterval = 100ms;
  return t;
}

constexpr const char* kStickPath = "pci0000:00/0000:00:14.0/usb3/3-1/3-1:1.0/host9/target9:0:0/9:0:0:0";

TEST(DriveWatcher, StickPluggedIntoAFakeTreeGivesOneRefreshAfterTheArrivalDelay) {
  TempDir dir;
  FakeTree tree(dir.path());
  buildMachine(tree);
  Refreshes r;
  DriveWatcher watcher(tree.roots(), r.callback(tree.roots()), fastRescan());
  watcher.LaunchThread();
  EXPECT_EQ(watcher.monitorSource(), "");  // a fake tree sends no events
  EXPECT_TRUE(watcher.rescans());
  EXPECT_FALSE(watcher.pollsMountInfo());

  // The disk appears first, its partitions a little later, as the kernel does.
  const auto plugged = Clock::now();
  tree.addDisk("sdf", std::string(kStickPath) + "/block/sdf", kStickPath, 8, 80, 7831552, true);
  tree.setAttr(kStickPath, "vendor", "Kingston");
  tree.setAttr(kStickPath, "model", "DataTraveler 3.0");
  usleep(300000);
  tree.addPartition("sdf", "sdf1", 1, 8, 81, 7829504);
  tree.setUdev(8, 81, {{"ID_PART_ENTRY_TYPE", "48465300-0000-11AA-AA11-00306543ECAC"}});

  ASSERT_TRUE(r.waitFor(1, 20s));
  EXPECT_EQ(r.causes[0], DriveWatcher::Cause::Arrival);
  EXPECT_GE(r.times[0] - plugged, 5000ms);
  EXPECT_NE(std::find(r.drives[0].begin(), r.drives[0].end(), tree.devPath("sdf")), r.drives[0].end());
  EXPECT_NE(std::find(r.volumes[0].begin(), r.volumes[0].end(), tree.devPath("sdf1")), r.volumes[0].end());
  // The partition that came during the delay needs no second refresh.
  EXPECT_FALSE(r.waitFor(2, 1500ms));

  // Pulled out: rebuilt at once, without the stick.
  const auto pulled = Clock::now();
  tree.remove("sdf1");
  tree.remove("sdf");
  ASSERT_TRUE(r.waitFor(2, 20s));
  EXPECT_EQ(r.causes[1], DriveWatcher::Cause::Removal);
  EXPECT_LT(r.times[1] - pulled, 5000ms);
  EXPECT_EQ(std::find(r.drives[1].begin(), r.drives[1].end(), tree.devPath("sdf")), r.drives[1].end());
  watcher.stop();
  EXPECT_EQ(r.count(), 2u);
}

TEST(DriveWatcher, CardPutIntoAnEmptyReaderIsAnArrival) {
  TempDir dir;
  FakeTree tree(dir.path());
  buildMachine(tree);
  Refreshes r;
  DriveWatcher::Timing timing = fastRescan();
  timing.arrivalDelay = 200ms;
  DriveWatcher watcher(tree.roots(), r.callback(tree.roots()), timing);
  watcher.LaunchThread();
  // sdd, the empty reader, now reports a medium.
  tree.setAttr(std::string(kReaderPath) + "/block/sdd", "size", "3911680");
  ASSERT_TRUE(r.waitFor(1, 20s));
  EXPECT_EQ(r.causes[0], DriveWatcher::Cause::Arrival);
  EXPECT_NE(std::find(r.drives[0].begin(), r.drives[0].end(), tree.devPath("sdd")), r.drives[0].end());
}

TEST(DriveWatcher, VolumeMountedInAFakeTreeGivesOneRefreshAfterTheMountDelay) {
  TempDir dir;
  FakeTree tree(dir.path());
  buildMachine(tree);
  Refreshes r;
  DriveWatcher watcher(tree.roots(), r.callback(tree.roots()), fastRescan());
  watcher.LaunchThread();
  const auto mounted = Clock::now();
  tree.addMount(8, 3, "/media/user/Linux HFS", "hfsplus", "/dev/sda3");
  ASSERT_TRUE(r.waitFor(1, 20s));
  EXPECT_EQ(r.causes[0], DriveWatcher::Cause::MountChange);
  EXPECT_GE(r.times[0] - mounted, 7000ms);
  EXPECT_FALSE(r.waitFor(2, 500ms));
}

TEST(DriveWatcher, StopEndsTheThreadDuringADelay) {
  TempDir dir;
  FakeTree tree(dir.path());
  buildMachine(tree);
  Refreshes r;
  DriveWatcher watcher(tree.roots(), r.callback(tree.roots()), fastRescan());
  watcher.LaunchThread();
  tree.addMount(8, 3, "/mnt", "hfsplus", "/dev/sda3");
  usleep(500000);  // seen, and now waiting out the 7 s
  const auto asked = Clock::now();
  watcher.stop();
  EXPECT_LT(Clock::now() - asked, 5000ms);
  EXPECT_EQ(r.count(), 0u);
}

TEST(DriveWatcher, RealMountListSignalsAMount) {
  if (::geteuid() != 0) GTEST_SKIP() << "mounting needs root";
  TempDir dir;
  const auto point = dir / "mnt";
  std::filesystem::create_directory(point);
  Refreshes r;
  DriveWatcher::Timing timing;
  timing.mountDelay = 200ms;
  timing.arrivalDelay = 200ms;
  DriveWatcher watcher(DiscoveryRoots{}, r.callback(DiscoveryRoots{}), timing);
  watcher.LaunchThread();
  EXPECT_TRUE(watcher.pollsMountInfo());
  EXPECT_TRUE(watcher.monitorSource() == "udev" || watcher.monitorSource() == "kernel") << watcher.monitorSource();
  if (runCommand("mount -t tmpfs ambrel-test '" + point.string() + "' 2>/dev/null") != 0)
    GTEST_SKIP() << "this machine does not let the test mount a tmpfs";
  // Other programs may plug loop devices meanwhile; the mount must be among the refreshes.
  const bool seen = r.waitForCause(DriveWatcher::Cause::MountChange, 20s);
  runCommand("umount '" + point.string() + "'");
  EXPECT_TRUE(seen);
}

}  // namespace
}  // namespace ambrel
