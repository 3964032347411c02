#pragma once
// The application without its pixels: the wizard's pages as states, the
// buttons as actions, the tables and the outline as data served to the front
// end, and the long operations on worker threads whose reports come back to
// the main thread.
//
// Every action and data-source call is made on the main thread. The engine
// side (AppControllerInterface) may be called from any thread: alerts and
// waiting reports are carried to the main thread by the Courier; a report
// from a worker whose page has been left since it started is dropped there.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/AppControllerInterface.h"
#include "carving/SignatureDatabase.h"
#include "core/MainThread.h"
#include "core/ShownTree.h"
#include "core/SleepInhibitor.h"
#include "core/UserInterface.h"
#include "media/DriveList.h"
#include "output/Preview.h"
#include "output/Saver.h"

namespace ambrel {

class DMedia;
class DriveWatcher;
class Volume;

struct ControllerOptions {
  // Where drives are discovered, and how (tests give a list of their own).
  DiscoveryRoots roots;
  std::function<DriveLists()> listDrives;
  bool watchDrives = true;
  SignatureFiles signatureFiles = ambrel::signatureFiles();
  // The search of a journaled volume's journal for deleted files; run by the
  // deleted-file scan before its signature search. Absent: that scan gives
  // only what the signature search finds.
  std::function<void(Volume&, AppControllerInterface*)> searchDeletedFiles;
  // How often the quit watcher looks whether the scan info has been saved,
  // and how long bringing the window to the front waits before it does so again.
  std::chrono::milliseconds watchInterval{250};
  std::chrono::milliseconds frontDelay{500};
  // Where each save writes its recovery report (every file kept, DFXML),
  // for the front end to offer once the save is done; none when empty.
  std::string recoveryReportPath;
};

class AppController : public AppControllerInterface {
 public:
  AppController(UserInterface& ui, MainThreadDispatcher& dispatcher, SleepInhibitor& sleep,
                ControllerOptions options = {});
  ~AppController() override;
  AppController(const AppController&) = delete;
  AppController& operator=(const AppController&) = delete;

  // Start-up: the drive lists, the notification thread, the first page.
  void start();
  void refreshDriveList();

  // "first page"
  void driveTableSelectionDidChange(int row);
  void volumeTableSelectionDidChange(int row);
  void firstPageNextClicked();
  void open();
  // A scan info file handed over by the system or by a second launch.
  void openScanInfoFile(const std::string& path);
  // "PT mode"
  void ptModePTListClicked();
  void ptModeScanForPTClicked();
  void ptModeSigSearchClicked();
  void ptModeCancelClicked();
  // "PT list"
  void partitionTableSelectionDidChange(int row);
  void ptListNextClicked(bool scanForPartitions);
  void ptListBackToDrivesClicked();
  // "PT scan prog", "PT scan list"
  void volumeScanStopClicked();
  void partitionScanListSelectionDidChange(int row);
  void volumeScanListNextClicked();
  void ptScanListBackToDrivesClicked();
  // "Tree scan mode", "Tree prog"
  void treeScanModeStandardScanClicked();
  void treeScanModeAdvScanClicked();
  void treeScanModeCancelClicked();
  void stopTree();
  // "Tree"
  void treeBackToPartitionsClicked();
  void outlineViewSetObjectValue(HDIR* item, bool mark);
  void outlineViewSelectionDidChange(HDIR* item);
  void find(const std::string& text);
  void findNext();
  void findPrev();
  void markAllFound();
  void unmarkAllFound();
  // The filter: files it drops, and folders with nothing kept below, are
  // not shown, counted as marked or saved. Applied on a worker; the outline
  // reloads when it is done. Bad values are told in an alert.
  void applyTreeFilter(const TreeFilterInput& input);
  void clearTreeFilter();
  void saveData();
  void abortDataSaving();
  void save();  // "Save Scan Info"
  void preview();
  // "sig sel", the add dialog, "Raw slider"
  void sigSelBackToVolumesClicked();
  void sigSelNextClicked(const std::string& maxSizeText, int unitIndex);
  void reloadSigData();
  void selectAllSig();
  void deselectAllSig();
  void removeFileType();
  void addNewSig();
  void addNewSigOKClicked(const NewSigInput& input);
  void addNewSigCancelled();
  void sigOutlineSetMark(SigNode* node, bool mark);
  void sigOutlineSelectionDidChange(SigNode* node);
  void rawSliderChanged(float start, float end);
  void rawSliderBackToSigSelClicked();
  void rawSliderNextClicked(float start, float end);

  // Quitting and closing. Quit and a close of the main window answer
  // whether to go ahead; a close of the preview window always may.
  bool terminateApplication();
  bool windowShouldClose(bool previewWindow);
  void windowWillClose();
  // 0 stay, 1 quit, 2 quit once the scan info being saved is saved.
  int promptForScanInfoSaving();
  // Only the "Tree" page may be resized (never below its first size) or zoomed.
  struct Size {
    double width = 0, height = 0;
  };
  void setInitialWindowSize(Size size) { initialWindowSize_ = size; }
  Size windowWillResize(Size current, Size requested) const;
  bool windowShouldZoom() const { return page_ == Page::Tree; }
  // The message server's requests.
  void bringMainWindowToFront();
  void displayAlreadyRunningPanel();

  // Data sources. Tables: the rows of the four lists; columns by their titles.
  int tableRowCount(Table table) const;
  std::string tableCellText(Table table, int row, const std::string& column) const;
  // The outline's one top-level row is the root; below it, each entry's children.
  int outlineChildCount(const HDIR* item) const;
  HDIR* outlineChild(const HDIR* item, int index) const;
  bool outlineIsItemExpandable(const HDIR* item) const;
  // "Files", "Size", "Files Count", "Modification Date", "Create Date"; "Mark" gives "1" or "0".
  std::string outlineObjectValue(const HDIR* item, const std::string& column) const;
  std::string outlineToolTip(const HDIR* item, const std::string& column) const;
  // The signature tree: the categories, or the placeholder row while empty.
  int sigOutlineChildCount(const SigNode* node) const;
  SigNode* sigOutlineChild(const SigNode* node, int index) const;
  // A placeholder row's text is the hint of what to do next.
  std::string sigOutlineText(const SigNode* node) const;

  // What the pages hold (for front ends and tests).
  Page page() const { return page_; }
  const PlistArray& partitionListDictArray() const { return partitionListDictArray_; }
  const PlistArray& partitionScanListDictArray() const { return partitionScanListDictArray_; }
  const PlistArray& volumeScanFoundArray() const { return volumeScanFoundArray_; }
  std::shared_ptr<Volume> selectedPTVolume() const { return selectedPTVolume_; }
  std::shared_ptr<DMedia> selectedDrive() const { return selectedDrive_; }
  bool scanInfoOrSavingNotProcessing() const { return scanInfoOrSavingNotProcessing_; }
  uint64_t markedData() const { return marked_.markedData; }
  uint32_t markedFiles() const { return marked_.markedFiles; }
  bool treeFilterRunning() const { return filterRunning_; }
  // The tree shown (null without a tree); its filter, its shown and whole counts.
  std::shared_ptr<const ShownTree> shownTree() const { return shown_; }
  const std::vector<HDIR*>& findArray() const { return findArray_; }
  int64_t findCount() const { return findCount_; }
  bool findThreadRunning() const;
  int32_t rawSearchMode() const { return rawSearchMode_; }
  SignatureDatabase* signatureDatabase() const { return sigDb_.get(); }
  bool driveNotConnected() const { return driveNotConnected_; }
  bool volumeNotConnected() const { return volumeNotConnected_; }
  // The last save's result (empty before the first).
  const std::optional<SaveResult>& lastSave() const { return lastSave_; }
  // Whether the last save's recovery report is complete and can be saved.
  bool recoveryReportReady() const { return recoveryReportReady_ && scanInfoOrSavingNotProcessing_; }
  // "Save Recovery Report…": a copy of it where the save panel says.
  void saveRecoveryReport();
  bool terminated() const { return terminated_.load(); }
  size_t workersRunning() const { return workers_.running(); }

  // AppControllerInterface: the engine's side; any thread.
  int alert(const std::string& title, const std::string& message, const std::vector<std::string>& buttons) override;
  void updateVolumeScanProgress(const ProgressReport& report) override;
  void updateProgress(const ProgressReport& report) override;
  void updateTreeProgress(const ProgressReport& report) override;
  void terminateApp() override;
  void previewClose() override;
  void destroyVolumeAndBackToPartList() override;
  void preventSleep(bool on) override;
  PlistArray driveDictArray() const override;
  PlistArray volumeDictArray() const override;

 private:
  enum class Receiver { VolumeScan, Tree, Saving };
  enum class ScanKind { Standard, Advanced, DeletedFiles };
  struct Bar {
    double min = 0, max = 100, value = 0;
    bool indeterminate = false;
  };
  struct WorkerContext;
  // The worker on this thread (null on others).
  static WorkerContext*& currentWorker();
  struct FindState;
  struct PreviewState;
  friend class ControllerTestAccess;

  // Pages and workers.
  void showPage(Page page);
  // Runs body on a worker thread of its own; its reports count while the page
  // it was started on is shown.
  void startWorker(std::function<void()> body);
  bool live(uint64_t epoch) const { return !terminated_.load() && epoch == pageEpoch_; }
  // Sends (or, when wait, calls) fn to the main thread with the calling
  // worker's page; fn runs only while that page is still shown. mayBlock
  // false: a send that never waits for room (see Courier::send).
  void toMain(std::function<void()> fn, bool wait, bool mayBlock = true);
  void deliver(Receiver receiver, const ProgressReport& report);
  void applyVolumeScanReport(const ProgressReport& report);
  void applyTreeProgReport(const ProgressReport& report);
  void applySavingReport(const ProgressReport& report);
  void applyBar(Control control, const ProgressReport& report, bool thirtyTwoBit = false);
  void setBar(Control control, const Bar& bar);
  int ask(const Alert& alert);
  void terminateNow();
  void releaseVolume();
  void releaseDrive();
  std::shared_ptr<DMedia> mediaForDrive(const PlistDict& drive);
  void setFirstPageSelection(int driveRow, int volumeRow);
  void applyDriveLists(DriveLists lists);
  void startVolumeSearch();
  void volumeIsSelectedFromDict(const PlistDict& dict);
  void startTreeScan(const char* mode, ScanKind kind);
  Page pageBackFromVolume(int32_t volumeScanType) const;

  // The tree page.
  void showTree();
  void countMarkedDataAndFiles();
  void reloadWithAncestors(const HDIR* item);
  void setTreeButtons(bool transferRunning);
  void markFound(bool mark);
  void markItem(HDIR* item, bool mark);
  void startTreeFilter(EntryFilter filter);
  void dropFindResults();
  void treeFilterApplied(uint64_t generation, std::shared_ptr<ShownTree> shown);
  void showFilterStatus();
  void showFindMatch(size_t index);
  void findThreadComplete(uint64_t generation, std::vector<HDIR*> matches);
  void stopFind();

  // Saving, scan info, quitting.
  void openDataPanelDidEnd(const std::string& destination);
  void savingFinished(SaveResult result, bool reported);
  void savePanelDidEnd(const std::string& path);
  void scanInfoSaved(const std::string& path, const std::optional<std::string>& errorTitle,
                     const std::string& errorMessage);
  void openPanelDidEnd(const std::string& path);
  struct Opened;
  void scanInfoOpened(const std::string& path, std::shared_ptr<Opened> opened);
  void watchSaveScanInfo();

  // Signatures and the deleted-file scan.
  void enterSigSel(std::shared_ptr<Volume> volume, const std::string& prompt, const char* backTitle,
                   const char* backToolTip);
  void applySigButtons(const SigButtons& buttons);
  void startDeletedFileScan(bool deleted, bool signatures);
  void setTextFieldRawSizeDrvVol(float start, float end);

  // Preview.
  void previewSmall();
  void previewDataLoaded(uint64_t request, std::shared_ptr<std::vector<uint8_t>> data, PreviewLoad load);
  void previewText();
  void previewImage();
  void previewMovie();
  void previewCloseNow();

  UserInterface& ui_;
  Courier courier_;
  SleepInhibitor& sleep_;
  ControllerOptions options_;

  Page page_ = Page::FirstPage;
  uint64_t pageEpoch_ = 1;
  std::atomic<bool> terminated_{false};
  std::map<Control, Bar> bars_;
  Size initialWindowSize_;

  mutable std::mutex listsMutex_;
  PlistArray driveDictArray_, volumeDictArray_;
  std::unique_ptr<DriveWatcher> watcher_;
  int selectedDriveRow_ = -1, selectedVolumeRow_ = -1;
  PlistDict selectedDriveDict_;

  std::shared_ptr<DMedia> selectedDrive_;
  PlistArray partitionListDictArray_, partitionScanListDictArray_, volumeScanFoundArray_;
  int selectedPartitionRow_ = -1, selectedScanListRow_ = -1;
  std::shared_ptr<Volume> selectedPTVolume_;
  ScanKind scanKind_ = ScanKind::Standard;
  std::string treeReadErrors_;

  std::unique_ptr<SignatureDatabase> sigDb_;
  std::vector<std::shared_ptr<Sig>> sigSelArray_;  // copies: the page may reload its database
  SigNode* selectedSigNode_ = nullptr;
  int32_t rawSearchMode_ = 0;

  MarkedCount marked_;
  std::shared_ptr<ShownTree> shown_;
  bool filterRunning_ = false;
  std::optional<uint64_t> savingBarMax_;  // a filtered save's total
  uint64_t filterGeneration_ = 0;
  HDIR* selectedTreeItem_ = nullptr;
  bool scanInfoOrSavingNotProcessing_ = true;
  std::shared_ptr<Saver> saver_;
  bool saveStopRequested_ = false;
  std::optional<SaveResult> lastSave_;
  bool recoveryReportReady_ = false;
  bool driveNotConnected_ = false, volumeNotConnected_ = false;
  std::shared_ptr<std::atomic<bool>> scanInfoSavedSignal_;
  bool watchingSaveScanInfo_ = false;

  std::vector<HDIR*> findArray_;
  int64_t findArrayIndex_ = 0, findArrayIndexTrend_ = 0, findCount_ = 0;
  uint64_t findGeneration_ = 0;
  std::shared_ptr<FindState> findState_;

  std::shared_ptr<PreviewState> preview_;

  std::mutex sleepMutex_;
  int sleepCount_ = 0;
  std::unique_ptr<SleepHold> sleepHold_;

  std::shared_ptr<std::atomic<bool>> stopAll_;
  // Declared last: destroyed first, so no worker outlives what it uses.
  Workers workers_;
};

// Texts shown by the controller.
// Size text with "0 KB" for nothing (marked data, the raw range, the "Size" column).
std::string sizeTextOrZero(uint64_t bytes);
// An HFS+ date as the platform describes an instant ("2023-11-14 22:13:20 +0000"); " - " for 0.
std::string outlineDateText(uint32_t hfsSeconds);
// "ambrel scan info November 23, 2026, 6_41_36 AM" for the time given.
std::string scanInfoProposedName(std::time_t when);

}  // namespace ambrel
