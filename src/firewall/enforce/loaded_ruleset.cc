#include "firewall/enforce/loaded_ruleset.h"

#include <nlohmann/json.hpp>

namespace NetworkFirewall {

namespace {

// A text field: `absent` when missing or null, nothing inside for a value of another type.
struct Field {
  bool valid = true;
  std::optional<std::string> text;
};

Field field(const nlohmann::json& object, const char* key) {
  auto found = object.find(key);
  if (found == object.end() || found->is_null()) return {};
  if (!found->is_string()) return {false, std::nullopt};
  return {true, found->get<std::string>()};
}

}  // namespace

std::string LoadedRuleset::encoded() const {
  nlohmann::json object = {{"rulesDigest", rulesDigest}};
  if (anchorDigest) object["anchorDigest"] = *anchorDigest;
  if (enabledInBoot) object["enabledInBoot"] = *enabledInBoot;
  return object.dump();
}

std::optional<LoadedRuleset> LoadedRuleset::decoded(std::string_view data) {
  nlohmann::json object = nlohmann::json::parse(data, nullptr, false);
  if (object.is_discarded() || !object.is_object()) return std::nullopt;
  Field rules = field(object, "rulesDigest");
  Field anchor = field(object, "anchorDigest");
  Field boot = field(object, "enabledInBoot");
  if (!rules.text || !anchor.valid || !boot.valid) return std::nullopt;
  return LoadedRuleset{*rules.text, anchor.text, boot.text};
}

}  // namespace NetworkFirewall
