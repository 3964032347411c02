#pragma once
// A front end for tests: it records everything the controller shows and
// answers alerts and panels from a script.
#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/UserInterface.h"

namespace ambrel::test {

struct BarRecord {
  double min = 0, max = 0, value = 0;
  bool indeterminate = false;
  int updates = 0;
};

class ScriptedUi : public UserInterface {
 public:
  // Script: answers of alerts by title, in order (unscripted alerts take
  // the default button), and the panels' paths (nullopt: cancelled).
  void answer(const std::string& title, int button) { answers_[title].push_back(button); }
  std::deque<std::optional<std::string>> openPanels, savePanels, folderPanels;
  std::vector<std::string> imageTypes{"png", "jpg", "jpeg", "gif", "tif", "tiff", "bmp"};
  std::vector<std::string> movieTypes{"mov", "mp4", "mp3", "wav", "avi"};
  bool imagesDecode = true;
  MovieInfo movie{true, "0:00:01.50"};
  // Called after an alert is recorded, before it is answered.
  std::function<void(const Alert&)> onAlert;
  // Called after a bar or a text changes.
  std::function<void(Control)> onChange;

  // What was shown.
  Page page = Page::FirstPage;
  std::vector<Page> pages;
  std::vector<Alert> alerts;
  std::map<Control, std::string> texts, titles, toolTips;
  std::map<Control, bool> enabled;
  std::map<Control, BarRecord> bars;
  std::map<Control, bool> animating;
  std::map<Table, int> tableReloads;
  std::map<Table, int> selectedRows;
  int outlineReloads = 0, itemReloads = 0, sigOutlineReloads = 0;
  std::vector<const HDIR*> expanded, revealed;
  bool addSigDialogOpen = false;
  int beeps = 0, bringToFrontCalls = 0, frameRestores = 0;
  std::vector<std::string> panelsShown;  // "open", "save", "folder"
  std::vector<FilePanel> panelRequests;
  bool previewVisible = false;
  std::string previewName;
  std::vector<PreviewPage> previewPages;
  std::vector<uint8_t> previewImage, previewMovieData, previewPoster;
  std::string previewMovieName;
  std::atomic<bool> terminated{false};
  // Calls that came after terminate(), or from another thread than the one
  // that made this front end: none should.
  int callsAfterTerminate = 0;
  std::atomic<int> offMainCalls{0};
  const std::thread::id mainThread = std::this_thread::get_id();

  // Forgets what was shown and scripted, as a fresh front end for a new run.
  void reset();

  bool isEnabled(Control c) const;
  std::string text(Control c) const;
  // Alerts with this title so far.
  int alertCount(const std::string& title) const;
  const Alert* lastAlert() const { return alerts.empty() ? nullptr : &alerts.back(); }

  void showPage(Page p) override;
  void setTitle(Control c, const std::string& t) override;
  void setToolTip(Control c, const std::string& t) override;
  void setEnabled(Control c, bool e) override;
  void setText(Control c, const std::string& t) override;
  void setBar(Control c, double min, double max, double value, bool indeterminate) override;
  void setAnimating(Control c, bool on) override;
  void reloadTable(Table t) override;
  void scrollTableToEnd(Table t) override;
  void selectTableRow(Table t, int row) override;
  void reloadOutline() override;
  void reloadOutlineItem(const HDIR* item, bool children) override;
  void expandOutlineItem(const HDIR* item) override;
  void revealOutlineItem(const HDIR* item) override;
  void reloadSigOutline() override;
  void reloadSigOutlineItem(const SigNode* item) override;
  void showAddSigDialog() override;
  void closeAddSigDialog() override;
  int alert(const Alert& a) override;
  std::optional<std::string> runOpenPanel(const FilePanel& panel) override;
  std::optional<std::string> runSavePanel(const FilePanel& panel) override;
  std::optional<std::string> runFolderPanel(const FilePanel& panel) override;
  void beep() override;
  void terminate() override;
  void bringToFront() override;
  void restoreInitialWindowFrame() override;
  std::vector<std::string> imageFileTypes() override { return imageTypes; }
  std::vector<std::string> movieFileTypes() override { return movieTypes; }
  void showPreviewWindow(const std::string& name, const std::string& extension) override;
  void showPreviewLoading() override;
  void showPreviewPage(PreviewPage p) override;
  bool showPreviewImage(const std::vector<uint8_t>& data) override;
  MovieInfo showPreviewMovie(const std::vector<uint8_t>& data, const std::string& name) override;
  void showPreviewPoster(const std::vector<uint8_t>& picture, const std::string& mimeType) override;
  void closePreviewWindow() override;
  bool previewWindowVisible() const override { return previewVisible; }

 private:
  void touched();
  std::optional<std::string> panel(std::deque<std::optional<std::string>>& queue, const char* kind,
                                   const FilePanel& request);
  std::map<std::string, std::deque<int>> answers_;
};

}  // namespace ambrel::test
