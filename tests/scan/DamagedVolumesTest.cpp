// Image-builder volumes of every block and node size, each damaged in the
// ways a failing drive damages them, scanned and measured against the
// undamaged copy: nothing listed with wrong bytes, no file twice, every file
// whose record survives found.
#include <gtest/gtest.h>

#include <functional>

#include "ImageBuilder.h"
#include "scan/DamageTally.h"
#include "support/BuiltEntries.h"

using namespace ambrel;
using namespace ambrel::test;
namespace mk = ambrel::mkimage;

namespace {

struct Damage {
  const char* name;
  std::function<void(mk::VolumeDamage&)> apply;
};

const std::vector<Damage>& damages() {
  static const std::vector<Damage> all = {
      {"none", [](mk::VolumeDamage&) {}},
      {"catalog header", [](mk::VolumeDamage& d) { d.catalogHeaderCorrupted = true; }},
      {"extents header", [](mk::VolumeDamage& d) { d.extentsHeaderCorrupted = true; }},
      {"root node", [](mk::VolumeDamage& d) { d.catalogRootCorrupted = true; }},
      {"10% of leaves", [](mk::VolumeDamage& d) { d.overwriteLeafPercent = 10; }},
      {"primary header", [](mk::VolumeDamage& d) { d.primaryHeader = mk::VolumeDamage::Header::Zeroed; }},
      {"first 1 MiB", [](mk::VolumeDamage& d) { d.zeroFirstBytes = 1 << 20; }},
      {"both headers",
       [](mk::VolumeDamage& d) {
         d.primaryHeader = mk::VolumeDamage::Header::Zeroed;
         d.alternateHeader = mk::VolumeDamage::Header::Zeroed;
       }},
  };
  return all;
}

// A journaled volume with a generated tree, a few deleted files, a file with
// an earlier version, and forks that overflow into the extents file.
mk::VolumeSpec contentVolume(uint32_t blockSize, uint32_t nodeSize, bool journal = true) {
  mk::VolumeSpec v;
  v.blockSize = blockSize;
  v.nodeSize = nodeSize;
  v.journal = journal;
  v.journalLeafCopies = journal ? 3 : 0;
  // Leaf copies in free space, past the volume's first megabyte.
  v.damage.oldNodeCopies = journal ? 6 : 0;
  v.generate = mk::GenerateSpec{500, 40, 7, 1, 24000, true};
  mk::EntrySpec docs;
  docs.name = "Docs";
  docs.folder = true;
  docs.children.push_back(sizedFile("scattered.bin", 40 * uint64_t{blockSize}, 12));
  if (journal) {
    mk::EntrySpec edited = sizedFile("edited.txt", 5000);
    edited.previousSize = 3000;
    docs.children.push_back(edited);
    mk::EntrySpec gone = sizedFile("gone.txt", 7000);
    gone.deleted = true;
    docs.children.push_back(gone);
  }
  v.root.push_back(docs);
  return v;
}

struct BuiltPair {
  TempDir dir;
  std::string intact = (dir / "intact.img").string();
  std::string damaged = (dir / "damaged.img").string();
  mk::VolumeLayout layout;
};

std::unique_ptr<BuiltPair> buildPair(mk::VolumeSpec described, const Damage& damage) {
  auto b = std::make_unique<BuiltPair>();
  mk::DriveSpec d;
  d.table = mk::TableKind::None;
  d.volume = described;
  mk::buildImage(d, b->intact);
  damage.apply(d.volume->damage);
  b->layout = *mk::buildImage(d, b->damaged).volume;
  return b;
}

// Whether the damage left the sectors from `sector` on (`count` of them) alone.
bool intactSectors(const mk::VolumeLayout& l, const mk::VolumeDamage& d, uint64_t sector, uint64_t count) {
  const uint64_t zeroedEnd = l.startSector + d.zeroFirstBytes / 512;
  return sector >= zeroedEnd || sector + count <= l.startSector;
}

// The live files of the volume with their bytes from the undamaged copy; a
// file whose record no intact node holds any more is marked lost. Records
// read from copies, and from live leaves when the scan cannot follow the
// chain (liveChecked), must pass the content checks: the journal's own files,
// with access date 0, do not.
std::vector<ExpectedFile> expectedFiles(const BuiltPair& b, const mk::VolumeDamage& damage, bool copiesCount,
                                        bool liveChecked = false) {
  const mk::VolumeLayout& l = b.layout;
  const int32_t blockSectors = static_cast<int32_t>(l.blockSize / 512);
  const uint64_t nodeSectors = l.catalog.nodeSize / 512;
  std::set<uint32_t> overwritten(l.overwrittenNodes.begin(), l.overwrittenNodes.end());
  auto liveNodeIntact = [&](uint32_t node) {
    if (node == 0 || overwritten.count(node)) return false;
    for (const auto& n : l.catalog.nodes)
      if (n.node == node) return intactSectors(l, damage, n.sector, nodeSectors);
    return false;
  };
  auto toExtents = [](const std::vector<mk::ExtentLayout>& in) {
    std::vector<Extent> out;
    for (const auto& e : in) out.push_back({e.startBlock, e.blockCount});
    return out;
  };
  // A copy of the old catalog holds a file's earlier version, not the file.
  auto copyHolds = [&](const mk::FileLayout& e, bool thread) {
    for (const auto& c : l.nodeCopies) {
      if (c.old && e.hasPrevious && !thread) continue;
      const uint32_t id = e.cnid;
      const auto& list = thread ? c.threads : c.records;
      if (std::count(list.begin(), list.end(), id) && intactSectors(l, damage, c.sector, nodeSectors)) return true;
    }
    return false;
  };
  auto survives = [&](const mk::FileLayout& e, bool zeroAccess) {
    return (liveNodeIntact(e.recordNode) && !(zeroAccess && liveChecked)) ||
           (copiesCount && !zeroAccess && copyHolds(e, false));
  };
  auto threadSurvives = [&](const mk::FileLayout& e) {
    return liveNodeIntact(e.threadNode) || (copiesCount && copyHolds(e, true));
  };
  std::map<uint32_t, const mk::FileLayout*> byID;
  for (const auto& e : l.entries)
    if (!e.deleted) byID[e.cnid] = &e;
  std::vector<ExpectedFile> out;
  for (const auto& e : l.entries) {
    if (e.folder || e.deleted) continue;
    ExpectedFile f;
    f.path = e.path;
    f.id = e.cnid;
    f.dataExt = toExtents(e.dataExtents);
    f.rscExt = toExtents(e.rsrcExtents);
    // Bytes the damage itself destroyed cannot come back: a file in zeroed
    // sectors is expected to read as the damaged volume holds it.
    bool zeroed = false;
    for (const auto* list : {&f.dataExt, &f.rscExt})
      for (const Extent& x : *list)
        zeroed |= !intactSectors(l, damage, l.blockToSector(x.startBlock), uint64_t{x.blockCount} * l.blockSize / 512);
    const std::string& source = zeroed ? b.damaged : b.intact;
    f.data = forkBytes(source, l.HPlusVolStart, blockSectors, f.dataExt, e.dataSize);
    f.rsrc = forkBytes(source, l.HPlusVolStart, blockSectors, f.rscExt, e.rsrcSize);
    const bool zeroAccess = e.name == ".journal" || e.name == ".journal_info_block";
    f.recordLost = !survives(e, zeroAccess);
    for (uint32_t up = e.parentID; up > kRootFolderID && !f.pathLost;) {
      const mk::FileLayout* folder = byID[up];
      if (!folder) break;
      f.pathLost = !survives(*folder, false) && !threadSurvives(*folder);
      up = folder->parentID;
    }
    out.push_back(std::move(f));
  }
  return out;
}

// Damage after which no scan can follow the catalog's leaf chain.
bool chainLost(const std::string& damage) { return damage == "catalog header" || damage == "both headers"; }

const Damage& damageNamed(const std::string& name) {
  for (const Damage& d : damages())
    if (name == d.name) return d;
  throw std::runtime_error("no damage " + name);
}

}  // namespace

// An unjournaled volume (no copies to fall back on) scanned by the advanced
// scan. With no catalog header the node size is read off the nodes
// themselves; with no volume header either, the block size is the one every
// file record agrees with.
TEST(DamagedVolumes, NoHeaderLeftTheBlockAndNodeSizesComeFromTheRecords) {
  for (uint32_t blockSize : {512u, 2048u, 4096u, 8192u}) {
    for (uint32_t nodeSize : {4096u, 8192u}) {
      for (const char* name : {"catalog header", "both headers"}) {
        // The catalog header alone: the 4 KiB nodes the scan once took for 8 KiB.
        if (std::string(name) == "catalog header" && (blockSize != 4096 || nodeSize != 4096)) continue;
        SCOPED_TRACE(std::to_string(blockSize) + " B blocks, " + std::to_string(nodeSize) + " B nodes, " + name);
        const Damage& damage = damageNamed(name);
        auto b = buildPair(contentVolume(blockSize, nodeSize, false), damage);
        mk::VolumeDamage applied;
        damage.apply(applied);
        ScanResult r = scan(b->damaged, 0, b->layout.sizeSectors, "Advanced Scan");
        const Tally t = tallyScan(b->damaged, *r.volume, expectedFiles(*b, applied, true, true));
        EXPECT_EQ(t.anywhere, t.expected) << t.problemText();
        EXPECT_EQ(t.wrong, 0u) << t.problemText();
        EXPECT_EQ(t.assumedGeometry, 0u);
      }
    }
  }
}

// Records that fail a content check (here a zero access date, as the
// journal's own files have) are skipped alone: the records after them in the
// same node still come back.
TEST(DamagedVolumes, ARecordWithAZeroAccessDateEndedItsNode) {
  mk::VolumeSpec described = contentVolume(4096, 4096);
  mk::EntrySpec odd = sizedFile("accessed never.txt", 3000);
  odd.accessed = 0;
  described.root[0].children.push_back(odd);
  auto b = buildPair(described, damageNamed("both headers"));
  mk::VolumeDamage applied;
  damageNamed("both headers").apply(applied);
  std::vector<ExpectedFile> want = expectedFiles(*b, applied, true, true);
  std::set<uint32_t> zeroAccess;
  for (const auto& e : b->layout.entries)
    if (e.name == ".journal" || e.name == ".journal_info_block" || e.name == "accessed never.txt")
      zeroAccess.insert(e.cnid);
  ASSERT_EQ(zeroAccess.size(), 3u);
  for (auto& f : want)
    if (zeroAccess.count(f.id)) f.recordLost = true;  // skipped: their records fail the check

  ScanResult r = scan(b->damaged, 0, b->layout.sizeSectors, "Advanced Scan");
  const Tally t = tallyScan(b->damaged, *r.volume, want);
  EXPECT_EQ(t.anywhere, t.expected) << t.problemText();
  EXPECT_EQ(t.wrong, 0u) << t.problemText();
  const auto ids = entriesByFileID(*r.volume->dirRoot);
  for (uint32_t id : zeroAccess) EXPECT_EQ(ids.count(id), 0u);
}

// A healthy volume whose journal and free space hold copies of every leaf:
// each live file is listed once, as the live catalog has it; an earlier
// version is listed once more beside it, by the duplicate-name rule, with its
// own bytes, or flagged when its blocks are in use again.
TEST(DamagedVolumes, TheAdvancedScanListedLiveFilesAgainFromTheirCopies) {
  mk::VolumeSpec described = contentVolume(4096, 4096);
  described.journalLeafCopies = 1000;  // every leaf
  described.damage.oldNodeCopies = 12;
  mk::EntrySpec reused = sizedFile("rewritten.dat", 9000);
  reused.previousSize = 6000;
  reused.previousBlocksReused = true;
  described.root[0].children.push_back(reused);
  auto b = buildPair(described, damageNamed("primary header"));  // headers aside, nothing is damaged
  ScanResult r = scan(b->intact, 0, b->layout.sizeSectors, "Advanced Scan");
  const Tally t = tallyScan(b->intact, *r.volume, expectedFiles(*b, {}, true));
  EXPECT_EQ(t.duplicates, 0u) << t.problemText();
  EXPECT_EQ(t.wrong, 0u) << t.problemText();
  EXPECT_EQ(t.atPath, t.pathKnown) << t.problemText();

  // One entry per live file, and one per earlier version.
  const auto ids = entriesByFileID(*r.volume->dirRoot);
  for (const auto& e : b->layout.entries) {
    if (e.folder || e.deleted) continue;
    SCOPED_TRACE(e.path);
    EXPECT_EQ(ids.count(e.cnid), e.hasPrevious ? 2u : 1u);
    if (!e.hasPrevious) continue;
    const HDIR* earlier = nullptr;
    for (auto [it, end] = ids.equal_range(e.cnid); it != end; ++it)
      if (it->second->dataSize == e.previousSize) earlier = it->second;
    ASSERT_NE(earlier, nullptr);
    EXPECT_TRUE(sameExtentList(earlier->dataExt, e.previousExtents));
    const std::string dir = e.path.substr(0, e.path.rfind('/') + 1);
    const std::string stem = e.name.substr(0, e.name.rfind('.')), ext = e.name.substr(e.name.rfind('.'));
    EXPECT_EQ(entryPath(*earlier), dir + stem + "_" + ext);
    if (e.previousBlocksReused) {
      EXPECT_EQ(earlier->confidence, Confidence::BlocksReused);
    } else {
      EXPECT_EQ(earlier->confidence, Confidence::Sure);
      EXPECT_TRUE(dataOf(b->intact, *r.volume, *earlier) == mk::generatedBytes(e.previousSeed, e.previousSize));
    }
  }
}

// Folders whose own records are gone are rebuilt where their children look
// for them: from an old copy of their record (with its dates), else from
// their thread record (name and parent).
TEST(DamagedVolumes, FoldersWithoutTheirRecordsWereNotRebuilt) {
  mk::VolumeSpec described = contentVolume(4096, 4096);
  described.journalLeafCopies = 1;             // the first leaf, which holds the top folders' records
  described.damage.overwriteLeafPositions = {0};
  auto b = buildPair(described, damageNamed("primary header"));
  const mk::VolumeLayout& l = b->layout;
  const uint32_t firstLeaf = l.catalog.firstLeafNode;
  std::vector<const mk::FileLayout*> lostFolders;
  for (const auto& e : l.entries)
    if (e.folder && !e.deleted && e.recordNode == firstLeaf && e.threadNode != firstLeaf) lostFolders.push_back(&e);
  ASSERT_GE(lostFolders.size(), 3u);

  mk::VolumeDamage applied;
  applied.overwriteLeafPositions = {0};
  for (const char* mode : {"Normal Scan", "Advanced Scan"}) {
    SCOPED_TRACE(mode);
    const bool advanced = std::string(mode) == "Advanced Scan";
    ScanResult r = scan(b->damaged, 0, l.sizeSectors, mode);
    const Tally t = tallyScan(b->damaged, *r.volume, expectedFiles(*b, applied, advanced));
    EXPECT_GT(t.expected, 400u);
    EXPECT_EQ(t.atPath, t.pathKnown) << t.problemText();
    EXPECT_EQ(t.wrong, 0u) << t.problemText();
    EXPECT_EQ(t.duplicates, 0u) << t.problemText();
    const auto ids = entriesByFileID(*r.volume->dirRoot);
    for (const mk::FileLayout* f : lostFolders) {
      SCOPED_TRACE(f->path);
      if (ids.count(f->cnid) == 0) continue;  // removed: no file data below it
      const HDIR& h = *ids.find(f->cnid)->second;
      EXPECT_EQ(entryPath(h), f->path);
      // The standard scan has only the thread; the advanced one the journal's copy.
      EXPECT_EQ(h.createDate, advanced ? f->created : 0u);
    }
  }
}

// The whole table: every geometry, every damage, both scans.
TEST(DamagedVolumes, TableOfWhatEachScanGivesBack) {
  for (uint32_t blockSize : {512u, 2048u, 4096u, 8192u}) {
    for (uint32_t nodeSize : {4096u, 8192u}) {
      const std::string volume = "builder " + std::to_string(blockSize) + " B blocks, " +
                                 std::to_string(nodeSize / 1024) + " KiB nodes";
      for (const Damage& damage : damages()) {
        SCOPED_TRACE(volume + ", " + damage.name);
        auto b = buildPair(contentVolume(blockSize, nodeSize), damage);
        mk::VolumeDamage applied;
        damage.apply(applied);
        const std::string name = damage.name;
        const bool btreeHeader = name == "catalog header" || name == "extents header";
        for (const char* mode : {"Normal Scan", "Advanced Scan"}) {
          const bool advanced = std::string(mode) == "Advanced Scan";
          ScanResult r = scan(b->damaged, 0, b->layout.sizeSectors, mode);
          const Tally t = tallyScan(b->damaged, *r.volume, expectedFiles(*b, applied, advanced, chainLost(damage.name)));
          printTallyRow(volume, damage.name, advanced ? "advanced" : "standard", t);
          EXPECT_EQ(t.wrong, 0u) << mode << "\n" << t.problemText();
          EXPECT_EQ(t.duplicates, 0u) << mode << "\n" << t.problemText();
          // Without any volume header only the advanced scan can go on.
          if (advanced || name != "both headers") {
            EXPECT_EQ(t.anywhere, t.expected) << mode << "\n" << t.problemText();
            EXPECT_EQ(t.atPath, t.pathKnown) << mode << "\n" << t.problemText();
          }
          if (!btreeHeader) continue;
          if (advanced) {
            // A volume header was read: the blocks are as large as it says.
            EXPECT_EQ(t.assumedGeometry, 0u);
            continue;
          }
          // One B-tree header node unusable: the standard scan goes on, with
          // the catalog's extents from the volume header and its node size
          // from its nodes, or without overflow extents, naming the one file
          // they would have completed.
          EXPECT_EQ(r.controller->gaveUp, 0);
          EXPECT_TRUE(r.controller->alerts.empty());
          EXPECT_TRUE(r.controller->sawTreeComplete());
          const mk::FileLayout* scattered = b->layout.find("Docs/scattered.bin");
          ASSERT_NE(scattered, nullptr);
          const bool extentsGone = name == "extents header";
          EXPECT_EQ(r.volume->missingExtentFileIDs,
                    extentsGone ? std::vector<uint32_t>{scattered->cnid} : std::vector<uint32_t>{});
          EXPECT_EQ(t.flagged, extentsGone ? 1u : 0u);
        }
      }
    }
  }
}
