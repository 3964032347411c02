#include "media/DriveWatcher.h"

#include <fcntl.h>
#include <libudev.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <tuple>

namespace ambrel {

namespace {

constexpr long kProcSuperMagic = 0x9fa0;

// What the rescan compares: each device's number and size, and the mounts.
struct Snapshot {
  std::map<std::string, std::tuple<unsigned, unsigned, uint64_t>> devices;
  std::string mountInfo;
};

std::string readAll(int fd) {
  std::string text;
  char buf[4096];
  if (::lseek(fd, 0, SEEK_SET) < 0) return text;
  for (;;) {
    ssize_t got = ::read(fd, buf, sizeof buf);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    text.append(buf, static_cast<size_t>(got));
  }
  return text;
}

std::string readMountInfo(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return {};
  std::string text = readAll(fd);
  ::close(fd);
  return text;
}

}  // namespace

struct DriveWatcher::State {
  udev* u = nullptr;
  udev_monitor* monitor = nullptr;
  std::string source;
  int stopFd = -1;
  int mountFd = -1;  // /proc's mountinfo, which signals POLLPRI on a change
  bool rescan = false;
  Snapshot baseline;
  bool started = false;

  ~State() {
    if (monitor) udev_monitor_unref(monitor);
    if (u) udev_unref(u);
    if (stopFd >= 0) ::close(stopFd);
    if (mountFd >= 0) ::close(mountFd);
  }
};

const char* driveChangeName(DriveWatcher::Cause cause) {
  switch (cause) {
    case DriveWatcher::Cause::Arrival: return "arrival";
    case DriveWatcher::Cause::Removal: return "removal";
    case DriveWatcher::Cause::MountChange: return "mount change";
  }
  return "";
}

DriveWatcher::DriveWatcher(DiscoveryRoots roots, Refresh refresh, Timing timing)
    : roots_(std::move(roots)), refresh_(std::move(refresh)), timing_(timing), state_(std::make_unique<State>()) {}

DriveWatcher::~DriveWatcher() { stop(); }

std::string DriveWatcher::monitorSource() const { return state_->source; }
bool DriveWatcher::pollsMountInfo() const { return state_->mountFd >= 0; }
bool DriveWatcher::rescans() const { return state_->rescan; }

namespace {

Snapshot takeSnapshot(const DiscoveryRoots& roots, bool withMounts) {
  DiscoveryRoots sysfsOnly = roots;
  sysfsOnly.useUdev = false;  // numbers and sizes are all it needs
  Snapshot s;
  for (const auto& d : enumerateBlockDevices(sysfsOnly)) s.devices[d.name] = {d.major, d.minor, d.sizeBytes};
  if (withMounts) s.mountInfo = readMountInfo(roots.mountinfo);
  return s;
}

// Which kind of change lies between two snapshots; false when none.
bool compareSnapshots(const Snapshot& before, const Snapshot& now, bool& arrival, bool& removal, bool& mounts) {
  for (const auto& [name, info] : now.devices) {
    auto it = before.devices.find(name);
    if (it == before.devices.end() || std::get<0>(it->second) != std::get<0>(info) ||
        std::get<1>(it->second) != std::get<1>(info) || (std::get<2>(it->second) == 0 && std::get<2>(info) != 0))
      arrival = true;
    else if (std::get<2>(it->second) != std::get<2>(info))
      (std::get<2>(info) == 0 ? removal : arrival) = true;
  }
  for (const auto& [name, info] : before.devices)
    if (!now.devices.count(name)) removal = true;
  if (before.mountInfo != now.mountInfo) mounts = true;
  return arrival || removal || mounts;
}

}  // namespace

void DriveWatcher::LaunchThread() {
  State& s = *state_;
  if (s.started) return;
  s.started = true;
  s.stopFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  // Without a way to wake it, the thread could never be stopped: no thread.
  if (s.stopFd < 0) return;
  if (roots_.udevApplies()) {
    s.u = udev_new();
    // Without a udev daemon nothing is relayed on the "udev" source.
    const bool daemon = ::access("/run/udev/control", F_OK) == 0;
    if (s.u) s.monitor = udev_monitor_new_from_netlink(s.u, daemon ? "udev" : "kernel");
    if (s.monitor && (udev_monitor_filter_add_match_subsystem_devtype(s.monitor, "block", nullptr) < 0 ||
                      udev_monitor_enable_receiving(s.monitor) < 0)) {
      udev_monitor_unref(s.monitor);
      s.monitor = nullptr;
    }
    if (s.monitor) s.source = daemon ? "udev" : "kernel";
  }
  s.mountFd = ::open(roots_.mountinfo.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  struct statfs fsInfo {};
  if (s.mountFd >= 0 && (::fstatfs(s.mountFd, &fsInfo) != 0 || fsInfo.f_type != kProcSuperMagic)) {
    ::close(s.mountFd);
    s.mountFd = -1;
  }
  if (s.mountFd >= 0) readAll(s.mountFd);  // read once so that POLLPRI means a change since now
  // The kernel source reaches us only in the host's network namespace and
  // a fake tree sends nothing: look for ourselves too.
  s.rescan = s.source != "udev" || s.mountFd < 0;
  if (s.rescan) s.baseline = takeSnapshot(roots_, s.mountFd < 0);
  thread_ = std::thread([this] { AddToRunLoop(); });
}

void DriveWatcher::stop() {
  if (state_->stopFd >= 0) {
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(state_->stopFd, &one, sizeof one);
  }
  if (thread_.joinable()) thread_.join();
}

void DriveWatcher::AddToRunLoop() {
  State& s = *state_;
  auto stopRequested = [&](std::chrono::milliseconds wait) {
    pollfd p{s.stopFd, POLLIN, 0};
    int n;
    do n = ::poll(&p, 1, static_cast<int>(wait.count()));
    while (n < 0 && errno == EINTR);
    return n > 0;
  };
  auto drainMonitor = [&](bool* arrival, bool* removal) {
    if (!s.monitor) return;
    while (udev_device* dev = udev_monitor_receive_device(s.monitor)) {
      const char* action = udev_device_get_action(dev);
      if (action && std::strcmp(action, "remove") == 0) {
        if (removal) *removal = true;
      } else if (arrival) {
        *arrival = true;  // add, and change (a card put into a reader)
      }
      udev_device_unref(dev);
    }
  };

  for (;;) {
    pollfd fds[3];
    nfds_t n = 0;
    fds[n++] = {s.stopFd, POLLIN, 0};
    const int monitorIndex = s.monitor ? static_cast<int>(n) : -1;
    if (s.monitor) fds[n++] = {udev_monitor_get_fd(s.monitor), POLLIN, 0};
    const int mountIndex = s.mountFd >= 0 ? static_cast<int>(n) : -1;
    if (s.mountFd >= 0) fds[n++] = {s.mountFd, POLLPRI, 0};
    const int timeout = s.rescan ? static_cast<int>(timing_.rescanInterval.count()) : -1;
    const int ready = ::poll(fds, n, timeout);
    if (ready < 0 && errno != EINTR) return;
    if (fds[0].revents) return;

    bool arrival = false, removal = false, mounts = false;
    if (monitorIndex >= 0 && (fds[monitorIndex].revents & POLLIN)) drainMonitor(&arrival, &removal);
    if (mountIndex >= 0 && (fds[mountIndex].revents & (POLLPRI | POLLERR))) {
      readAll(s.mountFd);
      mounts = true;
    }
    if (s.rescan && ready == 0) {
      Snapshot now = takeSnapshot(roots_, s.mountFd < 0);
      compareSnapshots(s.baseline, now, arrival, removal, mounts);
    }
    if (!arrival && !removal && !mounts) continue;

    std::chrono::milliseconds delay{0};
    if (arrival) delay = timing_.arrivalDelay;
    if (mounts && timing_.mountDelay > delay) delay = timing_.mountDelay;
    if (delay.count() > 0 && stopRequested(delay)) return;
    // Whatever happened meanwhile is in the list about to be built.
    drainMonitor(nullptr, nullptr);
    if (s.mountFd >= 0) readAll(s.mountFd);
    if (s.rescan) s.baseline = takeSnapshot(roots_, s.mountFd < 0);
    refresh_(arrival ? Cause::Arrival : mounts ? Cause::MountChange : Cause::Removal);
  }
}

}  // namespace ambrel
