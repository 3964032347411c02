#include "media/ReadErrors.h"

#include <fmt/format.h>

namespace ambrel {

std::string ReadErrors::summary() const {
  if (!any()) return {};
  auto counted = [](uint64_t n, const char* one, const char* many) { return fmt::format("{} {}", n, n == 1 ? one : many); };
  std::string text;
  if (sectors_) text = counted(sectors_, "sector", "sectors");
  if (nodes_) text += (text.empty() ? "" : " and ") + counted(nodes_, "B-tree node", "B-tree nodes");
  text += listed_.size() == 1 && !unlisted_ ? " could not be read (at sector " : " could not be read (at sectors ";
  for (size_t i = 0; i < listed_.size(); ++i) text += fmt::format("{}{}", i ? ", " : "", listed_[i]);
  if (unlisted_) text += ", ...";
  return text + ")";
}

}  // namespace ambrel
