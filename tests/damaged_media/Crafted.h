#pragma once
// The journey every crafted drive goes through: each command of the command
// line (a sanitizer build in `make test`) must end in bounded time and
// memory without a sanitizer report, write nothing outside its destination,
// overwrite nothing there, and leave the drive as it was.
#include <sys/resource.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "Damaged.h"

namespace ambrel::test {

// Every file and folder below `root`, with a file's bytes.
inline std::map<std::string, std::vector<uint8_t>> contentsUnder(const std::filesystem::path& root) {
  namespace fs = std::filesystem;
  std::map<std::string, std::vector<uint8_t>> out;
  for (const auto& e : fs::recursive_directory_iterator(root))
    out[fs::relative(e.path(), root).string()] = e.is_regular_file() ? readFile(e.path()) : std::vector<uint8_t>{};
  return out;
}

// The largest peak of any command run so far.
inline long childrensMaxRssKb() {
  rusage u{};
  getrusage(RUSAGE_CHILDREN, &u);
  return u.ru_maxrss;
}

struct JourneyLimits {
  long maxRssKb = 1024 * 1024;  // far above what a test drive needs
  int secondsEach = 120;
};

struct JourneyCounts {
  int commands = 0, escapes = 0, overwrites = 0;
};

// Runs each command ("{drive}" and "{out}" filled in) on the drive. The
// destination is `drive.dir / "out"`; whatever the caller put there before
// is the user's and must stay as it was.
inline void boundedJourney(const BuiltDrive& d, const std::vector<std::string>& commands, JourneyCounts& counts,
                           const JourneyLimits& limits = {}) {
  namespace fs = std::filesystem;
  const std::vector<uint8_t> image = readFile(d.path);
  const fs::path out = d.dir / "out";
  const auto before = contentsUnder(d.dir.path());
  for (std::string args : commands) {
    SCOPED_TRACE(args);
    for (size_t at; (at = args.find("{drive}")) != std::string::npos;) args.replace(at, 7, shellQuoted(d.path));
    for (size_t at; (at = args.find("{out}")) != std::string::npos;) args.replace(at, 5, shellQuoted(out.string()));
    const auto start = std::chrono::steady_clock::now();
    const CliRun r = runCli(args, "", limits.secondsEach);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ++counts.commands;
    EXPECT_TRUE(r.status >= 0 && r.status <= 3) << "status " << r.status << "\n" << r.err.substr(0, 4000);
    EXPECT_EQ(r.err.find("Sanitizer"), std::string::npos) << r.err.substr(0, 4000);
    EXPECT_EQ(r.err.find("runtime error"), std::string::npos) << r.err.substr(0, 4000);
    EXPECT_LT(seconds, limits.secondsEach);
    EXPECT_LT(childrensMaxRssKb(), limits.maxRssKb);
  }
  // Outside the destination nothing changed, the drive included; inside it
  // the user's own files are as they were.
  const auto after = contentsUnder(d.dir.path());
  for (const auto& [path, bytes] : before) {
    const auto it = after.find(path);
    if (it == after.end() || it->second != bytes) {
      ++counts.overwrites;
      ADD_FAILURE() << path << " changed or went away";
    }
  }
  for (const auto& [path, bytes] : after)
    if (!before.count(path) && path.rfind("out/", 0) != 0 && path != "out") {
      ++counts.escapes;
      ADD_FAILURE() << path << " written outside the destination";
    }
  EXPECT_TRUE(readFile(d.path) == image);
}

}  // namespace ambrel::test
