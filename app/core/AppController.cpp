// The controller's life, its workers and reports, and the pages before the
// tree: drives, partitions, the volume search and the choice of scan.
#include "core/AppController.h"

#include <fmt/format.h>

#include "core/ControllerInternal.h"
#include "media/DMedia.h"
#include "media/DriveWatcher.h"

namespace ambrel {

namespace {

const PlistDict* rowDict(const PlistArray& list, int row) {
  if (row < 0 || static_cast<size_t>(row) >= list.size()) return nullptr;
  return list[static_cast<size_t>(row)].dict();
}

}  // namespace

AppController::WorkerContext*& AppController::currentWorker() {
  thread_local WorkerContext* worker = nullptr;
  return worker;
}

const char* pageIdentifier(Page page) {
  switch (page) {
    case Page::FirstPage: return "first page";
    case Page::PTMode: return "PT mode";
    case Page::PTList: return "PT list";
    case Page::PTScanProg: return "PT scan prog";
    case Page::PTScanList: return "PT scan list";
    case Page::TreeScanMode: return "Tree scan mode";
    case Page::TreeProg: return "Tree prog";
    case Page::Tree: return "Tree";
    case Page::SigSel: return "sig sel";
    case Page::RawSlider: return "Raw slider";
  }
  return "";
}

AppController::AppController(UserInterface& ui, MainThreadDispatcher& dispatcher, SleepInhibitor& sleep,
                             ControllerOptions options)
    : ui_(ui),
      courier_(dispatcher),
      sleep_(sleep),
      options_(std::move(options)),
      scanInfoSavedSignal_(std::make_shared<std::atomic<bool>>(false)),
      findState_(std::make_shared<FindState>()),
      preview_(std::make_shared<PreviewState>()),
      stopAll_(std::make_shared<std::atomic<bool>>(false)) {
  if (!options_.searchDeletedFiles)
    options_.searchDeletedFiles = [](Volume& volume, AppControllerInterface* controller) {
      volume.appController = controller;
      volume.findDeletedFilesInJournal();
    };
}

AppController::~AppController() {
  // The notification thread calls back into this object: it goes first.
  if (watcher_) watcher_->stop();
  watcher_.reset();
  terminated_.store(true);
  stopAll_->store(true);
  if (selectedDrive_) selectedDrive_->setAbortVolumeScan(true);
  if (selectedPTVolume_) selectedPTVolume_->setStopTreeThread(true);
  if (saver_) saver_->abort();
  findState_->abort.store(true);
  preview_->threadAbort->store(true);
  // Workers blocked on the main thread are let go; then every one has ended
  // before the objects they use go.
  courier_.close();
  workers_.waitAll();
}

void AppController::start() {
  for (auto [control, title] : {std::pair{Control::OpenScanInfoButton, "Open Scan Info File"},
                                std::pair{Control::FirstPageNext, "Next"}, std::pair{Control::SigSelBack, "Back"},
                                std::pair{Control::PtListBackToDrives, "Back To Drive List"},
                                std::pair{Control::StopTree, "Stop"}})
    ui_.setTitle(control, title);
  ui_.setEnabled(Control::FirstPageNext, false);
  applyDriveLists(options_.listDrives ? options_.listDrives() : initialDriveList(options_.roots));
  if (options_.watchDrives) {
    // Rebuilt on the notification thread, handed over on the main thread:
    // the tables never see a list being built.
    watcher_ = std::make_unique<DriveWatcher>(options_.roots, [this](DriveWatcher::Cause) {
      DriveLists lists = options_.listDrives ? options_.listDrives() : initialDriveList(options_.roots);
      auto shared = std::make_shared<DriveLists>(std::move(lists));
      toMain([this, shared] { applyDriveLists(std::move(*shared)); }, false);
    });
    watcher_->LaunchThread();
  }
  page_ = Page::FirstPage;
  ui_.showPage(Page::FirstPage);
}

void AppController::refreshDriveList() {
  applyDriveLists(options_.listDrives ? options_.listDrives() : initialDriveList(options_.roots));
}

void AppController::applyDriveLists(DriveLists lists) {
  {
    std::lock_guard lock(listsMutex_);
    driveDictArray_ = std::move(lists.driveDictArray);
    volumeDictArray_ = std::move(lists.volumeDictArray);
  }
  // A refresh does not keep the selection.
  setFirstPageSelection(-1, -1);
  ui_.reloadTable(Table::Drives);
  ui_.reloadTable(Table::Volumes);
}

PlistArray AppController::driveDictArray() const {
  std::lock_guard lock(listsMutex_);
  return driveDictArray_;
}

PlistArray AppController::volumeDictArray() const {
  std::lock_guard lock(listsMutex_);
  return volumeDictArray_;
}

// ---- pages, workers and reports

void AppController::showPage(Page page) {
  if (page != page_) ++pageEpoch_;
  page_ = page;
  ui_.showPage(page);
}

void AppController::startWorker(std::function<void()> body) {
  const uint64_t epoch = pageEpoch_;
  workers_.start([epoch, body = std::move(body)] {
    WorkerContext context{epoch, nullptr, nullptr};
    currentWorker() = &context;
    body();
    currentWorker() = nullptr;
  });
}

void AppController::toMain(std::function<void()> fn, bool wait, bool mayBlock) {
  if (courier_.onMainThread()) {
    if (!terminated_.load()) fn();
    return;
  }
  // A thread that is no worker of ours (the notification thread) reports
  // whatever page is shown.
  const uint64_t epoch = currentWorker() ? currentWorker()->epoch : 0;
  auto guarded = [this, epoch, fn = std::move(fn)] {
    if (epoch == 0 ? !terminated_.load() : live(epoch)) fn();
  };
  if (wait) courier_.call(guarded);
  else courier_.send(std::move(guarded), mayBlock);
}

void AppController::deliver(Receiver receiver, const ProgressReport& report) {
  using namespace progress;
  auto shared = std::make_shared<ProgressReport>(report);
  if (receiver != Receiver::VolumeScan) {
    toMain([this, shared, receiver] {
      if (receiver == Receiver::Tree) applyTreeProgReport(*shared);
      else applySavingReport(*shared);
    }, true);
    return;
  }
  // The volume search waits only where it hands something over or sets the
  // bar's range; its many small steps do not hold the search up.
  const bool wait = report.contains(kBarMaxValue) || report.contains(kTimeRemainingForSubTask) ||
                    report.contains(kScanComplete);
  std::shared_ptr<PlistArray> rows, volumes;
  if (WorkerContext* w = currentWorker()) {
    // The worker alone writes these lists; it is inside its own call now.
    if (report.contains(kVolumesFound) && w->rows) rows = std::make_shared<PlistArray>(*w->rows);
    if (report.contains(kScanComplete) && w->volumes) volumes = std::make_shared<PlistArray>(*w->volumes);
  }
  toMain([this, shared, rows, volumes] {
    if (rows) volumeScanFoundArray_ = *rows;
    if (volumes) partitionScanListDictArray_ = *volumes;
    applyVolumeScanReport(*shared);
  }, wait);
}

void AppController::updateVolumeScanProgress(const ProgressReport& report) { deliver(Receiver::VolumeScan, report); }
void AppController::updateProgress(const ProgressReport& report) { deliver(Receiver::Tree, report); }
void AppController::updateTreeProgress(const ProgressReport& report) { deliver(Receiver::Saving, report); }

void AppController::setBar(Control control, const Bar& bar) {
  bars_[control] = bar;
  ui_.setBar(control, bar.min, bar.max, bar.value, bar.indeterminate);
}

void AppController::applyBar(Control control, const ProgressReport& report, bool thirtyTwoBit) {
  using namespace progress;
  Bar bar = bars_[control];
  bool changed = false;
  if (const PlistValue* v = report.find(kBarIncrement)) {
    bar.value += thirtyTwoBit ? static_cast<double>(static_cast<int32_t>(v->toI64())) : static_cast<double>(v->toU64());
    changed = true;
  }
  if (const PlistValue* v = report.find(kBarMinValue)) bar.min = static_cast<double>(v->toU64()), changed = true;
  if (const PlistValue* v = report.find(kBarMaxValue)) bar.max = static_cast<double>(v->toU64()), changed = true;
  if (const PlistValue* v = report.find(kBarDoubleValue)) bar.value = static_cast<double>(v->toU64()), changed = true;
  if (changed) setBar(control, bar);
}

void AppController::applyVolumeScanReport(const ProgressReport& report) {
  using namespace progress;
  if (report.contains(kStartAnimation)) ui_.setAnimating(Control::VolumeScanIndicator, true);
  if (report.contains(kStopAnimation)) ui_.setAnimating(Control::VolumeScanIndicator, false);
  // The please-wait field tells only whether a volume is being checked.
  ui_.setText(Control::PleaseWaitForValidatingVolumeTextField,
              report.contains(kProgressStatus) ? "Please Wait ... " : "");
  const PlistValue* sub = report.find(kTimeRemainingForSubTask);
  ui_.setText(Control::VolumeScanSubTaskTimeField, sub && sub->string() ? *sub->string() : "");
  if (const PlistValue* v = report.find(kTimeRemaining); v && v->string())
    ui_.setText(Control::VolumeScanTimeRemainingField, *v->string());
  applyBar(Control::VolumeScanBar, report, true);
  if (report.contains(kVolumesFound)) {
    ui_.reloadTable(Table::FoundVolumes);
    ui_.scrollTableToEnd(Table::FoundVolumes);
  }
  if (report.contains(kScanComplete)) {
    ui_.setAnimating(Control::VolumeScanIndicator, false);
    selectedScanListRow_ = -1;
    showPage(Page::PTScanList);
    ui_.reloadTable(Table::PartitionScanList);
    ui_.setEnabled(Control::VolumeScanListNext, false);
    if (const PlistValue* v = report.find(kReadErrors); v && v->string())
      ask({"Information", *v->string() + ". Volumes in those sectors may be missing from the list."});
  }
}

void AppController::applyTreeProgReport(const ProgressReport& report) {
  using namespace progress;
  auto number = [](const PlistValue& v) { return v.describe(); };
  if (report.contains(kStartAnimation)) ui_.setAnimating(Control::TreeProgIndicator, true);
  if (report.contains(kStopAnimation)) ui_.setAnimating(Control::TreeProgIndicator, false);
  if (const PlistValue* v = report.find(kProgressStatus); v && v->string())
    ui_.setText(Control::TreeProgStatusField, *v->string());
  if (const PlistValue* v = report.find(kTimeRemaining); v && v->string())
    ui_.setText(Control::TreeProgTimeRemainingField, *v->string());
  if (const PlistValue* v = report.find(kProgressType)) {
    Bar bar = bars_[Control::TreeProgBar];
    bar.indeterminate = v->toI64() != 0;
    setBar(Control::TreeProgBar, bar);
  }
  applyBar(Control::TreeProgBar, report);
  if (const PlistValue* v = report.find(kPercentDone)) ui_.setText(Control::TreeProgPercentField, number(*v) + "%");
  const PlistValue* done = report.find(kSizeDone);
  const PlistValue* total = report.find(kTotalSize);
  if (done && total)
    ui_.setText(Control::TreeProgSizeField, fmt::format("{} / {}", sizeText(done->toU64()), sizeText(total->toU64())));
  if (const PlistValue* v = report.find(kEntriesFound)) ui_.setText(Control::TreeProgEntriesField, number(*v));
  if (const PlistValue* v = report.find(kFolders)) ui_.setText(Control::TreeProgFoldersField, number(*v));
  if (const PlistValue* v = report.find(kFiles)) ui_.setText(Control::TreeProgFilesField, number(*v));
  if (const PlistValue* v = report.find(kData)) ui_.setText(Control::TreeProgDataField, sizeText(v->toU64()));
  if (report.contains(kTreeComplete)) {
    ui_.setAnimating(Control::TreeProgIndicator, false);
    const PlistValue* errors = report.find(kReadErrors);
    treeReadErrors_ = errors && errors->string() ? *errors->string() : "";
    showTree();
  }
}

void AppController::applySavingReport(const ProgressReport& report) {
  using namespace progress;
  // A save clears its stop flag as it starts: a Stop pressed before that is
  // given again with every report until the save has noticed it.
  if (saveStopRequested_ && saver_) saver_->abort();
  if (const PlistValue* v = report.find(kProgressStatus); v && v->string())
    ui_.setText(Control::TextFieldTreeStatus, *v->string());
  if (const PlistValue* v = report.find(kSavedData)) ui_.setText(Control::TextFieldSavedData, savedDataText(v->toU64()));
  applyBar(Control::ProgressTree, report);
  if (savingBarMax_ && report.contains(kBarMaxValue)) {
    Bar bar = bars_[Control::ProgressTree];
    bar.max = static_cast<double>(*savingBarMax_);
    setBar(Control::ProgressTree, bar);
  }
}

int AppController::ask(const Alert& alert) {
  if (terminated_.load()) return 0;
  return ui_.alert(alert);
}

int AppController::alert(const std::string& title, const std::string& message, const std::vector<std::string>& buttons) {
  int choice = 0;
  courier_.call([&] { choice = ask({title, message, buttons}); });
  return choice;
}

void AppController::terminateApp() {
  courier_.call([this] { terminateNow(); });
}

void AppController::terminateNow() {
  if (terminated_.exchange(true)) return;
  stopAll_->store(true);
  if (selectedDrive_) selectedDrive_->setAbortVolumeScan(true);
  if (selectedPTVolume_) selectedPTVolume_->setStopTreeThread(true);
  if (saver_) saver_->abort();
  findState_->abort.store(true);
  preview_->threadAbort->store(true);
  if (ui_.previewWindowVisible()) ui_.closePreviewWindow();
  ui_.terminate();
}

void AppController::previewClose() {
  courier_.call([this] { previewCloseNow(); });
}

void AppController::destroyVolumeAndBackToPartList() {
  toMain([this] {
    if (!selectedPTVolume_) return;
    const Page back = pageBackFromVolume(selectedPTVolume_->volumeScanType);
    releaseVolume();
    showPage(back);
  }, false);
}

void AppController::preventSleep(bool on) {
  std::lock_guard lock(sleepMutex_);
  // Counted: the engine's own steps take it again inside a scan that holds it.
  if (on && sleepCount_++ == 0) sleepHold_ = sleep_.inhibit("Tarnwell Ambrel is scanning a drive");
  if (!on && sleepCount_ > 0 && --sleepCount_ == 0) sleepHold_.reset();
}

// ---- "first page"

void AppController::setFirstPageSelection(int driveRow, int volumeRow) {
  selectedDriveRow_ = driveRow;
  selectedVolumeRow_ = volumeRow;
  ui_.setEnabled(Control::FirstPageNext, driveRow >= 0 || volumeRow >= 0);
}

void AppController::driveTableSelectionDidChange(int row) {
  const bool valid = row >= 0 && static_cast<size_t>(row) < driveDictArray().size();
  if (valid) ui_.selectTableRow(Table::Volumes, -1);
  setFirstPageSelection(valid ? row : -1, valid ? -1 : selectedVolumeRow_);
}

void AppController::volumeTableSelectionDidChange(int row) {
  const bool valid = row >= 0 && static_cast<size_t>(row) < volumeDictArray().size();
  if (valid) ui_.selectTableRow(Table::Drives, -1);
  setFirstPageSelection(valid ? -1 : selectedDriveRow_, valid ? row : -1);
}

void AppController::firstPageNextClicked() {
  if (page_ != Page::FirstPage) return;
  const PlistArray drives = driveDictArray();
  const PlistArray volumes = volumeDictArray();
  if (const PlistDict* d = rowDict(drives, selectedDriveRow_)) {
    // driveIsSelected
    selectedDriveDict_ = *d;
    showPage(Page::PTMode);
  } else if (const PlistDict* v = rowDict(volumes, selectedVolumeRow_)) {
    volumeIsSelectedFromDict(*v);
  }
}

std::shared_ptr<DMedia> AppController::mediaForDrive(const PlistDict& drive) {
  return std::make_shared<DMedia>(drive, this);
}

// ---- "PT mode", "PT list", the volume search

void AppController::releaseDrive() { selectedDrive_.reset(); }

void AppController::ptModePTListClicked() {
  if (page_ != Page::PTMode) return;
  selectedDrive_ = mediaForDrive(selectedDriveDict_);
  partitionListDictArray_ = {};
  selectedDrive_->initialize(partitionListDictArray_);
  selectedPartitionRow_ = -1;
  ui_.reloadTable(Table::Partitions);
  showPage(Page::PTList);
  if (selectedDrive_->readErrors.any())
    ask({"Information", selectedDrive_->readErrors.summary() + ". Volumes listed there may be missing."});
}

void AppController::ptModeScanForPTClicked() {
  if (page_ != Page::PTMode) return;
  selectedDrive_ = mediaForDrive(selectedDriveDict_);
  startVolumeSearch();
}

void AppController::ptModeCancelClicked() {
  if (page_ != Page::PTMode) return;
  releaseDrive();
  showPage(Page::FirstPage);
}

void AppController::startVolumeSearch() {
  partitionListDictArray_ = {};
  partitionScanListDictArray_ = {};
  volumeScanFoundArray_ = {};
  ui_.reloadTable(Table::Partitions);
  ui_.reloadTable(Table::FoundVolumes);
  showPage(Page::PTScanProg);
  setBar(Control::VolumeScanBar, Bar{0, 100, 0, false});
  ui_.setText(Control::VolumeScanTimeRemainingField, "");
  ui_.setEnabled(Control::VolumeScanStop, true);
  auto drive = selectedDrive_;
  drive->setAbortVolumeScan(false);
  startWorker([this, drive] {
    PlistArray rows, volumes;
    currentWorker()->rows = &rows;
    currentWorker()->volumes = &volumes;
    SleepScope awake(*this);
    drive->initializeForVolumeThoroughScan({this, &volumes, &rows});
  });
}

void AppController::volumeScanStopClicked() {
  if (page_ == Page::PTScanProg && selectedDrive_) selectedDrive_->setAbortVolumeScan(true);
}

void AppController::partitionTableSelectionDidChange(int row) {
  selectedPartitionRow_ = rowDict(partitionListDictArray_, row) ? row : -1;
}

void AppController::ptListNextClicked(bool scanForPartitions) {
  if (page_ != Page::PTList || !selectedDrive_) return;
  if (scanForPartitions) {
    startVolumeSearch();
  } else if (const PlistDict* d = rowDict(partitionListDictArray_, selectedPartitionRow_)) {
    // volumeFromPTIsSelected
    selectedPTVolume_ = std::make_shared<Volume>(*d, this);
    showPage(Page::TreeScanMode);
  }
}

void AppController::ptListBackToDrivesClicked() {
  if (page_ != Page::PTList && page_ != Page::PTScanList) return;
  releaseDrive();
  partitionListDictArray_ = {};
  selectedPartitionRow_ = -1;
  ui_.reloadTable(Table::Partitions);
  showPage(Page::FirstPage);
}

void AppController::partitionScanListSelectionDidChange(int row) {
  selectedScanListRow_ = rowDict(partitionScanListDictArray_, row) ? row : -1;
  ui_.setEnabled(Control::VolumeScanListNext, selectedScanListRow_ >= 0);
}

void AppController::volumeScanListNextClicked() {
  if (page_ != Page::PTScanList) return;
  if (const PlistDict* d = rowDict(partitionScanListDictArray_, selectedScanListRow_)) {
    // volumeFromScanListIsSelected
    selectedPTVolume_ = std::make_shared<Volume>(*d, this);
    showPage(Page::TreeScanMode);
  }
}

void AppController::ptScanListBackToDrivesClicked() { ptListBackToDrivesClicked(); }

// ---- "Tree scan mode", "Tree prog"

Page AppController::pageBackFromVolume(int32_t volumeScanType) const {
  if (volumeScanType == 0) return Page::PTList;
  if (volumeScanType == 1) return Page::PTScanList;
  return Page::FirstPage;
}

void AppController::treeScanModeStandardScanClicked() { startTreeScan("Normal Scan", ScanKind::Standard); }
void AppController::treeScanModeAdvScanClicked() { startTreeScan("Advanced Scan", ScanKind::Advanced); }

void AppController::startTreeScan(const char* mode, ScanKind kind) {
  if (page_ != Page::TreeScanMode || !selectedPTVolume_) return;
  scanKind_ = kind;
  showPage(Page::TreeProg);
  setBar(Control::TreeProgBar, Bar{0, 100, 0, false});
  for (Control c : {Control::TreeProgStatusField, Control::TreeProgTimeRemainingField, Control::TreeProgPercentField,
                    Control::TreeProgSizeField, Control::TreeProgEntriesField, Control::TreeProgFoldersField,
                    Control::TreeProgFilesField, Control::TreeProgDataField})
    ui_.setText(c, "");
  ui_.setEnabled(Control::StopTree, true);
  auto volume = selectedPTVolume_;
  volume->setStopTreeThread(false);
  const std::string scanMode = mode;
  startWorker([this, volume, scanMode] {
    SleepScope awake(*this);
    volume->startMakingTree(this, scanMode);
  });
}

void AppController::treeScanModeCancelClicked() {
  if (page_ != Page::TreeScanMode || !selectedPTVolume_) return;
  const Page back = pageBackFromVolume(selectedPTVolume_->volumeScanType);
  releaseVolume();
  showPage(back);
}

void AppController::stopTree() {
  if (page_ == Page::TreeProg && selectedPTVolume_) selectedPTVolume_->setStopTreeThread(true);
}

}  // namespace ambrel
