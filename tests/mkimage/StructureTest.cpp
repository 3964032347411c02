// On-disk structures of built volumes checked byte by byte against the
// layout report: allocation bitmap, catalog B-tree, journal, wrapper, damage.
#include <sys/stat.h>

#include <cstring>
#include <set>

#include "Oracle.h"
#include "base/Endian.h"
#include "media/Records.h"

namespace ambrel::mkimage::test {
namespace {

using ambrel::test::TempDir;

std::vector<uint8_t> readBitmap(const std::filesystem::path& image, const VolumeLayout& v) {
  std::vector<uint8_t> out;
  for (const auto& e : v.allocationExtents) {
    auto part = readBytes(image, v.blockToSector(e.startBlock) * 512, size_t(e.blockCount) * v.blockSize);
    out.insert(out.end(), part.begin(), part.end());
  }
  return out;
}

// The name in the key of the catalog record at `off` of a node.
std::string recordName(const std::vector<uint8_t>& node, uint16_t off) {
  std::string n;
  for (uint16_t i = 0; i < loadBE16(&node[off + 6]); ++i) n += static_cast<char>(loadBE16(&node[off + 8 + 2 * i]));
  return n;
}

bool bitSet(const std::vector<uint8_t>& map, uint32_t block) { return map[block / 8] & (0x80 >> (block % 8)); }

// Blocks in use by what the layout says is live, computed from the layout alone.
std::vector<bool> expectedUse(const VolumeLayout& v) {
  std::vector<bool> used(v.totalBlocks, false);
  auto mark = [&](const std::vector<ExtentLayout>& ext) {
    for (const auto& e : ext)
      for (uint32_t b = 0; b < e.blockCount; ++b) used.at(e.startBlock + b) = true;
  };
  for (uint32_t b = 0; uint64_t(b) * v.blockSize < 1536; ++b) used[b] = true;
  for (uint32_t b = v.totalBlocks; uint64_t(v.totalBlocks - b) * v.blockSize < 1024;) used[--b] = true;
  mark(v.allocationExtents);
  mark(v.extentsFileExtents);
  mark(v.catalog.extents);
  mark(v.attributesExtents);
  for (const auto& f : v.entries)
    if (!f.deleted) {
      mark(f.dataExtents);
      mark(f.rsrcExtents);
    }
  return used;
}

std::vector<uint8_t> nodeBytes(const std::filesystem::path& image, const VolumeLayout& v, uint32_t node) {
  for (const auto& n : v.catalog.nodes)
    if (n.node == node) return readSector(image, n.sector, v.catalog.nodeSize / 512);
  return {};
}

VolumeSpec journaledVolume() {
  VolumeSpec v;
  v.name = "Journaled";
  v.journal = true;
  v.nodeSize = 4096;
  v.root = {textFile("kept.txt", "still here"), textFile("removed.txt", "deleted data", true)};
  EntrySpec album;
  album.name = "Old Album";
  album.folder = true;
  album.deleted = true;
  album.children = {textFile("one.jpg", "jpeg one"), textFile("two.jpg", "jpeg two")};
  v.root.push_back(album);
  v.generate = GenerateSpec{40, 3, 5, 0, 600, false};
  return v;
}

TEST(MkimageStructure, BitmapMarksExactlyTheLiveBlocks) {
  TempDir dir;
  DriveSpec d = bareDrive(journaledVolume());
  d.volume->blockSize = 1024;
  PayloadSpec p;
  p.size = 5000;
  d.volume->freePayloads = {p};
  d.volume->root[0].dataFragments = 1;
  EntrySpec frag;
  frag.name = "fragmented";
  frag.dataSize = 20 * 1024;
  frag.dataFragments = 10;
  d.volume->root.push_back(frag);
  auto image = dir / "v.img";
  VolumeLayout v = *buildImage(d, image).volume;

  auto bitmap = readBitmap(image, v);
  auto used = expectedUse(v);
  uint32_t setBits = 0, mismatches = 0;
  for (uint32_t b = 0; b < v.totalBlocks; ++b) {
    setBits += bitSet(bitmap, b);
    if (bitSet(bitmap, b) != used[b] && mismatches++ < 5) ADD_FAILURE() << "block " << b << " bit " << bitSet(bitmap, b);
  }
  EXPECT_EQ(mismatches, 0u);
  EXPECT_EQ(v.totalBlocks - setBits, v.freeBlocks);
  for (uint32_t b = v.totalBlocks; b < bitmap.size() * 8; ++b) ASSERT_FALSE(bitSet(bitmap, b)) << "bit past the end " << b;

  // The header says the same, and the fragmented file has its ten runs, split by free blocks.
  auto header = readSector(image, 2);
  auto* vib = reinterpret_cast<VolumeInformationBlock*>(header.data());
  convertVIB(vib);
  EXPECT_EQ(vib->signature, kHFSPlusSigWord);
  EXPECT_EQ(vib->version, 4);
  EXPECT_EQ(vib->freeBlocks, v.freeBlocks);
  EXPECT_EQ(vib->totalBlocks, v.totalBlocks);
  EXPECT_EQ(vib->blockSize, 1024u);
  EXPECT_EQ(vib->attributes & 0x2000u, 0x2000u);
  const FileLayout* f = v.find("fragmented");
  ASSERT_TRUE(f);
  ASSERT_EQ(f->dataExtents.size(), 10u);
  for (size_t i = 1; i < f->dataExtents.size(); ++i) {
    uint32_t gap = f->dataExtents[i - 1].startBlock + f->dataExtents[i - 1].blockCount;
    EXPECT_LT(gap, f->dataExtents[i].startBlock);
    EXPECT_FALSE(bitSet(bitmap, gap));
  }
  // Payloads lie in free blocks and hold their bytes.
  ASSERT_EQ(v.payloads.size(), 1u);
  for (uint32_t b = 0; b < v.payloads[0].blockCount; ++b) EXPECT_FALSE(bitSet(bitmap, v.payloads[0].startBlock + b));
  EXPECT_EQ(readBytes(image, v.payloads[0].sector * 512, 5000), generatedBytes(1, 5000));
}

// Walks the catalog as a reader would: header record, then the leaf chain.
void expectCatalogChain(const std::filesystem::path& image, const VolumeLayout& v, std::vector<std::string>* names) {
  auto header = nodeBytes(image, v, 0);
  ASSERT_FALSE(header.empty());
  auto* desc = reinterpret_cast<BTNodeDescriptor_*>(header.data());
  convertBTNodeDesc(desc);
  EXPECT_EQ(desc->kind, kBTHeaderNode);
  EXPECT_EQ(desc->numRecords, 3);
  EXPECT_EQ(desc->bLink, 0u);
  auto* hdr = reinterpret_cast<BTHeaderRecord*>(header.data() + 14);
  convertBTHdrRec(hdr);
  EXPECT_EQ(hdr->treeDepth, v.catalog.depth);
  EXPECT_EQ(hdr->rootNode, v.catalog.rootNode);
  EXPECT_EQ(hdr->leafRecords, v.catalog.leafRecords);
  EXPECT_EQ(hdr->firstLeafNode, v.catalog.firstLeafNode);
  EXPECT_EQ(hdr->nodeSize, v.catalog.nodeSize);
  EXPECT_EQ(hdr->totalNodes, v.catalog.totalNodes);
  EXPECT_EQ(hdr->freeNodes, v.catalog.freeNodes);
  EXPECT_EQ(hdr->keyCompareType, v.hfsx ? 0xBC : 0xCF);

  uint32_t node = hdr->firstLeafNode, previous = 0, records = 0, leaves = 0;
  std::set<uint32_t> seen;
  while (node != 0 && seen.insert(node).second) {
    auto bytes = nodeBytes(image, v, node);
    ASSERT_FALSE(bytes.empty()) << node;
    auto* d = reinterpret_cast<BTNodeDescriptor_*>(bytes.data());
    convertBTNodeDesc(d);
    EXPECT_EQ(d->kind, kBTLeafNode);
    EXPECT_EQ(d->height, 1);
    EXPECT_EQ(d->bLink, previous);
    for (uint16_t r = 0; r < d->numRecords; ++r) {
      uint16_t off = loadBE16(&bytes[bytes.size() - 2 * (r + 1)]);
      int16_t type = static_cast<int16_t>(loadBE16(&bytes[off + 2 + loadBE16(&bytes[off])]));
      if (names && (type == kHFSPlusFileRecord || type == kHFSPlusFolderRecord) && loadBE32(&bytes[off + 2]) == 2) {
        names->push_back(recordName(bytes, off));
      }
    }
    records += d->numRecords;
    ++leaves;
    previous = node;
    node = d->fLink;
  }
  EXPECT_EQ(node, 0u) << "the leaf chain loops";
  EXPECT_EQ(records, v.catalog.leafRecords);
  size_t leafNodes = 0;
  for (const auto& n : v.catalog.nodes) leafNodes += n.kind == kBTLeafNode;
  EXPECT_EQ(leaves, leafNodes);
}

TEST(MkimageStructure, CatalogOrderFollowsTheVolumeKind) {
  TempDir dir;
  for (bool hfsx : {false, true}) {
    DriveSpec d;
    d.table = TableKind::None;
    VolumeSpec v;
    v.hfsx = hfsx;
    v.nodeSize = 4096;
    v.root = {textFile("cherry", "c"), textFile("apple", "a"), textFile("Banana", "b"), textFile("_under", "u")};
    v.generate = GenerateSpec{400, 0, 3, 0, 10, false};
    d.volume = v;
    auto image = dir / "order.img";
    VolumeLayout layout = *buildImage(d, image).volume;
    EXPECT_GE(layout.catalog.depth, 2u);
    std::vector<std::string> rootNames;
    expectCatalogChain(image, layout, &rootNames);
    std::vector<std::string> named;
    for (const auto& n : rootNames)
      if (n == "cherry" || n == "apple" || n == "Banana" || n == "_under") named.push_back(n);
    // Binary order puts upper case before "_" (0x5F) and lower case after it;
    // folding moves "Banana" among the lower-case names.
    if (hfsx) EXPECT_EQ(named, (std::vector<std::string>{"Banana", "_under", "apple", "cherry"}));
    else EXPECT_EQ(named, (std::vector<std::string>{"_under", "apple", "Banana", "cherry"}));
  }
}

TEST(MkimageStructure, DuplicateNamesAreRefusedWhereTheVolumeFoldsCase) {
  TempDir dir;
  DriveSpec d = bareDrive();
  d.volume->root = {textFile("Readme", "1"), textFile("README", "2")};
  EXPECT_THROW(buildImage(d, dir / "dup.img"), BuildError);
  d.volume->hfsx = true;
  EXPECT_NO_THROW(buildImage(d, dir / "dup.img"));
  d.volume->root.push_back(textFile("Readme", "3"));
  EXPECT_THROW(buildImage(d, dir / "dup.img"), BuildError);
}

TEST(MkimageStructure, JournalKeepsOldLeafNodesWithTheDeletedEntries) {
  TempDir dir;
  DriveSpec d = bareDrive(journaledVolume());
  auto image = dir / "j.img";
  VolumeLayout v = *buildImage(d, image).volume;

  auto jib = readBytes(image, v.blockToSector(v.journalInfoBlock) * 512, 512);
  EXPECT_EQ(loadBE32(&jib[0]) & 1u, 1u);
  EXPECT_EQ(loadBE64(&jib[36]), v.journalStart);
  EXPECT_EQ(loadBE64(&jib[44]), v.journalSize);
  auto jh = readBytes(image, v.HPlusVolStart * 512 + v.journalStart, 44);
  EXPECT_EQ(loadLE32(&jh[0]), 0x4a4e4c78u);
  EXPECT_EQ(loadLE64(&jh[8]), loadLE64(&jh[16])) << "the journal is clean";

  ASSERT_FALSE(v.journalNodeCopySectors.empty());
  std::set<std::string> names;
  for (uint64_t sector : v.journalNodeCopySectors) {
    EXPECT_GE(sector * 512, v.HPlusVolStart * 512 + v.journalStart);
    EXPECT_LT(sector * 512, v.HPlusVolStart * 512 + v.journalStart + v.journalSize);
    auto node = readSector(image, sector, v.catalog.nodeSize / 512);
    EXPECT_EQ(static_cast<int8_t>(node[8]), kBTLeafNode);
    EXPECT_EQ(node[9], 1);
    // How a node end is recognised in a sector scan: offsets 14 and then above 14.
    EXPECT_EQ(loadBE16(&node[node.size() - 2]), 14);
    EXPECT_GT(loadBE16(&node[node.size() - 4]), 14);
    for (uint16_t r = 0; r < loadBE16(&node[10]); ++r) names.insert(recordName(node, loadBE16(&node[node.size() - 2 * (r + 1)])));
  }
  for (const auto& e : v.entries)
    if (e.deleted) {
      EXPECT_TRUE(names.count(e.name)) << e.name << " is in no journal copy";
    }

  std::vector<std::string> live;
  expectCatalogChain(image, v, &live);
  EXPECT_EQ(std::count(live.begin(), live.end(), "removed.txt"), 0);
  EXPECT_EQ(std::count(live.begin(), live.end(), "kept.txt"), 1);
  // The deleted file's data stays in (now free) blocks.
  const FileLayout* removed = v.find("removed.txt");
  ASSERT_TRUE(removed && removed->deleted);
  auto data = readBytes(image, v.blockToSector(removed->dataExtents[0].startBlock) * 512, 12);
  EXPECT_EQ(std::string(data.begin(), data.end()), "deleted data");
  EXPECT_FALSE(bitSet(readBitmap(image, v), removed->dataExtents[0].startBlock));

  // An independent journal reader finds the same deleted records.
  auto tool = std::filesystem::path(AMBREL_SHARED_TESTDATA) / "tools" / "hfsjournal.py";
  if (!std::filesystem::exists(tool) || !ambrel::test::haveTool("python3")) {
    GTEST_SKIP() << "hfsjournal.py (shared test data) or python3 is missing";
  }
  std::string out;
  ASSERT_EQ(runCommand("python3 " + quoted(tool) + " " + quoted(image), &out), 0) << out;
  EXPECT_NE(out.find("EMPTY (clean)"), std::string::npos) << out;
  EXPECT_NE(out.find("records NOT in live catalog: 4"), std::string::npos) << out;
  EXPECT_NE(out.find("name 'Old Album'"), std::string::npos) << out;
}

TEST(MkimageStructure, WrapperPointsAtTheEmbeddedVolume) {
  TempDir dir;
  DriveSpec d = bareDrive();
  d.volume->name = "Wrapped";
  d.volume->wrapper = true;
  d.volume->root = {textFile("inside.txt", "embedded")};
  auto image = dir / "w.img";
  VolumeLayout v = *buildImage(d, image).volume;
  auto sector = readSector(image, 2);
  auto* mdb = reinterpret_cast<MasterDirectoryBlock*>(sector.data());
  convertMDB(mdb);
  EXPECT_EQ(mdb->drSigWord, kHFSSigWord);
  EXPECT_EQ(mdb->drEmbedSigWord, kHFSPlusSigWord);
  EXPECT_EQ(v.HPlusVolStart, mdb->drAlBlSt + (mdb->drAlBlkSiz / 512) * mdb->drEmbedExtent.xdrStABN);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(mdb->drVN), mdb->nameLength), "Wrapped");
  auto embedded = readSector(image, v.HPlusVolStart + 2);
  EXPECT_EQ(loadBE16(&embedded[0]), kHFSPlusSigWord);
  // The embedded volume ends inside the wrapper, before the wrapper's alternate MDB.
  uint64_t embeddedEnd = v.HPlusVolStart + uint64_t(v.totalBlocks) * v.blockSize / 512;
  EXPECT_LE(embeddedEnd, v.sizeSectors - 2);
  EXPECT_EQ(loadBE16(readSector(image, v.sizeSectors - 2).data()), kHFSSigWord);
  EXPECT_EQ(v.alternateHeaderSector, embeddedEnd - 2);
  EXPECT_EQ(loadBE16(readSector(image, v.alternateHeaderSector).data()), kHFSPlusSigWord);
}

VolumeSpec damageBase() {
  VolumeSpec v;
  v.name = "Damaged";
  v.nodeSize = 4096;
  v.blockSize = 4096;
  v.generate = GenerateSpec{500, 10, 11, 0, 3000, true};
  v.root = {textFile("gone.txt", "old", true)};
  return v;
}

size_t differingBytes(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  size_t n = a.size() == b.size() ? 0 : std::max(a.size(), b.size());
  for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) n += a[i] != b[i];
  return n;
}

TEST(MkimageStructure, DamageChangesOnlyWhatItSays) {
  TempDir dir;
  DriveSpec d = bareDrive(damageBase());
  auto cleanPath = dir / "clean.img";
  VolumeLayout clean = *buildImage(d, cleanPath).volume;
  auto cleanBytes = ambrel::test::readFile(cleanPath);
  ASSERT_GE(clean.catalog.depth, 2u);
  buildImage(d, dir / "again.img");
  EXPECT_EQ(ambrel::test::readFile(dir / "again.img"), cleanBytes) << "building is not deterministic";

  auto damaged = [&](auto change) {
    DriveSpec dd = d;
    change(dd.volume->damage);
    auto path = dir / "damaged.img";
    VolumeLayout layout = *buildImage(dd, path).volume;
    return std::make_pair(layout, ambrel::test::readFile(path));
  };
  auto sectorOf = [](const std::vector<uint8_t>& img, uint64_t s) {
    return std::vector<uint8_t>(img.begin() + static_cast<long>(s * 512), img.begin() + static_cast<long>(s * 512 + 512));
  };

  {
    auto [v, img] = damaged([](VolumeDamage& dm) { dm.primaryHeader = VolumeDamage::Header::Zeroed; });
    EXPECT_EQ(sectorOf(img, 2), std::vector<uint8_t>(512, 0));
    EXPECT_EQ(sectorOf(img, v.alternateHeaderSector), sectorOf(cleanBytes, clean.alternateHeaderSector));
    EXPECT_EQ(loadBE16(sectorOf(img, v.alternateHeaderSector).data()), kHFSPlusSigWord);
    EXPECT_LE(differingBytes(img, cleanBytes), 512u);
  }
  {
    auto [v, img] = damaged([](VolumeDamage& dm) { dm.primaryHeader = VolumeDamage::Header::Corrupted; });
    uint16_t sig = loadBE16(sectorOf(img, 2).data());
    EXPECT_NE(sig, kHFSPlusSigWord);
    EXPECT_NE(sig, kHFSXSigWord);
    EXPECT_EQ(sectorOf(img, v.alternateHeaderSector), sectorOf(cleanBytes, clean.alternateHeaderSector));
  }
  {
    auto [v, img] = damaged([](VolumeDamage& dm) { dm.catalogHeaderCorrupted = true; });
    BTNodeDescriptor_ desc;
    std::memcpy(&desc, &img[v.catalog.nodes[0].sector * 512], sizeof desc);
    convertBTNodeDesc(&desc);
    EXPECT_FALSE(desc.kind == kBTHeaderNode && desc.numRecords == 3 && desc.bLink == 0);
    EXPECT_LE(differingBytes(img, cleanBytes), 512u);
  }
  for (auto mode : {LeafChainDamage::Mode::Zero, LeafChainDamage::Mode::IntoIndex, LeafChainDamage::Mode::Loop}) {
    auto [v, img] = damaged([mode](VolumeDamage& dm) { dm.leafChain = LeafChainDamage{mode, 2}; });
    ASSERT_NE(v.brokenLeaf, 0u);
    const NodeLayout* broken = nullptr;
    for (const auto& n : v.catalog.nodes)
      if (n.node == v.brokenLeaf) broken = &n;
    ASSERT_TRUE(broken);
    EXPECT_EQ(broken->kind, kBTLeafNode);
    uint32_t oldLink = loadBE32(&cleanBytes[broken->sector * 512]);
    uint32_t link = loadBE32(&img[broken->sector * 512]);
    EXPECT_NE(link, oldLink);
    EXPECT_LE(differingBytes(img, cleanBytes), 4u);
    const NodeLayout* target = nullptr;
    for (const auto& n : v.catalog.nodes)
      if (n.node == link) target = &n;
    switch (mode) {
      case LeafChainDamage::Mode::Zero: EXPECT_EQ(link, 0u); break;
      case LeafChainDamage::Mode::IntoIndex: ASSERT_TRUE(target); EXPECT_EQ(target->kind, kBTIndexNode); break;
      case LeafChainDamage::Mode::Loop: ASSERT_TRUE(target); EXPECT_EQ(target->kind, kBTLeafNode); EXPECT_LT(link, v.brokenLeaf); break;
    }
  }
  {
    auto [v, img] = damaged([](VolumeDamage& dm) {
      dm.overwriteNodes = 3;
      dm.overwriteSeed = 42;
    });
    ASSERT_EQ(v.overwrittenNodes.size(), 3u);
    std::set<uint32_t> hit(v.overwrittenNodes.begin(), v.overwrittenNodes.end());
    EXPECT_EQ(hit.count(0), 0u);
    for (const auto& n : v.catalog.nodes) {
      auto at = img.begin() + static_cast<long>(n.sector * 512);
      auto was = cleanBytes.begin() + static_cast<long>(n.sector * 512);
      bool same = std::equal(at, at + v.catalog.nodeSize, was);
      EXPECT_EQ(same, !hit.count(n.node)) << "node " << n.node;
    }
  }
  {
    auto [v, img] = damaged([](VolumeDamage& dm) { dm.oldNodeCopies = 2; });
    ASSERT_EQ(v.freeSpaceNodeCopySectors.size(), 2u);
    auto bitmap = readBitmap(dir / "damaged.img", v);
    for (uint64_t s : v.freeSpaceNodeCopySectors) {
      EXPECT_EQ(static_cast<int8_t>(img[s * 512 + 8]), kBTLeafNode);
      EXPECT_FALSE(bitSet(bitmap, static_cast<uint32_t>((s - v.HPlusVolStart) * 512 / v.blockSize)));
    }
    // The first copy is the old node holding the deleted file.
    std::string node(img.begin() + static_cast<long>(v.freeSpaceNodeCopySectors[0] * 512),
                     img.begin() + static_cast<long>(v.freeSpaceNodeCopySectors[0] * 512 + v.catalog.nodeSize));
    std::u16string name = u"gone.txt";
    std::string be;
    for (char16_t c : name) {
      be += static_cast<char>(c >> 8);
      be += static_cast<char>(c & 0xFF);
    }
    EXPECT_NE(node.find(be), std::string::npos);
  }
}

TEST(MkimageStructure, DriveDamageWipesTablesAndTruncates) {
  TempDir dir;
  for (TableKind table : {TableKind::MBR, TableKind::GPT, TableKind::APM}) {
    DriveSpec d;
    d.table = table;
    PartitionSpec p;
    p.volume = VolumeSpec{};
    p.volume->root = {textFile("a.txt", "a")};
    d.partitions = {p, p};
    d.partitions[1].logical = table == TableKind::MBR;
    auto cleanPath = dir / "clean.img";
    DriveLayout clean = buildImage(d, cleanPath);
    d.wipePartitionTable = true;
    auto path = dir / "wiped.img";
    DriveLayout wiped = buildImage(d, path);
    auto before = ambrel::test::readFile(cleanPath), after = ambrel::test::readFile(path);
    ASSERT_EQ(before.size(), after.size());
    EXPECT_EQ(std::vector<uint8_t>(after.begin(), after.begin() + 512), std::vector<uint8_t>(512, 0));
    if (table == TableKind::MBR) {
      ASSERT_EQ(wiped.ebrSectors.size(), 1u);
      EXPECT_EQ(after[wiped.ebrSectors[0] * 512 + 510], 0);
    }
    if (table == TableKind::GPT) {
      EXPECT_EQ(std::vector<uint8_t>(after.end() - 512, after.end()), std::vector<uint8_t>(512, 0));
    }
    // The volumes themselves are untouched.
    for (const auto& part : wiped.partitions) {
      uint64_t at = part.startSector * 512;
      EXPECT_TRUE(std::equal(after.begin() + static_cast<long>(at), after.begin() + static_cast<long>(at + part.sizeSectors * 512),
                             before.begin() + static_cast<long>(at)));
    }
    if (haveTsk()) {
      int status = 0;
      tsk("mmls", path, 0, "", &status);
      EXPECT_NE(status, 0) << "mmls still finds a table";
      EXPECT_EQ(flsTree(path, wiped.partitions[0].startSector), expectedTree(*wiped.partitions[0].volume));
    }
    d.wipePartitionTable = false;
    d.truncateToBytes = clean.sizeBytes / 2 + 512;
    DriveLayout cut = buildImage(d, path);
    EXPECT_EQ(cut.sizeBytes, clean.sizeBytes / 2 + 512);
    EXPECT_EQ(std::filesystem::file_size(path), clean.sizeBytes / 2 + 512);
  }
}

TEST(MkimageStructure, SparseFilesOfFourGigabytesCostNoDiskSpace) {
  TempDir dir;
  DriveSpec d = bareDrive();
  EntrySpec huge;
  huge.name = "huge.mov";
  huge.dataSize = 5ULL << 30;
  huge.sparse = true;
  d.volume->root = {huge, textFile("small.txt", "small")};
  auto image = dir / "sparse.img";
  VolumeLayout v = *buildImage(d, image).volume;
  const FileLayout* f = v.find("huge.mov");
  ASSERT_TRUE(f);
  EXPECT_TRUE(f->sparse);
  EXPECT_FALSE(f->generatedData);
  ASSERT_EQ(f->dataExtents.size(), 1u);
  EXPECT_EQ(uint64_t(f->dataExtents[0].blockCount) * v.blockSize, 5ULL << 30);
  EXPECT_GT(std::filesystem::file_size(image), 5ULL << 30);
  struct stat st {};
  ASSERT_EQ(::stat(image.c_str(), &st), 0);
  EXPECT_LT(uint64_t(st.st_blocks) * 512, 64ULL << 20);
  if (haveTsk()) {
    std::string istat = tsk("istat", image, 0, "", nullptr, std::to_string(f->cnid));
    EXPECT_NE(istat.find("size: 5368709120"), std::string::npos) << istat;
    EXPECT_EQ(icat(image, 0, v.find("small.txt")->cnid, false), "small");
  }
  EntrySpec contradictory = huge;
  contradictory.data = std::vector<uint8_t>{1};
  d.volume->root = {contradictory};
  EXPECT_THROW(buildImage(d, image), BuildError);
}

// Names of the file and folder records in the journal's old node copies.
std::set<std::string> journalRecordNames(const std::filesystem::path& image, const VolumeLayout& v) {
  std::set<std::string> names;
  for (uint64_t sector : v.journalNodeCopySectors) {
    auto node = readSector(image, sector, v.catalog.nodeSize / 512);
    for (uint16_t r = 0; r < loadBE16(&node[10]); ++r) {
      uint16_t off = loadBE16(&node[node.size() - 2 * (r + 1)]);
      int16_t type = static_cast<int16_t>(loadBE16(&node[off + 2 + loadBE16(&node[off])]));
      if (type == kHFSPlusFileRecord || type == kHFSPlusFolderRecord) names.insert(recordName(node, off));
    }
  }
  return names;
}

TEST(MkimageStructure, DeletedParentCanBeLeftOutOfTheOldNodes) {
  TempDir dir;
  DriveSpec d = bareDrive();
  d.volume->journal = true;
  EntrySpec parent;
  parent.name = "Vanished";
  parent.folder = true;
  parent.deleted = true;
  parent.inOldNodes = false;
  parent.children = {textFile("orphan.txt", "orphaned")};
  EntrySpec kept;
  kept.name = "Kept Folder";
  kept.folder = true;
  kept.deleted = true;
  kept.children = {textFile("child.txt", "child")};
  d.volume->root = {parent, kept, textFile("live.txt", "live")};
  auto image = dir / "orphans.img";
  VolumeLayout v = *buildImage(d, image).volume;
  auto names = journalRecordNames(image, v);
  EXPECT_EQ(names.count("orphan.txt"), 1u);
  EXPECT_EQ(names.count("Vanished"), 0u);
  EXPECT_EQ(names.count("Kept Folder"), 1u);
  EXPECT_EQ(names.count("child.txt"), 1u);
  EXPECT_EQ(names.count("live.txt"), 1u) << "old nodes also hold the live records beside the deleted ones";
  EXPECT_TRUE(v.find("Vanished")->deleted);
  EXPECT_EQ(v.find("Vanished/orphan.txt")->parentID, v.find("Vanished")->cnid);
}

}  // namespace
}  // namespace ambrel::mkimage::test
