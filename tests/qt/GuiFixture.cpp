#include "GuiFixture.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QDir>
#include <QStackedWidget>
#include <QStyle>
#include <QTableView>
#include <QTest>

#include "media/DriveFinder.h"

namespace ambrel::test {

GuiFixture::GuiFixture(const std::vector<std::filesystem::path>& drives) {
  // The built database, copied where the test may rewrite it.
  std::filesystem::create_directories(dir / "share");
  for (const char* name : {"Signature.dat", "Signature_backup.dat"})
    std::filesystem::copy_file(std::string(AMBREL_BINARY_DIR) + "/resources/" + name, dir / "share" / name);
  ControllerOptions options;
  options.signatureFiles.resourceDir = (dir / "share").string();
  options.signatureFiles.userCopy = (dir / "home" / "Signature.dat").string();
  options.watchDrives = false;
  options.watchInterval = std::chrono::milliseconds(10);
  options.frontDelay = std::chrono::milliseconds(20);
  // Only the test's drives: the machine's own are no business of the tests.
  options.roots.sysfs = (dir / "no-sysfs").string();
  options.roots.dev = (dir / "no-dev").string();
  options.roots.mountinfo = (dir / "no-mountinfo").string();
  options.listDrives = [images = images, roots = options.roots] { return images->listWith(roots); };
  std::filesystem::create_directories(dir / "cache");
  options.recoveryReportPath = (dir / "cache" / "last-recovery-report.xml").string();

  window = std::make_unique<qt::MainWindow>(images);
  window->alertHook = [this](const Alert& a) {
    alerts.push_back(a);
    auto it = answers.find(a.title);
    return it == answers.end() ? 0 : it->second;
  };
  window->panelHook = [this](const std::string& kind, const FilePanel&) {
    return kind == "folder" ? folderAnswer : kind == "save" ? saveAnswer : openAnswer;
  };
  window->onTerminate = [this] { terminated = true; };
  dispatcher = std::make_unique<WatchedDispatcher>(window.get());
  app = std::make_unique<AppController>(*window, *dispatcher, sleep, std::move(options));
  window->setController(app.get());
  app->start();
  window->show();
  for (const auto& image : drives) window->openDiskImage(QString::fromStdString(image.string()));
}

GuiFixture::~GuiFixture() {
  app.reset();
  window->setController(nullptr);
  window.reset();
}

QPushButton* GuiFixture::button(const QString& title) const {
  for (QPushButton* b : window->currentPage()->findChildren<QPushButton*>())
    if (b->text() == title) return b;
  return nullptr;
}

void GuiFixture::click(QWidget* widget) const {
  QVERIFY(widget);
  QVERIFY2(widget->isEnabled(), qPrintable(QStringLiteral("not enabled: ") + widget->objectName()));
  QTest::mouseClick(widget, Qt::LeftButton);
}

void GuiFixture::clickTableRow(Table table, int row) const {
  QTableView* view = window->tableView(table);
  const QRect cell = view->visualRect(view->model()->index(row, 0));
  QVERIFY(cell.isValid());
  QTest::mouseClick(view->viewport(), Qt::LeftButton, {}, cell.center());
}

void GuiFixture::clickCheckBox(QAbstractItemView* view, const QModelIndex& index) {
  view->scrollTo(index);
  QStyleOptionViewItem option;
  option.initFrom(view);
  option.rect = view->visualRect(index);
  option.features |= QStyleOptionViewItem::HasCheckIndicator;
  option.showDecorationSelected = true;
  const QRect box = view->style()->subElementRect(QStyle::SE_ItemViewItemCheckIndicator, &option, view);
  QTest::mouseClick(view->viewport(), Qt::LeftButton, {}, box.center());
}

void GuiFixture::snapshot(const QString& name, QWidget* what) const {
  const QString folder = qEnvironmentVariable("AMBREL_SCREENSHOTS");
  if (folder.isEmpty()) return;
  QDir().mkpath(folder);
  QApplication::processEvents();
  (what ? what : window.get())->grab().save(folder + QLatin1Char('/') + name + QStringLiteral(".png"));
}

}  // namespace ambrel::test
