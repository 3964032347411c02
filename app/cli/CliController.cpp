#include "cli/CliController.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace ambrel::cli {

int CliController::alert(const std::string& title, const std::string& message, const std::vector<std::string>&) {
  std::lock_guard lock(mutex_);
  fmt::print(stderr, "{}: {}\n", title, message);
  return 0;
}

PlistArray CliController::driveDictArray() const {
  std::lock_guard lock(mutex_);
  return drives_;
}

void CliController::setDrives(PlistArray drives) {
  std::lock_guard lock(mutex_);
  drives_ = std::move(drives);
}

void CliController::updateVolumeScanProgress(const ProgressReport& report) { apply(report); }
void CliController::updateProgress(const ProgressReport& report) { apply(report); }
void CliController::updateTreeProgress(const ProgressReport& report) { apply(report); }

void CliController::apply(const ProgressReport& report) {
  std::lock_guard lock(mutex_);
  using namespace progress;
  if (const PlistValue* v = report.find(kBarMinValue)) barMin_ = v->toDouble();
  if (const PlistValue* v = report.find(kBarMaxValue)) barMax_ = v->toDouble();
  if (const PlistValue* v = report.find(kBarDoubleValue)) barValue_ = v->toDouble();
  if (const PlistValue* v = report.find(kBarIncrement)) barValue_ += v->toDouble();
  if (const PlistValue* v = report.find(kProgressStatus); v && v->string()) status_ = *v->string();
  if (const PlistValue* v = report.find(kTimeRemaining); v && v->string()) timeRemaining_ = *v->string();
  if (!showProgress_) return;
  // Redraw at most a few times a second, and whenever the status text changes;
  // scans may send a report per node.
  const auto now = std::chrono::steady_clock::now();
  const bool statusChanged = report.contains(kProgressStatus) && status_ != lastDrawnStatus_;
  if (!statusChanged && now - lastDraw_ < std::chrono::milliseconds(200) && !report.contains(kTreeComplete) &&
      !report.contains(kScanComplete))
    return;
  lastDraw_ = now;
  lastDrawnStatus_ = status_;
  const double span = barMax_ - barMin_;
  const double fraction = span > 0 ? std::clamp((barValue_ - barMin_) / span, 0.0, 1.0) : 0.0;
  constexpr int kWidth = 30;
  const int filled = static_cast<int>(fraction * kWidth);
  std::string bar(static_cast<size_t>(filled), '#');
  bar.resize(kWidth, '-');
  std::string line = fmt::format("[{}] {:5.1f}%", bar, fraction * 100.0);
  if (!timeRemaining_.empty()) line += fmt::format("  remaining {}", timeRemaining_);
  if (!status_.empty()) line += "  " + status_.substr(0, 60);
  const bool tty = ::isatty(STDERR_FILENO);
  if (tty) fmt::print(stderr, "\r\033[K{}", line);
  else fmt::print(stderr, "{}\n", line);
  std::fflush(stderr);
}

}  // namespace ambrel::cli
