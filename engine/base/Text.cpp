#include "base/Text.h"

#include <fmt/format.h>

namespace ambrel {

namespace {

// MacRoman 0x80-0xFF as Unicode code points.
constexpr uint16_t kMacRomanHigh[128] = {
    0x00C4, 0x00C5, 0x00C7, 0x00C9, 0x00D1, 0x00D6, 0x00DC, 0x00E1, 0x00E0, 0x00E2, 0x00E4, 0x00E3, 0x00E5,
    0x00E7, 0x00E9, 0x00E8, 0x00EA, 0x00EB, 0x00ED, 0x00EC, 0x00EE, 0x00EF, 0x00F1, 0x00F3, 0x00F2, 0x00F4,
    0x00F6, 0x00F5, 0x00FA, 0x00F9, 0x00FB, 0x00FC, 0x2020, 0x00B0, 0x00A2, 0x00A3, 0x00A7, 0x2022, 0x00B6,
    0x00DF, 0x00AE, 0x00A9, 0x2122, 0x00B4, 0x00A8, 0x2260, 0x00C6, 0x00D8, 0x221E, 0x00B1, 0x2264, 0x2265,
    0x00A5, 0x00B5, 0x2202, 0x2211, 0x220F, 0x03C0, 0x222B, 0x00AA, 0x00BA, 0x03A9, 0x00E6, 0x00F8, 0x00BF,
    0x00A1, 0x00AC, 0x221A, 0x0192, 0x2248, 0x2206, 0x00AB, 0x00BB, 0x2026, 0x00A0, 0x00C0, 0x00C3, 0x00D5,
    0x0152, 0x0153, 0x2013, 0x2014, 0x201C, 0x201D, 0x2018, 0x2019, 0x00F7, 0x25CA, 0x00FF, 0x0178, 0x2044,
    0x20AC, 0x2039, 0x203A, 0xFB01, 0xFB02, 0x2021, 0x00B7, 0x201A, 0x201E, 0x2030, 0x00C2, 0x00CA, 0x00C1,
    0x00CB, 0x00C8, 0x00CD, 0x00CE, 0x00CF, 0x00CC, 0x00D3, 0x00D4, 0xF8FF, 0x00D2, 0x00DA, 0x00DB, 0x00D9,
    0x0131, 0x02C6, 0x02DC, 0x00AF, 0x02D8, 0x02D9, 0x02DA, 0x00B8, 0x02DD, 0x02DB, 0x02C7};

void appendUtf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

}  // namespace

std::string macRomanToUtf8(const uint8_t* bytes, size_t count) {
  std::string out;
  out.reserve(count);
  for (size_t i = 0; i < count; ++i) appendUtf8(out, bytes[i] < 0x80 ? bytes[i] : kMacRomanHigh[bytes[i] - 0x80]);
  return out;
}

size_t utf8SequenceLength(std::string_view text) {
  if (text.empty()) return 0;
  const auto b = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
  const uint8_t lead = b(0);
  if (lead < 0x80) return 1;
  size_t n = 0;
  uint32_t min = 0, cp = 0;
  if ((lead & 0xE0) == 0xC0) n = 2, min = 0x80, cp = lead & 0x1F;
  else if ((lead & 0xF0) == 0xE0) n = 3, min = 0x800, cp = lead & 0x0F;
  else if ((lead & 0xF8) == 0xF0) n = 4, min = 0x10000, cp = lead & 0x07;
  else return 0;
  if (text.size() < n) return 0;
  for (size_t i = 1; i < n; ++i) {
    if ((b(i) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (b(i) & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return n;
}

bool isValidUtf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const size_t n = utf8SequenceLength(text.substr(i));
    if (n == 0) return false;
    i += n;
  }
  return true;
}

std::string validUtf8(std::string_view text) {
  if (isValidUtf8(text)) return std::string(text);
  std::string out;
  out.reserve(text.size() + 8);
  for (size_t i = 0; i < text.size();) {
    const size_t n = utf8SequenceLength(text.substr(i));
    if (n == 0) {
      out += "\xEF\xBF\xBD";
      ++i;
    } else {
      out.append(text.substr(i, n));
      i += n;
    }
  }
  return out;
}

std::string escapedControls(std::string_view text, bool escapeBackslash) {
  const std::string valid = validUtf8(text);
  std::string out;
  out.reserve(valid.size());
  for (size_t i = 0; i < valid.size(); ++i) {
    const auto c = static_cast<unsigned char>(valid[i]);
    if (c == '\t') out += "\\t";
    else if (c == '\n') out += "\\n";
    else if (c == '\r') out += "\\r";
    else if (c == '\\' && escapeBackslash) out += "\\\\";
    else if (c < 0x20 || c == 0x7F) out += fmt::format("\\x{:02x}", c);
    // U+0080 to U+009F: C2 80 to C2 9F, which some terminals take as commands.
    else if (c == 0xC2 && i + 1 < valid.size() && static_cast<unsigned char>(valid[i + 1]) < 0xA0) {
      out += fmt::format("\\u{:04x}", static_cast<unsigned char>(valid[++i]));
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

}  // namespace ambrel
