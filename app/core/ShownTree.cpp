#include "core/ShownTree.h"

#include <fmt/format.h>

namespace ambrel {

std::unique_ptr<ShownTree> ShownTree::build(HDIR& root, EntryFilter filter) {
  auto shown = std::make_unique<ShownTree>();
  shown->root = &root;
  shown->filter = std::move(filter);
  if (shown->filter.active()) shown->filtered = std::make_unique<FilteredTree>(root, shown->filter);
  shown->tally = MarkTally::build(root, shown->filtered.get());
  const FilteredTree* kept = shown->filtered.get();
  if (!kept && shown->tally) {
    shown->allFiles = shown->shownFiles = shown->tally->all().markedFiles;
    return shown;
  }
  std::vector<HDIR*> stack{&root};
  while (!stack.empty()) {
    HDIR* e = stack.back();
    stack.pop_back();
    const bool keeps = !kept || kept->keeps(*e);
    if (e->fileType == kHDIRFile) {
      ++shown->allFiles;
      if (keeps) ++shown->shownFiles;
    }
    std::vector<HDIR*>* list = kept && keeps && !e->children().empty() ? &shown->children[e] : nullptr;
    for (const auto& c : e->children()) {
      // Below a dropped entry nothing is kept; its files still count in the whole.
      if (list && kept->keeps(*c)) list->push_back(c.get());
      stack.push_back(c.get());
    }
  }
  return shown;
}

int ShownTree::childCount(const HDIR* item) const {
  if (!filtered) return static_cast<int>(item->children().size());
  auto it = children.find(item);
  return it == children.end() ? 0 : static_cast<int>(it->second.size());
}

HDIR* ShownTree::child(const HDIR* item, int index) const {
  if (index < 0) return nullptr;
  if (!filtered)
    return static_cast<size_t>(index) < item->children().size() ? item->childAtIndex(static_cast<size_t>(index)) : nullptr;
  auto it = children.find(item);
  if (it == children.end() || static_cast<size_t>(index) >= it->second.size()) return nullptr;
  return it->second[static_cast<size_t>(index)];
}

std::optional<EntryFilter> treeFilterFrom(const TreeFilterInput& input, std::string& error) {
  EntryFilter f;
  const std::pair<const std::string*, const char*> sizes[] = {{&input.minSize, "Minimum size"},
                                                               {&input.maxSize, "Maximum size"}};
  for (const auto& [text, field] : sizes) {
    if (text->find_first_not_of(" \t") == std::string::npos) continue;
    auto bytes = parseSizeText(*text);
    if (!bytes) {
      error = fmt::format("{} \"{}\" is not a size. Write it as 1500, 500KB, 20MB or 2GB (1 KB = 1000 bytes).", field,
                          *text);
      return std::nullopt;
    }
    (text == &input.minSize ? f.minSize : f.maxSize) = bytes;
  }
  if (f.minSize && f.maxSize && *f.minSize > *f.maxSize) {
    error = fmt::format("The minimum size ({}) is above the maximum size ({}): no file could pass.", input.minSize,
                        input.maxSize);
    return std::nullopt;
  }
  const size_t b = input.name.find_first_not_of(" \t");
  if (b != std::string::npos) f.names.push_back(input.name.substr(b, input.name.find_last_not_of(" \t") - b + 1));
  if (input.extensions.find_first_not_of(" \t") != std::string::npos) {
    f.extensions = parseExtensionList(input.extensions);
    if (f.extensions.empty()) {
      error = fmt::format("Extensions \"{}\" name no extension. Write them as jpg, pdf.", input.extensions);
      return std::nullopt;
    }
  }
  f.matchCase = input.matchCase;
  return f;
}

}  // namespace ambrel
