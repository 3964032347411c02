#pragma once
// Progress reports: dictionaries a worker posts to the controller. Every key is
// optional; the receiver acts only on the keys present.
#include <cstdint>
#include <string>

#include "base/PlistValue.h"

namespace ambrel {

using ProgressReport = PlistDict;

namespace progress {
inline constexpr const char* kProgressStatus = "Progress Status";
inline constexpr const char* kProgressType = "Progress Type";
inline constexpr const char* kBarIncrement = "BarIncrement";
inline constexpr const char* kBarMinValue = "BarMinValue";
inline constexpr const char* kBarMaxValue = "BarMaxValue";
inline constexpr const char* kBarDoubleValue = "BarDoubleValue";
inline constexpr const char* kTimeRemaining = "TimeRemaining";
inline constexpr const char* kTimeRemainingForSubTask = "Time Remaining For SubTask";
inline constexpr const char* kStartAnimation = "Start Animation";
inline constexpr const char* kStopAnimation = "Stop Animation";
inline constexpr const char* kScanComplete = "Scan Complete";
inline constexpr const char* kVolumesFound = "Volumes Found";
inline constexpr const char* kTreeComplete = "Tree Complete";
inline constexpr const char* kEntriesFound = "Entries Found";
inline constexpr const char* kFolders = "Folders";
inline constexpr const char* kFiles = "Files";
inline constexpr const char* kData = "Data";
inline constexpr const char* kPercentDone = "Percent Done";
inline constexpr const char* kSizeDone = "Size Done";
inline constexpr const char* kTotalSize = "Total Size";
inline constexpr const char* kSavedData = "Saved Data";
// With the final report of a scan or search: what could not be read, as a
// sentence ("2 sectors could not be read (at sectors 8, 9)"); absent when
// everything was read.
inline constexpr const char* kReadErrors = "Read Errors";
}  // namespace progress

// Bytes as the user sees them: "%.2f KB" up to 999999, "%.2f MB" up to
// 999999999, else "%.2f GB"; decimal units, single-precision division.
std::string sizeText(uint64_t bytes);

// The "%@:%@:%@:%@" estimate (days, hours, minutes, seconds) of
// elapsed x left / done.
std::string timeRemainingText(double elapsedSeconds, uint64_t done, uint64_t total);
std::string daysHoursMinutesSeconds(uint64_t seconds);

}  // namespace ambrel
