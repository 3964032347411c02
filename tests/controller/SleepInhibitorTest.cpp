// Keeping the machine awake, against a logind played by the test on a
// private bus: what is asked for, that the lock is held while the hold
// lives and released after, and that the command line asks during a scan.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include "ImageBuilder.h"
#include "core/SleepInhibitor.h"
#include "support/BuiltEntries.h"
#include "support/TempDir.h"

using namespace ambrel;
using namespace ambrel::test;

namespace {

// A bus of the test's own, with DBUS_SYSTEM_BUS_ADDRESS pointing at it.
class PrivateBus {
 public:
  explicit PrivateBus(const std::filesystem::path& dir) {
    address_ = "unix:path=" + (dir / "bus").string();
    std::string out;
    const int status = runCommand("dbus-daemon --session --fork --print-pid=1 --address='" + address_ + "' 2>&1", &out);
    if (status == 0) pid_ = std::atoi(out.c_str());
    if (pid_ > 0) {
      previous_ = std::getenv("DBUS_SYSTEM_BUS_ADDRESS") ? std::getenv("DBUS_SYSTEM_BUS_ADDRESS") : "";
      ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
    }
  }
  ~PrivateBus() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    if (previous_.empty()) ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    else ::setenv("DBUS_SYSTEM_BUS_ADDRESS", previous_.c_str(), 1);
  }
  bool running() const { return pid_ > 0; }
  const std::string& address() const { return address_; }

 private:
  std::string address_, previous_;
  pid_t pid_ = 0;
};

struct InhibitCall {
  std::string what, who, why, mode;
  int lockReadEnd = -1;  // EOF once every copy of the lock is closed
};

// org.freedesktop.login1.Manager.Inhibit, answered with one end of a pipe.
class FakeLogind {
 public:
  explicit FakeLogind(const std::string& address) {
    sd_bus_new(&bus_);
    sd_bus_set_address(bus_, address.c_str());
    sd_bus_set_bus_client(bus_, 1);
    ok_ = sd_bus_start(bus_) >= 0 &&
          sd_bus_add_object_vtable(bus_, nullptr, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                   kVtable, this) >= 0 &&
          sd_bus_request_name(bus_, "org.freedesktop.login1", 0) >= 0;
    if (ok_) thread_ = std::thread([this] {
      while (!stop_.load()) {
        if (sd_bus_process(bus_, nullptr) > 0) continue;
        sd_bus_wait(bus_, 20000);
      }
    });
  }
  ~FakeLogind() {
    stop_.store(true);
    if (thread_.joinable()) thread_.join();
    sd_bus_flush_close_unref(bus_);
    for (const auto& c : calls_) ::close(c.lockReadEnd);
  }
  bool ok() const { return ok_; }
  std::vector<InhibitCall> calls() {
    std::lock_guard lock(mutex_);
    return calls_;
  }

 private:
  static int inhibit(sd_bus_message* m, void* self, sd_bus_error*) {
    auto* fake = static_cast<FakeLogind*>(self);
    const char *what, *who, *why, *mode;
    if (sd_bus_message_read(m, "ssss", &what, &who, &why, &mode) < 0) return -EINVAL;
    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0) return -errno;
    {
      // Recorded before the answer: the caller may look as soon as it has it.
      std::lock_guard lock(fake->mutex_);
      fake->calls_.push_back({what, who, why, mode, pipe[0]});
    }
    const int r = sd_bus_reply_method_return(m, "h", pipe[1]);
    // The reply took its own copy: only the caller holds the lock now.
    ::close(pipe[1]);
    return r;
  }
  static constexpr sd_bus_vtable kVtable[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD("Inhibit", "ssss", "h", &FakeLogind::inhibit, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_VTABLE_END};

  sd_bus* bus_ = nullptr;
  bool ok_ = false;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::mutex mutex_;
  std::vector<InhibitCall> calls_;
};

// Whether every copy of the lock has been closed (the pipe reads EOF).
bool released(int readEnd) {
  pollfd p{readEnd, POLLIN, 0};
  if (::poll(&p, 1, 2000) <= 0) return false;
  char c;
  return ::read(readEnd, &c, 1) == 0;
}

}  // namespace

TEST(LogindSleep, AHoldAsksForTheIdleSleepBlockAndReleasesItWhenDropped) {
  TempDir dir;
  PrivateBus bus(dir.path());
  if (!bus.running()) GTEST_SKIP() << "no dbus-daemon here";
  {
    // No logind on the bus: a hold that does nothing, with the reason.
    LogindSleepInhibitor inhibitor("Tester");
    auto hold = inhibitor.inhibit("nothing");
    EXPECT_FALSE(hold->active());
    EXPECT_FALSE(inhibitor.lastError().empty());
  }
  FakeLogind logind(bus.address());
  ASSERT_TRUE(logind.ok());
  LogindSleepInhibitor inhibitor("Tester");
  auto hold = inhibitor.inhibit("scanning a drive");
  EXPECT_TRUE(hold->active()) << inhibitor.lastError();
  auto calls = logind.calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].what, "sleep:idle");
  EXPECT_EQ(calls[0].who, "Tester");
  EXPECT_EQ(calls[0].why, "scanning a drive");
  EXPECT_EQ(calls[0].mode, "block");
  // Held while the hold lives.
  pollfd p{calls[0].lockReadEnd, POLLIN, 0};
  EXPECT_EQ(::poll(&p, 1, 100), 0);
  hold.reset();
  EXPECT_TRUE(released(calls[0].lockReadEnd));
}

TEST(LogindSleep, TheCommandLineKeepsTheMachineAwakeWhileItScans) {
  const char* cli = std::getenv("AMBREL_CLI");
  if (!cli) GTEST_SKIP() << "AMBREL_CLI not set";
  TempDir dir;
  PrivateBus bus(dir.path());
  if (!bus.running()) GTEST_SKIP() << "no dbus-daemon here";
  FakeLogind logind(bus.address());
  ASSERT_TRUE(logind.ok());
  mkimage::VolumeSpec v;
  v.name = "Awake";
  v.root = {fileOf("a.txt", {'a', 'b', 'c'})};
  mkimage::buildImage(bareDriveOf(v), (dir / "vol.img").string());
  std::string out;
  ASSERT_EQ(runCommand("'" + std::string(cli) + "' tree '" + (dir / "vol.img").string() + "' 2>&1", &out), 0) << out;
  EXPECT_NE(out.find("a.txt"), std::string::npos) << out;
  const auto calls = logind.calls();
  ASSERT_EQ(calls.size(), 1u) << out;
  EXPECT_EQ(calls[0].what, "sleep:idle");
  EXPECT_EQ(calls[0].who, "ambrel-cli");
  EXPECT_EQ(calls[0].mode, "block");
  EXPECT_TRUE(released(calls[0].lockReadEnd));
}
