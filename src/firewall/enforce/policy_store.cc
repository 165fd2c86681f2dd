#include "firewall/enforce/policy_store.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "firewall/model/firewall_json.h"

namespace NetworkFirewall::PolicyStore {

namespace {

constexpr double kLegacySeconds = -63114076800.0;

std::optional<Owners> decodedOwnersForm(const nlohmann::json& document) {
  if (!document.is_object()) return std::nullopt;
  auto owners = document.find("owners");
  if (owners == document.end() || !owners->is_object()) return std::nullopt;
  Owners result;
  for (const auto& [key, value] : owners->items()) {
    if (!value.is_object()) return std::nullopt;
    auto policies = value.find("policies");
    auto appliedAt = value.find("appliedAt");
    if (policies == value.end() || appliedAt == value.end() || !appliedAt->is_number()) {
      return std::nullopt;
    }
    Entry entry;
    try {
      entry.policies = FirewallJSON::decodeNetworks(*policies, "owners." + key + ".policies");
    } catch (const FirewallJSON::DecodeError&) {
      return std::nullopt;
    }
    entry.appliedAt = fromSecondsSinceReferenceDate(appliedAt->get<double>());
    // No stored entry is ever empty; one that is (written by hand) stands for no owner.
    if (!entry.policies.empty()) result.emplace(key, std::move(entry));
  }
  return result;
}

}  // namespace

TimePoint legacyDate() {
  return fromSecondsSinceReferenceDate(kLegacySeconds);
}

std::string ownerKey(unsigned int uid) {
  return std::to_string(uid);
}

std::optional<Owners> decoded(std::string_view data) {
  nlohmann::json document = nlohmann::json::parse(data, nullptr, false);
  if (document.is_discarded()) return std::nullopt;
  if (auto owners = decodedOwnersForm(document)) return owners;
  if (!document.is_array()) return std::nullopt;
  std::vector<FirewallNetworkPolicy> legacy;
  try {
    legacy = FirewallJSON::decodeNetworks(document, "");
  } catch (const FirewallJSON::DecodeError&) {
    return std::nullopt;
  }
  Owners owners;
  if (!legacy.empty()) {
    owners.emplace(std::string(kLegacyOwner), Entry{std::move(legacy), legacyDate()});
  }
  return owners;
}

std::string encoded(const Owners& owners) {
  nlohmann::json entries = nlohmann::json::object();
  for (const auto& [key, entry] : owners) {
    entries[key] = {{"policies", FirewallJSON::encode(entry.policies)},
                    {"appliedAt", secondsSinceReferenceDate(entry.appliedAt)}};
  }
  nlohmann::json document = {{"owners", std::move(entries)}};
  // nlohmann::json keeps object keys sorted.
  return document.dump(2);
}

std::vector<FirewallNetworkPolicy> replace(Owners& owners, const std::string& owner,
                                           std::vector<FirewallNetworkPolicy> policies,
                                           TimePoint appliedAt, bool adoptLegacy) {
  std::vector<FirewallNetworkPolicy> previous;
  auto own = owners.find(owner);
  if (own != owners.end()) previous = own->second.policies;

  auto legacy = owners.find(std::string(kLegacyOwner));
  if (legacy != owners.end() && legacy->first != owner) {
    bool shared = std::any_of(legacy->second.policies.begin(), legacy->second.policies.end(),
                              [&](const FirewallNetworkPolicy& old) {
                                return std::any_of(policies.begin(), policies.end(),
                                                   [&](const FirewallNetworkPolicy& p) {
                                                     return p.networkID == old.networkID;
                                                   });
                              });
    if (adoptLegacy || shared) {
      if (own == owners.end()) previous = std::move(legacy->second.policies);
      owners.erase(legacy);
    }
  }

  if (policies.empty()) {
    owners.erase(owner);
  } else {
    owners[owner] = Entry{std::move(policies), appliedAt};
  }
  return previous;
}

}  // namespace NetworkFirewall::PolicyStore
