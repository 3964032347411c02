// The pages of the main window and the add-file-type dialog.
#include <QCheckBox>
#include <QComboBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QIntValidator>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QSlider>
#include <QStackedWidget>
#include <QTableView>
#include <QTreeView>
#include <QVBoxLayout>

#include "MainWindow.h"

namespace ambrel::qt {

namespace {

QLabel* heading(const QString& text) {
  auto* label = new QLabel(text);
  QFont f = label->font();
  f.setPointSizeF(f.pointSizeF() * 1.25);
  f.setBold(true);
  label->setFont(f);
  label->setWordWrap(true);
  return label;
}

QLabel* note(const QString& text) {
  auto* label = new QLabel(text);
  label->setWordWrap(true);
  return label;
}

// Back on the left, forward on the right, as in every wizard.
QHBoxLayout* buttonRow(std::initializer_list<QWidget*> left, std::initializer_list<QWidget*> right) {
  auto* row = new QHBoxLayout;
  for (QWidget* w : left) row->addWidget(w);
  row->addStretch(1);
  for (QWidget* w : right) row->addWidget(w);
  return row;
}

}  // namespace

QPushButton* MainWindow::makeButton(const QString& title, std::function<void(AppController&)> action) {
  auto* b = new QPushButton(title);
  connect(b, &QPushButton::clicked, this, [this, action = std::move(action)] {
    if (app_) action(*app_);
  });
  return b;
}

QPushButton* MainWindow::makeButton(Control control, const QString& title, std::function<void(AppController&)> action) {
  QPushButton* b = makeButton(title, std::move(action));
  reg(control, b);
  return b;
}

QLabel* MainWindow::makeLabel(Control control) {
  auto* label = new QLabel;
  label->setTextInteractionFlags(Qt::TextSelectableByMouse);
  reg(control, label);
  return label;
}

QWidget* MainWindow::makeIndicator(Control control) {
  auto* busy = new QProgressBar;
  busy->setRange(0, 0);
  busy->setTextVisible(false);
  busy->setMaximumWidth(90);
  QSizePolicy keep = busy->sizePolicy();
  keep.setRetainSizeWhenHidden(true);
  busy->setSizePolicy(keep);
  busy->hide();
  reg(control, busy);
  return busy;
}

QTableView* MainWindow::makeTable(Table table, QStringList columns, void (*selected)(AppController&, int)) {
  auto* model = new TableModel(app_, table, std::move(columns), this);
  auto* view = new QTableView;
  view->setModel(model);
  view->setSelectionBehavior(QAbstractItemView::SelectRows);
  view->setSelectionMode(QAbstractItemView::SingleSelection);
  view->setEditTriggers(QAbstractItemView::NoEditTriggers);
  view->verticalHeader()->hide();
  view->horizontalHeader()->setStretchLastSection(true);
  view->horizontalHeader()->setSectionResizeMode(0, QHeaderView::Stretch);
  view->setAlternatingRowColors(true);
  view->setShowGrid(false);
  if (selected)
    connect(view->selectionModel(), &QItemSelectionModel::selectionChanged, this, [this, view, selected] {
      if (selecting_ || !app_) return;
      const QModelIndexList rows = view->selectionModel()->selectedRows();
      selected(*app_, rows.isEmpty() ? -1 : rows.first().row());
    });
  tableViews_[table] = view;
  tableModels_[table] = model;
  return view;
}

void MainWindow::buildPages() {
  stack_ = new QStackedWidget;
  setCentralWidget(stack_);
  const std::pair<Page, QWidget*> built[] = {
      {Page::FirstPage, buildFirstPage()},       {Page::PTMode, buildPtModePage()},
      {Page::PTList, buildPtListPage()},         {Page::PTScanProg, buildPtScanProgPage()},
      {Page::PTScanList, buildPtScanListPage()}, {Page::TreeScanMode, buildTreeScanModePage()},
      {Page::TreeProg, buildTreeProgPage()},     {Page::Tree, buildTreePage()},
      {Page::SigSel, buildSigSelPage()},         {Page::RawSlider, buildRawSliderPage()}};
  for (const auto& [page, widget] : built) {
    widget->setObjectName(QString::fromUtf8(pageIdentifier(page)));
    widget->layout()->setContentsMargins(18, 14, 18, 14);
    stack_->addWidget(widget);
    pages_[page] = widget;
  }
  buildAddSigDialog();
}

QWidget* MainWindow::buildFirstPage() {
  auto* page = new QWidget;
  auto* l = new QVBoxLayout(page);
  l->addWidget(heading(QStringLiteral("Select the drive or the volume to recover from")));
  l->addWidget(makeTable(Table::Drives, {QStringLiteral("Drives"), QStringLiteral("Serial"), QStringLiteral("Size")},
                         [](AppController& a, int row) { a.driveTableSelectionDidChange(row); }), 3);
  l->addWidget(makeTable(Table::Volumes,
                         {QStringLiteral("Volumes"), QStringLiteral("File System"), QStringLiteral("Size"),
                          QStringLiteral("Journal")},
                         [](AppController& a, int row) { a.volumeTableSelectionDidChange(row); }), 2);
  l->addWidget(note(QStringLiteral("A disk image file can be opened as a drive with File ▸ Open Disk Image…")));
  auto* open = makeButton(Control::OpenScanInfoButton, QStringLiteral("Open Scan Info File"),
                          [](AppController& a) { a.open(); });
  auto* next = makeButton(Control::FirstPageNext, QStringLiteral("Next"),
                          [](AppController& a) { a.firstPageNextClicked(); });
  next->setDefault(true);
  l->addLayout(buttonRow({open}, {next}));
  return page;
}

QWidget* MainWindow::buildPtModePage() {
  auto* page = new QWidget;
  auto* l = new QVBoxLayout(page);
  l->addWidget(heading(QStringLiteral("What should be done with this drive?")));
  auto* list = makeButton(QStringLiteral("Display Default Volumes"), [](AppController& a) { a.ptModePTListClicked(); });
  auto* scan = makeButton(QStringLiteral("Scan For Volumes"), [](AppController& a) { a.ptModeScanForPTClicked(); });
  auto* raw = makeButton(QStringLiteral("Raw Search On Physical Drive (File Recovery)"),
                         &AppController::ptModeSigSearchClicked);
  const QString notes[] = {
      QStringLiteral("The volumes listed in the drive's partition table."),
      QStringLiteral("Search the whole drive for volumes: for a damaged or deleted partition table."),
      QStringLiteral("Carve files by their signatures, whatever the file system.")};
  QPushButton* buttons[] = {list, scan, raw};
  for (int i = 0; i < 3; ++i) {
    buttons[i]->setMinimumHeight(40);
    l->addWidget(buttons[i]);
    l->addWidget(note(notes[i]));
    l->addSpacing(8);
  }
  l->addStretch(1);
  l->addLayout(buttonRow({makeButton(QStringLiteral("Back"), [](AppController& a) { a.ptModeCancelClicked(); })}, {}));
  return page;
}

QWidget* MainWindow::buildPtListPage() {
  auto* page = new QWidget;
  auto* l = new QVBoxLayout(page);
  l->addWidget(heading(QStringLiteral("Volumes in the partition table")));
  l->addWidget(makeTable(Table::Partitions,
                         {QStringLiteral("Volume Name"), QStringLiteral("Start Sector"), QStringLiteral("Size")},
                         [](AppController& a, int row) { a.partitionTableSelectionDidChange(row); }));
  scanChoice_ = new QCheckBox(QStringLiteral("Scan the drive for volumes instead"));
  reg(Control::PtListGoBackToScanForPT, scanChoice_);
  l->addWidget(scanChoice_);
  auto* back = makeButton(Control::PtListBackToDrives, QStringLiteral("Back To Drive List"),
                          [](AppController& a) { a.ptListBackToDrivesClicked(); });
  auto* next = makeButton(Control::PtListNext, QStringLiteral("Next"),
                          [this](AppController& a) { a.ptListNextClicked(scanChoice_->isChecked()); });
  l->addLayout(buttonRow({back}, {next}));
  return page;
}

QWidget* MainWindow::buildPtScanProgPage() {
  auto* page = new QWidget;
  auto* l = new QVBoxLayout(page);
  l->addWidget(heading(QStringLiteral("Searching the drive for volumes")));
  auto* bar = new QProgressBar;
  reg(Control::VolumeScanBar, bar);
  auto* row = new QHBoxLayout;
  row->addWidget(bar, 1);
  row->addWidget(makeIndicator(Control::VolumeScanIndicator));
  l->addLayout(row);
  auto* form = new QFormLayout;
  form->addRow(QStringLiteral("Time remaining:"), makeLabel(Control::VolumeScanTimeRemainingField));
  form->addRow(QStringLiteral("Current step:"), makeLabel(Control::VolumeScanSubTaskTimeField));
  l->addLayout(form);
  l->addWidget(makeLabel(Control::PleaseWaitForValidatingVolumeTextField));
  l->addWidget(note(QStringLiteral("Volumes found so far:")));
  l->addWidget(makeTable(Table::FoundVolumes, {QStringLiteral("Found"), QStringLiteral("Validity")}, nullptr));
  l->addLayout(buttonRow({}, {makeButton(Control::VolumeScanStop, QStringLiteral("Stop"),
                                         [](AppController& a) { a.volumeScanStopClicked(); })}));
  return page;
}

QWidget* MainWindow::buildPtScanListPage() {
  auto* page = new QWidget;
  auto* l = new QVBoxLayout(page);
  l->addWidget(heading(QStringLiteral("Volumes found on the drive")));
  l->addWidget(makeTable(Table::PartitionScanList,
                         {QStringLiteral("Found"), QStringLiteral("Volume Name"), QStringLiteral("Start Sector"),
                          QStringLiteral("Size"), QStringLiteral("Validity")},
                         [](AppController& a, int row) { a.partitionScanListSelectionDidChange(row); }));
  auto* back = makeButton(Control::PtScanListBackToDrives, QStringLiteral("Back To Drive List"),
                          [](AppController& a) { a.ptScanListBackToDrivesClicked(); });
  auto* next = makeButton(Control::VolumeScanListNext, QStringLiteral("Next"),
                          [](AppController& a) { a.volumeScanListNextClicked(); });
  l->addLayout(buttonRow({back}, {next}));
  return page;
}

QWidget* MainWindow::buildTreeScanModePage() {
  auto* page = new QWidget;
  auto* l = new QVBoxLayout(page);
  l->addWidget(heading(QStringLiteral("How should the volume be scanned?")));
  auto* standard = makeButton(QStringLiteral("Standard Scan"), [](AppController& a) { a.treeScanModeStandardScanClicked(); });
  auto* advanced = makeButton(QStringLiteral("Advance Scan"), [](AppController& a) { a.treeScanModeAdvScanClicked(); });
  standard->setMinimumHeight(40);
  advanced->setMinimumHeight(40);
  l->addWidget(standard);
  l->addWidget(note(QStringLiteral("Rebuilds the tree from the volume's catalog: quick, for a volume that still mounts "
                                   "or was recently formatted.")));
  l->addSpacing(8);
  l->addWidget(advanced);
  l->addWidget(note(QStringLiteral("Also searches the whole volume for catalog nodes: slower, for a damaged "
                                   "catalog or deleted entries.")));
  l->addStretch(1);
  l->addLayout(buttonRow({makeButton(QStringLiteral("Back"), [](AppController& a) { a.treeScanModeCancelClicked(); })}, {}));
  return page;
}

QWidget* MainWindow::buildTreeProgPage() {
  auto* page = new QWidget;
  auto* l = new QVBoxLayout(page);
  l->addWidget(heading(QStringLiteral("Building the tree of files and folders")));
  auto* row = new QHBoxLayout;
  auto* bar = new QProgressBar;
  reg(Control::TreeProgBar, bar);
  row->addWidget(bar, 1);
  row->addWidget(makeIndicator(Control::TreeProgIndicator));
  l->addLayout(row);
  l->addWidget(makeLabel(Control::TreeProgStatusField));
  auto* form = new QFormLayout;
  form->addRow(QStringLiteral("Time remaining:"), makeLabel(Control::TreeProgTimeRemainingField));
  form->addRow(QStringLiteral("Done:"), makeLabel(Control::TreeProgPercentField));
  form->addRow(QStringLiteral("Read:"), makeLabel(Control::TreeProgSizeField));
  form->addRow(QStringLiteral("Entries found:"), makeLabel(Control::TreeProgEntriesField));
  form->addRow(QStringLiteral("Folders:"), makeLabel(Control::TreeProgFoldersField));
  form->addRow(QStringLiteral("Files:"), makeLabel(Control::TreeProgFilesField));
  form->addRow(QStringLiteral("Data:"), makeLabel(Control::TreeProgDataField));
  l->addLayout(form);
  l->addStretch(1);
  l->addLayout(buttonRow({}, {makeButton(Control::StopTree, QStringLiteral("Stop"),
                                         [](AppController& a) { a.stopTree(); })}));
  return page;
}

QLayout* MainWindow::buildFilterBar() {
  auto* bar = new QHBoxLayout;
  auto field = [&](Control c, const QString& label, const QString& hint, const QString& tip, int width) {
    auto* e = new QLineEdit;
    e->setPlaceholderText(hint);
    e->setToolTip(tip);
    e->setClearButtonEnabled(true);
    if (width) e->setMaximumWidth(width);
    reg(c, e);
    auto* l = new QLabel(label);
    l->setBuddy(e);
    bar->addWidget(l);
    bar->addWidget(e, width ? 0 : 1);
    connect(e, &QLineEdit::returnPressed, this, [this] { applyFilter(); });
    return e;
  };
  const QString sizes = QStringLiteral("1500, 500KB, 20MB or 2GB (1 KB = 1000 bytes)");
  field(Control::FilterMinSizeField, QStringLiteral("&Size from"), QStringLiteral("any"), sizes, 90);
  field(Control::FilterMaxSizeField, QStringLiteral("to"), QStringLiteral("any"), sizes, 90);
  field(Control::FilterNameField, QStringLiteral("&Name"), QStringLiteral("IMG_*"),
        QStringLiteral("A shell pattern on the file's name: * any text, ? one character, [abc] one of them"), 0)
      ->setMinimumWidth(120);
  field(Control::FilterExtensionField, QStringLiteral("E&xtensions"), QStringLiteral("jpg, pdf"),
        QStringLiteral("The files' extensions, separated by commas"), 120);
  matchCase_ = new QCheckBox(QStringLiteral("Match &case"));
  matchCase_->setToolTip(QStringLiteral("Names and patterns match only in the same case"));
  bar->addWidget(matchCase_);
  bar->addWidget(makeButton(Control::FilterApplyButton, QStringLiteral("&Filter"), [this](AppController&) { applyFilter(); }));
  bar->addWidget(makeButton(Control::FilterClearButton, QStringLiteral("Show All"),
                            [](AppController& a) { a.clearTreeFilter(); }));
  return bar;
}

void MainWindow::applyFilter() {
  if (!app_) return;
  auto text = [this](Control c) { return qobject_cast<QLineEdit*>(control(c))->text().toStdString(); };
  TreeFilterInput input;
  input.minSize = text(Control::FilterMinSizeField);
  input.maxSize = text(Control::FilterMaxSizeField);
  input.name = text(Control::FilterNameField);
  input.extensions = text(Control::FilterExtensionField);
  input.matchCase = matchCase_->isChecked();
  app_->applyTreeFilter(input);
}

QWidget* MainWindow::buildTreePage() {
  auto* page = new QWidget;
  auto* l = new QVBoxLayout(page);
  // The find bar.
  auto* find = new QHBoxLayout;
  auto* field = new QLineEdit;
  field->setPlaceholderText(QStringLiteral("Find by name"));
  field->setClearButtonEnabled(true);
  reg(Control::FindField, field);
  connect(field, &QLineEdit::returnPressed, this, [this, field] {
    if (app_) app_->find(field->text().toStdString());
  });
  find->addWidget(field, 2);
  find->addWidget(makeIndicator(Control::FindProgress));
  find->addWidget(makeLabel(Control::FindTextField), 1);
  find->addWidget(makeButton(Control::PrevButton, QStringLiteral("Previous"), [](AppController& a) { a.findPrev(); }));
  find->addWidget(makeButton(Control::NextButton, QStringLiteral("Next"), [](AppController& a) { a.findNext(); }));
  find->addWidget(makeButton(Control::MarkAllButton, QStringLiteral("Mark All"),
                             [](AppController& a) { a.markAllFound(); }));
  find->addWidget(makeButton(Control::UnmarkAllButton, QStringLiteral("Unmark All"),
                             [](AppController& a) { a.unmarkAllFound(); }));
  l->addLayout(find);
  l->addLayout(buildFilterBar());

  treeModel_ = new TreeModel(app_, this);
  treeView_ = new TreeView;
  treeView_->setModel(treeModel_);
  treeView_->setUniformRowHeights(true);  // a million rows lay out without measuring each
  treeView_->setAlternatingRowColors(true);
  treeView_->setSelectionMode(QAbstractItemView::SingleSelection);
  treeView_->header()->setStretchLastSection(false);
  treeView_->header()->setSectionResizeMode(TreeModel::Files, QHeaderView::Stretch);
  treeView_->header()->resizeSection(TreeModel::Mark, 48);
  for (int c : {TreeModel::Size, TreeModel::FilesCount}) treeView_->header()->resizeSection(c, 95);
  for (int c : {TreeModel::ModificationDate, TreeModel::CreateDate}) treeView_->header()->resizeSection(c, 200);
  connect(treeView_->selectionModel(), &QItemSelectionModel::currentChanged, this,
          [this](const QModelIndex& current) {
            if (app_ && !selecting_) app_->outlineViewSelectionDidChange(current.isValid() ? TreeModel::item(current) : nullptr);
          });
  connect(treeView_, &QTreeView::doubleClicked, this, [this](const QModelIndex& index) {
    if (!app_ || !index.isValid() || index.column() == TreeModel::Mark) return;
    app_->outlineViewSelectionDidChange(TreeModel::item(index));
    app_->preview();
  });
  l->addWidget(treeView_, 1);

  auto* status = new QHBoxLayout;
  status->addWidget(makeLabel(Control::TextFieldTreeTotals));
  status->addSpacing(24);
  status->addWidget(makeLabel(Control::TextFieldFilterStatus));
  status->addStretch(1);
  status->addWidget(makeLabel(Control::TextFieldMarkedData));
  l->addLayout(status);
  auto* saving = new QHBoxLayout;
  auto* bar = new QProgressBar;
  reg(Control::ProgressTree, bar);
  saving->addWidget(makeLabel(Control::TextFieldTreeStatus), 1);
  saving->addWidget(makeLabel(Control::TextFieldSavedData));
  saving->addWidget(bar, 1);
  saving->addWidget(makeButton(Control::StopSaveButton, QStringLiteral("Stop"),
                               [](AppController& a) { a.abortDataSaving(); }));
  l->addLayout(saving);
  auto* back = makeButton(Control::ButtonTreeBackToPartitions, QStringLiteral("Back"),
                          [](AppController& a) { a.treeBackToPartitionsClicked(); });
  auto* preview = makeButton(Control::PreviewButton, QStringLiteral("Preview"), [](AppController& a) { a.preview(); });
  auto* scanInfo = makeButton(Control::SaveScanButton, QStringLiteral("Save Scan Info"),
                              [](AppController& a) { a.save(); });
  auto* save = makeButton(Control::SaveButton, QStringLiteral("Save Selected Files"),
                          [](AppController& a) { a.saveData(); });
  l->addLayout(buttonRow({back}, {preview, scanInfo, save}));
  return page;
}

QWidget* MainWindow::buildSigSelPage() {
  auto* page = new QWidget;
  auto* l = new QVBoxLayout(page);
  auto* prompt = makeLabel(Control::SigSelPrompt);
  prompt->setWordWrap(true);
  l->addWidget(prompt);
  sigModel_ = new SigModel(app_, this);
  sigView_ = new QTreeView;
  sigView_->setModel(sigModel_);
  sigView_->setAlternatingRowColors(true);
  sigView_->header()->setSectionResizeMode(0, QHeaderView::Stretch);
  sigView_->header()->setStretchLastSection(false);
  connect(sigView_->selectionModel(), &QItemSelectionModel::currentChanged, this,
          [this](const QModelIndex& current) {
            if (app_) app_->sigOutlineSelectionDidChange(current.isValid() ? SigModel::node(current) : nullptr);
          });
  auto* middle = new QHBoxLayout;
  middle->addWidget(sigView_, 1);
  auto* side = new QVBoxLayout;
  side->addWidget(makeButton(Control::SelectAllSig, QStringLiteral("Select All"), [](AppController& a) { a.selectAllSig(); }));
  side->addWidget(makeButton(Control::DeselectAllSig, QStringLiteral("Deselect All"),
                             [](AppController& a) { a.deselectAllSig(); }));
  side->addSpacing(12);
  side->addWidget(makeButton(Control::AddNewSig, QStringLiteral("Add File Type…"), [](AppController& a) { a.addNewSig(); }));
  side->addWidget(makeButton(Control::RemoveFileType, QStringLiteral("Remove File Type"),
                             [](AppController& a) { a.removeFileType(); }));
  side->addWidget(makeButton(Control::LoadFileTypes, QStringLiteral("Load File Types"),
                             [](AppController& a) { a.reloadSigData(); }));
  side->addStretch(1);
  middle->addLayout(side);
  l->addLayout(middle, 1);
  auto* size = new QHBoxLayout;
  size->addWidget(new QLabel(QStringLiteral("Maximum size of a file to recover:")));
  maxSize_ = new QLineEdit;
  maxSize_->setMaximumWidth(110);
  maxSize_->setPlaceholderText(QStringLiteral("e.g. 100"));
  unit_ = new QComboBox;
  unit_->addItems({QStringLiteral("MB"), QStringLiteral("GB")});
  size->addWidget(maxSize_);
  size->addWidget(unit_);
  size->addStretch(1);
  l->addLayout(size);
  auto* back = makeButton(Control::SigSelBack, QStringLiteral("Back"),
                          [](AppController& a) { a.sigSelBackToVolumesClicked(); });
  auto* next = makeButton(Control::SigSelNext, QStringLiteral("Next"), [this](AppController& a) {
    a.sigSelNextClicked(maxSize_->text().toStdString(), unit_->currentIndex());
  });
  l->addLayout(buttonRow({back}, {next}));
  return page;
}

QWidget* MainWindow::buildRawSliderPage() {
  auto* page = new QWidget;
  auto* l = new QVBoxLayout(page);
  l->addWidget(heading(QStringLiteral("Which part of the drive should be searched?")));
  l->addWidget(note(QStringLiteral("Move the sliders to the start and the end of the range to search, in percent "
                                   "of the whole.")));
  auto* form = new QFormLayout;
  rawStart_ = new QSlider(Qt::Horizontal);
  rawEnd_ = new QSlider(Qt::Horizontal);
  for (QSlider* s : {rawStart_, rawEnd_}) {
    s->setRange(0, 100);
    s->setTickPosition(QSlider::TicksBelow);
    s->setTickInterval(10);
    connect(s, &QSlider::valueChanged, this, &MainWindow::rawSliderMoved);
  }
  rawEnd_->setValue(100);
  form->addRow(QStringLiteral("Start:"), rawStart_);
  form->addRow(QString(), makeLabel(Control::RawSliderStartText));
  form->addRow(QStringLiteral("End:"), rawEnd_);
  form->addRow(QString(), makeLabel(Control::RawSliderEndText));
  form->addRow(QStringLiteral("Size to search:"), makeLabel(Control::RawSliderSizeText));
  l->addLayout(form);
  l->addStretch(1);
  auto* back = makeButton(Control::RawSliderBack, QStringLiteral("Back"),
                          [](AppController& a) { a.rawSliderBackToSigSelClicked(); });
  auto* next = makeButton(Control::RawSliderNext, QStringLiteral("Next"), [this](AppController& a) {
    a.rawSliderNextClicked(static_cast<float>(rawStart_->value()), static_cast<float>(rawEnd_->value()));
  });
  l->addLayout(buttonRow({back}, {next}));
  return page;
}

void MainWindow::rawSliderMoved() {
  if (app_ && !selecting_)
    app_->rawSliderChanged(static_cast<float>(rawStart_->value()), static_cast<float>(rawEnd_->value()));
}

void MainWindow::buildAddSigDialog() {
  addSig_ = new QDialog(this);
  addSig_->setObjectName(QStringLiteral("addSigDialog"));
  addSig_->setWindowTitle(QStringLiteral("Add File Type"));
  auto* form = new QFormLayout(addSig_);
  const QString labels[] = {QStringLiteral("Category"), QStringLiteral("File Type Name"), QStringLiteral("Extension"),
                            QStringLiteral("Signature (hex)"), QStringLiteral("Offset")};
  for (const QString& label : labels) {
    auto* field = new QLineEdit;
    form->addRow(label, field);
    addSigFields_.push_back(field);
  }
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
  form->addRow(buttons);
  connect(buttons, &QDialogButtonBox::accepted, this, [this] {
    if (!app_) return;
    NewSigInput input;
    std::string* into[] = {&input.category, &input.name, &input.extension, &input.signature, &input.offset};
    for (size_t i = 0; i < addSigFields_.size(); ++i) *into[i] = addSigFields_[i]->text().toStdString();
    // The controller closes the dialog once the input is good.
    app_->addNewSigOKClicked(input);
  });
  connect(buttons, &QDialogButtonBox::rejected, this, [this] {
    if (app_) app_->addNewSigCancelled();
  });
}

}  // namespace ambrel::qt
