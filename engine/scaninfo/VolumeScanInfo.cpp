#include "scaninfo/VolumeScanInfo.h"

#include <cstring>

#include "base/Endian.h"

namespace ambrel {

namespace {

constexpr size_t kLinkEntryBytes = 9;

// Every entry in the order the file holds them: the root, then each
// entry's children after it, depth first.
template <class Entry, class Visit>
void forEachInFileOrder(Entry& root, Visit visit) {
  std::vector<Entry*> stack{&root};
  while (!stack.empty()) {
    Entry* e = stack.back();
    stack.pop_back();
    visit(*e);
    for (size_t i = e->children().size(); i-- > 0;) stack.push_back(e->children()[i].get());
  }
}

PlistData linkEntriesOf(const HDIR& root) {
  PlistData out;
  uint32_t index = 0;
  forEachInFileOrder(root, [&](const HDIR& e) {
    if (e.linkKind != LinkKind::None) {
      uint8_t b[kLinkEntryBytes];
      storeBE32(b, index);
      b[4] = static_cast<uint8_t>(e.linkKind);
      storeBE32(b + 5, e.linkID);
      out.insert(out.end(), b, b + kLinkEntryBytes);
    }
    ++index;
  });
  return out;
}

// Marks the entries the file names as links. A record that does not fit its
// entry (out of order, past the tree, a kind the entry cannot have) is
// passed over: that entry stays what its record says.
void applyLinkEntries(Volume& v, const PlistData& links) {
  if (links.empty() || !v.dirRoot) return;
  std::vector<HDIR*> entries;
  forEachInFileOrder(*v.dirRoot, [&](HDIR& e) { entries.push_back(&e); });
  bool folderLinks = false;
  int64_t last = -1;
  for (size_t at = 0; at + kLinkEntryBytes <= links.size(); at += kLinkEntryBytes) {
    const uint32_t index = loadBE32(&links[at]);
    const uint8_t kind = links[at + 4];
    const uint32_t linkID = loadBE32(&links[at + 5]);
    if (int64_t{index} <= last || index >= entries.size()) continue;
    last = index;
    HDIR& e = *entries[index];
    if (kind == static_cast<uint8_t>(LinkKind::Folder) && e.isFolder() && e.children().empty() && linkID != e.fileID) {
      e.linkKind = LinkKind::Folder;
      e.linkID = linkID;
      e.setBtreeHDIR(v.btree.get());
      folderLinks = true;
      ++v.folderLinks;
    } else if (kind == static_cast<uint8_t>(LinkKind::File) && e.fileType == kHDIRFile) {
      e.linkKind = LinkKind::File;
      e.linkID = linkID;
      ++v.fileLinks;
    } else if (kind == static_cast<uint8_t>(LinkKind::Symlink) && e.fileType == kHDIRFile) {
      e.linkKind = LinkKind::Symlink;
      ++v.symlinks;
    }
  }
  // Folder links find their folders by ID, as in a scanned tree.
  if (folderLinks && v.btree)
    for (HDIR* e : entries)
      if (e->isFolder() && e->linkKind == LinkKind::None) v.btree->insert(e->fileID, e);
}

}  // namespace

VolumeArchive volumeArchiveOf(const Volume& v) {
  VolumeArchive a;
  a.volumeScanType = v.volumeScanType;
  a.volumeName = v.volumeName;
  a.rootName = v.rootName;
  a.deletedFilesPath = v.deletedFilesPath;
  a.path = v.path;
  a.sizeInSect = v.sizeInSect;
  a.HPlusVolStart = v.HPlusVolStart;
  a.blockSize = v.blockSize;
  if (v.dirRoot) a.linkEntries = linkEntriesOf(*v.dirRoot);
  if (v.volumeScanType != 2) {
    a.startSector = v.startSector;
    a.scanMode = v.scanMode;
    a.lostFoldersPath = v.lostFoldersPath;
    a.lostFilesPath = v.lostFilesPath;
    a.lostFileName = v.lostFileName;
    a.deletedFileName = v.deletedFileName;
    a.model = v.model;
    a.serial = v.serial;
    a.revision = v.revision;
  }
  return a;
}

std::unique_ptr<Volume> volumeFromArchive(const VolumeArchive& a, AppControllerInterface* controller) {
  // An empty dictionary gives the plain partition-volume setup with a fresh
  // btree; every archived field is then taken from the file.
  auto v = std::make_unique<Volume>(PlistDict{}, controller);
  v->volumeScanType = a.volumeScanType;
  v->startSector = a.startSector;
  v->volumeName = a.volumeName;
  v->rootName = a.rootName;
  v->scanMode = a.scanMode;
  v->lostFoldersPath = a.lostFoldersPath;
  v->lostFilesPath = a.lostFilesPath;
  v->lostFileName = a.lostFileName;
  v->deletedFilesPath = a.deletedFilesPath;
  v->deletedFileName = a.deletedFileName;
  v->path = a.path;
  v->model = a.model;
  v->serial = a.serial;
  v->revision = a.revision;
  v->sizeInSect = a.sizeInSect;
  v->HPlusVolStart = a.HPlusVolStart;
  v->blockSize = a.blockSize;
  v->setCPath();
  return v;
}

std::optional<ScanInfoError> saveScanInfo(const std::string& path, Volume& volume, const PlistArray& partitionList,
                                          AppControllerInterface* controller, uint64_t* entriesWritten) {
  if (!volume.dirRoot) return ScanInfoError{"! Error", "There is no recovered tree to save."};
  ScanInfo info;
  info.volume = volumeArchiveOf(volume);
  if (volume.volumeScanType == 0 || volume.volumeScanType == 1) info.partitionList = partitionList;
  if (volume.volumeScanType != 2) {
    // The drive's identity: a bad sector among them is kept as zeros (the
    // same zeros a later look gives) and noted, never left unsaid.
    info.first5Sectors.assign(kScanInfoDriveBytes, 0);
    volume.readSectorsSalvaging(0, kScanInfoDriveBytes / kSectorSize, info.first5Sectors.data());
  }
  auto error = writeScanInfo(path, info, *volume.dirRoot, controller, entriesWritten);
  if (!error) volume.scanInfoSaved = true;
  return error;
}

OpenScanInfoResult openScanInfo(const std::string& path, AppControllerInterface* controller) {
  OpenScanInfoResult result;
  auto read = readScanInfo(path, controller);
  if (!read.contents) {
    result.error = read.error;
    return result;
  }
  OpenedScanInfo opened;
  opened.volume = volumeFromArchive(read.contents->info.volume, controller);
  opened.volume->dirRoot = std::move(read.contents->root);
  applyLinkEntries(*opened.volume, read.contents->info.volume.linkEntries);
  opened.volume->openedScanInfo = true;
  opened.volume->scanInfoSaved = true;
  opened.partitionList = std::move(read.contents->info.partitionList);
  opened.first5Sectors = std::move(read.contents->info.first5Sectors);
  opened.entryCount = read.contents->entryCount;
  result.opened = std::move(opened);
  return result;
}

int findScanInfoDrive(const Volume& volume, const std::vector<uint8_t>& first5Sectors, const PlistArray& driveDicts) {
  if (first5Sectors.size() != kScanInfoDriveBytes) return -1;
  std::vector<uint8_t> sectors(kScanInfoDriveBytes);
  for (size_t i = 0; i < driveDicts.size(); ++i) {
    const PlistDict* dict = driveDicts[i].dict();
    if (!dict) continue;
    // A DMedia reads the identity the way the volume's was read when saved.
    DMedia drive(*dict, nullptr);
    std::fill(sectors.begin(), sectors.end(), 0);
    if (drive.readSectorsSalvaging(0, kScanInfoDriveBytes / kSectorSize, sectors.data()) ==
        kScanInfoDriveBytes / kSectorSize)
      continue;
    if (sectors == first5Sectors && drive.model == volume.model && drive.serial == volume.serial)
      return static_cast<int>(i);
  }
  return -1;
}

int findScanInfoVolume(const Volume& volume, const PlistArray& volumeDicts) {
  for (size_t i = 0; i < volumeDicts.size(); ++i) {
    const PlistDict* dict = volumeDicts[i].dict();
    if (!dict) continue;
    if ((dict->u64("device size") >> 9) == volume.sizeInSect && dict->string("Volume Name") == volume.volumeName)
      return static_cast<int>(i);
  }
  return -1;
}

}  // namespace ambrel
