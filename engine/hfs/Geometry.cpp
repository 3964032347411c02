#include "hfs/Geometry.h"

#include <cstring>

#include "base/Endian.h"
#include "media/Records.h"

namespace ambrel {

namespace {

constexpr uint32_t kSector = 512;
constexpr uint16_t kMaxLeafRecords = 254;
// The shortest catalog record: an empty-named key and a thread's fields.
constexpr uint32_t kMinRecordBytes = 8;
constexpr int kBlockSizeSteps = 8;  // 512 B .. 64 KiB

}  // namespace

bool plausibleLeafNode(const uint8_t* head, const uint8_t* tail, uint32_t nodeBytes) {
  if (nodeBytes < kSector) return false;
  BTNodeDescriptor_ d;
  std::memcpy(&d, head, sizeof d);
  convertBTNodeDesc(&d);
  if (d.height != 1 || d.kind != kBTLeafNode || d.numRecords == 0 || d.numRecords > kMaxLeafRecords ||
      d.reserved != 0)
    return false;
  const uint32_t n = d.numRecords;
  const uint32_t table = 2 * (n + 1);  // n offsets and the free-space offset, all in the last sector
  uint32_t previous = 0;
  for (uint32_t i = 0; i <= n; ++i) {
    const uint32_t off = loadBE16(tail + kSector - 2 - 2 * i);
    if (i == 0 ? off != 14 : off < previous + kMinRecordBytes) return false;
    previous = off;
  }
  return previous <= nodeBytes - table;
}

bool looksLikeNodeEnd(const uint8_t* sector) {
  return loadBE16(sector + kSector - 2) == 14 && loadBE16(sector + kSector - 4) > 14;
}

int32_t nodeSizeByVote(const std::vector<uint8_t>& masks) {
  uint64_t votes[8] = {};
  for (uint8_t m : masks)
    for (int k = 0; k < 8; ++k)
      if (m & (1u << k)) ++votes[k];
  int best = -1;
  for (int k = 0; k < 7; ++k)  // 2^6 = 64 sectors is the largest node
    if (votes[k] > 0 && (best < 0 || votes[k] > votes[best])) best = k;
  return best < 0 ? 0 : int32_t{1} << best;
}

BlockSizeGuess blockSizeFromForks(const std::vector<ForkSample>& forks, uint64_t volumeSectors) {
  uint64_t agree[kBlockSizeSteps] = {};
  for (const ForkSample& f : forks) {
    if (f.logicalSize == 0 || f.totalBlocks == 0) continue;
    for (int k = 0; k < kBlockSizeSteps; ++k) {
      const uint64_t sectors = uint64_t{1} << k;
      const uint64_t bytes = sectors * kSector;
      if ((f.logicalSize + bytes - 1) / bytes != f.totalBlocks) continue;
      if (f.allEightUsed ? f.extentBlocks > f.totalBlocks : f.extentBlocks != f.totalBlocks) continue;
      if (f.lastBlock > volumeSectors / sectors) continue;
      ++agree[k];
    }
  }
  BlockSizeGuess g;
  int best = -1;
  for (int k = 0; k < kBlockSizeSteps; ++k)
    if (agree[k] > 0 && (best < 0 || agree[k] > agree[best])) best = k;
  if (best < 0) return g;
  int ties = 0;
  for (int k = 0; k < kBlockSizeSteps; ++k) ties += agree[k] == agree[best];
  g.unique = ties == 1;
  // Among equals, 4 KiB is the common choice.
  if (!g.unique && agree[3] == agree[best]) best = 3;
  g.sectors = int32_t{1} << best;
  return g;
}

}  // namespace ambrel
