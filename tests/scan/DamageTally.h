#pragma once
// What a scan of a damaged volume gives back, measured against what the
// undamaged volume holds: each file found at its path or anywhere, every
// listed copy of it compared byte for byte, and copies counted.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "scan/ContentCheck.h"
#include "scan/ScanHelpers.h"

namespace ambrel::test {

// One live file of the undamaged volume.
struct ExpectedFile {
  std::string path;                // fls-style, from the root's children
  uint32_t id = 0;
  std::vector<uint8_t> data, rsrc; // its bytes
  std::vector<Extent> dataExt, rscExt;  // where the undamaged volume keeps them
  bool recordLost = false;         // the damage destroyed every copy of its record
  bool pathLost = false;           // ... or of both the record and the thread of a folder above it
};

struct Tally {
  size_t expected = 0;    // files whose records survive
  size_t pathKnown = 0;   // of those, whose folders' records or threads survive too
  size_t atPath = 0;      // found at their own path
  size_t anywhere = 0;    // found anywhere in the tree
  size_t wrong = 0;       // listed copies whose bytes differ from the file's
  size_t duplicates = 0;  // further entries of one file (same ID and extents)
  size_t flagged = 0;     // entries listed as of uncertain content
  size_t assumedGeometry = 0;  // of those, found under an assumed block size
  size_t others = 0;      // listed files that are none of the expected (deleted ones, earlier versions)
  std::vector<std::string> problems;  // the first few, readable

  void note(const std::string& what) {
    if (problems.size() < 12) problems.push_back(what);
  }
  std::string problemText() const {
    std::string s;
    for (const auto& p : problems) s += "  " + p + "\n";
    return s;
  }
};

// The path of an entry as fls shows it, from below the root.
inline std::string entryPath(const HDIR& e) {
  std::vector<const HDIR*> chain;
  for (const HDIR* up = &e; up && up->holder(); up = up->holder()) chain.push_back(up);
  std::string path;
  for (size_t i = chain.size(); i-- > 0;) {
    if (!path.empty()) path += '/';
    path += flsName(std::string(chain[i]->fileName()));
  }
  return path;
}

inline std::vector<const HDIR*> filesOf(const HDIR& root) {
  std::vector<const HDIR*> out;
  std::vector<const HDIR*> stack{&root};
  while (!stack.empty()) {
    const HDIR* e = stack.back();
    stack.pop_back();
    if (e->fileType == kHDIRFile) out.push_back(e);
    for (const auto& c : e->children()) stack.push_back(c.get());
  }
  return out;
}

inline bool entryIsFlagged(const HDIR& e) { return e.confidence != Confidence::Sure; }

inline Tally tallyScan(const std::string& image, const Volume& v, const std::vector<ExpectedFile>& want) {
  Tally t;
  std::multimap<uint32_t, const HDIR*> byID;
  if (v.dirRoot)
    for (const HDIR* f : filesOf(*v.dirRoot)) {
      byID.emplace(f->fileID, f);
      t.flagged += entryIsFlagged(*f);
      t.assumedGeometry += f->confidence == Confidence::AssumedGeometry;
    }
  std::set<uint32_t> wanted;
  for (const ExpectedFile& w : want) wanted.insert(w.id);
  for (const auto& [id, e] : byID) t.others += !wanted.count(id);
  for (const ExpectedFile& w : want) {
    if (w.recordLost) continue;
    ++t.expected;
    t.pathKnown += !w.pathLost;
    auto [first, last] = byID.equal_range(w.id);
    bool found = false, atPath = false;
    size_t sameFile = 0;
    for (auto it = first; it != last; ++it) {
      const HDIR& e = *it->second;
      const bool sameExtents = e.dataExt == w.dataExt && e.rscExt == w.rscExt;
      const bool sameSizes = e.dataSize == w.data.size() && e.rscSize == w.rsrc.size();
      if (sameSizes) found = true;
      if (entryPath(e) == w.path) atPath = true;
      if (sameExtents) ++sameFile;
      // The same file ID in the same blocks is the same file, and so is one of
      // the same sizes listed as sure: its bytes must be the file's.
      if (!sameExtents && !(sameSizes && !entryIsFlagged(e))) continue;
      if (dataOf(image, v, e) != w.data || rsrcOf(image, v, e) != w.rsrc) {
        ++t.wrong;
        t.note("wrong bytes: " + entryPath(e) + " #" + std::to_string(w.id) + " (" + confidenceText(e.confidence) + ")");
      }
    }
    if (sameFile > 1) {
      t.duplicates += sameFile - 1;
      t.note("listed " + std::to_string(sameFile) + " times: " + w.path);
    }
    if (found) ++t.anywhere;
    else t.note("missing: " + w.path + " #" + std::to_string(w.id));
    if (atPath) ++t.atPath;
    else if (found && !w.pathLost) t.note("not at its path: " + w.path);
  }
  return t;
}

// One row of the table the damage tests print (and append to the file named
// by AMBREL_DAMAGE_TABLE, when set).
inline void printTallyRow(const std::string& volume, const std::string& damage, const std::string& mode,
                          const Tally& t) {
  const std::string row = volume + "\t" + damage + "\t" + mode + "\t" + std::to_string(t.expected) + "\t" +
                          std::to_string(t.pathKnown) + "\t" + std::to_string(t.atPath) + "\t" +
                          std::to_string(t.anywhere) + "\t" +
                          std::to_string(t.wrong) + "\t" + std::to_string(t.duplicates) + "\t" +
                          std::to_string(t.flagged) + "\t" + std::to_string(t.others);
  std::printf("[ tally    ] %s\n", row.c_str());
  if (const char* file = std::getenv("AMBREL_DAMAGE_TABLE")) std::ofstream(file, std::ios::app) << row << "\n";
}

}  // namespace ambrel::test
