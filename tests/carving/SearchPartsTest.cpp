// The search's smaller parts: extension names, the RTF picture list, a
// carved file's bytes in preview units, pictures' sizes from their headers,
// and the progress reports' keys.
#include <gtest/gtest.h>

#include "CarveImage.h"
#include "base/Endian.h"
#include "carving/ImageSize.h"
#include "support/RecordingController.h"

namespace ambrel::test {
namespace {

TEST(SearchParts, StandardExtensions) {
  EXPECT_EQ(standardSigExtensionForExtension("JPG"), "jpg");
  EXPECT_EQ(standardSigExtensionForExtension("Gif"), "gif");
  EXPECT_EQ(standardSigExtensionForExtension(""), "");
  EXPECT_EQ(standardSigExtensionForExtension("TIFF"), "tif");
  EXPECT_EQ(standardSigExtensionForExtension("jpeg"), "jpg");
  EXPECT_EQ(standardSigExtensionForExtension("abcf"), "tif");  // any fourth F
  EXPECT_EQ(standardSigExtensionForExtension("icns"), std::nullopt);
  EXPECT_EQ(standardSigExtensionForExtension("jpeg2"), std::nullopt);
  for (const char* yes : {"bmp", "Bmp", "BMP", "jpeg", "JPEG", "Jpeg", "tiff", "Tif", "gif", "PNG"})
    EXPECT_TRUE(isSupportedRTFGraphic(yes)) << yes;
  for (const char* no : {"bMp", "jPg", "pdf", "PDF", "", "png "}) EXPECT_FALSE(isSupportedRTFGraphic(no)) << no;
}

TEST(SearchParts, FillDataReadsWholeUnitsAndStopsAtAFailedRead) {
  std::vector<uint8_t> drive = noise(100 * 512, 9);
  MemorySectorSource source(drive);
  SearchState state;
  // Blocks of one sector: units of 8 sectors, the last cut to the size.
  Candidate sectors(source, CarveGeometry{0, 1, 100}, 0, state);
  std::vector<uint8_t> out;
  sectors.fillDataFromBlock(10, 5000, out);
  EXPECT_EQ(out, std::vector<uint8_t>(drive.begin() + 5120, drive.begin() + 5120 + 5000));
  // Blocks of four sectors on a volume starting at sector 2: units of a block.
  Candidate blocks(source, CarveGeometry{2, 4, 20}, 0, state);
  out.clear();
  blocks.fillDataFromBlock(3, 2100, out);
  EXPECT_EQ(out, std::vector<uint8_t>(drive.begin() + 14 * 512, drive.begin() + 14 * 512 + 2100));
  // A unit that does not lie on the drive ends it with what came before.
  out.clear();
  sectors.fillDataFromBlock(88, 20 * 512, out);
  EXPECT_EQ(out.size(), 8u * 512);
}

// A bitmap of 2^31-1 pixels at one pixel a metre once overflowed the points.
TEST(SearchParts, AHugeBitmapAtOnePixelAMetreHasItsPointsInRange) {
  std::vector<uint8_t> bmp(54, 0);
  bmp[0] = 'B';
  bmp[1] = 'M';
  storeLE32(&bmp[14], 40);
  storeLE32(&bmp[18], 0x7FFFFFFF);
  storeLE32(&bmp[22], 10);
  storeLE32(&bmp[38], 1);
  storeLE32(&bmp[42], 3);
  const auto s = readImageSize(bmp);
  ASSERT_TRUE(s);
  EXPECT_EQ(s->widthPixels, 0x7FFFFFFFu);
  EXPECT_EQ(s->widthPoints(), UINT32_MAX);
  EXPECT_EQ(s->heightPoints(), 9448u);  // 10 pixels at 0.0762 dpi
}

TEST(SearchParts, PictureSizesFromTheirHeaders) {
  // PNG with pHYs of 144 dpi (5669 pixels a metre): half its pixels in points.
  const auto png = pilImage(
      "import sys\nfrom PIL import Image\nImage.new('RGB', (128, 96)).save(sys.argv[1], dpi=(144, 144))\n", "png");
  if (!png.empty()) {
    const auto s = readImageSize(png);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->widthPixels, 128u);
    EXPECT_EQ(s->heightPixels, 96u);
    EXPECT_EQ(s->widthPoints(), 64u);
    EXPECT_EQ(s->heightPoints(), 48u);
  }
  const auto lena = sample("rtfd/ReadMe.rtfd/lena_noisy_small.png");
  if (!lena.empty()) {
    const auto s = readImageSize(lena);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->widthPoints(), 2560u / 20);  // what its RTF names: \width2560
  }
  const auto jpeg = sample("rtfd/rtfdtest.rtfd/rtfpocketguide.jpeg");
  if (!jpeg.empty()) {
    const auto s = readImageSize(jpeg);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->widthPoints(), 1180u / 20);
    EXPECT_EQ(s->heightPoints(), 1920u / 20);
  }
  struct Made {
    const char* format;
    const char* args;
    uint32_t w, h, wPoints;
  };
  for (const Made& m : {Made{"gif", "-size 33x21 xc:red", 33, 21, 33},
                        Made{"bmp", "-size 40x30 xc:red -density 144 -units PixelsPerInch", 40, 30, 20},
                        Made{"jpg", "-size 300x200 xc:red -density 300 -units PixelsPerInch", 300, 200, 72},
                        Made{"jpg", "-size 17x19 xc:red -interlace Plane", 17, 19, 17},
                        Made{"tif", "-size 50x60 xc:red -density 36 -units PixelsPerInch", 50, 60, 100},
                        Made{"tif", "-size 51x61 xc:red -endian MSB", 51, 61, 51}}) {
    const auto bytes = convertImage(m.args, m.format);
    if (bytes.empty()) continue;
    const auto s = readImageSize(bytes);
    ASSERT_TRUE(s) << m.format << " " << m.args;
    EXPECT_EQ(s->widthPixels, m.w) << m.args;
    EXPECT_EQ(s->heightPixels, m.h) << m.args;
    EXPECT_EQ(s->widthPoints(), m.wPoints) << m.args;
  }
  // Not a picture, or one whose header is cut short.
  EXPECT_FALSE(readImageSize(std::vector<uint8_t>{'B', 'M', 0, 0, 0, 0, 0, 0}));
  EXPECT_FALSE(readImageSize(std::vector<uint8_t>(100, 0)));
  EXPECT_FALSE(readImageSize(std::vector<uint8_t>{0xFF, 0xD8, 0xFF, 0xDA, 0, 4, 0, 0, 0}));
}

TEST(SearchParts, ProgressReportsCarryTheirKeys) {
  TempDir dir;
  // Sparse zeros: long enough that the first reports come before a
  // five-hundredth of it is done.
  constexpr uint64_t kSectors = 200000;
  writeFile(dir / "d.img", {});
  std::filesystem::resize_file(dir / "d.img", kSectors * 512);
  std::string error;
  PlistDict dict = driveDictionaryForPath((dir / "d.img").string(), error);
  RecordingController controller;
  controller.drives = PlistArray{dict};
  dict.set("WhetherDiskDict", true);
  Volume volume(dict, &controller);
  volume.endPos = 100;
  auto sig = makeSig("T", "x", "AABBCC", 0, 3);
  SignatureSearch search(volume, {sig.get()});
  search.setProgressInterval(std::chrono::milliseconds(0));
  search.signatureSearchDisk();
  ASSERT_GT(controller.progressReports.size(), 3u);
  const ProgressReport& r = controller.progressReports[3];
  for (const char* key : {"TimeRemaining", "Percent Done", "Total Size", "Size Done", "Progress Status", "Folders",
                          "Files", "Entries Found", "Data", "BarDoubleValue"})
    EXPECT_TRUE(r.contains(key)) << key;
  EXPECT_EQ(r.u64("Total Size"), kSectors * 512);
  const uint64_t examined = r.u64("BarDoubleValue");
  EXPECT_EQ(r.u64("Size Done"), examined * 512);
  EXPECT_EQ(r.u64("Percent Done"), examined * 100 / kSectors);
  // Until a five-hundredth of the area is done no estimate is given.
  EXPECT_EQ(controller.progressReports[2].string("TimeRemaining"), "Calculating ...");
  const std::string last = controller.progressReports.back().string("TimeRemaining");
  EXPECT_EQ(std::count(last.begin(), last.end(), ':'), 3) << last;
}

}  // namespace
}  // namespace ambrel::test
