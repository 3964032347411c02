#pragma once
// MPEG audio frame headers (MPEG-1, MPEG-2 and MPEG-2.5, layers I to III):
// the fields, the standard's bit-rate and sampling-rate tables, and a frame's
// length. What the MP3 validator walks a stream with.
#include <cstdint>
#include <optional>

namespace ambrel {

// The numBits-bit field of a 32-bit header whose most significant bit is bit
// startBit (bit 0 the least significant): version (20, 2), layer (18, 2),
// protection (16, 1), bit-rate index (15, 4), sampling-rate index (11, 2),
// padding (9, 1).
uint32_t mp3BitCheck(uint32_t header, uint32_t startBit, uint32_t numBits);

// Bit rate in kbit/s; version 1 = MPEG-1, 2 = MPEG-2, 4 = MPEG-2.5 (the last
// two share one table), layer 1 to 3. 0 for the free format (index 0), the
// forbidden index 15 and any other version or layer.
uint32_t getMP3BitRateIndexValueForVersion(uint32_t version, uint32_t layer, uint32_t bitrateIndex);

// 44100, 48000 or 32000 for the indices 0, 1, 2, divided by the version
// (1, 2 or 4); 0 for index 3 or another version.
uint32_t getMP3SampleRateFreqForVersion(uint32_t version, uint32_t samplingRate);

struct Mp3FrameHeader {
  uint32_t version = 0;     // 1, 2 or 4
  uint32_t layer = 0;       // 1, 2 or 3
  uint32_t bitRate = 0;     // kbit/s
  uint32_t sampleRate = 0;  // Hz
  bool padding = false;
  bool mono = false;
  uint32_t length = 0;      // bytes of the whole frame, header included

  // Frames of one stream share version, layer, sampling rate and channels;
  // the bit rate may change from frame to frame (VBR).
  bool sameStreamAs(const Mp3FrameHeader& other) const {
    return version == other.version && layer == other.layer && sampleRate == other.sampleRate && mono == other.mono;
  }
};

// The frame a header starts; nullopt without the 11-bit sync, with a
// reserved version, layer, sampling rate or emphasis, or in the free format.
std::optional<Mp3FrameHeader> parseMp3FrameHeader(uint32_t header);

}  // namespace ambrel
