#pragma once
// Marking and unmarking an entry for saving. A folder is marked whenever
// anything below it is marked; there is no partly-marked state.
#include <cstdint>

#include "tree/HDIR.h"

namespace ambrel {

class CheckController {
 public:
  // flag true marks, false unmarks.
  CheckController(HDIR* dir, bool flag) : hdir_(dir), flag_(flag) {}

  void run() { setSelected(); }
  // Mark: the entry, every ancestor, and (when childrenCount > 0) every
  // descendant. Unmark: the entry and its descendants, then every ancestor
  // left with nothing marked below it. Linear in the subtree plus the depth.
  void setSelected();

  // Sets every child of `folder` to value, descending into each entry whose
  // childrenCount > 0.
  static void markAllChildrenDirArray(HDIR& folder, uint8_t value);

  HDIR* hdir() const { return hdir_; }
  bool flag() const { return flag_; }

 private:
  // markAllChildrenDirArray without carrying the change above `folder`;
  // returns how much folder's marked count changed.
  static int64_t markBelow(HDIR& folder, uint8_t value);

  HDIR* hdir_;
  bool flag_;
};

}  // namespace ambrel
