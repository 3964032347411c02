#include "carving/MpegAudio.h"

namespace ambrel {

uint32_t mp3BitCheck(uint32_t header, uint32_t startBit, uint32_t numBits) {
  if (numBits == 0 || numBits > 32 || startBit > 31 || numBits > startBit + 1) return 0;
  const uint32_t shift = startBit + 1 - numBits;
  const uint32_t mask = numBits == 32 ? UINT32_MAX : (uint32_t{1} << numBits) - 1;
  return (header >> shift) & mask;
}

uint32_t getMP3BitRateIndexValueForVersion(uint32_t version, uint32_t layer, uint32_t bitrateIndex) {
  static constexpr uint16_t kMpeg1[3][16] = {
      {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448, 0},  // layer I
      {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 0},     // layer II
      {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0},      // layer III
  };
  static constexpr uint16_t kMpeg2[3][16] = {
      {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256, 0},  // layer I
      {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},       // layers II and III
      {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},
  };
  if (layer < 1 || layer > 3 || bitrateIndex > 15) return 0;
  if (version == 1) return kMpeg1[layer - 1][bitrateIndex];
  if (version == 2 || version == 4) return kMpeg2[layer - 1][bitrateIndex];
  return 0;
}

uint32_t getMP3SampleRateFreqForVersion(uint32_t version, uint32_t samplingRate) {
  static constexpr uint32_t kBase[3] = {44100, 48000, 32000};
  if (samplingRate > 2 || !(version == 1 || version == 2 || version == 4)) return 0;
  return kBase[samplingRate] / version;
}

std::optional<Mp3FrameHeader> parseMp3FrameHeader(uint32_t h) {
  if ((h >> 21) != 0x7FF) return std::nullopt;
  Mp3FrameHeader f;
  switch (mp3BitCheck(h, 20, 2)) {
    case 3: f.version = 1; break;
    case 2: f.version = 2; break;
    case 0: f.version = 4; break;
    default: return std::nullopt;  // 01 is reserved
  }
  const uint32_t layerBits = mp3BitCheck(h, 18, 2);
  if (layerBits == 0) return std::nullopt;
  f.layer = 4 - layerBits;  // 11 = layer I, 10 = II, 01 = III
  const uint32_t rateIndex = mp3BitCheck(h, 15, 4);
  if (rateIndex == 0 || rateIndex == 15) return std::nullopt;  // free format, forbidden
  f.bitRate = getMP3BitRateIndexValueForVersion(f.version, f.layer, rateIndex);
  f.sampleRate = getMP3SampleRateFreqForVersion(f.version, mp3BitCheck(h, 11, 2));
  if (f.bitRate == 0 || f.sampleRate == 0) return std::nullopt;
  if (mp3BitCheck(h, 1, 2) == 2) return std::nullopt;  // reserved emphasis: no encoder writes it
  f.padding = mp3BitCheck(h, 9, 1) != 0;
  f.mono = mp3BitCheck(h, 7, 2) == 3;
  const uint32_t bits = f.bitRate * 1000;
  if (f.layer == 1) {
    f.length = (12 * bits / f.sampleRate + (f.padding ? 1 : 0)) * 4;  // slots of 4 bytes
  } else {
    // 1152 samples a frame, but 576 in layer III of MPEG-2 and 2.5.
    const uint32_t factor = (f.layer == 3 && f.version != 1) ? 72 : 144;
    f.length = factor * bits / f.sampleRate + (f.padding ? 1 : 0);
  }
  return f;
}

}  // namespace ambrel
