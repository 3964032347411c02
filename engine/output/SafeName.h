#pragma once
// Names under which recovered entries are written. A recovered name comes from
// a damaged catalog and may hold anything; what reaches the destination's file
// system never leaves the folder it is created in and always fits.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ambrel {

// The longest name most Linux file systems take, in bytes.
inline constexpr size_t kDefaultNameMax = 255;

// Every "/" becomes ":" on an "hfs" destination (which shows it as "/" again),
// "_" elsewhere; nothing else changes.
std::string madeName(std::string_view name, bool canSaveSlashes);

// A made name that is safe to create: NUL bytes become "_", an empty name
// becomes "_", "." and ".." get a leading "_", and a name longer than maxBytes
// is cut (at a UTF-8 character boundary, keeping a short extension).
// `changed` tells whether anything was altered.
std::string safeName(const std::string& made, size_t maxBytes, bool* changed = nullptr);

// The name of the n-th entry wanting `name` in one folder: n == 1 is the name
// itself, later ones get " (n)" before the extension. The result fits maxBytes.
std::string numberedName(const std::string& name, uint32_t n, size_t maxBytes);

// The name a file that is not whole is kept under: " (incomplete)" before
// the extension, " (incomplete n)" for the n-th in one folder. Fits maxBytes.
std::string incompleteName(const std::string& name, uint32_t n, size_t maxBytes);

// Where a name's extension starts (the last "." that is not the first
// character), or npos.
size_t extensionStart(const std::string& name);

}  // namespace ambrel
