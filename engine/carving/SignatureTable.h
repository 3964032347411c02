#pragma once
// The text form of the pre-installed signature database: one file type per
// line, "category | name | extension | hex signature | offset | code |
// default size | skip size", "#" comments. Categories appear in the order of
// their first line, file types in line order.
#include <string>
#include <vector>

#include "scaninfo/ArchivedClasses.h"

namespace ambrel {

struct SignatureTableResult {
  std::vector<SigNodeArchive> categories;
  std::vector<std::string> errors;  // "line N: ...", empty when the table is good
};

// Every record comes out pre-installed, with categoryID the 1-based place of
// its category and skipFileSize set when the skip size is not 0.
SignatureTableResult parseSignatureTable(const std::string& text);

}  // namespace ambrel
