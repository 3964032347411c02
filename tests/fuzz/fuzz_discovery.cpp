// The text that drive discovery reads from the system: mountinfo lines,
// uevent and udev records, their escapes, and a volume header's content.
#include <cstdint>
#include <string>

#include "media/BlockDevices.h"
#include "media/DriveFinder.h"
#include "media/DriveIdentity.h"

using namespace ambrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (const auto& m : parseMountInfo(text)) {
    if (m.mountPoint.size() > text.size() || m.source.size() > text.size()) __builtin_trap();
  }
  for (const auto& [key, value] : parseUevent(text)) {
    if (key.empty() || key.find('\n') != std::string::npos) __builtin_trap();
  }
  if (unescapeMountField(text).size() > text.size()) __builtin_trap();
  if (decodeUdevEscapes(text).size() > text.size()) __builtin_trap();
  const size_t half = size / 2;
  const std::string a = text.substr(0, half), b = text.substr(half);
  if (naturalLess(a, b) && naturalLess(b, a)) __builtin_trap();
  if (size >= 512) hfsContentOfHeader(data);
  return 0;
}
