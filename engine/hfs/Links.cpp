// Hard links, folder links and symbolic links of a scanned volume. A hard
// link's record is empty: its content is a file of the private metadata
// folder, named after the ID the link records carry. A folder link points at
// a folder of the private directory folder in the same way.
#include <cstring>
#include <unordered_map>
#include <vector>

#include "base/Endian.h"
#include "hfs/Volume.h"
#include "tree/Links.h"

namespace ambrel {

namespace {

bool codeIs(const uint8_t code[4], const char* text) { return std::memcmp(code, text, 4) == 0; }

constexpr uint16_t kModeTypeMask = 0170000;
constexpr uint16_t kModeSymlink = 0120000;

// Folder sizes follow nested links this many times at most.
constexpr int kMaxSizePasses = 8;

void addSizeUp(HDIR* from, uint64_t bytes) {
  for (HDIR* up = from; up; up = up->holder()) up->addToFileSize(bytes);
}

}  // namespace

void Volume::noteLink(HDIR& entry, const HFSPlusCatalogFile_& file) {
  const uint32_t special = byteSwapped(file.permissions.special);
  const uint8_t* type = file.userInfo.fileType;
  const uint8_t* creator = file.userInfo.fileCreator;
  if (codeIs(type, "hlnk") && codeIs(creator, "hfs+")) {
    if (special != 0 && special != entry.fileID) {
      entry.linkKind = LinkKind::File;
      entry.linkID = special;
    }
  } else if (codeIs(type, "fdrp") && codeIs(creator, "MACS")) {
    if (special > kRootFolderID && special != entry.fileID) {
      entry.linkKind = LinkKind::Folder;
      entry.linkID = special;
    }
  } else if ((codeIs(type, "slnk") && codeIs(creator, "rhap")) || (entry.fileMode & kModeTypeMask) == kModeSymlink) {
    entry.linkKind = LinkKind::Symlink;
  }
}

void Volume::resolveLinks() {
  if (!dirRoot) return;
  std::unordered_map<uint32_t, const HDIR*> inodes;
  std::vector<HDIR*> links;
  std::vector<HDIR*> stack{dirRoot.get()};
  while (!stack.empty()) {
    HDIR* d = stack.back();
    stack.pop_back();
    const bool privateData = d->fileName() == kPrivateDataName;
    for (const auto& c : d->children()) {
      if (c->isFolder()) stack.push_back(c.get());
      if (privateData && c->fileType == kHDIRFile && c->linkKind == LinkKind::None) inodes.emplace(c->fileID, c.get());
      if (c->linkKind == LinkKind::File || c->linkKind == LinkKind::Folder) links.push_back(c.get());
      if (c->linkKind == LinkKind::Symlink) ++symlinks;
    }
  }
  std::vector<HDIR*> linkedFolders;
  for (HDIR* link : links) {
    if (link->linkKind == LinkKind::Folder) {
      const HDIR* target = findDir(btree.get(), link->linkID);
      if (!target || !target->isFolder() || target->linkKind != LinkKind::None) {
        ++linksUnresolved;
        continue;
      }
      link->fileType = kHDIRFolder;
      link->setBtreeHDIR(btree.get());  // where walks look its folder up
      linkedFolders.push_back(link);
      ++folderLinks;
      continue;
    }
    auto it = inodes.find(link->linkID);
    if (it == inodes.end()) {
      ++linksUnresolved;
      continue;
    }
    const HDIR& inode = *it->second;
    // It is that file, under another name: listed with its ID, as the catalog's readers name it.
    link->fileID = inode.fileID;
    link->dataExt = inode.dataExt;
    link->rscExt = inode.rscExt;
    link->dataSize = inode.dataSize;
    link->rscSize = inode.rscSize;
    link->blockSize = inode.blockSize;
    link->compressionType = inode.compressionType;
    link->compressedSize = inode.compressedSize;
    link->confidence = inode.confidence;
    if (link->fileMode == 0) link->fileMode = inode.fileMode;
    const uint64_t grown = inode.fileSize > link->fileSize ? inode.fileSize - link->fileSize : 0;
    link->fileSize += grown;
    addSizeUp(link->holder(), grown);
    ++fileLinks;
  }
  // A folder link is as large as its folder; links inside linked folders
  // need a few passes, which also bound a loop's growth.
  for (int pass = 0; pass < kMaxSizePasses; ++pass) {
    bool changed = false;
    for (HDIR* link : linkedFolders) {
      const HDIR* target = linkedFolder(*link);
      if (!target || target->fileSize <= link->fileSize) continue;
      const uint64_t grown = target->fileSize - link->fileSize;
      link->fileSize += grown;
      addSizeUp(link->holder(), grown);
      changed = true;
    }
    if (!changed) break;
  }
}

}  // namespace ambrel
