#pragma once
// A controller that takes every report and shows nothing: for benchmarks and
// fuzzing, where recording would cost more than the work measured.
#include <atomic>
#include <cstdint>

#include "base/AppControllerInterface.h"

namespace ambrel::test {

class QuietController : public AppControllerInterface {
 public:
  explicit QuietController(PlistArray drives = {}) : drives_(std::move(drives)) {}
  int alert(const std::string&, const std::string&, const std::vector<std::string>&) override { return 0; }
  void updateVolumeScanProgress(const ProgressReport& r) override { reports += r.size(); }
  void updateProgress(const ProgressReport& r) override { reports += r.size(); }
  void updateTreeProgress(const ProgressReport& r) override { reports += r.size(); }
  void terminateApp() override {}
  void previewClose() override {}
  PlistArray driveDictArray() const override { return drives_; }
  PlistArray volumeDictArray() const override { return {}; }

  // Report keys received, so the work of building reports is not optimised away.
  std::atomic<uint64_t> reports{0};

 private:
  PlistArray drives_;
};

}  // namespace ambrel::test
