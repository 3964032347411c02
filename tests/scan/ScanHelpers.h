#pragma once
// Running tree scans in tests and comparing their trees with what The
// Sleuth Kit's fls reads from the same volume.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <memory>
#include <sstream>
#include <string>

#include "hfs/Volume.h"
#include "support/RecordingController.h"
#include "support/TempDir.h"

namespace ambrel::test {

// A controller that records everything and can stop the scan after a number
// of progress reports.
class ScanController : public RecordingController {
 public:
  void updateProgress(const ProgressReport& r) override {
    RecordingController::updateProgress(r);
    if (stopAfterReports > 0 && progressReports.size() >= static_cast<size_t>(stopAfterReports) && volume)
      volume->setStopTreeThread(true);
  }
  void destroyVolumeAndBackToPartList() override { ++gaveUp; }
  // Sleep requests in order, each with the number of progress reports sent
  // before it.
  void preventSleep(bool on) override { sleepRequests.push_back({on, progressReports.size()}); }

  struct SleepRequest {
    bool on = false;
    size_t afterReports = 0;
  };
  Volume* volume = nullptr;
  int stopAfterReports = 0;
  int gaveUp = 0;
  std::vector<SleepRequest> sleepRequests;

  bool sawTreeComplete() const {
    for (const auto& r : progressReports)
      if (r.contains(progress::kTreeComplete)) return true;
    return false;
  }
};

// Sleep is requested once before the scan's first report and given back
// once after its last, with nothing given back in between (a scan that gives
// up may send no report at all).
inline void expectHeldThroughout(const ScanController& c, size_t reportsBefore, size_t requestsBefore,
                                 bool reports = true) {
  ASSERT_EQ(c.sleepRequests.size(), requestsBefore + 2);
  const auto& on = c.sleepRequests[requestsBefore];
  const auto& off = c.sleepRequests[requestsBefore + 1];
  EXPECT_TRUE(on.on);
  EXPECT_EQ(on.afterReports, reportsBefore);
  EXPECT_FALSE(off.on);
  EXPECT_EQ(off.afterReports, c.progressReports.size());
  if (reports) {
    EXPECT_GT(c.progressReports.size(), reportsBefore);
  }
}

inline PlistDict volumeDict(const std::string& image, uint64_t start, uint64_t sectors, const std::string& name = "Test") {
  return PlistDict{{"Volume Start", start}, {"Volume Size In Sectors", sectors}, {"Volume Name", name},
                   {"Volume Scan Type", 0},  {"Path", image},                    {"Model", "Disk Image"},
                   {"Serial", ""},           {"Revision", ""}};
}

struct ScanResult {
  std::unique_ptr<ScanController> controller = std::make_unique<ScanController>();
  std::unique_ptr<Volume> volume;
};

inline ScanResult scan(const std::string& image, uint64_t start, uint64_t sectors, const std::string& mode,
                       int stopAfterReports = 0) {
  ScanResult r;
  r.controller->drives.push_back(PlistDict{{"device path", image}});
  r.volume = std::make_unique<Volume>(volumeDict(image, start, sectors), r.controller.get());
  r.controller->volume = r.volume.get();
  r.controller->stopAfterReports = stopAfterReports;
  r.volume->startMakingTree(r.controller.get(), mode);
  return r;
}

struct Listed {
  bool folder = false;
  uint64_t size = 0;
  uint32_t id = 0;
  bool operator==(const Listed&) const = default;
};

inline std::ostream& operator<<(std::ostream& os, const Listed& l) {
  return os << (l.folder ? "folder" : "file") << " #" << l.id << " " << l.size << " bytes";
}

// Names the way fls shows them: a "/" inside a catalog name reads ":", a NUL
// (as in the hard-link folder's name) reads "^".
inline std::string flsName(std::string name) {
  for (char& c : name) {
    if (c == '/') c = ':';
    if (c == '\0') c = '^';
  }
  return name;
}

// Every entry below the root as relative path -> what it is. Folder sizes
// are left 0: fls gives none.
inline void collect(const HDIR& dir, const std::string& prefix, std::map<std::string, Listed>& out) {
  for (const auto& child : dir.children()) {
    const std::string path = prefix + flsName(std::string(child->fileName()));
    const bool folder = child->fileType == kHDIRFolder;
    out[path] = Listed{folder, folder ? 0 : child->dataSize, child->fileID};
    if (folder) collect(*child, path + "/", out);
  }
}

inline std::map<std::string, Listed> treeOf(const Volume& v) {
  std::map<std::string, Listed> out;
  if (v.dirRoot) collect(*v.dirRoot, "", out);
  return out;
}

// `fls -r -p -l` of the volume at `offset` sectors: path -> type, inode, size
// of the data fork. TSK's own metadata files ($...) are left out.
inline std::map<std::string, Listed> flsTree(const std::string& image, uint64_t offset) {
  std::string out;
  runCommand("fls -r -p -l -o " + std::to_string(offset) + " '" + image + "' 2>/dev/null", &out);
  std::map<std::string, Listed> tree;
  std::istringstream in(out);
  std::string line;
  while (std::getline(in, line)) {
    std::vector<std::string> cols;
    std::stringstream ls(line);
    std::string cell;
    while (std::getline(ls, cell, '\t')) cols.push_back(cell);
    if (cols.size() < 7 || cols[1].rfind("$", 0) == 0) continue;
    const bool folder = cols[0].rfind("d/d", 0) == 0;
    const uint32_t id = static_cast<uint32_t>(std::stoul(cols[0].substr(4)));
    tree[cols[1]] = Listed{folder, folder ? 0 : std::stoull(cols[6]), id};
  }
  return tree;
}

// What a standard scan keeps of a volume that fls lists: no ".DS_Store", and
// no folder without file data below it (such folders are removed).
inline std::map<std::string, Listed> keptByScan(std::map<std::string, Listed> tree) {
  for (auto it = tree.begin(); it != tree.end();) {
    const std::string& p = it->first;
    const std::string leaf = p.substr(p.rfind('/') == std::string::npos ? 0 : p.rfind('/') + 1);
    if (leaf == ".DS_Store") {
      it = tree.erase(it);
    } else {
      ++it;
    }
  }
  std::map<std::string, uint64_t> dataBelow;
  for (const auto& [path, l] : tree) {
    if (l.folder) continue;
    for (size_t cut = path.find('/'); cut != std::string::npos; cut = path.find('/', cut + 1))
      dataBelow[path.substr(0, cut)] += l.size;
  }
  std::set<std::string> emptyFolders;
  for (const auto& [path, l] : tree)
    if (l.folder && dataBelow[path] == 0) emptyFolders.insert(path);
  for (auto it = tree.begin(); it != tree.end();) {
    bool drop = false;
    const std::string& p = it->first;
    for (size_t cut = p.find('/'); !drop; cut = p.find('/', cut + 1)) {
      drop = emptyFolders.count(cut == std::string::npos ? p : p.substr(0, cut)) > 0;
      if (cut == std::string::npos) break;
    }
    it = drop ? tree.erase(it) : std::next(it);
  }
  return tree;
}

// The differences of two listings, readable in a failure message.
inline std::string treeDiff(const std::map<std::string, Listed>& got, const std::map<std::string, Listed>& want) {
  std::ostringstream os;
  int shown = 0;
  for (const auto& [path, l] : want) {
    auto it = got.find(path);
    if (it == got.end()) {
      if (shown++ < 20) os << "  missing: " << path << " (" << l << ")\n";
    } else if (!(it->second == l)) {
      if (shown++ < 20) os << "  differs: " << path << ": " << it->second << " instead of " << l << "\n";
    }
  }
  for (const auto& [path, l] : got)
    if (!want.count(path) && shown++ < 20) os << "  extra:   " << path << " (" << l << ")\n";
  if (shown > 20) os << "  ... " << shown - 20 << " more\n";
  return os.str();
}

#define EXPECT_SAME_TREE(got, want)                                   \
  do {                                                                \
    const auto& got_ = (got);                                         \
    const auto& want_ = (want);                                       \
    EXPECT_TRUE(got_ == want_) << ::ambrel::test::treeDiff(got_, want_); \
  } while (0)

}  // namespace ambrel::test
