#include "platform/text.h"

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

TEST(Text, TrimsSpaceSeparatorsOrAlsoLineBreaksDecodesLossilyAndSplits) {
  auto apply = [](char function, std::string_view in) {  // Spaces, Breaks too, or Decode
    return function == 'D'
               ? decodeUTF8Lossy(in)
               : std::string(function == 'S' ? trimSpaces(in) : trimWhitespaceAndNewlines(in));
  };
  const std::tuple<char, std::string, std::string> rows[] = {
      // Tab, NO-BREAK, EN QUAD, NARROW NO-BREAK and IDEOGRAPHIC SPACE are space separators;
      // ZERO WIDTH SPACE and line breaks are none; invalid bytes stop trimming.
      {'S', "\u3000 \t10.0.0.0/8\u00A0\u2000\u202F", "10.0.0.0/8"},
      {'S', " \u200Bx\n\u2028\u2029\r ", "\u200Bx\n\u2028\u2029\r"},
      {'S', "\u00A0\u00A0", ""},
      {'S', " \xFF \xC2", "\xFF \xC2"},
      {'B', "\r\n\t word \u0085\u2028\v\f", "word"},
      // One replacement per maximal invalid subpart: a cut-off sequence one, a surrogate three.
      {'D', "ok \xC3\xA9 \xF0\x9F\x98\x80\0"s, "ok \xC3\xA9 \U0001F600\0"s},
      {'D', "a\xFFz\xE2\x82x", "a\uFFFDz\uFFFDx"},
      {'D', "\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},
  };
  for (const auto& [function, input, expected] : rows)
    EXPECT_EQ(apply(function, input), expected) << input;
  EXPECT_EQ(split("a//b/", '/', true), (std::vector<std::string_view>{"a", "", "b", ""}));
}

}  // namespace
