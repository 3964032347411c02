#pragma once
// A structural check of a binary property list, run before the bytes reach
// libplist. libplist's reader follows object references without memoising or
// bounding them: a few hundred bytes whose arrays share children expand
// exponentially, and deep nesting exhausts the stack. This walks the object
// table once and refuses what could do either.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace ambrel {

// Nesting deeper than this is refused; keyed archives are flat at this level.
inline constexpr size_t kMaxBinaryPlistDepth = 256;

// True when `bytes` is a well-formed "bplist00" whose trailer, offset table
// and every object lie inside the file, whose references name existing
// objects without a cycle, and whose fully expanded tree holds no more nodes
// than the file has bytes. Otherwise false with `error` set.
bool checkBinaryPlist(std::span<const uint8_t> bytes, std::string& error);

}  // namespace ambrel
