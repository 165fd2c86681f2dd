#include "platform/text.h"

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

TEST(Text, TrimsSpaceSeparatorsOrAlsoLineBreaksDecodesLossilyAndSplits) {
  using Function = std::string (*)(std::string_view);
  const Function spaces = [](std::string_view text) { return std::string(trimSpaces(text)); },
                 breaks = [](std::string_view text) {
                   return std::string(trimWhitespaceAndNewlines(text));
                 };
  const std::tuple<Function, std::string, std::string> rows[] = {
      // Tab, NO-BREAK, EN QUAD, NARROW NO-BREAK and IDEOGRAPHIC SPACE are space separators;
      // ZERO WIDTH SPACE and line breaks are none; invalid bytes stop trimming.
      {spaces, "\u3000 \t10.0.0.0/8\u00A0\u2000\u202F", "10.0.0.0/8"},
      {spaces, " \u200Bx\n\u2028\u2029\r ", "\u200Bx\n\u2028\u2029\r"},
      {spaces, "\u00A0\u00A0", ""},
      {spaces, " \xFF \xC2", "\xFF \xC2"},
      {breaks, "\r\n\t word \u0085\u2028\v\f", "word"},
      // One replacement per maximal invalid subpart: a cut-off sequence one, a surrogate three.
      {decodeUTF8Lossy, "ok \xC3\xA9 \xF0\x9F\x98\x80\0"s, "ok \xC3\xA9 \U0001F600\0"s},
      {decodeUTF8Lossy, "a\xFFz\xE2\x82x", "a\uFFFDz\uFFFDx"},
      {decodeUTF8Lossy, "\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},
  };
  for (const auto& [function, input, expected] : rows)
    EXPECT_EQ(function(input), expected) << input;
  EXPECT_EQ(std::pair(split("a//b/", '/', true), split("a//b/", '/', false)),
            std::pair(std::vector<std::string_view>{"a", "", "b", ""},
                      std::vector<std::string_view>{"a", "b"}));
}

}  // namespace
