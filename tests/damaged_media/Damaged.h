#pragma once
// Drives from the image builder, damaged afterwards by hand or through a
// fault table, and the command line run on them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "ImageBuilder.h"
#include "hfs/Volume.h"
#include "support/BuiltEntries.h"
#include "support/RecordingController.h"
#include "support/TempDir.h"

namespace ambrel::test {

namespace mk = ambrel::mkimage;

struct BuiltDrive {
  TempDir dir;
  std::string path;
  mk::DriveLayout layout;

  explicit BuiltDrive(const mk::DriveSpec& spec) : path((dir / "drive.img").string()) {
    layout = mk::buildImage(spec, path);
  }
  // A copy of another drive, to damage on its own.
  struct CopyOf {
    const BuiltDrive& from;
  };
  explicit BuiltDrive(CopyOf c) : path((dir / "drive.img").string()), layout(c.from.layout) {
    std::filesystem::copy_file(c.from.path, path);
  }
  std::vector<uint8_t> read(uint64_t byteOffset, size_t size) const {
    std::vector<uint8_t> out(size);
    std::ifstream f(path, std::ios::binary);
    f.seekg(static_cast<std::streamoff>(byteOffset));
    f.read(reinterpret_cast<char*>(out.data()), static_cast<std::streamsize>(size));
    return out;
  }
  // The volume of a bare drive, or of the first partition.
  const mk::VolumeLayout& volume() const {
    return layout.volume ? *layout.volume : *layout.partitions.at(0).volume;
  }
  uint64_t sectors() const { return std::filesystem::file_size(path) / 512; }
  // Overwrites bytes of the image in place.
  void patch(uint64_t byteOffset, const std::vector<uint8_t>& bytes) const {
    std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(static_cast<std::streamoff>(byteOffset));
    f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(f.good()) << "cannot patch " << path;
  }
  void truncateTo(uint64_t bytes) const { std::filesystem::resize_file(path, bytes); }
};

inline mk::VolumeSpec generatedVolume(uint32_t files, uint32_t folders, uint64_t seed = 7) {
  mk::VolumeSpec v;
  v.name = "Damaged";
  mk::GenerateSpec g;
  g.files = files;
  g.folders = folders;
  g.seed = seed;
  g.minSize = 100;
  g.maxSize = 3000;
  g.variedNames = false;
  v.generate = g;
  return v;
}

inline mk::DriveSpec bareDrive(const mk::VolumeSpec& v) {
  mk::DriveSpec d;
  d.table = mk::TableKind::None;
  d.volume = v;
  return d;
}

inline PlistDict volumeDictFor(const std::string& image, uint64_t start, uint64_t sectors) {
  return PlistDict{{"Volume Start", start}, {"Volume Size In Sectors", sectors}, {"Volume Name", "Damaged"},
                   {"Volume Scan Type", 0}, {"Path", image},                     {"Model", "Disk Image"},
                   {"Serial", ""},          {"Revision", ""}};
}

inline PlistDict driveDictFor(const std::string& image) {
  return PlistDict{{"device path", image},
                   {"device size", static_cast<uint64_t>(std::filesystem::file_size(image))},
                   {"device model", "Disk Image"},
                   {"device serial", ""},
                   {"device revision", ""}};
}

// A controller that stops a scan which sends more progress reports than any
// scan of a small test image needs: a test of a walk that would not end
// fails instead of hanging.
class GuardedController : public RecordingController {
 public:
  void updateProgress(const ProgressReport& r) override {
    if (++reports_ > kMaxReports && volume) {
      guardStopped = true;
      volume->setStopTreeThread(true);
      return;
    }
    RecordingController::updateProgress(r);
  }
  static constexpr int kMaxReports = 20000;
  Volume* volume = nullptr;
  bool guardStopped = false;

 private:
  int reports_ = 0;
};

// A tree scan of sectors [start, start + sectors) with the drive listed.
struct Scanned {
  GuardedController controller;
  std::unique_ptr<Volume> volume;

  Scanned(const std::string& image, uint64_t start, uint64_t sectors, const char* mode,
          std::shared_ptr<SectorFaults> faults = nullptr) {
    controller.drives.push_back(driveDictFor(image));
    volume = std::make_unique<Volume>(volumeDictFor(image, start, sectors), &controller);
    controller.volume = volume.get();
    if (faults) volume->setSectorFaults(std::move(faults));
    volume->startMakingTree(&controller, mode);
  }
};

inline std::vector<uint8_t> be32(uint32_t v) { return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }

// How often each catalog node ID is listed in a tree (the root included).
inline std::map<uint32_t, int> idCounts(const HDIR& root) {
  std::map<uint32_t, int> out;
  std::vector<const HDIR*> stack{&root};
  while (!stack.empty()) {
    const HDIR* e = stack.back();
    stack.pop_back();
    ++out[e->fileID];
    for (const auto& c : e->children()) stack.push_back(c.get());
  }
  return out;
}

// The catalog's leaf nodes, in node order (the builder's chain order).
inline std::vector<const mk::NodeLayout*> leavesOf(const mk::BTreeLayout& tree) {
  std::vector<const mk::NodeLayout*> out;
  for (const auto& n : tree.nodes)
    if (n.kind == -1) out.push_back(&n);
  return out;
}

// Catalog node IDs of the files in the live catalog.
inline std::set<uint32_t> liveFileIDs(const mk::VolumeLayout& v) {
  std::set<uint32_t> out;
  for (const auto& e : v.entries)
    if (!e.folder && !e.deleted) out.insert(e.cnid);
  return out;
}

inline std::string cliPath() {
  const char* path = std::getenv("AMBREL_CLI");
  return path ? path : "";
}

struct CliRun {
  int status = -1;
  std::string out, err;
};

// ambrel-cli with these arguments (already quoted as needed), optionally
// with a fault table for every drive it opens.
// A command still running after `seconds` is killed (status 124).
inline CliRun runCli(const std::string& args, const std::string& faults = "", int seconds = 120) {
  TempDir scratch;
  const std::string errFile = (scratch / "stderr").string();
  std::string command = faults.empty() ? "" : "AMBREL_SECTOR_FAULTS='" + faults + "' ";
  command += "timeout " + std::to_string(seconds) + " '" + cliPath() + "' " + args + " 2>'" + errFile + "'";
  CliRun r;
  r.status = runCommand(command, &r.out);
  const auto err = readFile(errFile);
  r.err.assign(err.begin(), err.end());
  return r;
}

inline std::string shellQuoted(const std::string& path) { return "'" + path + "'"; }

}  // namespace ambrel::test
