#pragma once
// Hand-built drives for the partition and search tests: small HFS+ volumes
// laid out sector by sector (so each damage is exact) and the raw table
// sectors of MBR/EBR chains, GPT and Apple partition maps.
#include <cstdint>
#include <string>
#include <vector>

namespace ambrel::test {

struct TinyVolumeLayout {
  std::string name = "Tiny";
  bool hfsx = false;
  uint32_t blockSize = 4096;
  uint32_t totalBlocks = 64;
  uint32_t createDate = 0xD0000000;
  uint32_t leafNodes = 1;           // catalog leaf chain length (nodes 1..leafNodes)
  bool catalogInOverflow = false;   // the catalog's second extent only in the extents file
  bool primaryHeaderZeroed = false;
  bool catalogHeaderBroken = false;
  bool leafChainLoops = false;      // the last leaf links back to the first
};

// The volume's bytes, totalBlocks x blockSize long, with the alternate
// header 1024 bytes before its end.
std::vector<uint8_t> buildTinyVolume(const TinyVolumeLayout& layout);
uint64_t tinyVolumeSectors(const TinyVolumeLayout& layout);

// A drive image in memory; sectors are 512 bytes.
struct Drive {
  explicit Drive(uint64_t sectors) : bytes(sectors * 512, 0) {}
  std::vector<uint8_t> bytes;
  uint8_t* sector(uint64_t s) { return bytes.data() + s * 512; }
  void place(uint64_t sector, const std::vector<uint8_t>& data);
  uint64_t sectors() const { return bytes.size() / 512; }
};

// One MBR/EBR slot (index 0..3) at tableSector.
void setMbrEntry(Drive& d, uint64_t tableSector, int index, uint8_t systemID, uint32_t relative, uint32_t count);
void setBootSignature(Drive& d, uint64_t tableSector);

struct GptPart {
  bool hfs = true;                  // else a basic-data type GUID
  uint64_t first = 0, last = 0;
  std::string name;                 // ASCII
};
// Protective MBR, header at 1, entries from `entryLBA`.
void writeGpt(Drive& d, const std::vector<GptPart>& parts, uint32_t entryCount = 128, uint32_t entrySize = 128,
              uint64_t entryLBA = 2);

struct ApmPart {
  std::string name, type;
  uint32_t start = 0, count = 0;
};
// Driver descriptor at 0, map entry for the map itself at 1, parts from 2.
void writeApm(Drive& d, const std::vector<ApmPart>& parts);

// A classic HFS wrapper MDB at sector start+2 embedding a volume at
// start + drAlBlSt + embedStartBlock x (drAlBlkSiz/512).
void writeWrapperMdb(Drive& d, uint64_t start, const std::string& name, uint16_t embedSig, uint16_t alBlSt,
                     uint32_t alBlkSiz, uint16_t embedStartBlock, uint16_t embedBlocks);

}  // namespace ambrel::test
