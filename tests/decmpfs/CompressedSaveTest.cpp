// Compressed files on a volume: listed with their uncompressed size, saved
// and previewed as their content (checked against the expected output that
// came with each payload from the Mac it was made on, and against The Sleuth
// Kit's icat where it decodes the type), and kept bounded and reported when
// their attribute, chunk table or chunks are damaged.
#include <gtest/gtest.h>

#include <filesystem>

#include "DecmpfsHelpers.h"
#include "ImageBuilder.h"
#include "output/OutputHelpers.h"
#include "output/Preview.h"
#include "scaninfo/VolumeScanInfo.h"
#include "support/CliRun.h"

namespace ambrel {
namespace {

namespace fs = std::filesystem;
namespace mk = ambrel::mkimage;
using test::decmpfsAttribute;
using test::payload;
using test::TempDir;

struct Compressed {
  const char* name;
  uint32_t type;
  const char* coded;  // attribute payload or resource fork; "" for a whole attribute
  const char* wholeAttribute;
  const char* expected;
  uint32_t rsrcFragments = 1;
};

const Compressed kFiles[] = {
    {"inline-zlib.txt", 3, "real_zlib_inline.payload", "", "real_zlib_inline.expected"},
    {"stored-zlib.txt", 3, "zlib_type3_stored.payload", "", "zlib_inline.expected"},
    {"perl-script", 9, "", "tahoe_type9.decmpfs", "tahoe_type9.expected"},
    {"inline-lzfse.txt", 11, "real_lzfse_inline.payload", "", "real_zlib_inline.expected"},
    {"words-zlib.txt", 4, "real_zlib_rsrc.rsrc", "", "zlib.expected"},
    {"words-lzfse.txt", 12, "real_lzfse_rsrc.rsrc", "", "zlib.expected"},
    {"lzvn.bin", 8, "lzvn.rsrc", "", "lzvn.expected"},
    {"lzvn-in-pieces.bin", 8, "lzvn.rsrc", "", "lzvn.expected", 5},
    {"loads.d", 8, "tahoe_type8.rsrc", "", "tahoe_type8.expected"},
};

mk::EntrySpec compressedEntry(const std::string& name, std::vector<uint8_t> attribute, std::vector<uint8_t> rsrc = {},
                              uint32_t rsrcFragments = 1) {
  mk::EntrySpec e;
  e.name = name;
  e.compressed = true;
  e.xattrs.push_back({kDecmpfsAttributeName, std::move(attribute)});
  if (!rsrc.empty()) e.rsrc = std::move(rsrc);
  e.rsrcFragments = rsrcFragments;
  return e;
}

mk::EntrySpec entryFor(const Compressed& c) {
  const auto expectedSize = payload(c.expected).size();
  if (c.wholeAttribute[0]) return compressedEntry(c.name, payload(c.wholeAttribute));
  if (c.type % 2) return compressedEntry(c.name, decmpfsAttribute(c.type, expectedSize, payload(c.coded)));
  return compressedEntry(c.name, decmpfsAttribute(c.type, expectedSize), payload(c.coded), c.rsrcFragments);
}

mk::VolumeSpec compressedVolume() {
  mk::VolumeSpec v;
  v.name = "Compressed";
  for (const Compressed& c : kFiles) v.root.push_back(entryFor(c));
  mk::EntrySpec plain;
  plain.name = "plain.txt";
  plain.data = std::vector<uint8_t>{'h', 'i'};
  plain.xattrs.push_back({"com.apple.quarantine", {'q'}});
  v.root.push_back(plain);
  return v;
}

class CompressedFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    if (test::payloadDir().empty()) GTEST_SKIP() << "shared test data not present";
  }
};

TEST_F(CompressedFiles, ListedSavedAndPreviewedAsTheirContent) {
  TempDir dir;
  auto built = test::buildAndScan(dir, compressedVolume());
  Volume& v = *built.scan.volume;
  EXPECT_EQ(v.compressedFiles, std::size(kFiles));
  EXPECT_EQ(v.compressedUnreadable, 0u);

  // The listing: uncompressed sizes, no resource fork of their own.
  for (const Compressed& c : kFiles) {
    SCOPED_TRACE(c.name);
    const HDIR* e = v.dirRoot->firstChildNamed(c.name);
    ASSERT_NE(e, nullptr);
    const auto expected = payload(c.expected);
    EXPECT_EQ(e->compressionType, c.type);
    EXPECT_EQ(e->fileSize, expected.size());
    EXPECT_EQ(e->dataSize, expected.size());
    EXPECT_EQ(e->rscSize, 0u);
    // Preview: the data and the first block's text.
    std::atomic<bool> abort{false};
    std::vector<uint8_t> shown;
    ASSERT_EQ(getPreviewData(previewSourceOf(v), *e, abort, shown), PreviewLoad::Loaded);
    EXPECT_TRUE(shown == expected);
    const auto text = previewText(previewSourceOf(v), *e);
    ASSERT_TRUE(text);
    std::vector<uint8_t> block(4096, 0);
    std::copy_n(expected.begin(), std::min<size_t>(expected.size(), block.size()), block.begin());
    EXPECT_EQ(*text, renderPreviewText(block.data(), block.size()));
  }

  // Saving through ambrel-cli: the content as the Mac recorded it, no AppleDouble sidecars.
  const fs::path out = dir / "out";
  std::string log;
  ASSERT_EQ(test::runCommand(test::cliPath() + " recover '" + built.image + "' --out '" + out.string() + "' 2>&1", &log), 0) << log;
  for (const Compressed& c : kFiles) {
    EXPECT_TRUE(test::readFile(out / "Root" / c.name) == payload(c.expected)) << c.name;
    EXPECT_FALSE(fs::exists(out / "Root" / (std::string("._") + c.name))) << c.name;
  }
  EXPECT_EQ(test::readFile(out / "Root/plain.txt"), (std::vector<uint8_t>{'h', 'i'}));

  // The image as another reader sees it: icat decodes the zlib and LZVN
  // files of the same volume to the same bytes.
  if (test::haveIcat()) {
    for (const Compressed& c : kFiles) {
      if (c.type == 11 || c.type == 12 || c.type == 9) continue;  // types icat does not decode
      const auto* f = built.vol().find(c.name);
      ASSERT_NE(f, nullptr);
      EXPECT_TRUE(test::icat(built.image, 0, f->cnid) == payload(c.expected)) << c.name;
    }
  }
}

// Damage, one file each: every save ends, writes no more than the file's
// size, keeps the parts that decode, and reports the rest.
TEST_F(CompressedFiles, DamagedCompressedFilesAreBoundedAndReported) {
  mk::VolumeSpec v;
  // The second chunk's end offset far past the resource fork.
  auto pastFork = payload("lzvn.rsrc");
  storeLE32(&pastFork[8], 0x7FFFFFF0);
  v.root.push_back(compressedEntry("past-fork.bin", decmpfsAttribute(8, 80000), pastFork));
  // The second zlib chunk damaged in its middle: zlib's checksum catches it.
  auto badChunk = payload("real_zlib_rsrc.rsrc");
  for (size_t i = 0; i < 64; ++i) badChunk[0x104 + 0x51c5 + 0x2000 + i] ^= 0xA5;
  v.root.push_back(compressedEntry("bad-chunk.txt", decmpfsAttribute(4, 150000), badChunk));
  // A payload of a few bytes that claims 60 MiB.
  v.root.push_back(compressedEntry("claims-60M.bin", decmpfsAttribute(7, 60u << 20, {0xE3, 'a', 'b', 'c', 0xF0, 0xFF})));
  // A size needing more chunks than the resource fork could index.
  v.root.push_back(compressedEntry("too-many-chunks.bin", decmpfsAttribute(8, uint64_t{1} << 31), payload("tahoe_type8.rsrc")));
  // Sizes the reader refuses outright, and a flag with no attribute.
  v.root.push_back(compressedEntry("over-4G.bin", decmpfsAttribute(4, uint64_t{5} << 30), payload("real_zlib_rsrc.rsrc")));
  mk::EntrySpec bare;
  bare.name = "flag-only.bin";
  bare.compressed = true;
  bare.rsrc = payload("tahoe_type8.rsrc");
  v.root.push_back(bare);

  TempDir dir;
  auto built = test::buildAndScan(dir, v);
  Volume& vol = *built.scan.volume;
  EXPECT_EQ(vol.compressedFiles, 4u);
  EXPECT_EQ(vol.compressedUnreadable, 2u);
  // Without a usable attribute a file is listed as it lies on disk.
  for (const char* stored : {"over-4G.bin", "flag-only.bin"}) {
    const HDIR* e = vol.dirRoot->firstChildNamed(stored);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->compressionType, 0u) << stored;
    EXPECT_EQ(e->dataSize, 0u) << stored;
    EXPECT_GT(e->rscSize, 0u) << stored;
  }

  test::markAll(vol);
  Saver::Options options;
  options.finalAlert = false;
  Saver saver(*vol.dirRoot, saveSourceOf(vol), nullptr, options);
  const fs::path out = dir / "out";
  fs::create_directories(out);
  const SaveResult r = saver.saveFilesAndFolders(out.string());
  EXPECT_EQ(r.damagedCompressed, 4u);
  EXPECT_EQ(r.failedReads, 0u);
  EXPECT_TRUE(r.anyFailure());

  const auto lzvn = payload("lzvn.expected");
  auto saved = test::readFile(out / "Root/past-fork (incomplete).bin");
  ASSERT_EQ(saved.size(), 80000u) << ::testing::PrintToString(r.problems);
  EXPECT_TRUE(std::equal(saved.begin(), saved.begin() + 65536, lzvn.begin()));
  EXPECT_TRUE(std::all_of(saved.begin() + 65536, saved.end(), [](uint8_t b) { return b == 0; }));

  const auto words = payload("zlib.expected");
  saved = test::readFile(out / "Root/bad-chunk (incomplete).txt");
  ASSERT_EQ(saved.size(), 150000u);
  EXPECT_TRUE(std::equal(saved.begin(), saved.begin() + 65536, words.begin()));
  EXPECT_TRUE(std::all_of(saved.begin() + 65536, saved.begin() + 131072, [](uint8_t b) { return b == 0; }));
  EXPECT_TRUE(std::equal(saved.begin() + 131072, saved.end(), words.begin() + 131072));

  // Damaged files never lie under their real names: a part is kept under a
  // name that says so, a file nothing could be decoded of is not kept.
  for (const char* name : {"past-fork.bin", "bad-chunk.txt", "claims-60M.bin", "too-many-chunks.bin"})
    EXPECT_FALSE(fs::exists(out / "Root" / name)) << name;
  EXPECT_FALSE(fs::exists(out / "Root/claims-60M (incomplete).bin"));
  EXPECT_FALSE(fs::exists(out / "Root/too-many-chunks (incomplete).bin"));
  EXPECT_EQ(r.filesIncomplete, 2u);
  EXPECT_EQ(r.filesNotSaved, 2u);
  size_t mentioned = 0;
  for (const auto& p : r.problems)
    for (const char* name : {"past-fork.bin", "bad-chunk.txt", "claims-60M.bin", "too-many-chunks.bin"})
      if (p.find(name) != std::string::npos) ++mentioned;
  EXPECT_EQ(mentioned, 4u);

  // ambrel-cli says the same: the files listed as stored after the scan, the
  // ones not decoded completely after the save, and a failing exit status.
  std::string log;
  const fs::path cliOut = dir / "cli";
  EXPECT_NE(test::runCommand(test::cliPath() + " recover '" + built.image + "' --out '" + cliOut.string() + "' 2>&1", &log), 0);
  EXPECT_NE(log.find("2 files marked compressed have no usable compression attribute"), std::string::npos) << log;
  EXPECT_NE(log.find("Compressed files not decoded completely: 4"), std::string::npos) << log;
}

// The scan info file has no place for compression: a compressed file comes
// back as it lies on disk (an empty data fork and its resource fork), never
// as an entry that claims content it cannot deliver.
TEST_F(CompressedFiles, ScanInfoFilesKeepThemAsStored) {
  mk::VolumeSpec v;
  for (const Compressed& c : kFiles)
    if (std::string(c.name) == "words-zlib.txt" || std::string(c.name) == "inline-zlib.txt") v.root.push_back(entryFor(c));
  TempDir dir;
  auto built = test::buildAndScan(dir, v);
  const std::string asi = (dir / "scan.asi").string();
  ASSERT_FALSE(saveScanInfo(asi, *built.scan.volume, {}, nullptr));
  auto opened = openScanInfo(asi, nullptr);
  ASSERT_TRUE(opened.opened) << opened.error.message;
  const HDIR* words = opened.opened->volume->dirRoot->firstChildNamed("words-zlib.txt");
  ASSERT_NE(words, nullptr);
  EXPECT_EQ(words->compressionType, 0u);
  EXPECT_EQ(words->dataSize, 0u);
  EXPECT_EQ(words->rscSize, payload("real_zlib_rsrc.rsrc").size());
  EXPECT_EQ(words->rscExt, built.scan.volume->dirRoot->firstChildNamed("words-zlib.txt")->rscExt);
  const HDIR* inl = opened.opened->volume->dirRoot->firstChildNamed("inline-zlib.txt");
  ASSERT_NE(inl, nullptr);
  EXPECT_EQ(inl->dataSize + inl->rscSize + inl->fileSize, 0u);
}

}  // namespace
}  // namespace ambrel
