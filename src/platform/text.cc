#include "platform/text.h"

#include <cstdint>

namespace {

constexpr char32_t kInvalid = 0xFFFFFFFF;

// Decodes one well-formed UTF-8 sequence at text[pos]; returns its length in `length`
// (at least 1) and kInvalid when the bytes there are not a well-formed sequence.
char32_t decodeAt(std::string_view text, size_t pos, size_t& length) {
  auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
  uint8_t lead = byte(pos);
  length = 1;
  if (lead < 0x80) return lead;
  size_t need = 0;
  char32_t value = 0;
  uint8_t low = 0x80, high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    need = 1;
    value = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    need = 2;
    value = lead & 0x0F;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    need = 3;
    value = lead & 0x07;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return kInvalid;
  }
  for (size_t i = 1; i <= need; ++i) {
    if (pos + i >= text.size()) return kInvalid;
    uint8_t b = byte(pos + i);
    if (b < low || b > high) return kInvalid;
    low = 0x80;
    high = 0xBF;
    value = (value << 6) | (b & 0x3F);
    length = i + 1;
  }
  return value;
}

// Start of the code point that ends right before `end`, or end - 1 when the bytes there are
// not a well-formed sequence.
size_t previousStart(std::string_view text, size_t end, char32_t& value) {
  for (size_t back = 1; back <= 4 && back <= end; ++back) {
    size_t start = end - back;
    size_t length = 0;
    char32_t c = decodeAt(text, start, length);
    if (c != kInvalid && length == back) {
      value = c;
      return start;
    }
  }
  value = kInvalid;
  return end - 1;
}

template <typename Predicate>
std::string_view trimWith(std::string_view text, Predicate isTrimmed) {
  size_t begin = 0;
  while (begin < text.size()) {
    size_t length = 0;
    char32_t c = decodeAt(text, begin, length);
    if (c == kInvalid || !isTrimmed(c)) break;
    begin += length;
  }
  size_t end = text.size();
  while (end > begin) {
    char32_t c = kInvalid;
    size_t start = previousStart(text, end, c);
    if (c == kInvalid || start < begin || !isTrimmed(c)) break;
    end = start;
  }
  return text.substr(begin, end - begin);
}

void appendUTF8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

}  // namespace

bool isSpaceOrTab(char32_t c) {
  return c == U'\t' || c == U' ' || c == 0x00A0 || c == 0x1680 || (c >= 0x2000 && c <= 0x200A) ||
         c == 0x202F || c == 0x205F || c == 0x3000;
}

bool isLineBreak(char32_t c) {
  return (c >= 0x0A && c <= 0x0D) || c == 0x0085 || c == 0x2028 || c == 0x2029;
}

std::string_view trimSpaces(std::string_view text) {
  return trimWith(text, isSpaceOrTab);
}

std::string_view trimWhitespaceAndNewlines(std::string_view text) {
  return trimWith(text, [](char32_t c) { return isSpaceOrTab(c) || isLineBreak(c); });
}

std::vector<std::string_view> split(std::string_view text, char separator, bool keepEmpty) {
  std::vector<std::string_view> pieces;
  size_t start = 0;
  while (true) {
    size_t found = text.find(separator, start);
    std::string_view piece = text.substr(
        start, found == std::string_view::npos ? std::string_view::npos : found - start);
    if (keepEmpty || !piece.empty()) pieces.push_back(piece);
    if (found == std::string_view::npos) break;
    start = found + 1;
  }
  return pieces;
}

std::string decodeUTF8Lossy(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  size_t pos = 0;
  while (pos < bytes.size()) {
    size_t length = 0;
    char32_t c = decodeAt(bytes, pos, length);
    if (c == kInvalid) {
      appendUTF8(out, 0xFFFD);
    } else {
      out.append(bytes.substr(pos, length));
    }
    pos += length;
  }
  return out;
}

std::string asciiLowercased(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

std::string join(const std::vector<std::string>& pieces, std::string_view separator) {
  std::string out;
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (i > 0) out += separator;
    out += pieces[i];
  }
  return out;
}
