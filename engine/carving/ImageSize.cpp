#include "carving/ImageSize.h"

#include <cmath>
#include <cstring>

#include "base/ByteReader.h"
#include "base/Endian.h"
#include "carving/TiffWalker.h"

namespace ambrel {

namespace {

uint32_t toPoints(uint32_t pixels, double dpi) {
  // Resolutions that round to 72 dpi (2835 pixels a metre) are 72 dpi, and
  // so is none at all.
  if (!(dpi > 0) || !std::isfinite(dpi) || std::lround(dpi) == 72) return pixels;
  // A pixel or so a metre makes a picture wider than any page: kept in range.
  const double points = std::floor(pixels * 72.0 / dpi);
  return points >= 4294967295.0 ? UINT32_MAX : static_cast<uint32_t>(points);
}

std::optional<ImageSize> pngSize(std::span<const uint8_t> b) {
  ByteReader r(b);
  const auto len = r.peekBE32(8), w = r.peekBE32(16), h = r.peekBE32(20);
  if (!len || *len != 13 || !r.has(12, 4) || std::memcmp(&b[12], "IHDR", 4) != 0 || !w || !h) return std::nullopt;
  ImageSize s{*w, *h, 0, 0};
  // pHYs among the chunks before the image data.
  for (size_t p = 33; r.has(p, 8);) {
    const uint32_t n = *r.peekBE32(p);
    if (std::memcmp(&b[p + 4], "IDAT", 4) == 0 || std::memcmp(&b[p + 4], "IEND", 4) == 0) break;
    if (std::memcmp(&b[p + 4], "pHYs", 4) == 0 && n == 9 && r.has(p + 8, 9) && b[p + 16] == 1) {
      s.dpiX = *r.peekBE32(p + 8) * 0.0254;
      s.dpiY = *r.peekBE32(p + 12) * 0.0254;
    }
    if (uint64_t{n} + 12 > b.size() - p) break;
    p += size_t{n} + 12;
  }
  return s;
}

std::optional<ImageSize> gifSize(std::span<const uint8_t> b) {
  if (b.size() < 10 || std::memcmp(b.data(), "GIF8", 4) != 0) return std::nullopt;
  return ImageSize{loadLE16(&b[6]), loadLE16(&b[8]), 0, 0};
}

std::optional<ImageSize> bmpSize(std::span<const uint8_t> b) {
  if (b.size() < 26 || b[0] != 'B' || b[1] != 'M') return std::nullopt;
  const uint32_t dib = loadLE32(&b[14]);
  if (dib == 12) return ImageSize{loadLE16(&b[18]), loadLE16(&b[20]), 0, 0};
  if (dib < 40 || b.size() < 46) return std::nullopt;
  const int32_t w = static_cast<int32_t>(loadLE32(&b[18]));
  const int32_t h = static_cast<int32_t>(loadLE32(&b[22]));
  if (w <= 0 || h == 0 || h == INT32_MIN) return std::nullopt;
  ImageSize s{static_cast<uint32_t>(w), static_cast<uint32_t>(h < 0 ? -h : h), 0, 0};
  s.dpiX = loadLE32(&b[38]) * 0.0254;
  s.dpiY = loadLE32(&b[42]) * 0.0254;
  return s;
}

std::optional<ImageSize> jpegSize(std::span<const uint8_t> b) {
  if (b.size() < 4 || b[0] != 0xFF || b[1] != 0xD8) return std::nullopt;
  ImageSize s;
  size_t p = 2;
  while (p + 4 <= b.size()) {
    if (b[p] != 0xFF) return std::nullopt;
    const uint8_t m = b[p + 1];
    if (m == 0xFF) {  // fill bytes
      ++p;
      continue;
    }
    const uint16_t len = loadBE16(&b[p + 2]);
    if (len < 2 || size_t{len} > b.size() - p - 2) return std::nullopt;
    if (m == 0xE0 && len >= 14 && std::memcmp(&b[p + 4], "JFIF", 5) == 0) {
      const uint8_t units = b[p + 11];
      const double x = loadBE16(&b[p + 12]), y = loadBE16(&b[p + 14]);
      if (units == 1) s.dpiX = x, s.dpiY = y;
      if (units == 2) s.dpiX = x * 2.54, s.dpiY = y * 2.54;
    }
    const bool frame = m >= 0xC0 && m <= 0xCF && m != 0xC4 && m != 0xC8 && m != 0xCC;
    if (frame && len >= 7) {
      s.heightPixels = loadBE16(&b[p + 5]);
      s.widthPixels = loadBE16(&b[p + 7]);
      return s;
    }
    if (m == 0xDA || m == 0xD9) return std::nullopt;  // no frame before the scan
    p += size_t{len} + 2;
  }
  return std::nullopt;
}

std::optional<ImageSize> tiffSize(std::span<const uint8_t> b) {
  MemorySectorSource source(b);
  SearchState state;
  Candidate c(source, CarveGeometry{0, 1, source.sectorCount()}, 0, state);
  TiffLimits limits;
  limits.maxIfds = 1;  // IFD0 alone says the image's size
  TiffWalker walker(c, 0, limits);
  const auto ifd0 = walker.readHeader();
  if (!ifd0 || walker.magic() != 42) return std::nullopt;
  ImageSize s;
  double xres = 0, yres = 0;
  uint64_t unit = 2;
  walker.onEntry = [&](const TiffIfd& ifd, const TiffEntry& e) {
    if (ifd.kind != TiffIfdKind::Main) return;
    auto first = [&]() -> uint64_t {
      auto v = walker.values(e, 1);
      return v.empty() ? 0 : v[0];
    };
    auto rational = [&]() -> double {
      if (e.type != 5) return 0;
      const auto n = walker.u32(e.valuePos), d = walker.u32(e.valuePos + 4);
      return n && d && *d ? double(*n) / *d : 0;
    };
    switch (e.tag) {
      case 256: s.widthPixels = static_cast<uint32_t>(first()); break;
      case 257: s.heightPixels = static_cast<uint32_t>(first()); break;
      case 282: xres = rational(); break;
      case 283: yres = rational(); break;
      case 296: unit = first(); break;
      default: break;
    }
  };
  walker.walk(*ifd0);
  if (s.widthPixels == 0 || s.heightPixels == 0) return std::nullopt;
  if (unit == 2) s.dpiX = xres, s.dpiY = yres;
  if (unit == 3) s.dpiX = xres * 2.54, s.dpiY = yres * 2.54;
  return s;
}

}  // namespace

uint32_t ImageSize::widthPoints() const { return toPoints(widthPixels, dpiX); }
uint32_t ImageSize::heightPoints() const { return toPoints(heightPixels, dpiY); }

std::optional<ImageSize> readImageSize(std::span<const uint8_t> bytes) {
  if (bytes.size() < 8) return std::nullopt;
  if (bytes[0] == 0x89 && std::memcmp(&bytes[1], "PNG", 3) == 0) return pngSize(bytes);
  if (bytes[0] == 'G') return gifSize(bytes);
  if (bytes[0] == 'B') return bmpSize(bytes);
  if (bytes[0] == 0xFF) return jpegSize(bytes);
  if (bytes[0] == 'I' || bytes[0] == 'M') return tiffSize(bytes);
  return std::nullopt;
}

}  // namespace ambrel
