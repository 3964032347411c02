#include "output/SafeName.h"

#include <fmt/format.h>

namespace ambrel {

namespace {

// Extensions longer than this are treated as part of the name when cutting,
// so that a name made only of dots and letters still keeps its start.
constexpr size_t kMaxKeptExtension = 16;

// The longest prefix of s no longer than n bytes that does not split a UTF-8
// sequence.
size_t utf8Prefix(const std::string& s, size_t n) {
  if (n >= s.size()) return s.size();
  while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80) --n;
  return n;
}

std::string fitted(const std::string& stem, const std::string& tail, size_t maxBytes) {
  if (stem.size() + tail.size() <= maxBytes) return stem + tail;
  if (tail.size() >= maxBytes) {
    std::string whole = stem + tail;
    return whole.substr(0, utf8Prefix(whole, maxBytes));
  }
  return stem.substr(0, utf8Prefix(stem, maxBytes - tail.size())) + tail;
}

}  // namespace

std::string madeName(std::string_view name, bool canSaveSlashes) {
  std::string out(name);
  for (char& c : out)
    if (c == '/') c = canSaveSlashes ? ':' : '_';
  return out;
}

size_t extensionStart(const std::string& name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0) return std::string::npos;
  return dot;
}

std::string safeName(const std::string& made, size_t maxBytes, bool* changed) {
  std::string out = made;
  for (char& c : out)
    if (c == '\0' || c == '/') c = '_';
  if (out.empty()) out = "_";
  if (out == "." || out == "..") out = "_" + out;
  if (out.size() > maxBytes) {
    const size_t ext = extensionStart(out);
    if (ext != std::string::npos && out.size() - ext <= kMaxKeptExtension)
      out = fitted(out.substr(0, ext), out.substr(ext), maxBytes);
    else
      out = fitted(out, "", maxBytes);
    if (out == "." || out == ".." || out.empty()) out = "_";
  }
  if (changed) *changed = out != made;
  return out;
}

std::string numberedName(const std::string& name, uint32_t n, size_t maxBytes) {
  if (n <= 1) return fitted(name, "", maxBytes);
  const std::string number = fmt::format(" ({})", n);
  const size_t ext = extensionStart(name);
  if (ext != std::string::npos && name.size() - ext <= kMaxKeptExtension)
    return fitted(name.substr(0, ext), number + name.substr(ext), maxBytes);
  return fitted(name, number, maxBytes);
}

std::string incompleteName(const std::string& name, uint32_t n, size_t maxBytes) {
  const std::string mark = n <= 1 ? std::string(" (incomplete)") : fmt::format(" (incomplete {})", n);
  const size_t ext = extensionStart(name);
  if (ext != std::string::npos && name.size() - ext <= kMaxKeptExtension)
    return fitted(name.substr(0, ext), mark + name.substr(ext), maxBytes);
  return fitted(name, mark, maxBytes);
}

}  // namespace ambrel
