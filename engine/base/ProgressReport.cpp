#include "base/ProgressReport.h"

#include <fmt/format.h>

namespace ambrel {

std::string sizeText(uint64_t bytes) {
  if (bytes <= 999999) return fmt::format("{:.2f} KB", static_cast<float>(bytes) / 1000.0f);
  if (bytes <= 999999999) return fmt::format("{:.2f} MB", static_cast<float>(bytes) / 1000000.0f);
  return fmt::format("{:.2f} GB", static_cast<float>(bytes) / 1000000000.0f);
}

std::string daysHoursMinutesSeconds(uint64_t seconds) {
  return fmt::format("{}:{}:{}:{}", seconds / 86400, (seconds / 3600) % 24, (seconds / 60) % 60, seconds % 60);
}

std::string timeRemainingText(double elapsedSeconds, uint64_t done, uint64_t total) {
  if (done == 0 || total <= done || elapsedSeconds <= 0) return daysHoursMinutesSeconds(0);
  double left = elapsedSeconds * static_cast<double>(total - done) / static_cast<double>(done);
  return daysHoursMinutesSeconds(static_cast<uint64_t>(left));
}

}  // namespace ambrel
