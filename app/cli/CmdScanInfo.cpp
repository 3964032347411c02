// `scaninfo`: what a scan info file holds: its state and version, the
// volume it was made from, the partition list and the size of its tree.
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cstdio>
#include <functional>

#include "cli/TerminalText.h"
#include "scaninfo/ScanInfoFile.h"

namespace ambrel::cli {

namespace {

struct ScanInfoOptions {
  std::string path;
  bool json = false;
};

// The volume's archived keys, in the order they are archived.
PlistDict volumeKeys(const VolumeArchive& v) {
  PlistDict d;
  d.set("volumeScanType", int64_t{v.volumeScanType});
  if (v.volumeScanType == 2) {
    d.set("volumeName", v.volumeName);
    d.set("rootName", v.rootName);
    d.set("deletedFilesPath", v.deletedFilesPath);
    d.set("path", v.path);
    d.set("sizeInSect", v.sizeInSect);
  } else {
    d.set("startSector", v.startSector);
    d.set("volumeName", v.volumeName);
    d.set("rootName", v.rootName);
    d.set("scanMode", v.scanMode);
    d.set("lostFoldersPath", v.lostFoldersPath);
    d.set("lostFilesPath", v.lostFilesPath);
    d.set("lostFileName", v.lostFileName);
    d.set("deletedFilesPath", v.deletedFilesPath);
    d.set("deletedFileName", v.deletedFileName);
    d.set("path", v.path);
    d.set("model", v.model);
    d.set("serial", v.serial);
    d.set("revision", v.revision);
    d.set("sizeInSect", v.sizeInSect);
  }
  d.set("HPlusVolStart", v.HPlusVolStart);
  d.set("blockSize", int64_t{v.blockSize});
  return d;
}

const char* listTitle(int32_t type) {
  return type == 0 ? "Partition list" : "Volume-search list";
}

int runScanInfo(const ScanInfoOptions& opt) {
  auto result = readScanInfo(opt.path, nullptr);
  if (!result.contents) {
    fmt::print(stderr, "ambrel-cli: {}: {}\n", result.error.title, terminalText(result.error.message));
    return 1;
  }
  const ScanInfoContents& c = *result.contents;
  const int32_t type = c.info.volume.volumeScanType;
  const bool hasList = type == 0 || type == 1;
  uint64_t folders = 0, files = 0;
  std::vector<const HDIR*> stack{c.root.get()};
  while (!stack.empty()) {
    const HDIR* d = stack.back();
    stack.pop_back();
    if (d->fileType == kHDIRFolder) ++folders;
    else if (d->fileType == kHDIRFile) ++files;
    for (const auto& child : d->children()) stack.push_back(child.get());
  }

  if (opt.json) {
    PlistDict out{{"state", kScanInfoComplete}, {"version", kScanInfoVersion}, {"volume", PlistValue(volumeKeys(c.info.volume))}};
    if (hasList) out.set(type == 0 ? "partitionList" : "volumeSearchList", PlistValue(c.info.partitionList));
    out.set("driveSectorBytes", uint64_t{c.info.first5Sectors.size()});
    out.set("entries", c.entryCount);
    out.set("folders", folders);
    out.set("files", files);
    out.set("root", std::string(c.root->fileName()));
    fmt::print("{}\n", PlistValue(out).toJson());
    return 0;
  }
  fmt::print("File:     {}\n", terminalText(opt.path));
  fmt::print("State:    {}\n", kScanInfoComplete);
  fmt::print("Version:  {}\n", kScanInfoVersion);
  fmt::print("Volume:\n");
  for (const auto& [key, value] : volumeKeys(c.info.volume))
    fmt::print("  {:<17} {}\n", key, terminalText(value.describe()));
  if (hasList) {
    fmt::print("{}: {} {}\n", listTitle(type), c.info.partitionList.size(),
               c.info.partitionList.size() == 1 ? "entry" : "entries");
    size_t n = 0;
    for (const auto& item : c.info.partitionList) {
      fmt::print("  {}.", ++n);
      if (const PlistDict* d = item.dict()) {
        for (const auto& [key, value] : *d) fmt::print(" {}={}", terminalText(key), terminalText(value.describe()));
      } else {
        fmt::print(" {}", terminalText(item.describe()));
      }
      fmt::print("\n");
    }
  }
  fmt::print("Drive sectors: {}\n", c.info.first5Sectors.empty() ? std::string("none (a volume device)")
                                                                   : fmt::format("{} bytes", c.info.first5Sectors.size()));
  fmt::print("Tree:     {} entries ({} folders, {} files), root \"{}\"\n", c.entryCount, folders, files,
             terminalText(std::string(c.root->fileName())));
  return 0;
}

}  // namespace

void registerScanInfoCommands(CLI::App& app, std::function<int()>& run) {
  static ScanInfoOptions opt;
  auto* cmd = app.add_subcommand("scaninfo", "Show what a scan info file (.asi) holds: its volume, list and tree size");
  cmd->add_option("FILE", opt.path, "Scan info file")->required();
  cmd->add_flag("--json", opt.json, "Print a JSON object instead of text");
  cmd->callback([&run] { run = [] { return runScanInfo(opt); }; });
}

}  // namespace ambrel::cli
