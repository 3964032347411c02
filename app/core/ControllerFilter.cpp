// The tree page's filter: built on a worker, then shown.
#include <fmt/format.h>

#include "core/ControllerInternal.h"

namespace ambrel {

void AppController::applyTreeFilter(const TreeFilterInput& input) {
  if (page_ != Page::Tree || !selectedPTVolume_ || !selectedPTVolume_->dirRoot) return;
  std::string error;
  auto filter = treeFilterFrom(input, error);
  if (!filter) {
    ask({"Filter Not Applied", error});
    return;
  }
  startTreeFilter(std::move(*filter));
}

void AppController::clearTreeFilter() {
  if (page_ != Page::Tree || !selectedPTVolume_ || !selectedPTVolume_->dirRoot) return;
  for (Control c : {Control::FilterMinSizeField, Control::FilterMaxSizeField, Control::FilterNameField,
                    Control::FilterExtensionField})
    ui_.setText(c, "");
  startTreeFilter({});
}

void AppController::dropFindResults() {
  stopFind();
  ++findGeneration_;  // a find still reporting says nothing more
  findArray_.clear();
  findCount_ = 0;
  ui_.setText(Control::FindTextField, "");
  ui_.setAnimating(Control::FindProgress, false);
  for (Control c : {Control::MarkAllButton, Control::UnmarkAllButton, Control::NextButton, Control::PrevButton})
    ui_.setEnabled(c, false);
}

void AppController::startTreeFilter(EntryFilter filter) {
  // The matches of a find may be hidden now: it starts again from the new tree.
  dropFindResults();
  filterRunning_ = true;
  const uint64_t generation = ++filterGeneration_;
  for (Control c : {Control::FilterApplyButton, Control::FilterClearButton}) ui_.setEnabled(c, false);
  ui_.setText(Control::TextFieldFilterStatus, "Filtering\u2026");
  auto volume = selectedPTVolume_;
  startWorker([this, volume, generation, filter = std::move(filter)]() mutable {
    std::shared_ptr<ShownTree> shown = ShownTree::build(*volume->dirRoot, std::move(filter));
    toMain([this, generation, shown] { treeFilterApplied(generation, shown); }, false, false);
  });
}

void AppController::treeFilterApplied(uint64_t generation, std::shared_ptr<ShownTree> shown) {
  // A newer filter, or another tree, replaced this one.
  if (generation != filterGeneration_ || page_ != Page::Tree || !selectedPTVolume_ ||
      shown->root != selectedPTVolume_->dirRoot.get())
    return;
  filterRunning_ = false;
  shown_ = std::move(shown);
  // A find made while the filter was built looked at the tree shown before.
  dropFindResults();
  selectedTreeItem_ = nullptr;
  ui_.setEnabled(Control::PreviewButton, false);
  ui_.reloadOutline();
  ui_.expandOutlineItem(shown_->root);
  countMarkedDataAndFiles();
  ui_.setEnabled(Control::SaveButton, shown_->root->selected() == 1 && marked_.markedFiles > 0);
  ui_.setEnabled(Control::FilterApplyButton, true);
  ui_.setEnabled(Control::FilterClearButton, shown_->filtered != nullptr);
  showFilterStatus();
}

void AppController::showFilterStatus() {
  if (!shown_ || !shown_->filtered) {
    ui_.setText(Control::TextFieldFilterStatus, "");
    return;
  }
  ui_.setText(Control::TextFieldFilterStatus,
              fmt::format("Filter: {} of {} files shown", shown_->shownFiles, shown_->allFiles));
}

}  // namespace ambrel
