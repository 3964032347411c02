// Catalog leaf nodes found by reading sectors rather than by following the
// tree: anywhere on the volume, or inside a catalog file whose header node is
// gone. Node and block sizes are learnt from what is found when no header
// states them.
#include <algorithm>
#include <chrono>
#include <cstring>

#include "base/Endian.h"
#include "hfs/CatalogRecords.h"
#include "hfs/Geometry.h"
#include "hfs/Volume.h"

namespace ambrel {

namespace {

constexpr uint32_t kSearchChunkSectors = 63;
// Reads are batched (32 chunks, about 1 MiB) so the search keeps up with the
// disk; the search itself still goes chunk by chunk.
constexpr uint64_t kBatchSectors = uint64_t{kSearchChunkSectors} * 32;
// Node size assumed when none is known and no node shows one: 8 KiB.
constexpr int32_t kAssumedCatNodeSectors = 16;

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

uint8_t sizeBit(int32_t sectors) {
  uint8_t bit = 0;
  while ((int32_t{1} << bit) < sectors) ++bit;
  return bit;
}

}  // namespace

void Volume::scanLeafEnds(uint64_t from, uint64_t to, int32_t knownNodeSectors, std::vector<LeafEnd>& ends,
                          const std::function<void()>& perChunk) {
  if (to <= from) return;
  // No larger than the range: a small volume need not pay for a full batch.
  std::vector<uint8_t> batch(std::min<uint64_t>(kBatchSectors, to - from) * kSectorSize);
  uint8_t first[kSectorSize];
  for (uint64_t batchStart = from; batchStart < to && !stopTreeThread; batchStart += kBatchSectors) {
    const uint64_t batchCount = std::min<uint64_t>(kBatchSectors, to - batchStart);
    // A bad sector reads as zeros and costs only itself.
    readSectorsSalvaging(batchStart, batchCount, batch.data());
    for (uint64_t pos = batchStart; pos < batchStart + batchCount && !stopTreeThread; pos += kSearchChunkSectors) {
      if (perChunk) perChunk();
      const uint64_t count = std::min<uint64_t>(kSearchChunkSectors, batchStart + batchCount - pos);
      for (uint64_t s = 0; s < count; ++s) {
        const uint64_t here = pos + s;
        const uint8_t* sector = &batch[(here - batchStart) * kSectorSize];
        if (!looksLikeNodeEnd(sector)) continue;
        uint8_t sizes = 0;
        for (int k = 0; (int32_t{1} << k) <= kMaxNodeSectors; ++k) {
          const uint64_t nodeSectors = uint64_t{1} << k;
          if (knownNodeSectors > 0 && nodeSectors != static_cast<uint64_t>(knownNodeSectors)) continue;
          if (here + 1 < nodeSectors + from) break;
          const uint64_t nodeStart = here - nodeSectors + 1;
          const uint8_t* head = nullptr;
          if (nodeStart >= batchStart) {
            head = &batch[(nodeStart - batchStart) * kSectorSize];
          } else {
            std::fill(std::begin(first), std::end(first), 0);
            if (readSector(nodeStart, 1, first)) head = first;
          }
          if (head && plausibleLeafNode(head, sector, static_cast<uint32_t>(nodeSectors * kSectorSize)))
            sizes |= static_cast<uint8_t>(1u << k);
        }
        if (sizes) ends.push_back({here, sizes});
      }
    }
  }
}

void Volume::searchCatFrags() {
  CatNodeArray.clear();
  const std::string status = driveText("Searching Catalog Fragments for {} on drive {} {} {}");
  const uint64_t chunks = sizeInSect / kSearchChunkSectors;
  report({{progress::kProgressStatus, status},
          {progress::kProgressType, 1},
          {progress::kBarDoubleValue, uint64_t{0}},
          {progress::kBarMaxValue, chunks},
          {progress::kBarMinValue, uint64_t{0}}});
  report({{progress::kTimeRemaining, ""}});
  const auto start = std::chrono::steady_clock::now();
  uint64_t done = 0;
  auto perChunk = [&] {
    if (done > 0 && done % 100 == 0)
      report({{progress::kProgressStatus, status},
              {progress::kBarIncrement, uint64_t{100}},
              {progress::kTimeRemaining, timeRemainingText(secondsSince(start), done, chunks)}});
    ++done;
  };
  // Node ends met, each with the node sizes at which a sound leaf ends there;
  // a node size the catalog header gave is the only one tried. The volume's
  // own sectors: a partition starts where its table says.
  std::vector<LeafEnd> ends;
  scanLeafEnds(startSector, startSector + sizeInSect, catNodeSize, ends, perChunk);
  if (catNodeSize <= 0) {
    // The node size most ends agree with; those inside the catalog file, when
    // its place is known, speak for it.
    std::vector<uint8_t> all, inCatalog;
    for (const LeafEnd& e : ends) {
      all.push_back(e.sizes);
      if (sectorIsInCatalogFile(e.sector)) inCatalog.push_back(e.sizes);
    }
    const int32_t voted = nodeSizeByVote(inCatalog.empty() ? all : inCatalog);
    catNodeSize = voted > 0 ? voted : kAssumedCatNodeSectors;
  }
  const uint8_t bit = sizeBit(catNodeSize);
  for (const LeafEnd& e : ends)
    if (e.sizes & (1u << bit)) CatNodeArray.push_back(e.sector - static_cast<uint64_t>(catNodeSize) + 1);
}

bool Volume::inferCatalogNodeSize() {
  if (blockSize <= 0) return false;
  const uint64_t bs = static_cast<uint64_t>(blockSize);
  std::vector<LeafEnd> ends;
  for (const Extent& e : catalogExt) {
    const uint64_t first = HPlusVolStart + uint64_t{e.startBlock} * bs;
    // Extents come from disk: nothing past the volume is read.
    const uint64_t volumeEnd = startSector + sizeInSect;
    if (first >= volumeEnd) continue;
    scanLeafEnds(first, std::min(first + uint64_t{e.blockCount} * bs, volumeEnd), 0, ends, nullptr);
  }
  std::vector<uint8_t> masks;
  for (const LeafEnd& e : ends) masks.push_back(e.sizes);
  catNodeSize = nodeSizeByVote(masks);
  return catNodeSize > 0;
}

void Volume::inferBlockSizeFromRecords() {
  if (catNodeSize <= 0) return;
  // Enough forks to outvote any noise; memory stays bounded on huge volumes.
  constexpr size_t kMaxSamples = 200000;
  std::vector<ForkSample> forks;
  std::vector<uint8_t> node(static_cast<size_t>(catNodeSize) * kSectorSize);
  auto sample = [&](const HFSPlusForkData_& fork) {
    ForkSample f;
    f.logicalSize = fork.logicalSize;
    f.totalBlocks = fork.totalBlocks;
    size_t used = 0;
    for (const auto& e : fork.extents.extDesc) {
      if (e.startBlock == 0) break;
      ++used;
      f.extentBlocks += e.blockCount;
      f.lastBlock = std::max<uint64_t>(f.lastBlock, uint64_t{e.startBlock} + e.blockCount);
    }
    f.allEightUsed = used == 8;
    forks.push_back(f);
  };
  for (uint64_t sector : CatNodeArray) {
    if (stopTreeThread || forks.size() >= kMaxSamples) break;
    if (!readNode(sector, catNodeSize, node.data())) continue;
    BTNodeDescriptor_ d;
    std::memcpy(&d, node.data(), sizeof d);
    convertBTNodeDesc(&d);
    for (uint32_t r = 0; r < d.numRecords; ++r) {
      const CatalogRecordView rec = catalogRecordAt(node, d.numRecords, r, true);
      if (rec.check == RecordCheck::AbandonNode) break;
      HFSPlusCatalogFile_ file;
      if (!rec.ok() || rec.recordType != kHFSPlusFileRecord || !rec.file(file)) continue;
      sample(file.dataFork);
      sample(file.resourceFork);
    }
  }
  const BlockSizeGuess guess = blockSizeFromForks(forks, sizeInSect);
  if (guess.sectors > 0) blockSize = guess.sectors;
  blockSizeSource = guess.unique ? BlockSizeSource::FileRecords : BlockSizeSource::Assumed;
}

}  // namespace ambrel
