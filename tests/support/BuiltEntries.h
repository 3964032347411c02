#pragma once
// Short ways to describe what the image builder should put on a drive, and
// to read back what a save wrote.
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ImageBuilder.h"
#include "support/TempDir.h"

namespace ambrel::test {

// A file of `size` bytes generated from its seed, in `fragments` extents.
inline mkimage::EntrySpec sizedFile(const std::string& name, uint64_t size, uint32_t fragments = 1) {
  mkimage::EntrySpec e;
  e.name = name;
  e.dataSize = size;
  e.dataFragments = fragments;
  return e;
}

// A file holding exactly these bytes.
inline mkimage::EntrySpec fileOf(const std::string& name, std::vector<uint8_t> bytes) {
  mkimage::EntrySpec e;
  e.name = name;
  e.data = std::move(bytes);
  return e;
}

inline std::vector<uint8_t> textBytes(const std::string& text) { return {text.begin(), text.end()}; }

inline mkimage::EntrySpec folderOf(const std::string& name, std::vector<mkimage::EntrySpec> children) {
  mkimage::EntrySpec e;
  e.name = name;
  e.folder = true;
  e.children = std::move(children);
  return e;
}

// A drive that is one bare volume, no partition table.
inline mkimage::DriveSpec bareDriveOf(mkimage::VolumeSpec v) {
  mkimage::DriveSpec d;
  d.table = mkimage::TableKind::None;
  d.volume = std::move(v);
  return d;
}

// A GPT drive holding one HFS+ partition with these entries.
inline mkimage::DriveLayout buildGptDrive(const std::filesystem::path& image, const std::string& volumeName,
                                          std::vector<mkimage::EntrySpec> entries, bool wipeTable = false) {
  mkimage::DriveSpec drive;
  drive.table = mkimage::TableKind::GPT;
  mkimage::PartitionSpec part;
  mkimage::VolumeSpec vol;
  vol.name = volumeName;
  vol.root = std::move(entries);
  part.volume = std::move(vol);
  drive.partitions.push_back(std::move(part));
  drive.wipePartitionTable = wipeTable;
  return mkimage::buildImage(drive, image);
}

// Files under `root`, relative path -> bytes.
inline std::map<std::string, std::vector<uint8_t>> filesUnder(const std::filesystem::path& root) {
  std::map<std::string, std::vector<uint8_t>> out;
  for (const auto& e : std::filesystem::recursive_directory_iterator(root))
    if (e.is_regular_file()) out[std::filesystem::relative(e.path(), root).string()] = readFile(e.path());
  return out;
}

}  // namespace ambrel::test
