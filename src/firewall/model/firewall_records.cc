#include "firewall/model/firewall_records.h"

#include <functional>

#include "firewall/model/hash_combine.h"

std::string_view rawValue(FirewallRule::Direction value) {
  switch (value) {
    case FirewallRule::Direction::inbound:
      return "inbound";
    case FirewallRule::Direction::outbound:
      return "outbound";
  }
  return "inbound";
}

std::string_view rawValue(FirewallRule::Action value) {
  switch (value) {
    case FirewallRule::Action::allow:
      return "allow";
    case FirewallRule::Action::deny:
      return "deny";
  }
  return "allow";
}

std::string_view rawValue(FirewallRule::Proto value) {
  switch (value) {
    case FirewallRule::Proto::any:
      return "any";
    case FirewallRule::Proto::tcp:
      return "tcp";
    case FirewallRule::Proto::udp:
      return "udp";
    case FirewallRule::Proto::icmp:
      return "icmp";
  }
  return "any";
}

namespace {

// Optionals hash their presence first, then their value when present.
template <typename T>
void hashOptional(std::size_t& seed, const std::optional<T>& value) {
  hashField(seed, value.has_value());
  if (value) hashField(seed, *value);
}

}  // namespace

std::size_t std::hash<FirewallRule>::operator()(const FirewallRule& rule) const noexcept {
  std::size_t seed = 0;
  hashField(seed, rule.id);
  hashField(seed, rule.enabled);
  hashField(seed, rawValue(rule.direction));
  hashField(seed, rawValue(rule.action));
  hashField(seed, rawValue(rule.proto));
  hashField(seed, rule.remoteCIDR);
  hashField(seed, rule.ports);
  return seed;
}

std::size_t std::hash<NetworkFirewallPolicy>::operator()(
    const NetworkFirewallPolicy& policy) const noexcept {
  std::size_t seed = 0;
  hashField(seed, policy.enabled);
  hashField(seed, rawValue(policy.defaultInbound));
  hashField(seed, rawValue(policy.defaultOutbound));
  hashField(seed, policy.rules.size());
  for (const FirewallRule& rule : policy.rules) hashField(seed, rule);
  return seed;
}

std::size_t std::hash<FirewallNetworkPolicy>::operator()(
    const FirewallNetworkPolicy& network) const noexcept {
  std::size_t seed = 0;
  hashField(seed, network.networkID);
  hashField(seed, network.name);
  hashField(seed, network.subnetCIDR);
  hashOptional(seed, network.gatewayIPv4);
  hashField(seed, network.dnsProxyEnabled);
  hashField(seed, network.policy);
  hashOptional(seed, network.keepsIPv6);
  return seed;
}
