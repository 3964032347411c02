// The text helpers every listing goes through.
#include <gtest/gtest.h>

#include "base/PlistValue.h"
#include "base/Text.h"

using namespace ambrel;

TEST(Text, MacRomanHighHalfDecodes) {
  const uint8_t bytes[] = {'A', 0x80, 0x8E, 0xA5, 0xDB, 0xF0, 0xFF};
  EXPECT_EQ(macRomanToUtf8(bytes, sizeof bytes), "A\xC3\x84\xC3\xA9\xE2\x80\xA2\xE2\x82\xAC\xEF\xA3\xBF\xCB\x87");
}

TEST(Text, OnlyWellFormedUtf8Passes) {
  EXPECT_TRUE(isValidUtf8("plain \xC3\xA9 \xF0\x9F\x98\x80"));
  for (const char* bad : {"\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\x80", "\xC3", "\xFF"})
    EXPECT_FALSE(isValidUtf8(bad)) << bad;
  EXPECT_EQ(validUtf8("a\xFF" "b\xC3"), "a\xEF\xBF\xBD" "b\xEF\xBF\xBD");
  EXPECT_EQ(jsonQuote(std::string("x\x8Ey\0z\x7F", 6)), "\"x\xEF\xBF\xBDy\\u0000z\\u007f\"");
}

TEST(Text, ControlsEscapedForTerminalsAndCells) {
  EXPECT_EQ(escapedControls(std::string("a\tb\nc\0d\x1b[m\\ \xC2\x9B", 14), true), "a\\tb\\nc\\x00d\\x1b[m\\\\ \\u009b");
  EXPECT_EQ(escapedControls("back\\slash \xC3\xA9", false), "back\\slash \xC3\xA9");
}
