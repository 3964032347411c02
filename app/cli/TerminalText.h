#pragma once
// Text that came from a drive or a scan info file, made safe to print: a
// name holding an escape sequence must not repaint or retitle the terminal.
#include <string>
#include <string_view>

namespace ambrel::cli {

// Valid UTF-8 passes through; tab, line feed and carriage return become \t,
// \n, \r, other control characters (C0, DEL, U+0080 to U+009F) \xHH or
// \u00HH, and bytes that are not UTF-8 \xHH.
std::string terminalText(std::string_view text);

}  // namespace ambrel::cli
