// Office compound documents and RTF: the shared samples, hand-built headers
// that only look like a compound document, RTF picture lists, and an RTFD
// bundle found by a search with its pictures matched by size.
#include <gtest/gtest.h>

#include <cstring>
#include <map>

#include "CarveImage.h"
#include "base/Endian.h"

namespace ambrel::test {
namespace {

constexpr int32_t kBlock = 8;
constexpr uint64_t kBlockBytes = 4096;

std::vector<uint8_t> bytesOf(const std::string& s) { return {s.begin(), s.end()}; }

// A file on a drive of zeros (the slack an RTF reader stops at), at block 3.
std::vector<uint8_t> zeroDriveWith(const std::vector<uint8_t>& file, size_t driveBytes = 1 << 20) {
  std::vector<uint8_t> drive(std::max(driveBytes, 3 * kBlockBytes + file.size() + kBlockBytes), 0);
  std::copy(file.begin(), file.end(), drive.begin() + 3 * kBlockBytes);
  return drive;
}

TEST(OfficeValidator, SharedDocumentsAreFiledByTheirStreams) {
  // fixture.doc.cfb names its WordDocument stream past the directory's
  // first sector.
  const std::vector<std::pair<std::string, std::string>> samples = {
      {"ole_cfb/Document.doc", "doc"},    {"ole_cfb/fixture.doc.cfb", "doc"}, {"ole_cfb/fixture-2.doc.cfb", "doc"},
      {"ole_cfb/fixture.xls.cfb", "xls"}, {"ole_cfb/fixture.ppt.cfb", "ppt"},
  };
  int checked = 0;
  for (const auto& [name, extension] : samples) {
    const auto doc = sample(name);
    if (doc.empty()) continue;
    SCOPED_TRACE(name);
    const ValidatorRun r = runValidator(checkMSOFileAtBlock, doc, kBlock);
    ASSERT_TRUE(r.accepted);
    EXPECT_EQ(r.extension, extension);
    // The most the allocation table can describe: never short of the file.
    const uint64_t tableSectors = loadLE32(doc.data() + 44);
    EXPECT_EQ(r.foundSize, tableSectors * 65536 + 512);
    EXPECT_GE(int64_t(r.foundSize), referenceStructuralEnd(name));
    EXPECT_FALSE(r.skipFileSize);
    ++checked;
  }
  // These writers name the root entry "R" rather than "Root Entry"; its
  // type says it is the root all the same.
  for (const char* name : {"ole_cfb/ecdl paris.ppt", "ole_cfb/ecdl+paris2001.ppt", "ole_cfb/FlashPix.ppt"}) {
    const auto doc = sample(name);
    if (doc.empty()) continue;
    SCOPED_TRACE(name);
    const ValidatorRun r = runValidator(checkMSOFileAtBlock, doc, kBlock);
    EXPECT_TRUE(r.accepted);
    EXPECT_EQ(r.extension, "ppt");
    EXPECT_GE(int64_t(r.foundSize), referenceStructuralEnd(name));
  }
  if (checked == 0) GTEST_SKIP() << "the shared test data is not here";
}

// A compound-document header with its directory at sector `dirSector`.
std::vector<uint8_t> compoundHeader(uint32_t dirSector, uint16_t shift = 9, uint32_t tableSectors = 1) {
  const uint64_t sectorBytes = uint64_t{1} << shift;
  std::vector<uint8_t> f(sectorBytes * (dirSector + 3), 0);
  const uint8_t magic[8] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
  std::memcpy(f.data(), magic, 8);
  storeLE16(f.data() + 28, 0xFFFE);
  storeLE16(f.data() + 30, shift);
  storeLE32(f.data() + 44, tableSectors);
  storeLE32(f.data() + 48, dirSector);
  return f;
}

void putName(std::vector<uint8_t>& f, size_t at, const std::string& name) {
  for (size_t i = 0; i < name.size(); ++i) f[at + 2 * i] = static_cast<uint8_t>(name[i]);
}

TEST(OfficeValidator, HeaderRules) {
  // Directory at sector 2: its entries name the streams.
  auto word = compoundHeader(2, 9, 3);
  putName(word, 3 * 512, "Root Entry");
  putName(word, 3 * 512 + 128, "CompObj");
  putName(word, 3 * 512 + 256, "WordDocument");
  ValidatorRun r = runValidator(checkMSOFileAtBlock, word, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.extension, "doc");
  EXPECT_EQ(r.foundSize, 3u * 65536 + 512);

  auto book = compoundHeader(2);
  putName(book, 3 * 512, "Root Entry");
  putName(book, 3 * 512 + 384, "Workbook");
  EXPECT_EQ(runValidator(checkMSOFileAtBlock, book, kBlock).extension, "xls");

  // Neither stream among the first four entries: a presentation.
  auto other = compoundHeader(2);
  putName(other, 3 * 512, "Root Entry");
  putName(other, 3 * 512 + 128, "PowerPoint Document");
  EXPECT_EQ(runValidator(checkMSOFileAtBlock, other, kBlock).extension, "ppt");

  // The directory's second sector, found through the allocation table
  // (table sector 0, where directory sector 2 links to 3), names the stream.
  auto chained = compoundHeader(2);
  putName(chained, 3 * 512, "Root Entry");
  putName(chained, 3 * 512 + 128, "CompObj");
  storeLE32(chained.data() + 76, 0);
  storeLE32(chained.data() + 512 + 2 * 4, 3);
  storeLE32(chained.data() + 512 + 3 * 4, 0xFFFFFFFE);
  putName(chained, 4 * 512, "WordDocument");
  EXPECT_EQ(runValidator(checkMSOFileAtBlock, chained, kBlock).extension, "doc");
  // A chain that loops back on itself ends all the same.
  storeLE32(chained.data() + 512 + 3 * 4, 2);
  putName(chained, 4 * 512, "Data");
  EXPECT_EQ(runValidator(checkMSOFileAtBlock, chained, kBlock).extension, "ppt");

  // The signature but no root entry where the header points: not one.
  auto fake = compoundHeader(2);
  putName(fake, 3 * 512, "Rooster");
  EXPECT_FALSE(runValidator(checkMSOFileAtBlock, fake, kBlock).accepted);
  auto wrongSector = compoundHeader(1);
  putName(wrongSector, 3 * 512, "Root Entry");  // sector 2, not where the header says
  EXPECT_FALSE(runValidator(checkMSOFileAtBlock, wrongSector, kBlock).accepted);
  // A directory sector past the drive's end.
  auto far = compoundHeader(0);
  storeLE32(far.data() + 48, 0x7FFFFFF0);
  EXPECT_FALSE(runValidator(checkMSOFileAtBlock, far, kBlock).accepted);

  // 4096-byte sectors, as the header says: the directory and the size in
  // those units.
  auto v4 = compoundHeader(1, 12, 2);
  putName(v4, 2 * 4096, "Root Entry");
  putName(v4, 2 * 4096 + 128, "Workbook");
  r = runValidator(checkMSOFileAtBlock, v4, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.extension, "xls");
  EXPECT_EQ(r.foundSize, 2u * 1024 * 4096 + 4096);
}

TEST(RtfValidator, SharedDocumentsEndAtTheirLastBrace) {
  int checked = 0;
  for (const char* name : {"rtf/RTF.rtf", "rtf/RtfInterpreterTest_14.rtf", "rtf/RtfInterpreterTest_7.rtf",
                           "rtf/fixture.rtf", "rtf/testRTF.rtf", "rtfd/ReadMe.rtfd/TXT.rtf"}) {
    const auto rtf = sample(name);
    if (rtf.empty()) continue;
    SCOPED_TRACE(name);
    const auto drive = zeroDriveWith(rtf);
    const ValidatorRun r = runValidatorOnDrive(checkRTF_FileAtBlock, drive, 3, kBlock, drive.size() / kBlockBytes);
    EXPECT_TRUE(r.accepted);
    EXPECT_EQ(int64_t(r.foundSize), referenceStructuralEnd(name));
    ++checked;
  }
  if (checked == 0) GTEST_SKIP() << "the shared test data is not here";
}

struct RtfRun {
  bool accepted = false;
  uint64_t foundSize = 0;
  uint32_t skipSize = 0;
  SearchState state;
};

RtfRun runRtf(const std::vector<uint8_t>& drive, int32_t blockSize = kBlock, uint64_t block = 3) {
  RtfRun out;
  MemorySectorSource source(drive);
  auto sig = makeSig("Documents", "rtf", "7B5C727466", 0, 25);
  Candidate c(source, CarveGeometry{0, blockSize, drive.size() / (512 * uint64_t(blockSize))}, block, out.state);
  out.accepted = checkRTF_FileAtBlock(c, *sig);
  out.foundSize = sig->foundSize;
  out.skipSize = sig->skipSize;
  return out;
}

TEST(RtfValidator, PictureListsOfBundles) {
  const auto rtf = sample("rtfd/rtfdtest.rtfd/TXT.rtf");
  if (!rtf.empty()) {
    const RtfRun r = runRtf(zeroDriveWith(rtf));
    EXPECT_TRUE(r.accepted);
    EXPECT_EQ(r.skipSize, 1u);
    EXPECT_TRUE(r.state.lookForRtfAttachments);
    ASSERT_EQ(r.state.rtfdArray.size(), 1u);
    EXPECT_EQ(r.state.rtfdArray[0].fileName, "rtfpocketguide.jpeg");
    EXPECT_EQ(r.state.rtfdArray[0].width, 59);   // 1180 twips
    EXPECT_EQ(r.state.rtfdArray[0].height, 96);  // 1920 twips
  }
  // The same name twice keeps one entry; a PDF picture is no supported
  // picture; backslashes leave the name; 2400 twips are 120 points.
  const std::string doc =
      "{\\rtf1\\ansi {{\\NeXTGraphic a\\_b.png \\width2400 \\height1200\n}\xAC}"
      "{{\\NeXTGraphic a\\_b.png \\width2400 \\height1200\n}\xAC}"
      "{{\\NeXTGraphic chart.PDF \\width200 \\height200\n}\xAC}"
      "{{\\NeXTGraphic Photo.Tiff \\width20 \\height41\n}\xAC}"
      "{{\\NeXTGraphic odd.tIf \\width20 \\height40\n}\xAC}}\r\n";
  RtfRun r = runRtf(zeroDriveWith(bytesOf(doc)));
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, doc.size() - 2);
  ASSERT_EQ(r.state.rtfdArray.size(), 2u);
  EXPECT_EQ(r.state.rtfdArray[0].fileName, "a_b.png");
  EXPECT_EQ(r.state.rtfdArray[0].width, 120);
  EXPECT_EQ(r.state.rtfdArray[0].height, 60);
  EXPECT_EQ(r.state.rtfdArray[1].fileName, "Photo.Tiff");
  EXPECT_EQ(r.state.rtfdArray[1].height, 2);
  EXPECT_EQ(r.skipSize, 2u);

  // Only unsupported pictures: a plain document.
  const std::string pdfOnly = "{\\rtf1 {{\\NeXTGraphic c.pdf \\width20 \\height20\n}\xAC}}";
  r = runRtf(zeroDriveWith(bytesOf(pdfOnly)));
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.skipSize, 0u);
  EXPECT_FALSE(r.state.lookForRtfAttachments);
  EXPECT_EQ(r.foundSize, pdfOnly.size());
}

TEST(RtfValidator, TextThatRunsOnIsBounded) {
  // Nothing in a block: no document.
  std::vector<uint8_t> empty(64 * kBlockBytes, 0);
  EXPECT_FALSE(runRtf(empty).accepted);

  // Unbalanced braces and no zero byte to the drive's end: the reader stops
  // there, the document ends at its last brace.
  std::vector<uint8_t> drive(8 << 20, '{');
  const std::string head = "{\\rtf1 {{\\NeXTGraphic never.png \\width20 \\height20";
  std::copy(head.begin(), head.end(), drive.begin() + 3 * kBlockBytes);
  drive[5 << 20] = '}';
  RtfRun r = runRtf(drive);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, (5u << 20) - 3 * kBlockBytes + 1);
  // The picture's text closes 5 MB on, too long for a file name: dropped.
  EXPECT_TRUE(r.state.rtfdArray.empty());

  // A document whose text fills whole blocks goes on into the next block,
  // one sector at a time when blocks are sectors.
  std::string full = "{\\rtf1 " + std::string(1200, 'a') + "}";
  r = runRtf(zeroDriveWith(bytesOf(full)), 1, 3 * 8);
  EXPECT_EQ(r.foundSize, full.size());
}

TEST(RtfdSearch, BundlePicturesAreMatchedBySizeInsideTheBundle) {
  const auto rtf = sample("rtfd/rtfdtest.rtfd/TXT.rtf");
  const auto jpeg = sample("rtfd/rtfdtest.rtfd/rtfpocketguide.jpeg");
  const auto png = sample("rtfd/ReadMe.rtfd/lena_noisy_small.png");
  if (rtf.empty() || jpeg.empty() || png.empty()) GTEST_SKIP() << "the shared test data is not here";
  // The document, then a PNG it does not name, then its own picture; zeros
  // between them, as the slack of freshly written blocks.
  TempDir dir;
  std::vector<uint8_t> drive(2 << 20, 0);
  auto put = [&](const std::vector<uint8_t>& f, uint64_t sector) {
    std::copy(f.begin(), f.end(), drive.begin() + static_cast<std::ptrdiff_t>(sector * 512));
  };
  put(rtf, 100);
  put(png, 200);
  put(jpeg, 300);
  writeFile(dir / "drive.img", drive);
  const BuiltDatabase db = builtDatabase();
  DriveUnderSearch search(dir / "drive.img");
  SignatureSearch(*search.volume, db.withExtensions({"rtf", "jpg", "png"})).signatureSearchDisk();
  std::map<std::string, CarvedFile> byPath;
  for (const auto& f : carvedFiles(*search.volume->dirRoot)) byPath[f.path] = f;
  std::string seen;
  for (const auto& [p, f] : byPath) seen += p + " ";
  ASSERT_TRUE(byPath.count("/Root/Documents/rtf/File1.rtfd/TXT.rtf")) << seen;
  EXPECT_EQ(byPath["/Root/Documents/rtf/File1.rtfd/TXT.rtf"].startBlock, 100u);
  EXPECT_EQ(byPath["/Root/Documents/rtf/File1.rtfd/TXT.rtf"].size, 671u);
  ASSERT_TRUE(byPath.count("/Root/Documents/rtf/File1.rtfd/rtfpocketguide.jpeg")) << seen;
  EXPECT_EQ(byPath["/Root/Documents/rtf/File1.rtfd/rtfpocketguide.jpeg"].startBlock, 300u);
  EXPECT_EQ(byPath["/Root/Documents/rtf/File1.rtfd/rtfpocketguide.jpeg"].size, jpeg.size());
  // The PNG is 128 points wide, not a picture the document names.
  ASSERT_TRUE(byPath.count("/Root/Images/png/File1.png")) << seen;
  EXPECT_EQ(byPath["/Root/Images/png/File1.png"].startBlock, 200u);
}

}  // namespace
}  // namespace ambrel::test
