#pragma once
// The command line's application controller: alerts go to stderr (the first
// button is taken), progress is drawn as a bar on stderr, and the drive list
// holds just the drive the command opened.
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include "base/AppControllerInterface.h"
#include "core/SleepInhibitor.h"

namespace ambrel {
class DMedia;
struct SaveResult;
}

namespace ambrel::cli {

// Exit statuses of every command (the README and --help list them).
inline constexpr int kExitDone = 0;
inline constexpr int kExitFailed = 1;       // nothing usable found, or saving failed
inline constexpr int kExitCannotStart = 2;  // bad arguments, a path that cannot be opened
inline constexpr int kExitReadErrors = 3;   // finished, but parts of the drive could not be read
inline constexpr int kExitDriveGone = 4;    // the drive disappeared while it was read
inline constexpr int kExitOutOfMemory = 5;  // ran out of memory: said so, nothing more done
inline constexpr int kExitStopped = 130;    // stopped with Ctrl-C

class CliController : public AppControllerInterface {
 public:
  explicit CliController(PlistArray drives = {}) : drives_(std::move(drives)) {}

  int alert(const std::string& title, const std::string& message, const std::vector<std::string>& buttons) override;
  void updateVolumeScanProgress(const ProgressReport& report) override;
  void updateProgress(const ProgressReport& report) override;
  void updateTreeProgress(const ProgressReport& report) override;
  void terminateApp() override { terminated_ = true; }
  void previewClose() override {}
  // A scan found no usable volume structures.
  void destroyVolumeAndBackToPartList() override { gaveUp_ = true; }
  bool gaveUp() const { return gaveUp_; }
  PlistArray driveDictArray() const override;
  PlistArray volumeDictArray() const override { return {}; }
  // Counted: the machine is kept awake through logind while any hold is on.
  void preventSleep(bool on) override;

  void setDrives(PlistArray drives);
  // The drive has disappeared (its alert was shown): the command quits.
  bool terminated() const { return terminated_; }
  void setShowProgress(bool show) { showProgress_ = show; }

 private:
  void apply(const ProgressReport& report);

  mutable std::mutex mutex_;
  PlistArray drives_;
  std::atomic<bool> terminated_{false};
  std::atomic<bool> gaveUp_{false};
  bool showProgress_ = true;
  double barMin_ = 0, barMax_ = 0, barValue_ = 0;
  std::string status_, timeRemaining_, lastDrawnStatus_;
  std::chrono::steady_clock::time_point lastDraw_{};
  std::mutex sleepMutex_;
  int sleepCount_ = 0;
  std::unique_ptr<SleepHold> sleepHold_;
};

// The end of a command that read `media`: kExitDriveGone when the drive
// disappeared; kExitReadErrors, after saying what could not be read and
// `consequence` ("the listing may be incomplete"), when some of it could
// not be read; else `status`.
int readOutcome(const DMedia& media, const CliController& controller, int status, const char* consequence);

// Hands `object` (a scanned volume and its tree) to the end of the process.
// Freeing millions of entries one by one costs as much as listing them, and
// the system takes the memory back at once: main() then ends the process
// without destructors, after flushing, unless a leak checker is watching.
void keepUntilExit(std::shared_ptr<void> object);
// main()'s end: flushes the standard streams and ends the process with
// `status`, leaving what keepUntilExit() holds to the system.
int finish(int status);

// What a save did, on stdout (counts) and stderr (the names of what failed,
// was renamed, or may hold wrong content).
void printSaveResult(const SaveResult& r, const std::string& destination);

}  // namespace ambrel::cli
