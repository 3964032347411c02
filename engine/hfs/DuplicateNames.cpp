// Suggested names for duplicates, and removal of folders without file data.
#include <fmt/format.h>

#include "hfs/Volume.h"

namespace ambrel {

std::string Volume::suggestedRepeatFileName(std::string_view name, HDIR* dir) const {
  HDIR* first = dir ? dir->firstChildNamed(name) : nullptr;
  if (!first) return std::string(name);
  const int64_t repeats = int64_t{first->nameRepeatCount} + 1;
  first->addToNameRepeatCount(1);
  const size_t lastDot = name.rfind('.');
  // Without a dot each step starts again from the name: one "_" however many.
  if (lastDot == std::string::npos) return std::string(name) + "_";
  // Each step puts one "_" before the last ".", so n steps put n there.
  std::string result(name.substr(0, lastDot));
  result.append(static_cast<size_t>(std::max<int64_t>(repeats, 0)), '_');
  result.append(name.substr(lastDot));
  return result;
}

void Volume::processDuplicateEntries() {
  const char* status = "Removing empty folders. This may take several minutes ...";
  report({{progress::kProgressStatus, status}, {progress::kProgressType, 0}, {progress::kStartAnimation, true}});
  if (dirRoot) removeZeroSizeFolders(dirRoot.get());
  report({{progress::kProgressStatus, status}, {progress::kStopAnimation, true}});
}

void Volume::subtractChildrenUp(HDIR* from, int32_t n) {
  for (HDIR* a = from; a; a = a->parent) a->subtractToChildrenCount(n);
}

void Volume::removeZeroSizeFolders(HDIR* dir) {
  if (!dir) return;
  // A folder's removals happen before its remaining children are visited, as
  // in the recursive form, but with an explicit stack and one compaction per
  // folder, so neither depth nor a million siblings costs more than linear.
  std::vector<HDIR*> pending{dir};
  while (!pending.empty()) {
    HDIR* d = pending.back();
    pending.pop_back();
    if (d->childrenCount() == 0) continue;
    int64_t removed = 0;
    d->removeChildrenIf([&](const HDIR& child) {
      if (stopTreeThread.load() || child.fileType != kHDIRFolder || child.fileSize != 0 ||
          child.linkKind == LinkKind::Folder) return false;
      removed += int64_t{child.childrenCount()} + 1;
      // The lost folders may go too; nothing may point at them afterwards.
      if (&child == dirLostFiles) dirLostFiles = nullptr;
      if (&child == dirLostFolders) dirLostFolders = nullptr;
      return true;
    });
    if (removed) subtractChildrenUp(d, static_cast<int32_t>(removed));
    if (stopTreeThread.load()) return;
    for (size_t i = d->children().size(); i-- > 0;)
      if (d->childAtIndex(i)->childrenCount() > 0) pending.push_back(d->childAtIndex(i));
  }
}

}  // namespace ambrel
