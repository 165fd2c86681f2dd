// Uuid: a 128-bit identity, read from the 36-character hyphenated text in either letter case and
// written in upper case.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

struct Uuid {
  std::array<std::uint8_t, 16> bytes{};

  // 8-4-4-4-12 hexadecimal digits with hyphens; nothing for anything else.
  static std::optional<Uuid> parse(std::string_view text);
  // Upper-case hyphenated text.
  std::string text() const;

  auto operator<=>(const Uuid&) const = default;
  bool operator==(const Uuid&) const = default;
};

template <>
struct std::hash<Uuid> {
  std::size_t operator()(const Uuid& uuid) const noexcept;
};
