#pragma once
// Folder links (the folder aliases a backup drive keeps for every unchanged
// folder of every snapshot) make the recovered tree a graph. The linked
// folder stays once in memory; walks that show or save what a link stands
// for go through it here, bounded against links that lead back.
#include <cstddef>
#include <functional>
#include <string>
#include <unordered_set>

#include "tree/HDIR.h"

namespace ambrel {

// Folder links followed inside one another before a walk stops going deeper.
inline constexpr size_t kMaxLinkDepth = 64;

// The folder a folder link shows, or nullptr (not a link, target gone).
const HDIR* linkedFolder(const HDIR& entry);
// Whose children stand at `entry`'s place: the link's folder, else itself.
const HDIR& contentsOf(const HDIR& entry);

// Pre-order over `top` and below like forEachWithPath, a folder link's
// folder's children listed below the link. visit(entry, pathName) returns
// whether to go in. A link whose folder is already open above it, or that
// lies kMaxLinkDepth links deep, is visited but not entered: refused(entry,
// pathName) hears of it.
void forEachThroughLinks(const HDIR& top, const std::function<bool(const HDIR&, const std::string&)>& visit,
                         const std::function<void(const HDIR&, const std::string&)>& refused);

// The two private metadata folders at the root of a volume: hard-linked
// files' content (iNodeN) and linked folders (dir_N) live there.
extern const std::string kPrivateDataName;
extern const std::string kPrivateDirectoryName;

// The entries directly inside the private folders of `root` (and a private
// folder itself when all its entries are among them) whose content a link
// outside those folders reaches: saving them again there would only repeat
// what is saved at each link. Entries no such link reaches (their links were
// lost) are not among them.
std::unordered_set<const HDIR*> linkedPrivateEntries(const HDIR& root);

}  // namespace ambrel
