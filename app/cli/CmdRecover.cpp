// `recover`: scan a volume (or open a scan info file), mark what the patterns
// select, and save it under a folder.
#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <fnmatch.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>

#include "cli/CliController.h"
#include "cli/FilterOptions.h"
#include "cli/TerminalText.h"
#include "cli/VolumeSelect.h"
#include "core/SaveFlow.h"
#include "output/RecoveryReport.h"
#include "output/Saver.h"
#include "media/DriveFinder.h"
#include "media/DriveList.h"
#include "scaninfo/ScanInfoDrive.h"
#include "scaninfo/VolumeScanInfo.h"
#include "tree/CheckController.h"

namespace ambrel::cli {

namespace {

struct RecoverOptions {
  VolumeChoice choice;
  bool advanced = false;
  std::string out;
  std::vector<std::string> patterns;
  std::string drivePath;
  std::string report;
  FilterChoice filter;
};

std::atomic<Saver*> gSaving{nullptr};

extern "C" void stopSaving(int) {
  if (Saver* s = gSaving.load()) s->abort();
}

// Marks exactly the entries whose listed path (as `tree` prints it) matches
// a pattern, a folder with its whole subtree; marks an opened scan info file
// brought along are cleared first. Returns how many entries matched.
size_t markMatching(HDIR& root, const std::vector<std::string>& patterns) {
  HDIR::clearMarks(root);
  if (patterns.empty()) {
    CheckController(&root, true).run();
    return 1;
  }
  size_t matched = 0;
  forEachWithPath(root, [&](HDIR& e, const std::string& pathName) {
    std::string path = pathName + "/";
    path += e.fileName();
    for (const auto& p : patterns) {
      if (::fnmatch(p.c_str(), path.c_str(), 0) == 0) {
        CheckController(&e, true).run();
        ++matched;
        // Everything below is marked with it.
        return e.childrenCount() <= 0;
      }
    }
    return true;
  });
  return matched;
}

// A volume from a scan info file, reading from the drive the file was made
// from: the drive at `drivePath` when given, else the one at the recorded
// path or any attached drive with the same first sectors, model and serial
// (for a volume device: the mounted volume of the same name and size).
std::unique_ptr<Volume> volumeFromScanInfo(const std::string& path, const std::string& drivePath,
                                           CliController& controller) {
  auto result = openScanInfo(path, &controller);
  fmt::print(stderr, "\n");
  if (!result.opened) {
    fmt::print(stderr, "ambrel-cli: {}: {}\n", result.error.title, terminalText(result.error.message));
    return nullptr;
  }
  auto volume = std::move(result.opened->volume);
  const DiscoveryRoots roots = discoveryRootsFromEnvironment();
  PlistArray candidates;
  std::string error;
  if (volume->volumeScanType == 2) {
    const DriveLists lists = initialDriveList(roots);
    const std::string wanted = drivePath.empty() ? std::string() : absolutePath(drivePath);
    for (const auto& v : lists.volumeDictArray)
      if (wanted.empty() || v.dict()->string("device path") == wanted) candidates.push_back(v);
  } else if (!drivePath.empty()) {
    PlistDict drive = driveDictionaryWithIdentity(drivePath, error, roots);
    if (drive.empty()) {
      fmt::print(stderr, "ambrel-cli: {}\n", error);
      return nullptr;
    }
    candidates.push_back(std::move(drive));
  } else {
    // Where the file says first, then every attached drive.
    if (PlistDict recorded = driveDictionaryWithIdentity(volume->path, error, roots); !recorded.empty())
      candidates.push_back(std::move(recorded));
    for (const auto& d : initialDriveList(roots).driveDictArray) candidates.push_back(d);
  }
  const ScanInfoDriveCheck check = checkScanInfoDrive(*volume, result.opened->first5Sectors, candidates);
  if (!check.found) {
    if (volume->volumeScanType == 2)
      fmt::print(stderr, "ambrel-cli: {}: {}\n", kVolumeNotMountedTitle, terminalText(volumeNotMountedMessage(volume->volumeName)));
    else
      fmt::print(stderr, "ambrel-cli: {}: {} (recorded drive: {}{})\n", kDriveNotConnectedTitle,
                 kDriveNotConnectedMessage, terminalText(check.previousPath),
                 drivePath.empty() ? "; --drive PATH names the drive under a new path" : "; given: " + drivePath);
    return nullptr;
  }
  if (check.repointed)
    fmt::print(stderr, "ambrel-cli: the drive of this scan info file, recorded as {}, is read from {}\n",
               terminalText(check.previousPath), terminalText(volume->path));
  controller.setDrives(PlistArray{candidates[static_cast<size_t>(check.index)]});
  return volume;
}

int runRecover(RecoverOptions& opt) {
  std::string filterError;
  const auto filter = filterFromChoice(opt.filter, "--min-size", "--max-size", filterError);
  if (!filter) {
    fmt::print(stderr, "ambrel-cli: {}\n", filterError);
    return 2;
  }
  CliController controller;
  std::unique_ptr<Volume> volume;
  if (isScanInfoPath(opt.choice.path)) {
    volume = volumeFromScanInfo(opt.choice.path, opt.drivePath, controller);
    if (!volume) return 2;
  } else {
    std::string error;
    volume = openVolume(opt.choice, controller, error);
    if (!volume) {
      fmt::print(stderr, "ambrel-cli: {}\n", error);
      return 2;
    }
    switch (runScan(*volume, controller, opt.advanced)) {
      case ScanOutcome::Stopped:
        fmt::print(stderr, "ambrel-cli: scan stopped; nothing saved\n");
        return 130;
      case ScanOutcome::NothingUsable:
        fmt::print(stderr, "ambrel-cli: no usable volume structures found; try --advanced\n");
        return readOutcome(*volume, controller, kExitFailed, "that may be why");
      case ScanOutcome::DriveGone:
        return kExitDriveGone;
      case ScanOutcome::Done:
        break;
    }
  }

  if (markMatching(*volume->dirRoot, opt.patterns) == 0) {
    fmt::print(stderr, "ambrel-cli: no recovered entry matches the --select patterns\n");
    return 1;
  }
  const FilteredTree filtered(*volume->dirRoot, *filter);
  unmarkFilteredOut(*volume->dirRoot, filtered);
  if (filter->active() && volume->dirRoot->childrenSelected() == 0) {
    fmt::print(stderr, "ambrel-cli: no file passes the size and name filters\n");
    return 1;
  }
  const MarkedCount marked = countMarkedDataAndFiles(*volume->dirRoot);
  fmt::print(stderr, "Marked: {}\n", markedDataText(marked));

  // Checked where the folder will be, and made only once everything passed.
  const DestinationCheck check = checkSaveDestination(*volume->dirRoot, opt.out);
  if (check.refusal) {
    fmt::print(stderr, "ambrel-cli: {}: {} ({} needed, {} free in {})\n", check.refusal->title, check.refusal->message,
               sizeText(check.needed), sizeText(check.info.freeBytes), terminalText(check.probed));
    return 2;
  }
  std::error_code ec;
  if (!std::filesystem::exists(opt.out, ec) && (!std::filesystem::create_directories(opt.out, ec) || ec)) {
    fmt::print(stderr, "ambrel-cli: ! Can not save: the folder {} could not be made: {}\n", terminalText(opt.out),
               ec.message());
    return 2;
  }

  std::unique_ptr<RecoveryReport> report;
  Saver::Options options;
  options.filter = &filtered;
  if (!opt.report.empty()) {
    report = std::make_unique<RecoveryReport>(opt.report, *volume, "ambrel-cli recover " + opt.choice.path);
    if (!report->ok()) {
      fmt::print(stderr, "ambrel-cli: the report {} could not be written: {}\n", terminalText(opt.report),
                 report->error());
      return 2;
    }
    options.onSaved = [&report](const SavedFile& f) { report->add(f); };
  }

  SleepScope awake(controller);
  Saver saver(*volume->dirRoot, saveSourceOf(*volume), &controller, options);
  gSaving.store(&saver);
  auto previous = std::signal(SIGINT, stopSaving);
  const SaveResult r = saver.saveFilesAndFolders(opt.out);
  std::signal(SIGINT, previous);
  gSaving.store(nullptr);

  printSaveResult(r, opt.out);
  if (report) {
    if (!report->finish(r)) {
      fmt::print(stderr, "ambrel-cli: the report {} could not be written: {}\n", terminalText(opt.report),
                 report->error());
      return kExitFailed;
    }
    fmt::print(stderr, "Report: {} ({} files)\n", terminalText(opt.report), report->filesListed());
  }
  if (r.aborted) return kExitStopped;
  if (volume->isGone()) return kExitDriveGone;
  if (r.failedCreates + r.failedWrites + r.damagedCompressed > 0) return kExitFailed;
  // Read failures alone, while scanning or saving, have a status of their own.
  return readOutcome(*volume, controller, r.failedReads ? kExitReadErrors : kExitDone,
                     "entries there may be missing from what was saved");
}

}  // namespace

void registerRecoverCommands(CLI::App& app, std::function<int()>& run) {
  static RecoverOptions opt;
  auto* cmd = app.add_subcommand("recover", "Scan a volume (or open a scan info file) and save the selected entries");
  addVolumeOptions(*cmd, opt.choice, "Drive, disk image or bare volume image, or a scan info file (.asi)");
  cmd->add_flag("--advanced", opt.advanced, "Advanced scan: also search the volume for catalog nodes");
  cmd->add_option("--out", opt.out, "Folder to save into (made when missing)")->required();
  cmd->add_option("--select", opt.patterns,
                  "Save the entries whose path, as the tree command lists it, matches this shell pattern "
                  "(repeatable; default: everything)");
  cmd->add_option("--drive", opt.drivePath,
                  "With a scan info file: the drive (or image) it was made from, now under this path; it must hold "
                  "the same first sectors, model and serial");
  cmd->add_option("--report", opt.report,
                  "Also write a DFXML report of every file saved (sizes, dates, byte runs on the drive, MD5, "
                  "SHA-1, where it was found) and of what the scan met");
  addFilterOptions(*cmd, opt.filter, "--min-size", "--max-size");
  cmd->callback([&run] { run = [] { return runRecover(opt); }; });
}

}  // namespace ambrel::cli
