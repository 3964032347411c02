#pragma once
// The size of a picture read from its own header (BMP, JPEG, PNG, GIF, TIFF),
// without decoding it: what the matching of an RTF document's attachments
// compares with the sizes the document gives.
#include <cstdint>
#include <optional>
#include <span>

namespace ambrel {

struct ImageSize {
  uint32_t widthPixels = 0;
  uint32_t heightPixels = 0;
  // Pixels per inch where the file says so; 0 when it does not (72 is meant).
  double dpiX = 0;
  double dpiY = 0;

  // The size in points (1/72 inch), truncated, as a document lays it out.
  uint32_t widthPoints() const;
  uint32_t heightPoints() const;
};

// nullopt when the bytes do not begin a picture of those formats whose
// header can be read.
std::optional<ImageSize> readImageSize(std::span<const uint8_t> bytes);

}  // namespace ambrel
