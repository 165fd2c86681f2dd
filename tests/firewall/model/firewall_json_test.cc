#include "firewall/model/firewall_json.h"

#include <gtest/gtest.h>

namespace {

using nlohmann::json;

// Lab has every field. Home has no gateway, a null keepsIPv6, no rules and a key of the future.
json validDocument() {
  json lab = json::parse(R"({"networkID": "6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5b", "name": "Lab",
    "subnetCIDR": "192.168.64.0/24", "gatewayIPv4": "192.168.64.1", "dnsProxyEnabled": true,
    "policy": {"enabled": true, "defaultInbound": "deny", "defaultOutbound": "allow", "rules": [
      {"id": "0a1b2c3d-4e5f-4061-8283-94a5b6c7d8e9", "enabled": true, "direction": "inbound",
       "action": "allow", "proto": "tcp", "remoteCIDR": "10.0.0.0/8 ", "ports": "22"}]},
    "keepsIPv6": true})");
  json home = lab;
  home.erase("gatewayIPv4");
  home["keepsIPv6"] = nullptr;
  home["policy"]["rules"] = json::array();
  home["colour"] = "blue";
  return {lab, home};
}

TEST(FirewallJSON, DecodesEveryFieldAndWritesItBackWithUpperCaseIdentities) {
  const auto networks = FirewallJSON::decodeDocument(validDocument().dump());
  // Everything read is written back, absent optionals left out rather than written as null.
  json expected = validDocument();
  for (json& network : expected) network["networkID"] = "6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B";
  expected[0]["policy"]["rules"][0]["id"] = "0A1B2C3D-4E5F-4061-8283-94A5B6C7D8E9";
  expected[1].erase("keepsIPv6");
  expected[1].erase("colour");
  EXPECT_EQ(FirewallJSON::encode(networks), expected);
  EXPECT_EQ(json::parse(FirewallJSON::encodeOrdered(networks).dump()), expected);
  EXPECT_TRUE(FirewallJSON::decodeDocument(" \n[ ]\n").empty());
  // Identities are read only in their hyphenated form, in either case.
  EXPECT_EQ(Uuid::parse("6F1C2A7E-3b4d-4e5f-8a9b-0c1d2e3f4a5b")->bytes,
            (std::array<std::uint8_t, 16>{0x6F, 0x1C, 0x2A, 0x7E, 0x3B, 0x4D, 0x4E, 0x5F, 0x8A,
                                          0x9B, 0x0C, 0x1D, 0x2E, 0x3F, 0x4A, 0x5B}));
  for (const char* text :
       {"{6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5b}", "6f1c2a7e3-b4d-4e5f-8a9b-0c1d2e3f4a5b",
        "6f1c2a7g-3b4d-4e5f-8a9b-0c1d2e3f4a5b", " 6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5"}) {
    EXPECT_FALSE(Uuid::parse(text)) << text;
  }
  EXPECT_NE(std::hash<Uuid>{}(Uuid{}), std::hash<Uuid>{}(Uuid{{0, 0, 0, 0, 0, 0, 0, 0, 1}}));
}

TEST(FirewallJSON, EachKindOfFaultFailsTheWholeDocumentNamingThePlace) {
  const json remove(json::value_t::discarded);
  const std::string rule = "[0].policy.rules[0]";
  // clang-format off
  const std::vector<std::tuple<std::string, json, std::string>> cases = {
      {"/0/policy/rules/0/proto", "ICMP", rule + R"(.proto: "ICMP" is not one of "any", "tcp", "udp", "icmp")"},
      {"/0/policy/rules/0/direction", "in", rule + R"(.direction: "in" is not one of "inbound", "outbound")"},
      {"/0/policy/rules/0/ports", remove, rule + ".ports: required key is missing"},
      {"/0/policy/rules/0/enabled", "yes", rule + ".enabled: expected a boolean, found string"},
      {"/0/policy/rules/0", "rule", rule + ": expected an object, found string"},
      {"/0/name", nullptr, "[0].name: required value is null"},
      {"/0/policy", remove, "[0].policy: required key is missing"},
      {"/0/dnsProxyEnabled", 1, "[0].dnsProxyEnabled: expected a boolean, found number"},
      {"/0/gatewayIPv4", 192, "[0].gatewayIPv4: expected a string, found number"},
      {"/0/policy/rules", json::object(), "[0].policy.rules: expected an array, found object"},
      {"/0/networkID", "6f1c2a7e3b4d4e5f8a9b0c1d2e3f4a5b",
       R"([0].networkID: "6f1c2a7e3b4d4e5f8a9b0c1d2e3f4a5b" is not a UUID (8-4-4-4-12 hexadecimal digits))"},
      {"/1", "\u00ff", "[1]: expected an object, found string"},
      {"", json::object(), "the document: expected an array of networks, found object"}};
  // clang-format on
  for (const auto& [place, value, description] : cases) {
    json document = validDocument();
    const json::json_pointer pointer(place);
    if (value.is_discarded()) document.at(pointer.parent_pointer()).erase(pointer.back());
    if (!value.is_discarded()) document[pointer] = value;
    try {
      FirewallJSON::decodeDocument(document.dump());
      ADD_FAILURE() << "decoded " << document;
    } catch (const FirewallJSON::DecodeError& error) {
      EXPECT_EQ(error.what(), description);
    }
  }
}

}  // namespace
