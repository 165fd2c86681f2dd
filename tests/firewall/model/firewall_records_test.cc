#include "firewall/model/firewall_records.h"

#include <gtest/gtest.h>

#include <functional>

#include "model_fixtures.h"

namespace {

using model_test::network;
using model_test::rule;
using Dir = FirewallRule::Direction;
using Act = FirewallRule::Action;
using Proto = FirewallRule::Proto;

TEST(FirewallRecords, RawValuesAreTheJSONTexts) {
  EXPECT_EQ(rawValue(Dir::inbound), "inbound");
  EXPECT_EQ(rawValue(Dir::outbound), "outbound");
  EXPECT_EQ(rawValue(Act::allow), "allow");
  EXPECT_EQ(rawValue(Act::deny), "deny");
  EXPECT_EQ(rawValue(Proto::any), "any");
  EXPECT_EQ(rawValue(Proto::tcp), "tcp");
  EXPECT_EQ(rawValue(Proto::udp), "udp");
  EXPECT_EQ(rawValue(Proto::icmp), "icmp");
  EXPECT_TRUE(FirewallRule::carriesPorts(Proto::any));
  EXPECT_TRUE(FirewallRule::carriesPorts(Proto::tcp));
  EXPECT_TRUE(FirewallRule::carriesPorts(Proto::udp));
  EXPECT_FALSE(FirewallRule::carriesPorts(Proto::icmp));
}

TEST(FirewallRecords, EveryFieldTakesPartInEqualityAndHashing) {
  FirewallNetworkPolicy base = network(1, "Lab", "192.168.64.0/24");
  base.gatewayIPv4 = "192.168.64.1";
  base.policy.rules.push_back(rule(Dir::inbound, Act::allow, Proto::tcp, "any", "22"));
  const std::hash<FirewallNetworkPolicy> hash;

  std::vector<std::function<void(FirewallNetworkPolicy&)>> changes = {
      [](auto& n) { n.networkID = model_test::uuidNumber(2); },
      [](auto& n) { n.name = "Lab2"; },
      [](auto& n) { n.subnetCIDR = "192.168.64.0/24 "; },
      [](auto& n) { n.gatewayIPv4.reset(); },
      [](auto& n) { n.gatewayIPv4 = "192.168.64.2"; },
      [](auto& n) { n.dnsProxyEnabled = true; },
      [](auto& n) { n.keepsIPv6 = false; },
      [](auto& n) { n.policy.enabled = false; },
      [](auto& n) { n.policy.defaultInbound = Act::allow; },
      [](auto& n) { n.policy.defaultOutbound = Act::deny; },
      [](auto& n) { n.policy.rules.clear(); },
      [](auto& n) { n.policy.rules.push_back(n.policy.rules[0]); },
      [](auto& n) { n.policy.rules[0].id = model_test::uuidNumber(3); },
      [](auto& n) { n.policy.rules[0].enabled = false; },
      [](auto& n) { n.policy.rules[0].direction = Dir::outbound; },
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
    FirewallNetworkPolicy copy = changed;
    EXPECT_EQ(copy, changed);
    EXPECT_EQ(hash(copy), hash(changed));
  }
}

TEST(FirewallRecords, AbsentAndFalseKeepsIPv6AreDifferentValues) {
  FirewallNetworkPolicy absent = network(1, "Lab", "192.168.64.0/24");
  FirewallNetworkPolicy falseValue = absent;
  falseValue.keepsIPv6 = false;
  EXPECT_NE(absent, falseValue);
  EXPECT_NE(std::hash<FirewallNetworkPolicy>{}(absent),
            std::hash<FirewallNetworkPolicy>{}(falseValue));
}

}  // namespace
