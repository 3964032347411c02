#include "cli/CliController.h"
#include "cli/TerminalText.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <vector>

#include "media/DMedia.h"
#include "output/Saver.h"
#include "tree/HDIR.h"
#include "base/Sanitizers.h"

namespace ambrel::cli {

namespace {

constexpr bool kLeakChecked = kAddressSanitized;

std::vector<std::shared_ptr<void>>& keptObjects() {
  static std::vector<std::shared_ptr<void>> kept;
  return kept;
}

}  // namespace

void keepUntilExit(std::shared_ptr<void> object) { keptObjects().push_back(std::move(object)); }

int finish(int status) {
  std::fflush(stdout);
  std::fflush(stderr);
  if (!kLeakChecked && !keptObjects().empty()) ::_exit(status);
  // Freed here rather than among the statics, which may be gone by then.
  keptObjects().clear();
  return status;
}

int CliController::alert(const std::string& title, const std::string& message, const std::vector<std::string>&) {
  std::lock_guard lock(mutex_);
  // Our own messages run over several lines; only what is inside a line is
  // escaped.
  std::string shown;
  for (size_t at = 0;;) {
    const size_t end = message.find('\n', at);
    shown += terminalText(std::string_view(message).substr(at, end == std::string::npos ? end : end - at));
    if (end == std::string::npos) break;
    shown += '\n';
    at = end + 1;
  }
  fmt::print(stderr, "{}: {}\n", terminalText(title), shown);
  return 0;
}

PlistArray CliController::driveDictArray() const {
  std::lock_guard lock(mutex_);
  // Only the drives still there: a drive that disappears must not stay
  // listed, or a failing read of it would pass for a bad sector.
  PlistArray present;
  for (const auto& d : drives_) {
    struct stat st {};
    const PlistDict* dict = d.dict();
    if (dict && ::stat(dict->string("device path").c_str(), &st) == 0) present.push_back(d);
  }
  return present;
}

void CliController::setDrives(PlistArray drives) {
  std::lock_guard lock(mutex_);
  drives_ = std::move(drives);
}

void CliController::preventSleep(bool on) {
  std::lock_guard lock(sleepMutex_);
  if (on && sleepCount_++ == 0) sleepHold_ = LogindSleepInhibitor("ambrel-cli").inhibit("ambrel-cli is reading a drive");
  if (!on && sleepCount_ > 0 && --sleepCount_ == 0) sleepHold_.reset();
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
  if (!status_.empty()) line += "  " + terminalText(status_.substr(0, 60));
  const bool tty = ::isatty(STDERR_FILENO);
  if (tty) fmt::print(stderr, "\r\033[K{}", line);
  else fmt::print(stderr, "{}\n", line);
  std::fflush(stderr);
}

int readOutcome(const DMedia& media, const CliController& controller, int status, const char* consequence) {
  if (controller.terminated() || media.isGone()) return kExitDriveGone;
  if (!media.readErrors.any()) return status;
  fmt::print(stderr, "ambrel-cli: {}; {}\n", media.readErrors.summary(), consequence);
  return status == kExitDone ? kExitReadErrors : status;
}

void printSaveResult(const SaveResult& r, const std::string& destination) {
  for (const auto& line : r.renames) fmt::print(stderr, "renamed: {}\n", terminalText(line));
  for (const auto& line : r.problems) fmt::print(stderr, "failed: {}\n", terminalText(line));
  if (r.renames.size() < r.renamed) fmt::print(stderr, "renamed: ... {} more\n", r.renamed - r.renames.size());
  if (r.unlistedProblems) fmt::print(stderr, "failed: ... {} more\n", r.unlistedProblems);
  // Only what was saved whole counts as saved.
  fmt::print("{} {}: {} {}, {} bytes ({}) in {}\n", r.aborted ? "Aborted" : "Saved", terminalText(destination),
             r.filesWritten, r.filesWritten == 1 ? "file" : "files", r.savedData - r.bytesRemoved,
             sizeText(r.savedData - r.bytesRemoved),
             r.foldersCreated == 1 ? "1 folder" : fmt::format("{} folders", r.foldersCreated));
  if (r.filesNotWhole())
    fmt::print("Not saved whole: {} files ({} kept with \"(incomplete)\" in their names, {} not saved)\n",
               r.filesNotWhole(), r.filesIncomplete, r.filesNotSaved);
  if (r.emptyFiles) fmt::print("Empty files, not created: {}\n", r.emptyFiles);
  fmt::print("Failures: {} creates, {} writes, {} reads; {} names changed\n", r.failedCreates, r.failedWrites,
             r.failedReads, r.renamed);
  if (r.damagedCompressed) fmt::print("Compressed files not decoded completely: {}\n", r.damagedCompressed);
  for (const auto& line : r.uncertainFiles) fmt::print(stderr, "uncertain: {}\n", terminalText(line));
  if (r.uncertainFiles.size() < r.uncertain)
    fmt::print(stderr, "uncertain: ... {} more\n", r.uncertain - r.uncertainFiles.size());
  if (r.uncertain) fmt::print("Saved with content that may not be right: {}\n", r.uncertain);
}

}  // namespace ambrel::cli
