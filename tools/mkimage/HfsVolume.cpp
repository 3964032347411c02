// One HFS+/HFSX volume: planning (names, B-trees, block needs) and writing.
#include <algorithm>
#include <cstring>
#include <map>
#include <numeric>
#include <set>

#include "Internal.h"
#include "base/Endian.h"
#include "media/Records.h"

namespace ambrel::mkimage {
namespace {

constexpr uint32_t kRootID = 2;
constexpr uint32_t kCatalogFileID = 4;
constexpr uint32_t kFirstUserID = 16;
constexpr uint32_t kJournalHeaderSize = 512;
constexpr uint32_t kBlockListHeaderSize = 4096;
constexpr uint16_t kVolumeUnmounted = 0x0100;
constexpr uint32_t kVolumeJournaled = 0x2000;
constexpr uint16_t kFileThreadExists = 0x0002;
constexpr uint32_t kBTBigKeys = 2, kBTVariableIndexKeys = 4;

uint64_t ceilDiv(uint64_t a, uint64_t b) { return (a + b - 1) / b; }
uint64_t roundUp(uint64_t a, uint64_t b) { return ceilDiv(a, b) * b; }

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
  std::vector<ExtentLayout> dataExt, rsrcExt;
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
std::vector<uint32_t> pieceSizes(uint64_t blocks, uint32_t pieces, uint32_t unit) {
  uint64_t units = blocks / unit;
  std::vector<uint32_t> out;
  for (uint32_t i = 0; i < pieces; ++i)
    out.push_back(static_cast<uint32_t>((units / pieces + (i < units % pieces ? 1 : 0)) * unit));
  return out;
}

void putForkData(uint8_t* p, uint64_t logicalSize, uint32_t clump, uint32_t totalBlocks,
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

uint32_t sumBlocks(const std::vector<ExtentLayout>& ext) {
  uint32_t s = 0;
  for (const auto& e : ext) s += e.blockCount;
  return s;
}

}  // namespace

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
  std::vector<uint32_t> oldLeavesWithDeleted;  // node numbers in oldPlan
  uint32_t journalBlocks = 0;
  uint64_t fixedBlocks = 0;  // everything but the bitmap
  uint32_t catNodeBlocks = 1;

  explicit Impl(const VolumeSpec& s) : spec(s) {
    bs = spec.blockSize;
    if (bs < 512 || bs > 65536 || (bs & (bs - 1))) throw BuildError("block size must be a power of two from 512");
    for (uint32_t ns : {spec.nodeSize, spec.extentsNodeSize})
      if (ns < 512 || ns > 32768 || (ns & (ns - 1))) throw BuildError("node size must be a power of two, 512 to 32768");
    if (spec.catalogExtents == 0) throw BuildError("the catalog needs at least one extent");
    collectItems();
    planTrees();
    planBlocks();
  }

  std::u16string keyOf(const std::u16string& name) const { return spec.hfsx ? name : foldCase(name); }

  // ---- items ----
  uint32_t addItem(Item item, int32_t parentIndex) {
    item.parentIndex = parentIndex;
    item.parent = parentIndex < 0 ? 1 : items[parentIndex].cnid;
    if (item.name.empty() || item.name.size() > 255) throw BuildError("names must have 1 to 255 UTF-16 units");
    item.key = keyOf(item.name);
    if (parentIndex >= 0 && !item.deleted) items[parentIndex].valence++;
    items.push_back(std::move(item));
    return static_cast<uint32_t>(items.size() - 1);
  }

  Item newItem(const std::u16string& name, bool folder) {
    Item it;
    it.name = name;
    it.folder = folder;
    it.cnid = nextID++;
    it.created = spec.created + (it.cnid % 86400);
    it.modified = it.created + 60;
    it.dataSeed = spec.seed * 1000003ULL + it.cnid * 2;
    it.rsrcSeed = it.dataSeed + 1;
    return it;
  }

  void addSpecEntry(const EntrySpec& e, int32_t parentIndex, bool parentDeleted) {
    Item it = newItem(utf8ToUtf16(e.name), e.folder || !e.children.empty());
    it.spec = &e;
    it.deleted = e.deleted || parentDeleted;
    if (it.folder && (e.dataLength() || e.rsrcLength())) throw BuildError("a folder cannot have forks: " + e.name);
    it.dataSize = e.dataLength();
    it.rsrcSize = e.rsrcLength();
    it.genData = !e.data;
    it.genRsrc = !e.rsrc;
    it.sparse = e.sparse;
    it.inOldNodes = e.inOldNodes;
    if (e.sparse && (e.data || e.rsrc)) throw BuildError("a sparse file has no explicit contents: " + e.name);
    it.dataFrags = std::max(1u, e.dataFragments);
    it.rsrcFrags = std::max(1u, e.rsrcFragments);
    if (e.created) it.created = *e.created;
    it.modified = e.modified ? *e.modified : it.created + 60;
    std::memcpy(it.type, e.fileType, 4);
    std::memcpy(it.creator, e.creator, 4);
    it.finderFlags = e.finderFlags;
    it.mode = e.mode;
    it.uid = e.uid;
    it.ownerFlags = e.compressed ? 0x20 : 0;  // UF_COMPRESSED
    it.gid = e.gid;
    bool deleted = it.deleted;
    uint32_t index = addItem(std::move(it), parentIndex);
    for (const auto& child : e.children) addSpecEntry(child, static_cast<int32_t>(index), deleted);
  }

  void generate(const GenerateSpec& g) {
    uint64_t rng = g.seed;
    std::vector<int32_t> folders{0};
    static const char16_t* folderNames[] = {u"Folder ", u"Projects ", u"Me\u0301moires ", u"Archive 2021/", u"Ba:ckup "};
    for (uint32_t i = 0; i < g.folders; ++i) {
      int32_t parent = folders[splitmix64(rng) % folders.size()];
      std::u16string name = g.variedNames ? folderNames[i % 5] : u"d";
      for (char c : std::to_string(i)) name += static_cast<char16_t>(c);
      folders.push_back(static_cast<int32_t>(addItem(newItem(name, true), parent)));
    }
    static const char16_t* prefixes[] = {u"file ", u"Report (final) ", u"cafe\u0301 ", u"\u65e5\u672c\u8a9e ",
                                         u"a/b ", u"time 10:", u"U\u0308nicode ", u"photo_"};
    static const char16_t* suffixes[] = {u".txt", u".doc", u".txt", u".txt", u".dat", u".log", u"", u".JPG"};
    const uint64_t span = g.maxSize >= g.minSize ? g.maxSize - g.minSize + 1 : 1;
    for (uint32_t k = 0; k < g.files; ++k) {
      int32_t parent = folders[splitmix64(rng) % folders.size()];
      std::u16string name = g.variedNames ? prefixes[k % 8] : u"f";
      for (char c : std::to_string(k)) name += static_cast<char16_t>(c);
      if (g.variedNames) name += suffixes[k % 8];
      uint64_t size = g.minSize + splitmix64(rng) % span;
      Item it = newItem(name, false);
      it.dataSize = size;
      addItem(std::move(it), parent);
      // Case-only twins exist only where names compare case-sensitively.
      if (spec.hfsx && g.variedNames && k % 50 == 0) {
        std::u16string upper = name;
        for (auto& c : upper)
          if (c >= u'a' && c <= u'z') c = static_cast<char16_t>(c - 0x20);
        if (upper != name) {
          Item twin = newItem(upper, false);
          twin.dataSize = g.minSize + splitmix64(rng) % span;
          addItem(std::move(twin), parent);
        }
      }
    }
  }

  void collectItems() {
    Item root;
    root.name = utf8ToUtf16(spec.name);
    root.folder = true;
    root.cnid = kRootID;
    root.created = spec.created;
    root.modified = spec.created + 3600;
    addItem(std::move(root), -1);
    if (spec.journal) {
      Item j = newItem(u".journal", false);
      std::memcpy(j.type, "jrnl", 4);
      std::memcpy(j.creator, "hfs+", 4);
      j.finderFlags = 0x5000;  // invisible, name locked
      j.genData = false;
      journalItem = static_cast<int32_t>(addItem(std::move(j), 0));
      Item b = newItem(u".journal_info_block", false);
      std::memcpy(b.type, "jrnl", 4);
      std::memcpy(b.creator, "hfs+", 4);
      b.finderFlags = 0x5000;
      b.genData = false;
      jibItem = static_cast<int32_t>(addItem(std::move(b), 0));
    }
    for (const auto& e : spec.root) addSpecEntry(e, 0, false);
    if (spec.generate) generate(*spec.generate);
  }

  // ---- catalog records ----
  uint32_t keyParent(const CatRec& r) const { return r.thread ? items[r.item].cnid : items[r.item].parent; }

  void sortRecords(std::vector<CatRec>& recs) {
    std::sort(recs.begin(), recs.end(), [&](const CatRec& a, const CatRec& b) {
      uint32_t pa = keyParent(a), pb = keyParent(b);
      if (pa != pb) return pa < pb;
      if (a.thread != b.thread) return a.thread;
      if (a.thread) return false;
      return compareUnits(items[a.item].key, items[b.item].key) < 0;
    });
    for (size_t i = 1; i < recs.size(); ++i) {
      const auto &a = recs[i - 1], &b = recs[i];
      if (!a.thread && !b.thread && keyParent(a) == keyParent(b) && items[a.item].key == items[b.item].key)
        throw BuildError("two entries of one folder have the same name: " + utf16ToUtf8(items[b.item].name));
    }
  }

  size_t keySize(const CatRec& r) const { return 8 + (r.thread ? 0 : 2 * items[r.item].name.size()); }

  size_t recSize(const CatRec& r) const {
    const Item& it = items[r.item];
    if (r.thread) return keySize(r) + 10 + 2 * it.name.size();
    return keySize(r) + (it.folder ? sizeof(HFSPlusCatalogFolder_) : sizeof(HFSPlusCatalogFile_));
  }

  size_t writeKey(const CatRec& r, uint8_t* p) const {
    using K = HFSPlusCatalogKey_;
    const Item& it = items[r.item];
    size_t n = r.thread ? 0 : it.name.size();
    storeBE16(p + offsetof(K, keyLength), static_cast<uint16_t>(6 + 2 * n));
    storeBE32(p + offsetof(K, parentID), keyParent(r));
    storeBE16(p + offsetof(K, nodeName), static_cast<uint16_t>(n));
    for (size_t i = 0; i < n; ++i) storeBE16(p + offsetof(K, nodeName) + 2 + 2 * i, it.name[i]);
    return offsetof(K, nodeName) + 2 + 2 * n;
  }

  size_t writeRecord(const CatRec& r, uint8_t* p) const {
    const Item& it = items[r.item];
    size_t k = writeKey(r, p);
    uint8_t* d = p + k;
    if (r.thread) {
      using T = HFSPlusCatalogThread_;
      storeBE16(d + offsetof(T, recordType), it.folder ? kHFSPlusFolderThreadRecord : kHFSPlusFileThreadRecord);
      storeBE16(d + offsetof(T, reserved), 0);
      storeBE32(d + offsetof(T, parentID), it.parent);
      storeBE16(d + offsetof(T, nodeName), static_cast<uint16_t>(it.name.size()));
      for (size_t i = 0; i < it.name.size(); ++i) storeBE16(d + offsetof(T, nodeName) + 2 + 2 * i, it.name[i]);
      return k + offsetof(T, nodeName) + 2 + 2 * it.name.size();
    }
    // Folder and file records share their first 88 bytes' layout.
    using F = HFSPlusCatalogFile_;
    static_assert(offsetof(HFSPlusCatalogFolder_, folderID) == offsetof(F, fileID));
    static_assert(offsetof(HFSPlusCatalogFolder_, permissions) == offsetof(F, permissions));
    static_assert(offsetof(FolderInfo_, finderFlags) == offsetof(FileInfo_, finderFlags));
    const size_t size = it.folder ? sizeof(HFSPlusCatalogFolder_) : sizeof(F);
    std::memset(d, 0, size);
    storeBE16(d + offsetof(F, recordType), it.folder ? kHFSPlusFolderRecord : kHFSPlusFileRecord);
    storeBE16(d + offsetof(F, flags), it.folder ? 0 : kFileThreadExists);
    if (it.folder) storeBE32(d + offsetof(HFSPlusCatalogFolder_, valence), it.valence);
    storeBE32(d + offsetof(F, fileID), it.cnid);
    storeBE32(d + offsetof(F, createDate), it.created);
    storeBE32(d + offsetof(F, contentModDate), it.modified);
    storeBE32(d + offsetof(F, attributeModDate), it.modified);
    storeBE32(d + offsetof(F, accessDate), it.modified);
    uint8_t* bsd = d + offsetof(F, permissions);
    storeBE32(bsd + offsetof(HFSPlusBSDInfo_, ownerID), it.uid);
    storeBE32(bsd + offsetof(HFSPlusBSDInfo_, groupID), it.gid);
    bsd[offsetof(HFSPlusBSDInfo_, ownerFlags)] = it.ownerFlags;
    uint16_t mode = it.mode ? it.mode : (it.folder ? 0755 : 0644);
    storeBE16(bsd + offsetof(HFSPlusBSDInfo_, fileMode), static_cast<uint16_t>((it.folder ? 0040000 : 0100000) | (mode & 07777)));
    uint8_t* info = d + offsetof(F, userInfo);
    storeBE16(info + offsetof(FileInfo_, finderFlags), it.finderFlags);
    if (!it.folder) {
      storeBE32(bsd + offsetof(HFSPlusBSDInfo_, special), 1);  // link count
      std::memcpy(info + offsetof(FileInfo_, fileType), it.type, 4);
      std::memcpy(info + offsetof(FileInfo_, fileCreator), it.creator, 4);
      putForkData(d + offsetof(F, dataFork), it.dataSize, 0, sumBlocks(it.dataExt), it.dataExt);
      putForkData(d + offsetof(F, resourceFork), it.rsrcSize, 0, sumBlocks(it.rsrcExt), it.rsrcExt);
    }
    return k + size;
  }

  BTreeSource catalogSource(const std::vector<CatRec>& recs) const {
    BTreeSource s;
    s.count = recs.size();
    s.leafSize = [this, &recs](size_t i) { return recSize(recs[i]); };
    s.leafRecord = [this, &recs](size_t i, uint8_t* p) { return writeRecord(recs[i], p); };
    s.indexKeySize = [this, &recs](size_t i) { return keySize(recs[i]); };
    s.indexKey = [this, &recs](size_t i, uint8_t* p) { return writeKey(recs[i], p); };
    return s;
  }

  // ---- extents overflow records ----
  const std::vector<ExtentLayout>& overflowExtents(const OverflowRec& r) const {
    if (r.item < 0) return catalogExtents;
    const Item& it = items[r.item];
    return r.forkType == kDataForkType ? it.dataExt : it.rsrcExt;
  }

  BTreeSource extentsSource() const {
    BTreeSource s;
    s.count = overflow.size();
    s.leafSize = [](size_t) { return size_t(12 + 64); };
    s.indexKeySize = [](size_t) { return size_t(12); };
    s.indexKey = [this](size_t i, uint8_t* p) {
      using K = HFSPlusExtentKey_;
      const auto& r = overflow[i];
      storeBE16(p + offsetof(K, keyLength), sizeof(K) - 2);
      p[offsetof(K, forkType)] = r.forkType;
      p[offsetof(K, pad)] = 0;
      storeBE32(p + offsetof(K, fileID), r.fileID);
      storeBE32(p + offsetof(K, startBlock), r.startBlock);
      return sizeof(K);
    };
    s.leafRecord = [this, s](size_t i, uint8_t* p) {
      s.indexKey(i, p);
      std::memset(p + 12, 0, 64);
      const auto& ext = overflowExtents(overflow[i]);
      for (uint32_t k = 0; k < 8 && overflow[i].first + k < ext.size(); ++k) {
        storeBE32(p + 12 + 8 * k, ext[overflow[i].first + k].startBlock);
        storeBE32(p + 16 + 8 * k, ext[overflow[i].first + k].blockCount);
      }
      return size_t(76);
    };
    return s;
  }

  void addOverflow(uint32_t fileID, uint8_t forkType, int32_t item, const std::vector<uint32_t>& pieces) {
    uint32_t start = 0;
    for (uint32_t i = 0; i < pieces.size(); ++i) {
      if (i >= 8 && i % 8 == 0) overflow.push_back({fileID, forkType, start, item, i});
      start += pieces[i];
    }
  }

  uint32_t forkBlocks(uint64_t size) const { return static_cast<uint32_t>(ceilDiv(size, bs)); }

  // Node count of a B-tree file of at least `used` nodes, with free nodes and
  // map nodes, rounded to whole blocks and to `unit`-block pieces.
  uint32_t sizeTree(const BTreePlan& plan, uint32_t nodeSize, uint32_t slack, uint32_t pieces, uint32_t& blocks) {
    uint32_t per = std::max<uint32_t>(1, nodeSize / bs);  // blocks per node when nodes are larger
    uint32_t total = plan.usedNodes + slack;
    for (;;) {
      uint32_t need = plan.usedNodes + mapNodesFor(total, nodeSize);
      if (need > total) {
        total = need + slack;
        continue;
      }
      uint64_t bytes = roundUp(uint64_t(total) * nodeSize, std::max(nodeSize, bs));
      uint64_t b = bytes / bs;
      b = std::max<uint64_t>(b, uint64_t(pieces) * per);
      b = roundUp(b, per);
      blocks = static_cast<uint32_t>(b);
      uint32_t finalTotal = static_cast<uint32_t>(b * bs / nodeSize);
      if (plan.usedNodes + mapNodesFor(finalTotal, nodeSize) <= finalTotal) return finalTotal;
      total = finalTotal + slack;
    }
  }

  void planTrees() {
    for (uint32_t i = 0; i < items.size(); ++i) {
      if (!items[i].deleted) {
        liveRecs.push_back({i, false});
        liveRecs.push_back({i, true});
      }
      if (!items[i].deleted || items[i].inOldNodes) {
        oldRecs.push_back({i, false});
        oldRecs.push_back({i, true});
      }
    }
    sortRecords(liveRecs);
    bool anyDeleted = oldRecs.size() != liveRecs.size();
    if (anyDeleted) sortRecords(oldRecs);
    catPlan = planBTree(catalogSource(liveRecs), spec.nodeSize);
    catNodeBlocks = std::max<uint32_t>(1, spec.nodeSize / bs);
    catTotalNodes = sizeTree(catPlan, spec.nodeSize, std::max<uint32_t>(4, catPlan.usedNodes / 8), spec.catalogExtents, catBlocks);
    catPieces = pieceSizes(catBlocks, spec.catalogExtents, catNodeBlocks);

    for (uint32_t i = 0; i < items.size(); ++i) {
      const Item& it = items[i];
      if (it.folder) continue;
      if (it.dataFrags > 1 && it.dataFrags > forkBlocks(it.dataSize))
        throw BuildError("more fragments than blocks: " + utf16ToUtf8(it.name));
      if (it.rsrcFrags > 1 && it.rsrcFrags > forkBlocks(it.rsrcSize))
        throw BuildError("more fragments than blocks: " + utf16ToUtf8(it.name));
      if (it.deleted) continue;  // the overflow file holds live forks only
      if (it.dataFrags > 8) addOverflow(it.cnid, kDataForkType, static_cast<int32_t>(i), pieceSizes(forkBlocks(it.dataSize), it.dataFrags, 1));
      if (it.rsrcFrags > 8) addOverflow(it.cnid, kResourceForkType, static_cast<int32_t>(i), pieceSizes(forkBlocks(it.rsrcSize), it.rsrcFrags, 1));
    }
    if (catPieces.size() > 8) addOverflow(kCatalogFileID, kDataForkType, -1, catPieces);
    std::sort(overflow.begin(), overflow.end(), [](const OverflowRec& a, const OverflowRec& b) {
      if (a.fileID != b.fileID) return a.fileID < b.fileID;
      if (a.forkType != b.forkType) return a.forkType < b.forkType;
      return a.startBlock < b.startBlock;
    });
    extPlan = planBTree(extentsSource(), spec.extentsNodeSize);
    extTotalNodes = sizeTree(extPlan, spec.extentsNodeSize, 4, 1, extBlocks);
    for (const Item& it : items) {
      if (it.deleted || !it.spec) continue;
      for (const XattrSpec& x : it.spec->xattrs) attrRecs.push_back({it.cnid, utf8ToUtf16(x.name), &x.value});
    }
    sortAttributes(attrRecs);
    attrPlan = planBTree(attributesSource(attrRecs), spec.nodeSize);
    attrTotalNodes = sizeTree(attrPlan, spec.nodeSize, 1, 1, attrBlocks);

    if (anyDeleted) {
      oldPlan = planBTree(catalogSource(oldRecs), spec.nodeSize);
      for (const auto& leaf : oldPlan.levels[0]) {
        for (uint32_t r = 0; r < leaf.count; ++r)
          if (items[oldRecs[leaf.first + r].item].deleted) {
            oldLeavesWithDeleted.push_back(leaf.number);
            break;
          }
      }
    }
  }

  // ---- blocks ----
  uint32_t headBlocks() const { return static_cast<uint32_t>(ceilDiv(1536, bs)); }
  uint32_t tailBlocks() const { return static_cast<uint32_t>(ceilDiv(1024, bs)); }
  uint32_t nodeCopyBlocks() const { return static_cast<uint32_t>(ceilDiv(spec.nodeSize, bs)); }
  uint64_t bitmapBlocks(uint64_t total) const { return ceilDiv(ceilDiv(total, 8), bs); }

  uint64_t journalBytesNeeded() const {
    uint64_t n = oldLeavesWithDeleted.size();
    uint64_t tx = std::max<uint64_t>(1, ceilDiv(n + 1, kBlockListHeaderSize / 16 - 1));
    return kJournalHeaderSize + tx * kBlockListHeaderSize + 512 + n * spec.nodeSize;
  }

  void planBlocks() {
    uint64_t b = headBlocks() + tailBlocks() + extBlocks + attrBlocks + catBlocks + (catPieces.size() - 1);
    if (spec.journal) {
      uint64_t jbytes = spec.journalSize ? spec.journalSize : std::max<uint64_t>(512 * 1024, 2 * journalBytesNeeded());
      if (jbytes < journalBytesNeeded()) throw BuildError("journal too small for its node copies");
      journalBlocks = static_cast<uint32_t>(ceilDiv(roundUp(jbytes, 4096), bs));
      b += 1 + journalBlocks;
    }
    for (const auto& it : items) {
      if (it.folder) continue;
      b += forkBlocks(it.dataSize) + (it.dataFrags - 1) + forkBlocks(it.rsrcSize) + (it.rsrcFrags - 1);
    }
    for (const auto& p : spec.freePayloads) b += ceilDiv(p.bytes ? p.bytes->size() : p.size, bs) + 1;
    b += uint64_t(spec.damage.oldNodeCopies) * (nodeCopyBlocks() + 1);
    fixedBlocks = b;
  }

  uint64_t minimumBlocks() const {
    uint64_t t = fixedBlocks + 1;
    for (int i = 0; i < 4; ++i) t = fixedBlocks + bitmapBlocks(t);
    return t + t / 8 + 16;
  }

  // ---- writing ----
  std::vector<ExtentLayout> catalogExtents, extentsExtents, allocExtents, attrExtents;
  std::vector<uint8_t> bitmap;
  uint64_t next = 0;
  uint64_t totalBlocks = 0;
  uint64_t volStart = 0;  // HPlusVolStart
  ImageFile* image = nullptr;

  void markUsed(uint64_t start, uint64_t count) {
    for (uint64_t b = start; b < start + count; ++b) bitmap[b / 8] |= static_cast<uint8_t>(0x80 >> (b % 8));
  }
  void markFree(const std::vector<ExtentLayout>& ext) {
    for (const auto& e : ext)
      for (uint64_t b = e.startBlock; b < uint64_t(e.startBlock) + e.blockCount; ++b)
        bitmap[b / 8] &= static_cast<uint8_t>(~(0x80 >> (b % 8)));
  }

  uint32_t allocate(uint64_t count, bool used) {
    if (next + count > totalBlocks - tailBlocks()) throw BuildError("volume too small for its content");
    auto start = static_cast<uint32_t>(next);
    if (used) markUsed(next, count);
    next += count;
    return start;
  }

  std::vector<ExtentLayout> allocatePieces(const std::vector<uint32_t>& pieces, bool used) {
    std::vector<ExtentLayout> out;
    for (size_t i = 0; i < pieces.size(); ++i) {
      if (pieces[i] == 0) continue;
      out.push_back({allocate(pieces[i], used), pieces[i]});
      if (i + 1 < pieces.size()) allocate(1, false);  // a free gap splits the runs
    }
    return out;
  }

  uint64_t byteOf(uint32_t block) const { return (volStart + uint64_t(block) * (bs / 512)) * 512; }

  // Absolute byte offset of a fork offset; the caller keeps writes within one extent.
  uint64_t forkByte(const std::vector<ExtentLayout>& ext, uint64_t offset) const {
    for (const auto& e : ext) {
      uint64_t len = uint64_t(e.blockCount) * bs;
      if (offset < len) return byteOf(e.startBlock) + offset;
      offset -= len;
    }
    throw BuildError("offset beyond a fork's extents");
  }

  void writeFork(const std::vector<ExtentLayout>& ext, uint64_t size, bool generated, uint64_t seed,
                 const std::vector<uint8_t>* bytes) {
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

  void writeTree(const BTreePlan& plan, const BTreeSource& src, const BTreeParams& params, uint32_t totalNodes,
                 uint32_t leafRecords, const std::vector<ExtentLayout>& ext, BTreeLayout* layout) {
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

  BTreeParams catalogParams() const {
    BTreeParams p;
    p.nodeSize = spec.nodeSize;
    p.maxKeyLength = 516;
    p.keyCompareType = spec.hfsx ? 0xBC : 0xCF;
    p.attributes = kBTBigKeys | kBTVariableIndexKeys;
    p.clumpSize = catBlocks * bs;
    return p;
  }

  std::vector<uint8_t> volumeHeader(const VolumeLayout& v) const {
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

  std::string pathOf(uint32_t index, std::vector<std::string>& cache) const {
    if (index == 0) return "";
    if (!cache[index].empty()) return cache[index];
    std::string name = utf16ToUtf8(items[index].name);
    std::replace(name.begin(), name.end(), '/', ':');
    std::string parent = pathOf(static_cast<uint32_t>(items[index].parentIndex), cache);
    cache[index] = parent.empty() ? name : parent + "/" + name;
    return cache[index];
  }

  VolumeLayout write(ImageFile& img, uint64_t startSector, uint64_t sectors) {
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
      writeFork(it.dataExt, it.dataSize, it.genData, it.dataSeed, it.spec && it.spec->data ? &*it.spec->data : nullptr);
      writeFork(it.rsrcExt, it.rsrcSize, it.genRsrc, it.rsrcSeed, it.spec && it.spec->rsrc ? &*it.spec->rsrc : nullptr);
    }
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
    for (size_t i = 0; i < copyBlocks.size(); ++i) {
      std::vector<uint8_t> node(spec.nodeSize);
      if (i < oldNodes.size()) {
        node = oldNodes[i];
      } else if (!catPlan.levels.empty()) {
        const auto& leaves = v.catalog.nodes;
        std::vector<const NodeLayout*> leafNodes;
        for (const auto& n : leaves)
          if (n.kind == -1) leafNodes.push_back(&n);
        image->read(leafNodes[i % leafNodes.size()]->sector * 512, node.data(), node.size());
      }
      image->write(byteOf(copyBlocks[i]), node.data(), node.size());
      v.freeSpaceNodeCopySectors.push_back(byteOf(copyBlocks[i]) / 512);
    }

    image->write(byteOf(0) + 1024, header.data(), 512);
    v.alternateHeaderSector = volStart + volSectors - 2;
    image->write(v.alternateHeaderSector * 512, header.data(), 512);
    if (spec.wrapper) writeWrapper(startSector, wrapBlock, wrapBlocks, sectors);

    // Entries of the layout.
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
      v.entries.push_back(std::move(f));
    }
    applyDamage(v);
    return v;
  }

  std::vector<std::vector<uint8_t>> renderOldLeaves() {
    std::vector<std::vector<uint8_t>> out;
    if (oldLeavesWithDeleted.empty()) return out;
    std::set<uint32_t> wanted(oldLeavesWithDeleted.begin(), oldLeavesWithDeleted.end());
    // The deleted entries' extents were allocated above, so their old records carry them.
    writeBTree(oldPlan, catalogSource(oldRecs), catalogParams(), oldPlan.usedNodes + mapNodesFor(oldPlan.usedNodes, spec.nodeSize),
               static_cast<uint32_t>(oldRecs.size()),
               [&](uint32_t n, const uint8_t* bytes) {
                 if (wanted.count(n)) out.emplace_back(bytes, bytes + spec.nodeSize);
               },
               nullptr);
    return out;
  }

  void writeJournal(VolumeLayout& v, uint32_t jibBlock, uint32_t journalBlock, const std::vector<uint8_t>& header,
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
    const uint32_t perTx = kBlockListHeaderSize / 16 - 1;
    uint64_t pos = kJournalHeaderSize;
    size_t nextNode = 0;
    bool headerDone = false;
    // Old transactions, already checkpointed: a copy of the volume header
    // (as the journal keeps it) and leaf node images from before the deletions.
    while (!headerDone || nextNode < oldNodes.size()) {
      std::vector<uint8_t> blhdr(kBlockListHeaderSize, 0);
      std::vector<std::pair<uint64_t, const uint8_t*>> blocks;
      std::vector<uint32_t> sizes;
      if (!headerDone) {
        blocks.push_back({2, header.data()});
        sizes.push_back(512);
        headerDone = true;
      }
      while (blocks.size() < perTx - 1 && nextNode < oldNodes.size()) {
        blocks.push_back({liveSectorOf(oldLeavesWithDeleted[nextNode]), oldNodes[nextNode].data()});
        sizes.push_back(spec.nodeSize);
        ++nextNode;
      }
      uint32_t bytesUsed = kBlockListHeaderSize;
      for (uint32_t s : sizes) bytesUsed += s;
      if (pos + bytesUsed > jSize) throw BuildError("journal too small");
      storeLE16(&blhdr[0], static_cast<uint16_t>(perTx));
      storeLE16(&blhdr[2], static_cast<uint16_t>(blocks.size() + 1));
      storeLE32(&blhdr[4], bytesUsed);
      for (size_t i = 0; i < blocks.size(); ++i) {
        storeLE64(&blhdr[16 * (i + 1)], blocks[i].first);
        storeLE32(&blhdr[16 * (i + 1) + 8], sizes[i]);
      }
      storeLE32(&blhdr[8], checksum(blhdr.data(), 32));
      image->write(byteOf(journalBlock) + pos, blhdr.data(), blhdr.size());
      uint64_t at = pos + kBlockListHeaderSize;
      for (size_t i = 0; i < blocks.size(); ++i) {
        image->write(byteOf(journalBlock) + at, blocks[i].second, sizes[i]);
        if (sizes[i] == spec.nodeSize) v.journalNodeCopySectors.push_back((byteOf(journalBlock) + at) / 512);
        at += sizes[i];
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

  void writeWrapper(uint64_t start, uint32_t unit, uint32_t blocks, uint64_t sectors) {
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

  uint64_t nodeSector(uint32_t node) const { return forkByte(catalogExtents, uint64_t(node) * spec.nodeSize) / 512; }

  void applyDamage(VolumeLayout& v) {
    const auto& d = spec.damage;
    uint64_t rng = d.overwriteSeed;
    auto randomFill = [&](std::vector<uint8_t>& buf) {
      for (size_t i = 0; i < buf.size(); i += 8) {
        uint64_t r = splitmix64(rng);
        std::memcpy(&buf[i], &r, std::min<size_t>(8, buf.size() - i));
      }
    };
    if (d.primaryHeader != VolumeDamage::Header::Intact) {
      std::vector<uint8_t> h(512, 0);
      if (d.primaryHeader == VolumeDamage::Header::Corrupted) {
        randomFill(h);
        h[0] = 0xDE;  // never a valid signature
      }
      image->write(byteOf(0) + 1024, h.data(), h.size());
    }
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
    if (d.catalogHeaderCorrupted) {
      std::vector<uint8_t> junk(512);
      randomFill(junk);
      junk[8] = 0x7F;     // not a header node kind
      junk[11] = 0x99;    // nor three records
      image->write(nodeSector(0) * 512, junk.data(), junk.size());
    }
  }
};

VolumeBuilder::VolumeBuilder(const VolumeSpec& spec) : impl_(new Impl(spec)) {}
VolumeBuilder::~VolumeBuilder() { delete impl_; }

uint64_t VolumeBuilder::minimumSectors() const {
  const auto& s = impl_->spec;
  uint64_t bytes = s.sizeBytes ? s.sizeBytes : impl_->minimumBlocks() * s.blockSize;
  bytes = roundUp(bytes, s.blockSize);
  uint64_t sectors = bytes / 512;
  if (s.wrapper) {
    // Room for the wrapper's own sectors and its block 0 at the coarsest unit.
    uint64_t unit = roundUp(std::max<uint64_t>(ceilDiv(sectors * 512 * 2, 4000), s.blockSize), s.blockSize);
    sectors = roundUp(sectors, unit / 512) + 6 + 2 * unit / 512;
  }
  return sectors;
}

VolumeLayout VolumeBuilder::write(ImageFile& image, uint64_t startSector, uint64_t sectors) {
  return impl_->write(image, startSector, sectors);
}

}  // namespace ambrel::mkimage
