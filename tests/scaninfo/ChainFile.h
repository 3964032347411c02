#pragma once
// A scan info file holding a chain of folders `depth` deep below its root,
// for the reader's depth tests and benchmarks. The records are written here
// with empty paths (a path of 0 units is valid), so that a chain 100,000
// deep is a few MB: the writer would give every entry the path of the
// folders above it, gigabytes for such a chain.
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "base/Endian.h"
#include "scaninfo/ScanInfoFile.h"

namespace ambrel::test {

// Every folder of the chain is marked when `marked`, as marking the deepest
// one marks them all; the folders each count the one below (childrenCount),
// the deepest none. Returns false when the file could not be written.
inline bool writeChainScanInfo(const std::string& path, uint32_t depth, bool marked) {
  ScanInfo info;
  info.volume.volumeScanType = 3;
  info.volume.volumeName = "Chain";
  info.volume.path = "/dev/null-chain";
  info.volume.sizeInSect = 1000000;
  info.volume.blockSize = 1;
  info.first5Sectors.assign(kScanInfoDriveBytes, 0);
  // Everything up to the tree from the writer itself: the root is written
  // with no name, so its record is the last 71 bytes.
  HDIR lone;
  lone.fileType = kHDIRFolder;
  lone.fileID = 2;
  if (writeScanInfo(path, info, lone, nullptr)) return false;
  std::vector<char> head;
  {
    std::ifstream in(path, std::ios::binary);
    head.assign(std::istreambuf_iterator<char>(in), {});
  }
  if (head.size() < sizeof(HFSPlusDir)) return false;
  head.resize(head.size() - sizeof(HFSPlusDir));

  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(head.data(), static_cast<std::streamsize>(head.size()));
  HDIR level;
  level.fileType = kHDIRFolder;
  level.blockSize = 1;
  level.setSelected(marked ? 1 : 0);
  const uint8_t name[2] = {0, 'd'};
  for (uint32_t i = 0; i <= depth; ++i) {
    level.fileID = 16 + i;
    level.parentID = i == 0 ? 1 : 15 + i;
    level.setChildrenCount(i < depth ? 1 : 0);
    HFSPlusDir r;
    convertHDirToHPDir(level, r);
    r.fileNameLength = bswap16(uint16_t{1});
    r.pathNameLength = 0;
    r.childRecordCount = static_cast<int32_t>(bswap32(i < depth ? 1u : 0u));
    r.dataExtCount = 0;
    r.rscExtCount = 0;
    out.write(reinterpret_cast<const char*>(&r), sizeof r);
    out.write(reinterpret_cast<const char*>(name), 2);
  }
  return static_cast<bool>(out.flush());
}

}  // namespace ambrel::test
