#pragma once
// One recovered file or folder of the tree the user browses, marks and saves.
//
// Ownership: an entry owns its children (unique_ptr) and its extents; `parent`
// and the two table pointers are non-owning. Removing a child destroys its
// whole subtree, and destruction is iterative, so a chain of a million folders
// neither leaks nor overflows the stack.
//
// Copies: the adding operations never put the caller's object into the tree.
// From a const reference they make a mutableCopy(): the extents are copied by
// value and the children deep-copied (their holder and, where it pointed at
// the source, their parent re-pointed to the copy), so that neither object
// can dangle when the other goes. Callers that build an entry only to add it
// can hand it over as a unique_ptr instead, which saves the copy and behaves
// as a copy would (hasParent starts NO).
//
// Counts: each entry keeps the number of marked entries below it, counted the
// way childrenSelected() defines it (descending only where childrenCount > 0),
// so unmarking never recounts subtrees. That is why `selected`, `childrenCount`,
// `fileName` and `children` change only through their setters.
//
// Paths: an entry keeps no path of its own. Its pathName (the path of the
// folder holding it) is derived from the chain of holders when asked for, so
// memory stays linear in the number of entries however deep the tree is;
// walks that need every path build them incrementally (forEachWithPath).
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tree/EntryName.h"
#include "tree/Extent.h"
#include "tree/KeyedTable.h"

namespace ambrel {

inline constexpr uint16_t kHDIRFolder = 1;
inline constexpr uint16_t kHDIRFile = 2;

enum class LinkKind : uint8_t { None = 0, File, Folder, Symlink };

// Where an entry's record was found: the live catalog, an old copy of a
// catalog node in the journal or in free space, or a signature search.
enum class EntryOrigin : uint8_t { Catalog = 0, Journal, FreeSpace, Carving };
// "catalog", "journal", "free space", "carving".
const char* originText(EntryOrigin o);

// How far a recovered file's content can be trusted. Anything but Sure is
// shown in the listing and counted when saving.
enum class Confidence : uint8_t {
  Sure = 0,
  AssumedGeometry,  // its blocks were mapped with a block size nothing on the disk confirmed
  BlocksReused,     // an old record whose blocks now belong to something else
  ExtentsMissing,   // overflow extents could not be read: the fork is incomplete
};
// "sure", "assumed block size", "blocks reused", "extents missing".
const char* confidenceText(Confidence c);

class HDIR {
 public:
  using ChildArray = std::vector<std::unique_ptr<HDIR>>;

  HDIR();
  ~HDIR();
  HDIR(const HDIR&) = delete;
  HDIR& operator=(const HDIR&) = delete;
  // Entries come from a pool of their own (see EntryPool).
  static void* operator new(size_t bytes);
  static void operator delete(void* entry, size_t bytes) noexcept;

  // Laid out widest first: a tree holds millions of these.
  uint64_t fileSize = 0;
  uint64_t dataSize = 0;
  uint64_t rscSize = 0;
  uint64_t compressedSize = 0;  // see compressionType
  ExtentList dataExt;
  ExtentList rscExt;
  HDIR* parent = nullptr;  // not owned
  uint32_t createDate = 0;
  uint32_t modDate = 0;
  uint32_t parentID = 0;
  uint32_t fileID = 0;
  uint32_t fileCount = 0;
  int32_t blockSize = 0;
  // An HFS+ compressed file: its compression type (0: not compressed). Then
  // dataSize and fileSize are the uncompressed size, dataExt is empty, and
  // the coded bytes are in the compression attribute (odd types) or in the
  // resource fork, rscExt over compressedSize bytes (even types); rscSize is
  // 0, as the file has no resource fork of its own.
  uint32_t compressionType = 0;
  // A link: for a file hard link the ID of the file whose content it shares
  // (resolved by the scan into its own forks), for a folder link the folder
  // it shows (never copied: walks look it up by linkID in btreeHDIR).
  uint32_t linkID = 0;  // see linkKind
  int32_t nameRepeatCount = 0;
  uint16_t fileType = 0;  // 1 folder, 2 file
  // The catalog's BSD mode bits (0 when unknown, as for entries from a scan
  // info file, which has no place for them).
  uint16_t fileMode = 0;
  LinkKind linkKind = LinkKind::None;
  EntryOrigin origin = EntryOrigin::Catalog;
  Confidence confidence = Confidence::Sure;
  bool hasParent = false;

  // The tables folders are indexed in by ID (not owned).
  BTreeTableClass* btreeHDIR() const { return folder_ ? folder_->btreeHDIR : nullptr; }
  BTreeTableClass* btreeHDIRAdvScan() const { return folder_ ? folder_->btreeHDIRAdvScan : nullptr; }
  void setBtreeHDIR(BTreeTableClass* table) {
    if (table || folder_) folderPart().btreeHDIR = table;
  }
  void setBtreeHDIRAdvScan(BTreeTableClass* table) {
    if (table || folder_) folderPart().btreeHDIRAdvScan = table;
  }

  std::string_view fileName() const { return fileName_.view(); }
  void setFileName(std::string_view name);

  uint8_t selected() const { return selected_; }
  // Keeps the marked counts of the entries above up to date.
  void setSelected(uint8_t value);

  int32_t childrenCount() const { return childrenCount_; }
  void setChildrenCount(int32_t value);
  void addToChildrenCount(int32_t n) { setChildrenCount(childrenCount_ + n); }
  void subtractToChildrenCount(int32_t n) { setChildrenCount(childrenCount_ - n); }

  const ChildArray& children() const { return folder_ ? folder_->children : noChildren(); }
  HDIR* childAtIndex(size_t index) const { return children()[index].get(); }
  // Replaces the children (the old ones are destroyed).
  void setChildren(ChildArray children);
  // Takes one child out of the tree and hands it back.
  std::unique_ptr<HDIR> removeChildAtIndex(size_t index);
  // Destroys every child for which `remove` is true, keeping the order of the
  // rest; linear however many go. Table items that pointed at a destroyed
  // entry are set to nullptr (the tables cannot delete). Returns what the
  // removed ones contributed to childrenSelected() of this entry.
  template <class Pred>
  int64_t removeChildrenIf(Pred remove);

  void addToFileSize(uint64_t n) { fileSize += n; }
  void addToDataSize(uint64_t n) { dataSize += n; }
  void addToRscSize(uint64_t n) { rscSize += n; }
  void addToFileCount(uint32_t n) { fileCount += n; }
  void addToNameRepeatCount(int32_t n) { nameRepeatCount += n; }
  void addDataExt(const Extent& e) { dataExt.push_back(e); }
  void addRscExt(const Extent& e) { rscExt.push_back(e); }

  bool expandable() const { return childrenCount_ > 0; }
  bool isFolder() const { return fileType == kHDIRFolder; }

  // Marked entries among the descendants, descending only into entries whose
  // childrenCount > 0. Kept up to date, so O(1).
  int64_t childrenSelected() const { return selectedBelow(); }
  // The same number counted the slow way over an array (used to check the kept one).
  static int64_t countChildrenSelectedInArray(const ChildArray& array);

  // The entry holding this one in its children (the tree's real structure;
  // the scans set `parent` to the same entry).
  HDIR* holder() const { return holder_; }

  // The first child, in the order added, whose name equals `name` exactly;
  // served from a per-folder index built on first use.
  HDIR* firstChildNamed(std::string_view name);

  // A new entry with every field of this one except hasParent (NO).
  std::unique_ptr<HDIR> mutableCopy() const;

  // The five adding operations. Each puts a copy (or the handed-over entry)
  // at the end of children and returns the entry that is now in the tree.
  // None sets parent, hasParent or childrenCount.
  HDIR* addChild(const HDIR& child) { return addChild(child.mutableCopy()); }
  HDIR* addChild(std::unique_ptr<HDIR> child);  // folders indexed in btreeHDIR
  HDIR* addChildAdvScan(const HDIR& child) { return addChildAdvScan(child.mutableCopy()); }
  HDIR* addChildAdvScan(std::unique_ptr<HDIR> child);  // folders indexed in btreeHDIRAdvScan
  // Every entry, files too, goes into btreeHDIR. Returns the added entry
  // rather than the table's always-YES result.
  HDIR* addChildDelFile(const HDIR& child) { return addChildDelFile(child.mutableCopy()); }
  HDIR* addChildDelFile(std::unique_ptr<HDIR> child);
  HDIR* addChildFromScanFile(const HDIR& child) { return addChildFromScanFile(child.mutableCopy()); }
  HDIR* addChildFromScanFile(std::unique_ptr<HDIR> child);
  HDIR* addChildSig(const HDIR& child) { return addChildSig(child.mutableCopy()); }
  HDIR* addChildSig(std::unique_ptr<HDIR> child);

  // Building a whole tree at once (a scan info file being read): adds without
  // carrying the child's marks up, which would cost the depth per entry.
  // recountMarks() on the top entry then sets every count in one pass; until
  // then childrenSelected() above the added entries is stale.
  HDIR* appendUncounted(std::unique_ptr<HDIR> child);
  static void recountMarks(HDIR& top);
  // Unmarks `top` and every entry below it, whatever their childrenCount, in
  // one pass. The counts above `top` follow; the marks above stay as they are.
  static void clearMarks(HDIR& top);

 private:
  friend class CheckController;

  // What only an entry that holds others needs, apart: most entries are files.
  struct NameIndex;
  struct FolderPart {
    ChildArray children;
    int64_t selectedBelow = 0;
    std::unique_ptr<NameIndex> nameIndex;
    BTreeTableClass* btreeHDIR = nullptr;
    BTreeTableClass* btreeHDIRAdvScan = nullptr;
    FolderPart();
    ~FolderPart();
  };
  FolderPart& folderPart();
  static const ChildArray& noChildren();
  int64_t selectedBelow() const { return folder_ ? folder_->selectedBelow : 0; }
  void setSelectedBelow(int64_t v) {
    if (v != 0 || folder_) folderPart().selectedBelow = v;
  }
  // What this entry adds to its holder's childrenSelected().
  int64_t contribution() const { return (selected_ == 1 ? 1 : 0) + (childrenCount_ > 0 ? selectedBelow() : 0); }
  // Adds d to `from`'s count and carries the change of each contribution up.
  static void propagateSelected(HDIR* from, int64_t d);
  HDIR* append(std::unique_ptr<HDIR> child);
  void dropNameIndex();
  // Clears the table items that point into the subtree of `top` (held by `holder`).
  static void forgetSubtreeInTables(const HDIR& top, const HDIR* holder);

  HDIR* holder_ = nullptr;
  std::unique_ptr<FolderPart> folder_;
  EntryName fileName_;
  int32_t childrenCount_ = 0;
  uint8_t selected_ = 0;
};

// How a folder's name appears inside the paths below it: "/" cannot separate
// anything there, so it is written ":".
std::string pathComponent(std::string_view name);
// The path of the folder holding `entry` ("/Root/Docs"), "" for an entry held
// by nothing. Costs the depth of the entry.
std::string pathNameOf(const HDIR& entry);
// pathNameOf(entry) + "/" + its name: the path listings show.
std::string listedPath(const HDIR& entry);

// Pre-order over `top` and everything below it, in the order of children,
// calling visit(entry, pathName) with the entry's pathName built as the walk
// goes (no recursion, no string per entry). `visit` returns whether to go
// into the entry's children. The top's pathName is pathNameOf(top).
template <class Entry, class Visit>
void forEachWithPath(Entry& top, Visit visit);

// The file whose attributes hold an entry's content: a hard link's own are not it.
inline uint32_t contentID(const HDIR& e) { return e.linkKind == LinkKind::File ? e.linkID : e.fileID; }

// The entry under `id` in a table, or nullptr when absent or removed since.
inline HDIR* findDir(BTreeTableClass* table, uint32_t id) {
  if (!table) return nullptr;
  auto* item = table->retrieveKeyField(id);
  return item ? item->dir : nullptr;
}

template <class Entry, class Visit>
void forEachWithPath(Entry& top, Visit visit) {
  struct Frame {
    Entry* dir;
    size_t next;
    size_t pathLength;  // of the path of dir's children
  };
  std::string path = pathNameOf(top);
  std::vector<Frame> stack;
  auto enter = [&](Entry& e) {
    if (!visit(e, static_cast<const std::string&>(path)) || e.children().empty()) return;
    path += '/';
    path += pathComponent(e.fileName());
    stack.push_back({&e, 0, path.size()});
  };
  enter(top);
  while (!stack.empty()) {
    Frame& f = stack.back();
    if (f.next >= f.dir->children().size()) {
      stack.pop_back();
      if (!stack.empty()) path.resize(stack.back().pathLength);
      continue;
    }
    Entry& child = *f.dir->children()[f.next++];
    path.resize(f.pathLength);
    enter(child);
  }
}

template <class Pred>
int64_t HDIR::removeChildrenIf(Pred remove) {
  if (!folder_) return 0;
  ChildArray& children = folder_->children;
  int64_t removedContribution = 0;
  size_t kept = 0;
  ChildArray doomed;
  for (size_t i = 0; i < children.size(); ++i) {
    if (remove(*children[i])) {
      removedContribution += children[i]->contribution();
      children[i]->holder_ = nullptr;
      doomed.push_back(std::move(children[i]));
    } else {
      if (kept != i) children[kept] = std::move(children[i]);
      ++kept;
    }
  }
  if (doomed.empty()) return 0;
  children.resize(kept);
  for (auto& d : doomed) forgetSubtreeInTables(*d, this);
  dropNameIndex();
  propagateSelected(this, -removedContribution);
  return removedContribution;
}

}  // namespace ambrel
