#include "core/SleepInhibitor.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstring>

namespace ambrel {

namespace {

class NoHold : public SleepHold {
 public:
  bool active() const override { return false; }
};

class LogindHold : public SleepHold {
 public:
  explicit LogindHold(int fd) : fd_(fd) {}
  ~LogindHold() override { ::close(fd_); }
  bool active() const override { return true; }

 private:
  int fd_;
};

}  // namespace

std::unique_ptr<SleepHold> NoSleepInhibitor::inhibit(const std::string&) { return std::make_unique<NoHold>(); }

LogindSleepInhibitor::LogindSleepInhibitor(std::string who) : who_(std::move(who)) {}

std::unique_ptr<SleepHold> LogindSleepInhibitor::inhibit(const std::string& why) {
  lastError_.clear();
  sd_bus* bus = nullptr;
  // A connection of our own: the default one is per thread, and holds are
  // asked for from whichever thread starts a scan.
  int r = sd_bus_open_system(&bus);
  if (r < 0) {
    lastError_ = std::string("no system bus: ") + std::strerror(-r);
    return std::make_unique<NoHold>();
  }
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  r = sd_bus_call_method(bus, "org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                         "Inhibit", &error, &reply, "ssss", "sleep:idle", who_.c_str(), why.c_str(), "block");
  int fd = -1;
  if (r < 0) {
    lastError_ = error.message ? error.message : std::strerror(-r);
  } else {
    int received = -1;
    r = sd_bus_message_read(reply, "h", &received);
    // The descriptor belongs to the message: keep a copy of our own.
    if (r >= 0) fd = ::fcntl(received, F_DUPFD_CLOEXEC, 3);
    if (fd < 0) lastError_ = "logind's answer held no lock";
  }
  sd_bus_error_free(&error);
  sd_bus_message_unref(reply);
  sd_bus_flush_close_unref(bus);
  if (fd < 0) return std::make_unique<NoHold>();
  return std::make_unique<LogindHold>(fd);
}

}  // namespace ambrel
