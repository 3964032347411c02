#include "MainWindow.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCloseEvent>
#include <QDesktopServices>
#include <QDialog>
#include <QFileDialog>
#include <QFileInfo>
#include <QImageReader>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QMimeDatabase>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QScreen>
#include <QSlider>
#include <QStackedWidget>
#include <QTableView>
#include <QTreeView>
#include <QUrl>
#include <set>

#include "PreviewWindow.h"
#include "media/DriveFinder.h"

namespace ambrel::qt {

// ---- disk images taken as drives

void DiskImages::add(const std::string& path) {
  std::lock_guard lock(mutex_);
  if (std::find(paths_.begin(), paths_.end(), path) == paths_.end()) paths_.push_back(path);
}

std::vector<std::string> DiskImages::paths() const {
  std::lock_guard lock(mutex_);
  return paths_;
}

DriveLists DiskImages::listWith(const DiscoveryRoots& roots) const {
  DriveLists lists = initialDriveList(roots);
  for (const std::string& path : paths()) {
    std::string error;
    PlistDict drive = driveDictionaryWithIdentity(path, error, roots);
    if (drive.empty()) continue;  // gone since it was opened
    drive.set("WhetherDiskDict", true);
    lists.driveDictArray.push_back(std::move(drive));
  }
  return lists;
}

// ---- the window

MainWindow::MainWindow(std::shared_ptr<DiskImages> images, QWidget* parent)
    : QMainWindow(parent), images_(std::move(images)) {
  setWindowTitle(QStringLiteral("Tarnwell Ambrel"));
  // Outside a desktop session no theme is set and every icon would be blank.
  if (QIcon::fallbackThemeName().isEmpty() || QIcon::fallbackThemeName() == QStringLiteral("hicolor"))
    QIcon::setFallbackThemeName(QStringLiteral("Adwaita"));
  setWindowIcon(QIcon::fromTheme(QStringLiteral("ambrel"), QIcon::fromTheme(QStringLiteral("drive-harddisk"))));
  buildPages();
  buildMenus();
  preview_ = new PreviewWindow(this);
  preview_->onClose = [this] {
    if (app_) app_->windowShouldClose(true);
  };
  reg(Control::PreviewFileName, preview_->nameLabel());
  reg(Control::PreviewText, preview_->textView());
  const Control movie[] = {Control::MovieName, Control::MovieStatus, Control::MovieSizeLoaded, Control::MovieDuration};
  for (int i = 0; i < 4; ++i) reg(movie[i], preview_->movieField(i));
  resize(860, 600);
  initialSize_ = size();
}

MainWindow::~MainWindow() = default;

void MainWindow::buildMenus() {
  QMenu* file = menuBar()->addMenu(QStringLiteral("&File"));
  QAction* image = file->addAction(QStringLiteral("Open Disk Image…"));
  image->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_I));
  connect(image, &QAction::triggered, this, [this] {
    const QString path = QFileDialog::getOpenFileName(this, QStringLiteral("Open Disk Image"), QString(),
                                                      QStringLiteral("Disk images (*.img *.dmg *.iso *.raw *.bin *.dd);;"
                                                                     "All files (*)"));
    if (!path.isEmpty()) openDiskImage(path);
  });
  QAction* scanInfo = file->addAction(QStringLiteral("Open Scan Info File…"));
  scanInfo->setShortcut(QKeySequence::Open);
  connect(scanInfo, &QAction::triggered, this, [this] {
    if (app_ && app_->page() == Page::FirstPage) app_->open();
  });
  QAction* refresh = file->addAction(QStringLiteral("Refresh Drive List"));
  refresh->setShortcut(QKeySequence::Refresh);
  connect(refresh, &QAction::triggered, this, [this] {
    if (app_ && app_->page() == Page::FirstPage) app_->refreshDriveList();
  });
  file->addSeparator();
  // Every save writes its report as it goes; this keeps a copy of the last one.
  saveReport_ = file->addAction(QStringLiteral("Save Recovery Report…"));
  saveReport_->setEnabled(false);
  connect(saveReport_, &QAction::triggered, this, [this] {
    if (app_) app_->saveRecoveryReport();
  });
  connect(file, &QMenu::aboutToShow, this, &MainWindow::updateMenus);
  file->addSeparator();
  QAction* quit = file->addAction(QStringLiteral("Quit"));
  quit->setShortcut(QKeySequence::Quit);
  connect(quit, &QAction::triggered, this, [this] {
    if (app_ && app_->terminateApplication()) app_->windowWillClose();
  });
  QMenu* help = menuBar()->addMenu(QStringLiteral("&Help"));
  connect(help->addAction(QStringLiteral("Tarnwell Ambrel Help")), &QAction::triggered, this, &MainWindow::showHelp);
  connect(help->addAction(QStringLiteral("About Tarnwell Ambrel")), &QAction::triggered, this, &MainWindow::showAbout);
}

void MainWindow::updateMenus() { saveReport_->setEnabled(app_ && app_->recoveryReportReady()); }

void MainWindow::openDiskImage(const QString& path) {
  images_->add(QFileInfo(path).absoluteFilePath().toStdString());
  if (!app_) return;
  if (app_->page() != Page::FirstPage) return;
  app_->refreshDriveList();
  // The image is the last drive: select it, as the user just chose it.
  const int row = app_->tableRowCount(Table::Drives) - 1;
  if (row >= 0) tableView(Table::Drives)->selectRow(row);
}

void MainWindow::showAbout() {
  QMessageBox::about(this, QStringLiteral("About Tarnwell Ambrel"),
                     QStringLiteral("<h3>Tarnwell Ambrel %1</h3><p>Recovers files and folders from damaged, deleted "
                                    "or formatted HFS+ and HFSX volumes, and carves files by their signatures.</p>"
                                    "<p>Drives are only ever read.</p>")
                         .arg(QCoreApplication::applicationVersion()));
}

void MainWindow::showHelp() {
  // Installed beside the program, else the manual of the source tree.
  const QString installed = QCoreApplication::applicationDirPath() +
                            QStringLiteral("/../share/doc/ambrel/Manual/Tarnwell Ambrel/HTML/index.html");
  const QString source = QStringLiteral(AMBREL_SOURCE_MANUAL "/index.html");
  const QString page = QFileInfo::exists(installed) ? installed : source;
  QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(page).absoluteFilePath()));
}

QWidget* MainWindow::control(Control c) const {
  auto it = controls_.find(c);
  return it == controls_.end() ? nullptr : it->second;
}

QTableView* MainWindow::tableView(Table t) const { return tableViews_.at(t); }
TableModel* MainWindow::tableModel(Table t) const { return tableModels_.at(t); }
QWidget* MainWindow::currentPage() const { return stack_->currentWidget(); }

void MainWindow::showPage(Page page) {
  stack_->setCurrentWidget(pages_.at(page));
  // Only the tree page may grow, and never below the first size.
  if (page == Page::Tree) {
    setMinimumSize(initialSize_);
    setMaximumSize(QWIDGETSIZE_MAX, QWIDGETSIZE_MAX);
  } else {
    setFixedSize(size());
  }
}

void MainWindow::setTitle(Control c, const std::string& title) {
  QWidget* w = control(c);
  if (auto* b = qobject_cast<QAbstractButton*>(w)) b->setText(qs(title));
  else if (auto* l = qobject_cast<QLabel*>(w)) l->setText(qs(title));
}

void MainWindow::setToolTip(Control c, const std::string& toolTip) {
  if (QWidget* w = control(c)) w->setToolTip(qs(toolTip));
}

void MainWindow::setEnabled(Control c, bool enabled) {
  if (QWidget* w = control(c)) w->setEnabled(enabled);
}

void MainWindow::setText(Control c, const std::string& text) {
  QWidget* w = control(c);
  if (auto* l = qobject_cast<QLabel*>(w)) l->setText(qs(text));
  else if (auto* e = qobject_cast<QLineEdit*>(w)) e->setText(qs(text));
  else if (auto* p = qobject_cast<QPlainTextEdit*>(w)) p->setPlainText(qs(text));
  else if (auto* b = qobject_cast<QAbstractButton*>(w)) b->setText(qs(text));
}

void MainWindow::setBar(Control c, double min, double max, double value, bool indeterminate) {
  auto* bar = qobject_cast<QProgressBar*>(control(c));
  if (!bar) return;
  if (indeterminate) {
    bar->setRange(0, 0);
    return;
  }
  // Sizes in bytes overflow an int: the bar shows parts in ten thousand.
  constexpr int kSteps = 10000;
  bar->setRange(0, kSteps);
  const double span = max - min;
  const double part = span > 0 ? (value - min) / span : 0;
  bar->setValue(static_cast<int>(std::clamp(part, 0.0, 1.0) * kSteps));
}

void MainWindow::setAnimating(Control c, bool on) {
  if (QWidget* w = control(c)) w->setVisible(on);
}

void MainWindow::reloadTable(Table t) { tableModel(t)->reload(); }

void MainWindow::scrollTableToEnd(Table t) { tableView(t)->scrollToBottom(); }

void MainWindow::selectTableRow(Table t, int row) {
  selecting_ = true;
  QTableView* view = tableView(t);
  if (row < 0) view->clearSelection();
  else view->selectRow(row);
  selecting_ = false;
}

void MainWindow::reloadOutline() {
  treeModel_->reload();
  // The root is shown open, as its few top folders are what the user looks for.
  treeView_->expand(treeModel_->index(0, 0));
}

void MainWindow::reloadOutlineItem(const HDIR* item, bool children) { treeModel_->reloadItem(item, children); }

void MainWindow::expandOutlineItem(const HDIR* item) {
  const QModelIndex at = treeModel_->indexOf(item);
  if (at.isValid()) treeView_->expand(at);
}

void MainWindow::revealOutlineItem(const HDIR* item) {
  const QModelIndex at = treeModel_->indexOf(item);
  if (!at.isValid()) return;
  for (QModelIndex p = at.parent(); p.isValid(); p = p.parent()) treeView_->expand(p);
  // Selecting a match tells the controller, as a click would (Preview follows).
  treeView_->selectionModel()->setCurrentIndex(at, QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
  treeView_->scrollTo(at);
}

void MainWindow::reloadSigOutline() {
  sigModel_->reload();
  sigView_->expandAll();
}

void MainWindow::reloadSigOutlineItem(const SigNode* item) { sigModel_->reloadItem(item); }

void MainWindow::showAddSigDialog() {
  for (QLineEdit* field : addSigFields_) field->clear();
  addSigFields_.front()->setFocus();
  addSig_->open();
}

void MainWindow::closeAddSigDialog() { addSig_->hide(); }

int MainWindow::alert(const Alert& a) {
  if (alertHook) return alertHook(a);
  QMessageBox box(this);
  const bool hard = a.title.rfind("!", 0) == 0;
  box.setIcon(hard ? QMessageBox::Warning : QMessageBox::Information);
  box.setWindowTitle(QStringLiteral("Tarnwell Ambrel"));
  box.setText(QStringLiteral("<b>%1</b>").arg(qs(a.title).toHtmlEscaped()));
  box.setInformativeText(qs(a.message));
  std::vector<QAbstractButton*> buttons;
  for (const std::string& title : a.buttons)
    buttons.push_back(box.addButton(qs(title), buttons.empty() ? QMessageBox::AcceptRole : QMessageBox::RejectRole));
  if (buttons.empty()) buttons.push_back(box.addButton(QMessageBox::Ok));
  box.setDefaultButton(qobject_cast<QPushButton*>(buttons.front()));
  box.exec();
  for (size_t i = 0; i < buttons.size(); ++i)
    if (box.clickedButton() == buttons[i]) return static_cast<int>(i);
  return 0;
}

std::optional<std::string> MainWindow::panel(const std::string& kind, const FilePanel& request) {
  if (panelHook) return panelHook(kind, request);
  QFileDialog dialog(this);
  if (!request.prompt.empty()) dialog.setLabelText(QFileDialog::Accept, qs(request.prompt));
  if (kind == "folder") {
    dialog.setFileMode(QFileDialog::Directory);
    dialog.setOption(QFileDialog::ShowDirsOnly);
  } else {
    if (!request.requiredExtension.empty()) {
      dialog.setNameFilter(QStringLiteral("*.%1").arg(qs(request.requiredExtension)));
      dialog.setDefaultSuffix(qs(request.requiredExtension));
    }
    if (kind == "save") {
      dialog.setAcceptMode(QFileDialog::AcceptSave);
      dialog.selectFile(qs(request.proposedName));
    } else {
      dialog.setFileMode(QFileDialog::ExistingFile);
    }
  }
  if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return std::nullopt;
  return dialog.selectedFiles().front().toStdString();
}

std::optional<std::string> MainWindow::runOpenPanel(const FilePanel& p) { return panel("open", p); }
std::optional<std::string> MainWindow::runSavePanel(const FilePanel& p) { return panel("save", p); }
std::optional<std::string> MainWindow::runFolderPanel(const FilePanel& p) { return panel("folder", p); }

void MainWindow::beep() { QApplication::beep(); }

void MainWindow::terminate() {
  closing_ = true;
  preview_->hide();
  if (onTerminate) onTerminate();
  else QCoreApplication::quit();
}

void MainWindow::bringToFront() {
  if (isMinimized()) showNormal();
  show();
  raise();
  activateWindow();
}

void MainWindow::restoreInitialWindowFrame() {
  setMinimumSize(0, 0);
  setMaximumSize(QWIDGETSIZE_MAX, QWIDGETSIZE_MAX);
  resize(initialSize_);
  if (QScreen* s = screen()) move(s->availableGeometry().center() - rect().center());
  if (app_ && app_->page() != Page::Tree) setFixedSize(initialSize_);
}

std::vector<std::string> MainWindow::imageFileTypes() {
  std::set<std::string> types;
  for (const QByteArray& f : QImageReader::supportedImageFormats()) types.insert(f.toLower().toStdString());
  return {types.begin(), types.end()};
}

std::vector<std::string> MainWindow::movieFileTypes() {
  static const std::vector<std::string> types = [] {
    std::set<std::string> out;
    for (const QMimeType& t : QMimeDatabase().allMimeTypes())
      if (t.name().startsWith(QStringLiteral("video/")) || t.name().startsWith(QStringLiteral("audio/")))
        for (const QString& suffix : t.suffixes()) out.insert(suffix.toLower().toStdString());
    return std::vector<std::string>(out.begin(), out.end());
  }();
  return types;
}

void MainWindow::showPreviewWindow(const std::string& name, const std::string& extension) {
  preview_->reset(qs(name), qs(extension));
  preview_->show();
  preview_->raise();
}

void MainWindow::showPreviewLoading() { preview_->showLoading(); }

void MainWindow::showPreviewPage(PreviewPage page) { preview_->showPage(static_cast<int>(page)); }

bool MainWindow::showPreviewImage(const std::vector<uint8_t>& data) { return preview_->setImage(data); }

MovieInfo MainWindow::showPreviewMovie(const std::vector<uint8_t>& data, const std::string& name) {
  const QString duration = preview_->setMovie(data, qs(name));
  return {!duration.isEmpty(), duration.toStdString()};
}

void MainWindow::showPreviewPoster(const std::vector<uint8_t>& picture, const std::string&) {
  preview_->setPoster(picture);
}

void MainWindow::closePreviewWindow() {
  preview_->dropMovie();
  preview_->hide();
}

bool MainWindow::previewWindowVisible() const { return preview_->isVisible(); }

void MainWindow::closeEvent(QCloseEvent* event) {
  if (closing_ || !app_) {
    event->accept();
    return;
  }
  if (!app_->windowShouldClose(false)) {
    event->ignore();
    return;
  }
  event->accept();
  app_->windowWillClose();
}

void MainWindow::showEvent(QShowEvent* event) {
  QMainWindow::showEvent(event);
  if (app_) app_->setInitialWindowSize({double(initialSize_.width()), double(initialSize_.height())});
}

}  // namespace ambrel::qt
