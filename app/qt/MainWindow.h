#pragma once
// The main window: the wizard's pages in a stack, drawn as the controller
// says. It decides nothing itself; each click becomes a controller call.
#include <QMainWindow>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Models.h"
#include "core/AppController.h"
#include "core/UserInterface.h"

class QStackedWidget;
class QTableView;
class QTreeView;
class QLineEdit;
class QComboBox;
class QSlider;
class QCheckBox;
class QLayout;
class QDialog;
class QLabel;
class QPushButton;
class QAction;

namespace ambrel::qt {

class PreviewWindow;

// Disk image files opened as drives, beside the drives the system lists.
// Read by the drive-notification thread too, hence the lock.
class DiskImages {
 public:
  void add(const std::string& path);
  std::vector<std::string> paths() const;
  // The system's lists with an image drive appended for each image.
  DriveLists listWith(const DiscoveryRoots& roots) const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> paths_;
};

class MainWindow : public QMainWindow, public UserInterface {
  Q_OBJECT
 public:
  explicit MainWindow(std::shared_ptr<DiskImages> images = std::make_shared<DiskImages>(), QWidget* parent = nullptr);
  ~MainWindow() override;
  void setController(AppController* app) { app_ = app; }
  AppController* controller() const { return app_; }

  // Tests answer alerts and panels here instead of modal dialogs.
  std::function<int(const Alert&)> alertHook;
  // kind: "open", "save" or "folder".
  std::function<std::optional<std::string>(const std::string& kind, const FilePanel&)> panelHook;
  // What terminate() does (the application: leave the event loop).
  std::function<void()> onTerminate;

  // For tests and screenshots: the widget standing for a control, a table's view.
  QWidget* control(Control c) const;
  QTableView* tableView(Table t) const;
  QTreeView* treeView() const { return treeView_; }
  QTreeView* sigView() const { return sigView_; }
  TreeModel* treeModel() const { return treeModel_; }
  SigModel* sigModel() const { return sigModel_; }
  TableModel* tableModel(Table t) const;
  QWidget* currentPage() const;
  QLineEdit* maxSizeField() const { return maxSize_; }
  QComboBox* unitBox() const { return unit_; }
  QSlider* rawStartSlider() const { return rawStart_; }
  QSlider* rawEndSlider() const { return rawEnd_; }
  QCheckBox* scanForPartitionsChoice() const { return scanChoice_; }
  QCheckBox* matchCaseChoice() const { return matchCase_; }
  QDialog* addSigDialog() const { return addSig_; }
  PreviewWindow* previewWindow() const { return preview_; }
  QAction* saveReportAction() const { return saveReport_; }
  // Enables the menu items that depend on what has been done (as a menu opens).
  void updateMenus();
  // The disk image chosen in the "Open Disk Image…" panel, taken as a drive.
  void openDiskImage(const QString& path);

  // UserInterface
  void showPage(Page page) override;
  void setTitle(Control control, const std::string& title) override;
  void setToolTip(Control control, const std::string& toolTip) override;
  void setEnabled(Control control, bool enabled) override;
  void setText(Control control, const std::string& text) override;
  void setBar(Control bar, double min, double max, double value, bool indeterminate) override;
  void setAnimating(Control indicator, bool on) override;
  void reloadTable(Table table) override;
  void scrollTableToEnd(Table table) override;
  void selectTableRow(Table table, int row) override;
  void reloadOutline() override;
  void reloadOutlineItem(const HDIR* item, bool children) override;
  void expandOutlineItem(const HDIR* item) override;
  void revealOutlineItem(const HDIR* item) override;
  void reloadSigOutline() override;
  void reloadSigOutlineItem(const SigNode* item) override;
  void showAddSigDialog() override;
  void closeAddSigDialog() override;
  int alert(const Alert& alert) override;
  std::optional<std::string> runOpenPanel(const FilePanel& panel) override;
  std::optional<std::string> runSavePanel(const FilePanel& panel) override;
  std::optional<std::string> runFolderPanel(const FilePanel& panel) override;
  void beep() override;
  void terminate() override;
  void bringToFront() override;
  void restoreInitialWindowFrame() override;
  std::vector<std::string> imageFileTypes() override;
  std::vector<std::string> movieFileTypes() override;
  void showPreviewWindow(const std::string& name, const std::string& extension) override;
  void showPreviewLoading() override;
  void showPreviewPage(PreviewPage page) override;
  bool showPreviewImage(const std::vector<uint8_t>& data) override;
  MovieInfo showPreviewMovie(const std::vector<uint8_t>& data, const std::string& name) override;
  void showPreviewPoster(const std::vector<uint8_t>& picture, const std::string& mimeType) override;
  void closePreviewWindow() override;
  bool previewWindowVisible() const override;

 protected:
  void closeEvent(QCloseEvent* event) override;
  void showEvent(QShowEvent* event) override;

 private:
  // Pages (MainWindowPages.cpp).
  void buildPages();
  QWidget* buildFirstPage();
  QWidget* buildPtModePage();
  QWidget* buildPtListPage();
  QWidget* buildPtScanProgPage();
  QWidget* buildPtScanListPage();
  QWidget* buildTreeScanModePage();
  QWidget* buildTreeProgPage();
  QWidget* buildTreePage();
  QLayout* buildFilterBar();
  void applyFilter();
  QWidget* buildSigSelPage();
  QWidget* buildRawSliderPage();
  void buildAddSigDialog();
  void buildMenus();
  QTableView* makeTable(Table table, QStringList columns, void (*selected)(AppController&, int));
  QPushButton* makeButton(const QString& title, std::function<void(AppController&)> action);
  QPushButton* makeButton(Control control, const QString& title, std::function<void(AppController&)> action);
  QLabel* makeLabel(Control control);
  QWidget* makeIndicator(Control control);
  void reg(Control control, QWidget* widget) { controls_[control] = widget; }
  void rawSliderMoved();
  std::optional<std::string> panel(const std::string& kind, const FilePanel& request);
  void showAbout();
  void showHelp();

  AppController* app_ = nullptr;
  std::shared_ptr<DiskImages> images_;
  QStackedWidget* stack_ = nullptr;
  std::map<Page, QWidget*> pages_;
  std::map<Control, QWidget*> controls_;
  std::map<Table, QTableView*> tableViews_;
  std::map<Table, TableModel*> tableModels_;
  TreeModel* treeModel_ = nullptr;
  QTreeView* treeView_ = nullptr;
  SigModel* sigModel_ = nullptr;
  QTreeView* sigView_ = nullptr;
  QLineEdit* maxSize_ = nullptr;
  QComboBox* unit_ = nullptr;
  QSlider* rawStart_ = nullptr;
  QSlider* rawEnd_ = nullptr;
  QCheckBox* scanChoice_ = nullptr;
  QCheckBox* matchCase_ = nullptr;
  QDialog* addSig_ = nullptr;
  std::vector<QLineEdit*> addSigFields_;
  PreviewWindow* preview_ = nullptr;
  QAction* saveReport_ = nullptr;
  bool selecting_ = false;  // a selection made for the controller, not by the user
  bool closing_ = false;
  QSize initialSize_;
};

}  // namespace ambrel::qt
