// The deleted-files search of a 128 MiB journal full of catalog node copies,
// against a plain sequential read of the same bytes, both from the page
// cache, best and median of eleven runs each (budget: the search, best
// against best, at no less than 80 % of the read's speed). The whole scan
// (live catalog read, files placed) is shown beside it. The volume is made
// once in $AMBREL_BENCH_DIR.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fmt/format.h>
#include <vector>

#include "BenchDir.h"
#include "ImageBuilder.h"
#include "hfs/Volume.h"
#include "support/QuietController.h"

using namespace ambrel;
using bench::benchDir;
using Clock = std::chrono::steady_clock;

namespace {

constexpr uint64_t kJournalBytes = 128u << 20;
constexpr int kPasses = 11;

struct Image {
  std::string path;
  uint64_t sectors = 0, journalByte = 0, journalSize = 0;
};

// A journaled volume whose journal, past its header, is one catalog leaf
// copy after another (as a busy volume's journal is).
Image makeImage() {
  Image img{(benchDir() / "journal_128m.img").string()};
  mkimage::DriveSpec d;
  d.table = mkimage::TableKind::None;
  mkimage::VolumeSpec v;
  v.journal = true;
  v.journalSize = kJournalBytes;
  v.journalLeafCopies = 1;
  v.generate = mkimage::GenerateSpec{3000, 100, 7, 1, 2000, true};
  d.volume = v;
  const auto layout = *mkimage::buildImage(d, img.path).volume;
  img.sectors = layout.sizeSectors;
  img.journalByte = layout.HPlusVolStart * 512 + layout.journalStart;
  img.journalSize = layout.journalSize;
  // Every node-sized slot of the journal after its first 4 KiB filled with
  // the live leaves in turn.
  const uint32_t nodeSize = layout.catalog.nodeSize;
  std::vector<std::vector<uint8_t>> leaves;
  const int fd = ::open(img.path.c_str(), O_RDWR | O_CLOEXEC);
  for (const auto& n : layout.catalog.nodes) {
    if (n.kind != -1) continue;
    std::vector<uint8_t> node(nodeSize);
    if (::pread(fd, node.data(), nodeSize, static_cast<off_t>(n.sector * 512)) == static_cast<ssize_t>(nodeSize))
      leaves.push_back(std::move(node));
  }
  size_t k = 0;
  for (uint64_t at = img.journalByte + 4096; at + nodeSize <= img.journalByte + img.journalSize && !leaves.empty();
       at += nodeSize, ++k)
    (void)!::pwrite(fd, leaves[k % leaves.size()].data(), nodeSize, static_cast<off_t>(at));
  ::close(fd);
  fmt::print("journal of {} MiB filled with {} leaf copies ({} distinct)\n", img.journalSize >> 20, k,
             leaves.size());
  return img;
}

double readRange(const std::string& path, uint64_t from, uint64_t bytes) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  std::vector<uint8_t> buf(1 << 20);
  const auto start = Clock::now();
  for (uint64_t off = 0; off < bytes;) {
    const ssize_t n = ::pread(fd, buf.data(), std::min<uint64_t>(buf.size(), bytes - off), static_cast<off_t>(from + off));
    if (n <= 0) break;
    off += static_cast<uint64_t>(n);
  }
  ::close(fd);
  return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main() {
  const Image img = makeImage();
  readRange(img.path, 0, img.sectors * 512);  // into the page cache
  std::vector<double> reads, searches;
  double scan = 1e9;
  uint64_t nodes = 0, files = 0;
  for (int pass = 0; pass < kPasses; ++pass) {
    reads.push_back(readRange(img.path, img.journalByte, img.journalSize));
    test::QuietController controller(PlistArray{PlistDict{{"device path", img.path}}});
    const PlistDict dict{{"Volume Start", uint64_t{0}}, {"Volume Size In Sectors", img.sectors},
                         {"Volume Name", "Bench"},      {"Volume Scan Type", 0},
                         {"Path", img.path},            {"Model", "Disk Image"},
                         {"Serial", ""},                {"Revision", ""}};
    Volume volume(dict, &controller);
    // The whole scan: header, live catalog, journal search, placing.
    auto start = Clock::now();
    volume.scanForDeletedFiles(&controller, true, false, {});
    scan = std::min(scan, std::chrono::duration<double>(Clock::now() - start).count());
    files = volume.fileCount;
    // The journal search alone, into a fresh tree, the volume's geometry kept.
    volume.resetTreeForDeletedScan();
    start = Clock::now();
    volume.searchCatFragsForDeletedFiles();
    searches.push_back(std::chrono::duration<double>(Clock::now() - start).count());
    nodes = volume.journalNodesFound;
    if (volume.fileCount != files) fmt::print("the search alone found {} files, the scan {}\n", volume.fileCount, files);
  }
  std::sort(reads.begin(), reads.end());
  std::sort(searches.begin(), searches.end());
  const double gb = img.journalSize / 1e9;
  const double readSpeed = gb / reads.front(), searchSpeed = gb / searches.front(), scanSpeed = gb / scan;
  const bool ok = searchSpeed >= 0.8 * readSpeed;
  fmt::print("journal search: best {:.2f} GB/s, median {:.2f} GB/s ({} node copies, {} files); whole deleted-files "
             "scan best {:.2f} GB/s\n",
             searchSpeed, gb / searches[searches.size() / 2], nodes, files, scanSpeed);
  fmt::print("sequential read of the journal: best {:.2f} GB/s, median {:.2f} GB/s\n", readSpeed,
             gb / reads[reads.size() / 2]);
  fmt::print("search/read, best against best: {:.1f} % (budget >= 80 %): {}\n", 100.0 * searchSpeed / readSpeed,
             ok ? "within budget" : "OVER BUDGET");
  return ok ? 0 : 1;
}
