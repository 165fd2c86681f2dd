#include "firewall/model/firewall_json.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

namespace {

using nlohmann::json;

// A valid document of one network with one rule; tests change it one place at a time.
json validDocument() {
  return json::parse(R"([{
    "networkID": "6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5b",
    "name": "Lab",
    "subnetCIDR": "192.168.64.0/24",
    "gatewayIPv4": "192.168.64.1",
    "dnsProxyEnabled": true,
    "policy": {
      "enabled": true, "defaultInbound": "deny", "defaultOutbound": "allow",
      "rules": [{"id": "0a1b2c3d-4e5f-4061-8283-94a5b6c7d8e9", "enabled": true,
                 "direction": "inbound", "action": "allow", "proto": "tcp",
                 "remoteCIDR": "10.0.0.0/8 ", "ports": "22"}]
    },
    "keepsIPv6": true
  }])");
}

std::string decodeFailure(std::string_view bytes) {
  try {
    FirewallJSON::decodeDocument(bytes);
  } catch (const FirewallJSON::DecodeError& error) {
    return error.what();
  }
  return "<decoded>";
}

TEST(FirewallJSONDecode, ReadsAValidDocumentAndEncodesItBack) {
  auto networks = FirewallJSON::decodeDocument(validDocument().dump());
  ASSERT_EQ(networks.size(), 1u);
  const FirewallNetworkPolicy& n = networks[0];
  EXPECT_EQ(n.gatewayIPv4, "192.168.64.1");
  EXPECT_TRUE(n.dnsProxyEnabled);
  EXPECT_EQ(n.keepsIPv6, true);
  EXPECT_EQ(n.policy.defaultInbound, FirewallRule::Action::deny);
  ASSERT_EQ(n.policy.rules.size(), 1u);
  EXPECT_EQ(n.policy.rules[0].proto, FirewallRule::Proto::tcp);
  EXPECT_EQ(n.policy.rules[0].remoteCIDR, "10.0.0.0/8 ");  // kept as typed, blank included
  json encoded = FirewallJSON::encode(networks);
  EXPECT_EQ(encoded[0]["networkID"], "6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B");
  EXPECT_EQ(encoded[0]["policy"]["rules"][0]["id"], "0A1B2C3D-4E5F-4061-8283-94A5B6C7D8E9");
  EXPECT_EQ(FirewallJSON::decodeDocument(encoded.dump()), networks);
  // The ordered form keeps the declared key order.
  std::string ordered = FirewallJSON::encodeOrdered(networks).dump();
  EXPECT_LT(ordered.find("\"networkID\""), ordered.find("\"name\""));
  EXPECT_LT(ordered.find("\"policy\""), ordered.find("\"keepsIPv6\""));
  EXPECT_EQ(json::parse(ordered), encoded);
  // Unknown keys are ignored and empty arrays accepted.
  json extra = validDocument();
  extra[0]["colour"] = "blue";
  extra[0]["policy"]["future"] = {1, 2};
  extra[0]["policy"]["rules"] = json::array();
  ASSERT_EQ(FirewallJSON::decodeDocument(extra.dump()).size(), 1u);
  EXPECT_TRUE(FirewallJSON::decodeDocument(" \n[ ]\n").empty());
  // Missing and null optionals read as absent and are not written.
  json nulls = validDocument();
  nulls[0].erase("gatewayIPv4");
  nulls[0]["keepsIPv6"] = nullptr;
  auto absent = FirewallJSON::decodeDocument(nulls.dump());
  EXPECT_FALSE(absent[0].gatewayIPv4 || absent[0].keepsIPv6);
  EXPECT_EQ(FirewallJSON::encode(absent).dump().find("null"), std::string::npos);
}

TEST(FirewallJSONDecode, EachKindOfFaultFailsTheWholeDocumentNamingThePlace) {
  struct Case {
    std::function<void(json&)> change;
    std::string description;
  };
  std::vector<Case> cases = {
      {[](json& d) { d[0]["policy"]["rules"][0]["proto"] = "ICMP"; },
       R"([0].policy.rules[0].proto: "ICMP" is not one of "any", "tcp", "udp", "icmp")"},
      {[](json& d) { d[0]["policy"]["rules"][0]["direction"] = "in"; },
       R"([0].policy.rules[0].direction: "in" is not one of "inbound", "outbound")"},
      {[](json& d) { d[0]["policy"]["rules"][0].erase("ports"); },
       "[0].policy.rules[0].ports: required key is missing"},
      {[](json& d) { d[0]["name"] = nullptr; }, "[0].name: required value is null"},
      {[](json& d) { d[0].erase("policy"); }, "[0].policy: required key is missing"},
      {[](json& d) { d[0]["dnsProxyEnabled"] = 1; },
       "[0].dnsProxyEnabled: expected a boolean, found number"},
      {[](json& d) { d[0]["gatewayIPv4"] = 192; },
       "[0].gatewayIPv4: expected a string, found number"},
      {[](json& d) { d[0]["policy"]["rules"] = json::object(); },
       "[0].policy.rules: expected an array, found object"},
      {[](json& d) { d[0]["policy"]["rules"][0] = "rule"; },
       "[0].policy.rules[0]: expected an object, found string"},
      {[](json& d) { d[0]["networkID"] = "6f1c2a7e3b4d4e5f8a9b0c1d2e3f4a5b"; },
       R"([0].networkID: "6f1c2a7e3b4d4e5f8a9b0c1d2e3f4a5b" is not a UUID (8-4-4-4-12 hexadecimal digits))"},
      {[](json& d) {
         d.push_back(d[0]);
         d[1]["policy"]["rules"][0]["enabled"] = "yes";
       },
       "[1].policy.rules[0].enabled: expected a boolean, found string"},
      {[](json& d) { d = d[0]; }, "the document: expected an array of networks, found object"},
      {[](json& d) { d = json::parse("[\"\\u00ff\"]"); }, "[0]: expected an object, found string"},
  };
  for (const Case& c : cases) {
    json document = validDocument();
    c.change(document);
    EXPECT_EQ(decodeFailure(document.dump()), c.description);
  }
}

}  // namespace
