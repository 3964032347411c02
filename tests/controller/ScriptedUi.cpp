#include "controller/ScriptedUi.h"

namespace ambrel::test {

void ScriptedUi::touched() {
  if (terminated.load()) ++callsAfterTerminate;
  if (std::this_thread::get_id() != mainThread) ++offMainCalls;
}

void ScriptedUi::reset() {
  openPanels.clear(), savePanels.clear(), folderPanels.clear();
  answers_.clear();
  page = Page::FirstPage;
  pages.clear(), alerts.clear();
  texts.clear(), titles.clear(), toolTips.clear(), enabled.clear(), bars.clear(), animating.clear();
  tableReloads.clear(), selectedRows.clear();
  outlineReloads = itemReloads = sigOutlineReloads = 0;
  expanded.clear(), revealed.clear();
  addSigDialogOpen = false;
  beeps = bringToFrontCalls = frameRestores = 0;
  panelsShown.clear(), panelRequests.clear();
  previewVisible = false;
  previewPages.clear();
  terminated.store(false);
  callsAfterTerminate = 0;
}

bool ScriptedUi::isEnabled(Control c) const {
  auto it = enabled.find(c);
  return it != enabled.end() && it->second;
}

std::string ScriptedUi::text(Control c) const {
  auto it = texts.find(c);
  return it == texts.end() ? std::string() : it->second;
}

int ScriptedUi::alertCount(const std::string& title) const {
  int n = 0;
  for (const auto& a : alerts) n += a.title == title;
  return n;
}

void ScriptedUi::showPage(Page p) {
  touched();
  page = p;
  pages.push_back(p);
}

void ScriptedUi::setTitle(Control c, const std::string& t) { touched(), titles[c] = t; }
void ScriptedUi::setToolTip(Control c, const std::string& t) { touched(), toolTips[c] = t; }
void ScriptedUi::setEnabled(Control c, bool e) { touched(), enabled[c] = e; }

void ScriptedUi::setText(Control c, const std::string& t) {
  touched();
  texts[c] = t;
  if (onChange) onChange(c);
}

void ScriptedUi::setBar(Control c, double min, double max, double value, bool indeterminate) {
  touched();
  BarRecord& b = bars[c];
  b.min = min, b.max = max, b.value = value, b.indeterminate = indeterminate;
  ++b.updates;
  if (onChange) onChange(c);
}

void ScriptedUi::setAnimating(Control c, bool on) { touched(), animating[c] = on; }
void ScriptedUi::reloadTable(Table t) { touched(), ++tableReloads[t]; }
void ScriptedUi::scrollTableToEnd(Table) { touched(); }
void ScriptedUi::selectTableRow(Table t, int row) { touched(), selectedRows[t] = row; }
void ScriptedUi::reloadOutline() { touched(), ++outlineReloads; }
void ScriptedUi::reloadOutlineItem(const HDIR*, bool) { touched(), ++itemReloads; }
void ScriptedUi::expandOutlineItem(const HDIR* item) { touched(), expanded.push_back(item); }
void ScriptedUi::revealOutlineItem(const HDIR* item) { touched(), revealed.push_back(item); }
void ScriptedUi::reloadSigOutline() { touched(), ++sigOutlineReloads; }
void ScriptedUi::reloadSigOutlineItem(const SigNode*) { touched(); }
void ScriptedUi::showAddSigDialog() { touched(), addSigDialogOpen = true; }
void ScriptedUi::closeAddSigDialog() { touched(), addSigDialogOpen = false; }

int ScriptedUi::alert(const Alert& a) {
  touched();
  alerts.push_back(a);
  if (onAlert) onAlert(a);
  auto it = answers_.find(a.title);
  if (it == answers_.end() || it->second.empty()) return 0;
  const int choice = it->second.front();
  it->second.pop_front();
  return choice;
}

std::optional<std::string> ScriptedUi::panel(std::deque<std::optional<std::string>>& queue, const char* kind,
                                             const FilePanel& request) {
  touched();
  panelsShown.push_back(kind);
  panelRequests.push_back(request);
  if (queue.empty()) return std::nullopt;
  auto path = queue.front();
  queue.pop_front();
  return path;
}

std::optional<std::string> ScriptedUi::runOpenPanel(const FilePanel& p) { return panel(openPanels, "open", p); }
std::optional<std::string> ScriptedUi::runSavePanel(const FilePanel& p) { return panel(savePanels, "save", p); }
std::optional<std::string> ScriptedUi::runFolderPanel(const FilePanel& p) { return panel(folderPanels, "folder", p); }

void ScriptedUi::beep() { touched(), ++beeps; }

void ScriptedUi::terminate() {
  touched();
  terminated.store(true);
}

void ScriptedUi::bringToFront() { touched(), ++bringToFrontCalls; }
void ScriptedUi::restoreInitialWindowFrame() { touched(), ++frameRestores; }

void ScriptedUi::showPreviewWindow(const std::string& name, const std::string&) {
  touched();
  previewVisible = true;
  previewName = name;
  previewImage.clear();
  previewMovieData.clear();
  previewPoster.clear();
  texts.erase(Control::PreviewText);
}

void ScriptedUi::showPreviewLoading() { touched(); }
void ScriptedUi::showPreviewPage(PreviewPage p) { touched(), previewPages.push_back(p); }

bool ScriptedUi::showPreviewImage(const std::vector<uint8_t>& data) {
  touched();
  if (!imagesDecode) return false;
  previewImage = data;
  return true;
}

MovieInfo ScriptedUi::showPreviewMovie(const std::vector<uint8_t>& data, const std::string& name) {
  touched();
  previewMovieData = data;
  previewMovieName = name;
  return movie;
}

void ScriptedUi::showPreviewPoster(const std::vector<uint8_t>& picture, const std::string&) {
  touched();
  previewPoster = picture;
}

void ScriptedUi::closePreviewWindow() {
  touched();
  previewVisible = false;
}

}  // namespace ambrel::test
