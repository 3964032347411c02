#include "tree/HDIR.h"

#include <algorithm>
#include <bit>
#include <functional>
#include <string_view>
#include <utility>

namespace ambrel {

HDIR::HDIR() = default;

HDIR::~HDIR() {
  // Flatten instead of recursing: a deep chain would exhaust the stack.
  ChildArray pending = std::move(children_);
  while (!pending.empty()) {
    std::unique_ptr<HDIR> entry = std::move(pending.back());
    pending.pop_back();
    for (auto& child : entry->children_) pending.push_back(std::move(child));
    entry->children_.clear();
  }
}

void HDIR::setFileName(std::string name) {
  // The holder's name index points into this string.
  if (holder_) holder_->dropNameIndex();
  fileName_ = std::move(name);
}

void HDIR::propagateSelected(HDIR* from, int64_t d) {
  for (HDIR* a = from; a && d != 0; a = a->holder_) {
    const int64_t before = a->contribution();
    a->selectedBelow_ += d;
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
  for (const auto& c : children_) before += c->contribution();
  // Destroyed only after the new array is in place, and iteratively.
  ChildArray old = std::move(children_);
  for (auto& c : old) c->holder_ = nullptr;
  children_ = std::move(children);
  int64_t after = 0;
  for (auto& c : children_) {
    c->holder_ = this;
    after += c->contribution();
  }
  dropNameIndex();
  propagateSelected(this, after - before);
  HDIR sink;
  sink.children_ = std::move(old);
}

std::unique_ptr<HDIR> HDIR::removeChildAtIndex(size_t index) {
  std::unique_ptr<HDIR> child = std::move(children_[index]);
  children_.erase(children_.begin() + static_cast<std::ptrdiff_t>(index));
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
    BTreeTableClass* tables[4] = {h ? h->btreeHDIR : nullptr, h ? h->btreeHDIRAdvScan : nullptr, e->btreeHDIR,
                                  e->btreeHDIRAdvScan};
    for (BTreeTableClass* t : tables) {
      if (!t) continue;
      auto* item = t->retrieveKeyField(e->fileID);
      if (item && item->dir == e) item->dir = nullptr;
    }
    for (const auto& c : e->children_) work.emplace_back(c.get(), e);
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
      if (e->childrenCount_ > 0) stack.push_back(&e->children_);
    }
  }
  return count;
}

// A folder's children by name, the first added of each name: open
// addressing over the children themselves, 16 bytes a child where a hash
// map's node and bucket cost over 50 and an allocation each.
struct HDIR::NameIndex {
  std::vector<HDIR*> slots;  // nullptr: empty
  size_t count = 0;

  HDIR*& slotFor(std::string_view name) {
    const size_t mask = slots.size() - 1;
    size_t i = std::hash<std::string_view>{}(name) & mask;
    while (slots[i] && slots[i]->fileName_ != name) i = (i + 1) & mask;
    return slots[i];
  }
  void add(HDIR* child) {
    if ((count + 1) * 2 > slots.size()) {
      std::vector<HDIR*> old(std::max<size_t>(16, slots.size() * 2), nullptr);
      old.swap(slots);
      for (HDIR* c : old)
        if (c) slotFor(c->fileName_) = c;
    }
    HDIR*& slot = slotFor(child->fileName_);
    if (!slot) {
      slot = child;
      ++count;
    }
  }
};

void HDIR::dropNameIndex() { nameIndex_.reset(); }

HDIR* HDIR::firstChildNamed(std::string_view name) {
  if (children_.empty()) return nullptr;
  if (!nameIndex_) {
    nameIndex_ = std::make_unique<NameIndex>();
    nameIndex_->slots.assign(std::max<size_t>(16, std::bit_ceil(children_.size() * 2)), nullptr);
    for (const auto& c : children_) nameIndex_->add(c.get());
  }
  return nameIndex_->slotFor(name);
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
    to.btreeHDIR = from.btreeHDIR;
    to.btreeHDIRAdvScan = from.btreeHDIRAdvScan;
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
    to.selectedBelow_ = from.selectedBelow_;
    // hasParent deliberately stays NO.
  };
  auto top = std::make_unique<HDIR>();
  copyFields(*this, *top);
  // Deep copy of the children, breadth by breadth without recursion.
  std::vector<std::pair<const HDIR*, HDIR*>> work{{this, top.get()}};
  while (!work.empty()) {
    auto [from, to] = work.back();
    work.pop_back();
    to->children_.reserve(from->children_.size());
    for (const auto& c : from->children_) {
      auto copy = std::make_unique<HDIR>();
      copyFields(*c, *copy);
      copy->hasParent = c->hasParent;
      if (c->parent == from) copy->parent = to;
      copy->holder_ = to;
      work.emplace_back(c.get(), copy.get());
      to->children_.push_back(std::move(copy));
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
  children_.push_back(std::move(child));
  if (nameIndex_) nameIndex_->add(added);
  propagateSelected(this, added->contribution());
  return added;
}

HDIR* HDIR::addChild(std::unique_ptr<HDIR> child) {
  HDIR* added = append(std::move(child));
  if (!added) return nullptr;
  if (added->fileType == kHDIRFolder && btreeHDIR) btreeHDIR->insert(added->fileID, added);
  return added;
}

HDIR* HDIR::addChildAdvScan(std::unique_ptr<HDIR> child) {
  HDIR* added = append(std::move(child));
  if (!added) return nullptr;
  if (added->fileType == kHDIRFolder && btreeHDIRAdvScan) btreeHDIRAdvScan->insert(added->fileID, added);
  return added;
}

HDIR* HDIR::addChildDelFile(std::unique_ptr<HDIR> child) {
  HDIR* added = append(std::move(child));
  if (!added) return nullptr;
  if (btreeHDIR) btreeHDIR->insert(added->fileID, added);
  return added;
}

HDIR* HDIR::appendUncounted(std::unique_ptr<HDIR> child) {
  if (!child) return nullptr;
  child->hasParent = false;
  HDIR* added = child.get();
  added->holder_ = this;
  children_.push_back(std::move(child));
  dropNameIndex();
  return added;
}

void HDIR::recountMarks(HDIR& top) {
  // Pre-order, then every count from the bottom up: each entry touched twice.
  std::vector<HDIR*> order{&top};
  for (size_t i = 0; i < order.size(); ++i)
    for (auto& c : order[i]->children_) order.push_back(c.get());
  for (size_t i = order.size(); i-- > 0;) {
    int64_t sum = 0;
    for (const auto& c : order[i]->children_) sum += c->contribution();
    order[i]->selectedBelow_ = sum;
  }
}

void HDIR::clearMarks(HDIR& top) {
  const int64_t before = top.contribution();
  std::vector<HDIR*> stack{&top};
  while (!stack.empty()) {
    HDIR* e = stack.back();
    stack.pop_back();
    e->selected_ = 0;
    e->selectedBelow_ = 0;
    for (auto& c : e->children_) stack.push_back(c.get());
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

std::string listedPath(const HDIR& entry) { return pathNameOf(entry) + "/" + entry.fileName(); }

HDIR* HDIR::addChildFromScanFile(std::unique_ptr<HDIR> child) { return append(std::move(child)); }

HDIR* HDIR::addChildSig(std::unique_ptr<HDIR> child) { return append(std::move(child)); }

}  // namespace ambrel
