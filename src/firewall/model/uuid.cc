#include "firewall/model/uuid.h"

#include <cstring>

namespace {

// Value of one hexadecimal digit of either case, or -1.
int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

constexpr bool isHyphenPosition(std::size_t i) {
  return i == 8 || i == 13 || i == 18 || i == 23;
}

}  // namespace

std::optional<Uuid> Uuid::parse(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  Uuid uuid;
  std::size_t byte = 0;
  for (std::size_t i = 0; i < text.size();) {
    if (isHyphenPosition(i)) {
      if (text[i] != '-') return std::nullopt;
      ++i;
      continue;
    }
    int high = hexValue(text[i]);
    int low = hexValue(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    uuid.bytes[byte++] = static_cast<std::uint8_t>((high << 4) | low);
    i += 2;
  }
  return uuid;
}

std::string Uuid::text() const {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(36);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out += '-';
    out += kDigits[bytes[i] >> 4];
    out += kDigits[bytes[i] & 0x0F];
  }
  return out;
}

std::size_t std::hash<Uuid>::operator()(const Uuid& uuid) const noexcept {
  std::uint64_t high = 0;
  std::uint64_t low = 0;
  std::memcpy(&high, uuid.bytes.data(), 8);
  std::memcpy(&low, uuid.bytes.data() + 8, 8);
  // Mixes both halves so that identities differing in either half spread over the table.
  std::uint64_t mixed = high ^ (low + 0x9E3779B97F4A7C15ULL + (high << 6) + (high >> 2));
  return static_cast<std::size_t>(mixed);
}
