// The signature search's pages: choosing file types ("sig sel" and the add
// dialog), the raw range ("Raw slider"), and the deleted-file scan that runs
// the search.
#include <fmt/format.h>

#include "carving/SignatureSearch.h"
#include "core/ControllerInternal.h"

namespace ambrel {

namespace {

constexpr const char* kSigSelSteps =
    "1. Select the file type(s) you wish to recover from the below mentioned file type(s) list.\n2. Specify maximum "
    "(approximate) size of deleted/ missing files to be recovered and click on Next button to continue.";

// The root folder as the scans make it.
void makeBareRoot(Volume& volume) {
  if (!volume.btree) volume.btree = std::make_unique<BTreeTableClass>();
  auto root = std::make_unique<HDIR>();
  root->fileType = kHDIRFolder;
  root->fileID = kRootFolderID;
  root->parentID = kRootParentID;
  root->setFileName("Root");
  root->setBtreeHDIR(volume.btree.get());
  volume.btree->insert(kRootFolderID, root.get());
  volume.dirRoot = std::move(root);
}

}  // namespace

void AppController::ptModeSigSearchClicked() {
  if (page_ != Page::PTMode) return;
  PlistDict drive = selectedDriveDict_;
  // The whole drive, one sector a block.
  drive.set("WhetherDiskDict", true);
  enterSigSel(std::make_shared<Volume>(drive, this), kSigSelSteps, "Back To Drives", "Back To Drive List");
}

void AppController::volumeIsSelectedFromDict(const PlistDict& dict) {
  PlistDict volumeDict = dict;
  volumeDict.set("WhetherVolume", true);
  auto volume = std::make_shared<Volume>(volumeDict, this);
  const std::string prompt =
      volume->isJournaled
          ? std::string("Deleted files of this journaled volume are looked for in its journal. To look for files by "
                        "their signatures as well:\n") + kSigSelSteps
          : std::string("Selected volume is not journaled and hence recovery of deleted files from such HFS+ & HFSX "
                        "volumes will be based on raw signature search. To recover deleted files from such volumes:\n") +
                kSigSelSteps;
  enterSigSel(std::move(volume), prompt, "Back To Volumes", "Back To Volume List");
}

void AppController::enterSigSel(std::shared_ptr<Volume> volume, const std::string& prompt, const char* backTitle,
                                const char* backToolTip) {
  selectedPTVolume_ = std::move(volume);
  // A new database object: the reload count starts again at 0.
  sigDb_ = std::make_unique<SignatureDatabase>(options_.signatureFiles);
  selectedSigNode_ = nullptr;
  sigSelArray_.clear();
  ui_.setText(Control::SigSelPrompt, prompt);
  ui_.setTitle(Control::SigSelBack, backTitle);
  ui_.setToolTip(Control::SigSelBack, backToolTip);
  showPage(Page::SigSel);
  applySigButtons(sigDb_->loadSigData());
  ui_.reloadSigOutline();
}

void AppController::applySigButtons(const SigButtons& b) {
  ui_.setEnabled(Control::SelectAllSig, b.selectAll);
  ui_.setEnabled(Control::DeselectAllSig, b.deselectAll);
  ui_.setEnabled(Control::RemoveFileType, b.remove && SignatureDatabase::canRemove(selectedSigNode_));
  ui_.setEnabled(Control::AddNewSig, b.add);
  ui_.setEnabled(Control::SigSelNext, b.next);
  ui_.setEnabled(Control::LoadFileTypes, b.loadFileTypes);
}

void AppController::sigSelBackToVolumesClicked() {
  if (page_ != Page::SigSel) return;
  releaseVolume();
  sigSelArray_.clear();
  showPage(Page::FirstPage);
}

void AppController::reloadSigData() {
  if (page_ != Page::SigSel || !sigDb_) return;
  selectedSigNode_ = nullptr;
  applySigButtons(sigDb_->reloadSigData());
  ui_.reloadSigOutline();
}

void AppController::selectAllSig() {
  if (page_ != Page::SigSel || !sigDb_) return;
  sigDb_->selectAllSig();
  ui_.reloadSigOutline();
}

void AppController::deselectAllSig() {
  if (page_ != Page::SigSel || !sigDb_) return;
  sigDb_->deselectAllSig();
  ui_.reloadSigOutline();
}

void AppController::sigOutlineSelectionDidChange(SigNode* node) {
  if (page_ != Page::SigSel) return;
  selectedSigNode_ = node;
  ui_.setEnabled(Control::RemoveFileType, SignatureDatabase::canRemove(node));
}

void AppController::sigOutlineSetMark(SigNode* node, bool mark) {
  if (page_ != Page::SigSel || !node || !sigDb_) return;
  CheckControllerSig(node, mark ? 1 : 0).run();
  ui_.reloadSigOutlineItem(node);
  if (node->parent) ui_.reloadSigOutlineItem(node->parent);
}

void AppController::removeFileType() {
  if (page_ != Page::SigSel || !sigDb_ || !selectedSigNode_ || !SignatureDatabase::canRemove(selectedSigNode_)) return;
  const SigNode* node = selectedSigNode_;
  selectedSigNode_ = nullptr;
  const bool written = sigDb_->removeFileType(node);
  ui_.setEnabled(Control::RemoveFileType, false);
  ui_.reloadSigOutline();
  if (!written) ui_.beep();
}

void AppController::addNewSig() {
  if (page_ != Page::SigSel) return;
  ui_.showAddSigDialog();
}

void AppController::addNewSigOKClicked(const NewSigInput& input) {
  if (page_ != Page::SigSel || !sigDb_) return;
  if (auto refused = sigDb_->addNewSigOKClicked(input)) {
    ask({refused->title, refused->message, refused->buttons});
    return;  // the dialog stays open with what was typed
  }
  ui_.reloadSigOutline();
  ui_.closeAddSigDialog();
}

void AppController::addNewSigCancelled() { ui_.closeAddSigDialog(); }

int AppController::sigOutlineChildCount(const SigNode* node) const {
  if (!sigDb_) return 0;
  if (!node) return sigDb_->sigRootArray().empty() ? 1 : static_cast<int>(sigDb_->sigRootArray().size());
  return static_cast<int>(node->children().size());
}

SigNode* AppController::sigOutlineChild(const SigNode* node, int index) const {
  if (!sigDb_ || index < 0) return nullptr;
  if (!node) {
    auto& roots = sigDb_->sigRootArray();
    return static_cast<size_t>(index) < roots.size() ? roots[static_cast<size_t>(index)].get() : nullptr;
  }
  return static_cast<size_t>(index) < node->children().size() ? node->childAtIndex(static_cast<size_t>(index))
                                                                 : nullptr;
}

std::string AppController::sigOutlineText(const SigNode* node) const {
  if (!node) {
    const std::string& hint = sigDb_ ? sigDb_->emptySigNodeText() : std::string();
    return hint.empty() ? "No file types shown here? Click on \"Load File Types\" button" : hint;
  }
  if (node->fileType == 2 && node->sig) return node->sig->software;
  return node->category;
}

void AppController::sigSelNextClicked(const std::string& maxSizeText, int unitIndex) {
  if (page_ != Page::SigSel || !sigDb_ || !selectedPTVolume_) return;
  Volume& v = *selectedPTVolume_;
  SigSelection selection = sigDb_->sigSelNextClicked(v.volumeScanType, v.isJournaled, maxSizeText, unitIndex);
  switch (selection.outcome) {
    case SigSelection::Outcome::Nothing:
      return;
    case SigSelection::Outcome::Refused:
      ask({selection.alert.title, selection.alert.message, selection.alert.buttons});
      return;
    case SigSelection::Outcome::AskNoSignatures:
      sigSelArray_.clear();
      if (ask({selection.alert.title, selection.alert.message, selection.alert.buttons}) != 0) return;
      rawSearchMode_ = 0;
      startDeletedFileScan(true, false);
      return;
    case SigSelection::Outcome::Proceed:
      break;
  }
  sigSelArray_.clear();
  for (SigNode* node : selection.sigSelArray)
    if (node->sig) sigSelArray_.push_back(std::shared_ptr<Sig>(node->sig->mutableCopy()));
  rawSearchMode_ = selection.rawSearchMode;
  showPage(Page::RawSlider);
  setTextFieldRawSizeDrvVol(0, 100);
}

// ---- "Raw slider"

void AppController::setTextFieldRawSizeDrvVol(float start, float end) {
  const Volume* v = selectedPTVolume_.get();
  const uint64_t total = v ? (v->sizeInBytes ? v->sizeInBytes : v->sizeInSect * 512) : 0;
  auto at = [total](float percent) { return static_cast<uint64_t>(static_cast<double>(total) * percent / 100.0); };
  ui_.setText(Control::RawSliderStartText, fmt::format("{}% {}", static_cast<int>(start), sizeTextOrZero(at(start))));
  ui_.setText(Control::RawSliderEndText, fmt::format("{}% {}", static_cast<int>(end), sizeTextOrZero(at(end))));
  ui_.setText(Control::RawSliderSizeText, sizeTextOrZero(end > start ? at(end) - at(start) : 0));
}

void AppController::rawSliderChanged(float start, float end) {
  if (page_ == Page::RawSlider) setTextFieldRawSizeDrvVol(start, end);
}

void AppController::rawSliderBackToSigSelClicked() {
  if (page_ == Page::RawSlider) showPage(Page::SigSel);
}

void AppController::rawSliderNextClicked(float start, float end) {
  if (page_ != Page::RawSlider || !selectedPTVolume_) return;
  if (!(start < end)) {
    ask({"! Can not continue", "The start position should be less than end position. Please set them accordingly."});
    return;
  }
  // setRawSearchStart:end:
  selectedPTVolume_->startPos = start;
  selectedPTVolume_->endPos = end;
  startDeletedFileScan(rawSearchMode_ == 1, true);
}

// scanForDeletedFiles (a volume device) and scanForDeletedFilesDisk (a whole drive).
void AppController::startDeletedFileScan(bool deleted, bool signatures) {
  if (!selectedPTVolume_) return;
  scanKind_ = ScanKind::DeletedFiles;
  showPage(Page::TreeProg);
  setBar(Control::TreeProgBar, Bar{0, 100, 0, false});
  ui_.setEnabled(Control::StopTree, true);
  auto volume = selectedPTVolume_;
  volume->setStopTreeThread(false);
  auto sigs = sigSelArray_;
  auto searchDeletedFiles = options_.searchDeletedFiles;
  startWorker([this, volume, sigs, deleted, signatures, searchDeletedFiles] {
    SleepScope awake(*this);
    std::vector<const Sig*> selected;
    for (const auto& s : sigs) selected.push_back(s.get());
    volume->readErrors.clear();
    if (volume->volumeScanType == 3) {
      SignatureSearch search(*volume, selected);
      search.signatureSearchDisk();
    } else {
      if (deleted && searchDeletedFiles) {
        searchDeletedFiles(*volume, this);
        volume->treeScanMode = 1;
      }
      if (signatures && !volume->stopTreeThread.load()) {
        std::string error;
        if (prepareVolumeForSignatureSearch(*volume, error)) {
          SignatureSearch search(*volume, selected);
          search.signatureSearch();
          volume->treeScanMode = 0;
        } else {
          alert("! Error", "The signature search could not start: " + error + ".", {"OK"});
        }
      }
    }
    if (!volume->dirRoot) makeBareRoot(*volume);  // nothing was searched: the root alone
    ProgressReport done{{progress::kProgressStatus, fmt::format("Tree Completed for {} on drive {} {} {}",
                                                                volume->volumeName, volume->model, volume->serial,
                                                                volume->revision)},
                        {progress::kTreeComplete, true},
                        {progress::kBarDoubleValue, uint64_t{0}}};
    if (volume->readErrors.any()) done.set(progress::kReadErrors, volume->readErrors.summary());
    updateProgress(done);
  });
}

}  // namespace ambrel
