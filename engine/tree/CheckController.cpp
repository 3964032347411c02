#include "tree/CheckController.h"

#include <vector>

namespace ambrel {

int64_t CheckController::markBelow(HDIR& folder, uint8_t value) {
  // Breadth-first over the entries that marking reaches, then the counts
  // bottom-up: every child is touched twice, never once per ancestor.
  std::vector<HDIR*> order{&folder};
  for (size_t i = 0; i < order.size(); ++i) {
    for (auto& child : order[i]->children()) {
      child->selected_ = value;
      if (child->childrenCount_ > 0) order.push_back(child.get());
    }
  }
  const int64_t before = folder.selectedBelow();
  for (size_t i = order.size(); i-- > 0;) {
    int64_t sum = 0;
    for (const auto& child : order[i]->children()) sum += child->contribution();
    order[i]->setSelectedBelow(sum);
  }
  return folder.selectedBelow() - before;
}

void CheckController::markAllChildrenDirArray(HDIR& folder, uint8_t value) {
  const int64_t before = folder.contribution();
  markBelow(folder, value);
  HDIR::propagateSelected(folder.holder_, folder.contribution() - before);
}

void CheckController::setSelected() {
  if (!hdir_) return;
  HDIR* x = hdir_;
  const int64_t before = x->contribution();
  x->selected_ = flag_ ? 1 : 0;
  if (x->childrenCount_ > 0) markBelow(*x, x->selected_);
  int64_t d = x->contribution() - before;

  // One walk up `parent` carries the count change and applies the rule. The
  // scans make `parent` the holding folder; should the two ever differ the
  // walk falls back to the setters, which keep the counts right on their own.
  bool combined = true;
  for (HDIR* a = x->parent; a; x = a, a = a->parent) {
    if (combined && x->holder_ != a) {
      HDIR::propagateSelected(x->holder_, d);
      combined = false;
    }
    if (combined) {
      const int64_t was = a->contribution();
      a->setSelectedBelow(a->selectedBelow() + d);
      if (flag_) a->selected_ = 1;
      else if (a->selectedBelow() == 0) a->selected_ = 0;
      d = a->contribution() - was;
    } else if (flag_) {
      a->setSelected(1);
    } else if (a->selectedBelow() == 0) {
      a->setSelected(0);
    }
  }
  if (combined) HDIR::propagateSelected(x->holder_, d);
}

}  // namespace ambrel
