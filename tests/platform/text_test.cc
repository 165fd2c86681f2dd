#include "platform/text.h"

#include <gtest/gtest.h>

namespace {

std::string spaces(std::string_view text) {
  return std::string(trimSpaces(text));
}
std::string breaks(std::string_view text) {
  return std::string(trimWhitespaceAndNewlines(text));
}

TEST(Text, TrimsSpaceSeparatorsOrAlsoLineBreaksDecodesLossilyAndSplits) {
  const struct {
    std::string (*function)(std::string_view);
    std::string input, expected;
  } rows[] = {
      // Tab, NO-BREAK SPACE, EN QUAD, IDEOGRAPHIC SPACE, NARROW NO-BREAK SPACE: space separators.
      {spaces, " \t10.0.0.0/8\u00A0\u2000", "10.0.0.0/8"},
      {spaces, "\u3000any\u202F", "any"},
      {spaces, "\nany\r", "\nany\r"},
      {spaces, " \u2028x\u2029 ", "\u2028x\u2029"},
      {spaces, "\u00A0\u00A0", ""},
      {spaces, "\u200Bx", "\u200Bx"},  // ZERO WIDTH SPACE is none
      {spaces, " \xFF ", "\xFF"},
      {spaces, " \xC2", "\xC2"},  // invalid bytes stop trimming
      {breaks, "\r\n\t word \u0085\u2028\v\f", "word"},
      {breaks, "a\nb", "a\nb"},
      // One replacement per maximal invalid subpart: a cut-off sequence one, a surrogate three.
      {decodeUTF8Lossy, "ok \xC3\xA9 \xF0\x9F\x98\x80", "ok \xC3\xA9 \U0001F600"},
      {decodeUTF8Lossy, "a\xFFz\xE2\x82x", "a\uFFFDz\uFFFDx"},
      {decodeUTF8Lossy, "\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},
      {decodeUTF8Lossy, std::string("\0x", 2), std::string("\0x", 2)},
  };
  for (const auto& row : rows) EXPECT_EQ(row.function(row.input), row.expected) << row.input;
  EXPECT_EQ(split("a//b/", '/', true), (std::vector<std::string_view>{"a", "", "b", ""}));
  EXPECT_EQ(split("a//b/", '/', false), (std::vector<std::string_view>{"a", "b"}));
  EXPECT_EQ(split("", '/', true), (std::vector<std::string_view>{""}));
  EXPECT_TRUE(split("", '/', false).empty());
}

}  // namespace
