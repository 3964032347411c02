#include "tree/Links.h"

#include <vector>

namespace ambrel {

const HDIR* linkedFolder(const HDIR& entry) {
  if (entry.linkKind != LinkKind::Folder) return nullptr;
  const HDIR* target = findDir(entry.btreeHDIR, entry.linkID);
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

}  // namespace ambrel
