#include "firewall/model/firewall_records.h"

#include <gtest/gtest.h>

#include <functional>
#include <unordered_set>

#include "firewall/model/uuid.h"
#include "model_fixtures.h"

namespace {

using model_test::rule;
using Act = FirewallRule::Action;
using Proto = FirewallRule::Proto;

TEST(Uuid, ReadsEitherCaseWritesUpperCaseAndRefusesOtherForms) {
  std::optional<Uuid> lower = Uuid::parse("6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5b");
  ASSERT_TRUE(lower);
  EXPECT_EQ(lower, Uuid::parse("6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B"));
  EXPECT_EQ(lower->text(), "6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B");
  EXPECT_EQ(lower->bytes[0], 0x6F);
  EXPECT_EQ(lower->bytes[15], 0x5B);
  for (const char* text :
       {"", "6f1c2a7e3b4d4e5f8a9b0c1d2e3f4a5b", "{6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5b}",
        "6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5", "6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5bc",
        "6f1c2a7e3-b4d-4e5f-8a9b-0c1d2e3f4a5b", "6f1c2a7g-3b4d-4e5f-8a9b-0c1d2e3f4a5b",
        " 6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5", "6f1c2a7e-3b4d-4e5f-8a9b+0c1d2e3f4a5b"}) {
    EXPECT_FALSE(Uuid::parse(text)) << text;
  }
  std::unordered_set<std::size_t> seen;
  for (int i = 0; i < 256; ++i) seen.insert(std::hash<Uuid>{}(model_test::uuidNumber(i)));
  EXPECT_GT(seen.size(), 250u);
}

TEST(FirewallRecords, EveryFieldTakesPartInEqualityAndHashing) {
  EXPECT_FALSE(FirewallRule::carriesPorts(Proto::icmp));
  EXPECT_TRUE(FirewallRule::carriesPorts(Proto::any));
  FirewallNetworkPolicy base = model_test::network(1, "Lab", "192.168.64.0/24");
  base.gatewayIPv4 = "192.168.64.1";
  base.policy.rules.push_back(
      rule(FirewallRule::Direction::inbound, Act::allow, Proto::tcp, "any", "22"));
  const std::hash<FirewallNetworkPolicy> hash;
  const std::vector<std::function<void(FirewallNetworkPolicy&)>> changes = {
      [](auto& n) { n.networkID = model_test::uuidNumber(2); },
      [](auto& n) { n.name = "Lab2"; },
      [](auto& n) { n.subnetCIDR = "192.168.64.0/24 "; },
      [](auto& n) { n.gatewayIPv4.reset(); },
      [](auto& n) { n.gatewayIPv4 = "192.168.64.2"; },
      [](auto& n) { n.dnsProxyEnabled = true; },
      [](auto& n) { n.keepsIPv6 = false; },  // absent and false differ
      [](auto& n) { n.policy.enabled = false; },
      [](auto& n) { n.policy.defaultInbound = Act::allow; },
      [](auto& n) { n.policy.defaultOutbound = Act::deny; },
      [](auto& n) { n.policy.rules.clear(); },
      [](auto& n) { n.policy.rules.push_back(n.policy.rules[0]); },
      [](auto& n) { n.policy.rules[0].id = model_test::uuidNumber(3); },
      [](auto& n) { n.policy.rules[0].enabled = false; },
      [](auto& n) { n.policy.rules[0].direction = FirewallRule::Direction::outbound; },
      [](auto& n) { n.policy.rules[0].action = Act::deny; },
      [](auto& n) { n.policy.rules[0].proto = Proto::udp; },
      [](auto& n) { n.policy.rules[0].remoteCIDR = "ANY"; },
      [](auto& n) { n.policy.rules[0].ports = "22 "; },
  };
  for (std::size_t i = 0; i < changes.size(); ++i) {
    FirewallNetworkPolicy changed = base;
    changes[i](changed);
    EXPECT_NE(changed, base) << "change " << i;
    EXPECT_NE(hash(changed), hash(base)) << "change " << i;
    const FirewallNetworkPolicy copy = changed;
    EXPECT_EQ(copy, changed);
    EXPECT_EQ(hash(copy), hash(changed));
  }
}

}  // namespace
