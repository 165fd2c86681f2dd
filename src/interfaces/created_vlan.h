// CreatedVLAN: a VLAN interface the helper made and that still exists, as the application is told
// about it, with its JSON form (an array of objects with the keys "bsdName", "tag", "parentBSD"
// and "name").
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct CreatedVLAN {
  std::string bsdName;    // BSD name of the VLAN interface
  std::int64_t tag = 0;   // VLAN ID as the system reports it
  std::string parentBSD;  // BSD name of the physical interface
  std::string name;       // display name; empty when it has none

  bool operator==(const CreatedVLAN&) const = default;
};

template <>
struct std::hash<CreatedVLAN> {
  std::size_t operator()(const CreatedVLAN& vlan) const noexcept;
};

// A compact JSON array (no blanks, keys in the order above). Never throws: bytes that are not
// UTF-8 are written as replacement characters.
std::string encodeCreatedVLANs(const std::vector<CreatedVLAN>& vlans);

// The list back from such an array; nothing when the text is not JSON or an element lacks a key
// or has one of the wrong type. Unknown keys are ignored.
std::optional<std::vector<CreatedVLAN>> decodeCreatedVLANs(std::string_view json);
