// Text helpers shared by every subsystem: trimming with the helper's two notions of white space,
// splitting, and decoding bytes as UTF-8 with invalid sequences replaced.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// Removes leading and trailing Unicode space separators (category Zs) and tabs. Line breaks stay.
std::string_view trimSpaces(std::string_view text);

// Removes leading and trailing space separators, tabs and line breaks (LF, VT, FF, CR, NEL,
// LINE SEPARATOR, PARAGRAPH SEPARATOR).
std::string_view trimWhitespaceAndNewlines(std::string_view text);

// True for a code point that is a Unicode space separator or a tab.
bool isSpaceOrTab(char32_t c);
// True for a line-break code point: LF, VT, FF, CR, NEL, U+2028, U+2029.
bool isLineBreak(char32_t c);

// Splits at every separator. keepEmpty false drops empty pieces.
std::vector<std::string_view> split(std::string_view text, char separator, bool keepEmpty);

// Decodes bytes as UTF-8, replacing each maximal invalid subpart with U+FFFD.
std::string decodeUTF8Lossy(std::string_view bytes);

// ASCII lower case; other bytes unchanged.
std::string asciiLowercased(std::string_view text);

// Text joined with a separator.
std::string join(const std::vector<std::string>& pieces, std::string_view separator);
