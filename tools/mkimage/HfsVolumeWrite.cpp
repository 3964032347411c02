// One HFS+/HFSX volume written at its place: blocks, B-trees, forks, headers.
#include <algorithm>
#include <cstring>
#include <set>

#include "VolumeImpl.h"

namespace ambrel::mkimage {

void VolumeBuilder::Impl::markUsed(uint64_t start, uint64_t count) {
  for (uint64_t b = start; b < start + count; ++b) bitmap[b / 8] |= static_cast<uint8_t>(0x80 >> (b % 8));
}

void VolumeBuilder::Impl::markFree(const std::vector<ExtentLayout>& ext) {
  for (const auto& e : ext)
    for (uint64_t b = e.startBlock; b < uint64_t(e.startBlock) + e.blockCount; ++b)
      bitmap[b / 8] &= static_cast<uint8_t>(~(0x80 >> (b % 8)));
}

uint32_t VolumeBuilder::Impl::allocate(uint64_t count, bool used) {
  if (next + count > totalBlocks - tailBlocks()) throw BuildError("volume too small for its content");
  auto start = static_cast<uint32_t>(next);
  if (used) markUsed(next, count);
  next += count;
  return start;
}

std::vector<ExtentLayout> VolumeBuilder::Impl::allocatePieces(const std::vector<uint32_t>& pieces, bool used) {
  std::vector<ExtentLayout> out;
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (pieces[i] == 0) continue;
    out.push_back({allocate(pieces[i], used), pieces[i]});
    if (i + 1 < pieces.size()) allocate(1, false);  // a free gap splits the runs
  }
  return out;
}

// Absolute byte offset of a fork offset; the caller keeps writes within one extent.
uint64_t VolumeBuilder::Impl::forkByte(const std::vector<ExtentLayout>& ext, uint64_t offset) const {
  for (const auto& e : ext) {
    uint64_t len = uint64_t(e.blockCount) * bs;
    if (offset < len) return byteOf(e.startBlock) + offset;
    offset -= len;
  }
  throw BuildError("offset beyond a fork's extents");
}

void VolumeBuilder::Impl::writeFork(const std::vector<ExtentLayout>& ext, uint64_t size, bool generated,
                                    uint64_t seed, const std::vector<uint8_t>* bytes) {
  std::vector<uint8_t> chunk;
  uint64_t done = 0;
  for (const auto& e : ext) {
    uint64_t inExtent = std::min<uint64_t>(uint64_t(e.blockCount) * bs, size - done);
    uint64_t at = 0;
    while (at < inExtent) {
      size_t n = static_cast<size_t>(std::min<uint64_t>(inExtent - at, 1 << 20));
      if (generated) {
        chunk.resize(n);
        generatedBytes(seed, done + at, chunk.data(), n);
        image->write(byteOf(e.startBlock) + at, chunk.data(), n);
      } else {
        image->write(byteOf(e.startBlock) + at, bytes->data() + done + at, n);
      }
      at += n;
    }
    done += inExtent;
    if (done >= size) break;
  }
}

void VolumeBuilder::Impl::writeTree(const BTreePlan& plan, const BTreeSource& src, const BTreeParams& params,
                                    uint32_t totalNodes, uint32_t leafRecords, const std::vector<ExtentLayout>& ext,
                                    BTreeLayout* layout) {
  std::vector<NodeLayout> nodes;
  writeBTree(plan, src, params, totalNodes, leafRecords,
             [&](uint32_t n, const uint8_t* bytes) { image->write(forkByte(ext, uint64_t(n) * params.nodeSize), bytes, params.nodeSize); },
             &nodes);
  if (!layout) return;
  for (auto& n : nodes) n.sector = forkByte(ext, uint64_t(n.node) * params.nodeSize) / 512;
  layout->nodeSize = params.nodeSize;
  layout->depth = plan.depth();
  layout->rootNode = plan.rootNode();
  layout->firstLeafNode = plan.levels.empty() ? 0 : plan.levels[0].front().number;
  layout->lastLeafNode = plan.levels.empty() ? 0 : plan.levels[0].back().number;
  layout->leafRecords = leafRecords;
  layout->totalNodes = totalNodes;
  layout->freeNodes = totalNodes - plan.usedNodes - mapNodesFor(totalNodes, params.nodeSize);
  layout->extents = ext;
  layout->nodes = std::move(nodes);
}

BTreeParams VolumeBuilder::Impl::catalogParams() const {
  BTreeParams p;
  p.nodeSize = spec.nodeSize;
  p.maxKeyLength = 516;
  p.keyCompareType = spec.hfsx ? 0xBC : 0xCF;
  p.attributes = kBTBigKeys | kBTVariableIndexKeys;
  p.clumpSize = catBlocks * bs;
  return p;
}

std::vector<uint8_t> VolumeBuilder::Impl::volumeHeader(const VolumeLayout& v) const {
  using H = VolumeInformationBlock;
  std::vector<uint8_t> bytes(sizeof(H), 0);
  auto at = [&](size_t offset) { return &bytes[offset]; };
  storeBE16(at(offsetof(H, signature)), spec.hfsx ? kHFSXSigWord : kHFSPlusSigWord);
  storeBE16(at(offsetof(H, version)), spec.hfsx ? 5 : 4);
  storeBE32(at(offsetof(H, attributes)), kVolumeUnmounted | (spec.journal ? kVolumeJournaled : 0));
  storeBE32(at(offsetof(H, lastMountedVersion)), spec.journal ? 0x4846534A : 0x31302E30);  // 'HFSJ' / '10.0'
  storeBE32(at(offsetof(H, journalInfoBlock)), v.journalInfoBlock);
  storeBE32(at(offsetof(H, createDate)), spec.created);
  storeBE32(at(offsetof(H, modifyDate)), spec.created + 3600);
  storeBE32(at(offsetof(H, checkedDate)), spec.created);
  storeBE32(at(offsetof(H, fileCount)), v.fileCount);
  storeBE32(at(offsetof(H, folderCount)), v.folderCount);
  storeBE32(at(offsetof(H, blockSize)), bs);
  storeBE32(at(offsetof(H, totalBlocks)), v.totalBlocks);
  storeBE32(at(offsetof(H, freeBlocks)), v.freeBlocks);
  storeBE32(at(offsetof(H, nextAllocation)), static_cast<uint32_t>(next));
  storeBE32(at(offsetof(H, rsrcClumpSize)), 65536);
  storeBE32(at(offsetof(H, dataClumpSize)), 65536);
  storeBE32(at(offsetof(H, nextCatalogID)), v.nextCatalogID);
  storeBE32(at(offsetof(H, writeCount)), 1);
  storeBE64(at(offsetof(H, encodingsBitmap)), 1);  // MacRoman
  uint64_t idState = spec.seed ^ 0x5EEDu;
  storeBE64(at(offsetof(H, finderInfo) + 24), splitmix64(idState));  // the volume identifier
  putForkData(at(offsetof(H, allocationFile)), uint64_t(sumBlocks(allocExtents)) * bs, 0, sumBlocks(allocExtents), allocExtents);
  putForkData(at(offsetof(H, extentsFile)), uint64_t(extBlocks) * bs, extBlocks * bs, extBlocks, extentsExtents);
  putForkData(at(offsetof(H, catalogFile)), uint64_t(catBlocks) * bs, catBlocks * bs, catBlocks, catalogExtents);
  putForkData(at(offsetof(H, attributesFile)), uint64_t(attrBlocks) * bs, attrBlocks * bs, attrBlocks, attrExtents);
  return bytes;
}

std::string VolumeBuilder::Impl::pathOf(uint32_t index, std::vector<std::string>& cache) const {
  if (index == 0) return "";
  if (!cache[index].empty()) return cache[index];
  std::string name = utf16ToUtf8(items[index].name);
  std::replace(name.begin(), name.end(), '/', ':');
  std::string parent = pathOf(static_cast<uint32_t>(items[index].parentIndex), cache);
  cache[index] = parent.empty() ? name : parent + "/" + name;
  return cache[index];
}

VolumeLayout VolumeBuilder::Impl::write(ImageFile& img, uint64_t startSector, uint64_t sectors) {
  image = &img;
  VolumeLayout v;
  v.name = spec.name;
  v.hfsx = spec.hfsx;
  v.wrapped = spec.wrapper;
  v.startSector = startSector;
  v.sizeSectors = sectors;
  v.blockSize = bs;

  uint64_t volSectors = sectors;
  volStart = startSector;
  uint32_t wrapBlock = 0, wrapBlocks = 0;
  if (spec.wrapper) {
    // Wrapper: boot blocks, MDB (sector 2), bitmap (sector 3), then its
    // allocation blocks from sector 4; block 0 is left to the wrapper and the
    // embedded volume fills the rest.
    uint64_t unit = roundUp(std::max<uint64_t>(ceilDiv(sectors * 512, 4000), bs), bs);
    wrapBlock = static_cast<uint32_t>(unit);
    if (sectors < 6 + 2 * unit / 512) throw BuildError("wrapper too small");
    wrapBlocks = static_cast<uint32_t>((sectors - 6) / (unit / 512));
    volStart = startSector + 4 + unit / 512;
    volSectors = uint64_t(wrapBlocks - 1) * (unit / 512);
  }
  v.HPlusVolStart = volStart;
  totalBlocks = volSectors * 512 / bs;
  if (totalBlocks > UINT32_MAX) throw BuildError("volume has too many blocks; use a larger block size");
  if (totalBlocks < uint64_t(headBlocks()) + tailBlocks() + 8) throw BuildError("volume too small for its content");
  volSectors = totalBlocks * bs / 512;
  bitmap.assign(ceilDiv(totalBlocks, 8), 0);
  next = 0;

  allocate(headBlocks(), true);
  allocExtents = {{allocate(bitmapBlocks(totalBlocks), true), static_cast<uint32_t>(bitmapBlocks(totalBlocks))}};
  extentsExtents = {{allocate(extBlocks, true), extBlocks}};
  catalogExtents = allocatePieces(catPieces, true);
  attrExtents = {{allocate(attrBlocks, true), attrBlocks}};
  uint32_t jibBlock = 0, journalBlock = 0;
  if (spec.journal) {
    jibBlock = allocate(1, true);
    journalBlock = allocate(journalBlocks, true);
    items[jibItem].dataSize = bs;
    items[jibItem].dataExt = {{jibBlock, 1}};
    items[journalItem].dataSize = uint64_t(journalBlocks) * bs;
    items[journalItem].dataExt = {{journalBlock, journalBlocks}};
  }
  for (auto& it : items) {
    if (it.folder || (spec.journal && (&it == &items[jibItem] || &it == &items[journalItem]))) continue;
    it.dataExt = allocatePieces(pieceSizes(forkBlocks(it.dataSize), it.dataFrags, 1), true);
    it.rsrcExt = allocatePieces(pieceSizes(forkBlocks(it.rsrcSize), it.rsrcFrags, 1), true);
  }
  // Earlier versions: free blocks keeping their bytes, or blocks in use again.
  for (auto& it : items) {
    if (!it.hasPrevious) continue;
    it.previousExt = allocatePieces({forkBlocks(it.previousSize)}, it.previousReused);
    allocate(1, false);
  }
  for (const auto& p : spec.freePayloads) {
    uint64_t size = p.bytes ? p.bytes->size() : p.size;
    uint32_t blocks = static_cast<uint32_t>(ceilDiv(size, bs));
    uint32_t start = allocate(blocks, false);
    allocate(1, false);
    v.payloads.push_back({byteOf(start) / 512, size, start, blocks});
  }
  std::vector<uint32_t> copyBlocks;
  for (uint32_t i = 0; i < spec.damage.oldNodeCopies; ++i) {
    copyBlocks.push_back(allocate(nodeCopyBlocks(), false));
    allocate(1, false);
  }
  markUsed(totalBlocks - tailBlocks(), tailBlocks());
  for (const auto& it : items)
    if (it.deleted) {
      markFree(it.dataExt);
      markFree(it.rsrcExt);
    }

  uint64_t used = 0;
  for (uint8_t byte : bitmap) used += static_cast<uint64_t>(__builtin_popcount(byte));
  v.totalBlocks = static_cast<uint32_t>(totalBlocks);
  v.freeBlocks = static_cast<uint32_t>(totalBlocks - used);
  for (size_t i = 1; i < items.size(); ++i)
    if (!items[i].deleted) (items[i].folder ? v.folderCount : v.fileCount)++;
  v.nextCatalogID = nextID;
  v.journalInfoBlock = jibBlock;
  v.allocationExtents = allocExtents;
  v.extentsFileExtents = extentsExtents;
  v.attributesExtents = attrExtents;

  // Allocation file: the bitmap, then zeros to the end of its blocks.
  image->write(byteOf(allocExtents[0].startBlock), bitmap.data(), bitmap.size());

  writeTree(catPlan, catalogSource(liveRecs), catalogParams(), catTotalNodes, static_cast<uint32_t>(liveRecs.size()),
            catalogExtents, &v.catalog);
  BTreeParams ep;
  ep.nodeSize = spec.extentsNodeSize;
  ep.maxKeyLength = 10;
  ep.attributes = kBTBigKeys;
  ep.clumpSize = extBlocks * bs;
  writeTree(extPlan, extentsSource(), ep, extTotalNodes, static_cast<uint32_t>(overflow.size()), extentsExtents, &v.extentsTree);
  BTreeParams ap = catalogParams();
  ap.maxKeyLength = 266;
  ap.keyCompareType = 0;
  ap.clumpSize = attrBlocks * bs;
  writeTree(attrPlan, attributesSource(attrRecs), ap, attrTotalNodes, static_cast<uint32_t>(attrRecs.size()),
            attrExtents, nullptr);

  for (const auto& it : items) {
    if (it.folder) continue;
    if (spec.journal && (&it == &items[jibItem] || &it == &items[journalItem])) continue;
    if (it.sparse) continue;
    const std::vector<uint8_t>* given = !it.ownData.empty() ? &it.ownData : it.spec && it.spec->data ? &*it.spec->data : nullptr;
    writeFork(it.dataExt, it.dataSize, it.genData, it.dataSeed, given);
    writeFork(it.rsrcExt, it.rsrcSize, it.genRsrc, it.rsrcSeed, it.spec && it.spec->rsrc ? &*it.spec->rsrc : nullptr);
  }
  for (const auto& it : items)
    if (it.hasPrevious)  // reused blocks hold someone else's bytes now
      writeFork(it.previousExt, it.previousSize, true, it.previousReused ? ~it.previousSeed : it.previousSeed, nullptr);
  for (size_t i = 0; i < spec.freePayloads.size(); ++i) {
    const auto& p = spec.freePayloads[i];
    const auto& pl = v.payloads[i];
    std::vector<ExtentLayout> ext{{pl.startBlock, pl.blockCount}};
    writeFork(ext, pl.size, !p.bytes, p.seed, p.bytes ? &*p.bytes : nullptr);
  }

  std::vector<uint8_t> header = volumeHeader(v);
  std::vector<std::vector<uint8_t>> oldNodes = renderOldLeaves();
  if (spec.journal) writeJournal(v, jibBlock, journalBlock, header, oldNodes);

  // Old node copies in free space: old leaves holding deleted records first, then live leaves.
  const std::vector<BTreePlan::PlannedNode> noLeaves;
  const auto& liveLeaves = catPlan.levels.empty() ? noLeaves : catPlan.levels[0];
  for (size_t i = 0; i < copyBlocks.size(); ++i) {
    std::vector<uint8_t> node(spec.nodeSize);
    const uint64_t sector = byteOf(copyBlocks[i]) / 512;
    if (i < oldNodes.size()) {
      node = oldNodes[i];
      v.nodeCopies.push_back(copyLayout(sector, false, oldLeavesWithDeleted[i], true));
    } else if (!liveLeaves.empty()) {
      const uint32_t leaf = liveLeaves[i % liveLeaves.size()].number;
      image->read(nodeSector(leaf) * 512, node.data(), node.size());
      v.nodeCopies.push_back(copyLayout(sector, false, leaf, false));
    }
    image->write(byteOf(copyBlocks[i]), node.data(), node.size());
    v.freeSpaceNodeCopySectors.push_back(sector);
  }

  image->write(byteOf(0) + 1024, header.data(), 512);
  v.alternateHeaderSector = volStart + volSectors - 2;
  image->write(v.alternateHeaderSector * 512, header.data(), 512);
  if (spec.wrapper) writeWrapper(startSector, wrapBlock, wrapBlocks, sectors);

  // Entries of the layout, with the live leaves that hold their records.
  std::vector<uint32_t> recordNode(items.size()), threadNode(items.size());
  if (!catPlan.levels.empty())
    for (const auto& leaf : catPlan.levels[0])
      for (uint32_t r = leaf.first; r < leaf.first + leaf.count; ++r)
        (liveRecs[r].thread ? threadNode : recordNode)[liveRecs[r].item] = leaf.number;
  std::vector<std::string> paths(items.size());
  v.entries.reserve(items.size());
  for (uint32_t i = 0; i < items.size(); ++i) {
    const Item& it = items[i];
    FileLayout f;
    f.path = pathOf(i, paths);
    f.name = utf16ToUtf8(it.name);
    f.cnid = it.cnid;
    f.parentID = it.parent;
    f.folder = it.folder;
    f.deleted = it.deleted;
    f.dataSize = it.dataSize;
    f.rsrcSize = it.rsrcSize;
    f.dataExtents = it.dataExt;
    f.rsrcExtents = it.rsrcExt;
    f.valence = it.valence;
    f.created = it.created;
    f.modified = it.modified;
    f.generatedData = it.genData && !it.folder;
    f.generatedRsrc = it.genRsrc && !it.folder;
    f.sparse = it.sparse;
    f.generatedData = f.generatedData && !it.sparse;
    f.generatedRsrc = f.generatedRsrc && !it.sparse;
    f.dataSeed = it.dataSeed;
    f.rsrcSeed = it.rsrcSeed;
    f.recordNode = recordNode[i];
    f.threadNode = threadNode[i];
    f.hasPrevious = it.hasPrevious;
    f.previousSize = it.previousSize;
    f.previousSeed = it.previousSeed;
    f.previousExtents = it.previousExt;
    f.previousBlocksReused = it.previousReused;
    v.entries.push_back(std::move(f));
  }
  applyDamage(v);
  return v;
}

}  // namespace ambrel::mkimage
