#include "firewall/model/firewall_json.h"

#include <array>
#include <utility>

namespace FirewallJSON {

namespace {

using nlohmann::json;

// The key path of a member: "<where>.<key>", or the key alone at the top.
std::string member(const std::string& where, std::string_view key) {
  std::string path = where;
  if (!path.empty()) path += '.';
  path += key;
  return path;
}

// The place named in a description; the document itself when the path is empty.
std::string place(const std::string& where) {
  return where.empty() ? "the document" : where;
}

[[noreturn]] void fail(const std::string& where, const std::string& what) {
  throw DecodeError(place(where) + ": " + what);
}

std::string typeName(const json& value) {
  return value.type_name();
}

const json& object(const json& value, const std::string& where) {
  if (!value.is_object()) fail(where, "expected an object, found " + typeName(value));
  return value;
}

// The value of a required key: present and not null.
const json& required(const json& object, std::string_view key, const std::string& where) {
  auto found = object.find(key);
  if (found == object.end()) fail(member(where, key), "required key is missing");
  if (found->is_null()) fail(member(where, key), "required value is null");
  return *found;
}

// The value of an optional key, or nullptr when it is missing or null.
const json* optional(const json& object, std::string_view key) {
  auto found = object.find(key);
  if (found == object.end() || found->is_null()) return nullptr;
  return &*found;
}

std::string string(const json& value, const std::string& where) {
  if (!value.is_string()) fail(where, "expected a string, found " + typeName(value));
  return value.get<std::string>();
}

bool boolean(const json& value, const std::string& where) {
  if (!value.is_boolean()) fail(where, "expected a boolean, found " + typeName(value));
  return value.get<bool>();
}

Uuid uuid(const json& value, const std::string& where) {
  std::string text = string(value, where);
  std::optional<Uuid> parsed = Uuid::parse(text);
  if (!parsed) fail(where, json(text).dump() + " is not a UUID (8-4-4-4-12 hexadecimal digits)");
  return *parsed;
}

// The enumeration case whose raw value is exactly the text.
template <typename Enum, std::size_t N>
Enum enumeration(const json& value, const std::string& where, const std::array<Enum, N>& cases) {
  std::string text = string(value, where);
  for (Enum candidate : cases) {
    if (rawValue(candidate) == text) return candidate;
  }
  std::string allowed;
  for (Enum candidate : cases) {
    if (!allowed.empty()) allowed += ", ";
    allowed += '"';
    allowed += rawValue(candidate);
    allowed += '"';
  }
  fail(where, json(text).dump() + " is not one of " + allowed);
}

constexpr std::array kDirections{FirewallRule::Direction::inbound,
                                 FirewallRule::Direction::outbound};
constexpr std::array kActions{FirewallRule::Action::allow, FirewallRule::Action::deny};
constexpr std::array kProtos{FirewallRule::Proto::any, FirewallRule::Proto::tcp,
                             FirewallRule::Proto::udp, FirewallRule::Proto::icmp};

template <typename J>
J encodeRuleAs(const FirewallRule& rule) {
  J out = J::object();
  out["id"] = rule.id.text();
  out["enabled"] = rule.enabled;
  out["direction"] = std::string(rawValue(rule.direction));
  out["action"] = std::string(rawValue(rule.action));
  out["proto"] = std::string(rawValue(rule.proto));
  out["remoteCIDR"] = rule.remoteCIDR;
  out["ports"] = rule.ports;
  return out;
}

template <typename J>
J encodePolicyAs(const NetworkFirewallPolicy& policy) {
  J out = J::object();
  out["enabled"] = policy.enabled;
  out["defaultInbound"] = std::string(rawValue(policy.defaultInbound));
  out["defaultOutbound"] = std::string(rawValue(policy.defaultOutbound));
  J rules = J::array();
  for (const FirewallRule& rule : policy.rules) rules.push_back(encodeRuleAs<J>(rule));
  out["rules"] = std::move(rules);
  return out;
}

template <typename J>
J encodeNetworkAs(const FirewallNetworkPolicy& network) {
  J out = J::object();
  out["networkID"] = network.networkID.text();
  out["name"] = network.name;
  out["subnetCIDR"] = network.subnetCIDR;
  if (network.gatewayIPv4) out["gatewayIPv4"] = *network.gatewayIPv4;
  out["dnsProxyEnabled"] = network.dnsProxyEnabled;
  out["policy"] = encodePolicyAs<J>(network.policy);
  if (network.keepsIPv6) out["keepsIPv6"] = *network.keepsIPv6;
  return out;
}

template <typename J>
J encodeNetworksAs(const std::vector<FirewallNetworkPolicy>& networks) {
  J out = J::array();
  for (const FirewallNetworkPolicy& network : networks) out.push_back(encodeNetworkAs<J>(network));
  return out;
}

}  // namespace

json encode(const FirewallRule& rule) {
  return encodeRuleAs<json>(rule);
}
json encode(const NetworkFirewallPolicy& policy) {
  return encodePolicyAs<json>(policy);
}
json encode(const FirewallNetworkPolicy& network) {
  return encodeNetworkAs<json>(network);
}
json encode(const std::vector<FirewallNetworkPolicy>& networks) {
  return encodeNetworksAs<json>(networks);
}
nlohmann::ordered_json encodeOrdered(const std::vector<FirewallNetworkPolicy>& networks) {
  return encodeNetworksAs<nlohmann::ordered_json>(networks);
}

FirewallRule decodeRule(const json& value, const std::string& where) {
  const json& rule = object(value, where);
  FirewallRule out;
  out.id = uuid(required(rule, "id", where), member(where, "id"));
  out.enabled = boolean(required(rule, "enabled", where), member(where, "enabled"));
  out.direction =
      enumeration(required(rule, "direction", where), member(where, "direction"), kDirections);
  out.action = enumeration(required(rule, "action", where), member(where, "action"), kActions);
  out.proto = enumeration(required(rule, "proto", where), member(where, "proto"), kProtos);
  out.remoteCIDR = string(required(rule, "remoteCIDR", where), member(where, "remoteCIDR"));
  out.ports = string(required(rule, "ports", where), member(where, "ports"));
  return out;
}

NetworkFirewallPolicy decodePolicy(const json& value, const std::string& where) {
  const json& policy = object(value, where);
  NetworkFirewallPolicy out;
  out.enabled = boolean(required(policy, "enabled", where), member(where, "enabled"));
  out.defaultInbound = enumeration(required(policy, "defaultInbound", where),
                                   member(where, "defaultInbound"), kActions);
  out.defaultOutbound = enumeration(required(policy, "defaultOutbound", where),
                                    member(where, "defaultOutbound"), kActions);
  const std::string rulesWhere = member(where, "rules");
  const json& rules = required(policy, "rules", where);
  if (!rules.is_array()) fail(rulesWhere, "expected an array, found " + typeName(rules));
  out.rules.reserve(rules.size());
  for (std::size_t i = 0; i < rules.size(); ++i) {
    out.rules.push_back(decodeRule(rules[i], rulesWhere + "[" + std::to_string(i) + "]"));
  }
  return out;
}

FirewallNetworkPolicy decodeNetwork(const json& value, const std::string& where) {
  const json& network = object(value, where);
  FirewallNetworkPolicy out;
  out.networkID = uuid(required(network, "networkID", where), member(where, "networkID"));
  out.name = string(required(network, "name", where), member(where, "name"));
  out.subnetCIDR = string(required(network, "subnetCIDR", where), member(where, "subnetCIDR"));
  if (const json* gateway = optional(network, "gatewayIPv4")) {
    out.gatewayIPv4 = string(*gateway, member(where, "gatewayIPv4"));
  }
  out.dnsProxyEnabled =
      boolean(required(network, "dnsProxyEnabled", where), member(where, "dnsProxyEnabled"));
  out.policy = decodePolicy(required(network, "policy", where), member(where, "policy"));
  if (const json* keeps = optional(network, "keepsIPv6")) {
    out.keepsIPv6 = boolean(*keeps, member(where, "keepsIPv6"));
  }
  return out;
}

std::vector<FirewallNetworkPolicy> decodeNetworks(const json& value, const std::string& where) {
  if (!value.is_array()) fail(where, "expected an array of networks, found " + typeName(value));
  std::vector<FirewallNetworkPolicy> out;
  out.reserve(value.size());
  for (std::size_t i = 0; i < value.size(); ++i) {
    out.push_back(decodeNetwork(value[i], where + "[" + std::to_string(i) + "]"));
  }
  return out;
}

std::string parserMessage(const json::exception& error) {
  std::string message = error.what();
  if (!message.empty() && message.front() == '[') {
    std::size_t close = message.find("] ");
    if (close != std::string::npos) message.erase(0, close + 2);
  }
  return message;
}

std::vector<FirewallNetworkPolicy> decodeDocument(std::string_view document) {
  json parsed;
  try {
    parsed = json::parse(document.begin(), document.end());
  } catch (const json::exception& error) {
    throw DecodeError("the document is not JSON: " + parserMessage(error));
  }
  return decodeNetworks(parsed, "");
}

}  // namespace FirewallJSON
