// WAV, AIFF, MIDI and MP3 validators on real files (made by sox, lame and
// ffmpeg, or taken from the shared samples), on files changed to meet each
// rule, and on bytes that only look like them.
#include <gtest/gtest.h>

#include <cstring>

#include "AvFiles.h"
#include "CarveImage.h"
#include "base/Endian.h"
#include "carving/MpegAudio.h"

namespace ambrel::test {
namespace {

constexpr int32_t kBlock = 8;  // 4096-byte blocks
constexpr uint64_t kBlockBytes = 4096;

// The same sine tone from each tool, short enough to keep the tests fast.
std::vector<uint8_t> soxWav(int bits) {
  return toolMade("sox", "sox -n -r 22050 -b " + std::to_string(bits) + " {out} synth 0.25 sine 440 vol 0.5", "wav");
}
std::vector<uint8_t> lameMp3(const std::string& options) {
  return toolMade("lame", "sox -n -r 44100 -c 2 -t wav - synth 0.5 sine 440 vol 0.5 | lame --quiet " + options + " - {out}",
                  "mp3");
}
std::vector<uint8_t> ffmpegMp3(const std::string& options) {
  return ffmpegMade("-f lavfi -i sine=frequency=440:duration=0.5 " + options, "mp3");
}

void expectStream(const std::vector<uint8_t>& file, const std::string& what) {
  SCOPED_TRACE(what);
  ASSERT_FALSE(file.empty());
  const ValidatorRun r = runValidator(checkMP3FileAtBlock, file, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, file.size());
  EXPECT_TRUE(r.skipFileSize);
  EXPECT_EQ(r.skipSize, file.size() / kBlockBytes);
}

// ---- WAV --------------------------------------------------------------------

TEST(WavValidator, RealFilesEndAtTheirRiffSize) {
  int checked = 0;
  for (int bits : {8, 16, 24}) {
    const auto wav = soxWav(bits);
    if (wav.empty()) continue;
    const ValidatorRun r = runValidator(checkWAVFileAtBlock, wav, kBlock);
    EXPECT_TRUE(r.accepted) << bits;
    EXPECT_EQ(r.foundSize, wav.size()) << bits;
    EXPECT_FALSE(r.skipFileSize) << bits;
    ++checked;
  }
  const auto pcm = ffmpegMade("-f lavfi -i sine=frequency=440:duration=0.3 -ac 2 -c:a pcm_s16le", "wav");
  if (!pcm.empty()) {
    const ValidatorRun r = runValidator(checkWAVFileAtBlock, pcm, kBlock);
    EXPECT_TRUE(r.accepted);
    EXPECT_EQ(r.foundSize, pcm.size());
    ++checked;
  }
  if (checked == 0) GTEST_SKIP() << "neither sox nor ffmpeg is installed";
}

TEST(WavValidator, OtherRiffFormsAreRefused) {
  std::vector<uint8_t> avi = {'R', 'I', 'F', 'F', 100, 0, 0, 0, 'A', 'V', 'I', ' ', 'L', 'I', 'S', 'T'};
  avi.resize(108, 0);
  EXPECT_FALSE(runValidator(checkWAVFileAtBlock, avi, kBlock).accepted);
}

TEST(WavValidator, MpegLayer3FormatIsHandedToTheMp3Validator) {
  const auto wav = ffmpegMade("-f lavfi -i sine=frequency=440:duration=0.5 -c:a libmp3lame -b:a 64k -f wav", "wav");
  if (wav.empty()) GTEST_SKIP() << "ffmpeg is not installed";
  ASSERT_EQ(loadLE16(&wav[20]), 0x55);
  // Accepted as the MP3 validator accepts it: the whole RIFF form, skipped.
  const ValidatorRun viaWav = runValidator(checkWAVFileAtBlock, wav, kBlock);
  const ValidatorRun viaMp3 = runValidator(checkMP3FileAtBlock, wav, kBlock);
  EXPECT_TRUE(viaWav.accepted);
  EXPECT_EQ(viaWav.foundSize, wav.size());
  EXPECT_TRUE(viaWav.skipFileSize);
  EXPECT_EQ(viaWav.foundSize, viaMp3.foundSize);

  // Its frames overwritten: no MPEG audio in it, refused by both.
  auto noFrames = wav;
  const auto data = std::search(noFrames.begin(), noFrames.end(), std::begin("data"), std::end("data") - 1);
  ASSERT_NE(data, noFrames.end());
  std::fill(data + 8, noFrames.end(), 0x11);
  EXPECT_FALSE(runValidator(checkWAVFileAtBlock, noFrames, kBlock).accepted);
  EXPECT_FALSE(runValidator(checkMP3FileAtBlock, noFrames, kBlock).accepted);
}

TEST(WavValidator, PlaceholderRiffSizesLetTheChunksDecide) {
  const auto wav = soxWav(16);
  if (wav.empty()) GTEST_SKIP() << "sox is not installed";
  // What a writer that could not go back leaves: 0 or 0xFFFFFFFF. The data
  // chunk still has its size: the file ends with it.
  for (uint32_t placeholder : {0u, 0xFFFFFFFFu}) {
    auto b = wav;
    storeLE32(&b[4], placeholder);
    const ValidatorRun r = runValidator(checkWAVFileAtBlock, b, kBlock);
    EXPECT_TRUE(r.accepted);
    EXPECT_EQ(r.foundSize, wav.size()) << placeholder;
  }
  // Neither size known: no length (the maximum size applies).
  auto b = wav;
  storeLE32(&b[4], 0xFFFFFFFF);
  const auto data = std::search(b.begin(), b.end(), std::begin("data"), std::end("data") - 1);
  ASSERT_NE(data, b.end());
  storeLE32(&*(data + 4), 0xFFFFFFFF);
  EXPECT_EQ(runValidator(checkWAVFileAtBlock, b, kBlock).foundSize, 0u);
  // A RIFF size past the drive's end is no length either when the data
  // chunk does not end on the drive.
  storeLE32(&b[4], 0x7FFFFFF0);
  storeLE32(&*(data + 4), 0x7FFFFFD0);
  const ValidatorRun past = runValidator(checkWAVFileAtBlock, b, kBlock, 3, 3 * kBlockBytes + b.size() + 4096);
  EXPECT_TRUE(past.accepted);
  EXPECT_EQ(past.foundSize, 0u);
}

// ---- AIFF -------------------------------------------------------------------

TEST(AiffValidator, RealFilesEndAtTheirFormSize) {
  int checked = 0;
  for (const char* name : {"aiff/AIFF.aif", "aiff/fixture.aif", "aiff/pluck-pcm16.aiff", "aiff/pluck-ulaw.aifc"}) {
    const auto file = sample(name);
    if (file.empty()) continue;
    const ValidatorRun r = runValidator(checkAIFF_FileAtBlock, file, kBlock);
    EXPECT_TRUE(r.accepted) << name;
    EXPECT_EQ(int64_t(r.foundSize), referenceStructuralEnd(name)) << name;
    EXPECT_EQ(r.foundSize, file.size()) << name;
    EXPECT_FALSE(r.skipFileSize) << name;
    ++checked;
  }
  for (const char* type : {"aiff", "aifc"}) {
    const auto made = toolMade("sox", std::string("sox -n -r 8000 -b 16 -t ") + type + " {out} synth 0.2 sine 300", type);
    if (made.empty()) continue;
    const ValidatorRun r = runValidator(checkAIFF_FileAtBlock, made, kBlock);
    EXPECT_TRUE(r.accepted) << type;
    EXPECT_EQ(r.foundSize, made.size()) << type;
    ++checked;
  }
  if (checked == 0) GTEST_SKIP() << "neither the shared samples nor sox are here";
}

TEST(AiffValidator, OnlyAFormChunkIsTakenWhateverItsType) {
  std::vector<uint8_t> form = {'F', 'O', 'R', 'M', 0, 0, 0, 20, 'X', 'Y', 'Z', 'W'};
  form.resize(28, 0);
  const ValidatorRun r = runValidator(checkAIFF_FileAtBlock, form, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 28u);
  form[0] = 'f';
  EXPECT_FALSE(runValidator(checkAIFF_FileAtBlock, form, kBlock).accepted);
}

// ---- MIDI -------------------------------------------------------------------

std::vector<uint8_t> midiFile(const std::vector<uint32_t>& trackLengths) {
  std::vector<uint8_t> b = {'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 1, 0, 1, 0, 96};
  for (uint32_t length : trackLengths) {
    const uint8_t track[] = {'M', 'T', 'r', 'k'};
    b.insert(b.end(), track, track + 4);
    b.resize(b.size() + 4);
    storeBE32(&b[b.size() - 4], length);
    b.resize(b.size() + length, 0x40);
  }
  return b;
}

TEST(MidiValidator, ChunkWalkPlusTwo) {
  // One header chunk (14 bytes) and a track of 100: 14 + 108 + 2.
  const ValidatorRun r = runValidator(checkMIDIFileAtBlock, midiFile({100}), kBlock, 3, 0, 5);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 124u);
  EXPECT_TRUE(r.skipFileSize);
  EXPECT_EQ(r.skipSize, 0u);
  // The second track's head straddles the first sector boundary (at 510).
  const auto straddling = midiFile({488, 1000, 3000});
  const ValidatorRun s = runValidator(checkMIDIFileAtBlock, straddling, kBlock, 3, 0, 5);
  EXPECT_EQ(s.foundSize, straddling.size() + 2);
  EXPECT_EQ(s.skipSize, 1u);

  const auto real = sample("midi/fixture.mid");
  if (real.empty()) GTEST_SKIP() << "the shared samples are not here";
  const ValidatorRun f = runValidator(checkMIDIFileAtBlock, real, kBlock);
  EXPECT_TRUE(f.accepted);
  EXPECT_EQ(int64_t(f.foundSize), referenceStructuralEnd("midi/fixture.mid") + 2);
}

TEST(MidiValidator, AChunkEndingPastTheDriveIsNotTheFiles) {
  auto b = midiFile({100});
  storeBE32(&b[18], 0xFFFFFFF0u);
  const ValidatorRun r = runValidator(checkMIDIFileAtBlock, b, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, 14u + 2);
}

// ---- MPEG audio frame headers ----------------------------------------------

TEST(MpegAudio, FieldsAndTablesOfTheStandard) {
  const uint32_t h = 0xFFFB9064;  // MPEG-1 layer III, 128 kbit/s, 44.1 kHz, no padding, joint stereo
  EXPECT_EQ(mp3BitCheck(h, 20, 2), 3u);
  EXPECT_EQ(mp3BitCheck(h, 18, 2), 1u);
  EXPECT_EQ(mp3BitCheck(h, 16, 1), 1u);
  EXPECT_EQ(mp3BitCheck(h, 15, 4), 9u);
  EXPECT_EQ(mp3BitCheck(h, 11, 2), 0u);
  EXPECT_EQ(mp3BitCheck(h, 9, 1), 0u);
  EXPECT_EQ(mp3BitCheck(h, 31, 11), 0x7FFu);

  EXPECT_EQ(getMP3BitRateIndexValueForVersion(1, 1, 14), 448u);
  EXPECT_EQ(getMP3BitRateIndexValueForVersion(1, 2, 14), 384u);
  EXPECT_EQ(getMP3BitRateIndexValueForVersion(1, 3, 9), 128u);
  EXPECT_EQ(getMP3BitRateIndexValueForVersion(1, 3, 14), 320u);
  EXPECT_EQ(getMP3BitRateIndexValueForVersion(2, 1, 14), 256u);
  EXPECT_EQ(getMP3BitRateIndexValueForVersion(2, 3, 9), 80u);
  EXPECT_EQ(getMP3BitRateIndexValueForVersion(4, 2, 1), 8u);
  EXPECT_EQ(getMP3BitRateIndexValueForVersion(4, 3, 14), 160u);
  EXPECT_EQ(getMP3BitRateIndexValueForVersion(1, 3, 0), 0u);
  EXPECT_EQ(getMP3BitRateIndexValueForVersion(1, 3, 15), 0u);
  EXPECT_EQ(getMP3BitRateIndexValueForVersion(3, 3, 9), 0u);
  EXPECT_EQ(getMP3BitRateIndexValueForVersion(1, 0, 9), 0u);

  EXPECT_EQ(getMP3SampleRateFreqForVersion(1, 0), 44100u);
  EXPECT_EQ(getMP3SampleRateFreqForVersion(1, 2), 32000u);
  EXPECT_EQ(getMP3SampleRateFreqForVersion(2, 0), 22050u);
  EXPECT_EQ(getMP3SampleRateFreqForVersion(2, 1), 24000u);
  EXPECT_EQ(getMP3SampleRateFreqForVersion(4, 0), 11025u);
  EXPECT_EQ(getMP3SampleRateFreqForVersion(4, 2), 8000u);
  EXPECT_EQ(getMP3SampleRateFreqForVersion(1, 3), 0u);

  auto f = parseMp3FrameHeader(h);
  ASSERT_TRUE(f);
  EXPECT_EQ(f->length, 417u);
  f = parseMp3FrameHeader(h | 0x200);  // padding
  ASSERT_TRUE(f);
  EXPECT_EQ(f->length, 418u);
  // Layer I counts in slots of 4 bytes: 12 * 448000 / 48000 = 112 slots.
  f = parseMp3FrameHeader(0xFFFFE400);
  ASSERT_TRUE(f);
  EXPECT_EQ(f->layer, 1u);
  EXPECT_EQ(f->length, 448u);
  f = parseMp3FrameHeader(0xFFFFE600);
  ASSERT_TRUE(f);
  EXPECT_EQ(f->length, 452u);
  // MPEG-2 layer III has half the samples: 72 * 64000 / 22050 = 208.
  f = parseMp3FrameHeader(0xFFF38000);
  ASSERT_TRUE(f);
  EXPECT_EQ(f->version, 2u);
  EXPECT_EQ(f->length, 208u);
  // MPEG-2 layer II keeps 144: 144 * 64000 / 22050 = 417.
  f = parseMp3FrameHeader(0xFFF58000);
  ASSERT_TRUE(f);
  EXPECT_EQ(f->length, 417u);

  // Refused: reserved version, reserved layer, free format, bit-rate index
  // 15, sampling-rate index 3, reserved emphasis, no sync.
  for (uint32_t bad : {0xFFEB9064u, 0xFFF99064u, 0xFFFB0064u, 0xFFFBF064u, 0xFFFB9C64u, 0xFFFB9066u, 0xFFDB9064u})
    EXPECT_FALSE(parseMp3FrameHeader(bad)) << std::hex << bad;
}

TEST(MpegAudio, FrameLengthsMatchWhatFfprobeReads) {
  // MPEG-1, MPEG-2 and MPEG-2.5 layer III, CBR and VBR, and layer II.
  const std::vector<std::pair<std::vector<uint8_t>, std::string>> files = {
      {ffmpegMp3("-c:a libmp3lame -b:a 128k"), "mp3"},
      {ffmpegMp3("-c:a libmp3lame -q:a 2"), "mp3"},
      {ffmpegMp3("-ar 22050 -c:a libmp3lame -b:a 40k"), "mp3"},
      {ffmpegMp3("-ar 11025 -c:a libmp3lame -b:a 16k"), "mp3"},
      {ffmpegMade("-f lavfi -i sine=frequency=440:duration=0.5 -c:a mp2 -b:a 192k", "mp2"), "mp2"},
  };
  int checked = 0;
  for (const auto& [file, ext] : files) {
    const auto packets = ffprobePackets(file, ext);
    if (file.empty() || packets.empty()) continue;
    for (const Packet& p : packets) {
      ASSERT_LE(p.pos + 4, file.size());
      const auto f = parseMp3FrameHeader(loadBE32(&file[p.pos]));
      ASSERT_TRUE(f) << p.pos;
      EXPECT_EQ(f->length, p.size) << "frame at " << p.pos;
    }
    ++checked;
  }
  if (checked == 0) GTEST_SKIP() << "ffmpeg is not installed";
}

// ---- MP3 --------------------------------------------------------------------

TEST(Mp3Validator, RealStreamsEndAfterTheirLastFrameAndId3v1Tag) {
  const std::vector<std::pair<std::string, std::vector<uint8_t>>> made = {
      {"lame CBR 128, no tags", lameMp3("-b 128")},
      {"lame CBR 128, ID3v1 and ID3v2", lameMp3("-b 128 --add-id3v2 --tt Title --ta Artist")},
      {"lame ID3v1 only", lameMp3("-b 96 --id3v1-only --tt Title")},
      {"lame VBR", lameMp3("-V 4")},
      {"lame MPEG-2 22.05 kHz", lameMp3("--resample 22.05 -b 48")},
      {"lame MPEG-2.5 8 kHz", lameMp3("--resample 8 -b 16")},
      {"ffmpeg CBR with ID3v2", ffmpegMp3("-c:a libmp3lame -b:a 128k")},
      {"ffmpeg VBR with ID3v2 and ID3v1", ffmpegMp3("-c:a libmp3lame -q:a 4 -write_id3v1 1 -metadata title=T")},
      {"ffmpeg MPEG-2 22.05 kHz", ffmpegMp3("-ar 22050 -c:a libmp3lame -b:a 32k")},
      {"ffmpeg without tags", ffmpegMp3("-c:a libmp3lame -b:a 64k -write_xing 0 -id3v2_version 0")},
      {"ffmpeg layer II", ffmpegMade("-f lavfi -i sine=frequency=440:duration=0.5 -c:a mp2 -b:a 160k -f mp2", "mp2")},
  };
  int checked = 0;
  for (const auto& [what, file] : made) {
    if (file.empty()) continue;
    expectStream(file, what);
    ++checked;
  }
  if (checked == 0) GTEST_SKIP() << "neither lame nor ffmpeg is installed";
  // The tags really are there: the cases above test what they claim.
  const auto tagged = lameMp3("-b 128 --add-id3v2 --tt Title --ta Artist");
  if (!tagged.empty()) {
    EXPECT_EQ(std::memcmp(tagged.data(), "ID3", 3), 0);
    EXPECT_EQ(std::memcmp(&tagged[tagged.size() - 128], "TAG", 3), 0);
  }
}

TEST(Mp3Validator, StreamCutByTheDrivesEndEndsAtItsLastWholeFrame) {
  const auto file = ffmpegMp3("-c:a libmp3lame -b:a 128k");
  const auto packets = ffprobePackets(file, "mp3");
  if (file.empty() || packets.size() < 10) GTEST_SKIP() << "ffmpeg is not installed";
  // The drive ends inside a frame (drives end on sector boundaries).
  for (uint64_t cut : {uint64_t{2048}, uint64_t{4096}, file.size() / 512 * 512}) {
    std::vector<uint8_t> drive = noise(3 * kBlockBytes, 2);
    drive.insert(drive.end(), file.begin(), file.begin() + static_cast<std::ptrdiff_t>(cut));
    uint64_t expected = 0;
    for (const Packet& p : packets)
      if (p.pos + p.size <= cut) expected = std::max(expected, p.pos + p.size);
    ASSERT_LT(expected, cut);
    const ValidatorRun r = runValidatorOnDrive(checkMP3FileAtBlock, drive, 3, kBlock, drive.size() / kBlockBytes + 1);
    EXPECT_TRUE(r.accepted) << cut;
    EXPECT_EQ(r.foundSize, expected) << cut;
  }
}

TEST(Mp3Validator, WhatOnlyLooksLikeAStreamIsRefused) {
  const auto one = mpeg1Layer3Frame(384, 3);
  // One good frame with random bytes behind it.
  EXPECT_FALSE(runValidator(checkMP3FileAtBlock, one, kBlock).accepted);
  // Two frames bare: not enough without a tag to say what follows.
  auto two = one;
  const auto second = mpeg1Layer3Frame(385, 4);
  two.insert(two.end(), second.begin(), second.end());
  EXPECT_FALSE(runValidator(checkMP3FileAtBlock, two, kBlock).accepted);
  auto three = two;
  const auto third = mpeg1Layer3Frame(96, 5);
  three.insert(three.end(), third.begin(), third.end());
  const ValidatorRun r = runValidator(checkMP3FileAtBlock, three, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, three.size());
  // Frames of another stream (here 44.1 kHz) do not continue it.
  auto mixed = two;
  auto other = mpeg1Layer3Frame(96, 6);
  other[2] &= 0xF3;
  mixed.insert(mixed.end(), other.begin(), other.end());
  EXPECT_FALSE(runValidator(checkMP3FileAtBlock, mixed, kBlock).accepted);
  // Free format (bit-rate index 0) is refused.
  auto free = three;
  free[2] &= 0x0F;
  EXPECT_FALSE(runValidator(checkMP3FileAtBlock, free, kBlock).accepted);

  // An ID3v2 tag with no frames after it, or with a size that is no
  // synchsafe number, or a version that does not exist.
  std::vector<uint8_t> tag = {'I', 'D', '3', 3, 0, 0, 0, 0, 0, 20};
  tag.resize(30, 0);
  EXPECT_FALSE(runValidator(checkMP3FileAtBlock, tag, kBlock).accepted);
  auto tagged = tag;
  tagged.insert(tagged.end(), two.begin(), two.end());
  const ValidatorRun t = runValidator(checkMP3FileAtBlock, tagged, kBlock);
  EXPECT_TRUE(t.accepted);
  EXPECT_EQ(t.foundSize, tagged.size());
  auto notSynchsafe = tagged;
  notSynchsafe[9] = 0x94;
  EXPECT_FALSE(runValidator(checkMP3FileAtBlock, notSynchsafe, kBlock).accepted);
  auto version9 = tagged;
  version9[3] = 9;
  EXPECT_FALSE(runValidator(checkMP3FileAtBlock, version9, kBlock).accepted);
  // A tag whose size runs past the drive.
  auto huge = tagged;
  huge[6] = 0x7F;
  EXPECT_FALSE(runValidator(checkMP3FileAtBlock, huge, kBlock).accepted);
}

TEST(Mp3Validator, ZeroPaddingAfterTheTagIsSkipped) {
  std::vector<uint8_t> b = {'I', 'D', '3', 4, 0, 0, 0, 0, 0, 10};
  b.resize(20, 0);
  b.resize(20 + 3000, 0);  // padding the tag's size does not count
  const size_t first = b.size();
  const auto frames = mp3FramesStartingAt({0, 2000}, 0);
  b.insert(b.end(), frames.begin(), frames.end());
  const ValidatorRun r = runValidator(checkMP3FileAtBlock, b, kBlock);
  EXPECT_TRUE(r.accepted);
  EXPECT_EQ(r.foundSize, b.size());
  EXPECT_EQ(b[first], 0xFF);
}

TEST(Mp3Validator, BlocksInsideACarvedStreamAreRefused) {
  // Frames laid so that one starts 4096 bytes in (the next block) and the
  // stream goes on for more frames there.
  const auto stream = mp3FramesStartingAt({4096, 6144}, 3);
  std::vector<uint8_t> drive = noise(64 * kBlockBytes, 9);
  std::copy(stream.begin(), stream.end(), drive.begin() + 3 * kBlockBytes);
  MemorySectorSource source(drive);
  SearchState state;
  const CarveGeometry geometry{0, kBlock, 64};
  auto sig = makeSig("Audio", "mp3", "4944", 0, 16);
  {
    // On its own, the stream's second block is a stream too ...
    SearchState fresh;
    Candidate alone(source, geometry, 4, fresh);
    EXPECT_TRUE(checkMP3FileAtBlock(alone, *sig));
  }
  Candidate head(source, geometry, 3, state);
  ASSERT_TRUE(checkMP3FileAtBlock(head, *sig));
  EXPECT_EQ(sig->foundSize, stream.size());
  EXPECT_EQ(sig->skipSize, 1u);
  // ... but not once the stream it belongs to was carved.
  Candidate inside(source, geometry, 4, state);
  EXPECT_FALSE(checkMP3FileAtBlock(inside, *sig));
  Candidate again(source, geometry, 3, state);
  EXPECT_FALSE(checkMP3FileAtBlock(again, *sig));
  EXPECT_EQ(state.mp3DoneArray.runCount(), 1u);
  EXPECT_TRUE(state.mp3DoneArray.contains(3 * kBlock + (stream.size() - 1) / 512));
  EXPECT_FALSE(state.mp3DoneArray.contains(3 * kBlock + (stream.size() - 1) / 512 + 1));
}

TEST(Mp3Validator, StopEndsTheWalk) {
  const auto stream = mp3FramesStartingAt({40000}, 3);
  std::vector<uint8_t> drive(stream);
  drive.resize(stream.size() + 8192, 0);
  MemorySectorSource source(drive);
  SearchState state;
  std::atomic<bool> stop{true};
  state.stop = &stop;
  Candidate c(source, CarveGeometry{0, 1, drive.size() / 512}, 0, state);
  auto sig = makeSig("Audio", "mp3", "4944", 0, 16);
  ASSERT_TRUE(checkMP3FileAtBlock(c, *sig));
  EXPECT_LT(sig->foundSize, stream.size());
}

// ---- SectorRanges ------------------------------------------------------------

TEST(SectorRanges, RunsMergeAndAnswerMembership) {
  SectorRanges r;
  EXPECT_FALSE(r.contains(0));
  r.add(10, 20);
  r.add(30, 40);
  EXPECT_EQ(r.runCount(), 2u);
  EXPECT_TRUE(r.contains(10));
  EXPECT_TRUE(r.contains(20));
  EXPECT_FALSE(r.contains(21));
  EXPECT_FALSE(r.contains(9));
  r.add(21, 29);  // touches both: one run
  EXPECT_EQ(r.runCount(), 1u);
  EXPECT_TRUE(r.contains(25));
  r.add(5, 50);
  EXPECT_EQ(r.runCount(), 1u);
  EXPECT_TRUE(r.contains(5) && r.contains(50) && !r.contains(51));
  r.add(100, 99);  // empty
  EXPECT_EQ(r.runCount(), 1u);
  r.add(UINT64_MAX - 1, UINT64_MAX);
  r.add(UINT64_MAX, UINT64_MAX);
  EXPECT_EQ(r.runCount(), 2u);
  EXPECT_TRUE(r.contains(UINT64_MAX));
}

}  // namespace
}  // namespace ambrel::test
