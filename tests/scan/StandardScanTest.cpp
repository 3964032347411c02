// The standard scan rebuilds the tree that the catalog describes: checked
// against The Sleuth Kit on volumes that xorriso and our image builder make.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "ImageBuilder.h"
#include "scan/ContentCheck.h"
#include "scan/ScanHelpers.h"
#include "support/BuiltEntries.h"

using namespace ambrel;
using namespace ambrel::test;
namespace mk = ambrel::mkimage;

namespace {

bool haveTsk() { return haveTool("fls") && haveTool("icat"); }

void writeText(const std::filesystem::path& p, const std::string& text) {
  std::filesystem::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary) << text;
}

// The volume of an xorriso image: its Apple partition map's Apple_HFS entry.
bool hfsPartition(const std::string& image, uint64_t& start, uint64_t& length) {
  std::string out;
  runCommand("mmls '" + image + "' 2>/dev/null", &out);
  std::istringstream in(out);
  std::string line;
  while (std::getline(in, line)) {
    if (line.find("Apple_HFS") == std::string::npos) continue;
    std::istringstream ls(line);
    std::string slot, kind, s, e, l;
    ls >> slot >> kind >> s >> e >> l;
    start = std::stoull(s);
    length = std::stoull(l);
    return true;
  }
  return false;
}

// Every live entry of a built volume with its exact extents must be in the tree.
void expectLayoutTree(const Volume& v, const mk::VolumeLayout& layout) {
  std::map<uint32_t, const HDIR*> byID;
  std::vector<const HDIR*> stack{v.dirRoot.get()};
  while (!stack.empty()) {
    const HDIR* e = stack.back();
    stack.pop_back();
    byID[e->fileID] = e;
    for (const auto& c : e->children()) stack.push_back(c.get());
  }
  size_t files = 0;
  for (const auto& e : layout.entries) {
    if (e.deleted || e.cnid == kRootFolderID || e.folder) continue;
    ++files;
    auto it = byID.find(e.cnid);
    ASSERT_NE(it, byID.end()) << e.path;
    const HDIR& h = *it->second;
    EXPECT_EQ(h.fileName(), e.name);
    EXPECT_EQ(h.parentID, e.parentID) << e.path;
    EXPECT_EQ(h.dataSize, e.dataSize) << e.path;
    EXPECT_EQ(h.rscSize, e.rsrcSize) << e.path;
    EXPECT_EQ(h.createDate, e.created) << e.path;
    EXPECT_EQ(h.modDate, e.modified) << e.path;
    ASSERT_EQ(h.dataExt.size(), e.dataExtents.size()) << e.path;
    for (size_t i = 0; i < h.dataExt.size(); ++i) {
      EXPECT_EQ(h.dataExt[i].startBlock, e.dataExtents[i].startBlock) << e.path;
      EXPECT_EQ(h.dataExt[i].blockCount, e.dataExtents[i].blockCount) << e.path;
    }
    ASSERT_EQ(h.rscExt.size(), e.rsrcExtents.size()) << e.path;
    for (size_t i = 0; i < h.rscExt.size(); ++i)
      EXPECT_EQ(h.rscExt[i], (Extent{e.rsrcExtents[i].startBlock, e.rsrcExtents[i].blockCount})) << e.path;
  }
  EXPECT_EQ(v.fileCount, files);
  EXPECT_EQ(v.dirRoot->fileCount, files);
}

}  // namespace

TEST(StandardScan, XorrisoVolumesAgreeWithFls) {
  if (!haveTsk() || !haveTool("xorriso")) GTEST_SKIP() << "xorriso or The Sleuth Kit missing";
  TempDir dir;
  const auto src = dir / "src";
  // Thousands of entries, deep nesting, names with spaces, colons (stored as
  // "/" in the catalog), Unicode, and the files a scan leaves out.
  for (int f = 0; f < 40; ++f)
    for (int i = 0; i < 60; ++i)
      writeText(src / ("folder " + std::to_string(f)) / ("file-" + std::to_string(i) + ".txt"),
                std::string(static_cast<size_t>(i * 37 % 5000), 'x'));
  std::filesystem::path deep = src / "deep";
  for (int d = 0; d < 40; ++d) deep /= "level" + std::to_string(d);
  writeText(deep / "bottom.txt", "the bottom");
  writeText(src / "we:ird" / "co:lon.txt", "colons");
  writeText(src / "caf\xC3\xA9 \xE6\x97\xA5\xE6\x9C\xAC.txt", "unicode");
  writeText(src / "Docs" / ".DS_Store", "finder junk");
  writeText(src / "only-ds" / ".DS_Store", "finder junk");
  std::filesystem::create_directories(src / "empty folder");
  writeText(src / "zero" / "zero-length", "");

  const std::string image = (dir / "x.iso").string();
  ASSERT_EQ(runCommand("xorriso -as mkisofs -quiet -hfsplus -o '" + image + "' '" + src.string() + "' 2>/dev/null"), 0);
  uint64_t start = 0, length = 0;
  ASSERT_TRUE(hfsPartition(image, start, length));

  ScanResult r = scan(image, start, length, "Normal Scan");
  ASSERT_NE(r.volume->dirRoot, nullptr);
  const auto expected = keptByScan(flsTree(image, start));
  const auto got = treeOf(*r.volume);
  EXPECT_GT(expected.size(), 2400u);
  EXPECT_SAME_TREE(got, expected);
  EXPECT_EQ(got.count("Docs/.DS_Store"), 0u);
  EXPECT_EQ(got.count("empty folder"), 0u);
  EXPECT_EQ(got.count("zero"), 0u);
  EXPECT_TRUE(r.controller->sawTreeComplete());
  EXPECT_TRUE(r.controller->alerts.empty());
}

TEST(StandardScan, BuilderVolumesAgreeWithFlsAndTheirLayout) {
  if (!haveTsk()) GTEST_SKIP() << "The Sleuth Kit missing";
  TempDir dir;
  struct Case {
    const char* what;
    bool hfsx, wrapper, journal;
    uint32_t blockSize, nodeSize, catalogExtents;
  };
  for (const Case c : {Case{"HFS+ 4K nodes", false, false, true, 4096, 4096, 1},
                       Case{"HFSX 8K nodes, 512-byte blocks", true, false, false, 512, 8192, 1},
                       Case{"wrapped HFS+", false, true, false, 2048, 8192, 1},
                       Case{"catalog in twelve extents", false, false, false, 4096, 4096, 12}}) {
    SCOPED_TRACE(c.what);
    mk::DriveSpec d;
    d.table = mk::TableKind::GPT;
    mk::PartitionSpec p;
    p.kind = c.hfsx ? mk::PartitionSpec::Kind::HFSX : mk::PartitionSpec::Kind::HFSPlus;
    mk::VolumeSpec v;
    v.name = c.what;
    v.hfsx = c.hfsx;
    v.wrapper = c.wrapper;
    v.journal = c.journal;
    v.blockSize = c.blockSize;
    v.nodeSize = c.nodeSize;
    v.catalogExtents = c.catalogExtents;
    // Enough entries for three index levels with 4 KiB nodes.
    v.generate = mk::GenerateSpec{2500, 150, 7, 0, 3000, true};
    v.root.push_back(folderOf("Fragmented", {sizedFile("ten extents.bin", 10 * 8192 + 5, 10), sizedFile("one.bin", 1)}));
    mk::EntrySpec withFork = sizedFile("with fork", 100);
    withFork.rsrcSize = 20000;
    withFork.rsrcFragments = 3;
    v.root.push_back(withFork);
    v.root.push_back(folderOf("a/b slash", {sizedFile("inside", 10)}));
    p.volume = v;
    d.partitions.push_back(p);
    const std::string image = (dir / "drive.img").string();
    mk::DriveLayout layout;
    try {
      layout = mk::buildImage(d, image);
    } catch (const std::exception& e) {
      FAIL() << e.what();
    }
    const mk::VolumeLayout& vl = *layout.partitions[0].volume;
    if (c.nodeSize == 4096) {
      EXPECT_GE(vl.catalog.depth, 3u);
    }
    EXPECT_EQ(vl.catalog.extents.size(), c.catalogExtents);

    ScanResult r = scan(image, vl.startSector, vl.sizeSectors, "Normal Scan");
    ASSERT_NE(r.volume->dirRoot, nullptr);
    // Nodes map through every catalog extent, the overflow ones included.
    ASSERT_EQ(r.volume->catalogExt.size(), vl.catalog.extents.size());
    for (size_t i = 0; i < vl.catalog.extents.size(); ++i)
      EXPECT_EQ(r.volume->catalogExt[i], (Extent{vl.catalog.extents[i].startBlock, vl.catalog.extents[i].blockCount}));
    for (const auto& n : vl.catalog.nodes)
      EXPECT_EQ(r.volume->catNodeToSector(n.node), static_cast<int64_t>(n.sector)) << "node " << n.node;
    EXPECT_SAME_TREE(treeOf(*r.volume), keptByScan(flsTree(image, vl.startSector)));
    expectLayoutTree(*r.volume, vl);
    // A folder whose name holds a slash shows it as a colon in its children's paths.
    const HDIR* slash = nullptr;
    for (const auto& child : r.volume->dirRoot->children())
      if (child->fileName() == "a/b slash") slash = child.get();
    ASSERT_NE(slash, nullptr);
    ASSERT_EQ(slash->children().size(), 1u);
    EXPECT_EQ(pathNameOf(*slash->childAtIndex(0)), "/Root/a:b slash");
  }
}

TEST(StandardScan, DamagedPrimaryHeaderAndBrokenLeafChainsStillGiveTheWholeTree) {
  using Mode = mk::LeafChainDamage::Mode;
  struct Case {
    const char* what;
    mk::VolumeDamage damage;
  };
  std::vector<Case> cases;
  cases.push_back({"intact", {}});
  cases.push_back({"primary header zeroed", {}});
  cases.back().damage.primaryHeader = mk::VolumeDamage::Header::Zeroed;
  cases.push_back({"primary header corrupted", {}});
  cases.back().damage.primaryHeader = mk::VolumeDamage::Header::Corrupted;
  for (Mode m : {Mode::Zero, Mode::IntoIndex, Mode::Loop}) {
    cases.push_back({m == Mode::Zero ? "chain ends early" : m == Mode::IntoIndex ? "chain into an index node" : "chain loops", {}});
    cases.back().damage.leafChain = mk::LeafChainDamage{m, -1};
  }
  std::map<std::string, Listed> reference;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    mk::VolumeSpec v;
    v.nodeSize = 4096;
    v.generate = mk::GenerateSpec{1500, 60, 3, 1, 2000, false};
    v.damage = c.damage;
    auto b = buildVolume(v);
    ScanResult r = scan(b->image, 0, b->layout.sizeSectors, "Normal Scan");
    ASSERT_NE(r.volume->dirRoot, nullptr);
    const auto tree = treeOf(*r.volume);
    if (reference.empty()) reference = tree;
    EXPECT_SAME_TREE(tree, reference);
    EXPECT_TRUE(r.controller->sawTreeComplete());
  }
  EXPECT_GT(reference.size(), 1500u);
}

// Nothing says where the catalog is: only the advanced scan can go on. (An
// unusable catalog header alone no longer stops the standard scan.) Either
// way the machine is kept awake for the whole scan.
TEST(StandardScan, NoVolumeHeaderLeftAsksForTheAdvancedScan) {
  mk::VolumeSpec v;
  v.root = {sizedFile("a.txt", 100), folderOf("F", {sizedFile("b.txt", 200)})};
  v.damage.primaryHeader = mk::VolumeDamage::Header::Zeroed;
  v.damage.alternateHeader = mk::VolumeDamage::Header::Zeroed;
  auto b = buildVolume(v);

  ScanResult normal = scan(b->image, 0, b->layout.sizeSectors, "Normal Scan");
  ASSERT_EQ(normal.controller->alerts.size(), 1u);
  EXPECT_EQ(normal.controller->alerts[0].title, "Can not process");
  EXPECT_EQ(normal.controller->alerts[0].message,
            "Key data structures not found. Please try Advance Scan for tree on the desired volume.");
  EXPECT_EQ(normal.controller->gaveUp, 1);
  EXPECT_FALSE(normal.controller->sawTreeComplete());
  expectHeldThroughout(*normal.controller, 0, 0, false);

  // The advanced scan finds the records by searching the volume.
  ScanResult advanced = scan(b->image, 0, b->layout.sizeSectors, "Advanced Scan");
  EXPECT_TRUE(advanced.controller->alerts.empty());
  EXPECT_TRUE(advanced.controller->sawTreeComplete());
  expectHeldThroughout(*advanced.controller, 0, 0);
  std::set<std::string> names;
  for (const auto& [path, l] : treeOf(*advanced.volume)) names.insert(path.substr(path.rfind('/') + 1));
  EXPECT_TRUE(names.count("a.txt") && names.count("b.txt")) << ::testing::PrintToString(names);
}

TEST(StandardScan, StopEndsTheWalkButTheStepsAfterItStillRun) {
  mk::VolumeSpec v;
  v.nodeSize = 4096;
  v.generate = mk::GenerateSpec{3000, 10, 5, 1, 100, false};
  auto b = buildVolume(v);

  ScanResult whole = scan(b->image, 0, b->layout.sizeSectors, "Normal Scan");
  // Stop after the first report that counts entries: the walk ends at the next record.
  ScanResult stopped = scan(b->image, 0, b->layout.sizeSectors, "Normal Scan", 8);
  EXPECT_TRUE(stopped.volume->stopTreeThread);
  EXPECT_LT(stopped.volume->entryCount, whole.volume->entryCount);
  EXPECT_GT(stopped.volume->entryCount, 0u);
  EXPECT_TRUE(stopped.controller->sawTreeComplete());
  const auto& last = stopped.controller->progressReports.back();
  EXPECT_EQ(last.string(progress::kProgressStatus), "Tree Completed for Test on drive Disk Image  ");
  EXPECT_EQ(last.u64(progress::kBarDoubleValue, 99), 0u);
}

TEST(StandardScan, ProgressReportsCarryTheExactKeys) {
  mk::VolumeSpec v;
  v.generate = mk::GenerateSpec{250, 5, 5, 1, 100, false};
  auto b = buildVolume(v);
  ScanResult r = scan(b->image, 0, b->layout.sizeSectors, "Normal Scan");
  const auto& reports = r.controller->progressReports;
  auto making = std::find_if(reports.begin(), reports.end(), [](const ProgressReport& p) {
    return p.string(progress::kProgressStatus) == "Making Tree for Test on drive Disk Image  ";
  });
  ASSERT_NE(making, reports.end());
  EXPECT_EQ(making->i64(progress::kProgressType), 1);
  EXPECT_EQ(making->u64(progress::kBarMaxValue), r.volume->leafRecords);
  EXPECT_EQ(r.volume->leafRecords, b->layout.catalog.leafRecords / 2);
  int estimates = 0;
  for (const auto& p : reports) {
    if (!p.contains(progress::kBarIncrement)) continue;
    ++estimates;
    EXPECT_EQ(p.u64(progress::kBarIncrement), 100u);
    const std::string t = p.string(progress::kTimeRemaining);
    EXPECT_EQ(std::count(t.begin(), t.end(), ':'), 3) << t;
    EXPECT_TRUE(p.contains(progress::kFolders) && p.contains(progress::kFiles) && p.contains(progress::kEntriesFound) &&
                p.contains(progress::kData));
  }
  EXPECT_EQ(estimates, static_cast<int>(r.volume->entryCount / 100));
  const auto final = std::find_if(reports.begin(), reports.end(), [](const ProgressReport& p) {
    return p.contains(progress::kBarDoubleValue) && p.contains(progress::kFiles);
  });
  ASSERT_NE(final, reports.end());
  EXPECT_EQ(final->u64(progress::kFiles), r.volume->fileCount);
  EXPECT_EQ(final->u64(progress::kData), r.volume->dataSize);
}
