#include "firewall/enforce/owners_merge.h"

#include <algorithm>
#include <set>

#include "platform/text.h"

namespace NetworkFirewall::PolicyStore {

std::vector<Claim> claims(const Owners& owners) {
  std::vector<const Owners::value_type*> entries(owners.size());
  std::transform(owners.begin(), owners.end(), entries.begin(),
                 [](const auto& entry) { return &entry; });
  // The map is already in key order, so a stable sort by date keeps equal dates in key order.
  std::stable_sort(entries.begin(), entries.end(), [](const auto* a, const auto* b) {
    return a->second.appliedAt > b->second.appliedAt;
  });

  std::vector<Claim> rows;
  std::set<std::string> seen;
  for (const auto* entry : entries) {
    for (const FirewallNetworkPolicy& policy : entry->second.policies) {
      std::string key = canonicalSubnet(policy.subnetCIDR).value_or(policy.subnetCIDR);
      bool kept = seen.insert(key).second;
      rows.push_back(Claim{entry->first, std::move(key), policy, kept});
    }
  }
  return rows;
}

Merged merged(const Owners& owners) {
  Merged result;
  for (Claim& claim : claims(owners)) {
    if (claim.kept) {
      result.kept.push_back(std::move(claim.policy));
    } else {
      result.leftOut.emplace_back(std::move(claim.owner), std::move(claim.policy));
    }
  }
  return result;
}

std::map<std::string, std::string> subnetOwners(const Owners& owners) {
  std::map<std::string, std::string> result;
  for (Claim& claim : claims(owners)) {
    if (claim.kept) result.emplace(std::move(claim.subnetKey), std::move(claim.owner));
  }
  return result;
}

}  // namespace NetworkFirewall::PolicyStore

namespace NetworkFirewall {

std::string subnetOwnersReport(const PolicyStore::Owners& owners) {
  std::vector<std::string> lines;
  for (const auto& [subnet, owner] : PolicyStore::subnetOwners(owners)) {
    std::string line = subnet;
    line += ' ';
    line += owner;
    lines.push_back(std::move(line));
  }
  return lines.empty() ? "(none)" : join(lines, "\n");
}

}  // namespace NetworkFirewall

namespace HelperFirewall {

NetworkFirewall::Review mergeAndReview(const HelperEnvironment& env,
                                       const NetworkFirewall::PolicyStore::Owners& owners,
                                       const std::vector<NetworkFirewall::HostAddress>& hosts) {
  NetworkFirewall::PolicyStore::Merged merged = NetworkFirewall::PolicyStore::merged(owners);
  for (const auto& [owner, policy] : merged.leftOut) {
    std::string ownerPhrase =
        owner == NetworkFirewall::PolicyStore::kLegacyOwner ? "an unowned" : "uid " + owner + "'s";
    env.log.write(policy.subnetCIDR + " is claimed by networks of more than one user; " +
                  ownerPhrase + " \"" + policy.name +
                  "\" is left out for the most recently applied one.");
  }
  return NetworkFirewall::review(merged.kept, hosts);
}

}  // namespace HelperFirewall
