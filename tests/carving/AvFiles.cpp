#include "AvFiles.h"

#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>

#include "CarveImage.h"
#include "support/TempDir.h"

namespace ambrel::test {

namespace {

std::vector<uint8_t> cached(const std::string& key, const std::function<std::vector<uint8_t>()>& make) {
  static std::mutex m;
  static std::map<std::string, std::vector<uint8_t>> made;
  std::lock_guard<std::mutex> lock(m);
  auto it = made.find(key);
  if (it == made.end()) it = made.emplace(key, make()).first;
  return it->second;
}

}  // namespace

std::vector<uint8_t> ffmpegMade(const std::string& args, const std::string& extension) {
  return cached("ffmpeg " + args + " ." + extension,
                [&] { return madeBy("ffmpeg", "ffmpeg -nostdin -loglevel error -y " + args + " {out}", extension); });
}

std::vector<uint8_t> toolMade(const std::string& tool, const std::string& command, const std::string& extension) {
  return cached(command + " ." + extension, [&] { return madeBy(tool, command, extension); });
}

std::vector<Packet> ffprobePackets(const std::vector<uint8_t>& file, const std::string& extension) {
  if (!haveTool("ffprobe")) return {};
  TempDir dir;
  const auto path = dir / ("probe." + extension);
  writeFile(path, file);
  std::string out;
  if (runCommand("ffprobe -v error -show_entries packet=pos,size -of csv=p=0 '" + path.string() + "'", &out) != 0)
    return {};
  std::vector<Packet> packets;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    Packet p;
    if (std::sscanf(line.c_str(), "%lu,%lu", &p.size, &p.pos) == 2) packets.push_back(p);
  }
  return packets;
}

namespace {

// MPEG-1 layer III: bit-rate index -> kbit/s. At 48 kHz every frame length
// is a whole number of bytes and short gaps can be filled.
constexpr uint32_t kRates[] = {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320};

}  // namespace

std::vector<uint32_t> mpeg1Layer3FrameLengths() {
  std::vector<uint32_t> out;
  for (uint32_t i = 1; i < 15; ++i)
    for (uint32_t pad = 0; pad < 2; ++pad) out.push_back(144 * kRates[i] * 1000 / 48000 + pad);
  return out;
}

std::vector<uint8_t> mpeg1Layer3Frame(uint32_t length, uint32_t seed) {
  for (uint32_t i = 1; i < 15; ++i)
    for (uint32_t pad = 0; pad < 2; ++pad) {
      if (144 * kRates[i] * 1000 / 48000 + pad != length) continue;
      std::vector<uint8_t> f = noise(length, seed);
      // Sync, MPEG-1, layer III, no CRC; the rate; 48 kHz; padding; joint stereo.
      f[0] = 0xFF;
      f[1] = 0xFB;
      f[2] = static_cast<uint8_t>(i << 4 | 1 << 2 | pad << 1);
      f[3] = 0x64;
      return f;
    }
  throw std::invalid_argument("no MPEG-1 layer III frame is " + std::to_string(length) + " bytes long");
}

std::vector<uint8_t> mp3FramesStartingAt(const std::vector<uint64_t>& boundaries, int tail) {
  const std::vector<uint32_t> lengths = mpeg1Layer3FrameLengths();
  std::vector<uint8_t> out;
  uint32_t seed = 1;
  for (uint64_t target : boundaries) {
    if (target < out.size()) throw std::invalid_argument("boundaries must increase");
    // Frame lengths that sum to exactly the gap (any gap above 2207 bytes,
    // and most shorter ones).
    const uint64_t gap = target - out.size();
    std::vector<int> from(gap + 1, -1);
    from[0] = 0;
    for (uint64_t s = 1; s <= gap; ++s)
      for (uint32_t l : lengths)
        if (l <= s && from[s - l] >= 0) {
          from[s] = static_cast<int>(l);
          break;
        }
    if (from[gap] < 0) throw std::invalid_argument("no frames fill a gap of " + std::to_string(gap));
    std::vector<uint32_t> chosen;
    for (uint64_t s = gap; s > 0; s -= static_cast<uint64_t>(from[s])) chosen.push_back(static_cast<uint32_t>(from[s]));
    for (uint32_t l : chosen) {
      const auto f = mpeg1Layer3Frame(l, seed++);
      out.insert(out.end(), f.begin(), f.end());
    }
  }
  for (int i = 0; i < tail; ++i) {
    const auto f = mpeg1Layer3Frame(lengths[0], seed++);
    out.insert(out.end(), f.begin(), f.end());
  }
  return out;
}

std::vector<uint8_t> mpegProgramStream(uint32_t packs, uint32_t packSize, bool endInside, bool endAfter) {
  if (packSize < 12 + 6 + 4) throw std::invalid_argument("packs too small");
  std::vector<uint8_t> out;
  for (uint32_t k = 0; k < packs; ++k) {
    // MPEG-1 pack header: start code, SCR with marker bits, mux rate.
    const uint8_t pack[12] = {0x00, 0x00, 0x01, 0xBA, 0x21, 0x00, 0x01, 0x00, 0x01, 0x80, 0x1B, 0x91};
    out.insert(out.end(), pack, pack + 12);
    const bool last = k + 1 == packs;
    const uint32_t payload = packSize - 12 - 6 - (last && endInside ? 4 : 0);
    // A padding packet (stream 0xBE) fills the pack.
    out.insert(out.end(), {0x00, 0x00, 0x01, 0xBE, static_cast<uint8_t>(payload >> 8), static_cast<uint8_t>(payload)});
    out.insert(out.end(), payload, 0xFF);
    if (last && endInside) out.insert(out.end(), {0x00, 0x00, 0x01, 0xB9});
  }
  if (endAfter) out.insert(out.end(), {0x00, 0x00, 0x01, 0xB9});
  return out;
}

}  // namespace ambrel::test
