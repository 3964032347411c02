#pragma once
// The listing of a recovered tree that scripts and tests compare against:
// every entry in pre-order, the root included, one row each.
#include <cstdint>
#include <cstdio>
#include <string>

#include "tree/EntryFilter.h"
#include "tree/HDIR.h"

namespace ambrel {

enum class ListingFormat { Tsv, Json };

// "YYYY-MM-DDTHH:MM:SSZ" of an HFS+ date (seconds since 1904, GMT); "" for 0.
std::string hfsDateText(uint32_t hfsSeconds);

// Writes the columns path, type (folder, file, folderlink, symlink), fileID, parentID, fileSize, dataSize,
// rscSize, fileCount, created, modified, dataExtents, rscExtents, confidence
// (files: "sure", or why their content may be wrong; folders: empty).
// With a filter, only the entries it keeps.
void writeTreeListing(const HDIR& root, ListingFormat format, std::FILE* out, const FilteredTree* filter = nullptr);

}  // namespace ambrel
