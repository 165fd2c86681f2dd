// Builders of firewall records for the model's tests: a valid network and rule with fields that
// tests then change one at a time.
#pragma once

#include <string>

#include "firewall/model/firewall_records.h"

namespace model_test {

inline Uuid uuidNumber(int n) {
  Uuid uuid;
  uuid.bytes[15] = static_cast<std::uint8_t>(n);
  uuid.bytes[14] = static_cast<std::uint8_t>(n >> 8);
  return uuid;
}

inline FirewallRule rule(FirewallRule::Direction direction, FirewallRule::Action action,
                         FirewallRule::Proto proto, std::string remote, std::string ports,
                         bool enabled = true) {
  FirewallRule r;
  r.id = uuidNumber(1000);
  r.enabled = enabled;
  r.direction = direction;
  r.action = action;
  r.proto = proto;
  r.remoteCIDR = std::move(remote);
  r.ports = std::move(ports);
  return r;
}

inline FirewallNetworkPolicy network(int id, std::string name, std::string subnet) {
  FirewallNetworkPolicy n;
  n.networkID = uuidNumber(id);
  n.name = std::move(name);
  n.subnetCIDR = std::move(subnet);
  n.policy.enabled = true;
  n.policy.defaultInbound = FirewallRule::Action::deny;
  n.policy.defaultOutbound = FirewallRule::Action::allow;
  return n;
}

}  // namespace model_test
