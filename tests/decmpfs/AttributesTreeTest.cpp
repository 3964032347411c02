// The attributes B-tree reader: records parsed from bytes with their bounds,
// trees of several levels written by the image builder, damaged index nodes
// and leaf chains, and the real Mac-made trees of the shared images against
// what The Sleuth Kit's istat and icat read from them.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <regex>
#include <sstream>

#include "ImageBuilder.h"
#include "base/Endian.h"
#include "hfs/AttributesTree.h"
#include "scan/ScanHelpers.h"

namespace ambrel {
namespace {

namespace mk = ambrel::mkimage;
using test::TempDir;

// A leaf node of `size` bytes holding the given raw records.
std::vector<uint8_t> leafNode(uint32_t size, const std::vector<std::vector<uint8_t>>& records) {
  std::vector<uint8_t> node(size, 0);
  node[8] = 0xFF;  // leaf
  node[9] = 1;
  storeBE16(&node[10], static_cast<uint16_t>(records.size()));
  size_t at = 14;
  for (size_t i = 0; i < records.size(); ++i) {
    storeBE16(&node[size - 2 * (i + 1)], static_cast<uint16_t>(at));
    std::memcpy(&node[at], records[i].data(), records[i].size());
    at += records[i].size();
  }
  storeBE16(&node[size - 2 * (records.size() + 1)], static_cast<uint16_t>(at));
  return node;
}

std::vector<uint8_t> key(uint32_t fileID, const std::string& name, uint32_t startBlock = 0) {
  std::vector<uint8_t> k(14 + 2 * name.size());
  storeBE16(&k[0], static_cast<uint16_t>(k.size() - 2));
  storeBE32(&k[4], fileID);
  storeBE32(&k[8], startBlock);
  storeBE16(&k[12], static_cast<uint16_t>(name.size()));
  for (size_t i = 0; i < name.size(); ++i) storeBE16(&k[14 + 2 * i], static_cast<uint8_t>(name[i]));
  return k;
}

std::vector<uint8_t> inlineRecord(uint32_t fileID, const std::string& name, const std::string& value) {
  auto r = key(fileID, name);
  std::vector<uint8_t> body(16, 0);
  storeBE32(&body[0], kAttrInlineData);
  storeBE32(&body[12], static_cast<uint32_t>(value.size()));
  r.insert(r.end(), body.begin(), body.end());
  r.insert(r.end(), value.begin(), value.end());
  return r;
}

TEST(AttributeRecords, KindsAndBoundsFromBytes) {
  auto fork = key(20, "big");
  std::vector<uint8_t> forkBody(8 + 80, 0);
  storeBE32(&forkBody[0], kAttrForkData);
  storeBE64(&forkBody[8], 5000);        // logical size
  storeBE32(&forkBody[8 + 12], 2);      // total blocks
  storeBE32(&forkBody[8 + 16], 77);     // first extent
  storeBE32(&forkBody[8 + 20], 2);
  fork.insert(fork.end(), forkBody.begin(), forkBody.end());
  auto more = key(20, "big", 2);
  std::vector<uint8_t> moreBody(8 + 64, 0);
  storeBE32(&moreBody[0], kAttrExtents);
  storeBE32(&moreBody[8], 99);
  storeBE32(&moreBody[12], 3);
  more.insert(more.end(), moreBody.begin(), moreBody.end());
  const auto node = leafNode(512, {inlineRecord(19, "myxattr", "value!"), fork, more});

  auto a = attributeRecordAt(node, 512, 0);
  ASSERT_TRUE(a);
  EXPECT_EQ(a->fileID, 19u);
  EXPECT_EQ(a->nameUtf8(), "myxattr");
  EXPECT_EQ(a->recordType, kAttrInlineData);
  EXPECT_EQ(std::string(a->inlineData.begin(), a->inlineData.end()), "value!");
  auto b = attributeRecordAt(node, 512, 1);
  ASSERT_TRUE(b);
  EXPECT_EQ(b->recordType, kAttrForkData);
  EXPECT_EQ(b->fork.logicalSize, 5000u);
  EXPECT_EQ(b->fork.extents.extDesc[0].startBlock, 77u);
  auto c = attributeRecordAt(node, 512, 2);
  ASSERT_TRUE(c);
  EXPECT_EQ(c->startBlock, 2u);
  EXPECT_EQ(c->extents.extDesc[0].startBlock, 99u);
  EXPECT_FALSE(attributeRecordAt(node, 512, 3));

  // An inline size running into the next record, a name over 127 units, an
  // unknown record type, a name longer than its key: each record refused alone.
  auto longValue = inlineRecord(19, "a", "xyz");
  storeBE32(&longValue[longValue.size() - 3 - 4], 400);
  auto longName = key(19, std::string(128, 'n'));
  std::vector<uint8_t> body(16, 0);
  storeBE32(&body[0], kAttrInlineData);
  longName.insert(longName.end(), body.begin(), body.end());
  auto unknown = inlineRecord(19, "c", "1");
  storeBE32(&unknown[key(19, "c").size()], 0x40);
  auto badKey = inlineRecord(19, "dd", "2");
  storeBE16(&badKey[0], 12);  // key length too short for its two-unit name
  const auto bad = leafNode(1024, {longValue, longName, unknown, badKey, inlineRecord(19, "ok", "fine")});
  for (size_t i = 0; i < 4; ++i) EXPECT_FALSE(attributeRecordAt(bad, 1024, i)) << i;
  EXPECT_TRUE(attributeRecordAt(bad, 1024, 4));

  // Offsets that go backwards make the whole table untrustworthy.
  auto swapped = node;
  storeBE16(&swapped[510], 100);
  EXPECT_FALSE(attributeRecordAt(swapped, 512, 0));
}

TEST(AttributeRecords, KeyOrder) {
  EXPECT_LT(compareAttributeKeys(5, u"zz", 0, 6, u"a", 0), 0);
  EXPECT_LT(compareAttributeKeys(5, u"com.apple", 0, 5, u"com.apple.decmpfs", 0), 0);
  EXPECT_GT(compareAttributeKeys(5, u"com.b", 0, 5, u"com.apple.decmpfs", 0), 0);
  EXPECT_LT(compareAttributeKeys(5, u"x", 0, 5, u"x", 8), 0);
  EXPECT_EQ(compareAttributeKeys(5, u"x", 8, 5, u"x", 8), 0);
}

// A volume whose attributes tree has several levels: every attribute is
// found through the index, and again through the leaf chain once the root
// is damaged; a leaf chain that loops back ends.
struct ManyAttributes {
  TempDir dir;
  std::string image;
  mk::DriveLayout layout;
  test::ScanResult scan;
  std::shared_ptr<AttributesTree> tree;

  explicit ManyAttributes(const std::function<void(const std::string&, const mk::VolumeLayout&)>& damage = {}) {
    mk::VolumeSpec spec;
    spec.nodeSize = 4096;
    for (int i = 0; i < 300; ++i) {
      mk::EntrySpec f;
      f.name = "f" + std::to_string(i);
      f.data = std::vector<uint8_t>{1, 2, 3};
      f.xattrs.push_back({"com.example.first", std::vector<uint8_t>(100, static_cast<uint8_t>(i))});
      f.xattrs.push_back({"com.example.second." + std::to_string(i), std::vector<uint8_t>(i % 7, 'v')});
      spec.root.push_back(f);
    }
    mk::DriveSpec drive;
    drive.table = mk::TableKind::None;
    drive.volume = spec;
    image = (dir / "attrs.img").string();
    layout = mk::buildImage(drive, image);
    if (damage) damage(image, *layout.volume);
    scan = test::scan(image, 0, std::filesystem::file_size(image) / 512, "Normal Scan");
    Volume& v = *scan.volume;
    tree = v.attributesTree([&v](uint64_t s, int32_t n, void* b) { return v.readSector(s, n, b); });
  }

  uint32_t idOf(int i) const { return layout.volume->find("f" + std::to_string(i))->cnid; }
};

TEST(AttributesTreeOnBuilderVolumes, EveryAttributeFoundThroughSeveralLevels) {
  ManyAttributes m;
  ASSERT_TRUE(m.tree);
  const auto& header = *m.scan.volume->attributesHeader;
  EXPECT_NE(header.rootNode, header.firstLeafNode);  // an index above the leaves
  for (int i = 0; i < 300; i += 7) {
    std::vector<uint8_t> node;
    auto first = m.tree->find(m.idOf(i), u"com.example.first", 0, node);
    ASSERT_TRUE(first) << i;
    EXPECT_EQ(first->inlineData.size(), 100u);
    EXPECT_EQ(first->inlineData[99], static_cast<uint8_t>(i));
    std::vector<std::vector<uint8_t>> nodes;
    const auto all = m.tree->recordsOf(m.idOf(i), nodes);
    ASSERT_EQ(all.size(), 2u) << i;
    EXPECT_EQ(all[1].nameUtf8(), "com.example.second." + std::to_string(i));
    EXPECT_EQ(all[1].inlineData.size(), static_cast<size_t>(i % 7));
    EXPECT_FALSE(m.tree->find(m.idOf(i), u"com.example.third", 0, node));
  }
  // Index nodes are read once: with them held, a look-up reads its leaf alone.
  std::vector<uint8_t> node;
  const uint64_t before = m.tree->nodesRead();
  ASSERT_TRUE(m.tree->find(m.idOf(150), u"com.example.first", 0, node));
  EXPECT_EQ(m.tree->nodesRead() - before, 1u);
}

// The root index node overwritten: look-ups fall back to one walk of the
// leaf chain and still find everything.
TEST(AttributesTreeOnBuilderVolumes, DamagedRootFallsBackToTheLeafChain) {
  uint64_t rootSector = 0;
  ManyAttributes probe;
  const auto h = *probe.scan.volume->attributesHeader;
  const auto& ext = probe.scan.volume->attributesExt;
  rootSector = probe.layout.volume->blockToSector(ext[0].startBlock) + uint64_t{h.rootNode} * h.nodeSize / 512;
  ManyAttributes m([&](const std::string& image, const mk::VolumeLayout&) {
    std::vector<char> noise(h.nodeSize, '\x5A');
    FILE* f = std::fopen(image.c_str(), "r+b");
    ASSERT_TRUE(f);
    std::fseek(f, static_cast<long>(rootSector * 512), SEEK_SET);
    std::fwrite(noise.data(), 1, noise.size(), f);
    std::fclose(f);
  });
  ASSERT_TRUE(m.tree);
  for (int i = 0; i < 300; i += 13) {
    std::vector<uint8_t> node;
    auto rec = m.tree->find(m.idOf(i), u"com.example.first", 0, node);
    ASSERT_TRUE(rec) << i;
    EXPECT_EQ(rec->inlineData[0], static_cast<uint8_t>(i));
  }
}

TEST(AttributesTreeOnBuilderVolumes, LoopingLeafChainEnds) {
  ManyAttributes probe;
  const auto h = *probe.scan.volume->attributesHeader;
  const auto& ext = probe.scan.volume->attributesExt;
  const uint64_t base = probe.layout.volume->blockToSector(ext[0].startBlock);
  // The second leaf's forward link points back to the first leaf, and the
  // root is gone, so only the chain remains.
  ManyAttributes m([&](const std::string& image, const mk::VolumeLayout&) {
    FILE* f = std::fopen(image.c_str(), "r+b");
    ASSERT_TRUE(f);
    uint8_t link[4];
    storeBE32(link, h.firstLeafNode);
    std::fseek(f, static_cast<long>(base * 512 + uint64_t{h.firstLeafNode + 1} * h.nodeSize), SEEK_SET);
    std::fwrite(link, 1, 4, f);
    std::vector<char> noise(h.nodeSize, '\x5A');
    std::fseek(f, static_cast<long>(base * 512 + uint64_t{h.rootNode} * h.nodeSize), SEEK_SET);
    std::fwrite(noise.data(), 1, noise.size(), f);
    std::fclose(f);
  });
  ASSERT_TRUE(m.tree);
  std::vector<uint8_t> node;
  EXPECT_TRUE(m.tree->find(m.idOf(0), u"com.example.first", 0, node));
  // A file whose records lie beyond the loop is not found, and the walk ended.
  EXPECT_FALSE(m.tree->find(m.idOf(299), u"com.example.first", 0, node));
  EXPECT_LT(m.tree->nodesRead(), 20u);
}

// ---- the shared Mac-made images

struct TskAttribute {
  std::string name;
  uint64_t size = 0;
  int id = 0;
  bool operator<(const TskAttribute& o) const { return name < o.name; }
};

// The extended attributes istat lists for an inode.
std::vector<TskAttribute> istatAttributes(const std::string& image, uint64_t offset, uint32_t inode) {
  std::string out;
  test::runCommand("istat -o " + std::to_string(offset) + " '" + image + "' " + std::to_string(inode) + " 2>/dev/null",
                   &out);
  static const std::regex line(R"(Type: ExATTR \(4354-(\d+)\)\s+Name: (\S+)\s+\S+\s+size: (\d+))");
  std::vector<TskAttribute> found;
  std::istringstream in(out);
  for (std::string l; std::getline(in, l);) {
    std::smatch m;
    if (std::regex_search(l, m, line)) found.push_back({m[2], std::stoull(m[3]), std::stoi(m[1])});
  }
  std::sort(found.begin(), found.end());
  return found;
}

struct RealAttributes {
  const char* file;
  const char* unpack;
  uint64_t offset;
  size_t records;  // attribute records in the tree, from the shared reference outputs
};

TEST(AttributesTreeOnRealImages, AgreesWithIstatAndIcat) {
  const auto data = test::sharedTestData();
  if (data.empty()) GTEST_SKIP() << "shared test data not present";
  if (!test::haveTool("istat") || !test::haveTool("fls")) GTEST_SKIP() << "The Sleuth Kit missing";
  const RealAttributes images[] = {{"dfvfs/hfsplus_zlib.DERIVED.raw.gz", "gzip -dc", 40, 1},
                                   {"go-filesystems-hfsplus/hfsplus.dmg.gz", "gzip -dc", 0, 9},
                                   {"hfsinspect/hfsj.bin.7z", "7z e -so", 0, 40}};
  for (const auto& img : images) {
    SCOPED_TRACE(img.file);
    TempDir dir;
    const std::string image = (dir / "image.raw").string();
    ASSERT_EQ(test::runCommand(std::string(img.unpack) + " '" + (data / "hfs_images" / img.file).string() + "' > '" +
                               image + "' 2>/dev/null"),
              0);
    auto scanned = test::scan(image, img.offset, std::filesystem::file_size(image) / 512 - img.offset, "Normal Scan");
    Volume& v = *scanned.volume;
    auto tree = v.attributesTree([&v](uint64_t s, int32_t n, void* b) { return v.readSector(s, n, b); });
    ASSERT_TRUE(tree);

    // Every file and folder fls lists: our records against istat's.
    std::string fls;
    test::runCommand("fls -r -o " + std::to_string(img.offset) + " '" + image + "' 2>/dev/null", &fls);
    static const std::regex entry(R"(^[+ ]*[rdl-]/[rdl-] (\d+):)");
    std::istringstream in(fls);
    size_t total = 0;
    for (std::string l; std::getline(in, l);) {
      std::smatch m;
      if (!std::regex_search(l, m, entry)) continue;
      const uint32_t inode = static_cast<uint32_t>(std::stoul(m[1]));
      std::vector<std::vector<uint8_t>> nodes;
      const auto ours = tree->recordsOf(inode, nodes);
      total += ours.size();
      // istat is asked only where one of the two sees attributes, and for a
      // sample of the rest, to keep the test quick on the larger image.
      if (ours.empty() && inode % 25 != 0) continue;
      const auto theirs = istatAttributes(image, img.offset, inode);
      ASSERT_EQ(ours.size(), theirs.size()) << "inode " << inode;
      std::vector<TskAttribute> mine;
      for (const auto& r : ours) mine.push_back({r.nameUtf8(), r.inlineData.size(), 0});
      std::sort(mine.begin(), mine.end());
      for (size_t i = 0; i < mine.size(); ++i) {
        EXPECT_EQ(mine[i].name, theirs[i].name) << "inode " << inode;
        EXPECT_EQ(mine[i].size, theirs[i].size) << "inode " << inode;
        // The value itself, as icat reads that attribute.
        std::string value;
        test::runCommand("icat -o " + std::to_string(img.offset) + " '" + image + "' " + std::to_string(inode) +
                             "-4354-" + std::to_string(theirs[i].id) + " 2>/dev/null",
                         &value);
        const std::vector<uint8_t> bytes = v.attributeValue(
            *tree, inode, mine[i].name, [&v](uint64_t s, int32_t n, void* b) { return v.readSector(s, n, b); });
        EXPECT_EQ(std::string(bytes.begin(), bytes.end()), value) << "inode " << inode << " " << mine[i].name;
      }
    }
    EXPECT_EQ(total, img.records);
  }
}

}  // namespace
}  // namespace ambrel
