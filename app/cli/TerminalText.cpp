#include "cli/TerminalText.h"

#include <fmt/format.h>

#include <cstdint>

namespace ambrel::cli {

namespace {

// Length of the well-formed UTF-8 sequence starting at text[i] and its code
// point; 0 when none starts there.
size_t sequenceAt(std::string_view text, size_t i, uint32_t& cp) {
  const auto b = [&](size_t k) { return static_cast<uint8_t>(text[i + k]); };
  const uint8_t c = b(0);
  size_t n = c < 0x80 ? 1 : (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 0;
  if (n == 0 || i + n > text.size()) return 0;
  cp = n == 1 ? c : c & (0x7F >> n);
  for (size_t k = 1; k < n; ++k) {
    if ((b(k) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (b(k) & 0x3F);
  }
  static constexpr uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
  if (cp < kMin[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return n;
}

}  // namespace

std::string terminalText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    uint32_t cp = 0;
    const size_t n = sequenceAt(text, i, cp);
    if (n == 0) {
      out += fmt::format("\\x{:02X}", static_cast<uint8_t>(text[i]));
      ++i;
      continue;
    }
    if (cp == '\t') out += "\\t";
    else if (cp == '\n') out += "\\n";
    else if (cp == '\r') out += "\\r";
    else if (cp < 0x20 || cp == 0x7F) out += fmt::format("\\x{:02X}", cp);
    else if (cp >= 0x80 && cp <= 0x9F) out += fmt::format("\\u{:04X}", cp);
    else out.append(text.substr(i, n));
    i += n;
  }
  return out;
}

}  // namespace ambrel::cli
