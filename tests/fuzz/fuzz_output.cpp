// The parsers of recovered data: AppleDouble headers and ID3v2 pictures, and
// the names made from arbitrary catalog names.
#include <cstdint>
#include <string>

#include "output/AppleDouble.h"
#include "output/Preview.h"
#include "output/SafeName.h"

using namespace ambrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (auto ad = parseAppleDouble(data, size)) {
    for (const auto& e : ad->entries)
      if (uint64_t{e.offset} + e.length > size) __builtin_trap();
  }
  if (auto pic = id3Picture(data, size)) {
    if (pic->offset > size || pic->length > size - pic->offset) __builtin_trap();
  }
  const std::string name(reinterpret_cast<const char*>(data), size);
  const std::string safe = safeName(madeName(name, size % 2 == 0), 255);
  if (safe.empty() || safe.size() > 255 || safe == "." || safe == ".." || safe.find('/') != std::string::npos ||
      safe.find('\0') != std::string::npos)
    __builtin_trap();
  const std::string numbered = numberedName(safe, 2 + static_cast<uint32_t>(size % 7), 253);
  if (numbered.size() > 253) __builtin_trap();
  (void)renderPreviewText(data, size);
  return 0;
}
