// One HFS+/HFSX volume: its entries, catalog and extents records, and the
// plan of its B-trees and blocks.
#include <algorithm>
#include <cstring>
#include <set>

#include "VolumeImpl.h"

namespace ambrel::mkimage {

VolumeBuilder::Impl::Impl(const VolumeSpec& s) : spec(s) {
  bs = spec.blockSize;
  if (bs < 512 || bs > 65536 || (bs & (bs - 1))) throw BuildError("block size must be a power of two from 512");
  for (uint32_t ns : {spec.nodeSize, spec.extentsNodeSize})
    if (ns < 512 || ns > 32768 || (ns & (ns - 1))) throw BuildError("node size must be a power of two, 512 to 32768");
  if (spec.catalogExtents == 0) throw BuildError("the catalog needs at least one extent");
  collectItems();
  planTrees();
  planBlocks();
}

// ---- items ----
uint32_t VolumeBuilder::Impl::addItem(Item item, int32_t parentIndex) {
  item.parentIndex = parentIndex;
  item.parent = parentIndex < 0 ? 1 : items[parentIndex].cnid;
  if (item.name.empty() || item.name.size() > 255) throw BuildError("names must have 1 to 255 UTF-16 units");
  item.key = keyOf(item.name);
  if (parentIndex >= 0 && !item.deleted) items[parentIndex].valence++;
  items.push_back(std::move(item));
  return static_cast<uint32_t>(items.size() - 1);
}

Item VolumeBuilder::Impl::newItem(const std::u16string& name, bool folder) {
  Item it;
  it.name = name;
  it.folder = folder;
  it.cnid = nextID++;
  it.created = spec.created + (it.cnid % 86400);
  it.modified = it.created + 60;
  it.dataSeed = spec.seed * 1000003ULL + it.cnid * 2;
  it.rsrcSeed = it.dataSeed + 1;
  it.previousSeed = it.dataSeed ^ 0x5EA50000000ULL;
  return it;
}

void VolumeBuilder::Impl::addSpecEntry(const EntrySpec& e, int32_t parentIndex, bool parentDeleted) {
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
  it.accessed = e.accessed;
  if (e.previousSize) {
    if (e.folder || !e.children.empty() || it.deleted) throw BuildError("only a live file has an earlier version: " + e.name);
    it.hasPrevious = true;
    it.previousSize = *e.previousSize;
    it.previousReused = e.previousBlocksReused;
  }
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

void VolumeBuilder::Impl::generate(const GenerateSpec& g) {
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

void VolumeBuilder::Impl::collectItems() {
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
    j.accessed = 0;  // as Mac OS leaves them
    journalItem = static_cast<int32_t>(addItem(std::move(j), 0));
    Item b = newItem(u".journal_info_block", false);
    std::memcpy(b.type, "jrnl", 4);
    std::memcpy(b.creator, "hfs+", 4);
    b.finderFlags = 0x5000;
    b.genData = false;
    b.accessed = 0;
    jibItem = static_cast<int32_t>(addItem(std::move(b), 0));
  }
  for (const auto& e : spec.root) addSpecEntry(e, 0, false);
  if (spec.generate) generate(*spec.generate);
  makeLinks();
}

void VolumeBuilder::Impl::sortRecords(std::vector<CatRec>& recs) {
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

size_t VolumeBuilder::Impl::recSize(const CatRec& r) const {
  const Item& it = items[r.item];
  if (r.thread) return keySize(r) + 10 + 2 * it.name.size();
  return keySize(r) + (it.folder ? sizeof(HFSPlusCatalogFolder_) : sizeof(HFSPlusCatalogFile_));
}

size_t VolumeBuilder::Impl::writeKey(const CatRec& r, uint8_t* p) const {
  using K = HFSPlusCatalogKey_;
  const Item& it = items[r.item];
  size_t n = r.thread ? 0 : it.name.size();
  storeBE16(p + offsetof(K, keyLength), static_cast<uint16_t>(6 + 2 * n));
  storeBE32(p + offsetof(K, parentID), keyParent(r));
  storeBE16(p + offsetof(K, nodeName), static_cast<uint16_t>(n));
  for (size_t i = 0; i < n; ++i) storeBE16(p + offsetof(K, nodeName) + 2 + 2 * i, it.name[i]);
  return offsetof(K, nodeName) + 2 + 2 * n;
}

size_t VolumeBuilder::Impl::writeRecord(const CatRec& r, uint8_t* p) const {
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
  storeBE16(d + offsetof(F, flags), static_cast<uint16_t>((it.folder ? 0 : kFileThreadExists) | it.flags));
  if (it.folder) storeBE32(d + offsetof(HFSPlusCatalogFolder_, valence), it.valence);
  storeBE32(d + offsetof(F, fileID), it.cnid);
  storeBE32(d + offsetof(F, createDate), it.created);
  storeBE32(d + offsetof(F, contentModDate), it.modified);
  storeBE32(d + offsetof(F, attributeModDate), it.modified);
  storeBE32(d + offsetof(F, accessDate), it.accessed ? *it.accessed : it.modified);
  uint8_t* bsd = d + offsetof(F, permissions);
  storeBE32(bsd + offsetof(HFSPlusBSDInfo_, ownerID), it.uid);
  storeBE32(bsd + offsetof(HFSPlusBSDInfo_, groupID), it.gid);
  bsd[offsetof(HFSPlusBSDInfo_, ownerFlags)] = it.ownerFlags;
  uint16_t mode = it.mode ? it.mode : (it.folder ? 0755 : 0644);
  const uint16_t modeType = it.modeType ? it.modeType : (it.folder ? 0040000 : 0100000);
  storeBE16(bsd + offsetof(HFSPlusBSDInfo_, fileMode), static_cast<uint16_t>(modeType | (mode & 07777)));
  uint8_t* info = d + offsetof(F, userInfo);
  storeBE16(info + offsetof(FileInfo_, finderFlags), it.finderFlags);
  if (!it.folder) {
    storeBE32(bsd + offsetof(HFSPlusBSDInfo_, special), it.special);
    std::memcpy(info + offsetof(FileInfo_, fileType), it.type, 4);
    std::memcpy(info + offsetof(FileInfo_, fileCreator), it.creator, 4);
    if (renderingOld && it.hasPrevious)
      putForkData(d + offsetof(F, dataFork), it.previousSize, 0, sumBlocks(it.previousExt), it.previousExt);
    else
      putForkData(d + offsetof(F, dataFork), it.dataSize, 0, sumBlocks(it.dataExt), it.dataExt);
    putForkData(d + offsetof(F, resourceFork), it.rsrcSize, 0, sumBlocks(it.rsrcExt), it.rsrcExt);
  }
  return k + size;
}

BTreeSource VolumeBuilder::Impl::catalogSource(const std::vector<CatRec>& recs) const {
  BTreeSource s;
  s.count = recs.size();
  s.leafSize = [this, &recs](size_t i) { return recSize(recs[i]); };
  s.leafRecord = [this, &recs](size_t i, uint8_t* p) { return writeRecord(recs[i], p); };
  s.indexKeySize = [this, &recs](size_t i) { return keySize(recs[i]); };
  s.indexKey = [this, &recs](size_t i, uint8_t* p) { return writeKey(recs[i], p); };
  return s;
}

// ---- extents overflow records ----
const std::vector<ExtentLayout>& VolumeBuilder::Impl::overflowExtents(const OverflowRec& r) const {
  if (r.item < 0) return catalogExtents;
  const Item& it = items[r.item];
  return r.forkType == kDataForkType ? it.dataExt : it.rsrcExt;
}

BTreeSource VolumeBuilder::Impl::extentsSource() const {
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

void VolumeBuilder::Impl::addOverflow(uint32_t fileID, uint8_t forkType, int32_t item, const std::vector<uint32_t>& pieces) {
  uint32_t start = 0;
  for (uint32_t i = 0; i < pieces.size(); ++i) {
    if (i >= 8 && i % 8 == 0) overflow.push_back({fileID, forkType, start, item, i});
    start += pieces[i];
  }
}

// Node count of a B-tree file of at least `used` nodes, with free nodes and
// map nodes, rounded to whole blocks and to `unit`-block pieces.
uint32_t VolumeBuilder::Impl::sizeTree(const BTreePlan& plan, uint32_t nodeSize, uint32_t slack, uint32_t pieces, uint32_t& blocks) {
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

void VolumeBuilder::Impl::planTrees() {
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
  for (const Item& it : items) anyDeleted = anyDeleted || it.hasPrevious;
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
        if (items[oldRecs[leaf.first + r].item].deleted || items[oldRecs[leaf.first + r].item].hasPrevious) {
          oldLeavesWithDeleted.push_back(leaf.number);
          break;
        }
    }
  }
}

uint64_t VolumeBuilder::Impl::journalBytesNeeded() const {
  uint64_t n = oldLeavesWithDeleted.size() + spec.journalLeafCopies;
  uint64_t tx = std::max<uint64_t>(1, ceilDiv(n + 1, kBlockListHeaderSize / 16 - 1));
  return kJournalHeaderSize + tx * kBlockListHeaderSize + 512 + n * spec.nodeSize;
}

void VolumeBuilder::Impl::planBlocks() {
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
    if (it.hasPrevious) b += forkBlocks(it.previousSize) + 1;
  }
  for (const auto& p : spec.freePayloads) b += ceilDiv(p.bytes ? p.bytes->size() : p.size, bs) + 1;
  b += uint64_t(spec.damage.oldNodeCopies) * (nodeCopyBlocks() + 1);
  fixedBlocks = b;
}

uint64_t VolumeBuilder::Impl::minimumBlocks() const {
  uint64_t t = fixedBlocks + 1;
  for (int i = 0; i < 4; ++i) t = fixedBlocks + bitmapBlocks(t);
  return t + t / 8 + 16;
}

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
