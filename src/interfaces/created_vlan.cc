#include "interfaces/created_vlan.h"

#include <nlohmann/json.hpp>

#include "interfaces/json_fields.h"

std::size_t std::hash<CreatedVLAN>::operator()(const CreatedVLAN& vlan) const noexcept {
  std::size_t seed = 0;
  auto mix = [&seed](std::size_t value) {
    seed ^= value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
  };
  mix(std::hash<std::string>{}(vlan.bsdName));
  mix(std::hash<std::int64_t>{}(vlan.tag));
  mix(std::hash<std::string>{}(vlan.parentBSD));
  mix(std::hash<std::string>{}(vlan.name));
  return seed;
}

std::string encodeCreatedVLANs(const std::vector<CreatedVLAN>& vlans) {
  nlohmann::ordered_json array = nlohmann::ordered_json::array();
  for (const CreatedVLAN& vlan : vlans) {
    // cppcheck-suppress useStlAlgorithm
    array.push_back({{"bsdName", vlan.bsdName},
                     {"tag", vlan.tag},
                     {"parentBSD", vlan.parentBSD},
                     {"name", vlan.name}});
  }
  return array.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::optional<std::vector<CreatedVLAN>> decodeCreatedVLANs(std::string_view json) {
  nlohmann::json array = nlohmann::json::parse(json, nullptr, false);
  if (!array.is_array()) return std::nullopt;
  std::vector<CreatedVLAN> vlans;
  for (const nlohmann::json& element : array) {
    CreatedVLAN vlan;
    if (!JSONFields::readString(element, "bsdName", vlan.bsdName) ||
        !JSONFields::readInteger(element, "tag", vlan.tag) ||
        !JSONFields::readString(element, "parentBSD", vlan.parentBSD) ||
        !JSONFields::readString(element, "name", vlan.name)) {
      return std::nullopt;
    }
    vlans.push_back(std::move(vlan));
  }
  return vlans;
}
