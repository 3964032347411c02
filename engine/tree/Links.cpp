#include "tree/Links.h"

#include <deque>
#include <vector>

namespace ambrel {

const std::string kPrivateDataName("\0\0\0\0HFS+ Private Data", 21);
const std::string kPrivateDirectoryName(".HFS+ Private Directory Data\r");

const HDIR* linkedFolder(const HDIR& entry) {
  if (entry.linkKind != LinkKind::Folder) return nullptr;
  const HDIR* target = findDir(entry.btreeHDIR(), entry.linkID);
  return target && target->isFolder() && target->linkKind == LinkKind::None ? target : nullptr;
}

const HDIR& contentsOf(const HDIR& entry) {
  const HDIR* target = linkedFolder(entry);
  return target ? *target : entry;
}

void forEachThroughLinks(const HDIR& top, const std::function<bool(const HDIR&, const std::string&)>& visit,
                         const std::function<void(const HDIR&, const std::string&)>& refused) {
  struct Frame {
    const HDIR* contents;
    size_t next;
    size_t pathLength;
    size_t linkDepth;
  };
  std::string path = pathNameOf(top);
  std::vector<Frame> stack;
  auto enter = [&](const HDIR& e) {
    if (!visit(e, static_cast<const std::string&>(path))) return;
    const HDIR& contents = contentsOf(e);
    size_t depth = stack.empty() ? 0 : stack.back().linkDepth;
    if (&contents != &e) {
      bool open = ++depth > kMaxLinkDepth;
      for (const Frame& f : stack) open = open || f.contents == &contents;
      if (open) {
        refused(e, path);
        return;
      }
    }
    if (contents.children().empty()) return;
    path += '/';
    path += pathComponent(e.fileName());
    stack.push_back({&contents, 0, path.size(), depth});
  };
  enter(top);
  while (!stack.empty()) {
    Frame& f = stack.back();
    if (f.next >= f.contents->children().size()) {
      stack.pop_back();
      if (!stack.empty()) path.resize(stack.back().pathLength);
      continue;
    }
    const HDIR& child = *f.contents->children()[f.next++];
    path.resize(f.pathLength);
    enter(child);
  }
}

std::unordered_set<const HDIR*> linkedPrivateEntries(const HDIR& root) {
  std::unordered_set<const HDIR*> out;
  std::vector<const HDIR*> privates;
  for (const auto& c : root.children())
    if (c->isFolder() && c->linkKind == LinkKind::None &&
        (c->fileName() == kPrivateDataName || c->fileName() == kPrivateDirectoryName))
      privates.push_back(c.get());
  if (privates.empty()) return out;
  auto isPrivate = [&](const HDIR* e) {
    for (const HDIR* p : privates)
      if (p == e) return true;
    return false;
  };
  // Every folder reachable from the root without entering the private
  // folders, through folder links, each once; and every file a resolved
  // hard link on the way shares.
  std::unordered_set<uint32_t> linkedFiles;
  std::unordered_set<const HDIR*> reached{&root};
  std::deque<const HDIR*> queue{&root};
  while (!queue.empty()) {
    const HDIR* d = queue.front();
    queue.pop_front();
    for (const auto& c : d->children()) {
      if (d == &root && isPrivate(c.get())) continue;
      if (c->linkKind == LinkKind::File && c->fileID == c->linkID) linkedFiles.insert(c->linkID);
      const HDIR* next = c->isFolder() ? &contentsOf(*c) : nullptr;
      if (next && reached.insert(next).second) queue.push_back(next);
    }
  }
  for (const HDIR* p : privates) {
    size_t skipped = 0;
    for (const auto& c : p->children()) {
      const bool linked = c->linkKind == LinkKind::None &&
                          (c->isFolder() ? reached.count(c.get()) != 0 : linkedFiles.count(c->fileID) != 0);
      if (linked) {
        out.insert(c.get());
        ++skipped;
      }
    }
    if (skipped > 0 && skipped == p->children().size()) out.insert(p);
  }
  return out;
}

}  // namespace ambrel
