#pragma once
// What the engine may ask of the application controller. app/core, the
// command line and tests each implement it; the engine never sees a widget.
#include <string>
#include <vector>

#include "base/PlistValue.h"
#include "base/ProgressReport.h"

namespace ambrel {

class AppControllerInterface {
 public:
  virtual ~AppControllerInterface() = default;

  // A modal alert; returns the index of the button chosen (0 is the default
  // button). Called from whichever thread met the condition.
  virtual int alert(const std::string& title, const std::string& message,
                    const std::vector<std::string>& buttons) = 0;

  // Progress receivers. Each call is applied on the main thread and returns
  // once it has been applied.
  virtual void updateVolumeScanProgress(const ProgressReport& report) = 0;  // volume search
  virtual void updateProgress(const ProgressReport& report) = 0;            // tree building, signature search
  virtual void updateTreeProgress(const ProgressReport& report) = 0;        // saving

  // Performed on the main thread; the caller waits until done.
  virtual void terminateApp() = 0;
  virtual void previewClose() = 0;

  // After a tree scan found no usable volume structures: give up the volume
  // and go back to the partition list (not waited for).
  virtual void destroyVolumeAndBackToPartList() {}

  // Held while a long scan step runs, so the machine does not go to sleep.
  virtual void preventSleep(bool on) {}

  // The drive and volume lists as they are now (drive dictionaries).
  virtual PlistArray driveDictArray() const = 0;
  virtual PlistArray volumeDictArray() const = 0;
};

// Keeps the machine awake for as long as it lives.
class SleepScope {
 public:
  explicit SleepScope(AppControllerInterface& controller) : controller_(controller) { controller_.preventSleep(true); }
  ~SleepScope() { controller_.preventSleep(false); }
  SleepScope(const SleepScope&) = delete;
  SleepScope& operator=(const SleepScope&) = delete;

 private:
  AppControllerInterface& controller_;
};

}  // namespace ambrel
