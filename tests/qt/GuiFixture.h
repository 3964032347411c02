#pragma once
// A main window and its controller over image-builder drives, as the
// application puts them together, with alerts and panels answered by the test.
#include <QAbstractItemView>
#include <QPushButton>
#include <QString>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ImageBuilder.h"
#include "MainWindow.h"
#include "QtPlatform.h"
#include "support/BuiltEntries.h"
#include "support/TempDir.h"

namespace ambrel::test {

namespace mk = ambrel::mkimage;

inline mk::EntrySpec textFile(const std::string& name, const std::string& text) {
  return fileOf(name, textBytes(text));
}

// The application's dispatcher, with a look after each piece of work it runs:
// a test sees a page between two of a worker's reports.
class WatchedDispatcher : public MainThreadDispatcher {
 public:
  explicit WatchedDispatcher(QObject* context) : inner_(context) {}
  void post(std::function<void()> fn) override {
    inner_.post([this, fn = std::move(fn)] {
      fn();
      if (afterEach) afterEach();
    });
  }
  // Set and called on the GUI thread only.
  std::function<void()> afterEach;

 private:
  qt::QtDispatcher inner_;
};

class GuiFixture {
 public:
  // The drives are disk images opened as the "Open Disk Image…" action does.
  explicit GuiFixture(const std::vector<std::filesystem::path>& images);
  ~GuiFixture();

  TempDir dir;
  std::shared_ptr<qt::DiskImages> images = std::make_shared<qt::DiskImages>();
  std::unique_ptr<qt::MainWindow> window;
  std::unique_ptr<WatchedDispatcher> dispatcher;
  NoSleepInhibitor sleep;
  std::unique_ptr<AppController> app;

  // Alerts shown, and the answer for each title (the default button otherwise).
  std::vector<Alert> alerts;
  std::map<std::string, int> answers;
  // Folder and save panels answer with these (nullopt: cancelled).
  std::optional<std::string> folderAnswer, saveAnswer, openAnswer;
  bool terminated = false;

  // The button titled `title` on the page shown.
  QPushButton* button(const QString& title) const;
  void click(QWidget* widget) const;
  void clickTableRow(Table table, int row) const;
  // Clicks a view's check box at `index`.
  static void clickCheckBox(QAbstractItemView* view, const QModelIndex& index);
  // Screenshot of the window (or of `what`) into $AMBREL_SCREENSHOTS, when set.
  void snapshot(const QString& name, QWidget* what = nullptr) const;
};

}  // namespace ambrel::test
