// Drives crafted to mislead: sizes and counts at the ends of their ranges,
// extents far past the drive. Each is scanned and saved by the command line
// (a sanitizer build in `make test`): it must end in bounded time and memory,
// write nothing outside its destination, overwrite nothing there, and leave
// the drive as it was.
#include <filesystem>
#include <functional>

#include "Crafted.h"

namespace ambrel::test {
namespace {

namespace fs = std::filesystem;

std::vector<uint8_t> be16(uint16_t v) { return {uint8_t(v >> 8), uint8_t(v)}; }

// Byte offsets in a volume header, a fork record and a B-tree header node.
constexpr uint64_t kBlockSize = 40, kTotalBlocks = 44, kFileCount = 32, kExtentsFork = 192, kCatalogFork = 272;
constexpr uint64_t kForkTotalBlocks = 12, kForkFirstExtent = 16;
constexpr uint64_t kLeafRecords = 14 + 6, kNodeSize = 14 + 18, kTotalNodes = 14 + 22;

struct Craft {
  const char* name;
  std::function<void(const BuiltDrive&)> apply;
};

uint64_t headerNodeByte(const mk::BTreeLayout& tree) {
  for (const auto& n : tree.nodes)
    if (n.kind == 1) return n.sector * 512;
  return 0;
}

// Both copies of the volume header, so that neither can stand in for the other.
void patchHeaders(const BuiltDrive& d, uint64_t at, const std::vector<uint8_t>& bytes) {
  d.patch(1024 + at, bytes);
  if (d.volume().alternateHeaderSector) d.patch(d.volume().alternateHeaderSector * 512 + at, bytes);
}

std::vector<Craft> crafts() {
  return {
      {"block size 0", [](const BuiltDrive& d) { patchHeaders(d, kBlockSize, be32(0)); }},
      {"block size 2^31", [](const BuiltDrive& d) { patchHeaders(d, kBlockSize, be32(0x80000000u)); }},
      {"block size 2^32-512", [](const BuiltDrive& d) { patchHeaders(d, kBlockSize, be32(0xFFFFFE00u)); }},
      {"total blocks 2^32-1", [](const BuiltDrive& d) { patchHeaders(d, kTotalBlocks, be32(0xFFFFFFFFu)); }},
      {"file count 2^32-1", [](const BuiltDrive& d) { patchHeaders(d, kFileCount, be32(0xFFFFFFFFu)); }},
      {"catalog node size 0",
       [](const BuiltDrive& d) { d.patch(headerNodeByte(d.volume().catalog) + kNodeSize, be16(0)); }},
      {"catalog node size 65535",
       [](const BuiltDrive& d) { d.patch(headerNodeByte(d.volume().catalog) + kNodeSize, be16(0xFFFF)); }},
      {"catalog counts 2^32-1",
       [](const BuiltDrive& d) {
         const uint64_t h = headerNodeByte(d.volume().catalog);
         d.patch(h + kLeafRecords, be32(0xFFFFFFFFu));
         d.patch(h + kTotalNodes, be32(0xFFFFFFFFu));
       }},
      {"extents node size 0",
       [](const BuiltDrive& d) { d.patch(headerNodeByte(d.volume().extentsTree) + kNodeSize, be16(0)); }},
      {"catalog extent past the drive",
       [](const BuiltDrive& d) {
         // A second extent far beyond the drive, and a block count to match.
         patchHeaders(d, kCatalogFork + kForkFirstExtent + 8, be32(0xFFFFFF00u));
         patchHeaders(d, kCatalogFork + kForkFirstExtent + 12, be32(0xFFu));
         patchHeaders(d, kCatalogFork + kForkTotalBlocks, be32(0xFFFFFFFFu));
       }},
      {"extents file extent past the drive",
       [](const BuiltDrive& d) {
         patchHeaders(d, kExtentsFork + kForkFirstExtent, be32(0xFFFFFFF0u));
         patchHeaders(d, kExtentsFork + kForkFirstExtent + 4, be32(0x10u));
       }},
  };
}

TEST(CraftedDrive, EachIsScannedAndSavedInBoundsWithoutEscapesOrOverwrites) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  JourneyCounts counts;
  for (const Craft& craft : crafts()) {
    SCOPED_TRACE(craft.name);
    BuiltDrive d(bareDrive(generatedVolume(60, 4)));
    craft.apply(d);
    // A file of the user's already where the save goes, under a name the
    // save would use.
    fs::create_directories(d.dir / "out" / "Root");
    writeFile((d.dir / "out" / "Root" / "d0").string(), std::vector<uint8_t>{'m', 'i', 'n', 'e'});
    boundedJourney(d, {"tree {drive}", "tree --advanced {drive}", "recover {drive} --out {out}",
                       "recover --advanced {drive} --out {out}"},
                   counts);
  }
  EXPECT_EQ(counts.escapes, 0);
  EXPECT_EQ(counts.overwrites, 0);
}

}  // namespace
}  // namespace ambrel::test
