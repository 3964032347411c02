// The application's windows driven as a user drives them: clicks on the real
// widgets, the controller's workers running, the GUI thread never blocked.
#include <sys/stat.h>

#include <QAbstractItemModelTester>
#include <QApplication>
#include <QMessageBox>
#include <QTimer>
#include <QCheckBox>
#include <QComboBox>
#include <QCryptographicHash>
#include <QFile>
#include <QMap>
#include <QMediaPlayer>
#include <QXmlStreamReader>
#include <QDialog>
#include <QPlainTextEdit>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QSignalSpy>
#include <QSlider>
#include <QSplashScreen>
#include <QTableView>
#include <QTest>
#include <QTreeView>
#include <optional>
#include <thread>

#include "GuiFixture.h"
#include "PreviewWindow.h"
#include "Splash.h"
#include "tree/HDIR.h"

using namespace ambrel;
using namespace ambrel::test;

namespace {

constexpr int kScanTimeout = 120000;

QString textOf(qt::MainWindow& w, Control c) {
  if (auto* l = qobject_cast<QLabel*>(w.control(c))) return l->text();
  if (auto* e = qobject_cast<QLineEdit*>(w.control(c))) return e->text();
  return {};
}

QModelIndex childNamed(QAbstractItemModel* model, const QModelIndex& parent, const QString& name) {
  if (model->canFetchMore(parent)) model->fetchMore(parent);
  for (int r = 0; r < model->rowCount(parent); ++r)
    if (model->index(r, 0, parent).data().toString() == name) return model->index(r, 0, parent);
  return {};
}

std::vector<mk::EntrySpec> sampleEntries() {
  return {folderOf("Documents", {textFile("report.doc", "quarterly report, draft 3\n"),
                               textFile("notes.txt", "remember the milk\n")}),
          folderOf("Photos", {textFile("Beach Report.txt", std::string(5000, 'b'))}),
          textFile("readme.txt", "hello from the volume\n")};
}

// A mono 16-bit PCM WAV of `seconds` at 8 kHz: a rising tone.
std::string wavBytes(int seconds) {
  const uint32_t rate = 8000, samples = rate * uint32_t(seconds), dataSize = samples * 2;
  std::string w;
  auto u32 = [&w](uint32_t v) { for (int i = 0; i < 4; ++i) w.push_back(char(v >> (8 * i))); };
  auto u16 = [&w](uint16_t v) { w.push_back(char(v)); w.push_back(char(v >> 8)); };
  w += "RIFF";
  u32(36 + dataSize);
  w += "WAVEfmt ";
  u32(16);
  u16(1);
  u16(1);
  u32(rate);
  u32(rate * 2);
  u16(2);
  u16(16);
  w += "data";
  u32(dataSize);
  for (uint32_t i = 0; i < samples; ++i) u16(uint16_t((i * (200 + i / 40)) % 20000));
  return w;
}

// A DFXML report's file objects: file name -> MD5 (empty if none); a parse
// error fails the test.
QMap<QString, QString> reportedDigests(const std::filesystem::path& path) {
  QMap<QString, QString> out;
  QFile file(QString::fromStdString(path.string()));
  if (!file.open(QIODevice::ReadOnly)) {
    qWarning("no report at %s", path.c_str());
    return out;
  }
  QXmlStreamReader xml(&file);
  QString name;
  while (!xml.atEnd()) {
    if (xml.readNext() != QXmlStreamReader::StartElement) continue;
    if (xml.name() == QLatin1String("filename")) {
      name = xml.readElementText();
      out.insert(name, QString());
    } else if (xml.name() == QLatin1String("hashdigest") &&
               xml.attributes().value(QLatin1String("type")) == QLatin1String("md5")) {
      out.insert(name, xml.readElementText());
    }
  }
  if (xml.hasError()) {
    qWarning("report does not parse: %s", qPrintable(xml.errorString()));
    out.clear();
  }
  return out;
}

// From the first page to the tree of the drive's first volume, by clicks.
void scanToTree(GuiFixture& f) {
  qt::MainWindow& w = *f.window;
  f.clickTableRow(Table::Drives, 0);
  f.click(w.control(Control::FirstPageNext));
  f.click(f.button(QStringLiteral("Display Default Volumes")));
  f.clickTableRow(Table::Partitions, 0);
  f.click(w.control(Control::PtListNext));
  f.click(f.button(QStringLiteral("Standard Scan")));
  QTRY_COMPARE_WITH_TIMEOUT(f.app->page(), Page::Tree, kScanTimeout);
}

}  // namespace

class GuiTest : public QObject {
  Q_OBJECT
 private slots:
  void journeyByClicksSavesIdenticalFiles();
  void scanForVolumesThenAdvancedScan();
  void hugeFolderIsFetchedInBatches();
  void filterFieldsHideAndSaveOnlyWhatPasses();
  void scanProgressIsShownAsItGoes();
  void soundPreviewTellsItsDuration();
  void movieAndMp3PreviewsPlay();
  void signaturePageAndRawSlider();
  void instanceServerIsUserOnlyAndHandsMessagesOver();
  void dispatcherRunsPostsInOrderOnTheGuiThread();
  void alertsAnswerWithTheButtonsIndex();
};

void GuiTest::journeyByClicksSavesIdenticalFiles() {
  TempDir images;
  buildGptDrive(images / "drive.img", "Recover Me", sampleEntries());
  GuiFixture f({images / "drive.img"});
  qt::MainWindow& w = *f.window;
  // Only the tree page resizes.
  const QSize firstSize = w.size();
  w.resize(firstSize + QSize(200, 150));
  QCOMPARE(w.size(), firstSize);
  {
    // The splash window as the application shows it while the drives are listed.
    QSplashScreen splash(qt::splashPicture());
    splash.show();
    f.snapshot(QStringLiteral("00-splash"), &splash);
  }
  QAbstractItemModelTester drivesTester(w.tableModel(Table::Drives));
  QAbstractItemModelTester volumesTester(w.tableModel(Table::Volumes));
  QAbstractItemModelTester partitionsTester(w.tableModel(Table::Partitions));
  QCOMPARE(f.app->page(), Page::FirstPage);
  QCOMPARE(w.tableModel(Table::Drives)->rowCount(), 1);
  QVERIFY(w.tableModel(Table::Drives)->index(0, 2).data().toString().endsWith(QStringLiteral("MB")));
  f.snapshot(QStringLiteral("01-first-page"));

  // Next does nothing until a drive is chosen.
  f.clickTableRow(Table::Drives, 0);
  QVERIFY(w.control(Control::FirstPageNext)->isEnabled());
  f.click(w.control(Control::FirstPageNext));
  QCOMPARE(f.app->page(), Page::PTMode);
  QCOMPARE(w.currentPage()->objectName(), QStringLiteral("PT mode"));
  f.snapshot(QStringLiteral("02-pt-mode"));

  f.click(f.button(QStringLiteral("Display Default Volumes")));
  QCOMPARE(f.app->page(), Page::PTList);
  QCOMPARE(w.tableModel(Table::Partitions)->rowCount(), 1);
  QCOMPARE(w.tableModel(Table::Partitions)->index(0, 0).data().toString(), QStringLiteral("Recover Me"));
  f.clickTableRow(Table::Partitions, 0);
  f.snapshot(QStringLiteral("03-pt-list"));
  f.click(w.control(Control::PtListNext));
  QCOMPARE(f.app->page(), Page::TreeScanMode);
  f.snapshot(QStringLiteral("04-tree-scan-mode"));

  f.click(f.button(QStringLiteral("Standard Scan")));
  QCOMPARE(f.app->page(), Page::TreeProg);
  QTRY_COMPARE_WITH_TIMEOUT(f.app->page(), Page::Tree, kScanTimeout);
  QCOMPARE(w.currentPage()->objectName(), QStringLiteral("Tree"));

  // The tree: the root open, its entries with their sizes and check boxes.
  qt::TreeModel* model = w.treeModel();
  QAbstractItemModelTester treeTester(model);
  const QModelIndex root = model->index(0, 0);
  QVERIFY(w.treeView()->isExpanded(root));
  const QModelIndex docs = childNamed(model, root, QStringLiteral("Documents"));
  const QModelIndex readme = childNamed(model, root, QStringLiteral("readme.txt"));
  QVERIFY(docs.isValid() && readme.isValid());
  QCOMPARE(readme.siblingAtColumn(qt::TreeModel::Size).data().toString(), QStringLiteral("0.02 KB"));
  QCOMPARE(readme.siblingAtColumn(qt::TreeModel::Mark).data(Qt::CheckStateRole).toInt(), int(Qt::Unchecked));
  QVERIFY(readme.data(Qt::ToolTipRole).toString().endsWith(QStringLiteral("\nDouble click for preview")));
  QCOMPARE(model->parent(docs), root);

  // Find, case-insensitive: two names hold "report"; Next reveals the first.
  auto* findField = qobject_cast<QLineEdit*>(w.control(Control::FindField));
  QTest::keyClicks(findField, QStringLiteral("REPORT"));
  QTest::keyClick(findField, Qt::Key_Return);
  QTRY_VERIFY_WITH_TIMEOUT(w.control(Control::NextButton)->isEnabled(), 10000);
  QVERIFY(textOf(w, Control::FindTextField).startsWith(QStringLiteral("2")));
  f.click(w.control(Control::NextButton));
  const QModelIndex current = w.treeView()->currentIndex();
  QVERIFY(current.isValid());
  QCOMPARE(current.data().toString(), QStringLiteral("report.doc"));
  QVERIFY(w.treeView()->isExpanded(docs));
  QVERIFY(w.control(Control::PreviewButton)->isEnabled());
  f.snapshot(QStringLiteral("08-tree"));

  // Preview of the text file found, past the advice to save the scan first.
  f.answers["Information"] = 1;
  f.click(w.control(Control::PreviewButton));
  QTRY_VERIFY_WITH_TIMEOUT(w.previewWindowVisible(), 10000);
  QTRY_VERIFY_WITH_TIMEOUT(w.previewWindow()->textView()->toPlainText().contains(QStringLiteral("quarterly")), 10000);
  f.snapshot(QStringLiteral("12-preview"), w.previewWindow());
  w.closePreviewWindow();

  // Marking the root by its check box marks everything below it.
  GuiFixture::clickCheckBox(w.treeView(), root.siblingAtColumn(qt::TreeModel::Mark));
  QCOMPARE(root.siblingAtColumn(qt::TreeModel::Mark).data(Qt::CheckStateRole).toInt(), int(Qt::Checked));
  QCOMPARE(readme.siblingAtColumn(qt::TreeModel::Mark).data(Qt::CheckStateRole).toInt(), int(Qt::Checked));
  QCOMPARE(f.app->markedFiles(), 4u);
  QVERIFY(w.control(Control::SaveButton)->isEnabled());
  // Unmarking one file by its own box leaves the other three.
  GuiFixture::clickCheckBox(w.treeView(), readme.siblingAtColumn(qt::TreeModel::Mark));
  QCOMPARE(f.app->markedFiles(), 3u);
  GuiFixture::clickCheckBox(w.treeView(), readme.siblingAtColumn(qt::TreeModel::Mark));
  QCOMPARE(f.app->markedFiles(), 4u);

  // No report before anything was saved.
  w.updateMenus();
  QVERIFY(!w.saveReportAction()->isEnabled());

  // Save: the folder panel answers, the alerts take their default button.
  const std::filesystem::path out = f.dir / "out";
  std::filesystem::create_directories(out);
  f.folderAnswer = out.string();
  f.answers.erase("Information");  // the same-volume warning: go on
  f.click(w.control(Control::SaveButton));
  QTRY_VERIFY_WITH_TIMEOUT(f.app->scanInfoOrSavingNotProcessing(), kScanTimeout);
  QVERIFY(!f.alerts.empty());
  QCOMPARE(QString::fromStdString(f.alerts.back().title), QStringLiteral("Saving Completed"));
  std::map<std::string, std::vector<uint8_t>> expected;
  std::function<void(const std::vector<mk::EntrySpec>&, const std::string&)> walk =
      [&](const std::vector<mk::EntrySpec>& list, const std::string& prefix) {
        for (const auto& e : list) {
          if (e.folder) walk(e.children, prefix + "/" + e.name);
          else expected[prefix + "/" + e.name] = *e.data;
        }
      };
  walk(sampleEntries(), "Root");
  QVERIFY(filesUnder(out) == expected);
  QCOMPARE(textOf(w, Control::TextFieldTreeStatus), QStringLiteral("Saving Completed"));

  // The save's recovery report, saved from the File menu, lists each file
  // saved with the digest of its bytes.
  w.updateMenus();
  QVERIFY(w.saveReportAction()->isEnabled());
  f.saveAnswer = (f.dir / "chosen-report").string();
  w.saveReportAction()->trigger();
  const auto reported = reportedDigests(f.dir / "chosen-report.xml");
  QCOMPARE(reported.size(), expected.size());
  for (const auto& [path, bytes] : expected) {
    const QByteArray md5 = QCryptographicHash::hash(QByteArray(reinterpret_cast<const char*>(bytes.data()),
                                                               qsizetype(bytes.size())), QCryptographicHash::Md5);
    QCOMPARE(reported.value(QString::fromStdString(path)), QString::fromLatin1(md5.toHex()));
  }

  // Leaving the tree asks first; "Go Back" keeps it.
  f.answers["Information"] = 1;
  f.click(w.control(Control::ButtonTreeBackToPartitions));
  QCOMPARE(f.app->page(), Page::Tree);

  // The tree page grows, but never below the first size.
  w.resize(firstSize + QSize(200, 150));
  QCOMPARE(w.size(), firstSize + QSize(200, 150));
  w.resize(firstSize - QSize(100, 100));
  QCOMPARE(w.size(), firstSize);
}

void GuiTest::scanForVolumesThenAdvancedScan() {
  TempDir images;
  buildGptDrive(images / "drive.img", "Found Again", sampleEntries());
  GuiFixture f({images / "drive.img"});
  qt::MainWindow& w = *f.window;
  QAbstractItemModelTester foundTester(w.tableModel(Table::FoundVolumes));
  QAbstractItemModelTester listTester(w.tableModel(Table::PartitionScanList));
  f.clickTableRow(Table::Drives, 0);
  f.click(w.control(Control::FirstPageNext));
  f.click(f.button(QStringLiteral("Scan For Volumes")));
  QCOMPARE(f.app->page(), Page::PTScanProg);
  QVERIFY(w.control(Control::VolumeScanStop)->isEnabled());
  f.snapshot(QStringLiteral("06-pt-scan-prog"));
  QTRY_COMPARE_WITH_TIMEOUT(f.app->page(), Page::PTScanList, kScanTimeout);
  QCOMPARE(w.tableModel(Table::PartitionScanList)->rowCount(), 1);
  const QAbstractItemModel* list = w.tableModel(Table::PartitionScanList);
  QCOMPARE(list->index(0, 1).data().toString(), QStringLiteral("Found Again"));
  QVERIFY(list->index(0, 4).data().toString().startsWith(QStringLiteral("Valid")));
  // Next waits for a row.
  QVERIFY(!w.control(Control::VolumeScanListNext)->isEnabled());
  f.clickTableRow(Table::PartitionScanList, 0);
  f.snapshot(QStringLiteral("07-pt-scan-list"));
  f.click(w.control(Control::VolumeScanListNext));
  QCOMPARE(f.app->page(), Page::TreeScanMode);
  f.click(f.button(QStringLiteral("Advance Scan")));
  QTRY_COMPARE_WITH_TIMEOUT(f.app->page(), Page::Tree, kScanTimeout);
  qt::TreeModel* model = w.treeModel();
  const QModelIndex docs = childNamed(model, model->index(0, 0), QStringLiteral("Documents"));
  QVERIFY(docs.isValid());
  QVERIFY(childNamed(model, docs, QStringLiteral("notes.txt")).isValid());
  // Back from the tree, once the question is answered, leads to the found volumes.
  f.answers["Information"] = 0;
  f.click(w.control(Control::ButtonTreeBackToPartitions));
  QCOMPARE(f.app->page(), Page::PTScanList);
}

void GuiTest::hugeFolderIsFetchedInBatches() {
  TempDir images;
  std::vector<mk::EntrySpec> many;
  const int count = qt::TreeModel::kBatch + 150;
  // Entries without data are dropped from the tree: each holds a byte.
  for (int i = 0; i < count; ++i) many.push_back(textFile("file" + std::to_string(i) + ".txt", "x"));
  buildGptDrive(images / "many.img", "Many", {folderOf("Crowd", std::move(many))});
  GuiFixture f({images / "many.img"});
  qt::MainWindow& w = *f.window;
  scanToTree(f);
  QCOMPARE(f.app->page(), Page::Tree);

  qt::TreeModel* model = w.treeModel();
  const QModelIndex crowd = childNamed(model, model->index(0, 0), QStringLiteral("Crowd"));
  QVERIFY(crowd.isValid());
  QVERIFY(model->hasChildren(crowd));
  QCOMPARE(model->rowCount(crowd), 0);  // nothing until a view asks
  model->fetchMore(crowd);
  QCOMPARE(model->rowCount(crowd), qt::TreeModel::kBatch);
  QVERIFY(model->canFetchMore(crowd));
  model->fetchMore(crowd);
  QCOMPARE(model->rowCount(crowd), count);
  QVERIFY(!model->canFetchMore(crowd));
  const QModelIndex last = model->index(count - 1, 0, crowd);
  QCOMPARE(model->parent(last), crowd);
  // An entry's index, found from the entry alone (as a find's match is shown).
  HDIR* entry = qt::TreeModel::item(last);
  QCOMPARE(model->indexOf(entry), last);
  // The tester walks every row fetched, and fetches what is left; it stays
  // to check the changes a mark of the whole folder makes.
  QAbstractItemModelTester tester(model);
  const QModelIndex box = crowd.siblingAtColumn(qt::TreeModel::Mark);
  QVERIFY(model->setData(box, Qt::Checked, Qt::CheckStateRole));
  QCOMPARE(f.app->markedFiles(), uint32_t(count));
  QCOMPARE(last.siblingAtColumn(qt::TreeModel::Mark).data(Qt::CheckStateRole).toInt(), int(Qt::Checked));
  QVERIFY(model->setData(model->index(0, qt::TreeModel::Mark, crowd), Qt::Unchecked, Qt::CheckStateRole));
  QCOMPARE(f.app->markedFiles(), uint32_t(count - 1));
  QCOMPARE(box.data(Qt::CheckStateRole).toInt(), int(Qt::Checked));  // something below is still marked
  QVERIFY(model->setData(box, Qt::Unchecked, Qt::CheckStateRole));
  QCOMPARE(f.app->markedFiles(), 0u);
  QCOMPARE(last.siblingAtColumn(qt::TreeModel::Mark).data(Qt::CheckStateRole).toInt(), int(Qt::Unchecked));
}

void GuiTest::filterFieldsHideAndSaveOnlyWhatPasses() {
  TempDir images;
  buildGptDrive(images / "drive.img", "Filter Me", sampleEntries());
  GuiFixture f({images / "drive.img"});
  qt::MainWindow& w = *f.window;
  scanToTree(f);
  qt::TreeModel* model = w.treeModel();
  // A tester on the model between filters (this Qt's tester fetches rows in
  // its own reset handler and then blames the model; a new one checks the
  // whole model again after each reset).
  std::optional<QAbstractItemModelTester> tester;
  tester.emplace(model);
  auto shows = [&](const QString& status) {
    tester.reset();
    QTRY_COMPARE_WITH_TIMEOUT(textOf(w, Control::TextFieldFilterStatus), status, 10000);
    QVERIFY(!f.app->treeFilterRunning());
    tester.emplace(model);
  };
  auto field = [&](Control c) { return qobject_cast<QLineEdit*>(w.control(c)); };
  auto rootNames = [&] {
    QStringList names;
    const QModelIndex root = model->index(0, 0);
    for (int r = 0; r < model->rowCount(root); ++r) names << model->index(r, 0, root).data().toString();
    return names.join(QStringLiteral(", "));
  };
  auto typeInto = [&](Control c, const QString& text) {
    field(c)->clear();
    QTest::keyClicks(field(c), text);
  };
  QCOMPARE(rootNames(), QStringLiteral("Documents, Photos, readme.txt"));
  QVERIFY(!w.control(Control::FilterClearButton)->isEnabled());

  // Files of 1 KB or more: only the photo, and the folder holding it.
  typeInto(Control::FilterMinSizeField, QStringLiteral("1KB"));
  QTest::keyClick(field(Control::FilterMinSizeField), Qt::Key_Return);
  shows(QStringLiteral("Filter: 1 of 4 files shown"));
  QCOMPARE(rootNames(), QStringLiteral("Photos"));
  const QModelIndex photos = childNamed(model, model->index(0, 0), QStringLiteral("Photos"));
  QVERIFY(w.treeView()->isExpanded(model->index(0, 0)));
  QVERIFY(childNamed(model, photos, QStringLiteral("Beach Report.txt")).isValid());
  QVERIFY(w.control(Control::FilterClearButton)->isEnabled());

  // Marking the root counts and saves only what is shown.
  const QModelIndex rootBox = model->index(0, qt::TreeModel::Mark);
  GuiFixture::clickCheckBox(w.treeView(), rootBox);
  QCOMPARE(f.app->markedFiles(), 1u);
  QVERIFY(textOf(w, Control::TextFieldMarkedData).endsWith(QStringLiteral(" in 1 Files")));
  // A folder's size and count are those of the files it shows.
  QCOMPARE(photos.siblingAtColumn(qt::TreeModel::FilesCount).data().toString(), QStringLiteral("1"));
  QCOMPARE(model->index(0, qt::TreeModel::Size).data().toString(), QStringLiteral("5.00 KB"));
  w.treeView()->expand(photos);
  f.snapshot(QStringLiteral("08-tree-filtered"));
  const std::filesystem::path out = f.dir / "out";
  std::filesystem::create_directories(out);
  f.folderAnswer = out.string();
  // The bar, looked at after each of the save's reports, fills up: it
  // counts what the filter keeps, not every marked file.
  auto* bar = qobject_cast<QProgressBar*>(w.control(Control::ProgressTree));
  int fullest = 0;
  f.dispatcher->afterEach = [&] { fullest = std::max(fullest, bar->value()); };
  f.click(w.control(Control::SaveButton));
  QTRY_VERIFY_WITH_TIMEOUT(f.app->scanInfoOrSavingNotProcessing(), kScanTimeout);
  f.dispatcher->afterEach = nullptr;
  QCOMPARE(fullest, bar->maximum());
  QCOMPARE(QString::fromStdString(f.alerts.back().title), QStringLiteral("Saving Completed"));
  const auto saved = filesUnder(out);
  QCOMPARE(saved.size(), size_t(1));
  QCOMPARE(saved.begin()->first, std::string("Root/Photos/Beach Report.txt"));
  QCOMPARE(saved.begin()->second.size(), size_t(5000));

  // Bad values: an alert says which, and the tree stays as it was.
  const size_t alertsBefore = f.alerts.size();
  typeInto(Control::FilterMinSizeField, QStringLiteral("2MB"));
  typeInto(Control::FilterMaxSizeField, QStringLiteral("1MB"));
  f.click(w.control(Control::FilterApplyButton));
  QCOMPARE(f.alerts.size(), alertsBefore + 1);
  QCOMPARE(QString::fromStdString(f.alerts.back().message),
           QStringLiteral("The minimum size (2MB) is above the maximum size (1MB): no file could pass."));
  typeInto(Control::FilterMaxSizeField, QStringLiteral("lots"));
  QTest::keyClick(field(Control::FilterMaxSizeField), Qt::Key_Return);
  QCOMPARE(f.alerts.size(), alertsBefore + 2);
  QVERIFY(f.alerts.back().message.find("Maximum size \"lots\" is not a size") == 0);
  QCOMPARE(rootNames(), QStringLiteral("Photos"));

  // A name pattern, in any case unless the case must match.
  field(Control::FilterMinSizeField)->clear();
  field(Control::FilterMaxSizeField)->clear();
  typeInto(Control::FilterNameField, QStringLiteral("*report*"));
  f.click(w.control(Control::FilterApplyButton));
  shows(QStringLiteral("Filter: 2 of 4 files shown"));
  QCOMPARE(rootNames(), QStringLiteral("Documents, Photos"));
  f.click(w.matchCaseChoice());
  f.click(w.control(Control::FilterApplyButton));
  shows(QStringLiteral("Filter: 1 of 4 files shown"));
  QCOMPARE(rootNames(), QStringLiteral("Documents"));
  // An extension list on its own.
  field(Control::FilterNameField)->clear();
  typeInto(Control::FilterExtensionField, QStringLiteral("DOC, .pdf"));
  f.click(w.control(Control::FilterApplyButton));
  shows(QStringLiteral("Filter: 1 of 4 files shown"));
  const QModelIndex docs = childNamed(model, model->index(0, 0), QStringLiteral("Documents"));
  QCOMPARE(model->rowCount(docs), 1);
  QCOMPARE(model->index(0, 0, docs).data().toString(), QStringLiteral("report.doc"));

  // Show All: every entry back, the fields emptied.
  f.click(w.control(Control::FilterClearButton));
  shows(QString());
  QCOMPARE(rootNames(), QStringLiteral("Documents, Photos, readme.txt"));
  QCOMPARE(field(Control::FilterExtensionField)->text(), QString());
  QVERIFY(!w.control(Control::FilterClearButton)->isEnabled());
  // The root's box marked everything, hidden or not; all of it counts again.
  QCOMPARE(f.app->markedFiles(), 4u);
}

void GuiTest::scanProgressIsShownAsItGoes() {
  TempDir images;
  mk::DriveSpec drive;
  drive.table = mk::TableKind::GPT;
  mk::PartitionSpec part;
  mk::VolumeSpec vol;
  vol.name = "Busy";
  mk::GenerateSpec many;
  many.files = 20000;
  many.folders = 400;
  many.maxSize = 2048;
  vol.generate = many;
  part.volume = std::move(vol);
  drive.partitions.push_back(std::move(part));
  mk::buildImage(drive, images / "busy.img");
  GuiFixture f({images / "busy.img"});
  qt::MainWindow& w = *f.window;
  // The counts as each of the scan's reports leaves them, while the page is shown.
  std::vector<qlonglong> entries;
  f.dispatcher->afterEach = [&] {
    if (f.app->page() != Page::TreeProg) return;
    const qlonglong n = textOf(w, Control::TreeProgEntriesField).toLongLong();
    if (n <= 0 || (!entries.empty() && entries.back() == n)) return;
    // Midway, for the manual's picture of the page.
    if ((entries.empty() || entries.back() < 8000) && n >= 8000) f.snapshot(QStringLiteral("05-tree-prog"));
    entries.push_back(n);
  };
  scanToTree(f);
  f.dispatcher->afterEach = nullptr;
  QCOMPARE(f.app->page(), Page::Tree);
  QVERIFY2(entries.size() >= 3, "the counts went from nothing to the tree with little between");
  QVERIFY(std::is_sorted(entries.begin(), entries.end()));
  QVERIFY(entries.back() <= 20000 + 400 + 1);
}

void GuiTest::soundPreviewTellsItsDuration() {
  TempDir images;
  buildGptDrive(images / "sound.img", "Sounds", {textFile("tone.wav", wavBytes(2)), textFile("note.txt", "hi\n")});
  GuiFixture f({images / "sound.img"});
  qt::MainWindow& w = *f.window;
  scanToTree(f);
  QCOMPARE(f.app->page(), Page::Tree);
  f.answers["Information"] = 1;  // "Preview", past the advice to save the scan first
  qt::TreeModel* model = w.treeModel();
  const QModelIndex tone = childNamed(model, model->index(0, 0), QStringLiteral("tone.wav"));
  QVERIFY(tone.isValid());
  const QRect cell = w.treeView()->visualRect(tone);
  QTest::mouseClick(w.treeView()->viewport(), Qt::LeftButton, {}, cell.center());
  QTest::mouseDClick(w.treeView()->viewport(), Qt::LeftButton, {}, cell.center());
  QTRY_VERIFY_WITH_TIMEOUT(w.previewWindowVisible(), 10000);
  auto* status = qobject_cast<QLabel*>(w.control(Control::MovieStatus));
  QTRY_VERIFY_WITH_TIMEOUT(!status->text().isEmpty(), 20000);
  QCOMPARE(status->text(), QStringLiteral("Click the Play button"));
  QCOMPARE(qobject_cast<QLabel*>(w.control(Control::MovieDuration))->text(), QStringLiteral("Duration: 0:00:02"));
  QVERIFY(w.previewWindow()->playButton()->isEnabled());
  // Closing the window stops and drops the player.
  w.previewWindow()->close();
  QVERIFY(!w.previewWindow()->player());
}

void GuiTest::movieAndMp3PreviewsPlay() {
  const std::filesystem::path media = std::filesystem::path(AMBREL_SOURCE_DIR) / "tests" / "qt" / "media";
  std::vector<mk::EntrySpec> files;
  for (const char* name : {"clip.mp4", "song.mp3", "clip.mpg"}) files.push_back(fileOf(name, readFile(media / name)));
  TempDir images;
  buildGptDrive(images / "media.img", "Media", std::move(files));
  GuiFixture f({images / "media.img"});
  qt::MainWindow& w = *f.window;
  scanToTree(f);
  QCOMPARE(f.app->page(), Page::Tree);
  f.answers["Information"] = 1;  // "Preview", past the advice to save the scan first
  qt::TreeModel* model = w.treeModel();
  qt::PreviewWindow* preview = w.previewWindow();
  auto* status = qobject_cast<QLabel*>(w.control(Control::MovieStatus));
  auto* duration = qobject_cast<QLabel*>(w.control(Control::MovieDuration));
  auto open = [&](const QString& name) {
    const QModelIndex at = childNamed(model, model->index(0, 0), name);
    QVERIFY(at.isValid());
    const QRect cell = w.treeView()->visualRect(at);
    QTest::mouseClick(w.treeView()->viewport(), Qt::LeftButton, {}, cell.center());
    QTest::mouseDClick(w.treeView()->viewport(), Qt::LeftButton, {}, cell.center());
    QTRY_VERIFY_WITH_TIMEOUT(w.previewWindowVisible(), 10000);
    QTRY_VERIFY_WITH_TIMEOUT(!status->text().isEmpty(), 20000);
  };

  // The movie: its length, then its pictures once Play is clicked.
  open(QStringLiteral("clip.mp4"));
  QCOMPARE(status->text(), QStringLiteral("Click the Play button"));
  QCOMPARE(duration->text(), QStringLiteral("Duration: 0:00:02"));
  QVERIFY(preview->player()->hasVideo());
  f.click(preview->playButton());
  QTRY_VERIFY_WITH_TIMEOUT(preview->player()->position() > 0, 10000);
  QVERIFY(preview->videoWidget()->isVisible());
  QCOMPARE(preview->player()->error(), QMediaPlayer::NoError);
  QCOMPARE(preview->playButton()->text(), QStringLiteral("Pause"));
  preview->close();
  QVERIFY(!preview->player());

  // An MPEG program stream (MPEG-1 video, MP2 sound), as old cameras and DVDs keep them.
  open(QStringLiteral("clip.mpg"));
  QCOMPARE(status->text(), QStringLiteral("Click the Play button"));
  // A program stream has no length field: it is estimated from the stream's rate.
  QVERIFY2(qAbs(preview->player()->duration() - 2000) < 300, qPrintable(duration->text()));
  QVERIFY(preview->player()->hasVideo());
  f.click(preview->playButton());
  QTRY_VERIFY_WITH_TIMEOUT(preview->player()->position() > 0, 10000);
  QCOMPARE(preview->player()->error(), QMediaPlayer::NoError);
  preview->close();

  // The MP3: its length, its cover from the ID3 tag, no picture area.
  open(QStringLiteral("song.mp3"));
  QCOMPARE(status->text(), QStringLiteral("Click the Play button"));
  QCOMPARE(duration->text(), QStringLiteral("Duration: 0:00:02"));
  QVERIFY(!preview->posterLabel()->pixmap().isNull());
  const QColor cover = preview->posterLabel()->pixmap().toImage().pixelColor(10, 10);
  QVERIFY2(cover.red() > 240 && cover.green() < 16 && cover.blue() < 16, qPrintable(cover.name()));  // the red cover
  QVERIFY(!preview->videoWidget()->isVisible());
  f.click(preview->playButton());
  QTRY_VERIFY_WITH_TIMEOUT(preview->player()->position() > 0, 10000);
  QCOMPARE(preview->player()->error(), QMediaPlayer::NoError);
  preview->close();
}

void GuiTest::signaturePageAndRawSlider() {
  TempDir images;
  buildGptDrive(images / "drive.img", "Carve Me", sampleEntries());
  GuiFixture f({images / "drive.img"});
  qt::MainWindow& w = *f.window;
  f.clickTableRow(Table::Drives, 0);
  f.click(w.control(Control::FirstPageNext));
  f.click(f.button(QStringLiteral("Raw Search On Physical Drive (File Recovery)")));
  QCOMPARE(f.app->page(), Page::SigSel);
  QVERIFY(textOf(w, Control::SigSelPrompt).startsWith(QStringLiteral("1. Select the file type(s)")));
  QCOMPARE(qobject_cast<QPushButton*>(w.control(Control::SigSelBack))->text(), QStringLiteral("Back To Drives"));

  qt::SigModel* sigs = w.sigModel();
  QAbstractItemModelTester tester(sigs);
  QVERIFY(sigs->rowCount() > 1);
  const QModelIndex category = sigs->index(0, 0);
  QVERIFY(sigs->rowCount(category) > 0);
  const QModelIndex type = sigs->index(0, 0, category);
  QVERIFY(!type.siblingAtColumn(1).data().toString().isEmpty());  // its extension
  GuiFixture::clickCheckBox(w.sigView(), type);
  QCOMPARE(type.data(Qt::CheckStateRole).toInt(), int(Qt::Checked));
  f.snapshot(QStringLiteral("09-sig-sel"));

  // The size limit is checked before anything starts.
  f.click(w.control(Control::SigSelNext));
  QCOMPARE(f.app->page(), Page::SigSel);
  QCOMPARE(QString::fromStdString(f.alerts.back().message), QStringLiteral("Maximum size to recover cannot be nil"));
  QTest::keyClicks(w.maxSizeField(), QStringLiteral("20"));
  f.click(w.control(Control::SigSelNext));
  QCOMPARE(f.app->page(), Page::RawSlider);

  // The sliders give the range; equal ends are refused.
  QCOMPARE(textOf(w, Control::RawSliderStartText).left(2), QStringLiteral("0%"));
  QCOMPARE(textOf(w, Control::RawSliderEndText).left(4), QStringLiteral("100%"));
  w.rawStartSlider()->setFocus();
  QTest::keyClick(w.rawStartSlider(), Qt::Key_PageUp);
  QCOMPARE(w.rawStartSlider()->value(), 10);
  QVERIFY(textOf(w, Control::RawSliderStartText).startsWith(QStringLiteral("10% ")));
  f.snapshot(QStringLiteral("10-raw-slider"));
  w.rawEndSlider()->setValue(10);
  const size_t before = f.alerts.size();
  f.click(w.control(Control::RawSliderNext));
  QCOMPARE(f.app->page(), Page::RawSlider);
  QCOMPARE(f.alerts.size(), before + 1);
  QCOMPARE(QString::fromStdString(f.alerts.back().title), QStringLiteral("! Can not continue"));

  // The add dialog opens emptied and an empty category is refused there.
  f.click(w.control(Control::RawSliderBack));
  QCOMPARE(f.app->page(), Page::SigSel);
  f.click(w.control(Control::AddNewSig));
  QTRY_VERIFY(w.addSigDialog()->isVisible());
  f.snapshot(QStringLiteral("11-add-file-type"), w.addSigDialog());
  QTest::keyClick(w.addSigDialog(), Qt::Key_Return);
  QCOMPARE(QString::fromStdString(f.alerts.back().message), QStringLiteral("Category cannot be nil"));
  QVERIFY(w.addSigDialog()->isVisible());
  QTest::keyClick(w.addSigDialog(), Qt::Key_Escape);
  QTRY_VERIFY(!w.addSigDialog()->isVisible());
}

void GuiTest::instanceServerIsUserOnlyAndHandsMessagesOver() {
  TempDir images;
  buildGptDrive(images / "drive.img", "One", sampleEntries());
  GuiFixture f({images / "drive.img"});
  const QString name = QStringLiteral("ambrel-test-%1").arg(QCoreApplication::applicationPid());
  qt::InstanceServer server;
  QVERIFY(server.listen(name));
  // A second server under the name is refused while the first answers.
  qt::InstanceServer second;
  QVERIFY(!second.listen(name));

  struct stat st {};
  QCOMPARE(::stat(server.fullServerName().toLocal8Bit().constData(), &st), 0);
  QVERIFY(S_ISSOCK(st.st_mode));
  QCOMPARE(st.st_mode & 077, 0u);  // no one but this user may connect

  MessageServer messages(*f.app);
  server.setMessageServer(&messages);
  QSignalSpy received(&server, &qt::InstanceServer::messageReceived);
  QVERIFY(qt::sendToRunningInstance(QStringLiteral("AlreadyRunning"), name));
  QTRY_COMPARE(received.count(), 1);
  QCOMPARE(received.at(0).at(0).toString(), QStringLiteral("AlreadyRunning"));
  QVERIFY(!f.alerts.empty());
  QCOMPARE(QString::fromStdString(f.alerts.back().title), QStringLiteral("Cannot open this scan info file now"));
  // A scan info path goes to the controller, which tries to open it.
  const size_t before = f.alerts.size();
  QVERIFY(qt::sendToRunningInstance(QString::fromStdString((f.dir / "missing.asi").string()), name));
  QTRY_COMPARE(received.count(), 2);
  QTRY_VERIFY(f.alerts.size() > before || !f.app->scanInfoOrSavingNotProcessing());
  server.setMessageServer(nullptr);
}

void GuiTest::dispatcherRunsPostsInOrderOnTheGuiThread() {
  QObject context;
  qt::QtDispatcher dispatcher(&context);
  std::vector<int> order;
  bool offThread = false;
  const auto gui = std::this_thread::get_id();
  std::thread worker([&] {
    for (int i = 0; i < 100; ++i)
      dispatcher.post([&, i] {
        offThread |= std::this_thread::get_id() != gui;
        order.push_back(i);
      });
  });
  worker.join();
  QVERIFY(order.empty());  // nothing runs before the event loop does
  QTRY_COMPARE(order.size(), size_t{100});
  QVERIFY(!offThread);
  for (int i = 0; i < 100; ++i) QCOMPARE(order[size_t(i)], i);
}

void GuiTest::alertsAnswerWithTheButtonsIndex() {
  qt::MainWindow w;
  w.show();
  // The real message box this time: its buttons in the order given.
  for (int choice = 0; choice < 3; ++choice) {
    const QStringList titles{QStringLiteral("Save"), QStringLiteral("Don't Save"), QStringLiteral("Cancel")};
    QStringList shown;
    QTimer::singleShot(0, &w, [&] {
      auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
      QVERIFY(box);
      QVERIFY(box->text().contains(QStringLiteral("Do you want to save scan info?")));
      QCOMPARE(box->informativeText(), QStringLiteral("The tree is not saved."));
      for (QAbstractButton* b : box->buttons()) shown << b->text();
      QCOMPARE(box->defaultButton()->text(), titles[0]);
      for (QAbstractButton* b : box->buttons())
        if (b->text() == titles[choice]) b->click();
    });
    const int answer = w.alert({"Do you want to save scan info?", "The tree is not saved.",
                                {"Save", "Don't Save", "Cancel"}});
    QCOMPARE(answer, choice);
    shown.sort();
    QStringList expected = titles;
    expected.sort();
    QCOMPARE(shown, expected);
  }
}

QTEST_MAIN(GuiTest)
#include "GuiTest.moc"
