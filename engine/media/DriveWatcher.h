#pragma once
// The notification thread: waits for drives to come and go and for volumes
// to be mounted or unmounted, then asks for the drive list to be rebuilt.
// Events come from a udev monitor on `block` (the "udev" source, or the
// "kernel" source where no udev daemon runs) and from poll() on mountinfo;
// where those cannot be trusted to arrive (no daemon, another tree), the
// tree is rescanned periodically as well.
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "media/BlockDevices.h"

namespace ambrel {

struct DriveWatcherTiming {
  // A new device's volumes get time to mount before the list is rebuilt.
  std::chrono::milliseconds arrivalDelay{5000};
  std::chrono::milliseconds mountDelay{7000};
  std::chrono::milliseconds rescanInterval{2000};
};

class DriveWatcher {
 public:
  using Timing = DriveWatcherTiming;
  enum class Cause { Arrival, Removal, MountChange };
  // Called on the notification thread: refreshDriveList.
  using Refresh = std::function<void(Cause)>;

  DriveWatcher(DiscoveryRoots roots, Refresh refresh, Timing timing = {});
  ~DriveWatcher();
  DriveWatcher(const DriveWatcher&) = delete;
  DriveWatcher& operator=(const DriveWatcher&) = delete;

  // Starts the notification thread (once; none when the system has no
  // event descriptor left). The tree as it is now is the baseline: a change
  // made after this returns is seen.
  void LaunchThread();
  // Ends the thread; a refresh under way finishes first.
  void stop();

  // "udev" or "kernel" while a udev monitor is open, else "".
  std::string monitorSource() const;
  bool pollsMountInfo() const;
  bool rescans() const;

 private:
  struct State;
  void AddToRunLoop();

  DiscoveryRoots roots_;
  Refresh refresh_;
  Timing timing_;
  std::unique_ptr<State> state_;
  std::thread thread_;
};

const char* driveChangeName(DriveWatcher::Cause cause);

}  // namespace ambrel
