#pragma once
// A controller for tests: records every alert, report and request.
#include <mutex>
#include <string>
#include <vector>

#include "base/AppControllerInterface.h"

namespace ambrel::test {

struct RecordedAlert {
  std::string title, message;
  std::vector<std::string> buttons;
};

class RecordingController : public AppControllerInterface {
 public:
  int alert(const std::string& title, const std::string& message, const std::vector<std::string>& buttons) override {
    std::lock_guard lock(mutex);
    alerts.push_back({title, message, buttons});
    return answer;
  }
  void updateVolumeScanProgress(const ProgressReport& r) override { record(volumeScanReports, r); }
  void updateProgress(const ProgressReport& r) override { record(progressReports, r); }
  void updateTreeProgress(const ProgressReport& r) override { record(treeReports, r); }
  void terminateApp() override { ++terminateCalls; }
  void previewClose() override { ++previewCloseCalls; }
  PlistArray driveDictArray() const override { return drives; }
  PlistArray volumeDictArray() const override { return volumes; }

  std::mutex mutex;
  int answer = 0;
  PlistArray drives, volumes;
  std::vector<RecordedAlert> alerts;
  std::vector<ProgressReport> volumeScanReports, progressReports, treeReports;
  int terminateCalls = 0;
  int previewCloseCalls = 0;

 private:
  void record(std::vector<ProgressReport>& into, const ProgressReport& r) {
    std::lock_guard lock(mutex);
    into.push_back(r);
  }
};

}  // namespace ambrel::test
