#include "core/SaveFlow.h"

#include <fmt/format.h>

#include <filesystem>

#include "hfs/Volume.h"

namespace ambrel {

namespace {

std::filesystem::path existingAncestor(const std::filesystem::path& path) {
  std::error_code ec;
  std::filesystem::path p = std::filesystem::absolute(path, ec);
  if (ec) p = path;
  while (!p.empty() && !std::filesystem::exists(p, ec)) {
    if (p == p.parent_path()) break;
    p = p.parent_path();
  }
  return p;
}

}  // namespace

DestinationCheck checkSaveDestination(const HDIR& root, const std::string& destination, const FilteredTree* filter) {
  DestinationCheck check;
  check.probed = existingAncestor(destination).string();
  check.info = destinationInfo(check.probed);
  check.needed = bytesToWrite(root, check.info.blockBytes, filter);
  // Not a folder (a file in the way): there is no free space to ask about.
  const Alert notWritable{"! Can not save", "The volume chosen to save data to, is not writable."};
  if (!check.info.exists)
    check.refusal = notWritable;
  else if (check.info.freeBytes < check.needed)
    check.refusal = Alert{"! Not enough free disk space",
                          "The volume you have chosen to save data does not have enough free space available."};
  else if (!check.info.writable)
    check.refusal = notWritable;
  return check;
}

std::vector<std::string> scanNotes(const Volume& volume) {
  std::vector<std::string> notes;
  if (volume.compressedUnreadable)
    notes.push_back(fmt::format(
        "{} files marked compressed have no usable compression attribute; they are listed as stored.",
        volume.compressedUnreadable));
  if (volume.foreignNodesSkipped)
    notes.push_back(fmt::format("{} catalog nodes found inside files of this volume (disk images) were left out: "
                                "their blocks are another volume's.",
                                volume.foreignNodesSkipped));
  return notes;
}

}  // namespace ambrel
