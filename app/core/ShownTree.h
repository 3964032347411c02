#pragma once
// The tree as the tree page shows it: every entry, or only what a filter
// keeps (a folder stays while a kept file is below it). Built whole on a
// worker, then only read, so the outline never waits for a filter.
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/MarkTally.h"
#include "tree/EntryFilter.h"
#include "tree/HDIR.h"

namespace ambrel {

struct ShownTree {
  const HDIR* root = nullptr;
  EntryFilter filter;
  std::unique_ptr<FilteredTree> filtered;  // null without an active filter
  // With a filter: each kept folder's kept children, in the tree's order.
  std::unordered_map<const HDIR*, std::vector<HDIR*>> children;
  // Null when the tree is one it cannot follow (then marks are counted).
  std::unique_ptr<MarkTally> tally;
  uint32_t shownFiles = 0, allFiles = 0;

  // Reads the marks as they are: nothing may change them meanwhile.
  static std::unique_ptr<ShownTree> build(HDIR& root, EntryFilter filter);

  const FilteredTree* kept() const { return filtered.get(); }
  int childCount(const HDIR* item) const;
  HDIR* child(const HDIR* item, int index) const;
  MarkedCount marked() const { return tally ? tally->total() : countMarkedKept(*root, kept()); }
};

// The filter fields as typed. Sizes as 1500, 500KB, 20MB; the name is one
// shell pattern; extensions are a list ("jpg, pdf").
struct TreeFilterInput {
  std::string minSize, maxSize, name, extensions;
  bool matchCase = false;
};
// The filter, or nullopt with `error` saying what is wrong with which field.
std::optional<EntryFilter> treeFilterFrom(const TreeFilterInput& input, std::string& error);

}  // namespace ambrel
