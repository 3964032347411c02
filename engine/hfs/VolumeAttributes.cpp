// The attributes B-tree of a volume and the compressed files it describes.
#include <algorithm>
#include <cstring>

#include "compress/Decmpfs.h"
#include "hfs/Volume.h"

namespace ambrel {

namespace {

// First sector of node `node` of a B-tree file laid out in `extents`; nodes
// never straddle extents (B-tree files grow by whole nodes).
std::optional<uint64_t> nodeSector(const std::vector<Extent>& extents, uint32_t node, uint32_t nodeBytes,
                                   uint64_t blockBytes, uint64_t volStart) {
  if (nodeBytes == 0 || blockBytes == 0) return std::nullopt;
  uint64_t n = node;
  for (const Extent& e : extents) {
    const uint64_t inExtent = uint64_t{e.blockCount} * blockBytes / nodeBytes;
    if (n < inExtent) return volStart + (uint64_t{e.startBlock} * blockBytes + n * nodeBytes) / kSectorSize;
    n -= inExtent;
  }
  return std::nullopt;
}

}  // namespace

bool Volume::loadAttributesTree() {
  if (attributesLoaded) return attributesHeader.has_value();
  attributesLoaded = true;
  const HFSPlusForkData_& fork = vib.attributesFile;
  if (blockSize <= 0 || fork.totalBlocks == 0 || fork.extents.extDesc[0].blockCount == 0) return false;
  attributesExt.clear();
  uint64_t sum = 0;
  for (const auto& d : fork.extents.extDesc) {
    if (d.blockCount == 0) break;
    attributesExt.push_back({d.startBlock, d.blockCount});
    sum += d.blockCount;
  }
  if (sum < fork.totalBlocks) {
    for (const Extent& e : extentsForID(kAttributesFileID, kDataForkType, static_cast<uint32_t>(sum), fork.totalBlocks))
      attributesExt.push_back(e);
  }
  std::vector<uint8_t> first(kSectorSize);
  const uint64_t start = HPlusVolStart + uint64_t{attributesExt[0].startBlock} * static_cast<uint32_t>(blockSize);
  if (!readSector(start, 1, first.data())) return false;
  attributesHeader = AttributesTree::headerOf(first);
  return attributesHeader.has_value();
}

std::shared_ptr<AttributesTree> Volume::attributesTree(SectorReader read) {
  if (!loadAttributesTree() || !read) return nullptr;
  const uint32_t nodeBytes = attributesHeader->nodeSize;
  const uint64_t blockBytes = uint64_t(static_cast<uint32_t>(blockSize)) * kSectorSize;
  auto reader = [extents = attributesExt, nodeBytes, blockBytes, volStart = HPlusVolStart, read = std::move(read)](
                    uint32_t node, std::vector<uint8_t>& bytes) {
    const auto sector = nodeSector(extents, node, nodeBytes, blockBytes, volStart);
    if (!sector) return false;
    bytes.assign(nodeBytes, 0);
    return read(*sector, static_cast<int32_t>(nodeBytes / kSectorSize), bytes.data());
  };
  return std::make_shared<AttributesTree>(*attributesHeader, reader);
}

std::vector<uint8_t> Volume::attributeValue(AttributesTree& tree, uint32_t fileID, std::string_view name,
                                            const SectorReader& read) {
  const std::u16string key = utf16FromAscii(name);
  std::vector<uint8_t> node;
  const auto rec = tree.find(fileID, key, 0, node);
  if (!rec) return {};
  if (rec->recordType == kAttrInlineData) return {rec->inlineData.begin(), rec->inlineData.end()};
  if (rec->recordType != kAttrForkData || blockSize <= 0) return {};

  // A value kept in its own fork: the record's extents, then those of the
  // extent records that follow it under the same name.
  const HFSPlusForkData_ fork = rec->fork;
  if (fork.logicalSize > kMaxAttributeValueSize) return {};
  const uint64_t blockBytes = uint64_t(static_cast<uint32_t>(blockSize)) * kSectorSize;
  std::vector<Extent> extents;
  uint64_t blocks = 0;
  auto take = [&](const HFSPlusExtentRecord_& r) {
    for (const auto& d : r.extDesc) {
      if (d.blockCount == 0) return;
      extents.push_back({d.startBlock, d.blockCount});
      blocks += d.blockCount;
    }
  };
  take(fork.extents);
  // Each further record starts where the blocks so far end, so this ends.
  while (blocks < fork.totalBlocks && blocks < UINT32_MAX) {
    const auto more = tree.find(fileID, key, static_cast<uint32_t>(blocks), node);
    if (!more || more->recordType != kAttrExtents) return {};
    const uint64_t before = blocks;
    take(more->extents);
    if (blocks == before) return {};
  }
  std::vector<uint8_t> value(static_cast<size_t>(fork.logicalSize));
  uint64_t done = 0;
  std::vector<uint8_t> block(static_cast<size_t>(blockBytes));
  for (const Extent& e : extents) {
    for (uint32_t b = 0; b < e.blockCount && done < value.size(); ++b) {
      const uint64_t sector = HPlusVolStart + (uint64_t{e.startBlock} + b) * static_cast<uint32_t>(blockSize);
      if (!read(sector, blockSize, block.data())) return {};
      const size_t n = static_cast<size_t>(std::min<uint64_t>(blockBytes, value.size() - done));
      std::memcpy(value.data() + done, block.data(), n);
      done += n;
    }
  }
  return done == value.size() ? value : std::vector<uint8_t>{};
}

bool Volume::applyCompression(HDIR& entry, const HFSPlusCatalogFile_& file) {
  if ((file.permissions.ownerFlags & kCompressedOwnerFlag) == 0) return false;
  if (!scanAttributes_)
    scanAttributes_ = attributesTree([this](uint64_t sector, int32_t count, void* buffer) {
      return readSector(sector, count, buffer);
    });
  std::optional<DecmpfsHeader> header;
  std::vector<uint8_t> value;
  if (scanAttributes_) {
    value = attributeValue(*scanAttributes_, file.fileID, kDecmpfsAttributeName,
                           [this](uint64_t sector, int32_t count, void* buffer) { return readSector(sector, count, buffer); });
    header = parseDecmpfsHeader(value);
  }
  // Compressed data kept in the resource fork needs one.
  if (!header || (header->inResourceFork && file.resourceFork.logicalSize == 0)) {
    ++compressedUnreadable;
    return false;
  }
  entry.compressionType = header->type;
  entry.compressedSize = header->inResourceFork ? file.resourceFork.logicalSize : value.size() - kDecmpfsHeaderSize;
  entry.dataSize = header->uncompressedSize;
  entry.rscSize = 0;
  entry.fileSize = entry.dataSize;
  ++compressedFiles;
  return true;
}

}  // namespace ambrel
