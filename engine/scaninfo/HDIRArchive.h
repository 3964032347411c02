#pragma once
// The keyed-archive form of recovered entries (HDIR with its Extents and
// children). Scan info files store the tree as records instead; this form is
// what the entries' own encodeWithCoder: writes, kept so archives of entries
// made elsewhere can be read and written.
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tree/HDIR.h"

namespace ambrel {

// Entries nested deeper than this are neither archived nor read back.
inline constexpr int kMaxArchivedHDIRDepth = 1024;

// The archive of `root` and everything below it; nullopt when the tree is
// deeper than kMaxArchivedHDIRDepth.
std::optional<std::vector<uint8_t>> archiveHDIR(const HDIR& root);

// The entry archived as the root, with its subtree (each child's parent set).
// Refuses other classes, too deep a nesting, and entries shared so often that
// the tree would hold more entries than the archive has objects.
std::unique_ptr<HDIR> unarchiveHDIR(std::span<const uint8_t> bytes, std::string& error);

}  // namespace ambrel
