// The firewall records the application sends for each virtual network: FirewallRule,
// NetworkFirewallPolicy and FirewallNetworkPolicy. Plain values with equality and hashing over
// every field; their JSON form lives in firewall_json.h.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/model/uuid.h"

struct FirewallRule {
  // Seen from the virtual network: inbound is remote party -> network's machines.
  enum class Direction { inbound, outbound };
  enum class Action { allow, deny };
  enum class Proto { any, tcp, udp, icmp };

  Uuid id;
  bool enabled = true;
  Direction direction = Direction::inbound;
  Action action = Action::allow;
  Proto proto = Proto::any;
  std::string remoteCIDR;  // as typed, kept verbatim
  std::string ports;       // as typed, kept verbatim

  // True for any, tcp and udp; an icmp rule's ports are never looked at.
  static bool carriesPorts(Proto proto) { return proto != Proto::icmp; }

  bool operator==(const FirewallRule&) const = default;
};

struct NetworkFirewallPolicy {
  bool enabled = true;
  FirewallRule::Action defaultInbound = FirewallRule::Action::allow;
  FirewallRule::Action defaultOutbound = FirewallRule::Action::allow;
  std::vector<FirewallRule> rules;  // evaluation order: the first match decides

  bool operator==(const NetworkFirewallPolicy&) const = default;
};

struct FirewallNetworkPolicy {
  Uuid networkID;
  std::string name;
  std::string subnetCIDR;  // verbatim until the review puts it in canonical form
  std::optional<std::string> gatewayIPv4;
  bool dnsProxyEnabled = false;
  NetworkFirewallPolicy policy;
  std::optional<bool> keepsIPv6;  // only true keeps IPv6 on the network's bridge

  bool operator==(const FirewallNetworkPolicy&) const = default;
};

// The raw texts of the enumerations: their JSON form and what hashing uses.
std::string_view rawValue(FirewallRule::Direction value);
std::string_view rawValue(FirewallRule::Action value);
std::string_view rawValue(FirewallRule::Proto value);

template <>
struct std::hash<FirewallRule> {
  std::size_t operator()(const FirewallRule& rule) const noexcept;
};
template <>
struct std::hash<NetworkFirewallPolicy> {
  std::size_t operator()(const NetworkFirewallPolicy& policy) const noexcept;
};
template <>
struct std::hash<FirewallNetworkPolicy> {
  std::size_t operator()(const FirewallNetworkPolicy& network) const noexcept;
};
