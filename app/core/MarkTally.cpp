#include "core/MarkTally.h"

#include "tree/CheckController.h"

namespace ambrel {

namespace {

void add(MarkedCount& to, const MarkedCount& n) {
  to.markedData += n.markedData;
  to.markedFiles += n.markedFiles;
}

}  // namespace

MarkedCount countMarkedKept(const HDIR& root, const FilteredTree* kept) {
  if (!kept) return countMarkedDataAndFiles(root);
  MarkedCount count;
  std::vector<const HDIR*> stack{&root};
  while (!stack.empty()) {
    const HDIR* d = stack.back();
    stack.pop_back();
    if (!kept->keeps(*d)) continue;  // nothing below a dropped entry is kept either
    if (d->selected() == 1 && d->fileType == kHDIRFile) {
      count.markedData += d->fileSize;
      ++count.markedFiles;
    }
    for (const auto& c : d->children()) stack.push_back(c.get());
  }
  return count;
}

bool MarkTally::counts(const HDIR& e) const { return e.fileType == kHDIRFile && (!kept_ || kept_->keeps(e)); }

std::unique_ptr<MarkTally> MarkTally::build(const HDIR& root, const FilteredTree* kept) {
  std::unique_ptr<MarkTally> t(new MarkTally);
  t->root_ = &root;
  t->kept_ = kept;
  // Folders in pre-order, each with the files directly in it; then their
  // figures carried up from the deepest.
  std::vector<const HDIR*> order{&root};
  t->folders_.reserve(64);
  t->folders_[&root];
  for (size_t i = 0; i < order.size(); ++i) {
    const HDIR* f = order[i];
    if (!f->children().empty() && (f->fileType == kHDIRFile || f->childrenCount() <= 0)) return nullptr;
    Folder& folder = t->folders_[f];  // node-based: stays put while others are added
    for (const auto& c : f->children()) {
      const HDIR* e = c.get();
      if (!e->children().empty()) {
        folder.folders.push_back(e);
        order.push_back(e);
        t->folders_[e];
      } else if (t->counts(*e)) {
        add(folder.all, {e->fileSize, 1});
        if (e->selected() == 1) add(folder.marked, {e->fileSize, 1});
      }
    }
  }
  for (size_t i = order.size(); i-- > 1;) {
    const Folder& from = t->folders_[order[i]];
    Folder& to = t->folders_[order[i]->holder()];
    add(to.all, from.all);
    add(to.marked, from.marked);
  }
  return t;
}

MarkedCount MarkTally::total() const {
  auto it = folders_.find(root_);
  return it == folders_.end() ? MarkedCount{} : it->second.marked;
}

MarkedCount MarkTally::all() const {
  auto it = folders_.find(root_);
  return it == folders_.end() ? MarkedCount{} : it->second.all;
}

const MarkedCount* MarkTally::allBelow(const HDIR* folder) const {
  auto it = folders_.find(folder);
  return it == folders_.end() ? nullptr : &it->second.all;
}

void MarkTally::addAbove(const HDIR* from, int64_t files, int64_t data) {
  for (const HDIR* a = from; a; a = a->holder()) {
    auto it = folders_.find(a);
    if (it == folders_.end()) continue;
    it->second.marked.markedFiles = static_cast<uint32_t>(it->second.marked.markedFiles + files);
    it->second.marked.markedData = static_cast<uint64_t>(static_cast<int64_t>(it->second.marked.markedData) + data);
  }
}

void MarkTally::mark(HDIR* item, bool flag) {
  auto it = folders_.find(item);
  if (it == folders_.end()) {
    // A file or an empty folder: only itself can change among the counted.
    const bool counted = counts(*item);
    const bool was = counted && item->selected() == 1;
    CheckController(item, flag).run();
    const bool now = counted && item->selected() == 1;
    if (was != now) {
      const auto size = static_cast<int64_t>(item->fileSize);
      addAbove(item->holder(), now ? 1 : -1, now ? size : -size);
    }
    return;
  }
  const MarkedCount before = it->second.marked;
  CheckController(item, flag).run();
  // Everything below is now marked (or not): each folder's figures follow
  // from its totals, without a look at its files.
  std::vector<const HDIR*> stack{item};
  while (!stack.empty()) {
    Folder& f = folders_[stack.back()];
    stack.pop_back();
    f.marked = flag ? f.all : MarkedCount{};
    stack.insert(stack.end(), f.folders.begin(), f.folders.end());
  }
  const MarkedCount& after = it->second.marked;
  addAbove(item->holder(), int64_t{after.markedFiles} - int64_t{before.markedFiles},
           static_cast<int64_t>(after.markedData) - static_cast<int64_t>(before.markedData));
}

}  // namespace ambrel
