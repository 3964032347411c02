// Camera RAW validators: the shared samples at their structural length,
// alone and found by a search over a drive image; plain TIFF files that no
// RAW validator takes; hand-built files with loops and pointers past the
// drive.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <map>

#include "CarveImage.h"
#include "base/Endian.h"

namespace ambrel::test {
namespace {

constexpr int32_t kBlock = 8;
constexpr uint64_t kBlockBytes = 4096;

// A drive of zeros (freshly erased space) holding the file at block 3.
ValidatorRun onZeroDrive(ValidatorFn fn, const std::vector<uint8_t>& file, size_t driveBytes) {
  std::vector<uint8_t> drive(driveBytes, 0);
  std::copy(file.begin(), file.end(), drive.begin() + 3 * kBlockBytes);
  return runValidatorOnDrive(fn, drive, 3, kBlock, driveBytes / kBlockBytes);
}

// The raw pixels an MRW's PRD block describes, from the file's own bytes.
uint64_t mrwPixelBytes(const std::vector<uint8_t>& mrw) {
  const uint8_t* prd = mrw.data() + 16;  // the first block's body
  const uint64_t h = loadBE16(prd + 8), w = loadBE16(prd + 10);
  return prd[18] == 0x59 ? h * w * 12 / 8 : h * w * 2;
}

TEST(RawValidators, SharedSamplesAtTheirStructuralLength) {
  const auto cr2 = sample("camera_raw/CanonRaw.cr2");
  const auto nef = sample("camera_raw/Nikon.nef");
  const auto arw = sample("camera_raw/fixture-sony-zv-e10.arw");
  const auto mrw = sample("camera_raw/Minolta.mrw");
  if (cr2.empty() || nef.empty() || arw.empty() || mrw.empty()) GTEST_SKIP() << "the shared test data is not here";

  ValidatorRun r = runValidator(checkCR2FileAtBlock, cr2, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(int64_t(r.foundSize), referenceStructuralEnd("camera_raw/CanonRaw.cr2"));
  EXPECT_TRUE(r.skipFileSize);

  r = runValidator(checkNEF_FileAtBlock, nef, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(int64_t(r.foundSize), referenceStructuralEnd("camera_raw/Nikon.nef"));

  // The sample is the first 100000 bytes of a file whose embedded preview
  // ends at 754577: on a drive that holds that much, the preview counts.
  r = onZeroDrive(checkSONY_RAWFileAtBlock, arw, 1 << 20);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(int64_t(r.foundSize), referenceStructuralEnd("camera_raw/fixture-sony-zv-e10.arw"));
  // On a drive that ends first, only what lies on it.
  r = onZeroDrive(checkSONY_RAWFileAtBlock, arw, 512 * 1024);
  EXPECT_TRUE(r.accepted);
  EXPECT_LT(r.foundSize, 512u * 1024);
  EXPECT_GE(r.foundSize, 43032u);

  // MRW: the header blocks (the reference's length) and the pixels after them.
  const uint64_t mrwEnd = uint64_t(referenceStructuralEnd("camera_raw/Minolta.mrw")) + mrwPixelBytes(mrw);
  EXPECT_EQ(mrwPixelBytes(mrw), 2456u * 3272 * 3 / 2);
  r = onZeroDrive(checkMRWFileAtBlock, mrw, 16 << 20);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, mrwEnd);
  // Pixels that would run past the drive: the length is not known.
  r = onZeroDrive(checkMRWFileAtBlock, mrw, 4 << 20);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 0u);
  EXPECT_FALSE(r.skipFileSize);
}

TEST(RawValidators, TruncatedHeadersAreNotGivenAGuessedLength) {
  const auto orf = sample("camera_raw/fixture.orf");
  const auto nef = sample("camera_raw/fixture.nef");
  const auto nef2 = sample("camera_raw/fixture2.nef");
  if (orf.empty() || nef.empty() || nef2.empty()) GTEST_SKIP() << "the shared test data is not here";
  // The ORF's own magic, but its strip byte counts lie past the 128 bytes
  // kept: an Olympus file whose length is unknown.
  ValidatorRun r = onZeroDrive(checkORF_FileAtBlock, orf, 1 << 20);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 0u);
  // IFD0 24 MB on, past this drive; and an IFD0 cut off before its Make:
  // nothing says Nikon.
  EXPECT_FALSE(onZeroDrive(checkNEF_FileAtBlock, nef, 1 << 20).accepted);
  EXPECT_FALSE(onZeroDrive(checkNEF_FileAtBlock, nef2, 1 << 20).accepted);
}

TEST(RawValidators, PlainTiffIsNotTakenForARaw) {
  std::vector<std::pair<std::string, std::vector<uint8_t>>> tiffs;
  tiffs.emplace_back("ImageMagick", convertImage("-size 100x70 plasma:", "tif"));
  tiffs.emplace_back("ImageMagick, Motorola", convertImage("-size 60x40 plasma: -endian MSB", "tif"));
  // A TIFF from a camera maker's software, with the Make tag of a camera
  // maker whose raws are not TIFF-based here.
  tiffs.emplace_back("PIL, Make Canon",
                     pilImage("import sys\nfrom PIL import Image\nim = Image.new('RGB', (50, 40), (1, 2, 3))\n"
                              "ex = Image.Exif()\nex[0x010F] = 'Canon'\nim.save(sys.argv[1], 'TIFF', exif=ex)\n",
                              "tif"));
  int checked = 0;
  for (const auto& [what, tif] : tiffs) {
    if (tif.empty()) continue;
    SCOPED_TRACE(what);
    EXPECT_TRUE(runValidator(checkTIFF_FileAtBlock, tif, kBlock).accepted);
    for (ValidatorFn fn : {checkCR2FileAtBlock, checkNEF_FileAtBlock, checkSONY_RAWFileAtBlock, checkORF_FileAtBlock,
                           checkMRWFileAtBlock})
      EXPECT_FALSE(runValidator(fn, tif, kBlock).accepted);
    ++checked;
  }
  if (checked == 0) GTEST_SKIP() << "neither ImageMagick nor PIL is installed";
}

// A little-endian TIFF with IFD0 at 8: entries (tag, type, count, value).
struct Ifd {
  std::vector<std::array<uint32_t, 4>> entries;
  uint32_t next = 0;
};
std::vector<uint8_t> tiff(const char magic[4], const std::vector<std::pair<uint32_t, Ifd>>& ifds, size_t size) {
  std::vector<uint8_t> f(size, 0);
  std::memcpy(f.data(), magic, 4);
  storeLE32(f.data() + 4, ifds.front().first);
  for (const auto& [at, ifd] : ifds) {
    storeLE16(f.data() + at, static_cast<uint16_t>(ifd.entries.size()));
    for (size_t i = 0; i < ifd.entries.size(); ++i) {
      uint8_t* e = f.data() + at + 2 + 12 * i;
      storeLE16(e, static_cast<uint16_t>(ifd.entries[i][0]));
      storeLE16(e + 2, static_cast<uint16_t>(ifd.entries[i][1]));
      storeLE32(e + 4, ifd.entries[i][2]);
      storeLE32(e + 8, ifd.entries[i][3]);
    }
    storeLE32(f.data() + at + 2 + 12 * ifd.entries.size(), ifd.next);
  }
  return f;
}

TEST(RawValidators, MakersMarksAndTheirExtraStructures) {
  // NEF: Make "NIKON", IFD0 looping to itself and a SubIFD pointing back at
  // IFD0; a maker note whose own TIFF structure points at a preview.
  auto nef = tiff("II*\0",
                  {{8, {{{256, 4, 1, 10}, {271, 2, 6, 200}, {273, 4, 1, 400}, {279, 4, 1, 100}, {330, 4, 1, 8},
                         {37500, 7, 60, 300}}, 8}}},
                  1000);
  std::memcpy(nef.data() + 200, "NIKON", 6);
  std::memcpy(nef.data() + 300, "Nikon\0\x02\x10\0\0II*\0\x08\0\0\0", 18);
  // Maker-note IFD at 310 + 8: one entry, the preview IFD at 310 + 40.
  storeLE16(nef.data() + 318, 1);
  const uint8_t previewEntry[12] = {0x11, 0, 4, 0, 1, 0, 0, 0, 40, 0, 0, 0};
  std::memcpy(nef.data() + 320, previewEntry, 12);
  storeLE16(nef.data() + 350, 2);
  const uint8_t jpegAt[12] = {0x01, 0x02, 4, 0, 1, 0, 0, 0, 0x90, 0x01, 0, 0};  // 400 from 310
  const uint8_t jpegLen[12] = {0x02, 0x02, 4, 0, 1, 0, 0, 0, 0x2C, 0x01, 0, 0}; // 300 bytes
  std::memcpy(nef.data() + 352, jpegAt, 12);
  std::memcpy(nef.data() + 364, jpegLen, 12);
  ValidatorRun r = runValidator(checkNEF_FileAtBlock, nef, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 310u + 400 + 300);  // the preview, past the strips
  // The same file with another maker's name is not a NEF.
  std::memcpy(nef.data() + 200, "NIKOX", 6);
  std::memcpy(nef.data() + 300, "Nikox", 5);
  EXPECT_FALSE(runValidator(checkNEF_FileAtBlock, nef, kBlock).accepted);

  // Sony: the private IFD named by four bytes of tag 0xC634, and the block
  // it names.
  auto sony = tiff("II*\0",
                   {{8, {{{256, 4, 1, 10}, {271, 2, 5, 200}, {273, 4, 1, 400}, {279, 4, 1, 100}, {0xC634, 1, 4, 600}}, 0}},
                    {600, {{{0x7200, 4, 1, 2000}, {0x7201, 4, 1, 500}}, 0}}},
                   3000);
  std::memcpy(sony.data() + 200, "SONY", 5);
  r = runValidator(checkSONY_RAWFileAtBlock, sony, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 2500u);
  EXPECT_FALSE(runValidator(checkNEF_FileAtBlock, sony, kBlock).accepted);

  // CR2: "CR" and version 2 at 8, and the raw IFD whose offset follows.
  auto cr2 = tiff("II*\0", {{16, {{{256, 4, 1, 10}, {273, 4, 1, 300}, {279, 4, 1, 100}}, 0}},
                            {200, {{{273, 4, 1, 1000}, {279, 4, 1, 800}}, 0}}},
                  2000);
  std::memcpy(cr2.data() + 8, "CR\x02\0", 4);
  storeLE32(cr2.data() + 12, 200);
  r = runValidator(checkCR2FileAtBlock, cr2, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 1800u);
  cr2[10] = 3;
  EXPECT_FALSE(runValidator(checkCR2FileAtBlock, cr2, kBlock).accepted);

  // ORF: the maker's magic, an IFD chain that loops to itself.
  auto orf = tiff("IIRO", {{8, {{{256, 4, 1, 10}, {273, 4, 1, 300}, {279, 4, 1, 200}}, 8}}}, 600);
  r = runValidator(checkORF_FileAtBlock, orf, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 500u);
  std::memcpy(orf.data(), "II*\0", 4);
  EXPECT_FALSE(runValidator(checkORF_FileAtBlock, orf, kBlock).accepted);
  // Motorola order: "MMOR", offsets and counts big-endian.
  std::vector<uint8_t> mm(400, 0);
  std::memcpy(mm.data(), "MMOR\0\0\0\x08\0\x03", 10);
  const uint8_t mmEntries[36] = {1, 0x00, 0, 4, 0, 0, 0, 1, 0, 0, 0,    10,  // width
                                 1, 0x11, 0, 4, 0, 0, 0, 1, 0, 0, 1,    0,   // strip at 256
                                 1, 0x17, 0, 4, 0, 0, 0, 1, 0, 0, 0, 0x80};  // 128 bytes
  std::memcpy(mm.data() + 10, mmEntries, sizeof mmEntries);
  r = runValidator(checkORF_FileAtBlock, mm, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 384u);
}

TEST(RawValidators, MrwBlockListsAreBounded) {
  // Blocks that claim more than the header holds, and a header longer than
  // the drive.
  std::vector<uint8_t> mrw(64, 0);
  std::memcpy(mrw.data(), "\0MRM\0\0\0\x30", 8);
  std::memcpy(mrw.data() + 8, "\0PRD\0\0\x10\0", 8);
  EXPECT_FALSE(runValidator(checkMRWFileAtBlock, mrw, kBlock).accepted);
  std::memcpy(mrw.data(), "\0MRM\x7F\xFF\xFF\xFF", 8);
  EXPECT_FALSE(runValidator(checkMRWFileAtBlock, mrw, kBlock, 3, 64 * 1024).accepted);
  // Without a PRD block nothing says how large the pixels are.
  std::memcpy(mrw.data(), "\0MRM\0\0\0\x10\0PAD\0\0\0\x08", 16);
  EXPECT_FALSE(runValidator(checkMRWFileAtBlock, mrw, kBlock).accepted);
}

TEST(RawSearch, EverySampleIsFoundAtItsBlockUnderItsOwnType) {
  const auto cr2 = sample("camera_raw/CanonRaw.cr2");
  const auto nef = sample("camera_raw/Nikon.nef");
  const auto arw = sample("camera_raw/fixture-sony-zv-e10.arw");
  const auto mrw = sample("camera_raw/Minolta.mrw");
  const auto tif = convertImage("-size 80x60 plasma:", "tif");
  if (cr2.empty() || nef.empty() || arw.empty() || mrw.empty()) GTEST_SKIP() << "the shared test data is not here";
  TempDir dir;
  std::vector<uint8_t> drive(20 << 20, 0);
  auto put = [&](const std::vector<uint8_t>& f, uint64_t sector) {
    std::copy(f.begin(), f.end(), drive.begin() + static_cast<std::ptrdiff_t>(sector * 512));
  };
  put(cr2, 64);
  put(nef, 128);
  put(arw, 256);
  if (!tif.empty()) put(tif, 2000);
  put(mrw, 4096);
  writeFile(dir / "drive.img", drive);
  const BuiltDatabase db = builtDatabase();
  DriveUnderSearch search(dir / "drive.img");
  SignatureSearch(*search.volume, db.withExtensions({"cr2", "nef", "arw", "mrw", "orf", "tif"})).signatureSearchDisk();
  std::map<uint64_t, CarvedFile> byBlock;
  std::string seen;
  for (const auto& f : carvedFiles(*search.volume->dirRoot)) {
    byBlock[f.startBlock] = f;
    seen += f.path + "@" + std::to_string(f.startBlock) + " ";
  }
  auto expect = [&](uint64_t sector, const std::string& path, uint64_t size) {
    SCOPED_TRACE(path);
    ASSERT_TRUE(byBlock.count(sector)) << seen;
    EXPECT_EQ(byBlock[sector].path, path);
    EXPECT_EQ(byBlock[sector].size, size);
  };
  expect(64, "/Root/Camera RAW/cr2/File1.cr2", uint64_t(referenceStructuralEnd("camera_raw/CanonRaw.cr2")));
  expect(128, "/Root/Camera RAW/nef/File1.nef", nef.size());
  expect(256, "/Root/Camera RAW/arw/File1.arw", uint64_t(referenceStructuralEnd("camera_raw/fixture-sony-zv-e10.arw")));
  expect(4096, "/Root/Camera RAW/mrw/File1.mrw",
         uint64_t(referenceStructuralEnd("camera_raw/Minolta.mrw")) + mrwPixelBytes(mrw));
  if (!tif.empty()) expect(2000, "/Root/Images/tif/File1.tif", tif.size());
  EXPECT_EQ(byBlock.size(), tif.empty() ? 4u : 5u) << seen;
}

}  // namespace
}  // namespace ambrel::test
