#include "platform/base64.h"

#include <array>
#include <cstdint>

namespace Base64 {
namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::int8_t, 256> makeReverse() {
  std::array<std::int8_t, 256> table{};
  for (auto& entry : table) entry = -1;
  for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
    table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::int8_t>(i);
  }
  return table;
}
constexpr std::array<std::int8_t, 256> kReverse = makeReverse();

}  // namespace

std::string encode(std::string_view bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    std::uint32_t group = static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i])) << 16 |
                          static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i + 1]))
                              << 8 |
                          static_cast<unsigned char>(bytes[i + 2]);
    out += kAlphabet[group >> 18 & 63];
    out += kAlphabet[group >> 12 & 63];
    out += kAlphabet[group >> 6 & 63];
    out += kAlphabet[group & 63];
  }
  std::size_t rest = bytes.size() - i;
  if (rest > 0) {
    std::uint32_t group = static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i])) << 16;
    if (rest == 2)
      group |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i + 1])) << 8;
    out += kAlphabet[group >> 18 & 63];
    out += kAlphabet[group >> 12 & 63];
    out += rest == 2 ? kAlphabet[group >> 6 & 63] : '=';
    out += '=';
  }
  return out;
}

std::optional<std::string> decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::string out;
  out.reserve(text.size() / 4 * 3);
  for (std::size_t i = 0; i < text.size(); i += 4) {
    bool last = i + 4 == text.size();
    std::size_t padding = 0;
    if (last && text[i + 3] == '=') padding = text[i + 2] == '=' ? 2 : 1;
    std::uint32_t group = 0;
    for (std::size_t j = 0; j < 4; ++j) {
      std::int8_t value =
          j >= 4 - padding ? std::int8_t{0} : kReverse[static_cast<unsigned char>(text[i + j])];
      if (value < 0) return std::nullopt;
      group = group << 6 | static_cast<std::uint32_t>(value);
    }
    out += static_cast<char>(group >> 16 & 0xff);
    if (padding < 2) out += static_cast<char>(group >> 8 & 0xff);
    if (padding < 1) out += static_cast<char>(group & 0xff);
    // The bits the padding leaves over must be zero, so every byte string has one encoding.
    if ((padding == 1 && (group & 0xff) != 0) || (padding == 2 && (group & 0xffff) != 0)) {
      return std::nullopt;
    }
  }
  return out;
}

}  // namespace Base64
