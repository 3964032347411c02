#pragma once
// Volumes to save from: image-builder drives with a scanned tree, The Sleuth
// Kit's icat as the byte oracle, and readers that record or fail.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ImageBuilder.h"
#include "hfs/Volume.h"
#include "output/Saver.h"
#include "scan/ScanHelpers.h"
#include "support/BuiltEntries.h"
#include "tree/CheckController.h"

namespace ambrel::test {

namespace mk = ambrel::mkimage;

inline bool haveIcat() { return haveTool("icat") && haveTool("fls"); }

inline mk::EntrySpec fileSpec(const std::string& name, uint64_t dataSize, uint64_t rsrcSize = 0,
                              uint32_t fragments = 1) {
  mk::EntrySpec e;
  e.name = name;
  e.dataSize = dataSize;
  e.rsrcSize = rsrcSize;
  e.dataFragments = fragments;
  return e;
}

// A bare volume (no partition table) built and scanned with the standard scan.
struct BuiltVolume {
  std::string image;
  mk::DriveLayout layout;
  ScanResult scan;
  const mk::VolumeLayout& vol() const { return *layout.volume; }
};

inline BuiltVolume buildAndScan(const TempDir& dir, mk::VolumeSpec spec, const std::string& name = "v.img") {
  BuiltVolume b;
  b.image = (dir / name).string();
  mk::DriveSpec drive;
  drive.table = mk::TableKind::None;
  drive.volume = std::move(spec);
  b.layout = mk::buildImage(drive, b.image);
  const uint64_t sectors = std::filesystem::file_size(b.image) / 512;
  b.scan = scan(b.image, 0, sectors, "Normal Scan");
  return b;
}

// The bytes icat returns for an inode's data fork (or resource fork).
inline std::vector<uint8_t> icat(const std::string& image, uint64_t offset, uint32_t inode, bool rsrc = false) {
  std::string out;
  const std::string addr = std::to_string(inode) + (rsrc ? "-4353" : "");
  runCommand("icat -o " + std::to_string(offset) + " '" + image + "' " + addr + " 2>/dev/null", &out);
  return std::vector<uint8_t>(out.begin(), out.end());
}

inline void markAll(Volume& v) { CheckController(v.dirRoot.get(), true).run(); }

// Every path under `root` (folders too), relative.
inline std::set<std::string> pathsUnder(const std::filesystem::path& root) {
  std::set<std::string> out;
  for (const auto& e : std::filesystem::recursive_directory_iterator(root))
    out.insert(std::filesystem::relative(e.path(), root).string());
  return out;
}

struct ReadCall {
  uint64_t sector;
  int32_t count;
  bool operator==(const ReadCall&) const = default;
};

// A source over the volume that records every read and can fail one.
struct RecordingSource {
  explicit RecordingSource(Volume* v) : volume(v) {}
  Volume* volume = nullptr;
  std::vector<ReadCall> calls;
  uint64_t failAtSector = UINT64_MAX;  // a read covering this sector fails
  // Kernel copies: off unless asked (reads are what most tests watch); a
  // copy covering copyFailsAtSector stops there, as one meeting a bad
  // sector does; copyRefused makes every copy say the drive cannot.
  bool copies = false;
  bool copyRefused = false;
  uint64_t copyFailsAtSector = UINT64_MAX;
  std::vector<ReadCall> copyCalls;

  ForkSource source() {
    ForkSource s = saveSourceOf(*volume);
    s.read = [this](uint64_t sector, int32_t count, void* buffer) {
      calls.push_back({sector, count});
      if (failAtSector >= sector && failAtSector < sector + uint64_t(count)) return false;
      return volume->readSaveSector(sector, count, buffer);
    };
    if (!copies) {
      s.copy = nullptr;
      return s;
    }
    s.copy = [this](uint64_t sector, uint64_t bytes, int fd) -> int64_t {
      const uint64_t sectors = (bytes + 511) / 512;
      copyCalls.push_back({sector, int32_t(sectors)});
      if (copyRefused) return -1;
      if (copyFailsAtSector >= sector && copyFailsAtSector < sector + sectors)
        return volume->copySaveSectors(sector, (copyFailsAtSector - sector) * 512, fd);
      return volume->copySaveSectors(sector, bytes, fd);
    };
    return s;
  }
};

}  // namespace ambrel::test
