#include "firewall/model/one_line.h"

namespace NetworkFirewall {

void appendOnOneLine(std::string& out, std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte >= 0x0A && byte <= 0x0D) {
      out += ' ';
    } else if (byte == 0xC2 && i + 1 < text.size() &&
               static_cast<unsigned char>(text[i + 1]) == 0x85) {
      out += ' ';  // NEL, U+0085
      i += 1;
    } else if (byte == 0xE2 && i + 2 < text.size() &&
               static_cast<unsigned char>(text[i + 1]) == 0x80 &&
               (static_cast<unsigned char>(text[i + 2]) == 0xA8 ||
                static_cast<unsigned char>(text[i + 2]) == 0xA9)) {
      out += ' ';  // U+2028, U+2029
      i += 2;
    } else {
      out += text[i];
    }
  }
}

std::string onOneLine(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  appendOnOneLine(out, text);
  return out;
}

}  // namespace NetworkFirewall
