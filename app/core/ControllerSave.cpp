// Saving the marked entries, saving and opening scan info files, and the
// rules for quitting and closing while they run.
#include <fmt/format.h>

#include <cctype>
#include <ctime>
#include <filesystem>
#include <thread>

#include "core/ControllerInternal.h"
#include "core/SaveFlow.h"
#include "output/RecoveryReport.h"
#include "scaninfo/ScanInfoFile.h"

namespace ambrel {

namespace {

constexpr const char* kProcessRunningTitle = "Process Running";

bool hasExtension(const std::string& path, const std::string& extension) {
  const std::string ext = fileExtension(path);
  if (ext.size() != extension.size()) return false;
  for (size_t i = 0; i < ext.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(ext[i])) != extension[i]) return false;
  return true;
}

}  // namespace

// ---- saving the marked entries

void AppController::saveData() {
  if (page_ != Page::Tree || !selectedPTVolume_ || !selectedPTVolume_->dirRoot || !scanInfoOrSavingNotProcessing_)
    return;
  if (driveNotConnected_) {
    ask({kDriveNotConnectedTitle, kDriveNotConnectedMessage});
    return;
  }
  if (volumeNotConnected_) {
    ask({kVolumeNotMountedTitle, volumeNotMountedMessage(selectedPTVolume_->volumeName)});
    return;
  }
  const int answer = ask({"Information",
                          "Please ensure that you are not saving recovered data to the same volume from which you are "
                          "recovering. Saving the recovered data to the same hard drive/ volume would result in "
                          "permanent data loss. Do you want to continue?",
                          {"Yes", "No"}});
  if (answer != 0) return;
  FilePanel panel;
  panel.prompt = "Save";
  panel.canCreateFolders = true;
  if (auto destination = ui_.runFolderPanel(panel)) openDataPanelDidEnd(*destination);
}

void AppController::openDataPanelDidEnd(const std::string& destination) {
  if (page_ != Page::Tree || !selectedPTVolume_ || !scanInfoOrSavingNotProcessing_) return;
  // What the filter hides is not saved: it needs no room.
  const DestinationCheck check =
      checkSaveDestination(*selectedPTVolume_->dirRoot, destination, shown_ ? shown_->kept() : nullptr);
  if (check.refusal) {
    ask(*check.refusal);
    return;
  }
  const DestinationInfo& info = check.info;
  setTreeButtons(true);
  scanInfoOrSavingNotProcessing_ = false;
  ui_.setText(Control::TextFieldSavedData, " ");
  ui_.setEnabled(Control::StopSaveButton, true);
  saveStopRequested_ = false;
  auto volume = selectedPTVolume_;
  Saver::Options options;
  options.canSaveSlashes = info.canSaveSlashes;
  // The report is written as the files are: its digests are of what was saved.
  recoveryReportReady_ = false;
  std::shared_ptr<RecoveryReport> report;
  if (!options_.recoveryReportPath.empty()) {
    report = std::make_shared<RecoveryReport>(options_.recoveryReportPath, *volume, "ambrel save " + destination);
    if (report->ok()) options.onSaved = [report](const SavedFile& f) { report->add(f); };
    else report.reset();  // the save itself does not depend on it
  }
  // What the filter hides is not saved, marked or not; the bar counts only what is.
  std::shared_ptr<const ShownTree> shown = shown_;
  options.filter = shown ? shown->kept() : nullptr;
  savingBarMax_.reset();
  if (options.filter) savingBarMax_ = marked_.markedData;
  saver_ = std::make_shared<Saver>(*volume->dirRoot, saveSourceOf(*volume), this, options);
  auto saver = saver_;
  startWorker([this, volume, saver, shown, destination, report] {
    SleepScope awake(*this);
    auto result = std::make_shared<SaveResult>(saver->saveFilesAndFolders(destination));
    const bool reported = report && report->finish(*result);
    toMain([this, result, reported] { savingFinished(std::move(*result), reported); }, false, false);
  });
}

void AppController::abortDataSaving() {
  if (!saver_) return;
  saveStopRequested_ = true;
  saver_->abort();
}

void AppController::savingFinished(SaveResult result, bool reported) {
  lastSave_ = std::move(result);
  recoveryReportReady_ = reported;
  saver_.reset();
  saveStopRequested_ = false;
  scanInfoOrSavingNotProcessing_ = true;
  setTreeButtons(false);
}

void AppController::saveRecoveryReport() {
  if (!recoveryReportReady()) return;
  FilePanel panel;
  panel.requiredExtension = "xml";
  panel.proposedName = "Recovery Report";
  panel.canCreateFolders = true;
  auto chosen = ui_.runSavePanel(panel);
  if (!chosen) return;
  const std::string path = hasExtension(*chosen, "xml") ? *chosen : *chosen + ".xml";
  std::error_code ec;
  std::filesystem::copy_file(options_.recoveryReportPath, path, std::filesystem::copy_options::overwrite_existing, ec);
  if (ec) ask({"! Can not save", fmt::format("The recovery report could not be saved to {}: {}", path, ec.message())});
}

// ---- scan info files

std::string scanInfoProposedName(std::time_t when) {
  static constexpr const char* kMonths[] = {"January", "February", "March",     "April",   "May",      "June",
                                            "July",    "August",   "September", "October", "November", "December"};
  std::tm tm{};
  localtime_r(&when, &tm);
  const int hour12 = tm.tm_hour % 12 == 0 ? 12 : tm.tm_hour % 12;
  return fmt::format("ambrel scan info {} {:02}, {}, {}_{:02}_{:02} {}", kMonths[tm.tm_mon % 12], tm.tm_mday,
                     tm.tm_year + 1900, hour12, tm.tm_min, tm.tm_sec, tm.tm_hour < 12 ? "AM" : "PM");
}

void AppController::save() {
  if (page_ != Page::Tree || !selectedPTVolume_ || !selectedPTVolume_->dirRoot || !scanInfoOrSavingNotProcessing_ ||
      selectedPTVolume_->openedScanInfo)
    return;
  FilePanel panel;
  panel.requiredExtension = "asi";
  panel.proposedName = scanInfoProposedName(std::time(nullptr));
  panel.hideExtension = true;
  panel.canCreateFolders = true;
  if (auto path = ui_.runSavePanel(panel)) savePanelDidEnd(*path);
}

void AppController::savePanelDidEnd(const std::string& chosen) {
  const std::string path = hasExtension(chosen, "asi") ? chosen : chosen + ".asi";
  setTreeButtons(true);
  scanInfoOrSavingNotProcessing_ = false;
  auto volume = selectedPTVolume_;
  const PlistArray list = volume->volumeScanType == 0   ? partitionListDictArray_
                          : volume->volumeScanType == 1 ? partitionScanListDictArray_
                                                        : PlistArray{};
  startWorker([this, volume, list, path] {
    auto error = saveScanInfo(path, *volume, list, this);
    auto title = error ? std::optional<std::string>(error->title) : std::nullopt;
    std::string message = error ? error->message : "";
    toMain([this, path, title, message] { scanInfoSaved(path, title, message); }, false, false);
  });
}

void AppController::scanInfoSaved(const std::string& path, const std::optional<std::string>& errorTitle,
                                  const std::string& errorMessage) {
  Bar bar = bars_[Control::ProgressTree];
  bar.value = 0;
  setBar(Control::ProgressTree, bar);
  ui_.setText(Control::TextFieldSavedData, " ");
  scanInfoOrSavingNotProcessing_ = true;
  setTreeButtons(false);
  if (errorTitle) {
    ui_.setText(Control::TextFieldTreeStatus, "");
    ask({*errorTitle, errorMessage});
    return;
  }
  ui_.setText(Control::TextFieldTreeStatus, "Scan Info Saved");
  ask({"Scan Info Saved", "Saving location: " + path});
  if (selectedPTVolume_) selectedPTVolume_->scanInfoSaved = true;
  scanInfoSavedSignal_->store(true);
}

void AppController::open() {
  if (page_ != Page::FirstPage) return;
  FilePanel panel;
  panel.requiredExtension = "asi";
  panel.hideExtension = true;
  if (auto path = ui_.runOpenPanel(panel)) openPanelDidEnd(*path);
}

void AppController::openScanInfoFile(const std::string& path) {
  bringMainWindowToFront();
  // A transfer is never cut short by a file handed over from outside,
  // whatever its name.
  if ((hasExtension(path, "asi") && page_ != Page::FirstPage) || !scanInfoOrSavingNotProcessing_) {
    ask({"! Can not open file now",
         "Tarnwell Ambrel is at a stage where it can not open this scan info file. For opening this file either return "
         "to the main screen (where drives and volumes are listed) or quitTarnwell Ambrel and try opening the file "
         "again. This file can also be opened by returning to the main screen and pressing \"Open Scan Info\" button"});
    return;
  }
  openPanelDidEnd(path);
}

void AppController::openPanelDidEnd(const std::string& path) {
  if (auto refused = checkScanInfoHeader(path)) {
    ask({refused->title, refused->message});
    return;
  }
  if (selectedPTVolume_) releaseVolume();
  setBar(Control::ProgressTree, Bar{0, 100, 0, false});
  showPage(Page::Tree);
  setTreeButtons(true);
  scanInfoOrSavingNotProcessing_ = false;
  ui_.reloadOutline();
  startWorker([this, path] {
    auto opened = std::make_shared<Opened>();
    opened->result = openScanInfo(path, this);
    if (opened->result.opened) {
      // checkDriveAvailability / checkVolumeAvailability: reading every
      // attached drive's first sectors belongs on this thread too.
      Volume& volume = *opened->result.opened->volume;
      const PlistArray candidates = volume.volumeScanType == 2 ? volumeDictArray() : driveDictArray();
      opened->check = checkScanInfoDrive(volume, opened->result.opened->first5Sectors, candidates);
      if (opened->check.found) opened->foundDrive = *candidates[static_cast<size_t>(opened->check.index)].dict();
    }
    toMain([this, path, opened] { scanInfoOpened(path, opened); }, false, false);
  });
}

void AppController::scanInfoOpened(const std::string& path, std::shared_ptr<Opened> opened) {
  Bar bar = bars_[Control::ProgressTree];
  bar.value = 0;
  setBar(Control::ProgressTree, bar);
  ui_.setText(Control::TextFieldTreeStatus, " ");
  scanInfoOrSavingNotProcessing_ = true;
  if (!opened->result.opened) {
    ask({opened->result.error.title, opened->result.error.message});
    showPage(Page::FirstPage);
    return;
  }
  OpenedScanInfo& o = *opened->result.opened;
  selectedPTVolume_ = std::shared_ptr<Volume>(std::move(o.volume));
  Volume& v = *selectedPTVolume_;
  v.appController = this;
  if (v.volumeScanType == 0) {
    partitionListDictArray_ = o.partitionList;
    selectedPartitionRow_ = -1;
    ui_.reloadTable(Table::Partitions);
  } else if (v.volumeScanType == 1) {
    partitionScanListDictArray_ = o.partitionList;
    selectedScanListRow_ = -1;
    ui_.reloadTable(Table::PartitionScanList);
  }
  showTree();
  if (v.volumeScanType == 2) {
    volumeNotConnected_ = !opened->check.found;
    if (volumeNotConnected_) ask({kVolumeNotMountedTitle, volumeNotMountedMessage(v.volumeName)});
  } else {
    driveNotConnected_ = !opened->check.found;
    if (driveNotConnected_) ask({kDriveNotConnectedTitle, kDriveNotConnectedMessage});
    // The drive found is the selected drive; with none found there is none
    // (the list holds no drive to take).
    if (opened->check.found) selectedDrive_ = mediaForDrive(opened->foundDrive);
  }
  ui_.setText(Control::TextFieldTreeStatus, "Scan Info Opened");
  ask({"Scan Info Opened", "From File: " + path});
}

// ---- quitting and closing

int AppController::promptForScanInfoSaving() {
  const Volume* v = selectedPTVolume_.get();
  if (!v || !v->dirRoot || v->scanInfoSaved) return 1;
  const int answer = ask({"Do you want to save scan info?",
                          "After scanning the physical drive, scan results obtained can be saved so that recovery "
                          "process could be carried out in next restart without scanning the drive again. Just open the "
                          "saved scan info and proceed with recovery process.",
                          {"Yes", "No", "Cancel"}});
  if (answer == 0) {
    scanInfoSavedSignal_->store(false);
    save();
    return 2;
  }
  return answer == 1 ? 1 : 0;
}

bool AppController::terminateApplication() {
  if (terminated_.load()) return true;
  if (page_ == Page::Tree) {
    if (!scanInfoOrSavingNotProcessing_) {
      ask({kProcessRunningTitle,
           "Scan info saving/opening or data saving is in process. The program can quit if that process is completed "
           "or aborted."});
      return false;
    }
    const int choice = promptForScanInfoSaving();
    if (choice == 0) return false;
    if (choice == 2) {
      watchSaveScanInfo();
      return false;
    }
  }
  terminateNow();
  return true;
}

bool AppController::windowShouldClose(bool previewWindow) {
  if (previewWindow) {
    previewCloseNow();
    return true;
  }
  if (page_ == Page::Tree) {
    if (!scanInfoOrSavingNotProcessing_) {
      ask({kProcessRunningTitle,
           "Scan info saving/opening or data saving is in process. The program can quit if that process is completed "
           "or aborted."});
      return false;
    }
    const int choice = promptForScanInfoSaving();
    if (choice == 2) watchSaveScanInfo();
    return choice == 1;
  }
  return true;
}

void AppController::windowWillClose() { terminateNow(); }

void AppController::watchSaveScanInfo() {
  // One watcher; a cancelled save panel leaves it waiting, and the program open.
  if (watchingSaveScanInfo_) return;
  watchingSaveScanInfo_ = true;
  auto saved = scanInfoSavedSignal_;
  auto stop = stopAll_;
  const auto interval = options_.watchInterval;
  workers_.start([this, saved, stop, interval] {
    while (!saved->load() && !stop->load()) std::this_thread::sleep_for(interval);
    if (saved->load()) courier_.send([this] { terminateNow(); }, false);
  });
}

AppController::Size AppController::windowWillResize(Size current, Size requested) const {
  if (page_ != Page::Tree) return current;
  return {std::max(requested.width, initialWindowSize_.width), std::max(requested.height, initialWindowSize_.height)};
}

// ---- the message server's requests

void AppController::bringMainWindowToFront() {
  ui_.bringToFront();
  // Once more a moment later: a window raised while another program is
  // being activated can end up behind it.
  auto stop = stopAll_;
  const auto delay = options_.frontDelay;
  workers_.start([this, stop, delay] {
    const auto until = std::chrono::steady_clock::now() + delay;
    while (!stop->load() && std::chrono::steady_clock::now() < until)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (!stop->load()) courier_.send([this] {
      if (!terminated_.load()) ui_.bringToFront();
    }, false);
  });
}

void AppController::displayAlreadyRunningPanel() {
  ask({"Cannot open this scan info file now",
       "The program is already running. For opening this scan info file either quit the program and then launch this "
       "file OR open this file from the already running program."});
}

}  // namespace ambrel
