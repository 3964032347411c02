// Preview: the checks, the kind of preview by the front end's lists, loading
// on a worker, and a second request that replaces a running load.
#include "core/ControllerInternal.h"

namespace ambrel {

void AppController::preview() {
  if (page_ != Page::Tree || !selectedPTVolume_ || !selectedTreeItem_ || selectedTreeItem_->fileType != kHDIRFile ||
      !scanInfoOrSavingNotProcessing_)
    return;
  if (driveNotConnected_) {
    ask({kDriveNotConnectedTitle, kDriveNotConnectedMessage});
    return;
  }
  if (volumeNotConnected_) {
    ask({kVolumeNotMountedTitle, volumeNotMountedMessage(selectedPTVolume_->volumeName)});
    return;
  }
  Volume& v = *selectedPTVolume_;
  if (!v.scanInfoSaved && !v.previewWarningShown) {
    const int choice =
        ask({"Information",
             "It is strongly recommended to save \u201Cscan information\u201D before proceeding further. Though every care "
             "has been taken to avoid unexpected errors, large corrupted files might cause software to become unstable "
             "and delay the preview display. Saving \u201Cscan information\u201D would be helpful to reload the tree which "
             "avoids rescanning the drive in unstable conditions or if any unexpected errors occur.",
             {"Go Back", "Preview"}});
    v.previewWarningShown = true;
    if (choice == 0) return;
  }
  PreviewState& p = *preview_;
  if (p.threadRunning) {
    // The running load is stopped; its end starts this one.
    p.requestPending = true;
    p.threadAbort->store(true);
    return;
  }
  previewSmall();
}

void AppController::previewSmall() {
  HDIR* entry = selectedTreeItem_;
  if (!entry || !selectedPTVolume_) return;
  PreviewState& p = *preview_;
  p.requestPending = false;
  p.entry = entry;
  p.volume = selectedPTVolume_;
  p.data.clear();
  ui_.showPreviewWindow(std::string(entry->fileName()), fileExtension(std::string(entry->fileName())));
  ui_.setText(Control::PreviewFileName, std::string(entry->fileName()));
  p.supportedFileType = previewKindFor(std::string(entry->fileName()), ui_.imageFileTypes(), ui_.movieFileTypes());
  if (p.supportedFileType == PreviewKind::Text) {
    previewText();
    return;
  }
  ui_.showPreviewLoading();
  p.threadRunning = true;
  p.threadAbort = std::make_shared<std::atomic<bool>>(false);
  const uint64_t request = ++p.request;
  auto volume = selectedPTVolume_;
  auto abort = p.threadAbort;
  startWorker([this, volume, entry, abort, request] {
    auto data = std::make_shared<std::vector<uint8_t>>();
    const PreviewLoad load = getPreviewData(previewSourceOf(*volume), *entry, *abort, *data);
    // Not tied to the page: the load's end must be noted even when the tree has gone.
    courier_.send([this, request, data, load] { previewDataLoaded(request, data, load); }, false);
  });
}

void AppController::previewDataLoaded(uint64_t request, std::shared_ptr<std::vector<uint8_t>> data, PreviewLoad load) {
  PreviewState& p = *preview_;
  if (request != p.request || terminated_.load()) return;
  p.threadRunning = false;
  // previewAfterThreadAbort: the request that stopped this load, whether or
  // not the load had already read everything when it was asked to stop.
  if (p.requestPending) {
    if (page_ == Page::Tree && selectedPTVolume_) previewSmall();
    return;
  }
  if (load == PreviewLoad::Aborted) return;
  // A failed read has told the user and closed the window already.
  if (load == PreviewLoad::ReadFailed || page_ != Page::Tree || p.volume != selectedPTVolume_ ||
      !ui_.previewWindowVisible())
    return;
  p.data = std::move(*data);
  if (p.supportedFileType == PreviewKind::Image) previewImage();
  else previewMovie();
}

void AppController::previewText() {
  PreviewState& p = *preview_;
  p.threadRunning = false;
  p.requestPending = false;
  p.threadAbort->store(false);
  if (!p.entry || !p.volume) return;
  ui_.showPreviewPage(PreviewPage::Text);
  auto text = ambrel::previewText(previewSourceOf(*p.volume), *p.entry);
  if (!text) return;  // the reader has said why and closed the window
  ui_.setText(Control::PreviewText, *text);
}

void AppController::previewImage() {
  ui_.showPreviewPage(PreviewPage::Image);
  if (!ui_.showPreviewImage(preview_->data)) previewText();
}

void AppController::previewMovie() {
  PreviewState& p = *preview_;
  if (!p.entry) return;
  ui_.showPreviewPage(PreviewPage::Movie);
  ui_.setText(Control::MovieName, std::string(p.entry->fileName()));
  ui_.setText(Control::MovieSizeLoaded, loadedPercentText(p.data.size(), p.entry->dataSize));
  const MovieInfo movie = ui_.showPreviewMovie(p.data, "abc." + fileExtension(std::string(p.entry->fileName())));
  if (movie.playable) {
    ui_.setText(Control::MovieStatus, "Click the Play button");
    ui_.setText(Control::MovieDuration, "Duration: " + movie.duration.substr(0, movie.duration.find('.')));
  } else {
    ui_.setText(Control::MovieStatus, "!Error: could not initialize");
    ui_.setText(Control::MovieDuration, "");
  }
  if (p.data.size() >= 3 && p.data[0] == 'I' && p.data[1] == 'D' && p.data[2] == '3') {
    if (auto picture = id3Picture(p.data.data(), p.data.size())) {
      const auto from = p.data.begin() + static_cast<std::ptrdiff_t>(picture->offset);
      ui_.showPreviewPoster(std::vector<uint8_t>(from, from + static_cast<std::ptrdiff_t>(picture->length)),
                            picture->mimeType);
    }
  }
}

void AppController::previewCloseNow() {
  PreviewState& p = *preview_;
  if (p.threadRunning) {
    p.requestPending = false;
    p.threadAbort->store(true);
  }
  p.data.clear();
  p.entry = nullptr;
  ui_.closePreviewWindow();
}

}  // namespace ambrel
