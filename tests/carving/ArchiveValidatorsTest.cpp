// PDF, ZIP and RAR validators: the shared RAR samples against the reference
// table, archives made here by python3's zipfile and zip, PDFs written by
// hand and by qpdf, and the rules' own edge cases and broken structures.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <zlib.h>

#include "CarveImage.h"
#include "base/Endian.h"

namespace ambrel::test {
namespace {

constexpr int32_t kBlock = 8;
constexpr uint64_t kBlockBytes = 4096;

std::vector<uint8_t> bytesOf(const std::string& s) { return {s.begin(), s.end()}; }

std::vector<uint8_t> pythonMade(const std::string& script, const std::string& extension) {
  TempDir dir;
  const auto py = dir / "make.py";
  writeFile(py, bytesOf(script));
  return madeBy("/usr/bin/python3", "/usr/bin/python3 '" + py.string() + "' {out}", extension);
}

// Every file of a shared sample folder whose first bytes are `magic`.
std::vector<std::string> samplesStartingWith(const std::string& folder, const std::string& magic) {
  std::vector<std::string> out;
  const auto root = sharedTestData();
  if (root.empty()) return out;
  for (const auto& e : std::filesystem::directory_iterator(root / "carving_samples" / folder)) {
    const std::string rel = folder + "/" + e.path().filename().string();
    const auto bytes = sample(rel);
    if (bytes.size() >= magic.size() && std::memcmp(bytes.data(), magic.data(), magic.size()) == 0) out.push_back(rel);
  }
  std::sort(out.begin(), out.end());
  return out;
}

const std::string kRar4Magic("Rar!\x1A\x07\x00", 7);
const std::string kRar5Magic("Rar!\x1A\x07\x01\x00", 8);

TEST(RarValidator, SharedSamplesEndWhereTheirBlocksEnd) {
  const auto old = samplesStartingWith("rar", kRar4Magic);
  const auto v5 = samplesStartingWith("rar", kRar5Magic);
  if (old.empty() && v5.empty()) GTEST_SKIP() << "the shared test data is not here";
  EXPECT_GE(old.size(), 7u);
  EXPECT_GE(v5.size(), 8u);
  for (const auto& name : old) {
    if (name.find("noeof") != std::string::npos) continue;  // below
    SCOPED_TRACE(name);
    const ValidatorRun r = runValidator(checkRAR_FileAtBlock, sample(name), kBlock);
    EXPECT_TRUE(r.accepted);
    EXPECT_EQ(int64_t(r.foundSize), referenceStructuralEnd(name));
    EXPECT_TRUE(r.skipFileSize);
    EXPECT_EQ(r.skipSize, r.foundSize / kBlockBytes);
  }
  for (const auto& name : v5) {
    SCOPED_TRACE(name);
    const ValidatorRun r = runValidator(checkRAR5_FileAtBlock, sample(name), kBlock);
    EXPECT_TRUE(r.accepted);
    // The multi-volume part's trailing bytes are not the archive's.
    EXPECT_EQ(int64_t(r.foundSize), referenceStructuralEnd(name));
    EXPECT_TRUE(r.skipFileSize);
  }
}

TEST(RarValidator, AnArchiveWithoutItsEndBlockEndsAfterItsLastBlock) {
  auto rar = sample("rar/test_read_format_rar_noeof.rar");
  if (rar.empty()) GTEST_SKIP() << "the shared test data is not here";
  // Zeros after the last block are no block: the archive ends there.
  std::vector<uint8_t> drive(64 * 1024, 0);
  std::copy(rar.begin(), rar.end(), drive.begin() + 3 * kBlockBytes);
  ValidatorRun r = runValidatorOnDrive(checkRAR_FileAtBlock, drive, 3, kBlock, drive.size() / kBlockBytes);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, rar.size());
  // Noise after it: the same.
  for (size_t i = 3 * kBlockBytes + rar.size(); i < drive.size(); ++i) drive[i] = static_cast<uint8_t>(i * 7 + 1);
  r = runValidatorOnDrive(checkRAR_FileAtBlock, drive, 3, kBlock, drive.size() / kBlockBytes);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, rar.size());
  // With its end block given back it ends after that block.
  const uint8_t end[7] = {0xC4, 0x3D, 0x7B, 0x00, 0x40, 0x07, 0x00};
  std::copy(end, end + 7, drive.begin() + 3 * kBlockBytes + rar.size());
  r = runValidatorOnDrive(checkRAR_FileAtBlock, drive, 3, kBlock, drive.size() / kBlockBytes);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, rar.size() + 7);
}

std::vector<uint8_t> rarBlocks(std::initializer_list<std::vector<uint8_t>> blocks) {
  std::vector<uint8_t> out(kRar4Magic.begin(), kRar4Magic.end());
  for (const auto& b : blocks) out.insert(out.end(), b.begin(), b.end());
  return out;
}

TEST(RarValidator, BlockRules) {
  const std::vector<uint8_t> mainHead = {0, 0, 0x73, 0, 0, 13, 0, 0, 0, 0, 0, 0, 0};
  // A file block with 100 bytes of data (the high flag bit: a size follows).
  const std::vector<uint8_t> fileHead = {0, 0, 0x74, 0, 0x80, 11, 0, 100, 0, 0, 0};
  std::vector<uint8_t> data(100, 0xAB);
  const std::vector<uint8_t> endHead = {0, 0, 0x7B, 0, 0x40, 7, 0};
  auto good = rarBlocks({mainHead, fileHead, data, endHead});
  ValidatorRun r = runValidator(checkRAR_FileAtBlock, good, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 7u + 13 + 11 + 100 + 7);

  // A second block of type 0x70 is not a RAR block.
  auto bad = rarBlocks({mainHead, {0, 0, 0x70, 0, 0, 7, 0}});
  EXPECT_FALSE(runValidator(checkRAR_FileAtBlock, bad, kBlock).accepted);
  // Nor is anything after the main header when no file block came: nothing to save.
  EXPECT_FALSE(runValidator(checkRAR_FileAtBlock, rarBlocks({mainHead, {0, 0, 0x10, 0, 0, 7, 0}}), kBlock).accepted);
  // After a file block the archive ends where its blocks end.
  r = runValidator(checkRAR_FileAtBlock, rarBlocks({mainHead, fileHead, data, {0, 0, 0x10, 0, 0, 7, 0}}), kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 7u + 13 + 11 + 100);

  // A first block that is no block at all: the marker alone, 7 bytes.
  r = runValidator(checkRAR_FileAtBlock, rarBlocks({{0, 0, 0x10, 0, 0, 0, 0}}), kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 7u);

  // A head size of 0 without the size flag ends the walk where it stands.
  r = runValidator(checkRAR_FileAtBlock, rarBlocks({mainHead, {0, 0, 0x7A, 0, 0, 0, 0}}), kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 7u + 13);
  // With the size flag and nothing to add, the block would be read forever:
  // the walk ends there too.
  r = runValidator(checkRAR_FileAtBlock, rarBlocks({mainHead, {0, 0, 0x7A, 0, 0x80, 0, 0, 0, 0, 0, 0}}), kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 7u + 13);

  // Blocks running to the drive's end meet the zeros a failed read leaves.
  auto tail = rarBlocks({mainHead, {0, 0, 0x74, 0, 0x80, 11, 0, 0xFF, 0xFF, 0xFF, 0x7F}});
  std::vector<uint8_t> drive(8 * kBlockBytes, 0);
  std::copy(tail.begin(), tail.end(), drive.begin() + 4 * kBlockBytes);
  EXPECT_FALSE(runValidatorOnDrive(checkRAR_FileAtBlock, drive, 4, kBlock, 8).accepted);
}

// RAR 5 headers: CRC32, size, type, flags, optional data size.
std::vector<uint8_t> rar5Header(uint8_t type, uint8_t flags, uint8_t dataSize = 0) {
  std::vector<uint8_t> body = {type, flags};
  if (flags & 2) body.push_back(dataSize);
  std::vector<uint8_t> h(4, 0);
  h.push_back(static_cast<uint8_t>(body.size()));
  h.insert(h.end(), body.begin(), body.end());
  storeLE32(h.data(), static_cast<uint32_t>(::crc32(0L, h.data() + 4, static_cast<uInt>(h.size() - 4))));
  return h;
}

TEST(Rar5Validator, HeadersUpToTheEndOfArchive) {
  std::vector<uint8_t> rar(kRar5Magic.begin(), kRar5Magic.end());
  const auto main = rar5Header(1, 0);
  const auto file = rar5Header(2, 2, 50);
  rar.insert(rar.end(), main.begin(), main.end());
  rar.insert(rar.end(), file.begin(), file.end());
  rar.insert(rar.end(), 50, 0x5A);
  const size_t withoutEnd = rar.size();
  const auto end = rar5Header(5, 0);
  rar.insert(rar.end(), end.begin(), end.end());
  ValidatorRun r = runValidator(checkRAR5_FileAtBlock, rar, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, rar.size());

  // Without the end header: a RAR 5 archive whose length is not known.
  r = runValidator(checkRAR5_FileAtBlock, std::vector<uint8_t>(rar.begin(), rar.begin() + withoutEnd), kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 0u);
  EXPECT_FALSE(r.skipFileSize);

  // A main header whose CRC does not match is no archive.
  auto broken = rar;
  broken[8] ^= 1;
  EXPECT_FALSE(runValidator(checkRAR5_FileAtBlock, broken, kBlock).accepted);
}

TEST(ZipValidator, ArchivesEndAfterTheirEndRecordAndComment) {
  const std::string script =
      "import sys, zipfile\n"
      "with zipfile.ZipFile(sys.argv[1], 'w', zipfile.ZIP_DEFLATED) as z:\n"
      "    z.writestr('a.txt', 'hello ' * 2000)\n"
      "    z.writestr('b.bin', bytes(range(256)) * 40)\n"
      "    COMMENT\n";
  const auto plain = pythonMade(std::string(script).replace(script.find("COMMENT"), 7, "pass"), "zip");
  const auto commented = pythonMade(std::string(script).replace(script.find("COMMENT"), 7, "z.comment = b'0123456789'"), "zip");
  if (plain.empty() || commented.empty()) GTEST_SKIP() << "python3 is not here";
  ASSERT_EQ(commented.size(), plain.size() + 10);
  for (const auto* zip : {&plain, &commented}) {
    const ValidatorRun r = runValidator(checkZIP_FileAtBlock, *zip, kBlock);
    EXPECT_TRUE(r.accepted);
    EXPECT_EQ(r.foundSize, zip->size());
    EXPECT_TRUE(r.skipFileSize);
    EXPECT_EQ(r.skipSize, zip->size() / kBlockBytes);
  }
  // The 10-byte comment: 32 bytes after the end record's signature.
  const uint8_t sig[4] = {'P', 'K', 5, 6};
  const auto at = std::search(commented.begin(), commented.end(), sig, sig + 4) - commented.begin();
  EXPECT_EQ(uint64_t(at) + 32, commented.size());

  // zip's own archives, made and then fixed up by zip -A.
  TempDir dir;
  writeFile(dir / "in.txt", bytesOf(std::string(30000, 'z')));
  const auto zipped = madeBy("zip", "cd '" + dir.path().string() + "' && zip -q {out} in.txt && zip -q -A {out}", "zip");
  if (!zipped.empty()) {
    const ValidatorRun r = runValidator(checkZIP_FileAtBlock, zipped, kBlock);
    EXPECT_TRUE(r.accepted);
    EXPECT_EQ(r.foundSize, zipped.size());
  }
}

TEST(ZipValidator, WithoutAnEndRecordInReachTheMaximumSizeOrTheVolumesRest) {
  // 200 KB stored: the end record lies past half of a 64 KiB maximum.
  const auto big = pythonMade(
      "import sys, zipfile, random\nrandom.seed(3)\n"
      "with zipfile.ZipFile(sys.argv[1], 'w', zipfile.ZIP_STORED) as z:\n"
      "    z.writestr('r.bin', bytes(random.getrandbits(8) for _ in range(200000)))\n",
      "zip");
  if (big.empty()) GTEST_SKIP() << "python3 is not here";
  std::vector<uint8_t> drive = noise(4 << 20, 5);
  std::copy(big.begin(), big.end(), drive.begin() + 2 * kBlockBytes);
  MemorySectorSource source(drive);
  SearchState state;
  auto sig = makeSig("A", "zip", "504B0304", 0, 21, 64 * 1024);
  Candidate c(source, CarveGeometry{0, kBlock, drive.size() / kBlockBytes}, 2, state);
  EXPECT_TRUE(checkZIP_FileAtBlock(c, *sig));
  EXPECT_EQ(sig->foundSize, 64u * 1024);
  EXPECT_FALSE(sig->skipFileSize);

  // Near the volume's end: the rest of the volume less one sector.
  auto near = makeSig("A", "zip", "504B0304", 0, 21, 4 << 20);
  const uint64_t block = drive.size() / kBlockBytes - 2;
  std::vector<uint8_t> tailDrive = drive;
  std::copy(big.begin(), big.begin() + 100, tailDrive.begin() + block * kBlockBytes);
  MemorySectorSource tailSource(tailDrive);
  Candidate t(tailSource, CarveGeometry{0, kBlock, tailDrive.size() / kBlockBytes}, block, state);
  EXPECT_TRUE(checkZIP_FileAtBlock(t, *near));
  EXPECT_EQ(near->foundSize, 2 * kBlockBytes - 512);
}

TEST(ZipValidator, AnEndRecordWhoseCommentRunsPastTheDriveGivesABoundedLength) {
  // The end record's comment length claims 65535 bytes on a drive that ends
  // right after it; the length is reported, nothing past the drive is read.
  std::vector<uint8_t> zip = {'P', 'K', 3, 4};
  zip.resize(600, 0);
  const uint8_t eocd[22] = {'P', 'K', 5, 6, 0, 0, 0, 0, 1, 0, 1, 0, 0xFF, 0xFF, 0xFF, 0x7F, 0xFF, 0xFF, 0xFF, 0x7F, 0xFF, 0xFF};
  zip.insert(zip.end(), eocd, eocd + 22);
  std::vector<uint8_t> drive(80 * 512, 0);
  std::copy(zip.begin(), zip.end(), drive.begin());
  const ValidatorRun r = runValidatorOnDrive(checkZIP_FileAtBlock, drive, 0, 1, drive.size() / 512);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 600u + 22 + 65535);
}

std::vector<uint8_t> handPdf(const std::string& eofLine) {
  std::string pdf = "%PDF-1.4\n1 0 obj << /Type /Catalog >> endobj\ntrailer << /Root 1 0 R >>\n" + eofLine +
                    "\n2 0 obj << /Incremental true >> endobj\ntrailer << /Root 1 0 R /Prev 9 >>\n%%EOF\n";
  return bytesOf(pdf);
}

TEST(PdfValidator, EndsAtTheFirstEndMarkerAfterALineBreak) {
  // An incrementally updated document is cut at its first "%%EOF".
  const auto pdf = handPdf("%%EOF");
  const std::string text(pdf.begin(), pdf.end());
  ValidatorRun r = runValidator(checkPDF_FileAtBlock, pdf, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, text.find("%%EOF") + 5);
  EXPECT_TRUE(r.skipFileSize);
  // After a blank instead of a line break the marker does not end it.
  const auto blank = handPdf(" %%EOF");
  r = runValidator(checkPDF_FileAtBlock, blank, kBlock);
  EXPECT_EQ(r.foundSize, std::string(blank.begin(), blank.end()).rfind("%%EOF") + 5);
  // Carriage returns count as line breaks.
  const auto cr = bytesOf("%PDF-1.1\r1 0 obj\rendobj\r%%EOF\r");
  EXPECT_EQ(runValidator(checkPDF_FileAtBlock, cr, kBlock).foundSize, cr.size() - 1);
}

TEST(PdfValidator, MarkersOnEveryReadBoundaryAreFound) {
  // A marker whose line break lies in the sector one read leaves to the next.
  for (uint64_t at : {uint64_t{32256}, uint64_t{32257}, uint64_t{32254}, uint64_t{63 * 512 * 2}}) {
    SCOPED_TRACE(at);
    std::vector<uint8_t> pdf(at + 8, 'x');
    std::memcpy(pdf.data(), "%PDF-1.5", 8);
    pdf[at - 2] = '\n';
    pdf[at - 1] = '%';
    std::memcpy(pdf.data() + at, "%EOF", 4);
    const ValidatorRun r = runValidator(checkPDF_FileAtBlock, pdf, kBlock);
    EXPECT_EQ(r.foundSize, at + 4);
  }
}

TEST(PdfValidator, QpdfIncrementalDocumentsEndAtTheirFirstRevision) {
  if (!haveTool("qpdf")) GTEST_SKIP() << "qpdf is not installed";
  const auto base = madeBy("qpdf", "qpdf --empty --static-id {out}", "pdf");
  ASSERT_FALSE(base.empty());
  // A second revision appended after qpdf's document, as an editor saving
  // incrementally does.
  std::string update = "\n3 0 obj\n<< /Producer (update) >>\nendobj\nxref\n3 1\n0000000000 00000 n \ntrailer\n<< /Size 4 /Prev 0 >>\nstartxref\n0\n%%EOF\n";
  std::vector<uint8_t> pdf = base;
  pdf.insert(pdf.end(), update.begin(), update.end());
  const ValidatorRun r = runValidator(checkPDF_FileAtBlock, pdf, kBlock);
  EXPECT_TRUE(r.accepted);
  const std::string text(base.begin(), base.end());
  EXPECT_EQ(r.foundSize, text.rfind("%%EOF") + 5);
}

TEST(DocumentSearch, ArchivesAndDocumentsAreFiledUnderTheirTypes) {
  const auto rar4 = sample("rar/test_read_format_rar.rar");
  const auto rar5 = sample("rar/test_read_format_rar5_stored.rar");
  const auto xls = sample("ole_cfb/fixture.xls.cfb");
  const auto zip = pythonMade(
      "import sys, zipfile\nwith zipfile.ZipFile(sys.argv[1], 'w') as z:\n    z.writestr('n.txt', 'x' * 5000)\n"
      "    z.comment = b'kept'\n",
      "zip");
  if (rar4.empty() || rar5.empty() || xls.empty() || zip.empty()) GTEST_SKIP() << "the shared test data or python3 is not here";
  const auto pdf = handPdf("%%EOF");
  TempDir dir;
  writeDrive(dir / "drive.img", 1 << 20,
             {{"rar4", 40, rar4}, {"rar5", 80, rar5}, {"xls", 120, xls}, {"zip", 400, zip}, {"pdf", 600, pdf}}, 9);
  const BuiltDatabase db = builtDatabase();
  DriveUnderSearch search(dir / "drive.img");
  SignatureSearch(*search.volume, db.withExtensions({"rar", "doc", "zip", "pdf"})).signatureSearchDisk();
  std::map<std::string, CarvedFile> byPath;
  std::string seen;
  for (const auto& f : carvedFiles(*search.volume->dirRoot)) {
    byPath[f.path] = f;
    seen += f.path + "@" + std::to_string(f.startBlock) + " ";
  }
  auto expect = [&](const std::string& path, uint64_t sector, uint64_t size) {
    SCOPED_TRACE(path);
    ASSERT_TRUE(byPath.count(path)) << seen;
    EXPECT_EQ(byPath[path].startBlock, sector);
    EXPECT_EQ(byPath[path].size, size);
  };
  expect("/Root/Archives/rar/File1.rar", 40, rar4.size());
  expect("/Root/Archives/rar/File2.rar", 80, rar5.size());
  // The Office record files the workbook under xls, at the table's bound.
  expect("/Root/Documents/xls/File1.xls", 120, uint64_t{loadLE32(xls.data() + 44)} * 65536 + 512);
  expect("/Root/Archives/zip/File1.zip", 400, zip.size());
  const std::string text(pdf.begin(), pdf.end());
  expect("/Root/Documents/pdf/File1.pdf", 600, text.find("%%EOF") + 5);
  EXPECT_EQ(byPath.size(), 5u) << seen;
}

}  // namespace
}  // namespace ambrel::test
