#pragma once
// Text from disks and from the file system, made safe to show and to put in
// JSON or TSV: classic Mac names decoded from MacRoman, byte strings checked
// to be UTF-8, control characters escaped.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ambrel {

// MacRoman bytes (a classic HFS or Apple partition map name) as UTF-8.
std::string macRomanToUtf8(const uint8_t* bytes, size_t count);

// True when `text` is well-formed UTF-8 (no overlong forms, no surrogates,
// nothing above U+10FFFF).
bool isValidUtf8(std::string_view text);

// `text` with every byte that is not part of well-formed UTF-8 replaced by
// U+FFFD.
std::string validUtf8(std::string_view text);

// Length of the well-formed UTF-8 sequence at the start of `text`, or 0 when
// it does not start with one.
size_t utf8SequenceLength(std::string_view text);

// `text` made safe for a line of a terminal or of a TSV cell: valid UTF-8
// (as validUtf8), a tab, line feed and carriage return written \t, \n, \r,
// every other control character (NUL, escape, DEL, U+0080 to U+009F) as
// \xHH or \u00HH, and, when asked, a backslash as \\ so that the escapes
// can be told from the text.
std::string escapedControls(std::string_view text, bool escapeBackslash);

}  // namespace ambrel
