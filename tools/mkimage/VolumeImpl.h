#pragma once
// The volume builder's state and steps, shared by its planning, writing and
// journal/damage sources. Not part of the builder's API.
#include <algorithm>
#include <cstring>
#include <map>
#include <numeric>
#include <set>
#include <string>
#include <vector>

#include "Internal.h"
#include "base/Endian.h"
#include "media/Records.h"

namespace ambrel::mkimage {

namespace volume_parts {

constexpr uint32_t kRootID = 2;
constexpr uint32_t kCatalogFileID = 4;
constexpr uint32_t kFirstUserID = 16;
constexpr uint32_t kJournalHeaderSize = 512;
constexpr uint32_t kBlockListHeaderSize = 4096;
constexpr uint16_t kVolumeUnmounted = 0x0100;
constexpr uint32_t kVolumeJournaled = 0x2000;
constexpr uint16_t kFileThreadExists = 0x0002;
constexpr uint32_t kBTBigKeys = 2, kBTVariableIndexKeys = 4;

inline uint64_t ceilDiv(uint64_t a, uint64_t b) { return (a + b - 1) / b; }
inline uint64_t roundUp(uint64_t a, uint64_t b) { return ceilDiv(a, b) * b; }

struct Item {
  std::u16string name, key;
  uint32_t cnid = 0, parent = 0;
  int32_t parentIndex = -1;
  bool folder = false, deleted = false;
  const EntrySpec* spec = nullptr;
  uint64_t dataSize = 0, rsrcSize = 0;
  uint32_t dataFrags = 1, rsrcFrags = 1;
  uint64_t dataSeed = 0, rsrcSeed = 0;
  bool genData = true, genRsrc = true;
  bool sparse = false;
  bool inOldNodes = true;
  HfsDate created = 0, modified = 0;
  uint32_t valence = 0;
  uint16_t mode = 0, finderFlags = 0;
  uint32_t uid = 501, gid = 20;
  uint8_t ownerFlags = 0;
  uint8_t type[4] = {0, 0, 0, 0}, creator[4] = {0, 0, 0, 0};
  uint32_t special = 1;     // files: link count, or the ID a link record points at
  uint16_t modeType = 0;    // file type bits of the mode; 0: folder or regular file
  uint16_t flags = 0;       // extra catalog record flags
  std::vector<uint8_t> ownData;  // data fork bytes made by the builder (a link's target)
  std::vector<ExtentLayout> dataExt, rsrcExt;
  std::optional<HfsDate> accessed;
  // An earlier version of the data fork, described by the old node copies.
  bool hasPrevious = false, previousReused = false;
  uint64_t previousSize = 0, previousSeed = 0;
  std::vector<ExtentLayout> previousExt;
};

struct CatRec {
  uint32_t item;
  bool thread;
};

// One record of the extents-overflow file: extents [first, first+8) of a fork.
struct OverflowRec {
  uint32_t fileID;
  uint8_t forkType;
  uint32_t startBlock;  // file-relative block of its first extent
  int32_t item;         // -1: the catalog file
  uint32_t first;
};

// Splits `blocks` into `pieces` runs, each a multiple of `unit` blocks.
inline std::vector<uint32_t> pieceSizes(uint64_t blocks, uint32_t pieces, uint32_t unit) {
  uint64_t units = blocks / unit;
  std::vector<uint32_t> out;
  for (uint32_t i = 0; i < pieces; ++i)
    out.push_back(static_cast<uint32_t>((units / pieces + (i < units % pieces ? 1 : 0)) * unit));
  return out;
}

inline void putForkData(uint8_t* p, uint64_t logicalSize, uint32_t clump, uint32_t totalBlocks,
                 const std::vector<ExtentLayout>& ext) {
  using K = HFSPlusForkData_;
  storeBE64(p + offsetof(K, logicalSize), logicalSize);
  storeBE32(p + offsetof(K, clumpSize), clump);
  storeBE32(p + offsetof(K, totalBlocks), totalBlocks);
  for (size_t i = 0; i < ext.size() && i < 8; ++i) {
    uint8_t* e = p + offsetof(K, extents) + i * sizeof(HFSPlusExtentDescriptor_);
    storeBE32(e + offsetof(HFSPlusExtentDescriptor_, startBlock), ext[i].startBlock);
    storeBE32(e + offsetof(HFSPlusExtentDescriptor_, blockCount), ext[i].blockCount);
  }
}

inline uint32_t sumBlocks(const std::vector<ExtentLayout>& ext) {
  uint32_t s = 0;
  for (const auto& e : ext) s += e.blockCount;
  return s;
}

}  // namespace volume_parts

using namespace volume_parts;

struct VolumeBuilder::Impl {
  VolumeSpec spec;
  uint32_t bs = 0;
  std::vector<Item> items;  // [0] is the root
  uint32_t nextID = kFirstUserID;
  int32_t journalItem = -1, jibItem = -1;
  std::vector<CatRec> liveRecs, oldRecs;
  std::vector<OverflowRec> overflow;
  std::vector<AttrRecord> attrRecs;
  BTreePlan catPlan, oldPlan, extPlan, attrPlan;
  uint32_t catTotalNodes = 0, extTotalNodes = 0, attrTotalNodes = 0;
  uint32_t catBlocks = 0, extBlocks = 0, attrBlocks = 0;
  std::vector<uint32_t> catPieces;
  std::vector<uint32_t> oldLeavesWithDeleted;  // node numbers in oldPlan (leaves that differ from the live ones)
  bool renderingOld = false;  // records are written as the old node copies hold them
  uint32_t journalBlocks = 0;
  uint64_t fixedBlocks = 0;  // everything but the bitmap
  uint32_t catNodeBlocks = 1;

  explicit Impl(const VolumeSpec& s);
  std::u16string keyOf(const std::u16string& name) const { return spec.hfsx ? name : foldCase(name); }

  // ---- items ----
  uint32_t addItem(Item item, int32_t parentIndex);
  Item newItem(const std::u16string& name, bool folder);
  void addSpecEntry(const EntrySpec& e, int32_t parentIndex, bool parentDeleted);
  void generate(const GenerateSpec& g);
  void collectItems();
  // Turns hard link, folder link and symbolic link entries into their records.
  void makeLinks();
  int32_t privateFolder(const std::u16string& name, int32_t& cache);

  // ---- catalog records ----
  uint32_t keyParent(const CatRec& r) const { return r.thread ? items[r.item].cnid : items[r.item].parent; }
  void sortRecords(std::vector<CatRec>& recs);
  size_t keySize(const CatRec& r) const { return 8 + (r.thread ? 0 : 2 * items[r.item].name.size()); }
  size_t recSize(const CatRec& r) const;
  size_t writeKey(const CatRec& r, uint8_t* p) const;
  size_t writeRecord(const CatRec& r, uint8_t* p) const;
  BTreeSource catalogSource(const std::vector<CatRec>& recs) const;

  // ---- extents overflow records ----
  const std::vector<ExtentLayout>& overflowExtents(const OverflowRec& r) const;
  BTreeSource extentsSource() const;
  void addOverflow(uint32_t fileID, uint8_t forkType, int32_t item, const std::vector<uint32_t>& pieces);
  uint32_t forkBlocks(uint64_t size) const { return static_cast<uint32_t>(ceilDiv(size, bs)); }

  // Node count of a B-tree file of at least `used` nodes, with free nodes and
  // map nodes, rounded to whole blocks and to `unit`-block pieces.
  uint32_t sizeTree(const BTreePlan& plan, uint32_t nodeSize, uint32_t slack, uint32_t pieces, uint32_t& blocks);
  void planTrees();

  // ---- blocks ----
  uint32_t headBlocks() const { return static_cast<uint32_t>(ceilDiv(1536, bs)); }
  uint32_t tailBlocks() const { return static_cast<uint32_t>(ceilDiv(1024, bs)); }
  uint32_t nodeCopyBlocks() const { return static_cast<uint32_t>(ceilDiv(spec.nodeSize, bs)); }
  uint64_t bitmapBlocks(uint64_t total) const { return ceilDiv(ceilDiv(total, 8), bs); }
  uint64_t journalBytesNeeded() const;
  void planBlocks();
  uint64_t minimumBlocks() const;

  // ---- writing ----
  std::vector<ExtentLayout> catalogExtents, extentsExtents, allocExtents, attrExtents;
  std::vector<uint8_t> bitmap;
  uint64_t next = 0;
  uint64_t totalBlocks = 0;
  uint64_t volStart = 0;  // HPlusVolStart
  ImageFile* image = nullptr;
  void markUsed(uint64_t start, uint64_t count);
  void markFree(const std::vector<ExtentLayout>& ext);
  uint32_t allocate(uint64_t count, bool used);
  std::vector<ExtentLayout> allocatePieces(const std::vector<uint32_t>& pieces, bool used);
  uint64_t byteOf(uint32_t block) const { return (volStart + uint64_t(block) * (bs / 512)) * 512; }

  // Absolute byte offset of a fork offset; the caller keeps writes within one extent.
  uint64_t forkByte(const std::vector<ExtentLayout>& ext, uint64_t offset) const;
  void writeFork(const std::vector<ExtentLayout>& ext, uint64_t size, bool generated, uint64_t seed,
                 const std::vector<uint8_t>* bytes);
  void writeTree(const BTreePlan& plan, const BTreeSource& src, const BTreeParams& params, uint32_t totalNodes,
                 uint32_t leafRecords, const std::vector<ExtentLayout>& ext, BTreeLayout* layout);
  BTreeParams catalogParams() const;
  std::vector<uint8_t> volumeHeader(const VolumeLayout& v) const;
  std::string pathOf(uint32_t index, std::vector<std::string>& cache) const;
  VolumeLayout write(ImageFile& img, uint64_t startSector, uint64_t sectors);
  std::vector<std::vector<uint8_t>> renderOldLeaves();
  void writeJournal(VolumeLayout& v, uint32_t jibBlock, uint32_t journalBlock, const std::vector<uint8_t>& header,
                    const std::vector<std::vector<uint8_t>>& oldNodes);
  void writeWrapper(uint64_t start, uint32_t unit, uint32_t blocks, uint64_t sectors);
  uint64_t nodeSector(uint32_t node) const { return forkByte(catalogExtents, uint64_t(node) * spec.nodeSize) / 512; }
  void applyDamage(VolumeLayout& v);
  // A leaf copy: where it went and whose records it holds (a node of oldPlan
  // when old, else of catPlan).
  NodeCopyLayout copyLayout(uint64_t sector, bool inJournal, uint32_t node, bool old) const;
  // Live leaves (chain order) copied into the journal.
  std::vector<uint32_t> journalLiveLeaves() const;
};

}  // namespace ambrel::mkimage
