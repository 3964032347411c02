// The drive search over images of noise with real files planted at known
// sectors, some across batch boundaries; the matching rules (extras, the MP3
// rule, skips, ranges) with stand-in validators that count their calls.
#include <gtest/gtest.h>

#include <fstream>
#include <map>

#include "CarveImage.h"
#include "support/RecordingController.h"

namespace ambrel::test {
namespace {

constexpr uint64_t kBatch = SignatureSearch::kDriveBatchExamined;

struct Found {
  uint64_t sector;
  uint64_t size;
  std::string path;
};

std::vector<Found> found(const Volume& v) {
  std::vector<Found> out;
  for (const auto& f : carvedFiles(*v.dirRoot)) out.push_back({f.startBlock, f.size, f.path});
  std::sort(out.begin(), out.end(), [](const Found& a, const Found& b) { return a.sector < b.sector; });
  return out;
}

TEST(DriveSearch, EveryPlantedImageIsFoundAtItsSectorWithItsBytes) {
  std::vector<Planted> files;
  auto plant = [&](const std::string& name, uint64_t sector, std::vector<uint8_t> bytes) {
    if (!bytes.empty()) files.push_back({name, sector, std::move(bytes)});
  };
  plant("jpg", 100, convertImage("-size 320x240 plasma:fractal -quality 90", "jpg"));
  // Across the first batch boundary (sectors 315 and 316 are read twice).
  plant("png", kBatch - 1, convertImage("-size 64x64 plasma: -depth 16", "png"));
  plant("gif", 2 * kBatch - 2, convertImage("-delay 10 -size 64x64 xc:red xc:blue", "gif"));
  plant("bmp", 3000, convertImage("-size 70x30 plasma:", "bmp"));
  plant("tif", 4 * kBatch, convertImage("-size 90x60 plasma: -endian MSB", "tif"));
  plant("icns", 6000, sample("icns/pdf.icns"));
  if (files.size() < 2) GTEST_SKIP() << "neither ImageMagick nor the shared samples are here";

  TempDir dir;
  const auto image = dir / "drive.img";
  writeDrive(image, 8 << 20, files);
  const BuiltDatabase db = builtDatabase();
  DriveUnderSearch drive(image);
  SignatureSearch search(*drive.volume, db.all());
  const SearchStats stats = search.signatureSearchDisk();
  EXPECT_FALSE(stats.stopped);
  EXPECT_EQ(stats.unreadableBatches, 0u);

  const auto carved = found(*drive.volume);
  std::string seen;
  for (const auto& f : carved) seen += f.path + "@" + std::to_string(f.sector) + " ";
  ASSERT_EQ(carved.size(), files.size()) << seen;
  std::sort(files.begin(), files.end(), [](const Planted& a, const Planted& b) { return a.sector < b.sector; });
  for (size_t i = 0; i < files.size(); ++i) {
    SCOPED_TRACE(files[i].name);
    EXPECT_EQ(carved[i].sector, files[i].sector);
    EXPECT_EQ(carved[i].size, files[i].bytes.size());
    EXPECT_NE(carved[i].path.find("/" + files[i].name + "/File1." + files[i].name), std::string::npos) << carved[i].path;
    CarvedFile f{carved[i].path, carved[i].sector, 0, carved[i].size};
    EXPECT_EQ(carvedBytes(image, 0, 1, f), files[i].bytes);
  }
  EXPECT_EQ(drive.volume->fileCount, files.size());
  EXPECT_EQ(drive.volume->totalBlocks, (8u << 20) / 512);
}

// Stand-in validators: they count their calls and do what the test says.
std::map<uint32_t, std::vector<uint64_t>> gCalls;
uint32_t gSkip = 0;
bool gAcceptStandIn = true;

template <uint32_t Code>
bool standIn(Candidate& c, Sig& sig) {
  gCalls[Code].push_back(c.block());
  sig.foundSize = 1024;
  sig.skipFileSize = gSkip != 0;
  sig.skipSize = gSkip;
  return gAcceptStandIn;
}
bool refuse(Candidate& c, Sig&) {
  gCalls[99].push_back(c.block());
  return false;
}

struct StandInSearch {
  TempDir dir;
  std::filesystem::path image;
  std::vector<std::unique_ptr<Sig>> sigs;
  std::unique_ptr<DriveUnderSearch> drive;
  ValidatorTable table = builtInValidators();

  // A drive of zeros (so that no stray signature can match) with the given
  // bytes at the given sectors.
  StandInSearch(uint64_t sectors, const std::vector<Planted>& planted) {
    gCalls.clear();
    gSkip = 0;
    gAcceptStandIn = true;
    image = dir / "drive.img";
    // Sparse: only the planted sectors hold anything.
    std::filesystem::resize_file((writeFile(image, {}), image), sectors * 512);
    std::fstream out(image, std::ios::in | std::ios::out | std::ios::binary);
    for (const auto& p : planted) {
      out.seekp(static_cast<std::streamoff>(p.sector * 512));
      out.write(reinterpret_cast<const char*>(p.bytes.data()), static_cast<std::streamsize>(p.bytes.size()));
    }
  }
  Sig& add(const std::string& ext, const std::string& hex, uint16_t offset, uint32_t code) {
    sigs.push_back(makeSig("Test", ext, hex, offset, code));
    return *sigs.back();
  }
  SearchStats run(float from = 0, float to = 100) {
    drive = std::make_unique<DriveUnderSearch>(image, from, to);
    std::vector<const Sig*> selected;
    for (const auto& s : sigs) selected.push_back(s.get());
    SignatureSearch search(*drive->volume, selected, table);
    return search.signatureSearchDisk();
  }
  std::vector<uint64_t> sectorsFound() const {
    std::vector<uint64_t> out;
    for (const auto& f : found(*drive->volume)) out.push_back(f.sector);
    return out;
  }
};

std::vector<uint8_t> bytesOf(const std::string& text) { return std::vector<uint8_t>(text.begin(), text.end()); }

TEST(DriveSearch, SkipJumpsOverTheCarvedFileAlsoAcrossABatchBoundary) {
  // Hits at 10, 50 (inside the first file) and 110 (where its skip of 100
  // lands); then at 300, 350 (inside, in the next batch) and 400.
  StandInSearch s(1000, {{"", 10, bytesOf("SKIP")},  {"", 50, bytesOf("SKIP")},  {"", 110, bytesOf("SKIP")},
                         {"", 300, bytesOf("SKIP")}, {"", 350, bytesOf("SKIP")}, {"", 400, bytesOf("SKIP")}});
  s.add("skp", "534B4950", 0, 5);
  s.table.byCode[5] = standIn<5>;
  gSkip = 100;
  const SearchStats stats = s.run();
  EXPECT_EQ(s.sectorsFound(), (std::vector<uint64_t>{10, 110, 300, 400}));
  EXPECT_EQ(gCalls[5], (std::vector<uint64_t>{10, 110, 300, 400}));
  // Each skip adds its 100 to the examined counter as well.
  EXPECT_GE(stats.examined, 1000u);
}

TEST(DriveSearch, RecordsWithOneKeyAreTriedInTurnUntilOneAcceptsAndCutOffTheRest) {
  StandInSearch s(100, {{"", 5, bytesOf("KEYS")}, {"", 9, bytesOf("KEYS")}});
  s.add("one", "4B455953", 0, 6);  // refuses
  s.add("two", "4B455953", 0, 5);  // the extra: accepts at 9 only
  s.add("ke", "4B45", 0, 4);       // a later group that matches the same bytes
  s.table.byCode[6] = refuse;
  s.table.byCode[5] = [](Candidate& c, Sig& sig) {
    gCalls[5].push_back(c.block());
    sig.foundSize = 512;
    return c.block() == 9;
  };
  s.table.byCode[4] = standIn<4>;
  s.run();
  // Both blocks: the first record refuses, the extra is tried; at 5 it
  // refuses too and no later group sees the block.
  EXPECT_EQ(gCalls[99], (std::vector<uint64_t>{5, 9}));
  EXPECT_EQ(gCalls[5], (std::vector<uint64_t>{5, 9}));
  EXPECT_TRUE(gCalls[4].empty());
  const auto carved = found(*s.drive->volume);
  ASSERT_EQ(carved.size(), 1u);
  EXPECT_EQ(carved[0].sector, 9u);
  EXPECT_NE(carved[0].path.find("/Test/two/"), std::string::npos) << carved[0].path;

  // The first record accepts: the extra is never tried.
  StandInSearch first(50, {{"", 7, bytesOf("KEYS")}});
  first.add("one", "4B455953", 0, 5);
  first.add("two", "4B455953", 0, 6);
  first.table.byCode[5] = standIn<5>;
  first.table.byCode[6] = refuse;
  first.run();
  EXPECT_EQ(gCalls[5], std::vector<uint64_t>{7});
  EXPECT_TRUE(gCalls[99].empty());
}

TEST(DriveSearch, Mp3RecordIsTriedOnFrameSyncsOnceOnId3AndNeverHidesOtherGroups) {
  StandInSearch s(60, {{"", 3, {0xFF, 0xFB, 0x90, 0x64}},
                       {"", 6, bytesOf("ID3\x03")},
                       {"", 9, bytesOf("RIFF")},
                       {"", 12, bytesOf("BM")},
                       {"", 15, {0xFF, 0xD8, 0xFF, 0xE0}}});
  s.add("mp3", "4944", 0, 16);
  s.add("bmp", "424D", 0, 2);
  s.add("jpg", "FFD8FF", 0, 3);
  gAcceptStandIn = false;
  s.table.byCode[16] = standIn<16>;
  s.table.byCode[2] = standIn<2>;
  s.table.byCode[3] = standIn<3>;
  s.run();
  // The MP3 validator runs for the frame sync, "ID" and "RI" starts, once each.
  EXPECT_EQ(gCalls[16], (std::vector<uint64_t>{3, 6, 9}));
  // A BM block reaches BMP through the retry with its real bytes; FF D8 is
  // below a frame sync and goes on to the JPEG group.
  EXPECT_EQ(gCalls[2], std::vector<uint64_t>{12});
  EXPECT_EQ(gCalls[3], std::vector<uint64_t>{15});
}

TEST(DriveSearch, RangeOfPercentages) {
  StandInSearch s(1000, {{"", 0, bytesOf("SKIP")}, {"", 499, bytesOf("SKIP")}, {"", 999, bytesOf("SKIP")}});
  s.add("skp", "534B4950", 0, 5);
  s.table.byCode[5] = standIn<5>;
  s.run(0, 100);
  EXPECT_EQ(s.sectorsFound(), (std::vector<uint64_t>{0, 499, 999}));
  s.run(0, 50);  // sectors 0 ... 499 (and the batch rounding to 630)
  EXPECT_EQ(s.sectorsFound(), (std::vector<uint64_t>{0, 499}));
  s.run(50, 100);
  EXPECT_EQ(s.sectorsFound(), (std::vector<uint64_t>{999}));
  const SearchStats none = s.run(40, 40);
  EXPECT_TRUE(s.sectorsFound().empty());
  EXPECT_EQ(none.examined, 0u);
}

TEST(DriveSearch, ProgressOpensWithTheStatusAndStopEndsTheSearch) {
  StandInSearch s(100, {{"", 3, bytesOf("SKIP")}});
  s.add("skp", "534B4950", 0, 5);
  s.table.byCode[5] = standIn<5>;
  std::string error;
  PlistDict dict = driveDictionaryForPath(s.image.string(), error);
  RecordingController controller;
  controller.drives = PlistArray{dict};
  dict.set("WhetherDiskDict", true);
  dict.set("device model", "Model X");
  dict.set("device serial", "S1");
  dict.set("device revision", "R2");
  Volume volume(dict, &controller);
  volume.endPos = 100;
  std::vector<const Sig*> selected{s.sigs[0].get()};
  SignatureSearch search(volume, selected, s.table);
  search.signatureSearchDisk();
  ASSERT_GE(controller.progressReports.size(), 2u);
  const ProgressReport& first = controller.progressReports[0];
  EXPECT_EQ(first.string("Progress Status"), "Performing Signature Search on drive Model X S1 R2");
  EXPECT_EQ(first.i64("Progress Type"), 1);
  EXPECT_EQ(first.u64("BarMaxValue"), 100u);
  EXPECT_EQ(controller.progressReports[1].string("TimeRemaining", "x"), "");
  EXPECT_EQ(volume.fileCount, 1u);

  Volume stopped(dict, &controller);
  stopped.endPos = 100;
  stopped.stopTreeThread = true;
  SignatureSearch halted(stopped, selected, s.table);
  const SearchStats st = halted.signatureSearchDisk();
  EXPECT_TRUE(st.stopped);
  EXPECT_EQ(stopped.fileCount, 0u);
}

TEST(DriveSearch, UnknownLengthTakesTheMaximumSizeCutAtTheDrivesEnd) {
  // An icon whose length field is 0, near the end of a 200-sector drive.
  StandInSearch s(200, {{"", 150, {'i', 'c', 'n', 's', 0, 0, 0, 0}}, {"", 20, {'i', 'c', 'n', 's', 0, 0, 0x10, 0}}});
  s.add("icns", "69636E73", 0, 20).userSize = 30 * 512;
  s.run();
  const auto carved = found(*s.drive->volume);
  ASSERT_EQ(carved.size(), 2u);
  EXPECT_EQ(carved[0].size, 0x1000u);      // its own length
  EXPECT_EQ(carved[1].size, 30u * 512);    // the maximum size
  // A maximum size past the drive's end is cut there.
  s.sigs[0]->userSize = 1000 * 512;
  const SearchStats stats = s.run();
  EXPECT_EQ(found(*s.drive->volume)[1].size, 50u * 512);
  EXPECT_EQ(stats.sizesCut, 1u);
}

// An RTF stand-in: names two pictures, as a document with attachments does.
bool rtfWithPictures(Candidate& c, Sig& sig) {
  gCalls[25].push_back(c.block());
  auto& rtfd = c.state().rtfdArray;
  rtfd.clear();
  rtfd.push_back({"picture.png", 0, 0});
  rtfd.back().width = 128, rtfd.back().height = 96;
  rtfd.push_back({"other.tiff", 0, 0});
  rtfd.back().width = 5, rtfd.back().height = 5;
  c.state().lookForRtfAttachments = true;
  sig.skipSize = 2;
  sig.foundSize = 600;
  return true;
}

TEST(DriveSearch, RtfDocumentBecomesABundleHoldingThePicturesItNames) {
  const auto picture = convertImage("-size 128x96 gradient:red-blue", "png");
  const auto stranger = convertImage("-size 100x96 gradient:red-blue", "png");
  if (picture.empty()) GTEST_SKIP() << "ImageMagick is not installed";
  StandInSearch s(400, {{"", 10, bytesOf("{\\rtf1")}, {"", 40, stranger}, {"", 100, picture}, {"", 200, picture}});
  s.add("rtf", "7B5C727466", 0, 25);
  s.sigs.push_back(makeSig("Images", "png", "89504E470D0A1A0A", 0, 6));
  s.table.byCode[25] = rtfWithPictures;
  s.run();
  std::vector<std::string> paths;
  for (const auto& f : found(*s.drive->volume)) paths.push_back(f.path + "@" + std::to_string(f.sector));
  EXPECT_EQ(paths, (std::vector<std::string>{"/Root/Test/rtf/File1.rtfd/TXT.rtf@10", "/Root/Images/png/File1.png@40",
                                             "/Root/Test/rtf/File1.rtfd/picture.png@100",
                                             "/Root/Images/png/File2.png@200"}));
  const HDIR* rtf = s.drive->volume->dirRoot->firstChildNamed("Test")->firstChildNamed("rtf");
  ASSERT_TRUE(rtf);
  const HDIR* bundle = rtf->children()[0].get();
  EXPECT_EQ(bundle->fileType, kHDIRFolder);
  EXPECT_EQ(bundle->fileName(), "File1.rtfd");
  EXPECT_EQ(bundle->fileCount, 2u);
  EXPECT_EQ(bundle->fileSize, 600 + picture.size());
}

TEST(DriveSearch, RtfAttachmentsAreMatchedFarIntoTheDriveButNotFarFromTheirDocument) {
  const auto picture = convertImage("-size 128x96 gradient:red-blue", "png");
  if (picture.empty()) GTEST_SKIP() << "ImageMagick is not installed";
  struct Case {
    uint64_t document, picture;
    const char* path;
  };
  // 150 MB in: the document's own match measures no distance. 100,000,001
  // bytes on: the matching gives up and files the picture alone.
  const uint64_t deep = 150000000 / 512, far = 10 + 100000001 / 512 + 1;
  for (const Case& c : {Case{deep, deep + 10, "/Root/Test/rtf/File1.rtfd/picture.png"},
                        Case{10, far, "/Root/Images/png/File1.png"}}) {
    SCOPED_TRACE(c.picture);
    StandInSearch s(c.picture + 100, {{"", c.document, bytesOf("{\\rtf1")}, {"", c.picture, picture}});
    s.add("rtf", "7B5C727466", 0, 25);
    s.sigs.push_back(makeSig("Images", "png", "89504E470D0A1A0A", 0, 6));
    s.table.byCode[25] = rtfWithPictures;
    s.run();
    const auto carved = found(*s.drive->volume);
    ASSERT_EQ(carved.size(), 2u);
    EXPECT_EQ(carved[1].path, c.path);
  }
}

}  // namespace
}  // namespace ambrel::test
