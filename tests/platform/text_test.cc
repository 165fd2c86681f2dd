#include "platform/text.h"

#include <gtest/gtest.h>

namespace {

TEST(TextTrim, SpacesRemovesUnicodeSpaceSeparatorsAndTabsButNotLineBreaks) {
  EXPECT_EQ(trimSpaces(" \t10.0.0.0/8\t "), "10.0.0.0/8");
  // NO-BREAK SPACE, EN QUAD, IDEOGRAPHIC SPACE, NARROW NO-BREAK SPACE.
  EXPECT_EQ(trimSpaces("\u00A0\u2000any\u3000\u202F"), "any");
  EXPECT_EQ(trimSpaces("\nany\r"), "\nany\r");
  EXPECT_EQ(trimSpaces(" \u2028x\u2029 "), "\u2028x\u2029");
  EXPECT_EQ(trimSpaces("\u00A0\u00A0"), "");
  // ZERO WIDTH SPACE is a format character, not a space separator.
  EXPECT_EQ(trimSpaces("\u200Bx"), "\u200Bx");
}

TEST(TextTrim, WhitespaceAndNewlinesAlsoRemovesEveryLineBreak) {
  EXPECT_EQ(trimWhitespaceAndNewlines("\r\n\t word \u0085\u2028\v\f"), "word");
  EXPECT_EQ(trimWhitespaceAndNewlines("a\nb"), "a\nb");
}

TEST(TextTrim, InvalidBytesAtTheEdgesStopTrimming) {
  EXPECT_EQ(trimSpaces(" \xFF "), "\xFF");
  EXPECT_EQ(trimSpaces(" \xC2"), "\xC2");
}

TEST(TextSplit, KeepsOrDropsEmptyPieces) {
  EXPECT_EQ(split("a//b/", '/', true), (std::vector<std::string_view>{"a", "", "b", ""}));
  EXPECT_EQ(split("a//b/", '/', false), (std::vector<std::string_view>{"a", "b"}));
  EXPECT_EQ(split("", '/', true), (std::vector<std::string_view>{""}));
  EXPECT_TRUE(split("", '/', false).empty());
}

TEST(TextDecode, ReplacesEachMaximalInvalidSubpart) {
  EXPECT_EQ(decodeUTF8Lossy("ok \xC3\xA9"), "ok \xC3\xA9");
  EXPECT_EQ(decodeUTF8Lossy("a\xFF"
                            "b"),
            "a\uFFFD"
            "b");
  // A truncated three-byte sequence is one replacement; a surrogate is three.
  EXPECT_EQ(decodeUTF8Lossy("\xE2\x82"
                            "x"),
            "\uFFFD"
            "x");
  EXPECT_EQ(decodeUTF8Lossy("\xED\xA0\x80"), "\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(decodeUTF8Lossy("\xF0\x9F\x98\x80"), "\U0001F600");
  EXPECT_EQ(decodeUTF8Lossy(std::string_view("\0x", 2)), std::string("\0x", 2));
}

}  // namespace
