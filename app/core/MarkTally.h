#pragma once
// The marked files' count and size, kept as marks change instead of counted
// over the whole tree after each click: marking the root of a million
// entries then costs the marking alone.
//
// It knows, per folder, the files below it and how many of them are
// marked. Marking a folder marks everything below it (CheckController), so
// the folder's marked figures become its totals (or zero) and only the
// folders above and below it are touched, never the files.
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "output/Saver.h"
#include "tree/EntryFilter.h"
#include "tree/HDIR.h"

namespace ambrel {

// The marked files of the tree that `kept` keeps (every file when null).
MarkedCount countMarkedKept(const HDIR& root, const FilteredTree* kept);

class MarkTally {
 public:
  // Null when marking a folder would not reach every file below it (an entry
  // with children but no children count, or a file holding entries): the
  // caller then counts the slow way. Files `kept` does not keep are not
  // counted; it must outlive the tally.
  static std::unique_ptr<MarkTally> build(const HDIR& root, const FilteredTree* kept);

  MarkedCount total() const;
  // Every counted file, marked or not: in the tree, below a folder (null
  // for an entry that holds nothing).
  MarkedCount all() const;
  const MarkedCount* allBelow(const HDIR* folder) const;
  // Marks or unmarks `item` and everything below it, and the tally with them.
  void mark(HDIR* item, bool flag);

 private:
  struct Folder {
    MarkedCount all;     // the counted files below
    MarkedCount marked;  // those of them marked
    std::vector<const HDIR*> folders;  // its child folders
  };
  bool counts(const HDIR& e) const;
  void addAbove(const HDIR* from, int64_t files, int64_t data);

  const HDIR* root_ = nullptr;
  const FilteredTree* kept_ = nullptr;
  std::unordered_map<const HDIR*, Folder> folders_;
};

}  // namespace ambrel
