#pragma once
// The command line's application controller: alerts go to stderr (the first
// button is taken), progress is drawn as a bar on stderr, and the drive list
// holds just the drive the command opened.
#include <atomic>
#include <chrono>
#include <mutex>
#include <string>

#include "base/AppControllerInterface.h"

namespace ambrel::cli {

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

  void setDrives(PlistArray drives);
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
};

}  // namespace ambrel::cli
