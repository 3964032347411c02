// Catalog and extents B-tree nodes from any bytes. The first four bytes are
// choices (node size, the key looked up, the root node); the rest is a run of
// nodes, node 0 first. Every node check and every record of every node is
// read in both modes, and the extents-overflow look-up walks the run.
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "hfs/CatalogRecords.h"
#include "media/NodeChecks.h"

using namespace ambrel;

namespace {

void readRecords(std::span<const uint8_t> node) {
  const auto desc = nodeDescriptorOf(node);
  if (!desc) return;
  // More records than fit a node are not there; a hostile count must not cost more.
  const uint32_t count = desc->numRecords < 1024 ? desc->numRecords : 1024;
  for (uint32_t i = 0; i < count; ++i) {
    for (bool checked : {true, false}) {
      const CatalogRecordView r = catalogRecordAt(node, desc->numRecords, i, checked);
      if (r.check == RecordCheck::AbandonNode) break;
      HFSPlusCatalogFolder_ folder{};
      if (r.folder(folder)) (void)plausibleFolderRecord(folder);
      HFSPlusCatalogFile_ file{};
      if (r.file(file)) (void)plausibleFileRecord(file);
      uint32_t parent = 0;
      std::string name;
      (void)r.thread(parent, name);
      (void)privateDataFolderName(r.name);
      (void)openDeletedName(r.name, parent);
    }
  }
}

uint32_t be32(const uint8_t* p) { return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3]; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  static constexpr uint32_t kSizes[8] = {512, 1024, 2048, 4096, 8192, 16384, 32768, 65536};
  const uint32_t nodeSize = kSizes[data[0] % 8];
  const uint8_t forkType = data[1] & 0x80 ? 0xFF : 0x00;
  const uint32_t fileID = data[1] & 0x7F;
  const uint32_t rootNode = data[2];
  const uint32_t totalBlocks = uint32_t{data[3]} * 16;
  const std::vector<uint8_t> run(data + 4, data + size);
  const std::span<const uint8_t> all(run);

  // The checks on whatever the first node is, even a cut one.
  if (const auto desc = nodeDescriptorOf(all)) {
    (void)isGoodHeaderNode(*desc);
    (void)isLeafNode(*desc);
  }
  (void)headerRecordOf(all);
  (void)headerRecordIfGood(all);
  (void)rootFolderNameOf(all);
  (void)recordOffsetsOf(all, nodeSize);
  (void)utf16BigToUtf8(run.data(), run.size() / 2);
  (void)utf16LittleToUtf8(run.data(), run.size() / 2);
  if (run.size() >= sizeof(HFSPlusExtentKey_)) (void)extentKeyNotBefore(fileID, forkType, 0, run.data());

  const size_t nodes = run.size() / nodeSize;
  for (size_t n = 0; n < nodes; ++n) {
    const std::span<const uint8_t> node(run.data() + n * nodeSize, nodeSize);
    (void)recordOffsetsOf(node, nodeSize);
    readRecords(node);
  }
  if (run.size() >= 8 && nodes > 0) {
    const uint32_t startBlock = be32(run.data() + run.size() - 4) % 4096;
    (void)overflowExtentsFor(fileID, forkType, startBlock, totalBlocks, rootNode, nodeSize,
                             [&](uint32_t number, std::vector<uint8_t>& bytes) {
                               if (number >= nodes) return false;
                               bytes.assign(run.begin() + static_cast<std::ptrdiff_t>(size_t{number} * nodeSize),
                                            run.begin() + static_cast<std::ptrdiff_t>(size_t{number + 1} * nodeSize));
                               return true;
                             });
  }
  return 0;
}
