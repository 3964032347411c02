#pragma once
// Which files a listing or a save keeps: a size range and name patterns.
// A folder (or a folder link) is kept when something below it is kept, so
// a filtered listing or save shows each kept file at its own path and no
// folder that holds none of them.
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "tree/HDIR.h"

namespace ambrel {

struct EntryFilter {
  std::optional<uint64_t> minSize;  // bytes, inclusive
  std::optional<uint64_t> maxSize;  // bytes, inclusive
  // Shell patterns (fnmatch) on a file's name; any one matching is enough.
  std::vector<std::string> names;
  // Extensions without the dot, any case ("jpg"); any one matching is enough.
  std::vector<std::string> extensions;
  // HFS+ names are usually case-insensitive, so patterns are by default too.
  bool matchCase = false;

  bool active() const { return minSize || maxSize || !names.empty() || !extensions.empty(); }
  // Whether a file passes on its own (its size is fileSize, for a
  // compressed file the uncompressed size). Folders are not tested here.
  bool passes(const HDIR& file) const;
};

// "1234", "1234B", "500KB", "1.5MB", "2GB", "1TB" (powers of 1000, any case)
// in bytes; nullopt when the text is not such a size.
std::optional<uint64_t> parseSizeText(const std::string& text);

// "jpg,.PDF, png" into {"jpg", "pdf", "png"}.
std::vector<std::string> parseExtensionList(const std::string& text);

// A filter applied to one tree: which entries it keeps, decided once for
// the whole tree (folder links included, however they nest or loop).
class FilteredTree {
 public:
  FilteredTree(const HDIR& root, EntryFilter filter);

  // Always true when the filter is not active. The root is always kept.
  bool keeps(const HDIR& entry) const;
  const EntryFilter& filter() const { return filter_; }

 private:
  EntryFilter filter_;
  const HDIR* root_;
  std::unordered_set<const HDIR*> kept_;
};

// Unmarks every entry below `root` the filter does not keep (the marks of
// folders left with nothing marked below go with them), so that counts and
// space checks made from the marks see only what will be saved.
void unmarkFilteredOut(HDIR& root, const FilteredTree& filtered);

}  // namespace ambrel
