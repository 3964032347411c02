// AVI, QuickTime, MP4, 3GPP, 3GPP2 and MPEG program stream validators on
// real files (made by ffmpeg or taken from the shared samples), on files
// changed to meet each rule, and on bytes that only look like them.
#include <gtest/gtest.h>

#include <cstring>

#include "AvFiles.h"
#include "CarveImage.h"
#include "base/Endian.h"

namespace ambrel::test {
namespace {

constexpr int32_t kBlock = 8;  // 4096-byte blocks
constexpr uint64_t kBlockBytes = 4096;

std::vector<uint8_t> clip(const std::string& extension, const std::string& options = "") {
  return ffmpegMade("-f lavfi -i testsrc=duration=0.5:size=96x64:rate=10 -pix_fmt yuv420p " + options, extension);
}

// Top-level atoms as (type, position, size); what tests change.
struct Atom {
  std::string type;
  size_t pos;
  uint32_t size;
};
std::vector<Atom> atoms(const std::vector<uint8_t>& f) {
  std::vector<Atom> out;
  for (size_t p = 0; p + 8 <= f.size();) {
    const uint32_t size = loadBE32(&f[p]);
    out.push_back({std::string(reinterpret_cast<const char*>(&f[p + 4]), 4), p, size});
    if (size < 8) break;
    p += size;
  }
  return out;
}
const Atom& atomOf(const std::vector<Atom>& list, const std::string& type) {
  for (const Atom& a : list)
    if (a.type == type) return a;
  throw std::runtime_error("no " + type + " atom");
}

// ---- AVI --------------------------------------------------------------------

TEST(AviValidator, RiffSizePlusTheMargin) {
  const auto avi = clip("avi");
  if (avi.empty()) GTEST_SKIP() << "ffmpeg is not installed";
  ASSERT_NE(std::search(avi.begin(), avi.end(), std::begin("idx1"), std::end("idx1") - 1), avi.end());
  ASSERT_EQ(loadLE32(&avi[4]) + 8u, avi.size());
  const ValidatorRun r = runValidator(checkAVIFileAtBlock, avi, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, avi.size() + 2040);
  EXPECT_FALSE(r.skipFileSize);

  // A RIFF size of 1000 is carved with 3048 bytes; nothing else is checked.
  std::vector<uint8_t> small = {'R', 'I', 'F', 'F', 0xE8, 0x03, 0, 0, 'W', 'E', 'B', 'P'};
  small.resize(1008, 0);
  EXPECT_TRUE(runValidator(checkAVIFileAtBlock, small, kBlock).accepted);
  EXPECT_EQ(runValidator(checkAVIFileAtBlock, small, kBlock).foundSize, 3048u);
  // A size a writer never filled in says nothing.
  for (uint32_t placeholder : {0u, 0xFFFFFFFFu}) {
    auto b = avi;
    storeLE32(&b[4], placeholder);
    const ValidatorRun p = runValidator(checkAVIFileAtBlock, b, kBlock);
    EXPECT_TRUE(p.accepted);
    EXPECT_EQ(p.foundSize, 0u) << placeholder;
  }
}

TEST(AviValidator, ExtendedFormsAfterTheFirstBelongToTheFile) {
  const auto avi = clip("avi");
  if (avi.empty()) GTEST_SKIP() << "ffmpeg is not installed";
  // What a writer appends past 1 GiB: RIFF forms of type AVIX.
  auto extended = avi;
  for (uint32_t part : {5000u, 700u}) {
    const size_t at = extended.size();
    extended.resize(at + 8 + part, 0x5A);
    std::memcpy(&extended[at], "RIFF", 4);
    storeLE32(&extended[at + 4], part);
    std::memcpy(&extended[at + 8], "AVIX", 4);
  }
  const ValidatorRun r = runValidator(checkAVIFileAtBlock, extended, kBlock);
  EXPECT_EQ(r.foundSize, extended.size() + 2040);
  // Only after an AVI form, and only whole ones.
  auto other = extended;
  std::memcpy(&other[8], "WEBP", 4);
  EXPECT_EQ(runValidator(checkAVIFileAtBlock, other, kBlock).foundSize, avi.size() + 2040);
  auto tooLong = extended;
  storeLE32(&tooLong[avi.size() + 4], 0x7FFFFFF0);
  EXPECT_EQ(runValidator(checkAVIFileAtBlock, tooLong, kBlock).foundSize, avi.size() + 2040);
}

// ---- The atom walk ----------------------------------------------------------

TEST(QuickTimeValidator, RealMovieEndsAtItsLastAtom) {
  const auto mov = clip("mov");
  if (mov.empty()) GTEST_SKIP() << "ffmpeg is not installed";
  const ValidatorRun r = runValidator(checkMOVFileAtBlock, mov, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, mov.size());
  EXPECT_FALSE(r.skipFileSize);
}

TEST(QuickTimeValidator, WalkStopsAtTheFirstAtomItCannotTake) {
  const auto mov = clip("mov");
  if (mov.empty()) GTEST_SKIP() << "ffmpeg is not installed";
  const auto list = atoms(mov);
  ASSERT_GE(list.size(), 3u);
  const size_t second = list[1].pos, moov = atomOf(list, "moov").pos;
  // An upper-case letter in the second atom's type: cut after the first.
  auto b = mov;
  b[second + 4] = static_cast<uint8_t>(std::toupper(b[second + 4]));
  EXPECT_EQ(runValidator(checkMOVFileAtBlock, b, kBlock).foundSize, second);
  // A digit, a size of 0 (to the end of the file: not known), sizes smaller
  // than an atom head.
  b = mov;
  b[moov + 7] = '4';
  EXPECT_EQ(runValidator(checkMOVFileAtBlock, b, kBlock).foundSize, moov);
  for (uint32_t size : {0u, 4u, 7u}) {
    b = mov;
    storeBE32(&b[moov], size);
    EXPECT_EQ(runValidator(checkMOVFileAtBlock, b, kBlock).foundSize, moov) << size;
  }
  // An atom past the drive's end.
  b = mov;
  storeBE32(&b[moov], 0x7FFFFFF0);
  EXPECT_EQ(runValidator(checkMOVFileAtBlock, b, kBlock).foundSize, moov);
  // An atom past the volume's end (here 512-byte blocks, the volume ending
  // inside "moov"), though the drive goes on.
  std::vector<uint8_t> drive = noise(64 * kBlockBytes, 3);
  std::copy(mov.begin(), mov.end(), drive.begin() + 3 * kBlockBytes);
  const uint64_t first = 3 * kBlockBytes / 512, volumeSectors = first + (moov + 100) / 512 + 1;
  ASSERT_LT(volumeSectors * 512, 3 * kBlockBytes + mov.size());
  EXPECT_EQ(runValidatorOnDrive(checkMOVFileAtBlock, drive, first, 1, volumeSectors).foundSize, moov);
  EXPECT_EQ(runValidatorOnDrive(checkMOVFileAtBlock, drive, first, 1, 64 * 8).foundSize, mov.size());
  // A first atom of size 0: no length at all, the maximum size then.
  b = mov;
  storeBE32(&b[0], 0);
  const ValidatorRun none = runValidator(checkMOVFileAtBlock, b, kBlock);
  EXPECT_TRUE(none.accepted);
  EXPECT_EQ(none.foundSize, 0u);
}

TEST(QuickTimeValidator, SixtyFourBitAtomSizesAreFollowed) {
  const auto mov = clip("mov");
  if (mov.empty()) GTEST_SKIP() << "ffmpeg is not installed";
  const auto list = atoms(mov);
  const Atom& wide = atomOf(list, "wide");
  const Atom& mdat = atomOf(list, "mdat");
  ASSERT_EQ(wide.pos + 8, mdat.pos);
  // The "wide" atom is the room a writer keeps for a 64-bit media size:
  // rewrite the two as one mdat with size field 1 and a 64-bit size.
  auto b = mov;
  storeBE32(&b[wide.pos], 1);
  std::memcpy(&b[wide.pos + 4], "mdat", 4);
  storeBE64(&b[wide.pos + 8], uint64_t{mdat.size} + 8);
  const ValidatorRun r = runValidator(checkMOVFileAtBlock, b, kBlock);
  EXPECT_EQ(r.foundSize, mov.size());
  // A 64-bit size smaller than its own head, or past the drive, ends the walk.
  storeBE64(&b[wide.pos + 8], 15);
  EXPECT_EQ(runValidator(checkMOVFileAtBlock, b, kBlock).foundSize, wide.pos);
  storeBE64(&b[wide.pos + 8], 1ull << 40);
  EXPECT_EQ(runValidator(checkMOVFileAtBlock, b, kBlock).foundSize, wide.pos);
}

TEST(Mp4Validator, RealFilesAndTheirExtensions) {
  struct Case {
    std::vector<uint8_t> file;
    const char* extension;
  };
  const std::vector<Case> cases = {
      {clip("mp4"), "mp4"},
      {ffmpegMade("-f lavfi -i sine=frequency=440:duration=0.5 -c:a aac", "m4a"), "m4a"},
      {clip("m4v"), "m4v"},
      {clip("mp4", "-brand M4VH"), "m4v"},
      {clip("mp4", "-brand 'M4B '"), "mp4"},  // audio book: "M4" but neither V nor A
  };
  int checked = 0;
  for (const Case& c : cases) {
    if (c.file.empty()) continue;
    const ValidatorRun r = runValidator(checkMP4FileAtBlock, c.file, kBlock);
    EXPECT_TRUE(r.accepted) << c.extension;
    EXPECT_EQ(r.foundSize, c.file.size()) << c.extension;
    EXPECT_TRUE(r.skipFileSize);
    EXPECT_EQ(r.skipSize, c.file.size() / kBlockBytes);
    EXPECT_EQ(r.extension, c.extension) << std::string(reinterpret_cast<const char*>(&c.file[8]), 4);
    ++checked;
  }
  if (checked == 0) GTEST_SKIP() << "ffmpeg is not installed";
}

TEST(Mp4Validator, ThreeGppBrandsAreLeftToTheirOwnValidators) {
  const auto gp = clip("3gp", "-vcodec h263 -s 176x144");
  if (gp.empty()) GTEST_SKIP() << "ffmpeg is not installed";
  ASSERT_EQ(std::string(reinterpret_cast<const char*>(&gp[8]), 4), "3gp4");
  // The same record, one hit after the other: an m4a renames it, the 3gp
  // refusal resets it.
  const auto m4a = ffmpegMade("-f lavfi -i sine=frequency=440:duration=0.5 -c:a aac", "m4a");
  std::vector<uint8_t> drive = noise(64 * kBlockBytes, 4);
  std::copy(m4a.begin(), m4a.end(), drive.begin() + 2 * kBlockBytes);
  std::copy(gp.begin(), gp.end(), drive.begin() + 20 * kBlockBytes);
  MemorySectorSource source(drive);
  SearchState state;
  auto sig = makeSig("Video", "mp4", "66747970", 4, 17);
  Candidate a(source, CarveGeometry{0, kBlock, 64}, 2, state);
  if (!m4a.empty()) {
    ASSERT_TRUE(checkMP4FileAtBlock(a, *sig));
    EXPECT_EQ(sig->extension, "m4a");
  }
  Candidate b(source, CarveGeometry{0, kBlock, 64}, 20, state);
  EXPECT_FALSE(checkMP4FileAtBlock(b, *sig));
  EXPECT_EQ(sig->extension, "mp4");

  const ValidatorRun r = runValidator(check3GPP_FileAtBlock, gp, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, gp.size());
  EXPECT_TRUE(r.skipFileSize);
}

TEST(ThreeGppValidators, RealFilesEndAtTheirLastAtom) {
  int checked = 0;
  for (const char* name : {"3gpp/fixture2.3gp", "3gpp/sample.3gp", "3gpp/fixture.3g2", "3gpp/sample_3GPP2.3g2"}) {
    const auto file = sample(name);
    if (file.empty()) continue;
    const bool second = std::string(name).find("3g2") != std::string::npos;
    const ValidatorRun r = runValidator(second ? check3GPP2_FileAtBlock : check3GPP_FileAtBlock, file, kBlock);
    EXPECT_TRUE(r.accepted) << name;
    EXPECT_EQ(int64_t(r.foundSize), referenceStructuralEnd(name)) << name;
    EXPECT_TRUE(r.skipFileSize) << name;
    ++checked;
  }
  const auto g2 = clip("3g2", "-vcodec h263 -s 176x144");
  if (!g2.empty()) {
    const ValidatorRun r = runValidator(check3GPP2_FileAtBlock, g2, kBlock);
    EXPECT_EQ(r.foundSize, g2.size());
    ++checked;
  }
  if (checked == 0) GTEST_SKIP() << "neither the shared samples nor ffmpeg are here";
}

// ---- MPEG program stream ----------------------------------------------------

TEST(MpegValidator, RealProgramStreams) {
  int checked = 0;
  // 150 packs of 2048 bytes, no end code.
  const auto weird = sample("mpeg_ps/weird_aspect.small.mpg");
  if (!weird.empty()) {
    const ValidatorRun r = runValidator(checkMPGFileAtBlock, weird, kBlock);
    EXPECT_TRUE(r.accepted);
    EXPECT_EQ(r.foundSize, weird.size());
    EXPECT_TRUE(r.skipFileSize);
    EXPECT_EQ(r.skipSize, weird.size() / kBlockBytes);
    // One pack only: no second pack header, refused.
    EXPECT_FALSE(runValidator(checkMPGFileAtBlock, sample("mpeg_ps/fixture.ps.mpg"), kBlock).accepted);
    // A video elementary stream has no pack header at its start: taken with
    // no length.
    const ValidatorRun es = runValidator(checkMPGFileAtBlock, sample("mpeg_ps/fixture.mpg"), kBlock);
    EXPECT_TRUE(es.accepted);
    EXPECT_EQ(es.foundSize, 0u);
    EXPECT_TRUE(es.skipFileSize);
    EXPECT_EQ(es.skipSize, 0u);
    ++checked;
  }
  // ffmpeg's DVD muxer writes equal packs; its MPEG-1 muxer packs of
  // several sizes, which only the packets inside them tell apart.
  for (const char* format : {"vob", "mpeg"}) {
    const auto mpg = ffmpegMade(std::string("-f lavfi -i testsrc=duration=1:size=96x64:rate=25 -f ") + format, "mpg");
    if (mpg.empty()) continue;
    std::vector<size_t> packs;
    for (size_t p = 0; p + 4 <= mpg.size(); ++p)
      if (loadBE32(&mpg[p]) == 0x1BA) packs.push_back(p);
    ASSERT_GE(packs.size(), 3u) << format;
    const bool equal = std::string(format) == "vob";
    EXPECT_EQ(packs[2] - packs[1] == packs[1] - packs[0], equal) << format;
    const ValidatorRun r = runValidator(checkMPGFileAtBlock, mpg, kBlock);
    EXPECT_TRUE(r.accepted) << format;
    EXPECT_EQ(r.foundSize, mpg.size()) << format;
    ++checked;
  }
  if (checked == 0) GTEST_SKIP() << "neither the shared samples nor ffmpeg are here";
}

TEST(MpegValidator, EndCodeInsideOrAfterTheLastPack) {
  const auto inside = mpegProgramStream(10, 2048, true, false);
  EXPECT_EQ(runValidator(checkMPGFileAtBlock, inside, kBlock).foundSize, inside.size());
  const auto after = mpegProgramStream(10, 2048, false, true);
  EXPECT_EQ(runValidator(checkMPGFileAtBlock, after, kBlock).foundSize, after.size());
  // Without an end code the stream ends with its last whole pack.
  const auto none = mpegProgramStream(10, 2048, false, false);
  EXPECT_EQ(runValidator(checkMPGFileAtBlock, none, kBlock).foundSize, none.size());
  // A pack in the middle made unreadable (zeros) costs only itself.
  auto damaged = none;
  std::fill(damaged.begin() + 4 * 2048 + 20, damaged.begin() + 5 * 2048, 0);
  EXPECT_EQ(runValidator(checkMPGFileAtBlock, damaged, kBlock).foundSize, none.size());
  // Its header gone too, the stream ends before it.
  std::fill(damaged.begin() + 4 * 2048, damaged.begin() + 5 * 2048, 0);
  EXPECT_EQ(runValidator(checkMPGFileAtBlock, damaged, kBlock).foundSize, 4u * 2048);
}

TEST(MpegValidator, PacksInsideACarvedStreamAreRefused) {
  // 1024-byte packs: the stream's last block holds pack headers on sector
  // boundaries, with more than one pack after them.
  const auto stream = mpegProgramStream(11, 1024, true, false);
  std::vector<uint8_t> drive = noise(64 * kBlockBytes, 6);
  std::copy(stream.begin(), stream.end(), drive.begin() + 3 * kBlockBytes);
  MemorySectorSource source(drive);
  const CarveGeometry geometry{0, kBlock, 64};
  auto sig = makeSig("Video", "mpg", "000001BA", 0, 19);
  {
    SearchState fresh;
    Candidate alone(source, geometry, 5, fresh);
    EXPECT_TRUE(checkMPGFileAtBlock(alone, *sig));  // on its own it is a stream
  }
  SearchState state;
  Candidate head(source, geometry, 3, state);
  ASSERT_TRUE(checkMPGFileAtBlock(head, *sig));
  EXPECT_EQ(sig->foundSize, stream.size());
  EXPECT_EQ(sig->skipSize, 2u);
  Candidate inside(source, geometry, 5, state);
  EXPECT_FALSE(checkMPGFileAtBlock(inside, *sig));
  EXPECT_TRUE(state.mpgDoneArray.contains(3 * kBlock + 17));
  EXPECT_FALSE(state.mpgDoneArray.contains(3 * kBlock + stream.size() / 512 + 1));
}

TEST(MpegValidator, EndlessChainsOfPackHeadersStayBounded) {
  // A drive of pack headers 2048 bytes apart with nothing sensible between:
  // the walk ends at the drive's end.
  std::vector<uint8_t> drive = noise(256 * 2048, 8);
  for (size_t p = 0; p < drive.size(); p += 2048) {
    const uint8_t pack[12] = {0x00, 0x00, 0x01, 0xBA, 0x21, 0x00, 0x01, 0x00, 0x01, 0x80, 0x1B, 0x91};
    std::memcpy(&drive[p], pack, sizeof pack);
  }
  const ValidatorRun r = runValidatorOnDrive(checkMPGFileAtBlock, drive, 1, kBlock, drive.size() / kBlockBytes);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, drive.size() - kBlockBytes);
  // Start codes 4 bytes apart: no pack fits between them.
  std::vector<uint8_t> tight(64 * 1024);
  for (size_t p = 0; p < tight.size(); p += 4) storeBE32(&tight[p], 0x1BA);
  EXPECT_FALSE(runValidatorOnDrive(checkMPGFileAtBlock, tight, 0, kBlock, 16).accepted);
}

}  // namespace
}  // namespace ambrel::test
