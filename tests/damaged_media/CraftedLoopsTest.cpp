// Drives whose links go round in circles: extended boot records, catalog
// leaves, index nodes, extents-overflow records and journal transactions
// that lead back to where they started, and a node larger than any node size.
// Each goes through the whole journey of the command line in bounded time
// and memory, with nothing written outside the destination or over the
// user's files.
#include <fmt/format.h>

#include <filesystem>
#include <functional>

#include "Crafted.h"

namespace ambrel::test {
namespace {

namespace fs = std::filesystem;

void storeBE16(uint8_t* p, uint16_t v) { p[0] = uint8_t(v >> 8), p[1] = uint8_t(v); }
uint16_t loadBE16(const uint8_t* p) { return uint16_t(p[0] << 8 | p[1]); }
uint32_t loadLE32(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }
std::vector<uint8_t> le(uint64_t v, int bytes) {
  std::vector<uint8_t> out;
  for (int i = 0; i < bytes; ++i) out.push_back(uint8_t(v >> (8 * i)));
  return out;
}
std::vector<uint8_t> beBytes(uint64_t v, int bytes) {
  std::vector<uint8_t> out;
  for (int i = bytes - 1; i >= 0; --i) out.push_back(uint8_t(v >> (8 * i)));
  return out;
}

// A journaled volume of 300 files on 1 KiB catalog nodes (an index three
// levels deep), a file of 20 fragments (two extents-overflow records), a
// deleted file the journal remembers and room in free space; behind it, in
// an MBR, three logical partitions chained by extended boot records.
mk::DriveSpec loopingDrive() {
  mk::VolumeSpec v = generatedVolume(300, 6);
  v.name = "Loops";
  v.journal = true;
  v.nodeSize = 1024;
  mk::EntrySpec gone = sizedFile("gone.txt", 5000);
  gone.deleted = true;
  v.root = {sizedFile("frag.bin", 24 * 4096, 20), gone};
  mk::PayloadSpec room;
  room.size = 65536 + 4096;
  v.freePayloads = {room};
  mk::DriveSpec d;
  d.table = mk::TableKind::MBR;
  mk::PartitionSpec p;
  p.volume = v;
  d.partitions.push_back(p);
  for (int i = 0; i < 3; ++i) {
    mk::PartitionSpec other;
    other.kind = mk::PartitionSpec::Kind::Other;
    other.logical = true;
    other.sizeSectors = 2048;
    d.partitions.push_back(other);
  }
  return d;
}

uint64_t nodeByte(const mk::BTreeLayout& tree, uint32_t node) {
  for (const auto& n : tree.nodes)
    if (n.node == node) return n.sector * 512;
  ADD_FAILURE() << "no node " << node;
  return 0;
}

// Byte offset of record `i` in a node read from the drive.
uint16_t recordOffset(const std::vector<uint8_t>& node, size_t i) { return loadBE16(&node[node.size() - 2 * (i + 1)]); }

// The first sector of the extended partition, from the MBR's entry for it.
uint64_t extendedStart(const BuiltDrive& d) {
  const auto mbr = d.read(0, 512);
  for (int slot = 0; slot < 4; ++slot) {
    const uint8_t* e = &mbr[446 + 16 * slot];
    if (e[4] == 0x05 || e[4] == 0x0F || e[4] == 0x85) return loadLE32(e + 8);
  }
  ADD_FAILURE() << "no extended partition";
  return 0;
}

// The link entry of an extended boot record, pointed at another one.
void linkEbr(const BuiltDrive& d, uint64_t ebr, uint64_t to) {
  std::vector<uint8_t> entry(16, 0);
  entry[4] = 0x05;
  const auto rel = le(to - extendedStart(d), 4), size = le(4096, 4);
  std::copy(rel.begin(), rel.end(), entry.begin() + 8);
  std::copy(size.begin(), size.end(), entry.begin() + 12);
  d.patch(ebr * 512 + 446 + 16, entry);
}

uint64_t journalByte(const BuiltDrive& d) { return d.volume().HPlusVolStart * 512 + d.volume().journalStart; }

// A leaf of 65,536 bytes: a real 4 KiB leaf's records, then the same records
// again past 32 KiB, and the offset table at the 64 KiB end.
std::vector<uint8_t> bigLeaf(const BuiltDrive& d) {
  const auto leaves = leavesOf(d.volume().catalog);
  const std::vector<uint8_t> leaf = d.read(leaves.at(1)->sector * 512, d.volume().catalog.nodeSize);
  const uint16_t n = loadBE16(&leaf[10]);
  const uint16_t freeAt = recordOffset(leaf, n);
  std::vector<uint8_t> big(65536, 0);
  std::copy(leaf.begin(), leaf.begin() + freeAt, big.begin());
  std::fill(big.begin(), big.begin() + 8, 0);  // no links
  constexpr size_t kAgain = 40000;
  std::copy(leaf.begin() + 14, leaf.begin() + freeAt, big.begin() + kAgain);
  storeBE16(&big[10], uint16_t(2 * n));
  for (uint16_t i = 0; i < n; ++i) {
    storeBE16(&big[65536 - 2 * (i + 1)], recordOffset(leaf, i));
    storeBE16(&big[65536 - 2 * (n + i + 1)], uint16_t(kAgain + recordOffset(leaf, i) - 14));
  }
  storeBE16(&big[65536 - 2 * (2 * n + 1)], uint16_t(kAgain + freeAt - 14));
  return big;
}

struct Craft {
  const char* name;
  std::function<void(const BuiltDrive&)> apply;
};

std::vector<Craft> crafts() {
  return {
      {"EBR chain loops back to its first record",
       [](const BuiltDrive& d) { linkEbr(d, d.layout.ebrSectors.back(), d.layout.ebrSectors.front()); }},
      {"EBR links to itself",
       [](const BuiltDrive& d) { linkEbr(d, d.layout.ebrSectors.at(1), d.layout.ebrSectors.at(1)); }},
      {"catalog leaf chain loops back to the first leaf",
       [](const BuiltDrive& d) {
         const auto leaves = leavesOf(d.volume().catalog);
         d.patch(leaves.back()->sector * 512, be32(leaves.front()->node));
       }},
      {"catalog leaf links to itself",
       [](const BuiltDrive& d) {
         const auto* leaf = leavesOf(d.volume().catalog).at(5);
         d.patch(leaf->sector * 512, be32(leaf->node));
       }},
      {"catalog index record points at its own node",
       [](const BuiltDrive& d) {
         const auto& t = d.volume().catalog;
         const uint64_t at = nodeByte(t, t.rootNode);
         const auto node = d.read(at, t.nodeSize);
         const uint16_t rec = recordOffset(node, 0);
         d.patch(at + rec + 2 + loadBE16(&node[rec]), be32(t.rootNode));
       }},
      {"catalog index record below the root points back up at the root",
       [](const BuiltDrive& d) {
         const auto& t = d.volume().catalog;
         for (const auto& n : t.nodes) {
           if (n.kind != 0 || n.node == t.rootNode) continue;
           const auto node = d.read(n.sector * 512, t.nodeSize);
           for (size_t i = 0; i < n.numRecords; ++i) {
             const uint16_t rec = recordOffset(node, i);
             d.patch(n.sector * 512 + rec + 2 + loadBE16(&node[rec]), be32(t.rootNode));
           }
           return;
         }
         ADD_FAILURE() << "no index node below the root";
       }},
      {"extents overflow record with no blocks asks for itself again",
       [](const BuiltDrive& d) {
         const uint64_t at = leavesOf(d.volume().extentsTree).at(0)->sector * 512;
         const auto node = d.read(at, d.volume().extentsTree.nodeSize);
         const uint16_t rec = recordOffset(node, 0);
         for (int i = 0; i < 8; ++i) d.patch(at + rec + 12 + 8 * i + 4, be32(0));
       }},
      {"extents overflow records repeat",
       [](const BuiltDrive& d) {
         const uint64_t at = leavesOf(d.volume().extentsTree).at(0)->sector * 512;
         const auto node = d.read(at, d.volume().extentsTree.nodeSize);
         ASSERT_GE(loadBE16(&node[10]), 2);
         const uint16_t first = recordOffset(node, 0), second = recordOffset(node, 1);
         d.patch(at + second, std::vector<uint8_t>(node.begin() + first, node.begin() + second));
       }},
      {"extents overflow leaf links to itself",
       [](const BuiltDrive& d) {
         const auto* leaf = leavesOf(d.volume().extentsTree).at(0);
         d.patch(leaf->sector * 512, be32(leaf->node));
       }},
      {"journal transactions wrap onto themselves",
       [](const BuiltDrive& d) {
         const uint64_t j = journalByte(d), size = d.volume().journalSize;
         d.patch(j + 8, le(512 + 4096, 8));  // start inside the first transaction
         d.patch(j + 16, le(512, 8));         // end just before it: the list goes all the way round
         d.patch(j + 512 + 2, le(0xFFFF, 2)); // its block list: every slot used,
         d.patch(j + 512 + 4, le(size, 4));   // and the next transaction is itself
       }},
      {"journal header sizes at their limits",
       [](const BuiltDrive& d) {
         const uint64_t j = journalByte(d);
         d.patch(j + 8, le(~uint64_t{511}, 8));
         d.patch(j + 16, le(~uint64_t{511}, 8));
         d.patch(j + 24, le(~uint64_t{0}, 8));
         d.patch(j + 32, le(0xFFFFFFFFu, 4));
         d.patch(j + 40, le(65536, 4));
       }},
      {"journal header leaves just room for the copies across its end",
       [](const BuiltDrive& d) {
         const uint64_t size = d.volume().journalSize;
         const uint64_t carry = d.volume().catalog.nodeSize / 512 - 1;
         d.patch(journalByte(d) + 40, le(size - 2 * carry * 512, 4));
       }},
      {"journal runs from the volume's last sector past the drive",
       [](const BuiltDrive& d) {
         const auto& v = d.volume();
         const uint64_t info = v.blockToSector(v.journalInfoBlock) * 512;
         d.patch(info + 36, beBytes(uint64_t(v.totalBlocks) * v.blockSize - 512, 8));
         d.patch(info + 44, beBytes(~uint64_t{0}, 8));
       }},
      {"a leaf of 65536 bytes in free space",
       [](const BuiltDrive& d) { d.patch(d.volume().payloads.at(0).sector * 512, bigLeaf(d)); }},
  };
}

TEST(CraftedLoops, EachEndsInBoundsWithoutEscapesOrOverwrites) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  const BuiltDrive base(loopingDrive());
  ASSERT_GE(base.volume().catalog.depth, 3u);
  ASSERT_EQ(base.layout.ebrSectors.size(), 3u);
  ASSERT_GE(leavesOf(base.volume().extentsTree).size(), 1u);
  ASSERT_FALSE(base.volume().journalNodeCopySectors.empty());
  JourneyCounts counts;
  for (const Craft& craft : crafts()) {
    SCOPED_TRACE(craft.name);
    const BuiltDrive d(BuiltDrive::CopyOf{base});
    craft.apply(d);
    ASSERT_FALSE(readFile(d.path) == readFile(base.path)) << "the craft changed nothing";
    fs::create_directories(d.dir / "out" / "Root");
    writeFile(d.dir / "out" / "Root" / "frag.bin", std::vector<uint8_t>{'m', 'i', 'n', 'e'});
    boundedJourney(d,
                   {"partitions {drive}", "find-volumes --quick {drive}", "tree {drive}", "tree --advanced {drive}",
                    "deleted {drive}", "recover {drive} --out {out}", "recover --advanced {drive} --out {out}",
                    "deleted {drive} --out {out}/deleted"},
                   counts);
  }
  EXPECT_EQ(counts.commands, 8 * static_cast<int>(crafts().size()));
  EXPECT_EQ(counts.escapes, 0);
  EXPECT_EQ(counts.overwrites, 0);
}

}  // namespace
}  // namespace ambrel::test
