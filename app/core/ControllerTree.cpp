// The "Tree" page: showing a finished tree, the outline's rows, marking, the
// marked totals, and find with its walk through the matches.
#include <fmt/format.h>

#include <chrono>

#include "core/ControllerInternal.h"
#include "core/SaveFlow.h"
#include "tree/CheckController.h"

namespace ambrel {

namespace {

constexpr const char* kProcessRunningTitle = "Process Running";
constexpr const char* kCannotMarkMessage =
    "Can not check/uncheck while current process (Data Saving/Scan Info Saving/Scan Info Opening) is running. Please "
    "wait for the process to finish first.";

// Beyond this many matches, one reload of the whole outline costs a front
// end less than reloading every match with its ancestors.
constexpr size_t kReloadEachUpTo = 1000;

unsigned char foldAscii(unsigned char c) { return c >= 'A' && c <= 'Z' ? static_cast<unsigned char>(c + 32) : c; }

// Case-insensitive containment (ASCII letters fold; other bytes must match).
bool containsFolded(std::string_view haystack, const std::string& foldedNeedle) {
  if (foldedNeedle.empty()) return true;
  const size_t n = foldedNeedle.size();
  if (haystack.size() < n) return false;
  const auto first = static_cast<unsigned char>(foldedNeedle[0]);
  for (size_t i = 0; i + n <= haystack.size(); ++i) {
    if (foldAscii(static_cast<unsigned char>(haystack[i])) != first) continue;
    size_t k = 1;
    while (k < n && foldAscii(static_cast<unsigned char>(haystack[i + k])) == static_cast<unsigned char>(foldedNeedle[k]))
      ++k;
    if (k == n) return true;
  }
  return false;
}

}  // namespace

void AppController::releaseVolume() {
  stopFind();
  findArray_.clear();
  findCount_ = 0;
  if (preview_->threadRunning) preview_->threadAbort->store(true);
  if (ui_.previewWindowVisible()) previewCloseNow();
  selectedPTVolume_.reset();
  selectedTreeItem_ = nullptr;
  marked_ = {};
  shown_.reset();
  filterRunning_ = false;
  ++filterGeneration_;
  driveNotConnected_ = volumeNotConnected_ = false;
  // Whatever a worker still says about this volume no longer has a page.
  ++pageEpoch_;
}

void AppController::showTree() {
  if (!selectedPTVolume_) return;
  Volume& v = *selectedPTVolume_;
  HDIR* root = v.dirRoot.get();
  if (!root) {
    const Page back = pageBackFromVolume(v.volumeScanType);
    releaseVolume();
    showPage(back);
    return;
  }
  static constexpr std::pair<const char*, const char*> kBack[] = {
      {"Back To Volumes", "Back To Volume List"},
      {"Back To Found Volumes", "Back To Found Volumes"},
      {"Back To Drive List", "Back To Drive List"},
      {"Back To Drives", "Back To Drive List"}};
  const auto& back = kBack[v.volumeScanType >= 0 && v.volumeScanType <= 3 ? v.volumeScanType : 2];
  ui_.setTitle(Control::ButtonTreeBackToPartitions, back.first);
  ui_.setToolTip(Control::ButtonTreeBackToPartitions, back.second);
  showPage(Page::Tree);
  ui_.setText(Control::TextFieldTreeTotals, fmt::format("{} in {} Files", sizeTextOrZero(root->fileSize), root->fileCount));
  selectedTreeItem_ = nullptr;
  // Built here, once: the marks' tally replaces a count over the whole tree after each click.
  shown_ = ShownTree::build(*root, {});
  filterRunning_ = false;
  ++filterGeneration_;
  ui_.reloadOutline();
  ui_.expandOutlineItem(root);
  countMarkedDataAndFiles();
  for (Control c : {Control::FilterMinSizeField, Control::FilterMaxSizeField, Control::FilterNameField,
                    Control::FilterExtensionField})
    ui_.setText(c, "");
  for (Control c : {Control::FilterMinSizeField, Control::FilterMaxSizeField, Control::FilterNameField,
                    Control::FilterExtensionField, Control::FilterApplyButton})
    ui_.setEnabled(c, true);
  ui_.setEnabled(Control::FilterClearButton, false);
  showFilterStatus();
  setTreeButtons(false);
  ui_.setText(Control::FindTextField, "");
  for (Control c : {Control::MarkAllButton, Control::UnmarkAllButton, Control::NextButton, Control::PrevButton})
    ui_.setEnabled(c, false);
  ui_.setEnabled(Control::FindField, true);
  // A tree read back from a scan info file was not scanned now: no scan has completed.
  if (v.openedScanInfo) return;
  Alert done;
  if (scanKind_ == ScanKind::Standard)
    done = {"Standard Scan Completed",
            "Check for lost data in the recovered data tree. If the desired data is still not obtained, click on \"Back "
            "To Volumes\" button and select \u201CAdvance Scan\u201D on the volume."};
  else if (scanKind_ == ScanKind::Advanced)
    done = {"Advance Scan Completed",
            "Check for lost data in the recovered data tree. If the desired data is still not obtained, you can always "
            "perform Raw Signature Search on the physical drive."};
  else
    done = {"Deleted File Scan Completed",
            "The Tree may also contain regular files (which may show in Finder), please match the tree with Finder to "
            "check which files have been deleted"};
  // Nothing that could not be read goes unsaid.
  if (!treeReadErrors_.empty()) done.message += "\n\n" + treeReadErrors_ + "; entries there may be missing.";
  for (const std::string& note : scanNotes(v)) done.message += "\n\n" + note;
  ask(done);
}

void AppController::treeBackToPartitionsClicked() {
  if (page_ != Page::Tree || !selectedPTVolume_ || !scanInfoOrSavingNotProcessing_) return;
  const Volume& v = *selectedPTVolume_;
  if (!v.scanInfoSaved && !v.openedScanInfo) {
    const int answer = ask({"Information",
                            "Please save \"Scan Info\" to retain the recovered data tree before going back to the "
                            "previous step. Click on Ignore button to go back to the previous step or click on Go Back "
                            "button to save \"Scan Info\"",
                            {"Ignore", "Go Back"}});
    if (answer != 0) return;
  }
  const Page back = pageBackFromVolume(v.volumeScanType);
  releaseVolume();
  if (back == Page::FirstPage) releaseDrive();
  showPage(back);
  ui_.restoreInitialWindowFrame();
}

void AppController::setTreeButtons(bool transferRunning) {
  const Volume* v = selectedPTVolume_.get();
  const HDIR* root = v ? v->dirRoot.get() : nullptr;
  if (transferRunning) {
    for (Control c : {Control::SaveScanButton, Control::ButtonTreeBackToPartitions, Control::PreviewButton,
                      Control::SaveButton, Control::StopSaveButton})
      ui_.setEnabled(c, false);
    return;
  }
  ui_.setEnabled(Control::SaveScanButton, v && !v->openedScanInfo);
  ui_.setEnabled(Control::ButtonTreeBackToPartitions, true);
  ui_.setEnabled(Control::PreviewButton, selectedTreeItem_ && selectedTreeItem_->fileType == kHDIRFile);
  ui_.setEnabled(Control::SaveButton, root && root->selected() == 1);
  ui_.setEnabled(Control::StopSaveButton, false);
}

void AppController::countMarkedDataAndFiles() {
  const Volume* v = selectedPTVolume_.get();
  if (!v || !v->dirRoot) marked_ = {};
  else if (shown_ && shown_->root == v->dirRoot.get()) marked_ = shown_->marked();
  else marked_ = ambrel::countMarkedDataAndFiles(*v->dirRoot);
  ui_.setText(Control::TextFieldMarkedData, markedDataText(marked_));
}

void AppController::markItem(HDIR* item, bool mark) {
  if (shown_ && shown_->tally) shown_->tally->mark(item, mark);
  else CheckController(item, mark).run();
}

void AppController::reloadWithAncestors(const HDIR* item) {
  ui_.reloadOutlineItem(item, true);
  // An ancestor's check box follows from its children.
  for (const HDIR* a = item->holder(); a; a = a->holder()) ui_.reloadOutlineItem(a, false);
}

// ---- the outline

int AppController::outlineChildCount(const HDIR* item) const {
  const Volume* v = selectedPTVolume_.get();
  if (!v || !v->dirRoot) return 0;
  if (!item) return 1;
  if (shown_ && shown_->filtered) return shown_->childCount(item);
  return static_cast<int>(item->children().size());
}

HDIR* AppController::outlineChild(const HDIR* item, int index) const {
  const Volume* v = selectedPTVolume_.get();
  if (!v || !v->dirRoot || index < 0) return nullptr;
  if (!item) return index == 0 ? v->dirRoot.get() : nullptr;
  if (shown_ && shown_->filtered) return shown_->child(item, index);
  if (static_cast<size_t>(index) >= item->children().size()) return nullptr;
  return item->childAtIndex(static_cast<size_t>(index));
}

bool AppController::outlineIsItemExpandable(const HDIR* item) const {
  if (item && shown_ && shown_->filtered) return shown_->childCount(item) > 0;
  return item && !item->children().empty();
}

std::string AppController::outlineObjectValue(const HDIR* item, const std::string& column) const {
  if (!item) return {};
  if (column == "Files") return std::string(item->fileName());
  // Under a filter a folder tells of the files it shows.
  const MarkedCount* shown = shown_ && shown_->filtered && shown_->tally ? shown_->tally->allBelow(item) : nullptr;
  if (column == "Size") return sizeTextOrZero(shown ? shown->markedData : item->fileSize);
  if (column == "Files Count") return std::to_string(shown ? shown->markedFiles : item->fileCount);
  if (column == "Modification Date") return outlineDateText(item->modDate);
  if (column == "Create Date") return outlineDateText(item->createDate);
  if (column == "Mark") return item->selected() == 1 ? "1" : "0";
  return {};
}

std::string AppController::outlineToolTip(const HDIR* item, const std::string& column) const {
  if (!item) return {};
  if (column != "Files") return outlineObjectValue(item, column);
  if (item->fileType != kHDIRFile) return std::string(item->fileName());
  const bool showing = preview_->entry == item && ui_.previewWindowVisible();
  return std::string(item->fileName()) + (showing ? "\nPreview showing" : "\nDouble click for preview");
}

void AppController::outlineViewSelectionDidChange(HDIR* item) {
  if (page_ != Page::Tree) return;
  selectedTreeItem_ = item;
  ui_.setEnabled(Control::PreviewButton,
                 scanInfoOrSavingNotProcessing_ && item && item->fileType == kHDIRFile);
}

void AppController::outlineViewSetObjectValue(HDIR* item, bool mark) {
  if (page_ != Page::Tree || !item || !selectedPTVolume_) return;
  if (!scanInfoOrSavingNotProcessing_) {
    ask({kProcessRunningTitle, kCannotMarkMessage});
    ui_.reloadOutlineItem(item, false);  // the check box goes back to what it was
    return;
  }
  // A filter being applied reads the marks; the box goes back, and the
  // status line says why.
  if (filterRunning_) {
    ui_.reloadOutlineItem(item, false);
    return;
  }
  markItem(item, mark);
  reloadWithAncestors(item);
  ui_.setEnabled(Control::SaveButton, selectedPTVolume_->dirRoot->selected() == 1);
  countMarkedDataAndFiles();
}

// ---- find

bool AppController::findThreadRunning() const {
  std::lock_guard lock(findState_->mutex);
  return findState_->running;
}

void AppController::stopFind() {
  std::unique_lock lock(findState_->mutex);
  if (!findState_->running) return;
  findState_->abort.store(true);
  // The find thread never waits for the main thread, so this wait ends.
  findState_->stopped.wait(lock, [this] { return !findState_->running; });
}

void AppController::find(const std::string& text) {
  if (page_ != Page::Tree || !selectedPTVolume_ || !selectedPTVolume_->dirRoot) return;
  ui_.setText(Control::FindTextField, " ");
  findArrayIndex_ = findArrayIndexTrend_ = findCount_ = 0;
  stopFind();
  findArray_.clear();
  for (Control c : {Control::MarkAllButton, Control::UnmarkAllButton, Control::NextButton, Control::PrevButton})
    ui_.setEnabled(c, false);
  ui_.setAnimating(Control::FindProgress, true);
  const uint64_t generation = ++findGeneration_;
  auto state = findState_;
  {
    std::lock_guard lock(state->mutex);
    state->running = true;
    state->abort.store(false);
  }
  std::string needle = text;
  for (char& c : needle) c = static_cast<char>(foldAscii(static_cast<unsigned char>(c)));
  auto volume = selectedPTVolume_;
  std::shared_ptr<const ShownTree> shown = shown_;
  const FilteredTree* kept = shown ? shown->kept() : nullptr;
  startWorker([this, state, volume, shown, kept, needle, generation] {
    // findThreadSel: findString over the tree in pre-order.
    std::vector<HDIR*> matches;
    auto lastShown = std::chrono::steady_clock::now();
    std::vector<HDIR*> stack{volume->dirRoot.get()};
    while (!stack.empty() && !state->abort.load()) {
      HDIR* e = stack.back();
      stack.pop_back();
      if (kept && !kept->keeps(*e)) continue;  // hidden, and so is all below it
      if (containsFolded(e->fileName(), needle)) {
        matches.push_back(e);
        const auto now = std::chrono::steady_clock::now();
        if (now - lastShown > std::chrono::milliseconds(100)) {
          lastShown = now;
          const size_t count = matches.size();
          toMain([this, count, generation] {
            if (generation == findGeneration_) ui_.setText(Control::FindTextField, fmt::format("{} Matches Found", count));
          }, false, false);
        }
      }
      const auto& children = e->children();
      for (auto it = children.rbegin(); it != children.rend(); ++it) stack.push_back(it->get());
    }
    {
      std::lock_guard lock(state->mutex);
      state->running = false;
      state->abort.store(false);
    }
    state->stopped.notify_all();
    auto result = std::make_shared<std::vector<HDIR*>>(std::move(matches));
    toMain([this, generation, result] { findThreadComplete(generation, std::move(*result)); }, false, false);
  });
}

void AppController::findThreadComplete(uint64_t generation, std::vector<HDIR*> matches) {
  // A find that a newer one replaced says nothing.
  if (generation != findGeneration_ || page_ != Page::Tree) return;
  findArray_ = std::move(matches);
  findCount_ = static_cast<int64_t>(findArray_.size());
  ui_.setText(Control::FindTextField, fmt::format("{} Matches Found", findCount_));
  const bool any = !findArray_.empty();
  for (Control c : {Control::MarkAllButton, Control::UnmarkAllButton, Control::NextButton, Control::PrevButton})
    ui_.setEnabled(c, any);
  ui_.setAnimating(Control::FindProgress, false);
}

void AppController::showFindMatch(size_t index) {
  HDIR* item = findArray_[index];
  ui_.revealOutlineItem(item);
  selectedTreeItem_ = item;
  ui_.setEnabled(Control::PreviewButton, scanInfoOrSavingNotProcessing_ && item->fileType == kHDIRFile);
}

void AppController::findNext() {
  if (page_ != Page::Tree || findArray_.empty()) return;
  const auto size = static_cast<int64_t>(findArray_.size());
  // After a step back, the current match is two behind the index.
  if (findArrayIndexTrend_ == -1) findArrayIndex_ += 2;
  if (findArrayIndex_ >= size || findArrayIndex_ < 0) findArrayIndex_ = 0;
  showFindMatch(static_cast<size_t>(findArrayIndex_));
  findArrayIndex_ += 1;
  findArrayIndexTrend_ = 1;
}

void AppController::findPrev() {
  if (page_ != Page::Tree || findArray_.empty()) return;
  const auto size = static_cast<int64_t>(findArray_.size());
  if (findArrayIndexTrend_ == 1) findArrayIndex_ -= 2;
  if (findArrayIndex_ < 0 || findArrayIndex_ >= size) findArrayIndex_ = size - 1;
  showFindMatch(static_cast<size_t>(findArrayIndex_));
  findArrayIndex_ -= 1;
  findArrayIndexTrend_ = -1;
}

void AppController::markAllFound() { markFound(true); }
void AppController::unmarkAllFound() { markFound(false); }

void AppController::markFound(bool mark) {
  if (page_ != Page::Tree || findArray_.empty() || !selectedPTVolume_) return;
  // A save or scan info transfer reads the marks: they stay as they are.
  if (!scanInfoOrSavingNotProcessing_) {
    ask({kProcessRunningTitle, kCannotMarkMessage});
    return;
  }
  if (filterRunning_) return;
  const bool each = findArray_.size() <= kReloadEachUpTo;
  for (HDIR* item : findArray_) {
    markItem(item, mark);
    if (each) reloadWithAncestors(item);
  }
  if (!each) ui_.reloadOutline();
  ui_.setEnabled(Control::SaveButton, selectedPTVolume_->dirRoot->selected() == 1);
  countMarkedDataAndFiles();
}

}  // namespace ambrel
