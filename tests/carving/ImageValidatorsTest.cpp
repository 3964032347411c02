// JPEG, PNG, GIF, BMP and ICNS validators on real files (made by ImageMagick
// or taken from the shared samples) and on files changed to meet each rule.
#include <gtest/gtest.h>

#include <cstring>

#include "CarveImage.h"
#include "base/Endian.h"

namespace ambrel::test {
namespace {

constexpr int32_t kBlock = 8;  // 4096-byte blocks
constexpr uint64_t kBlockBytes = 4096;

void expectWholeFile(ValidatorFn fn, const std::vector<uint8_t>& file, const std::string& what) {
  SCOPED_TRACE(what);
  ASSERT_FALSE(file.empty());
  const ValidatorRun r = runValidator(fn, file, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, file.size());
  EXPECT_TRUE(r.skipFileSize);
  EXPECT_EQ(r.skipSize, file.size() / kBlockBytes);
}

// ---- JPEG -------------------------------------------------------------------

TEST(JpegValidator, RealBaselineFilesEndAtTheirEndMarker) {
  const std::vector<std::pair<std::string, std::string>> made = {
      {"plasma q85", "-size 300x200 plasma:fractal -quality 85"},
      {"large q95", "-size 1280x960 plasma:fractal -quality 95"},
      {"grey", "-size 200x640 gradient: -colorspace Gray"},
      {"with EXIF-like comment and 4:4:4", "-size 333x77 plasma: -sampling-factor 1x1 -set comment hello"},
  };
  int checked = 0;
  for (const auto& [what, args] : made) {
    const auto jpg = convertImage(args, "jpg");
    if (jpg.empty()) continue;
    expectWholeFile(checkJPGFileAtBlock, jpg, what);
    ++checked;
  }
  const auto real = sample("rtfd/rtfdtest.rtfd/rtfpocketguide.jpeg");
  if (!real.empty()) {
    expectWholeFile(checkJPGFileAtBlock, real, "rtfpocketguide.jpeg");
    ++checked;
  }
  if (checked == 0) GTEST_SKIP() << "neither ImageMagick nor the shared samples are here";
}

// A JPEG laid out by hand: start of image, a JFIF segment, a frame of the
// given kind and size, a scan header, then entropy bytes with the end
// marker `endAt` bytes after the scan data starts.
struct HandJpeg {
  std::vector<uint8_t> bytes;
  size_t scanData = 0;  // position of the first entropy byte
};

HandJpeg handJpeg(uint8_t frame, uint16_t width, uint16_t height, size_t endAt) {
  HandJpeg j;
  auto& b = j.bytes;
  b = {0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x10, 'J', 'F', 'I', 'F', 0, 1, 1, 0, 0, 1, 0, 1, 0, 0};
  b.insert(b.end(), {0xFF, frame, 0x00, 0x11, 0x08});
  b.push_back(height >> 8), b.push_back(height & 0xFF), b.push_back(width >> 8), b.push_back(width & 0xFF);
  b.insert(b.end(), {0x03, 0x01, 0x22, 0x00, 0x02, 0x11, 0x01, 0x03, 0x11, 0x01});
  b.insert(b.end(), {0xFF, 0xDA, 0x00, 0x0C, 0x03, 0x01, 0x00, 0x02, 0x11, 0x03, 0x11, 0x00, 0x3F, 0x00});
  j.scanData = b.size();
  // Entropy bytes that never hold FF D9; the first four end a progressive
  // hop at once (a length of 0).
  b.insert(b.end(), {0x12, 0x34, 0x00, 0x00});
  while (b.size() < j.scanData + endAt) b.push_back(static_cast<uint8_t>(0x11 + (b.size() % 7)));
  b.insert(b.end(), {0xFF, 0xD9});
  return j;
}

TEST(JpegValidator, ProgressiveFrameIsNeverNotedSoOnly63SectorsAreSearched) {
  // The end marker 40 sectors into the scan data is within reach either way.
  for (uint8_t frame : {0xC0, 0xC2}) {
    const HandJpeg near = handJpeg(frame, 512, 512, 40 * 512);
    const ValidatorRun r = runValidator(checkJPGFileAtBlock, near.bytes, kBlock, 3, 0, 1);
    EXPECT_TRUE(r.accepted);
    EXPECT_EQ(r.foundSize, near.bytes.size()) << int(frame);
    EXPECT_TRUE(r.skipFileSize);
  }
  // 100 sectors in: the baseline frame's size (512 x 512, 768 sectors
  // estimated) lets the search reach it; the progressive one, with no size,
  // stops after 63 sectors and gives the estimate of 0 sectors.
  const HandJpeg base = handJpeg(0xC0, 512, 512, 100 * 512);
  const ValidatorRun b = runValidator(checkJPGFileAtBlock, base.bytes, kBlock, 3, 0, 1);
  EXPECT_TRUE(b.accepted);
  EXPECT_EQ(b.foundSize, base.bytes.size());

  const HandJpeg prog = handJpeg(0xC2, 512, 512, 100 * 512);
  const ValidatorRun p = runValidator(checkJPGFileAtBlock, prog.bytes, kBlock, 3, 0, 1);
  EXPECT_TRUE(p.accepted);
  EXPECT_FALSE(p.skipFileSize);
  EXPECT_EQ(p.foundSize, prog.scanData / 512 * 512);
}

TEST(JpegValidator, RealProgressiveFileIsAccepted) {
  const auto jpg = convertImage("-size 400x300 plasma:fractal -interlace Plane -quality 80", "jpg");
  if (jpg.empty()) GTEST_SKIP() << "ImageMagick is not installed";
  ASSERT_EQ(jpg[3], 0xE0);
  const ValidatorRun r = runValidator(checkJPGFileAtBlock, jpg, kBlock);
  EXPECT_TRUE(r.accepted);
  // Whatever the hop through the scan data met, the length is either the
  // file's or a whole number of sectors from its start.
  EXPECT_TRUE(r.foundSize == jpg.size() || r.foundSize % 512 == 0) << r.foundSize;
}

TEST(JpegValidator, EndMarkerBeyondTheScanLimitGivesTheEstimateWithoutSkip) {
  // 16 x 16: an estimate of 0 sectors, so the end search stops 63 sectors on.
  const HandJpeg tiny = handJpeg(0xC0, 16, 16, 200 * 512);
  ValidatorRun r = runValidator(checkJPGFileAtBlock, tiny.bytes, kBlock, 3, 0, 1);
  EXPECT_TRUE(r.accepted);
  EXPECT_FALSE(r.skipFileSize);
  EXPECT_EQ(r.foundSize, tiny.scanData / 512 * 512);
  // 640 x 480: 900 sectors estimated, searched through 3/4 of them plus 63.
  const HandJpeg wide = handJpeg(0xC0, 640, 480, 800 * 512);
  r = runValidator(checkJPGFileAtBlock, wide.bytes, kBlock, 3, 0, 1);
  EXPECT_TRUE(r.accepted);
  EXPECT_FALSE(r.skipFileSize);
  EXPECT_EQ(r.foundSize, (wide.scanData / 512 + 900) * 512);
  // Near the volume's end the estimate gives way to the rest of the volume,
  // less one sector. (Zeros around it: noise would hold an end marker.)
  std::vector<uint8_t> drive(64 * 4096, 0);
  std::copy(wide.bytes.begin(), wide.bytes.begin() + 4096, drive.begin() + 3 * 4096);
  r = runValidatorOnDrive(checkJPGFileAtBlock, drive, 3, kBlock, 64);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, (64 - 3) * 4096ull - 512);
}

TEST(JpegValidator, MalformedMarkersBeforeTheScanAreRefused) {
  const HandJpeg good = handJpeg(0xC0, 64, 64, 1000);
  auto bad = good.bytes;
  bad[20] = 0x7F;  // the frame marker's FF
  EXPECT_FALSE(runValidator(checkJPGFileAtBlock, bad, kBlock).accepted);
  bad = good.bytes;
  bad[21] = 0x00;  // FF 00 is no marker
  EXPECT_FALSE(runValidator(checkJPGFileAtBlock, bad, kBlock).accepted);
  bad = good.bytes;
  bad[21] = 0xFF;
  EXPECT_FALSE(runValidator(checkJPGFileAtBlock, bad, kBlock).accepted);
  // The same bytes whole are taken.
  EXPECT_TRUE(runValidator(checkJPGFileAtBlock, good.bytes, kBlock).accepted);
}

// ---- PNG --------------------------------------------------------------------

TEST(PngValidator, RealFilesEndAfterTheirEndChunk) {
  const std::vector<std::pair<std::string, std::string>> made = {
      {"rgb gradient", "-size 120x80 gradient:red-blue"},
      {"16-bit", "-size 300x300 plasma: -depth 16"},
      {"palette", "-size 64x64 xc:yellow -type Palette"},
      {"grey alpha", "-size 50x50 gradient: -alpha set -channel A -evaluate set 50% +channel -colorspace Gray"},
      {"interlaced", "-size 500x400 plasma:fractal -interlace PNG"},
  };
  int checked = 0;
  for (const auto& [what, args] : made) {
    const auto png = convertImage(args, "png");
    if (png.empty()) continue;
    expectWholeFile(checkPNGFileAtBlock, png, what);
    ++checked;
  }
  const auto lena = sample("rtfd/ReadMe.rtfd/lena_noisy_small.png");
  if (!lena.empty()) expectWholeFile(checkPNGFileAtBlock, lena, "lena_noisy_small.png"), ++checked;
  if (checked == 0) GTEST_SKIP() << "neither ImageMagick nor the shared samples are here";
}

std::vector<uint8_t> smallPng() {
  auto png = convertImage("-size 40x30 gradient:green-white", "png");
  if (png.empty()) {
    // A hand-made 1x1 grey PNG: signature, IHDR, IDAT, IEND (CRCs unchecked).
    png = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A, 0, 0, 0, 13, 'I', 'H', 'D', 'R', 0, 0, 0, 1, 0, 0, 0, 1,
           8,    0,   0,   0,   0,    0,    0,    0,    0, 0, 0, 0,  0,   0,   0,   0,   0, 0, 0, 0};
    png.resize(33);
    const uint8_t idat[] = {0, 0, 0, 2, 'I', 'D', 'A', 'T', 0x78, 0x9C, 0, 0, 0, 0};
    const uint8_t iend[] = {0, 0, 0, 0, 'I', 'E', 'N', 'D', 0xAE, 0x42, 0x60, 0x82};
    png.insert(png.end(), std::begin(idat), std::end(idat));
    png.insert(png.end(), std::begin(iend), std::end(iend));
  }
  return png;
}

TEST(PngValidator, HeaderChunkRules) {
  const auto png = smallPng();
  // Shorter than a block: taken whole, nothing skipped.
  ASSERT_LT(png.size(), kBlockBytes);
  expectWholeFile(checkPNGFileAtBlock, png, "small");
  auto withByte = [&](size_t at, uint8_t v) {
    auto b = png;
    b[at] = v;
    return runValidator(checkPNGFileAtBlock, b, kBlock).accepted;
  };
  // Bit depth: 1 and the even values up to 16 pass (6 too), the rest not.
  for (uint8_t d : {1, 2, 4, 6, 8, 10, 12, 14, 16}) EXPECT_TRUE(withByte(24, d)) << int(d);
  for (uint8_t d : {0, 3, 5, 7, 15, 17, 18, 32}) EXPECT_FALSE(withByte(24, d)) << int(d);
  for (uint8_t c : {0, 2, 3, 4, 6}) EXPECT_TRUE(withByte(25, c)) << int(c);
  for (uint8_t c : {1, 5, 7}) EXPECT_FALSE(withByte(25, c)) << int(c);
  EXPECT_FALSE(withByte(26, 1));  // compression
  EXPECT_FALSE(withByte(27, 1));  // filter
  EXPECT_TRUE(withByte(28, 1));   // interlace
  EXPECT_FALSE(withByte(28, 2));
  EXPECT_FALSE(withByte(11, 14));  // header length
  EXPECT_FALSE(withByte(15, 'r'));  // "IHDr"
  auto zeroWidth = png;
  std::memset(&zeroWidth[16], 0, 4);
  EXPECT_FALSE(runValidator(checkPNGFileAtBlock, zeroWidth, kBlock).accepted);
  auto negativeHeight = png;
  negativeHeight[20] = 0x80;
  EXPECT_FALSE(runValidator(checkPNGFileAtBlock, negativeHeight, kBlock).accepted);
}

TEST(PngValidator, CutAtTheFirstChunkThatIsNotLettersOrHasANegativeLength) {
  const auto png = smallPng();
  const size_t iend = png.size() - 12;
  for (const char* type : {"tEX1", "t Xt", "\x01\x02\x03\x04"}) {
    auto b = png;
    const uint8_t chunk[] = {0, 0, 0, 4, uint8_t(type[0]), uint8_t(type[1]), uint8_t(type[2]), uint8_t(type[3]),
                             'a', 'b', 'c', 'd', 0, 0, 0, 0};
    b.insert(b.begin() + static_cast<std::ptrdiff_t>(iend), std::begin(chunk), std::end(chunk));
    const ValidatorRun r = runValidator(checkPNGFileAtBlock, b, kBlock);
    EXPECT_TRUE(r.accepted) << type;
    EXPECT_EQ(r.foundSize, iend) << type;
    EXPECT_TRUE(r.skipFileSize);
  }
  // A length of 2^31 is negative as a signed number: the walk stops there.
  auto b = png;
  storeBE32(&b[iend], 0x80000000u);
  EXPECT_EQ(runValidator(checkPNGFileAtBlock, b, kBlock).foundSize, iend);
  // 2^31 - 1 is a chunk that ends past the drive: the walk reads zeros there
  // and stops, the length far beyond the drive (the search then uses the
  // maximum size).
  storeBE32(&b[iend], 0x7FFFFFFFu);
  const ValidatorRun far = runValidator(checkPNGFileAtBlock, b, kBlock);
  EXPECT_TRUE(far.accepted);
  EXPECT_EQ(far.foundSize, iend + 0x7FFFFFFFull + 12);
}

// ---- GIF --------------------------------------------------------------------

TEST(GifValidator, RealFilesEndAtTheirTrailer) {
  const std::vector<std::pair<std::string, std::string>> made = {
      {"one frame", "-size 64x64 xc:yellow"},
      {"plasma 256 colours", "-size 200x150 plasma:fractal -colors 256"},
      {"animation", "-delay 10 -size 32x32 xc:red xc:blue xc:green -loop 0"},
      {"comment", "-size 20x20 xc:pink -set comment hello"},
      {"local colour tables", "-size 40x40 xc:red -size 40x40 plasma: +map -delay 5"},
  };
  int checked = 0;
  for (const auto& [what, args] : made) {
    const auto gif = convertImage(args, "gif");
    if (gif.empty()) continue;
    expectWholeFile(checkGIFFileAtBlock, gif, what);
    ++checked;
  }
  if (checked == 0) GTEST_SKIP() << "ImageMagick is not installed";
}

// The first frame's image descriptor in a GIF (after header, colour table and
// any extensions).
size_t secondBlockAfterFirstImage(const std::vector<uint8_t>& gif) {
  size_t p = 13;
  if (gif[10] & 0x80) p += 3u << ((gif[10] & 7) + 1);
  while (gif[p] == 0x21) {  // extensions before the first image
    p += 2;
    while (gif[p]) p += gif[p] + 1u;
    ++p;
  }
  EXPECT_EQ(gif[p], 0x2C);
  p += 10;
  if (gif[p - 1] & 0x80) p += 3u << ((gif[p - 1] & 7) + 1);
  ++p;  // code size
  while (gif[p]) p += gif[p] + 1u;
  return p + 1;
}

TEST(GifValidator, CutAtTheFirstByteThatIsNoBlock) {
  const auto gif = convertImage("-delay 10 -size 32x32 xc:red xc:blue -loop 0", "gif");
  if (gif.empty()) GTEST_SKIP() << "ImageMagick is not installed";
  const size_t second = secondBlockAfterFirstImage(gif);
  ASSERT_LT(second, gif.size() - 1);
  auto damaged = gif;
  damaged[second] = 0x99;
  ValidatorRun r = runValidator(checkGIFFileAtBlock, damaged, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, second);
  // No trailer: the walk ends at the first byte that is no introducer.
  auto cut = gif;
  cut.back() = 0xAA;
  cut.insert(cut.end(), 100, 0xAA);
  r = runValidator(checkGIFFileAtBlock, cut, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, gif.size() - 1);
  // Zero bytes between blocks are passed over.
  auto padded = gif;
  padded.insert(padded.begin() + static_cast<std::ptrdiff_t>(second), 300, 0x00);
  r = runValidator(checkGIFFileAtBlock, padded, kBlock);
  EXPECT_EQ(r.foundSize, padded.size());
}

TEST(GifValidator, ASecondExtensionSubBlockOf59BytesEndsTheWalk) {
  // Header, screen without colour table, an application extension whose
  // first sub-block is 11 bytes and whose second is 59 (0x3B).
  std::vector<uint8_t> gif = {'G', 'I', 'F', '8', '9', 'a', 1, 0, 1, 0, 0x00, 0, 0};
  gif.insert(gif.end(), {0x21, 0xFF, 0x0B});
  gif.insert(gif.end(), 11, 'N');
  const size_t second = gif.size();
  gif.push_back(0x3B);
  gif.insert(gif.end(), 59, 0x01);
  gif.push_back(0x00);
  gif.insert(gif.end(), {0x2C, 0, 0, 0, 0, 1, 0, 1, 0, 0, 2, 2, 0x4C, 0x01, 0x00, 0x3B});
  const ValidatorRun r = runValidator(checkGIFFileAtBlock, gif, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, second + 59 + 1 + 1);
}

TEST(GifValidator, ZerosToTheDrivesEndStopThere) {
  std::vector<uint8_t> drive(1 << 20, 0);
  const uint8_t head[] = {'G', 'I', 'F', '8', '9', 'a', 1, 0, 1, 0, 0, 0, 0};
  std::copy(std::begin(head), std::end(head), drive.begin() + 4096);
  const ValidatorRun r = runValidatorOnDrive(checkGIFFileAtBlock, drive, 1, kBlock, drive.size() / 4096);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, drive.size() - 4096);
}

// ---- BMP and ICNS -------------------------------------------------------------

TEST(BmpValidator, FileSizeFieldWhenTheReservedWordIsZero) {
  int checked = 0;
  for (const char* fmt : {"bmp", "bmp3"}) {
    const auto bmp = convertImage("-size 50x40 plasma:", fmt);
    if (bmp.empty()) continue;
    const ValidatorRun r = runValidator(checkBMPFileAtBlock, bmp, kBlock);
    EXPECT_TRUE(r.accepted) << fmt;
    EXPECT_EQ(r.foundSize, bmp.size()) << fmt;
    EXPECT_FALSE(r.skipFileSize);
    EXPECT_EQ(r.skipSize, 12345u) << "left as it was";
    auto reserved = bmp;
    reserved[8] = 1;
    const ValidatorRun refused = runValidator(checkBMPFileAtBlock, reserved, kBlock);
    EXPECT_FALSE(refused.accepted);
    EXPECT_FALSE(refused.skipFileSize);
    ++checked;
  }
  if (checked == 0) GTEST_SKIP() << "ImageMagick is not installed";
}

TEST(IcnsValidator, LengthFieldOfRealIconsAndZero) {
  int checked = 0;
  for (const char* name : {"icns/fixture.icns", "icns/lena_noisy.icns", "icns/pdf.icns"}) {
    const auto icns = sample(name);
    if (icns.empty()) continue;
    const ValidatorRun r = runValidator(checkICNS_FileAtBlock, icns, kBlock);
    EXPECT_TRUE(r.accepted) << name;
    EXPECT_EQ(int64_t(r.foundSize), referenceStructuralEnd(name)) << name;
    EXPECT_EQ(r.foundSize, icns.size()) << name;
    EXPECT_FALSE(r.skipFileSize);
    ++checked;
  }
  const std::vector<uint8_t> empty = {'i', 'c', 'n', 's', 0, 0, 0, 0};
  const ValidatorRun r = runValidator(checkICNS_FileAtBlock, empty, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 0u);
  if (checked == 0) GTEST_SKIP() << "the shared samples are not here";
}

}  // namespace
}  // namespace ambrel::test
