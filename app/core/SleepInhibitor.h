#pragma once
// Keeping the machine awake while a long scan runs. The controller asks for
// a hold at the start of every scan and drops it at the end; where nothing
// can keep the machine awake (no system bus, no logind) a hold does nothing.
#include <memory>
#include <string>

namespace ambrel {

class SleepHold {
 public:
  virtual ~SleepHold() = default;
  // Whether the system granted it (false for a hold that does nothing).
  virtual bool active() const = 0;
};

class SleepInhibitor {
 public:
  virtual ~SleepInhibitor() = default;
  // The machine stays awake until the hold is destroyed.
  virtual std::unique_ptr<SleepHold> inhibit(const std::string& why) = 0;
};

// Never keeps anything awake: for tests and where the front end has its own way.
class NoSleepInhibitor : public SleepInhibitor {
 public:
  std::unique_ptr<SleepHold> inhibit(const std::string& why) override;
};

// systemd-logind's inhibitor lock ("sleep:idle", mode "block") over the
// system D-Bus, through sd-bus. The lock is the descriptor logind hands
// back; closing it ends the lock. The bus is the one DBUS_SYSTEM_BUS_ADDRESS
// names, or the system's.
class LogindSleepInhibitor : public SleepInhibitor {
 public:
  explicit LogindSleepInhibitor(std::string who = "Tarnwell Ambrel");
  std::unique_ptr<SleepHold> inhibit(const std::string& why) override;
  // Why the last request was not granted ("" when it was).
  const std::string& lastError() const { return lastError_; }

 private:
  std::string who_;
  std::string lastError_;
};

}  // namespace ambrel
