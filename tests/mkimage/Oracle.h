#pragma once
// Helpers for checking built images with tools others wrote (The Sleuth Kit,
// sgdisk) and with plain reads of the image bytes.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "ImageBuilder.h"
#include "support/TempDir.h"

namespace ambrel::mkimage::test {

using ambrel::test::runCommand;

inline bool haveTsk() {
  return ambrel::test::haveTool("fls") && ambrel::test::haveTool("icat") && ambrel::test::haveTool("mmls") &&
         ambrel::test::haveTool("fsstat");
}

#define SKIP_WITHOUT_TSK() \
  if (!::ambrel::mkimage::test::haveTsk()) GTEST_SKIP() << "The Sleuth Kit (fls, icat, mmls, fsstat) is not installed"

inline EntrySpec textFile(const std::string& name, const std::string& text, bool deleted = false) {
  EntrySpec e;
  e.name = name;
  e.data = std::vector<uint8_t>(text.begin(), text.end());
  e.deleted = deleted;
  return e;
}

// A drive that is one bare volume, no partition table.
inline DriveSpec bareDrive(VolumeSpec v = {}) {
  DriveSpec d;
  d.table = TableKind::None;
  d.volume = std::move(v);
  return d;
}

inline std::string quoted(const std::filesystem::path& p) { return "'" + p.string() + "'"; }

// Runs a TSK tool on the volume at sector `offset`: `tool -o offset options image operands`.
inline std::string tsk(const std::string& tool, const std::filesystem::path& image, uint64_t offset,
                       const std::string& options, int* status = nullptr, const std::string& operands = "") {
  std::string out;
  int rc = runCommand(tool + " -o " + std::to_string(offset) + " " + options + " " + quoted(image) + " " + operands +
                          " 2>/dev/null",
                      &out);
  if (status) *status = rc;
  return out;
}

// `fls -r -p` as path -> "r/r 19" (type and inode), without TSK's virtual $ files.
inline std::map<std::string, std::string> flsTree(const std::filesystem::path& image, uint64_t offset) {
  std::map<std::string, std::string> out;
  std::istringstream in(tsk("fls", image, offset, "-r -p"));
  std::string line;
  while (std::getline(in, line)) {
    auto tab = line.find('\t');
    auto colon = line.find(':');
    if (tab == std::string::npos || colon == std::string::npos) continue;
    std::string path = line.substr(tab + 1);
    if (path.rfind("$", 0) == 0) continue;
    out[path] = line.substr(0, colon);
  }
  return out;
}

// What fls must list for a volume: every live entry but the root.
inline std::map<std::string, std::string> expectedTree(const VolumeLayout& v) {
  std::map<std::string, std::string> out;
  for (const auto& e : v.entries) {
    if (e.cnid == 2 || e.deleted) continue;
    out[e.path] = (e.folder ? "d/d " : "r/r ") + std::to_string(e.cnid);
  }
  return out;
}

inline std::string icat(const std::filesystem::path& image, uint64_t offset, uint32_t cnid, bool rsrc) {
  return tsk("icat", image, offset, "", nullptr, std::to_string(cnid) + (rsrc ? "-4353" : ""));
}

inline std::vector<uint8_t> readBytes(const std::filesystem::path& image, uint64_t offset, size_t size) {
  std::ifstream in(image, std::ios::binary);
  in.seekg(static_cast<std::streamoff>(offset));
  std::vector<uint8_t> out(size);
  in.read(reinterpret_cast<char*>(out.data()), static_cast<std::streamsize>(size));
  out.resize(static_cast<size_t>(in.gcount()));
  return out;
}

inline std::vector<uint8_t> readSector(const std::filesystem::path& image, uint64_t sector, size_t count = 1) {
  return readBytes(image, sector * 512, count * 512);
}

// Byte strings compared without printing them whole.
inline ::testing::AssertionResult sameBytes(const std::string& got, const std::string& want) {
  if (got == want) return ::testing::AssertionSuccess();
  size_t i = 0;
  while (i < got.size() && i < want.size() && got[i] == want[i]) ++i;
  return ::testing::AssertionFailure() << "got " << got.size() << " bytes, want " << want.size()
                                       << ", first difference at " << i;
}

// The expected bytes of a fork: generated ones from the layout, explicit ones from the caller.
inline std::string expectedFork(const FileLayout& f, bool rsrc) {
  auto bytes = rsrc ? generatedBytes(f.rsrcSeed, f.rsrcSize) : generatedBytes(f.dataSeed, f.dataSize);
  return std::string(bytes.begin(), bytes.end());
}

}  // namespace ambrel::mkimage::test
