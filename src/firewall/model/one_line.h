// Rendering of free text (network names) on a single line: every line-break character becomes one
// space. Stateless; any thread.
#pragma once

#include <string>
#include <string_view>

namespace NetworkFirewall {

// Appends the text with each LF, CR, VT, FF, NEL, LINE SEPARATOR and PARAGRAPH SEPARATOR
// replaced by one space; every other byte is copied as it is.
void appendOnOneLine(std::string& out, std::string_view text);
std::string onOneLine(std::string_view text);

}  // namespace NetworkFirewall
