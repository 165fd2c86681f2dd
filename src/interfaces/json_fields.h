// JSONFields: strict reading of the required keys of the interfaces' small JSON records.
#pragma once

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>

namespace JSONFields {

// Reads a string member of an object; false when the value is no object, or the key is missing
// or holds no string.
inline bool readString(const nlohmann::json& object, const char* key, std::string& out) {
  if (!object.is_object()) return false;
  auto found = object.find(key);
  if (found == object.end() || !found->is_string()) return false;
  out = found->get<std::string>();
  return true;
}

// Reads an integer member that fits a signed 64-bit number; false otherwise (fractions too).
inline bool readInteger(const nlohmann::json& object, const char* key, std::int64_t& out) {
  if (!object.is_object()) return false;
  auto found = object.find(key);
  if (found == object.end()) return false;
  if (found->is_number_unsigned()) {
    auto value = found->get<std::uint64_t>();
    if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) return false;
    out = static_cast<std::int64_t>(value);
    return true;
  }
  if (!found->is_number_integer()) return false;
  out = found->get<std::int64_t>();
  return true;
}

}  // namespace JSONFields
