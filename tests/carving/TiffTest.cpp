// The TIFF walker and validator: real files of both byte orders, strips,
// tiles, pages and EXIF against an independent structural reader, the
// camera samples, and hand-built structures with loops and absurd counts.
#include <gtest/gtest.h>

#include <cstring>

#include "CarveImage.h"
#include "base/Endian.h"
#include "carving/TiffWalker.h"

namespace ambrel::test {
namespace {

constexpr int32_t kBlock = 8;

// The length the shared collection's own reader (carvecheck.py) gives a TIFF.
int64_t oracleTiffEnd(const std::vector<uint8_t>& tiff) {
  const auto root = sharedTestData();
  if (root.empty() || !haveTool("python3")) return -1;
  TempDir dir;
  writeFile(dir / "t.tif", tiff);
  std::string out;
  const std::string cmd = "python3 -c 'import sys; sys.path.insert(0, sys.argv[1]); import carvecheck; "
                          "print(carvecheck.tiff_extent(open(sys.argv[2], \"rb\").read()))' '" +
                          (root / "tools").string() + "' '" + (dir / "t.tif").string() + "'";
  if (runCommand(cmd, &out) != 0) return -1;
  return std::strtoll(out.c_str(), nullptr, 10);
}

TEST(TiffValidator, RealFilesOfEveryLayoutEndAtTheirFurthestByte) {
  const std::vector<std::pair<std::string, std::string>> made = {
      {"Intel order, strips", "-size 100x70 plasma: -define tiff:rows-per-strip=8"},
      {"Motorola order", "-size 100x70 plasma: -endian MSB"},
      {"tiles", "-size 200x150 plasma: -define tiff:tile-geometry=32x32"},
      {"LZW", "-size 300x200 plasma:fractal -compress lzw"},
      {"Zip, alpha", "-size 64x64 gradient: -alpha set -compress zip"},
      {"three pages", "-size 40x40 xc:red xc:green xc:blue"},
      {"JPEG compressed", "-size 256x256 plasma: -compress jpeg"},
  };
  int checked = 0;
  for (const auto& [what, args] : made) {
    const auto tif = convertImage(args, "tif");
    if (tif.empty()) continue;
    SCOPED_TRACE(what);
    const ValidatorRun r = runValidator(checkTIFF_FileAtBlock, tif, kBlock);
    EXPECT_TRUE(r.accepted);
    EXPECT_EQ(r.foundSize, tif.size());
    EXPECT_TRUE(r.skipFileSize);
    EXPECT_EQ(r.skipSize, tif.size() / 4096);
    const int64_t oracle = oracleTiffEnd(tif);
    if (oracle >= 0) {
      EXPECT_EQ(int64_t(r.foundSize), oracle);
    }
    ++checked;
  }
  // EXIF written by PIL: IFD0 points at an EXIF IFD of its own.
  const auto exif = pilImage(
      "import sys\nfrom PIL import Image\nim = Image.new('RGB', (120, 90), (10, 200, 30))\n"
      "ex = Image.Exif()\nex[0x010F] = 'Maker'\nex[0x8769] = {0x9003: '2024:01:02 03:04:05', 0x920A: (50, 1)}\n"
      "im.save(sys.argv[1], 'TIFF', exif=ex)\n",
      "tif");
  if (!exif.empty()) {
    const ValidatorRun r = runValidator(checkTIFF_FileAtBlock, exif, kBlock);
    EXPECT_TRUE(r.accepted);
    EXPECT_EQ(r.foundSize, exif.size());
    ++checked;
  }
  if (checked == 0) GTEST_SKIP() << "neither ImageMagick nor PIL is installed";
}

TEST(TiffValidator, CameraSamplesReadAsTiff) {
  int checked = 0;
  for (const char* name : {"camera_raw/Nikon.nef", "camera_raw/CanonRaw.cr2"}) {
    const auto raw = sample(name);
    if (raw.empty()) continue;
    const ValidatorRun r = runValidator(checkTIFF_FileAtBlock, raw, kBlock);
    EXPECT_TRUE(r.accepted) << name;
    EXPECT_EQ(int64_t(r.foundSize), referenceStructuralEnd(name)) << name;
    ++checked;
  }
  // A 128-byte header whose IFD0 lies 24 MB on: past this drive's end.
  const auto head = sample("camera_raw/fixture.nef");
  if (!head.empty()) {
    const ValidatorRun r = runValidator(checkTIFF_FileAtBlock, head, kBlock, 3, 1 << 20);
    EXPECT_FALSE(r.accepted);
  }
  if (checked == 0) GTEST_SKIP() << "the shared samples are not here";
}

// A hand-built TIFF: IFDs of (tag, type, count, value) entries, values of
// more than four bytes and strips placed where the test says.
class HandTiff {
 public:
  explicit HandTiff(bool bigEndian, size_t size = 4096) : be_(bigEndian), b_(size, 0) {
    b_[0] = b_[1] = bigEndian ? 'M' : 'I';
    put16(2, 42);
  }
  void put16(size_t at, uint16_t v) { be_ ? storeBE16(&b_[at], v) : storeLE16(&b_[at], v); }
  void put32(size_t at, uint32_t v) { be_ ? storeBE32(&b_[at], v) : storeLE32(&b_[at], v); }
  void ifd0(uint32_t at) { put32(4, at); }
  struct Entry {
    uint16_t tag, type;
    uint32_t count, value;
  };
  // Writes an IFD at `at`; returns the position of its next-IFD field.
  size_t ifd(size_t at, const std::vector<Entry>& entries, uint32_t next = 0) {
    put16(at, static_cast<uint16_t>(entries.size()));
    for (size_t i = 0; i < entries.size(); ++i) {
      const size_t e = at + 2 + 12 * i;
      put16(e, entries[i].tag);
      put16(e + 2, entries[i].type);
      put32(e + 4, entries[i].count);
      if (entries[i].type == 3 && entries[i].count == 1) put16(e + 8, static_cast<uint16_t>(entries[i].value));
      else put32(e + 8, entries[i].value);
    }
    const size_t nextAt = at + 2 + 12 * entries.size();
    put32(nextAt, next);
    return nextAt;
  }
  std::vector<uint8_t>& bytes() { return b_; }

 private:
  bool be_;
  std::vector<uint8_t> b_;
};

TEST(TiffValidator, BothOrdersWithStripsExifAndValueBlocks) {
  for (bool be : {false, true}) {
    HandTiff t(be, 6000);
    t.ifd0(8);
    // Two strips (at 1000 and 3000, 500 and 700 bytes), their offsets and
    // counts as value blocks, an EXIF IFD at 200 with a 40-byte value at 5000.
    t.put32(100, 1000), t.put32(104, 3000);
    t.put32(120, 500), t.put32(124, 700);
    t.ifd(8, {{256, 3, 1, 10}, {257, 3, 1, 20}, {273, 4, 2, 100}, {279, 4, 2, 120}, {34665, 4, 1, 200}});
    t.ifd(200, {{0x9003, 2, 40, 5000}});
    auto& b = t.bytes();
    b.resize(5040);
    const ValidatorRun r = runValidator(checkTIFF_FileAtBlock, b, kBlock);
    EXPECT_TRUE(r.accepted) << be;
    EXPECT_EQ(r.foundSize, 5040u) << be;
    // Without the EXIF value, the second strip ends the file.
    HandTiff u(be, 6000);
    u.ifd0(8);
    u.put32(100, 1000), u.put32(104, 3000), u.put32(120, 500), u.put32(124, 700);
    u.ifd(8, {{256, 3, 1, 10}, {257, 3, 1, 20}, {273, 4, 2, 100}, {279, 4, 2, 120}});
    EXPECT_EQ(runValidator(checkTIFF_FileAtBlock, u.bytes(), kBlock).foundSize, 3700u) << be;
  }
}

TEST(TiffValidator, LoopsAndLongChainsEndTheWalk) {
  // IFD0 -> IFD1 -> IFD0, and an EXIF pointer back at IFD0.
  HandTiff t(false, 2000);
  t.ifd0(8);
  t.ifd(8, {{256, 3, 1, 1}, {273, 4, 1, 1500}, {279, 4, 1, 100}, {34665, 4, 1, 8}}, 300);
  t.ifd(300, {{256, 3, 1, 1}}, 8);
  ValidatorRun r = runValidator(checkTIFF_FileAtBlock, t.bytes(), kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 1600u);

  // A chain of 2000 IFDs: the walk stops at its IFD limit.
  HandTiff chain(false, 8 + 2000 * 20 + 100);
  chain.ifd0(8);
  for (uint32_t i = 0; i < 2000; ++i) {
    const uint32_t at = 8 + i * 20;
    const std::vector<HandTiff::Entry> one = {{256, 3, 1, 1}};
    chain.ifd(at, one, i + 1 < 2000 ? at + 20 : 0);
  }
  MemorySectorSource source(chain.bytes());
  SearchState state;
  Candidate c(source, CarveGeometry{0, 1, source.sectorCount()}, 0, state);
  TiffWalker walker(c);
  const auto ifd0 = walker.readHeader();
  ASSERT_TRUE(ifd0);
  const TiffWalkResult w = walker.walk(*ifd0);
  EXPECT_TRUE(w.capped);
  EXPECT_EQ(w.ifds.size(), TiffLimits{}.maxIfds);
}

TEST(TiffValidator, AbsurdCountsAndPointersGiveABoundedAnswer) {
  // A billion strip offsets stored past the drive's end: nothing to read, so
  // no length is known.
  HandTiff t(true, 512);
  t.ifd0(8);
  t.ifd(8, {{256, 3, 1, 1}, {273, 4, 1u << 30, 0x7FFFFFF0}, {279, 4, 1u << 30, 0x7FFFFFF0}});
  ValidatorRun r = runValidator(checkTIFF_FileAtBlock, t.bytes(), kBlock, 3, 1 << 20);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 0u);
  EXPECT_FALSE(r.skipFileSize);

  // A strip that lies past the drive's end is not counted.
  HandTiff s(false, 512);
  s.ifd0(8);
  s.ifd(8, {{256, 3, 1, 1}, {273, 4, 1, 0x7FFFFFF0}, {279, 4, 1, 100}, {513, 4, 1, 300}, {514, 4, 1, 50}});
  r = runValidator(checkTIFF_FileAtBlock, s.bytes(), kBlock, 3, 1 << 20);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 350u);

  auto refused = [](HandTiff& h) { return !runValidator(checkTIFF_FileAtBlock, h.bytes(), kBlock, 3, 1 << 20).accepted; };
  HandTiff none(false, 512);
  none.ifd0(8);
  none.ifd(8, {});
  EXPECT_TRUE(refused(none)) << "no entries";
  HandTiff many(false, 512);
  many.ifd0(8);
  many.put16(8, 0xFFFF);
  EXPECT_TRUE(refused(many)) << "65535 entries";
  HandTiff badType(false, 512);
  badType.ifd0(8);
  badType.ifd(8, {{256, 3, 1, 1}, {257, 99, 1, 1}});
  EXPECT_TRUE(refused(badType)) << "unknown type";
  HandTiff noSize(false, 512);
  noSize.ifd0(8);
  noSize.ifd(8, {{273, 4, 1, 100}, {279, 4, 1, 100}});
  EXPECT_TRUE(refused(noSize)) << "no width or height";
  HandTiff magic(false, 512);
  magic.put16(2, 43);
  magic.ifd0(8);
  magic.ifd(8, {{256, 3, 1, 1}});
  EXPECT_TRUE(refused(magic)) << "BigTIFF magic";
  HandTiff inHeader(false, 512);
  inHeader.ifd0(4);
  EXPECT_TRUE(refused(inHeader)) << "IFD0 inside the header";
  HandTiff far(false, 512);
  far.ifd0(0x7FFFFFF0);
  EXPECT_TRUE(refused(far)) << "IFD0 past the drive";
}

}  // namespace
}  // namespace ambrel::test
