// One HFS+/HFSX volume's journal, classic wrapper, old catalog nodes and damage.
#include <algorithm>
#include <cstring>
#include <set>

#include "VolumeImpl.h"

namespace ambrel::mkimage {

std::vector<std::vector<uint8_t>> VolumeBuilder::Impl::renderOldLeaves() {
  std::vector<std::vector<uint8_t>> out;
  if (oldLeavesWithDeleted.empty()) return out;
  std::set<uint32_t> wanted(oldLeavesWithDeleted.begin(), oldLeavesWithDeleted.end());
  // The deleted entries' extents were allocated above, so their old records carry them.
  renderingOld = true;
  writeBTree(oldPlan, catalogSource(oldRecs), catalogParams(), oldPlan.usedNodes + mapNodesFor(oldPlan.usedNodes, spec.nodeSize),
             static_cast<uint32_t>(oldRecs.size()),
             [&](uint32_t n, const uint8_t* bytes) {
               if (wanted.count(n)) out.emplace_back(bytes, bytes + spec.nodeSize);
             },
             nullptr);
  renderingOld = false;
  return out;
}

NodeCopyLayout VolumeBuilder::Impl::copyLayout(uint64_t sector, bool inJournal, uint32_t node, bool old) const {
  NodeCopyLayout c;
  c.sector = sector;
  c.inJournal = inJournal;
  c.old = old;
  const BTreePlan& plan = old ? oldPlan : catPlan;
  const std::vector<CatRec>& recs = old ? oldRecs : liveRecs;
  for (const auto& leaf : plan.levels.empty() ? std::vector<BTreePlan::PlannedNode>{} : plan.levels[0]) {
    if (leaf.number != node) continue;
    for (uint32_t r = leaf.first; r < leaf.first + leaf.count; ++r)
      (recs[r].thread ? c.threads : c.records).push_back(items[recs[r].item].cnid);
  }
  return c;
}

std::vector<uint32_t> VolumeBuilder::Impl::journalLiveLeaves() const {
  std::vector<uint32_t> out;
  if (catPlan.levels.empty()) return out;
  for (const auto& leaf : catPlan.levels[0])
    if (out.size() < spec.journalLeafCopies) out.push_back(leaf.number);
  return out;
}

void VolumeBuilder::Impl::writeJournal(VolumeLayout& v, uint32_t jibBlock, uint32_t journalBlock,
                                       const std::vector<uint8_t>& header,
                                       const std::vector<std::vector<uint8_t>>& oldNodes) {
  const uint64_t jStart = uint64_t(journalBlock) * bs;  // from the volume start
  const uint64_t jSize = uint64_t(journalBlocks) * bs;
  std::vector<uint8_t> jib(bs, 0);
  storeBE32(&jib[0], 1);  // journal in this file system
  storeBE64(&jib[36], jStart);
  storeBE64(&jib[44], jSize);
  image->write(byteOf(jibBlock), jib.data(), jib.size());
  v.journalStart = jStart;
  v.journalSize = jSize;

  // Journal blocks are numbered in 512-byte units from the volume start.
  auto liveSectorOf = [&](uint32_t node) -> uint64_t {
    uint32_t n = node < catTotalNodes ? node : 1;
    return forkByte(catalogExtents, uint64_t(n) * spec.nodeSize) / 512 - volStart;
  };
  auto checksum = [](const uint8_t* p, size_t len) {
    int32_t ck = 0;
    for (size_t i = 0; i < len; ++i) ck = static_cast<int32_t>((static_cast<uint32_t>(ck) << 8) ^ static_cast<uint32_t>(ck + p[i]));
    return static_cast<uint32_t>(~ck);
  };
  // Old transactions, already checkpointed: a copy of the volume header
  // (as the journal keeps it), leaf node images from before the deletions,
  // then images of live leaves as they were last written.
  struct Copy {
    const uint8_t* bytes;
    uint32_t liveNode;  // where the node lives in the catalog
    bool old;
  };
  std::vector<Copy> copies;
  for (size_t i = 0; i < oldNodes.size(); ++i) copies.push_back({oldNodes[i].data(), oldLeavesWithDeleted[i], true});
  const std::vector<uint32_t> live = journalLiveLeaves();
  std::vector<std::vector<uint8_t>> liveBytes(live.size(), std::vector<uint8_t>(spec.nodeSize));
  for (size_t i = 0; i < live.size(); ++i) {
    image->read(nodeSector(live[i]) * 512, liveBytes[i].data(), spec.nodeSize);
    copies.push_back({liveBytes[i].data(), live[i], false});
  }
  const uint32_t perTx = kBlockListHeaderSize / 16 - 1;
  // The buffer after the header is circular. With journalWrap the old
  // transactions start so near its end that the first leaf copy (after its
  // block list header and the volume header copy) goes on after the header.
  const uint64_t ring = jSize - kJournalHeaderSize;
  uint64_t pos = kJournalHeaderSize;
  if (spec.journalWrap) {
    const uint64_t before = kBlockListHeaderSize + 512 + spec.nodeSize / 2;
    if (jSize < kJournalHeaderSize + before + spec.nodeSize) throw BuildError("journal too small to wrap");
    pos = jSize - before;
  }
  uint64_t written = 0;
  auto wrapped = [&](uint64_t at) { return at >= jSize ? at - ring : at; };
  auto put = [&](uint64_t at, const uint8_t* bytes, size_t n) {
    at = wrapped(at);
    const size_t first = static_cast<size_t>(std::min<uint64_t>(n, jSize - at));
    image->write(byteOf(journalBlock) + at, bytes, first);
    if (first < n) image->write(byteOf(journalBlock) + kJournalHeaderSize, bytes + first, n - first);
  };
  size_t nextNode = 0;
  bool headerDone = false;
  while (!headerDone || nextNode < copies.size()) {
    std::vector<uint8_t> blhdr(kBlockListHeaderSize, 0);
    std::vector<std::pair<uint64_t, const uint8_t*>> blocks;
    std::vector<uint32_t> sizes;
    std::vector<const Copy*> nodes;  // per block: the leaf copy, or null for the header
    if (!headerDone) {
      blocks.push_back({2, header.data()});
      sizes.push_back(512);
      nodes.push_back(nullptr);
      headerDone = true;
    }
    while (blocks.size() < perTx - 1 && nextNode < copies.size()) {
      blocks.push_back({liveSectorOf(copies[nextNode].liveNode), copies[nextNode].bytes});
      sizes.push_back(spec.nodeSize);
      nodes.push_back(&copies[nextNode]);
      ++nextNode;
    }
    uint32_t bytesUsed = kBlockListHeaderSize;
    for (uint32_t s : sizes) bytesUsed += s;
    written += bytesUsed;
    if (spec.journalWrap ? written > ring : pos + bytesUsed > jSize) throw BuildError("journal too small");
    storeLE16(&blhdr[0], static_cast<uint16_t>(perTx));
    storeLE16(&blhdr[2], static_cast<uint16_t>(blocks.size() + 1));
    storeLE32(&blhdr[4], bytesUsed);
    for (size_t i = 0; i < blocks.size(); ++i) {
      storeLE64(&blhdr[16 * (i + 1)], blocks[i].first);
      storeLE32(&blhdr[16 * (i + 1) + 8], sizes[i]);
    }
    storeLE32(&blhdr[8], checksum(blhdr.data(), 32));
    put(pos, blhdr.data(), blhdr.size());
    uint64_t at = wrapped(pos + kBlockListHeaderSize);
    for (size_t i = 0; i < blocks.size(); ++i) {
      put(at, blocks[i].second, sizes[i]);
      if (nodes[i]) {
        // A copy across the end is listed by its first part's sector.
        const uint64_t sector = (byteOf(journalBlock) + at) / 512;
        if (at + sizes[i] > jSize) v.journalWrappedCopySector = sector;
        v.journalNodeCopySectors.push_back(sector);
        v.nodeCopies.push_back(copyLayout(sector, true, nodes[i]->liveNode, nodes[i]->old));
      }
      at = wrapped(at + sizes[i]);
    }
    pos = at;
  }
  // A clean journal: start == end, everything before is stale.
  std::vector<uint8_t> jh(kJournalHeaderSize, 0);
  storeLE32(&jh[0], 0x4a4e4c78);
  storeLE32(&jh[4], 0x12345678);
  storeLE64(&jh[8], pos);
  storeLE64(&jh[16], pos);
  storeLE64(&jh[24], jSize);
  storeLE32(&jh[32], kBlockListHeaderSize);
  storeLE32(&jh[40], kJournalHeaderSize);
  storeLE32(&jh[36], checksum(jh.data(), 44));
  image->write(byteOf(journalBlock), jh.data(), jh.size());
}

void VolumeBuilder::Impl::writeWrapper(uint64_t start, uint32_t unit, uint32_t blocks, uint64_t sectors) {
  using M = MasterDirectoryBlock;
  std::vector<uint8_t> m(512, 0);
  auto at = [&](size_t offset) { return &m[offset]; };
  storeBE16(at(offsetof(M, drSigWord)), kHFSSigWord);
  storeBE32(at(offsetof(M, drCrDate)), spec.created);
  storeBE32(at(offsetof(M, drLsMod)), spec.created + 3600);
  storeBE16(at(offsetof(M, drAtrb)), kVolumeUnmounted);
  storeBE16(at(offsetof(M, drVBMSt)), 3);
  storeBE16(at(offsetof(M, drNmAlBlks)), static_cast<uint16_t>(blocks));
  storeBE32(at(offsetof(M, drAlBlkSiz)), unit);
  storeBE32(at(offsetof(M, drClpSiz)), unit);
  storeBE16(at(offsetof(M, drAlBlSt)), 4);
  storeBE32(at(offsetof(M, drNxtCNID)), 16);
  std::string name = spec.name.substr(0, 27);
  m[offsetof(M, nameLength)] = static_cast<uint8_t>(name.size());
  std::memcpy(at(offsetof(M, drVN)), name.data(), name.size());
  storeBE16(at(offsetof(M, drEmbedSigWord)), spec.hfsx ? kHFSXSigWord : kHFSPlusSigWord);
  storeBE16(at(offsetof(M, drEmbedExtent) + offsetof(HFSExtentDecriptor, xdrStABN)), 1);
  storeBE16(at(offsetof(M, drEmbedExtent) + offsetof(HFSExtentDecriptor, xdrNumABlks)), static_cast<uint16_t>(blocks - 1));
  image->write((start + 2) * 512, m.data(), m.size());
  image->write((start + sectors - 2) * 512, m.data(), m.size());
  std::vector<uint8_t> wb(512, 0);
  for (uint32_t b = 0; b < blocks; ++b) wb[b / 8] |= static_cast<uint8_t>(0x80 >> (b % 8));
  image->write((start + 3) * 512, wb.data(), wb.size());
}

void VolumeBuilder::Impl::applyDamage(VolumeLayout& v) {
  const auto& d = spec.damage;
  uint64_t rng = d.overwriteSeed;
  auto randomFill = [&](std::vector<uint8_t>& buf) {
    for (size_t i = 0; i < buf.size(); i += 8) {
      uint64_t r = splitmix64(rng);
      std::memcpy(&buf[i], &r, std::min<size_t>(8, buf.size() - i));
    }
  };
  auto damageHeader = [&](VolumeDamage::Header how, uint64_t byte) {
    if (how == VolumeDamage::Header::Intact) return;
    std::vector<uint8_t> h(512, 0);
    if (how == VolumeDamage::Header::Corrupted) {
      randomFill(h);
      h[0] = 0xDE;  // never a valid signature
    }
    image->write(byte, h.data(), h.size());
  };
  damageHeader(d.primaryHeader, byteOf(0) + 1024);
  damageHeader(d.alternateHeader, v.alternateHeaderSector * 512);
  if (d.leafChain) {
    if (catPlan.levels.empty() || catPlan.levels[0].size() < 2) throw BuildError("a broken leaf chain needs two leaves");
    const auto& leaves = catPlan.levels[0];
    int32_t pos = d.leafChain->leaf < 0 ? static_cast<int32_t>(leaves.size() / 2) - 1 : d.leafChain->leaf;
    if (pos < 0) pos = 0;
    if (pos + 1 >= static_cast<int32_t>(leaves.size())) throw BuildError("the damaged leaf must not be the last");
    uint32_t target = 0;
    switch (d.leafChain->mode) {
      case LeafChainDamage::Mode::Zero: target = 0; break;
      case LeafChainDamage::Mode::IntoIndex:
        if (catPlan.levels.size() < 2) throw BuildError("no index node to point into");
        target = catPlan.levels[1].front().number;
        break;
      case LeafChainDamage::Mode::Loop: target = leaves[pos > 0 ? pos - 1 : 0].number; break;
    }
    uint8_t link[4];
    storeBE32(link, target);
    image->write(nodeSector(leaves[pos].number) * 512, link, 4);
    v.brokenLeaf = leaves[pos].number;
  }
  if (d.overwriteNodes) {
    if (catPlan.usedNodes < 2) throw BuildError("no catalog node to overwrite");
    std::set<uint32_t> chosen;
    uint32_t want = std::min(d.overwriteNodes, catPlan.usedNodes - 1);
    while (chosen.size() < want) chosen.insert(1 + static_cast<uint32_t>(splitmix64(rng) % (catPlan.usedNodes - 1)));
    std::vector<uint8_t> junk(spec.nodeSize);
    for (uint32_t n : chosen) {
      randomFill(junk);
      image->write(nodeSector(n) * 512, junk.data(), junk.size());
      v.overwrittenNodes.push_back(n);
    }
  }
  if (d.overwriteLeafPercent) {
    const auto& leaves = catPlan.levels.empty() ? std::vector<BTreePlan::PlannedNode>{} : catPlan.levels[0];
    const size_t want = std::min<size_t>(leaves.size(), (leaves.size() * d.overwriteLeafPercent + 99) / 100);
    std::set<uint32_t> chosen;
    while (chosen.size() < want) chosen.insert(leaves[splitmix64(rng) % leaves.size()].number);
    std::vector<uint8_t> junk(spec.nodeSize);
    for (uint32_t n : chosen) {
      randomFill(junk);
      image->write(nodeSector(n) * 512, junk.data(), junk.size());
      v.overwrittenNodes.push_back(n);
    }
  }
  for (uint32_t pos : d.overwriteLeafPositions) {
    if (catPlan.levels.empty() || pos >= catPlan.levels[0].size()) throw BuildError("no such leaf to overwrite");
    std::vector<uint8_t> junk(spec.nodeSize);
    randomFill(junk);
    const uint32_t n = catPlan.levels[0][pos].number;
    image->write(nodeSector(n) * 512, junk.data(), junk.size());
    v.overwrittenNodes.push_back(n);
  }
  if (d.catalogRootCorrupted && !catPlan.levels.empty()) {
    std::vector<uint8_t> junk(spec.nodeSize);
    randomFill(junk);
    image->write(nodeSector(catPlan.rootNode()) * 512, junk.data(), junk.size());
    v.overwrittenNodes.push_back(catPlan.rootNode());
  }
  auto corruptHeaderNode = [&](uint64_t byte) {
    std::vector<uint8_t> junk(512);
    randomFill(junk);
    junk[8] = 0x7F;     // not a header node kind
    junk[11] = 0x99;    // nor three records
    image->write(byte, junk.data(), junk.size());
  };
  if (d.catalogHeaderCorrupted) corruptHeaderNode(nodeSector(0) * 512);
  if (d.extentsHeaderCorrupted) corruptHeaderNode(byteOf(extentsExtents.front().startBlock));
  if (d.zeroFirstBytes) {
    const uint64_t from = v.startSector * 512;
    image->zero(from, static_cast<size_t>(std::min<uint64_t>(d.zeroFirstBytes, v.sizeSectors * 512)));
  }
}

}  // namespace ambrel::mkimage
