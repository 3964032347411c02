#include "tree/HDIR.h"

#include <pthread.h>

#include <algorithm>
#include <bit>
#include <functional>
#include <string_view>
#include <utility>

#include "base/Sanitizers.h"
#include "tree/EntryPool.h"

namespace ambrel {

namespace {

// Sanitizer builds keep entries on the heap, where every misuse of one and
// every leak is seen.
constexpr bool kPooled = !kAddressSanitized;

// Never destroyed: entries may outlive every static (a front end leaves its
// trees to the system at exit).
EntryPool& entryPool() {
  static EntryPool* pool = [] {
    auto* p = new EntryPool(sizeof(HDIR));
    ::pthread_atfork([] { entryPool().beforeFork(); }, [] { entryPool().afterForkInParent(); },
                     [] { entryPool().afterForkInChild(); });
    return p;
  }();
  return *pool;
}

}  // namespace

void* HDIR::operator new(size_t bytes) {
  if (kPooled && bytes == sizeof(HDIR)) return entryPool().allocate();
  return ::operator new(bytes);
}

void HDIR::operator delete(void* entry, size_t bytes) noexcept {
  if (kPooled && bytes == sizeof(HDIR)) return entryPool().release(entry);
  ::operator delete(entry);
}

HDIR::HDIR() = default;

HDIR::~HDIR() {
  if (!folder_) return;
  // Flatten instead of recursing: a deep chain would exhaust the stack.
  ChildArray pending = std::move(folder_->children);
  while (!pending.empty()) {
    std::unique_ptr<HDIR> entry = std::move(pending.back());
    pending.pop_back();
    if (!entry->folder_) continue;
    for (auto& child : entry->folder_->children) pending.push_back(std::move(child));
    entry->folder_->children.clear();
  }
}

HDIR::FolderPart::FolderPart() = default;
HDIR::FolderPart::~FolderPart() = default;

HDIR::FolderPart& HDIR::folderPart() {
  if (!folder_) folder_ = std::make_unique<FolderPart>();
  return *folder_;
}

const HDIR::ChildArray& HDIR::noChildren() {
  static const ChildArray none;
  return none;
}

void HDIR::setFileName(std::string_view name) {
  // The holder's name index points into this name.
  if (holder_) holder_->dropNameIndex();
  fileName_.set(name);
}

void HDIR::propagateSelected(HDIR* from, int64_t d) {
  for (HDIR* a = from; a && d != 0; a = a->holder_) {
    const int64_t before = a->contribution();
    a->setSelectedBelow(a->selectedBelow() + d);
    d = a->contribution() - before;
  }
}

void HDIR::setSelected(uint8_t value) {
  const int64_t before = contribution();
  selected_ = value;
  propagateSelected(holder_, contribution() - before);
}

void HDIR::setChildrenCount(int32_t value) {
  const int64_t before = contribution();
  childrenCount_ = value;
  propagateSelected(holder_, contribution() - before);
}

void HDIR::setChildren(ChildArray children) {
  int64_t before = 0;
  for (const auto& c : this->children()) before += c->contribution();
  // Destroyed only after the new array is in place, and iteratively.
  ChildArray old = folder_ ? std::move(folder_->children) : ChildArray{};
  for (auto& c : old) c->holder_ = nullptr;
  if (!children.empty() || folder_) folderPart().children = std::move(children);
  int64_t after = 0;
  for (auto& c : this->children()) {
    c->holder_ = this;
    after += c->contribution();
  }
  dropNameIndex();
  propagateSelected(this, after - before);
  HDIR sink;
  sink.folderPart().children = std::move(old);
}

std::unique_ptr<HDIR> HDIR::removeChildAtIndex(size_t index) {
  ChildArray& children = folder_->children;
  std::unique_ptr<HDIR> child = std::move(children[index]);
  children.erase(children.begin() + static_cast<std::ptrdiff_t>(index));
  child->holder_ = nullptr;
  dropNameIndex();
  propagateSelected(this, -child->contribution());
  return child;
}

void HDIR::forgetSubtreeInTables(const HDIR& top, const HDIR* holder) {
  std::vector<std::pair<const HDIR*, const HDIR*>> work{{&top, holder}};
  while (!work.empty()) {
    auto [e, h] = work.back();
    work.pop_back();
    BTreeTableClass* tables[4] = {h ? h->btreeHDIR() : nullptr, h ? h->btreeHDIRAdvScan() : nullptr, e->btreeHDIR(),
                                  e->btreeHDIRAdvScan()};
    for (BTreeTableClass* t : tables) {
      if (!t) continue;
      auto* item = t->retrieveKeyField(e->fileID);
      if (item && item->dir == e) item->dir = nullptr;
    }
    for (const auto& c : e->children()) work.emplace_back(c.get(), e);
  }
}

int64_t HDIR::countChildrenSelectedInArray(const ChildArray& array) {
  int64_t count = 0;
  std::vector<const ChildArray*> stack{&array};
  while (!stack.empty()) {
    const ChildArray* a = stack.back();
    stack.pop_back();
    for (const auto& e : *a) {
      if (e->selected_ == 1) ++count;
      if (e->childrenCount_ > 0) stack.push_back(&e->children());
    }
  }
  return count;
}

// A folder's children by name, the first added of each name: open
// addressing over the positions of the children, 4 bytes a slot at most
// three quarters full, where a hash map's node and bucket cost over 50 bytes
// and an allocation each.
struct HDIR::NameIndex {
  static constexpr uint32_t kEmpty = UINT32_MAX;
  std::vector<uint32_t> slots;
  size_t count = 0;

  uint32_t& slotFor(const ChildArray& children, std::string_view name) {
    const size_t mask = slots.size() - 1;
    size_t i = std::hash<std::string_view>{}(name) & mask;
    while (slots[i] != kEmpty && children[slots[i]]->fileName() != name) i = (i + 1) & mask;
    return slots[i];
  }
  void add(const ChildArray& children, uint32_t position) {
    if ((count + 1) * 4 > slots.size() * 3) {
      std::vector<uint32_t> old(std::max<size_t>(16, slots.size() * 2), kEmpty);
      old.swap(slots);
      for (uint32_t p : old)
        if (p != kEmpty) slotFor(children, children[p]->fileName()) = p;
    }
    uint32_t& slot = slotFor(children, children[position]->fileName());
    if (slot == kEmpty) {
      slot = position;
      ++count;
    }
  }
};

void HDIR::dropNameIndex() {
  if (folder_) folder_->nameIndex.reset();
}

HDIR* HDIR::firstChildNamed(std::string_view name) {
  if (!folder_ || folder_->children.empty()) return nullptr;
  const ChildArray& children = folder_->children;
  auto& index = folder_->nameIndex;
  if (!index) {
    index = std::make_unique<NameIndex>();
    index->slots.assign(std::max<size_t>(16, std::bit_ceil(children.size() * 2)), NameIndex::kEmpty);
    for (size_t p = 0; p < children.size(); ++p) index->add(children, static_cast<uint32_t>(p));
  }
  const uint32_t found = index->slotFor(children, name);
  return found == NameIndex::kEmpty ? nullptr : children[found].get();
}

const char* confidenceText(Confidence c) {
  switch (c) {
    case Confidence::Sure: return "sure";
    case Confidence::AssumedGeometry: return "assumed block size";
    case Confidence::BlocksReused: return "blocks reused";
    case Confidence::ExtentsMissing: return "extents missing";
  }
  return "sure";
}

const char* originText(EntryOrigin o) {
  switch (o) {
    case EntryOrigin::Catalog: return "catalog";
    case EntryOrigin::Journal: return "journal";
    case EntryOrigin::FreeSpace: return "free space";
    case EntryOrigin::Carving: return "carving";
  }
  return "catalog";
}

std::unique_ptr<HDIR> HDIR::mutableCopy() const {
  auto copyFields = [](const HDIR& from, HDIR& to) {
    to.setBtreeHDIR(from.btreeHDIR());
    to.setBtreeHDIRAdvScan(from.btreeHDIRAdvScan());
    to.fileName_ = from.fileName_;
    to.fileType = from.fileType;
    to.createDate = from.createDate;
    to.modDate = from.modDate;
    to.parentID = from.parentID;
    to.fileID = from.fileID;
    to.fileSize = from.fileSize;
    to.dataSize = from.dataSize;
    to.rscSize = from.rscSize;
    to.fileCount = from.fileCount;
    to.dataExt = from.dataExt;
    to.rscExt = from.rscExt;
    to.blockSize = from.blockSize;
    to.fileMode = from.fileMode;
    to.compressionType = from.compressionType;
    to.compressedSize = from.compressedSize;
    to.linkKind = from.linkKind;
    to.linkID = from.linkID;
    to.origin = from.origin;
    to.confidence = from.confidence;
    to.selected_ = from.selected_;
    to.childrenCount_ = from.childrenCount_;
    to.parent = from.parent;
    to.nameRepeatCount = from.nameRepeatCount;
    to.setSelectedBelow(from.selectedBelow());
    // hasParent deliberately stays NO.
  };
  auto top = std::make_unique<HDIR>();
  copyFields(*this, *top);
  // Deep copy of the children, breadth by breadth without recursion.
  std::vector<std::pair<const HDIR*, HDIR*>> work{{this, top.get()}};
  while (!work.empty()) {
    auto [from, to] = work.back();
    work.pop_back();
    if (from->children().empty()) continue;
    to->folderPart().children.reserve(from->children().size());
    for (const auto& c : from->children()) {
      auto copy = std::make_unique<HDIR>();
      copyFields(*c, *copy);
      copy->hasParent = c->hasParent;
      if (c->parent == from) copy->parent = to;
      copy->holder_ = to;
      work.emplace_back(c.get(), copy.get());
      to->folder_->children.push_back(std::move(copy));
    }
  }
  return top;
}

HDIR* HDIR::append(std::unique_ptr<HDIR> child) {
  if (!child) return nullptr;
  // Handed-over entries behave as copies would.
  child->hasParent = false;
  HDIR* added = child.get();
  added->holder_ = this;
  FolderPart& part = folderPart();
  part.children.push_back(std::move(child));
  if (part.nameIndex) part.nameIndex->add(part.children, static_cast<uint32_t>(part.children.size() - 1));
  propagateSelected(this, added->contribution());
  return added;
}

HDIR* HDIR::addChild(std::unique_ptr<HDIR> child) {
  HDIR* added = append(std::move(child));
  if (!added) return nullptr;
  if (added->fileType == kHDIRFolder && btreeHDIR()) btreeHDIR()->insert(added->fileID, added);
  return added;
}

HDIR* HDIR::addChildAdvScan(std::unique_ptr<HDIR> child) {
  HDIR* added = append(std::move(child));
  if (!added) return nullptr;
  if (added->fileType == kHDIRFolder && btreeHDIRAdvScan()) btreeHDIRAdvScan()->insert(added->fileID, added);
  return added;
}

HDIR* HDIR::addChildDelFile(std::unique_ptr<HDIR> child) {
  HDIR* added = append(std::move(child));
  if (!added) return nullptr;
  if (btreeHDIR()) btreeHDIR()->insert(added->fileID, added);
  return added;
}

HDIR* HDIR::appendUncounted(std::unique_ptr<HDIR> child) {
  if (!child) return nullptr;
  child->hasParent = false;
  HDIR* added = child.get();
  added->holder_ = this;
  folderPart().children.push_back(std::move(child));
  dropNameIndex();
  return added;
}

void HDIR::recountMarks(HDIR& top) {
  // Pre-order, then every count from the bottom up: each entry touched twice.
  std::vector<HDIR*> order{&top};
  for (size_t i = 0; i < order.size(); ++i)
    for (auto& c : order[i]->children()) order.push_back(c.get());
  for (size_t i = order.size(); i-- > 0;) {
    int64_t sum = 0;
    for (const auto& c : order[i]->children()) sum += c->contribution();
    order[i]->setSelectedBelow(sum);
  }
}

void HDIR::clearMarks(HDIR& top) {
  const int64_t before = top.contribution();
  std::vector<HDIR*> stack{&top};
  while (!stack.empty()) {
    HDIR* e = stack.back();
    stack.pop_back();
    e->selected_ = 0;
    e->setSelectedBelow(0);
    for (auto& c : e->children()) stack.push_back(c.get());
  }
  propagateSelected(top.holder_, -before);
}

std::string pathComponent(std::string_view name) {
  std::string out(name);
  std::replace(out.begin(), out.end(), '/', ':');
  return out;
}

std::string pathNameOf(const HDIR& entry) {
  std::vector<const HDIR*> chain;
  for (const HDIR* h = entry.holder(); h; h = h->holder()) chain.push_back(h);
  std::string path;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    path += '/';
    path += pathComponent((*it)->fileName());
  }
  return path;
}

std::string listedPath(const HDIR& entry) {
  std::string path = pathNameOf(entry);
  path += '/';
  path += entry.fileName();
  return path;
}

HDIR* HDIR::addChildFromScanFile(std::unique_ptr<HDIR> child) { return append(std::move(child)); }

HDIR* HDIR::addChildSig(std::unique_ptr<HDIR> child) { return append(std::move(child)); }

}  // namespace ambrel
