// `drives`: the drives and HFS+ volumes of this machine, as the first page
// lists them; with --watch, the changes as devices come and go.
#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>

#include "base/ProgressReport.h"
#include "cli/VolumeSelect.h"
#include "media/DeviceAccess.h"
#include "media/DriveList.h"
#include "media/DriveWatcher.h"

namespace ambrel::cli {

namespace {

struct DrivesOptions {
  bool json = false;
  bool watch = false;
};

// The drive lists with the devices that could not be opened.
struct Listing {
  DriveLists lists;
  std::vector<std::pair<std::string, int>> unreadable;  // path and errno, in list order, each once
};

Listing buildListing(const DiscoveryRoots& roots) {
  Listing l;
  std::map<std::string, int> failed;
  // Headers of mounted volumes are read as the list is built; note who refused.
  SectorReader reader = [&](const std::string& path, uint64_t sector, uint8_t* buffer) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
      failed.emplace(path, errno);
      return false;
    }
    const bool ok = ::pread(fd, buffer, 512, static_cast<off_t>(sector * 512)) >= 0;
    ::close(fd);
    return ok;
  };
  l.lists = initialDriveList(roots, reader);
  for (const PlistArray* list : {&l.lists.driveDictArray, &l.lists.volumeDictArray}) {
    for (const auto& item : *list) {
      const std::string path = item.dict()->string("device path");
      const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
      if (fd >= 0) ::close(fd);
      else failed.emplace(path, errno);
    }
  }
  for (const PlistArray* list : {&l.lists.driveDictArray, &l.lists.volumeDictArray})
    for (const auto& item : *list)
      if (auto it = failed.find(item.dict()->string("device path")); it != failed.end()) l.unreadable.push_back(*it);
  return l;
}

// "?" for a mounted volume whose header could not be read.
std::string journalText(const PlistDict& v) {
  const std::string j = v.string("Journaled");
  if (j == "Yes") return "Journaled";
  if (j == "No") return "-";
  return v.string("Volume Name", "-") != "-" ? "?" : "-";
}

std::vector<std::string> driveColumns(const PlistDict& d) {
  return {d.string("device path"), driveModelText(d), driveSerialText(d), sizeText(d.u64("device size"))};
}

std::vector<std::string> volumeColumns(const PlistDict& v) {
  return {v.string("device path"), v.string("Volume Name", "-"), fileSystemText(v.string("Content")),
          sizeText(v.u64("device size")), journalText(v)};
}

std::string joined(const std::vector<std::string>& columns) { return fmt::format("{}", fmt::join(columns, "  ")); }

// Columns as wide as their widest cell, two spaces apart.
void printTable(const std::vector<std::string>& header, const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths(header.size(), 0);
  for (size_t i = 0; i < header.size(); ++i) widths[i] = header[i].size();
  for (const auto& r : rows)
    for (size_t i = 0; i < r.size() && i < widths.size(); ++i) widths[i] = std::max(widths[i], r[i].size());
  auto line = [&](const std::vector<std::string>& cells) {
    std::string text;
    for (size_t i = 0; i < cells.size(); ++i)
      text += i + 1 < cells.size() ? fmt::format("{:<{}}  ", cells[i], widths[i]) : cells[i];
    fmt::print("{}\n", text);
  };
  line(header);
  for (const auto& r : rows) line(r);
}

void printText(const Listing& l) {
  std::vector<std::vector<std::string>> drives, volumes;
  for (const auto& d : l.lists.driveDictArray) drives.push_back(driveColumns(*d.dict()));
  for (const auto& v : l.lists.volumeDictArray) volumes.push_back(volumeColumns(*v.dict()));
  printTable({"Device", "Drives", "Serial", "Size"}, drives);
  if (drives.empty()) fmt::print("(no drives)\n");
  fmt::print("\n");
  printTable({"Device", "Volumes", "File System", "Size", "Journal"}, volumes);
  if (volumes.empty()) fmt::print("(no HFS+ or HFSX volumes)\n");
}

PlistDict jsonOf(const Listing& l) {
  PlistArray unreadable;
  for (const auto& [path, error] : l.unreadable) unreadable.push_back(path);
  return PlistDict{{"drives", l.lists.driveDictArray},
                   {"volumes", l.lists.volumeDictArray},
                   {"unreadable", unreadable}};
}

// Why devices could not be opened: the access hint once for all refused
// ones, the reason for each of the others.
void printAccessNote(const Listing& l) {
  std::vector<std::string> denied;
  for (const auto& [path, error] : l.unreadable) {
    if (error == EACCES || error == EPERM) denied.push_back(path);
    else fmt::print(stderr, "ambrel-cli: {}\n", openFailureText(path, error));
  }
  if (denied.empty()) return;
  std::string hint = deviceAccessHint(denied.front());
  if (hint.empty()) hint = "Check the permissions of these paths.";
  fmt::print(stderr, "ambrel-cli: cannot read {}: access denied. {}\n", fmt::join(denied, ", "), hint);
}

// The rows that differ between two lists, keyed by device path.
void printChanges(const PlistArray& before, const PlistArray& now, const char* kind,
                  const std::function<std::vector<std::string>(const PlistDict&)>& row) {
  auto find = [](const PlistArray& list, const std::string& path) -> const PlistDict* {
    for (const auto& item : list)
      if (item.dict()->string("device path") == path) return item.dict();
    return nullptr;
  };
  for (const auto& item : before) {
    const PlistDict& d = *item.dict();
    if (!find(now, d.string("device path"))) fmt::print("- {} {}\n", kind, joined(row(d)));
  }
  for (const auto& item : now) {
    const PlistDict& d = *item.dict();
    const PlistDict* old = find(before, d.string("device path"));
    if (!old) fmt::print("+ {} {}\n", kind, joined(row(d)));
    else if (!(*old == d)) fmt::print("~ {} {}\n", kind, joined(row(d)));
  }
}

int watch(const DrivesOptions& opt, const DiscoveryRoots& roots, Listing current) {
  // Ctrl-C is taken by sigwait below, on this thread alone.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  std::mutex mutex;
  DriveWatcher watcher(roots, [&](DriveWatcher::Cause cause) {
    Listing next = buildListing(roots);
    std::lock_guard lock(mutex);
    if (opt.json) {
      PlistDict out = jsonOf(next);
      out.set("change", driveChangeName(cause));
      fmt::print("{}\n", PlistValue(out).toJson());
    } else {
      fmt::print("Change ({}):\n", driveChangeName(cause));
      printChanges(current.lists.driveDictArray, next.lists.driveDictArray, "drive", driveColumns);
      printChanges(current.lists.volumeDictArray, next.lists.volumeDictArray, "volume", volumeColumns);
    }
    std::fflush(stdout);
    current = std::move(next);
  }, DriveWatcherTiming{});
  watcher.LaunchThread();
  std::vector<std::string> how;
  if (!watcher.monitorSource().empty()) how.push_back(fmt::format("udev monitor, \"{}\" source", watcher.monitorSource()));
  if (watcher.pollsMountInfo()) how.push_back("mount list");
  if (watcher.rescans())
    how.push_back(fmt::format("rescanning every {} ms", DriveWatcherTiming{}.rescanInterval.count()));
  fmt::print(stderr, "ambrel-cli: watching for drives ({}); Ctrl-C ends\n", fmt::join(how, ", "));
  int received = 0;
  sigwait(&signals, &received);
  watcher.stop();
  return 0;
}

int runDrives(const DrivesOptions& opt) {
  const DiscoveryRoots roots = discoveryRootsFromEnvironment();
  Listing listing = buildListing(roots);
  if (opt.json) fmt::print("{}\n", PlistValue(jsonOf(listing)).toJson());
  else printText(listing);
  printAccessNote(listing);
  std::fflush(stdout);
  if (!opt.watch) return 0;
  return watch(opt, roots, std::move(listing));
}

}  // namespace

void registerDriveCommands(CLI::App& app, std::function<int()>& run) {
  static DrivesOptions opt;
  auto* cmd = app.add_subcommand("drives", "List this machine's drives and HFS+/HFSX volumes");
  cmd->add_flag("--json", opt.json, "Print the drive and volume dictionaries as JSON");
  cmd->add_flag("--watch", opt.watch, "Keep running and print the changes as drives come and go (Ctrl-C ends)");
  cmd->callback([&run] { run = [] { return runDrives(opt); }; });
}

}  // namespace ambrel::cli
