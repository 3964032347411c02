#pragma once
// Audio and video files for the carving tests: made by ffmpeg, sox and lame
// where they are installed (each command run once per test process), frame
// positions as ffprobe reads them, and streams laid out by hand where a rule
// needs bytes no tool writes.
#include <cstdint>
#include <string>
#include <vector>

namespace ambrel::test {

// `ffmpeg -loglevel error -y ARGS {out}` with the output named by extension;
// empty when ffmpeg is missing or fails.
std::vector<uint8_t> ffmpegMade(const std::string& args, const std::string& extension);
// A shell command run with {out} replaced by the output path (sox, lame).
std::vector<uint8_t> toolMade(const std::string& tool, const std::string& command, const std::string& extension);

// The audio packets ffprobe finds in a file: position and size of each
// frame (a leading Xing/Info frame is not one of them). Empty without ffprobe.
struct Packet {
  uint64_t pos = 0;
  uint64_t size = 0;
};
std::vector<Packet> ffprobePackets(const std::vector<uint8_t>& file, const std::string& extension);

// One MPEG-1 layer III frame of 48 kHz stereo audio, `length` bytes long
// (a length the bit-rate table and the padding bit can give), its payload
// filled from `seed`.
std::vector<uint8_t> mpeg1Layer3Frame(uint32_t length, uint32_t seed);
// Frame lengths that the frames above can have.
std::vector<uint32_t> mpeg1Layer3FrameLengths();
// Frames laid end to end so that one starts at each of `boundaries` (byte
// offsets, increasing), followed by `tail` more frames of the shortest length.
std::vector<uint8_t> mp3FramesStartingAt(const std::vector<uint64_t>& boundaries, int tail);

// An MPEG-1 program stream of `packs` packs of `packSize` bytes each (a pack
// header and one padding packet), with the program end code in the last 4
// bytes of the last pack when endInside, or after it when endAfter.
std::vector<uint8_t> mpegProgramStream(uint32_t packs, uint32_t packSize, bool endInside, bool endAfter);

}  // namespace ambrel::test
