#pragma once
// Damage done to a copy of a real volume, and what is expected back: the
// undamaged volume's files as The Sleuth Kit reads them (fls, icat), and, from
// a survey of every catalog leaf on it (live and in the journal), which files'
// records and which folders' records or threads the damage leaves.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "hfs/CatalogRecords.h"
#include "scan/DamageTally.h"

namespace ambrel::test {

// Where one record (or thread) of an entry lies, and whether it passes the
// checks that records reached without an intact chain must pass.
struct RecordHolder {
  uint64_t sector = 0;  // the node's first sector
  bool live = false;    // a node of the catalog file
  bool passesChecks = true;
};

struct VolumeSurvey {
  uint64_t start = 0, sectors = 0;
  uint64_t volStart = 0;  // allocation block 0
  int32_t blockSectors = 0;
  int32_t nodeSectors = 0, extNodeSectors = 0;
  uint64_t catalogHeader = 0, extentsHeader = 0, rootNode = 0;
  std::vector<uint64_t> liveLeaves;  // in file order
  std::map<uint32_t, std::vector<RecordHolder>> records, threads;
  std::map<uint32_t, uint32_t> parentOf;  // every entry's parent, from its record
  std::map<uint32_t, std::vector<Extent>> dataExt, rscExt;  // files, as the standard scan lists them
};

// The catalog of an undamaged volume, read with the scan's own record parser
// (its trees agree with fls on these volumes).
inline VolumeSurvey surveyVolume(const std::string& image, uint64_t start, uint64_t sectors) {
  VolumeSurvey s;
  s.start = start;
  s.sectors = sectors;
  ScanResult standard = scan(image, start, sectors, "Normal Scan");
  if (standard.volume->dirRoot)
    for (const HDIR* f : filesOf(*standard.volume->dirRoot)) {
      s.dataExt[f->fileID] = f->dataExt.toVector();
      s.rscExt[f->fileID] = f->rscExt.toVector();
    }
  RecordingController c;
  Volume v(volumeDict(image, start, sectors), &c);
  if (!v.initializeVIB() || !v.checkCatalogAndExtentsFile()) return s;
  s.volStart = v.HPlusVolStart;
  s.blockSectors = v.blockSize;
  s.nodeSectors = v.catNodeSize;
  s.extNodeSectors = v.extNodeSize;
  s.catalogHeader = static_cast<uint64_t>(v.catNodeToSector(0));
  s.rootNode = static_cast<uint64_t>(v.catNodeToSector(v.catRootNode));
  s.extentsHeader = v.HPlusVolStart + uint64_t{v.vib.extentsFile.extents.extDesc[0].startBlock} *
                                          static_cast<uint64_t>(v.blockSize);
  v.searchCatFrags();
  const int fd = ::open(image.c_str(), O_RDONLY | O_CLOEXEC);
  std::vector<uint8_t> node(static_cast<size_t>(s.nodeSectors) * 512);
  for (uint64_t sector : v.CatNodeArray) {
    std::fill(node.begin(), node.end(), 0);
    if (::pread(fd, node.data(), node.size(), static_cast<off_t>(sector * 512)) <= 0) continue;
    const bool live = v.sectorIsInCatalogFile(sector);
    if (live) s.liveLeaves.push_back(sector);
    BTNodeDescriptor_ d;
    std::memcpy(&d, node.data(), sizeof d);
    convertBTNodeDesc(&d);
    for (uint32_t r = 0; r < d.numRecords; ++r) {
      const CatalogRecordView rec = catalogRecordAt(node, d.numRecords, r, true);
      if (!rec.ok()) continue;
      if (rec.recordType == kHFSPlusFolderThreadRecord || rec.recordType == kHFSPlusFileThreadRecord) {
        s.threads[rec.parentID].push_back({sector, live, true});
      } else if (rec.recordType == kHFSPlusFolderRecord) {
        HFSPlusCatalogFolder_ f;
        if (!rec.folder(f)) continue;
        s.records[f.folderID].push_back({sector, live, plausibleFolderRecord(f)});
        if (live) s.parentOf[f.folderID] = rec.parentID;
      } else if (rec.recordType == kHFSPlusFileRecord) {
        HFSPlusCatalogFile_ f;
        if (!rec.file(f)) continue;
        s.records[f.fileID].push_back({sector, live, plausibleFileRecord(f)});
        if (live) s.parentOf[f.fileID] = rec.parentID;
      }
    }
  }
  ::close(fd);
  return s;
}

// Sector ranges [first, first + count) that a damage zeroes.
using SectorRanges = std::vector<std::pair<uint64_t, uint64_t>>;

inline SectorRanges damageRanges(const VolumeSurvey& s, const std::string& damage) {
  const uint64_t node = static_cast<uint64_t>(s.nodeSectors);
  if (damage == "catalog header") return {{s.catalogHeader, node}};
  if (damage == "extents header") return {{s.extentsHeader, static_cast<uint64_t>(s.extNodeSectors)}};
  if (damage == "root node") return {{s.rootNode, node}};
  if (damage == "primary header") return {{s.start + 2, 1}};
  if (damage == "first 1 MiB") return {{s.start, 2048}};
  if (damage == "10% of leaves") {
    // Every tenth leaf in file order, from the middle of the first ten.
    SectorRanges r;
    const size_t n = s.liveLeaves.size();
    for (size_t i = std::min<size_t>(4, n / 2); i < n; i += 10) r.push_back({s.liveLeaves[i], node});
    return r;
  }
  return {};
}

inline bool rangeHit(const SectorRanges& ranges, uint64_t sector, uint64_t count) {
  for (const auto& [first, n] : ranges)
    if (sector < first + n && first < sector + count) return true;
  return false;
}

inline void zeroRanges(const std::string& image, const SectorRanges& ranges) {
  const int fd = ::open(image.c_str(), O_WRONLY | O_CLOEXEC);
  const std::vector<uint8_t> zeros(512, 0);
  for (const auto& [first, n] : ranges)
    for (uint64_t s = first; s < first + n; ++s) (void)::pwrite(fd, zeros.data(), 512, static_cast<off_t>(s * 512));
  ::close(fd);
}

// The files of the undamaged volume, as fls lists them (without what every
// scan leaves out), their bytes from `bytesOf(path, inode, resourceFork)`,
// marked lost where the damage leaves no readable record of them. A file
// whose own blocks the damage zeroed is expected as the damaged copy holds it.
inline std::vector<ExpectedFile> expectedFromFls(
    const std::string& image, const std::string& damagedCopy, const VolumeSurvey& s, const SectorRanges& damaged,
    bool copiesCount, bool chainLost, const std::function<std::vector<uint8_t>(const std::string&, uint32_t, bool)>& bytesOf) {
  std::string out;
  runCommand("fls -r -p -o " + std::to_string(s.start) + " '" + image + "' 2>/dev/null", &out);
  const uint64_t node = static_cast<uint64_t>(s.nodeSectors);
  auto survives = [&](const std::vector<RecordHolder>& holders) {
    for (const RecordHolder& h : holders) {
      if (rangeHit(damaged, h.sector, node)) continue;
      if (h.live && (h.passesChecks || !chainLost)) return true;
      if (!h.live && copiesCount && h.passesChecks) return true;
    }
    return false;
  };
  std::vector<ExpectedFile> want;
  std::istringstream in(out);
  std::string line;
  while (std::getline(in, line)) {
    const size_t tab = line.find('\t');
    if (tab == std::string::npos || (line.rfind("r/r", 0) != 0 && line.rfind("l/l", 0) != 0)) continue;
    ExpectedFile f;
    f.path = line.substr(tab + 1);
    f.id = static_cast<uint32_t>(std::stoul(line.substr(4)));
    const std::string leaf = f.path.substr(f.path.rfind('/') == std::string::npos ? 0 : f.path.rfind('/') + 1);
    if (f.path[0] == '$' || leaf == ".DS_Store") continue;
    f.dataExt = s.dataExt.count(f.id) ? s.dataExt.at(f.id) : std::vector<Extent>{};
    f.rscExt = s.rscExt.count(f.id) ? s.rscExt.at(f.id) : std::vector<Extent>{};
    f.data = bytesOf(f.path, f.id, false);
    f.rsrc = bytesOf(f.path, f.id, true);
    const uint64_t bs = static_cast<uint64_t>(s.blockSectors);
    bool zeroed = false;
    for (const auto* list : {&f.dataExt, &f.rscExt})
      for (const Extent& e : *list) zeroed |= rangeHit(damaged, s.volStart + e.startBlock * bs, e.blockCount * bs);
    if (zeroed) {
      f.data = forkBytes(damagedCopy, s.volStart, s.blockSectors, f.dataExt, f.data.size());
      f.rsrc = forkBytes(damagedCopy, s.volStart, s.blockSectors, f.rscExt, f.rsrc.size());
    }
    f.recordLost = !s.records.count(f.id) || !survives(s.records.at(f.id));
    for (uint32_t up = s.parentOf.count(f.id) ? s.parentOf.at(f.id) : 0; up > kRootFolderID && !f.pathLost;) {
      const bool record = s.records.count(up) && survives(s.records.at(up));
      const bool thread = s.threads.count(up) && survives(s.threads.at(up));
      f.pathLost = !record && !thread;
      up = s.parentOf.count(up) ? s.parentOf.at(up) : 0;
    }
    want.push_back(std::move(f));
  }
  return want;
}

// icat's bytes of a fork of the undamaged volume.
inline std::vector<uint8_t> icatBytes(const std::string& image, uint64_t start, uint32_t inode, bool rsrc) {
  std::string out;
  runCommand("icat -o " + std::to_string(start) + " '" + image + "' " + std::to_string(inode) + (rsrc ? "-4353" : "") +
                 " 2>/dev/null",
             &out);
  return std::vector<uint8_t>(out.begin(), out.end());
}

}  // namespace ambrel::test
