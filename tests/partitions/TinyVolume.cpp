#include "TinyVolume.h"

#include <cstring>
#include <stdexcept>

#include "base/Endian.h"

namespace ambrel::test {

namespace {

constexpr uint32_t kNodeSize = 4096;

// Node descriptor and record offsets of one node.
void writeNode(uint8_t* node, uint32_t fLink, uint32_t bLink, int8_t kind, uint8_t height,
               const std::vector<uint16_t>& offsets, uint16_t freeStart) {
  storeBE32(node, fLink);
  storeBE32(node + 4, bLink);
  node[8] = static_cast<uint8_t>(kind);
  node[9] = height;
  storeBE16(node + 10, static_cast<uint16_t>(offsets.size()));
  for (size_t i = 0; i < offsets.size(); ++i) storeBE16(node + kNodeSize - 2 - 2 * i, offsets[i]);
  storeBE16(node + kNodeSize - 2 - 2 * offsets.size(), freeStart);
}

void writeHeaderNode(uint8_t* node, uint32_t root, uint32_t leafRecords, uint32_t firstLeaf, uint32_t lastLeaf,
                     uint32_t totalNodes, uint16_t maxKeyLength) {
  writeNode(node, 0, 0, 1, 0, {14, 120, 248}, 504);
  uint8_t* h = node + 14;
  storeBE16(h, root ? 1 : 0);
  storeBE32(h + 2, root);
  storeBE32(h + 6, leafRecords);
  storeBE32(h + 10, firstLeaf);
  storeBE32(h + 14, lastLeaf);
  storeBE16(h + 18, kNodeSize);
  storeBE16(h + 20, maxKeyLength);
  storeBE32(h + 22, totalNodes);
  storeBE32(h + 26, 0);
  storeBE32(h + 32, kNodeSize);
}

std::vector<uint16_t> utf16(const std::string& ascii) { return {ascii.begin(), ascii.end()}; }

void writeHeader(uint8_t* at, const TinyVolumeLayout& s, uint32_t catalogStart, uint32_t catalogFirstCount,
                 uint32_t catalogTotal, uint32_t extentsBlocks) {
  storeBE16(at, s.hfsx ? 0x4858 : 0x482B);
  storeBE16(at + 2, s.hfsx ? 5 : 4);
  storeBE32(at + 4, 0x100);
  storeBE32(at + 16, s.createDate);
  storeBE32(at + 20, s.createDate + 100);
  storeBE32(at + 32, 1);   // fileCount
  storeBE32(at + 36, 1);   // folderCount
  storeBE32(at + 40, s.blockSize);
  storeBE32(at + 44, s.totalBlocks);
  storeBE32(at + 48, 1);
  storeBE32(at + 56, 65536);
  storeBE32(at + 60, 65536);  // dataClumpSize
  storeBE32(at + 64, 16);
  const uint32_t sectorsPerBlock = s.blockSize / 512;
  auto fork = [&](size_t off, uint32_t start, uint32_t count, uint32_t total) {
    storeBE64(at + off, uint64_t{total} * s.blockSize);
    storeBE32(at + off + 8, s.blockSize);
    storeBE32(at + off + 12, total);
    storeBE32(at + off + 16, start);
    storeBE32(at + off + 20, count);
  };
  (void)sectorsPerBlock;
  fork(192, 1, extentsBlocks, extentsBlocks);
  fork(272, catalogStart, catalogFirstCount, catalogTotal);
}

}  // namespace

uint64_t tinyVolumeSectors(const TinyVolumeLayout& layout) { return uint64_t{layout.totalBlocks} * layout.blockSize / 512; }

std::vector<uint8_t> buildTinyVolume(const TinyVolumeLayout& s) {
  if (s.blockSize != kNodeSize) throw std::invalid_argument("tiny volumes use 4096-byte blocks");
  std::vector<uint8_t> v(uint64_t{s.totalBlocks} * s.blockSize, 0);
  auto block = [&](uint32_t b) { return v.data() + uint64_t{b} * s.blockSize; };
  const uint32_t catalogNodes = 1 + s.leafNodes;
  const uint32_t extentsBlocks = s.catalogInOverflow ? 2 : 1;
  const uint32_t catalogStart = 1 + extentsBlocks;
  // With the overflow case the catalog's second half lies after a gap.
  const uint32_t firstCount = s.catalogInOverflow ? 1 : catalogNodes;
  const uint32_t secondStart = catalogStart + firstCount + 3;
  if (secondStart + catalogNodes + 2 > s.totalBlocks) throw std::invalid_argument("volume too small");
  auto catalogNode = [&](uint32_t n) {
    if (!s.catalogInOverflow || n < firstCount) return block(catalogStart + n);
    return block(secondStart + (n - firstCount));
  };

  // Extents B-tree: header node, plus one leaf holding the catalog's second extent.
  if (s.catalogInOverflow) {
    writeHeaderNode(block(1), 1, 1, 1, 1, 2, 10);
    uint8_t* leaf = block(2);
    writeNode(leaf, 0, 0, -1, 1, {14}, 14 + 12 + 64);
    uint8_t* rec = leaf + 14;
    storeBE16(rec, 10);
    rec[2] = 0x00;
    storeBE32(rec + 4, 4);
    storeBE32(rec + 8, firstCount);
    storeBE32(rec + 12, secondStart);
    storeBE32(rec + 16, catalogNodes - firstCount);
  } else {
    writeHeaderNode(block(1), 0, 0, 0, 0, 1, 10);
  }

  // Catalog: header node 0, leaves 1..leafNodes; the first holds the root folder.
  uint32_t leafRecords = 0;
  for (uint32_t n = 1; n <= s.leafNodes; ++n) {
    uint8_t* node = catalogNode(n);
    uint32_t next = n < s.leafNodes ? n + 1 : (s.leafChainLoops ? 1 : 0);
    if (n == 1) {
      auto name = utf16(s.name);
      const uint16_t keyLength = static_cast<uint16_t>(6 + 2 * name.size());
      uint8_t* key = node + 14;
      storeBE16(key, keyLength);
      storeBE32(key + 2, 1);
      storeBE16(key + 6, static_cast<uint16_t>(name.size()));
      for (size_t i = 0; i < name.size(); ++i) storeBE16(key + 8 + 2 * i, name[i]);
      uint8_t* folder = key + 2 + keyLength;
      storeBE16(folder, 1);
      storeBE32(folder + 8, 2);
      storeBE32(folder + 12, s.createDate);
      const uint16_t second = static_cast<uint16_t>(14 + 2 + keyLength + 88);
      // A thread record of the root as the second record.
      uint8_t* tkey = node + second;
      storeBE16(tkey, 6);
      storeBE32(tkey + 2, 2);
      uint8_t* thread = tkey + 8;
      storeBE16(thread, 3);
      storeBE32(thread + 4, 1);
      storeBE16(thread + 8, static_cast<uint16_t>(name.size()));
      for (size_t i = 0; i < name.size(); ++i) storeBE16(thread + 10 + 2 * i, name[i]);
      writeNode(node, next, 0, -1, 1, {14, second},
                static_cast<uint16_t>(second + 8 + 10 + 2 * name.size()));
      leafRecords += 2;
    } else {
      // Filler leaves: one folder-thread record each.
      uint8_t* key = node + 14;
      storeBE16(key, 6);
      storeBE32(key + 2, 100 + n);
      storeBE16(key + 8, 3);
      writeNode(node, next, n - 1, -1, 1, {14}, 14 + 8 + 10);
      leafRecords += 1;
    }
  }
  writeHeaderNode(catalogNode(0), 1, leafRecords, 1, s.leafNodes, catalogNodes, 516);
  if (s.catalogHeaderBroken) std::memset(catalogNode(0), 0xA5, 64);

  const uint32_t catalogTotal = catalogNodes;
  uint8_t* primary = v.data() + 1024;
  writeHeader(primary, s, catalogStart, firstCount, catalogTotal, extentsBlocks);
  std::memcpy(v.data() + v.size() - 1024, primary, 512);
  if (s.primaryHeaderZeroed) std::memset(primary, 0, 512);
  return v;
}

void Drive::place(uint64_t s, const std::vector<uint8_t>& data) {
  if (s * 512 + data.size() > bytes.size()) throw std::out_of_range("data past the drive's end");
  std::memcpy(bytes.data() + s * 512, data.data(), data.size());
}

void setMbrEntry(Drive& d, uint64_t tableSector, int index, uint8_t systemID, uint32_t relative, uint32_t count) {
  uint8_t* e = d.sector(tableSector) + 446 + 16 * index;
  e[4] = systemID;
  storeLE32(e + 8, relative);
  storeLE32(e + 12, count);
  setBootSignature(d, tableSector);
}

void setBootSignature(Drive& d, uint64_t tableSector) {
  d.sector(tableSector)[510] = 0x55;
  d.sector(tableSector)[511] = 0xAA;
}

void writeGpt(Drive& d, const std::vector<GptPart>& parts, uint32_t entryCount, uint32_t entrySize,
              uint64_t entryLBA) {
  setMbrEntry(d, 0, 0, 0xEE, 1, static_cast<uint32_t>(d.sectors() - 1));
  uint8_t* h = d.sector(1);
  std::memcpy(h, "EFI PART", 8);
  storeLE32(h + 8, 0x10000);
  storeLE32(h + 12, 92);
  storeLE64(h + 24, 1);
  storeLE64(h + 32, d.sectors() - 1);
  storeLE64(h + 72, entryLBA);
  storeLE32(h + 80, entryCount);
  storeLE32(h + 84, entrySize);
  static const uint8_t kHfsGuid[16] = {0x00, 0x53, 0x46, 0x48, 0x00, 0x00, 0xAA, 0x11,
                                       0xAA, 0x11, 0x00, 0x30, 0x65, 0x43, 0xEC, 0xAC};
  static const uint8_t kBasicData[16] = {0xA2, 0xA0, 0xD0, 0xEB, 0xE5, 0xB9, 0x33, 0x44,
                                         0x87, 0xC0, 0x68, 0xB6, 0xB7, 0x26, 0x99, 0xC7};
  const uint32_t perSector = 512 / entrySize;
  for (size_t i = 0; i < parts.size(); ++i) {
    uint8_t* e = d.sector(entryLBA + i / perSector) + (i % perSector) * entrySize;
    std::memcpy(e, parts[i].hfs ? kHfsGuid : kBasicData, 16);
    e[16] = static_cast<uint8_t>(i + 1);
    storeLE64(e + 32, parts[i].first);
    storeLE64(e + 40, parts[i].last);
    for (size_t c = 0; c < parts[i].name.size() && c < 36; ++c) storeLE16(e + 56 + 2 * c, parts[i].name[c]);
  }
}

void writeApm(Drive& d, const std::vector<ApmPart>& parts) {
  uint8_t* ddm = d.sector(0);
  ddm[0] = 'E';
  ddm[1] = 'R';
  storeBE16(ddm + 2, 512);
  auto entry = [&](uint64_t sector, const ApmPart& p) {
    uint8_t* e = d.sector(sector);
    e[0] = 'P';
    e[1] = 'M';
    storeBE32(e + 4, static_cast<uint32_t>(parts.size() + 1));
    storeBE32(e + 8, p.start);
    storeBE32(e + 12, p.count);
    std::memcpy(e + 16, p.name.data(), std::min<size_t>(p.name.size(), 31));
    std::memcpy(e + 48, p.type.data(), std::min<size_t>(p.type.size(), 31));
  };
  entry(1, {"Apple", "Apple_partition_map", 1, 63});
  for (size_t i = 0; i < parts.size(); ++i) entry(2 + i, parts[i]);
}

void writeWrapperMdb(Drive& d, uint64_t start, const std::string& name, uint16_t embedSig, uint16_t alBlSt,
                     uint32_t alBlkSiz, uint16_t embedStartBlock, uint16_t embedBlocks) {
  uint8_t* m = d.sector(start + 2);
  std::memset(m, 0, 512);
  storeBE16(m, 0x4244);
  storeBE32(m + 20, alBlkSiz);
  storeBE16(m + 28, alBlSt);
  m[36] = static_cast<uint8_t>(name.size());
  std::memcpy(m + 37, name.data(), std::min<size_t>(name.size(), 27));
  storeBE16(m + 124, embedSig);
  storeBE16(m + 126, embedStartBlock);
  storeBE16(m + 128, embedBlocks);
}

}  // namespace ambrel::test
