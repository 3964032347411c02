// Preview loading: the kind from the name, the data read through the extents
// with its cap and abort, the text rendering, and the ID3 picture.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>

#include "output/AppleDouble.h"
#include "output/OutputHelpers.h"
#include "output/Preview.h"

using namespace ambrel;
using namespace ambrel::test;

namespace {

const std::vector<std::string> kImages = {"jpg", "jpeg", "png", "gif", "tiff"};
const std::vector<std::string> kMovies = {"mov", "mp4", "mp3", "avi"};

}  // namespace

TEST(PreviewKind, ChosenFromTheExtensionWithoutRegardToCase) {
  EXPECT_EQ(previewKindFor("photo.JPG", kImages, kMovies), PreviewKind::Image);
  EXPECT_EQ(previewKindFor("a.b.png", kImages, kMovies), PreviewKind::Image);
  EXPECT_EQ(previewKindFor("clip.mov", kImages, kMovies), PreviewKind::Movie);
  EXPECT_EQ(previewKindFor("song.Mp3", kImages, kMovies), PreviewKind::Movie);
  EXPECT_EQ(previewKindFor("notes.txt", kImages, kMovies), PreviewKind::Text);
  EXPECT_EQ(previewKindFor("png", kImages, kMovies), PreviewKind::Text);
  EXPECT_EQ(previewKindFor("trailing.", kImages, kMovies), PreviewKind::Text);
  EXPECT_EQ(previewKindFor("photo.jpg", {}, {}), PreviewKind::Text);
  EXPECT_EQ(fileExtension("archive.tar.gz"), "gz");
  EXPECT_EQ(fileExtension("README"), "");
}

TEST(PreviewText, ControlBytesShowAsDotsAndTheLastByteEndsTheText) {
  std::vector<uint8_t> block(512);
  for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<uint8_t>(i);
  const std::string text = renderPreviewText(block.data(), block.size());
  ASSERT_EQ(text.size(), 511u);
  EXPECT_EQ(text.substr(0, 32), std::string(32, '.'));
  EXPECT_EQ(text.substr(32, 5), " !\"#$");
  EXPECT_EQ(text[0x7E], '~');
  EXPECT_EQ(text[0x7F], '.');
  EXPECT_EQ(text.substr(128, 128), std::string(128, '.'));
  EXPECT_EQ(text.substr(256 + 32, 5), " !\"#$");
  std::vector<uint8_t> control(4096, 0x07);
  EXPECT_EQ(renderPreviewText(control.data(), control.size()), std::string(4095, '.'));
  EXPECT_EQ(renderPreviewText(nullptr, 0), "");
}

TEST(PreviewText, ReadsOnlyTheFirstBlockOfTheFirstExtent) {
  TempDir dir;
  mk::VolumeSpec spec;
  mk::EntrySpec text = fileSpec("notes.txt", 0);
  std::string body = "Hello, preview!\n\tTabbed";
  body.resize(9000, 'x');
  text.data = std::vector<uint8_t>(body.begin(), body.end());
  spec.root = {text};
  BuiltVolume v = buildAndScan(dir, spec);
  Volume& vol = *v.scan.volume;
  RecordingSource rec{&vol};
  const HDIR& entry = *vol.dirRoot->firstChildNamed("notes.txt");
  const auto shown = previewText(rec.source(), entry);
  ASSERT_TRUE(shown);
  ASSERT_EQ(shown->size(), 4095u);
  EXPECT_EQ(shown->substr(0, 24), "Hello, preview!..Tabbedx");
  ASSERT_EQ(rec.calls.size(), 1u);
  EXPECT_EQ(rec.calls[0], (ReadCall{v.vol().blockToSector(v.vol().find("notes.txt")->dataExtents[0].startBlock), 8}));
  rec.failAtSector = rec.calls[0].sector;
  EXPECT_FALSE(previewText(rec.source(), entry));
}

TEST(PreviewData, LoadsWholeSmallFilesStopsJustPastTheCapAndEndsOnAbortOrReadFailure) {
  TempDir dir;
  mk::VolumeSpec spec;
  spec.root = {fileSpec("small.jpg", 10000, 0, 3), fileSpec("movie.mov", 20 * 1000 * 1000, 0, 4),
               fileSpec("clip.mov", 100000)};
  BuiltVolume v = buildAndScan(dir, spec);
  Volume& vol = *v.scan.volume;
  std::atomic<bool> abort{false};

  std::vector<uint8_t> small;
  EXPECT_EQ(getPreviewData(previewSourceOf(vol), *vol.dirRoot->firstChildNamed("small.jpg"), abort, small),
            PreviewLoad::Loaded);
  EXPECT_EQ(small, mk::generatedBytes(v.vol().find("small.jpg")->dataSeed, 10000));

  RecordingSource rec{&vol};
  std::vector<uint8_t> movie;
  const HDIR& entry = *vol.dirRoot->firstChildNamed("movie.mov");
  EXPECT_EQ(getPreviewData(rec.source(), entry, abort, movie), PreviewLoad::Loaded);
  // One block at a time until more than 15,000,000 bytes are there.
  EXPECT_GT(movie.size(), kPreviewDataCap);
  EXPECT_LE(movie.size(), kPreviewDataCap + 4096);
  EXPECT_EQ(movie.size() % 4096, 0u);
  for (const auto& c : rec.calls) EXPECT_EQ(c.count, 8);
  EXPECT_EQ(rec.calls.size(), movie.size() / 4096);
  const auto full = mk::generatedBytes(v.vol().find("movie.mov")->dataSeed, movie.size());
  EXPECT_EQ(movie, full);
  EXPECT_EQ(loadedPercentText(movie.size(), entry.dataSize), "Loaded 75.02 %");

  // Abort and a failed read end the load.
  const HDIR& clip = *vol.dirRoot->firstChildNamed("clip.mov");
  RecordingSource stopped{&vol};
  ForkSource stopping = stopped.source();
  auto inner = stopping.read;
  stopping.read = [&](uint64_t s, int32_t c, void* b) {
    if (stopped.calls.size() == 3) abort.store(true);  // the user asks for another file during the fourth read
    return inner(s, c, b);
  };
  std::vector<uint8_t> out;
  EXPECT_EQ(getPreviewData(stopping, clip, abort, out), PreviewLoad::Aborted);
  EXPECT_EQ(stopped.calls.size(), 4u);

  abort.store(false);
  RecordingSource failing{&vol};
  failing.failAtSector = v.vol().blockToSector(v.vol().find("clip.mov")->dataExtents[0].startBlock + 2);
  out.clear();
  EXPECT_EQ(getPreviewData(failing.source(), clip, abort, out), PreviewLoad::ReadFailed);
  EXPECT_EQ(out.size(), 2u * 4096);
}

TEST(PreviewData, WholeDriveFilesAreReadInChunksOfEightSectors) {
  TempDir dir;
  const auto bytes = mk::generatedBytes(99, 64 * 512);
  writeFile(dir / "drive.img", bytes);
  HDIR carved;
  carved.fileType = kHDIRFile;
  carved.dataSize = 20 * 512 + 100;
  carved.dataExt = {Extent{3, 21}};  // sectors 3..23 of the drive
  std::vector<ReadCall> calls;
  ForkSource s;
  s.volumeScanType = 3;
  s.HPlusVolStart = 0;
  s.blockSize = 1;
  s.read = [&](uint64_t sector, int32_t count, void* buffer) {
    calls.push_back({sector, count});
    std::memcpy(buffer, bytes.data() + sector * 512, size_t(count) * 512);
    return true;
  };
  std::atomic<bool> abort{false};
  std::vector<uint8_t> out;
  EXPECT_EQ(getPreviewData(s, carved, abort, out), PreviewLoad::Loaded);
  EXPECT_EQ(calls, (std::vector<ReadCall>{{3, 8}, {11, 8}, {19, 5}}));
  EXPECT_EQ(out, std::vector<uint8_t>(bytes.begin() + 3 * 512, bytes.begin() + 3 * 512 + carved.dataSize));
}

TEST(Mp3BitShredder, DropsTheTopBitOfEachByte) {
  EXPECT_EQ(mp3BitShredder(0x00000000), 0u);
  EXPECT_EQ(mp3BitShredder(0x0000007F), 0x7Fu);
  EXPECT_EQ(mp3BitShredder(0x00000100), 0x80u);
  EXPECT_EQ(mp3BitShredder(0x7F7F7F7F), 0x0FFFFFFFu);
  EXPECT_EQ(mp3BitShredder(0xFFFFFFFF), 0x0FFFFFFFu);
  EXPECT_EQ(mp3BitShredder(0x00021B6C), 0x8DECu);
}

namespace {

void appendSynchsafe(std::vector<uint8_t>& v, uint32_t n) {
  for (int shift = 21; shift >= 0; shift -= 7) v.push_back(static_cast<uint8_t>((n >> shift) & 0x7F));
}
void appendBE32(std::vector<uint8_t>& v, uint32_t n) {
  for (int shift = 24; shift >= 0; shift -= 8) v.push_back(static_cast<uint8_t>(n >> shift));
}
void append(std::vector<uint8_t>& v, const std::string& s) { v.insert(v.end(), s.begin(), s.end()); }

// A tag of the given version holding a text frame, then a picture frame.
std::vector<uint8_t> id3Tag(uint8_t major, const std::vector<uint8_t>& pictureBody) {
  std::vector<uint8_t> frames;
  const std::string title = std::string("\0Title", 6);
  auto frame = [&](const std::string& id, const std::vector<uint8_t>& body) {
    append(frames, id);
    if (major == 2) {
      frames.push_back(0);
      frames.push_back(static_cast<uint8_t>(body.size() >> 8));
      frames.push_back(static_cast<uint8_t>(body.size()));
    } else {
      if (major == 4) appendSynchsafe(frames, static_cast<uint32_t>(body.size()));
      else appendBE32(frames, static_cast<uint32_t>(body.size()));
      frames.push_back(0);
      frames.push_back(0);
    }
    frames.insert(frames.end(), body.begin(), body.end());
  };
  frame(major == 2 ? "TT2" : "TIT2", std::vector<uint8_t>(title.begin(), title.end()));
  frame(major == 2 ? "PIC" : "APIC", pictureBody);
  frames.resize(frames.size() + 64, 0);  // padding
  std::vector<uint8_t> tag;
  append(tag, "ID3");
  tag.push_back(major);
  tag.push_back(0);
  tag.push_back(0);
  appendSynchsafe(tag, static_cast<uint32_t>(frames.size()));
  tag.insert(tag.end(), frames.begin(), frames.end());
  append(tag, "\xFF\xFB audio follows");
  return tag;
}

}  // namespace

TEST(Id3Picture, FoundInEachTagVersion) {
  const std::vector<uint8_t> picture = {0xFF, 0xD8, 0xFF, 0xE0, 1, 2, 3, 0, 4};
  {
    std::vector<uint8_t> body;
    body.push_back(0);
    append(body, std::string("image/jpeg\0\x03" "cover\0", 18));
    body.insert(body.end(), picture.begin(), picture.end());
    const auto tag = id3Tag(3, body);
    const auto pic = id3Picture(tag.data(), tag.size());
    ASSERT_TRUE(pic);
    EXPECT_EQ(pic->mimeType, "image/jpeg");
    EXPECT_EQ(std::vector<uint8_t>(tag.begin() + pic->offset, tag.begin() + pic->offset + pic->length), picture);
  }
  {
    // UTF-16 description with a zero byte inside a code unit.
    std::vector<uint8_t> body;
    body.push_back(1);
    append(body, std::string("image/png\0\x03\xFF\xFE" "A\0" "\0\0", 17));
    body.insert(body.end(), picture.begin(), picture.end());
    const auto tag = id3Tag(4, body);
    const auto pic = id3Picture(tag.data(), tag.size());
    ASSERT_TRUE(pic);
    EXPECT_EQ(pic->mimeType, "image/png");
    EXPECT_EQ(pic->length, picture.size());
    EXPECT_EQ(tag[pic->offset], 0xFF);
  }
  {
    std::vector<uint8_t> body;
    body.push_back(0);
    append(body, std::string("JPG\x03\0", 5));
    body.insert(body.end(), picture.begin(), picture.end());
    const auto tag = id3Tag(2, body);
    const auto pic = id3Picture(tag.data(), tag.size());
    ASSERT_TRUE(pic);
    EXPECT_EQ(pic->mimeType, "JPG");
    EXPECT_EQ(pic->length, picture.size());
  }
}

TEST(Id3Picture, RefusesWhatDoesNotFit) {
  std::vector<uint8_t> body;
  body.push_back(0);
  append(body, std::string("image/jpeg\0\x03\0", 13));
  body.push_back(0xFF);
  auto tag = id3Tag(3, body);
  // The tag cut inside the picture frame.
  EXPECT_FALSE(id3Picture(tag.data(), 30));
  // A frame claiming more than the tag holds.
  auto big = tag;
  big[10 + 10 + 6 + 4] = 0x7F;
  EXPECT_FALSE(id3Picture(big.data(), big.size()));
  // No tag, or an unknown version.
  const uint8_t plain[16] = {0xFF, 0xFB};
  EXPECT_FALSE(id3Picture(plain, sizeof plain));
  auto v5 = tag;
  v5[3] = 5;
  EXPECT_FALSE(id3Picture(v5.data(), v5.size()));
  // A picture frame with no end to its MIME type.
  std::vector<uint8_t> open = {0, 'i', 'm', 'a', 'g', 'e'};
  const auto noEnd = id3Tag(3, open);
  EXPECT_FALSE(id3Picture(noEnd.data(), noEnd.size()));
}

TEST(AppleDouble, HeaderParsesBackAndDamageIsRefused) {
  auto h = appleDoubleHeader(70000);
  ASSERT_EQ(h.size(), kAppleDoubleHeaderSize);
  std::vector<uint8_t> file = h;
  file.resize(h.size() + 70000, 0xAB);
  auto parsed = parseAppleDouble(file.data(), file.size());
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->version, kAppleDoubleVersion2);
  ASSERT_EQ(parsed->entries.size(), 2u);
  EXPECT_EQ(parsed->find(kAppleDoubleFinderInfo)->length, kFinderInfoSize);
  EXPECT_EQ(parsed->find(kAppleDoubleFinderInfo)->offset, 50u);
  EXPECT_EQ(parsed->find(kAppleDoubleResourceFork)->offset, kAppleDoubleHeaderSize);
  EXPECT_EQ(parsed->find(kAppleDoubleResourceFork)->length, 70000u);
  EXPECT_EQ(std::string(h.begin() + 8, h.begin() + 24), "Mac OS X        ");

  // The fork entry reaching past the end of the file.
  EXPECT_FALSE(parseAppleDouble(file.data(), file.size() - 1));
  auto badMagic = file;
  badMagic[3] = 0x08;
  EXPECT_FALSE(parseAppleDouble(badMagic.data(), badMagic.size()));
  auto tooMany = file;
  tooMany[24] = 0xFF;
  EXPECT_FALSE(parseAppleDouble(tooMany.data(), tooMany.size()));
  EXPECT_FALSE(parseAppleDouble(file.data(), 25));
  EXPECT_FALSE(parseAppleDouble(nullptr, 0));
}
