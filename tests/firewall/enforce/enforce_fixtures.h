// Builders of the networks and store dates the enforcement tests use.
#pragma once

#include <gmock/gmock.h>

#include "firewall/model/firewall_json.h"
#include "platform/clock.h"

namespace enforce_test {

// "a.b.c.0/24" with gateway "a.b.c.1", inbound denied but tcp port 22 from anywhere.
inline FirewallNetworkPolicy network(int id, std::string name, std::string subnet) {
  FirewallNetworkPolicy n;
  n.name = std::move(name);
  n.subnetCIDR = std::move(subnet);
  n.networkID.bytes[0] = 0xA0;
  n.networkID.bytes[15] = static_cast<std::uint8_t>(id);
  n.gatewayIPv4 = n.subnetCIDR.substr(0, n.subnetCIDR.rfind('.')) + ".1";
  n.dnsProxyEnabled = n.policy.enabled = true;
  n.policy.defaultInbound = FirewallRule::Action::deny;
  n.policy.rules = {
      {.id = n.networkID, .proto = FirewallRule::Proto::tcp, .remoteCIDR = "any", .ports = "22"}};
  return n;
}
inline const auto document = [](const std::vector<FirewallNetworkPolicy>& networks) {
  return FirewallJSON::encode(networks).dump();
};
inline const auto at = [](double seconds) { return fromSecondsSinceReferenceDate(seconds); };

}  // namespace enforce_test
