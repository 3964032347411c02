#pragma once
// A small drive image put together byte by byte, for volume-setup cases that
// need exact control of a header, a B-tree node or a bitmap bit.
#include <cstdint>
#include <filesystem>
#include <vector>

#include "base/Endian.h"
#include "base/PlistValue.h"
#include "support/TempDir.h"

namespace ambrel::test {

struct ForkLayout {
  uint32_t totalBlocks = 0;
  std::vector<std::pair<uint32_t, uint32_t>> extents;  // start, count (at most 8)
};

struct ExtentRecordLayout {
  uint8_t fork = 0;
  uint32_t fileID = 0;
  uint32_t startBlock = 0;
  std::vector<std::pair<uint32_t, uint32_t>> extents;
};

class HandImage {
 public:
  explicit HandImage(uint64_t sectors) : bytes_(sectors * 512, 0) {}

  uint8_t* at(uint64_t sector) { return bytes_.data() + sector * 512; }
  std::vector<uint8_t>& bytes() { return bytes_; }

  // A volume header at `sector` with the block size in bytes and three forks.
  void putVIB(uint64_t sector, uint16_t signature, uint32_t blockSizeBytes, uint32_t totalBlocks,
              const ForkLayout& allocation, const ForkLayout& extents, const ForkLayout& catalog,
              uint32_t journalInfoBlock = 0) {
    uint8_t* p = at(sector);
    storeBE16(p, signature);
    storeBE16(p + 2, signature == 0x4858 ? 5 : 4);
    storeBE32(p + 12, journalInfoBlock);
    storeBE32(p + 40, blockSizeBytes);
    storeBE32(p + 44, totalBlocks);
    putFork(p + 112, allocation);
    putFork(p + 192, extents);
    putFork(p + 272, catalog);
  }

  // A classic HFS wrapper's MDB at `sector` embedding an HFS+ volume.
  void putMDB(uint64_t sector, uint16_t alBlSt, uint32_t alBlkSiz, uint16_t embedSig, uint16_t embedStart,
              uint16_t embedCount) {
    uint8_t* p = at(sector);
    storeBE16(p, 0x4244);
    storeBE32(p + 20, alBlkSiz);
    storeBE16(p + 28, alBlSt);
    storeBE16(p + 124, embedSig);
    storeBE16(p + 126, embedStart);
    storeBE16(p + 128, embedCount);
  }

  // A B-tree header node (node 0) at `sector`.
  void putHeaderNode(uint64_t sector, uint16_t nodeSize, uint32_t rootNode, uint32_t firstLeaf, uint32_t leafRecords,
                     uint16_t depth, uint16_t numRecords = 3) {
    uint8_t* p = at(sector);
    p[8] = 1;  // header node
    storeBE16(p + 10, numRecords);
    storeBE16(p + 14, depth);
    storeBE32(p + 16, rootNode);
    storeBE32(p + 20, leafRecords);
    storeBE32(p + 24, firstLeaf);
    storeBE16(p + 32, nodeSize);
  }

  // An extents B-tree leaf node of `nodeBytes` at `sector`.
  void putExtentLeaf(uint64_t sector, uint32_t nodeBytes, uint32_t fLink, const std::vector<ExtentRecordLayout>& recs) {
    uint8_t* p = at(sector);
    storeBE32(p, fLink);
    p[8] = 0xFF;
    p[9] = 1;
    storeBE16(p + 10, static_cast<uint16_t>(recs.size()));
    uint32_t off = 14;
    for (size_t i = 0; i < recs.size(); ++i) {
      storeBE16(p + nodeBytes - 2 - 2 * i, static_cast<uint16_t>(off));
      putKey(p + off, recs[i].fork, recs[i].fileID, recs[i].startBlock);
      for (size_t k = 0; k < recs[i].extents.size(); ++k) {
        storeBE32(p + off + 12 + 8 * k, recs[i].extents[k].first);
        storeBE32(p + off + 16 + 8 * k, recs[i].extents[k].second);
      }
      off += 12 + 64;
    }
    storeBE16(p + nodeBytes - 2 - 2 * recs.size(), static_cast<uint16_t>(off));
  }

  // An extents B-tree index node: one key and child pointer per record.
  void putExtentIndex(uint64_t sector, uint32_t nodeBytes, const std::vector<std::pair<ExtentRecordLayout, uint32_t>>& recs) {
    uint8_t* p = at(sector);
    p[8] = 0;
    p[9] = 2;
    storeBE16(p + 10, static_cast<uint16_t>(recs.size()));
    uint32_t off = 14;
    for (size_t i = 0; i < recs.size(); ++i) {
      storeBE16(p + nodeBytes - 2 - 2 * i, static_cast<uint16_t>(off));
      putKey(p + off, recs[i].first.fork, recs[i].first.fileID, recs[i].first.startBlock);
      storeBE32(p + off + 12, recs[i].second);
      off += 16;
    }
  }

  std::filesystem::path write(const TempDir& dir, const std::string& name = "drive.img") {
    auto path = dir / name;
    writeFile(path, bytes_);
    return path;
  }

  static PlistDict partitionDict(const std::filesystem::path& path, uint64_t start, uint64_t sectors) {
    return PlistDict{{"Path", path.string()},        {"Model", "Hand"},
                     {"Serial", "S1"},               {"Revision", "R1"},
                     {"Volume Name", "Hand Volume"}, {"Volume Start", start},
                     {"Volume Size In Sectors", sectors}, {"Volume Scan Type", 0}};
  }

 private:
  static void putKey(uint8_t* p, uint8_t fork, uint32_t fileID, uint32_t startBlock) {
    storeBE16(p, 10);
    p[2] = fork;
    storeBE32(p + 4, fileID);
    storeBE32(p + 8, startBlock);
  }
  static void putFork(uint8_t* p, const ForkLayout& f) {
    storeBE32(p + 12, f.totalBlocks);
    for (size_t i = 0; i < f.extents.size() && i < 8; ++i) {
      storeBE32(p + 16 + 8 * i, f.extents[i].first);
      storeBE32(p + 20 + 8 * i, f.extents[i].second);
    }
  }

  std::vector<uint8_t> bytes_;
};

}  // namespace ambrel::test
