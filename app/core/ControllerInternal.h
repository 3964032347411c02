#pragma once
// What the controller's source files share and nobody else sees.
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "core/AppController.h"
#include "hfs/Volume.h"
#include "scaninfo/ScanInfoDrive.h"
#include "scaninfo/VolumeScanInfo.h"

namespace ambrel {

// The worker running on this thread, if any: the page epoch it belongs to and
// the lists a volume search fills (read on the worker's own thread when a
// report hands them over).
struct AppController::WorkerContext {
  uint64_t epoch = 0;
  PlistArray* rows = nullptr;
  PlistArray* volumes = nullptr;
};

struct AppController::FindState {
  std::mutex mutex;
  std::condition_variable stopped;
  bool running = false;  // findThreadRunning
  std::atomic<bool> abort{false};  // findThreadAbort
};

struct AppController::PreviewState {
  std::shared_ptr<Volume> volume;
  HDIR* entry = nullptr;  // previewHDir
  std::vector<uint8_t> data;  // previewData
  PreviewKind supportedFileType = PreviewKind::Text;
  bool requestPending = false;
  bool threadRunning = false;
  std::shared_ptr<std::atomic<bool>> threadAbort = std::make_shared<std::atomic<bool>>(false);
  uint64_t request = 0;  // which load a notification belongs to
};

// A scan info file read on its worker, with the drive it belongs to.
struct AppController::Opened {
  OpenScanInfoResult result;
  ScanInfoDriveCheck check;
  PlistDict foundDrive;  // the drive (or volume) dictionary that matched
};

}  // namespace ambrel
