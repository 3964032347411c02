// Drives crafted to mislead: sizes and counts at the ends of their ranges,
// extents far past the drive. Each is scanned and saved by the command line
// (a sanitizer build in `make test`): it must end in bounded time and memory,
// write nothing outside its destination, overwrite nothing there, and leave
// the drive as it was.
#include <fmt/format.h>
#include <sys/resource.h>

#include <chrono>
#include <filesystem>
#include <functional>

#include "Damaged.h"

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

// Every file below `root`, with its bytes.
std::map<std::string, std::vector<uint8_t>> contentsUnder(const fs::path& root) {
  std::map<std::string, std::vector<uint8_t>> out;
  for (const auto& e : fs::recursive_directory_iterator(root))
    out[fs::relative(e.path(), root).string()] = e.is_regular_file() ? readFile(e.path()) : std::vector<uint8_t>{};
  return out;
}

long childrensMaxRssKb() {
  rusage u{};
  getrusage(RUSAGE_CHILDREN, &u);
  return u.ru_maxrss;
}

TEST(CraftedDrive, EachIsScannedAndSavedInBoundsWithoutEscapesOrOverwrites) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  constexpr long kMaxRssKb = 1024 * 1024;  // far above what a drive of this size needs
  constexpr int kSecondsEach = 120;
  int escapes = 0, overwrites = 0;
  for (const Craft& craft : crafts()) {
    SCOPED_TRACE(craft.name);
    BuiltDrive d(bareDrive(generatedVolume(60, 4)));
    craft.apply(d);
    const std::vector<uint8_t> image = readFile(d.path);
    // A file of the user's already where the save goes, under a name the
    // save would use.
    const fs::path out = d.dir / "out";
    fs::create_directories(out / "Root");
    writeFile((out / "Root" / "d0").string(), std::vector<uint8_t>{'m', 'i', 'n', 'e'});
    const auto outside = contentsUnder(d.dir.path());

    for (const char* command : {"tree ", "tree --advanced ", "recover ", "recover --advanced "}) {
      SCOPED_TRACE(command);
      const bool save = std::string(command).rfind("recover", 0) == 0;
      const auto start = std::chrono::steady_clock::now();
      const CliRun r = runCli(command + shellQuoted(d.path) + (save ? " --out " + shellQuoted(out.string()) : ""),
                              "", kSecondsEach);
      const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      EXPECT_TRUE(r.status >= 0 && r.status <= 3) << "status " << r.status << "\n" << r.err.substr(0, 4000);
      EXPECT_EQ(r.err.find("Sanitizer"), std::string::npos) << r.err.substr(0, 4000);
      EXPECT_EQ(r.err.find("runtime error"), std::string::npos) << r.err.substr(0, 4000);
      EXPECT_LT(seconds, kSecondsEach);
      EXPECT_LT(childrensMaxRssKb(), kMaxRssKb);
    }
    // Outside the destination nothing changed, the drive included; inside
    // it the user's own file is as it was.
    auto after = contentsUnder(d.dir.path());
    for (const auto& [path, bytes] : outside) {
      const auto it = after.find(path);
      if (it == after.end() || it->second != bytes) {
        ++overwrites;
        ADD_FAILURE() << path << " changed or went away";
      }
    }
    for (const auto& [path, bytes] : after)
      if (!outside.count(path) && path.rfind("out/", 0) != 0) {
        ++escapes;
        ADD_FAILURE() << path << " written outside the destination";
      }
    EXPECT_TRUE(readFile(d.path) == image);
  }
  EXPECT_EQ(escapes, 0);
  EXPECT_EQ(overwrites, 0);
}

}  // namespace
}  // namespace ambrel::test
