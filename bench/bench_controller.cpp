// The tree page at 1,000,000 entries, through the controller as a front end
// drives it: a scan info file opened, a find matching every file, then
// "Mark All" and "Unmark All" over the matches. Each should take well under
// a second.
#include <benchmark/benchmark.h>

#include <fmt/format.h>

#include "BenchDir.h"
#include "controller/ScriptedUi.h"
#include "core/AppController.h"
#include "hfs/Volume.h"
#include "scaninfo/ScanInfoFile.h"

using namespace ambrel;

namespace {

constexpr uint32_t kFolders = 1000;
constexpr uint32_t kFilesPerFolder = 999;  // with the folders and the root: 1,000,001 entries

std::string writeBigScanInfo() {
  const auto path = bench::benchDir() / "million.asi";
  if (std::filesystem::exists(path)) return path.string();
  HDIR root;
  root.fileType = kHDIRFolder;
  root.fileID = kRootFolderID;
  root.setFileName("Root");
  uint32_t id = 16;
  for (uint32_t f = 0; f < kFolders; ++f) {
    auto folder = std::make_unique<HDIR>();
    folder->fileType = kHDIRFolder;
    folder->fileID = id++;
    folder->setFileName(fmt::format("folder{}", f));
    folder->parent = &root;
    HDIR* fp = root.addChild(std::move(folder));
    root.addToChildrenCount(1);
    for (uint32_t i = 0; i < kFilesPerFolder; ++i) {
      auto e = std::make_unique<HDIR>();
      e->fileType = kHDIRFile;
      e->fileID = id++;
      e->fileSize = e->dataSize = 1000;
      e->setFileName(fmt::format("report{}.doc", i));
      e->parent = fp;
      fp->addChild(std::move(e));
      for (HDIR* a = fp; a; a = a->parent) {
        a->addToChildrenCount(1);
        a->addToFileSize(1000);
      }
    }
  }
  ScanInfo info;
  info.volume.volumeScanType = 3;
  info.first5Sectors.assign(2560, 0);
  if (auto error = writeScanInfo(path.string(), info, root, nullptr)) {
    fmt::print(stderr, "cannot write {}: {}\n", path.string(), error->message);
    std::exit(1);
  }
  return path.string();
}

struct Opened {
  test::ScriptedUi ui;
  EventLoop loop;
  NoSleepInhibitor sleep;
  std::unique_ptr<AppController> app;

  Opened() {
    ControllerOptions options;
    options.watchDrives = false;
    options.listDrives = [] { return DriveLists{}; };
    app = std::make_unique<AppController>(ui, loop, sleep, std::move(options));
    app->start();
    app->openScanInfoFile(writeBigScanInfo());
    settle();
    app->find("DOC");
    settle();
  }
  void settle() {
    loop.runUntil([this] { return app->workersRunning() == 0 && loop.pending() == 0; }, std::chrono::minutes(10));
  }
};

void BM_MarkAllFound(benchmark::State& state) {
  Opened o;
  if (o.app->page() != Page::Tree || o.app->findCount() != int64_t{kFolders} * kFilesPerFolder) {
    state.SkipWithError("the scan info file did not open with every file found");
    return;
  }
  for (auto _ : state) {
    o.app->markAllFound();
    state.PauseTiming();
    if (o.app->markedFiles() != kFolders * kFilesPerFolder) state.SkipWithError("not every match was marked");
    o.app->unmarkAllFound();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * o.app->findCount());
}

void BM_UnmarkAllFound(benchmark::State& state) {
  Opened o;
  if (o.app->page() != Page::Tree || o.app->findCount() != int64_t{kFolders} * kFilesPerFolder) {
    state.SkipWithError("the scan info file did not open with every file found");
    return;
  }
  for (auto _ : state) {
    state.PauseTiming();
    o.app->markAllFound();
    state.ResumeTiming();
    o.app->unmarkAllFound();
    state.PauseTiming();
    if (o.app->markedFiles() != 0) state.SkipWithError("a match stayed marked");
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * o.app->findCount());
}

}  // namespace

BENCHMARK(BM_MarkAllFound)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_UnmarkAllFound)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_MAIN();
