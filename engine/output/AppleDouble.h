#pragma once
// AppleDouble version 2 sidecar files ("._NAME" beside the data fork): how a
// recovered resource fork is kept on a file system that has no forks.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace ambrel {

inline constexpr uint32_t kAppleDoubleMagic = 0x00051607;
inline constexpr uint32_t kAppleDoubleVersion2 = 0x00020000;
inline constexpr uint32_t kAppleDoubleResourceFork = 2;
inline constexpr uint32_t kAppleDoubleFinderInfo = 9;
inline constexpr size_t kFinderInfoSize = 32;

// Header (26 bytes), two entry descriptors (12 each), then 32 bytes of
// Finder information; the resource fork follows as the last entry.
inline constexpr size_t kAppleDoubleHeaderSize = 26 + 2 * 12 + kFinderInfoSize;
// Where the resource-fork length lies in what appleDoubleHeader makes.
inline constexpr size_t kAppleDoubleRsrcLengthOffset = 26 + 12 + 8;

// Everything of the sidecar before the resource fork's bytes; Finder
// information is left zero (none is recovered).
std::vector<uint8_t> appleDoubleHeader(uint64_t rsrcLength);

struct AppleDoubleEntry {
  uint32_t id = 0;
  uint32_t offset = 0;
  uint32_t length = 0;
};

struct AppleDoubleFile {
  uint32_t version = 0;
  std::vector<AppleDoubleEntry> entries;  // each checked to lie inside the file
  const AppleDoubleEntry* find(uint32_t id) const;
};

// Parses an AppleDouble (or AppleSingle-layout) header; nullopt when the magic,
// version, entry count or any entry's range does not fit `size`.
std::optional<AppleDoubleFile> parseAppleDouble(const uint8_t* data, size_t size);

}  // namespace ambrel
