// WAV, AIFF, MIDI and MP3: how far each file reaches, from its own structure.
// Positions are byte offsets from the candidate's first byte.
#include <algorithm>
#include <cstring>

#include "base/Endian.h"
#include "carving/MpegAudio.h"
#include "carving/Validators.h"
#include "output/Preview.h"

namespace ambrel {

namespace {

constexpr uint32_t kFourCC(const char (&s)[5]) {
  return uint32_t(uint8_t(s[0])) << 24 | uint32_t(uint8_t(s[1])) << 16 | uint32_t(uint8_t(s[2])) << 8 |
         uint32_t(uint8_t(s[3]));
}

// Chunks a RIFF form may hold before we stop looking for "fmt " and "data";
// real files hold a handful.
constexpr uint32_t kMaxRiffChunks = 1024;
// ID3v2 tags read one after another at a stream's start (some taggers
// prepend a new tag and leave the old one).
constexpr int kMaxId3Tags = 4;
// Zero padding after a tag that is skipped to reach the first frame.
constexpr uint64_t kMaxTagPadding = 1 << 20;
// Bytes after a tag (and its padding) in which the first frame is looked for.
constexpr uint64_t kMaxFrameSearch = 8192;
// No single stream is taken to be longer: about 15 hours at 320 kbit/s.
constexpr uint64_t kMaxMp3StreamBytes = 2ull << 30;
// Consecutive frames of one stream that make a stream: fewer after a tag or
// inside a WAVE wrapper, which already say what follows.
constexpr uint32_t kFramesAfterTag = 2;
constexpr uint32_t kFramesBare = 3;

constexpr uint16_t kWaveFormatMpegLayer3 = 0x55;

// A RIFF size that stands for "not known": what a writer leaves when it
// cannot go back to fill it in.
bool placeholderSize(uint32_t size) { return size == 0 || size == 0xFFFFFFFF; }

bool printableFourCC(const uint8_t id[4]) {
  for (int i = 0; i < 4; ++i)
    if (id[i] < 0x20 || id[i] > 0x7E) return false;
  return true;
}

// The chunks of a RIFF/WAVE form from position 12.
struct WaveChunks {
  bool fmtSeen = false;
  uint16_t formatTag = 0;
  bool dataSeen = false;
  uint64_t dataStart = 0;    // first byte of the data chunk's payload
  uint64_t dataEnd = 0;      // its end, when dataComplete
  bool dataComplete = false; // the data chunk has a real size and lies on the drive
  uint64_t end = 0;          // end of the last whole chunk walked (0: none)
};

WaveChunks walkWaveChunks(Candidate& c) {
  WaveChunks w;
  uint64_t p = 12;
  for (uint32_t n = 0; n < kMaxRiffChunks && !c.stopped(); ++n) {
    uint8_t head[8];
    if (!c.bytes(p, 8, head) || !printableFourCC(head)) break;
    const uint32_t size = loadLE32(head + 4);
    const bool isData = std::memcmp(head, "data", 4) == 0;
    if (isData) {
      w.dataSeen = true;
      w.dataStart = p + 8;
      if (placeholderSize(size) || !c.has(p + 8, size)) break;  // the stream's own frames must say where it ends
      w.dataComplete = true;
      w.dataEnd = p + 8 + size;
    }
    if (!c.has(p + 8, size)) break;
    if (std::memcmp(head, "fmt ", 4) == 0 && size >= 2) {
      w.fmtSeen = true;
      w.formatTag = c.le16(p + 8).value_or(0);
    }
    w.end = p + 8 + size;
    p = w.end + (size & 1);  // chunks are padded to even lengths
  }
  return w;
}

// The length of a RIFF file: its RIFF size when it is a real one that fits on
// the drive; otherwise the end of its chunks when they hold a whole data
// chunk; 0 (not known) when neither says.
uint64_t riffLength(Candidate& c, uint32_t riffSize) {
  if (!placeholderSize(riffSize) && c.has(0, uint64_t{riffSize} + 8)) return uint64_t{riffSize} + 8;
  const WaveChunks w = walkWaveChunks(c);
  return w.dataComplete ? w.end : 0;
}

std::optional<Mp3FrameHeader> frameAt(Candidate& c, uint64_t p) {
  const std::optional<uint32_t> h = c.be32(p);
  return h ? parseMp3FrameHeader(*h) : std::nullopt;
}

// Whether `count` consecutive frames of one stream start at p, each ending by
// limit: the first frame's header in *first, where the last ends in *end.
bool framesAt(Candidate& c, uint64_t p, uint64_t limit, uint32_t count, Mp3FrameHeader* first, uint64_t* end) {
  const auto f = frameAt(c, p);
  if (!f || p > limit || f->length > limit - p) return false;
  uint64_t q = p + f->length;
  for (uint32_t i = 1; i < count; ++i) {
    const auto g = frameAt(c, q);
    if (!g || !g->sameStreamAs(*f) || g->length > limit - q) return false;
    q += g->length;
  }
  *first = *f;
  *end = q;
  return true;
}

// The end of the first run of `count` frames that starts in
// [from, from + kMaxFrameSearch); nullopt when there is none.
std::optional<uint64_t> findFrames(Candidate& c, uint64_t from, uint64_t limit, uint32_t count,
                                   Mp3FrameHeader* first) {
  const uint64_t until = std::min(limit, from > UINT64_MAX - kMaxFrameSearch ? UINT64_MAX : from + kMaxFrameSearch);
  uint64_t end = 0;
  for (uint64_t p = from; p < until && !c.stopped(); ++p) {
    const std::optional<uint8_t> b = c.u8(p);
    if (!b) break;
    if (*b == 0xFF && framesAt(c, p, limit, count, first, &end)) return end;
  }
  return std::nullopt;
}

// Walks the frames of the stream whose first frame is at p; answers the end
// of the last frame that lies wholly before limit.
uint64_t walkFrames(Candidate& c, uint64_t p, const Mp3FrameHeader& first, uint64_t limit) {
  // Every frame is at least 48 bytes long, so the walk ends by limit.
  while (!c.stopped()) {
    const auto f = frameAt(c, p);
    if (!f || !f->sameStreamAs(first) || f->length > limit - p) break;
    p += f->length;
  }
  return p;
}

// Where the ID3v2 tags at the start end; nullopt when the bytes at 0 are
// "ID3" but no tag; 0 when there is no tag.
std::optional<uint64_t> skipId3v2Tags(Candidate& c) {
  uint64_t p = 0;
  for (int t = 0; t < kMaxId3Tags; ++t) {
    uint8_t h[10];
    if (!c.bytes(p, 10, h) || std::memcmp(h, "ID3", 3) != 0) break;
    const bool sane = h[3] >= 2 && h[3] <= 4 && h[4] != 0xFF && ((h[6] | h[7] | h[8] | h[9]) & 0x80) == 0;
    if (!sane) {
      if (t == 0) return std::nullopt;
      break;
    }
    uint64_t size = 10 + uint64_t{mp3BitShredder(loadBE32(h + 6))};
    if (h[3] == 4 && (h[5] & 0x10)) size += 10;  // a footer follows the tag
    p += size;
  }
  return p;
}

}  // namespace

bool checkMP3FileAtBlock(Candidate& c, Sig& sig) {
  if (c.state().mp3DoneArray.contains(c.firstSector())) return false;
  const uint64_t driveEnd = c.bytesToDriveEnd();
  uint8_t head[12] = {};
  c.bytes(0, sizeof head, head);

  Mp3FrameHeader first;
  uint64_t verified = 0;  // the end of the frames that made the stream a stream
  uint64_t limit = std::min(driveEnd, kMaxMp3StreamBytes);
  uint64_t wrapperLength = 0;  // a RIFF wrapper's own length, when it gives one
  bool wrapped = false;
  if (std::memcmp(head, "RIFF", 4) == 0) {
    if (std::memcmp(head + 8, "WAVE", 4) != 0) return false;
    const WaveChunks w = walkWaveChunks(c);
    if (!w.fmtSeen || w.formatTag != kWaveFormatMpegLayer3 || !w.dataSeen) return false;
    if (w.dataComplete) limit = std::min(limit, w.dataEnd);
    const auto at = findFrames(c, w.dataStart, limit, kFramesAfterTag, &first);
    if (!at) return false;
    verified = *at;
    const uint32_t riffSize = loadLE32(head + 4);
    if (!placeholderSize(riffSize) && c.has(0, uint64_t{riffSize} + 8)) wrapperLength = uint64_t{riffSize} + 8;
    else if (w.dataComplete) wrapperLength = w.end;
    wrapped = true;
  } else {
    const std::optional<uint64_t> tagEnd = skipId3v2Tags(c);
    if (!tagEnd) return false;
    if (*tagEnd > 0) {
      if (*tagEnd >= limit) return false;
      const uint64_t padded = c.nextNonZero(*tagEnd, std::min(limit, *tagEnd + kMaxTagPadding));
      const auto at = findFrames(c, padded, limit, kFramesAfterTag, &first);
      if (!at) return false;
      verified = *at;
    } else if (!framesAt(c, 0, limit, kFramesBare, &first, &verified)) {
      return false;
    }
  }

  uint64_t end = walkFrames(c, verified, first, limit);
  if (wrapped) {
    if (wrapperLength != 0) end = wrapperLength;
  } else {
    uint8_t tag[3];
    if (c.has(end, 128) && c.bytes(end, 3, tag) && std::memcmp(tag, "TAG", 3) == 0) end += 128;  // ID3v1
  }
  // A later block inside this stream is not a stream of its own.
  c.state().mp3DoneArray.add(c.firstSector(), c.firstSector() + (end - 1) / 512);
  setFoundSizeWithSkip(c, sig, end);
  return true;
}

bool checkWAVFileAtBlock(Candidate& c, Sig& sig) {
  uint8_t head[22] = {};
  c.bytes(0, sizeof head, head);
  if (std::memcmp(head + 8, "WAVE", 4) != 0) return false;
  if (loadLE16(head + 20) == kWaveFormatMpegLayer3) return checkMP3FileAtBlock(c, sig);
  sig.foundSize = riffLength(c, loadLE32(head + 4));
  sig.skipFileSize = false;
  return true;
}

bool checkAIFF_FileAtBlock(Candidate& c, Sig& sig) {
  if (c.be32(0).value_or(0) != kFourCC("FORM")) return false;
  // The form type is not looked at: AIFF and AIFC alike.
  sig.foundSize = uint64_t{c.be32(4).value_or(0)} + 8;
  sig.skipFileSize = false;
  return true;
}

bool checkMIDIFileAtBlock(Candidate& c, Sig& sig) {
  uint64_t p = 0;
  while (!c.stopped()) {
    const std::optional<uint32_t> type = c.be32(p), length = c.be32(p + 4);
    if (!type || !length || (*type != kFourCC("MTrk") && *type != kFourCC("MThd"))) break;
    // A chunk that would end past the drive's end is not this file's.
    if (!c.has(p + 8, *length)) break;
    p += uint64_t{*length} + 8;
  }
  // Two bytes past the last chunk: a margin kept on purpose.
  setFoundSizeWithSkip(c, sig, p + 2);
  return true;
}

}  // namespace ambrel
