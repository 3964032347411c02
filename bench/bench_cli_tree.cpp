// `ambrel-cli tree IMG > file` as a user meets it, from process start to the
// last byte written, against `fls -r -p IMG > file` on the same volume from
// the page cache: TSV and JSON listings of 100,000- and 1,000,000-entry
// volumes (budget: at least 10x faster than fls), the advanced scan, which
// also searches every sector (at least 3x), and the peak memory of the
// standard scan of 1,000,000 entries (budget: at most 250 MB), with the
// bytes per entry at both sizes to show it grows linearly.
//
// Every command runs several times, each side in turn so both meet the same
// load on a shared machine; min and median are printed and the verdict is
// taken on the best runs (others' load only ever slows a run down).
// The volumes are made once in $AMBREL_BENCH_DIR.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <string>
#include <vector>

#include "BenchDir.h"
#include "support/ListingVolume.h"

extern char** environ;

using namespace ambrel;
using bench::benchDir;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kRuns = 5;

std::string cliPath() {
  if (const char* p = std::getenv("AMBREL_CLI")) return p;
  // bench/bench_cli_tree -> app/cli/ambrel-cli in the same build.
  return (fs::canonical("/proc/self/exe").parent_path().parent_path() / "app/cli/ambrel-cli").string();
}

std::string volumeOf(uint32_t files, uint32_t folders) {
  const auto path = benchDir() / fmt::format("cli_tree_{}.img", files + folders);
  const auto done = fs::path(path.string() + ".done");
  if (fs::exists(path) && fs::exists(done)) return path.string();
  fmt::print("building a {}-entry volume ...\n", files + folders);
  std::fflush(stdout);
  // Built in a child of its own: a command started later shares this
  // process's memory until it execs, and its peak RSS would count the
  // builder's gigabyte as its own.
  const pid_t builder = ::fork();
  if (builder == 0) {
    mkimage::buildImage(test::listingDrive(files, folders), path);
    std::_Exit(0);
  }
  int status = 0;
  if (builder < 0 || ::waitpid(builder, &status, 0) != builder || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    fmt::print(stderr, "bench_cli_tree: building {} failed\n", path.string());
    std::exit(1);
  }
  std::fclose(std::fopen(done.c_str(), "w"));
  return path.string();
}

void warm(const std::string& path) {
  if (std::system(("cat '" + path + "' > /dev/null").c_str()) != 0) std::abort();
}

struct Run {
  double seconds = 0;
  double cpuSeconds = 0;  // user + system: what the run cost whatever else the machine did
  double peakMB = 0;
  bool ok = false;
};

// One process with its stdout in `out`, stderr dropped; wall time and peak RSS.
// Each run writes a new file: truncating the last run's tens of megabytes
// would be charged to whichever command came next.
Run runOnce(const std::vector<std::string>& argv, const std::string& out) {
  ::unlink(out.c_str());
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  Run r;
  pid_t pid = 0;
  const auto start = Clock::now();
  if (posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), environ) != 0) return r;
  int status = 0;
  struct rusage usage {};
  ::wait4(pid, &status, 0, &usage);
  r.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  posix_spawn_file_actions_destroy(&fa);
  r.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  r.peakMB = usage.ru_maxrss / 1024.0;
  r.cpuSeconds = usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  return r;
}

struct Times {
  std::vector<double> seconds;
  double minCpu = 1e9;
  double peakMB = 0;
  bool ok = true;
  double min() const { return *std::min_element(seconds.begin(), seconds.end()); }
  double median() const {
    auto s = seconds;
    std::sort(s.begin(), s.end());
    return s[s.size() / 2];
  }
};

// Runs the commands in turn, kRuns rounds.
std::vector<Times> race(const std::vector<std::vector<std::string>>& commands) {
  std::vector<Times> times(commands.size());
  const std::string out = (benchDir() / "cli_tree_out").string();
  for (int round = 0; round < kRuns; ++round)
    for (size_t i = 0; i < commands.size(); ++i) {
      const Run r = runOnce(commands[i], out);
      times[i].ok = times[i].ok && r.ok;
      times[i].seconds.push_back(r.seconds);
      times[i].minCpu = std::min(times[i].minCpu, r.cpuSeconds);
      times[i].peakMB = std::max(times[i].peakMB, r.peakMB);
    }
  return times;
}

// Entries a listing of the volume holds (its TSV rows but the header).
uint64_t entriesOf(const std::string& cli, const std::string& image) {
  const std::string out = (benchDir() / "cli_tree_count").string();
  runOnce({cli, "tree", image}, out);
  uint64_t rows = 0;
  if (FILE* f = std::fopen(out.c_str(), "r")) {
    for (int c; (c = std::fgetc(f)) != EOF;) rows += c == '\n';
    std::fclose(f);
  }
  fs::remove(out);
  return rows ? rows - 1 : 0;
}

bool verdict(const char* what, const Times& ours, const Times& fls, double budget) {
  const double ratio = fls.min() / ours.min();
  const bool ok = ours.ok && fls.ok && ratio >= budget;
  fmt::print("  {:<14} min {:.3f} s  median {:.3f} s | fls -r -p min {:.3f} s median {:.3f} s | "
             "{:.1f}x faster at best, {:.1f}x at median (budget >= {:.0f}x): {}; CPU time at best {:.3f} s against "
             "{:.3f} s = {:.1f}x\n",
             what, ours.min(), ours.median(), fls.min(), fls.median(), ratio, fls.median() / ours.median(), budget,
             ok ? "within budget" : (ours.ok && fls.ok ? "OVER BUDGET" : "A RUN FAILED"), ours.minCpu, fls.minCpu,
             fls.minCpu / ours.minCpu);
  return ok;
}

}  // namespace

int main() {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // each figure as soon as it is measured
  const std::string cli = cliPath();
  bool ok = true;
  struct Size {
    uint32_t files, folders;
  };
  double smallerMB = 0, smallerEntries = 0;
  for (const Size size : {Size{97000, 2980}, Size{990000, 9980}}) {
    const std::string image = volumeOf(size.files, size.folders);
    warm(image);
    const uint64_t entries = entriesOf(cli, image);
    fmt::print("{} entries ({} MB image, page cache), best of {} runs each:\n", entries, fs::file_size(image) >> 20,
               kRuns);
    const auto t = race({{cli, "tree", image, "--format", "tsv"},
                         {cli, "tree", image, "--format", "json"},
                         {cli, "tree", image, "--advanced"},
                         {"fls", "-r", "-p", image}});
    ok = verdict("tree tsv", t[0], t[3], 10) && ok;
    ok = verdict("tree json", t[1], t[3], 10) && ok;
    ok = verdict("tree advanced", t[2], t[3], 3) && ok;
    const double bytesPerEntry = t[0].peakMB * 1048576.0 / static_cast<double>(entries);
    const bool memoryOk = size.files < 500000 || t[0].peakMB <= 250;
    fmt::print("  peak memory of a standard scan and listing: {:.0f} MB = {:.0f} bytes per entry{}\n", t[0].peakMB,
               bytesPerEntry, size.files < 500000 ? "" : memoryOk ? " (budget <= 250 MB): within budget"
                                                                  : " (budget <= 250 MB): OVER BUDGET");
    // What each entry past the smaller volume adds: flat when memory grows linearly.
    if (smallerEntries > 0)
      fmt::print("  from {:.0f} to {} entries: {:.0f} bytes per added entry\n", smallerEntries, entries,
                 (t[0].peakMB - smallerMB) * 1048576.0 / (static_cast<double>(entries) - smallerEntries));
    smallerMB = t[0].peakMB;
    smallerEntries = static_cast<double>(entries);
    ok = ok && memoryOk;
  }
  fs::remove(benchDir() / "cli_tree_out");
  return ok ? 0 : 1;
}
