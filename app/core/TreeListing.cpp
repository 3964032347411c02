#include "core/TreeListing.h"

#include <fmt/format.h>

#include <ctime>
#include <vector>

#include "base/PlistValue.h"
#include "base/Text.h"
#include "tree/Links.h"

namespace ambrel {

namespace {

constexpr int64_t kHfsToUnix = 2082844800;

const char* const kColumns[] = {"path",     "type",      "fileID",  "parentID", "fileSize",    "dataSize",  "rscSize",
                                "fileCount", "created", "modified", "dataExtents", "rscExtents", "confidence"};

std::string extentsText(const std::vector<Extent>& extents) {
  std::string out;
  for (const Extent& e : extents) {
    if (!out.empty()) out += ',';
    out += fmt::format("{}+{}", e.startBlock, e.blockCount);
  }
  return out;
}

// TSV cells cannot hold tabs or line breaks, and a listing must not carry a
// name's control characters to a terminal: those are escaped, and so is the
// backslash that starts an escape.
std::string tsvCell(const std::string& text) { return escapedControls(text, true); }

}  // namespace

std::string hfsDateText(uint32_t hfsSeconds) {
  if (hfsSeconds == 0) return {};
  const std::time_t t = static_cast<std::time_t>(int64_t{hfsSeconds} - kHfsToUnix);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buf;
}

void writeTreeListing(const HDIR& root, ListingFormat format, std::FILE* out, const FilteredTree* filter) {
  const bool json = format == ListingFormat::Json;
  if (json) {
    fmt::print(out, "[");
  } else {
    for (size_t i = 0; i < std::size(kColumns); ++i) fmt::print(out, "{}{}", i ? "\t" : "", kColumns[i]);
    fmt::print(out, "\n");
  }
  bool first = true;
  // A folder link lists its folder's entries below it; one that leads back is listed, not entered.
  forEachThroughLinks(root, [&](const HDIR& entry, const std::string& pathName) {
    if (filter && !filter->keeps(entry)) return false;
    const HDIR* e = &entry;
    const std::string path = pathName + "/" + e->fileName();
    const char* type = e->linkKind == LinkKind::Symlink  ? "symlink"
                       : e->linkKind == LinkKind::Folder ? (e->isFolder() ? "folderlink" : "file")
                       : e->isFolder()                   ? "folder"
                                                         : "file";
    // Only a file's content can be uncertain.
    const char* confidence = e->fileType == kHDIRFolder ? "" : confidenceText(e->confidence);
    if (json) {
      fmt::print(out, "{}\n{{\"path\":{},\"type\":\"{}\",\"fileID\":{},\"parentID\":{},\"fileSize\":{},\"dataSize\":{},"
                 "\"rscSize\":{},\"fileCount\":{},\"created\":{},\"modified\":{},\"dataExtents\":{},\"rscExtents\":{},"
                 "\"confidence\":{}}}",
                 first ? "" : ",", jsonQuote(path), type, e->fileID, e->parentID, e->fileSize, e->dataSize, e->rscSize,
                 e->fileCount, jsonQuote(hfsDateText(e->createDate)), jsonQuote(hfsDateText(e->modDate)),
                 jsonQuote(extentsText(e->dataExt)), jsonQuote(extentsText(e->rscExt)), jsonQuote(confidence));
    } else {
      fmt::print(out, "{}\t{}\t{}\t{}\t{}\t{}\t{}\t{}\t{}\t{}\t{}\t{}\t{}\n", tsvCell(path), type, e->fileID,
                 e->parentID, e->fileSize, e->dataSize, e->rscSize, e->fileCount, hfsDateText(e->createDate),
                 hfsDateText(e->modDate), extentsText(e->dataExt), extentsText(e->rscExt), confidence);
    }
    first = false;
    return true;
  }, [](const HDIR&, const std::string&) {});
  if (json) fmt::print(out, "\n]\n");
}

}  // namespace ambrel
