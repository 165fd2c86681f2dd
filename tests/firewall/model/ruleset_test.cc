#include "firewall/model/ruleset.h"

#include <gtest/gtest.h>

#include "model_fixtures.h"
#include "platform/text.h"

namespace {

using namespace NetworkFirewall;
using model_test::network;
using model_test::rule;
using Dir = FirewallRule::Direction;
using Act = FirewallRule::Action;
using Proto = FirewallRule::Proto;
using Lines = std::vector<std::string>;

// 2026-11-16T20:41:07Z
const TimePoint kGenerated{std::chrono::seconds(1794861667)};

const std::string kHeader =
    "# Tarnly network firewall - generated 2026-11-16T20:41:07Z.\n"
    "# Loaded into pf anchor \"com.apple/900.tarnly.firewall\" by TarnlyAdminHelper. Do not "
    "edit.\n\n";

HostAddress host(std::string interface, std::vector<std::uint8_t> bytes, int prefix = 24) {
  return {std::move(interface), std::move(bytes), prefix};
}

// The lines of the ruleset after the header.
Lines bodyLines(const std::string& text) {
  EXPECT_EQ(text.substr(0, kHeader.size()), kHeader);
  EXPECT_EQ(text.back(), '\n');
  const std::string body = text.substr(kHeader.size());
  const std::vector<std::string_view> pieces = split(body, '\n', true);
  Lines lines(pieces.begin(), pieces.end());
  lines.pop_back();  // after the final line feed
  return lines;
}

TEST(Ruleset, RuleLinesFollowDirectionActionProtocolAndPorts) {
  const std::string s = "192.168.64.0/24";
  EXPECT_EQ(ruleLines(rule(Dir::inbound, Act::allow, Proto::any, "any", "53"), s),
            (Lines{"pass out quick proto tcp from any to 192.168.64.0/24 port 53 keep state",
                   "pass out quick proto udp from any to 192.168.64.0/24 port 53 keep state"}));
  EXPECT_EQ(ruleLines(rule(Dir::inbound, Act::allow, Proto::any, "", " "), s),
            (Lines{"pass out quick from any to 192.168.64.0/24 keep state"}));
  EXPECT_EQ(ruleLines(rule(Dir::inbound, Act::deny, Proto::icmp, "10.1.2.3", "80"), s),
            (Lines{"block drop out quick proto icmp from 10.1.2.3/32 to 192.168.64.0/24"}));
  EXPECT_EQ(ruleLines(rule(Dir::outbound, Act::deny, Proto::any, "10.0.0.0/8", ""), s),
            (Lines{"block drop in quick from 192.168.64.0/24 to 10.0.0.0/8"}));
  EXPECT_EQ(ruleLines(rule(Dir::outbound, Act::allow, Proto::udp, " ANY ", "8000-8080"), s),
            (Lines{"pass in quick proto udp from 192.168.64.0/24 to any port 8000:8080 keep "
                   "state"}));
  EXPECT_TRUE(ruleLines(rule(Dir::outbound, Act::allow, Proto::tcp, "nowhere", "80"), s).empty());
  EXPECT_TRUE(ruleLines(rule(Dir::outbound, Act::allow, Proto::tcp, "any", "8080-80"), s).empty());
}

TEST(Ruleset, SkipsUnusableNetworksAndRulesWithoutShiftingTheOthers) {
  FirewallNetworkPolicy off = network(1, "Off", "192.168.60.0/24");
  off.policy.enabled = false;
  FirewallNetworkPolicy outside = network(2, "Outside", "10.0.0.0/24");
  FirewallNetworkPolicy farm = network(3, "Farm", "192.168.70.5/24");
  farm.dnsProxyEnabled = true;  // no gateway: DHCP at .1, no DNS lines
  farm.policy.defaultInbound = Act::allow;
  farm.policy.defaultOutbound = Act::deny;
  farm.policy.rules = {
      rule(Dir::outbound, Act::allow, Proto::udp, "any", "53"),
      rule(Dir::outbound, Act::allow, Proto::tcp, "bad", "443"),
      rule(Dir::outbound, Act::allow, Proto::tcp, "any", "443", false),
      rule(Dir::outbound, Act::allow, Proto::tcp, "any", "0"),
      rule(Dir::inbound, Act::deny, Proto::icmp, "192.168.1.0/24", "junk"),
  };
  EXPECT_EQ(bodyLines(ruleset({off, outside, farm}, {}, kGenerated)),
            (Lines{
                "# --- Farm (192.168.70.0/24) ---",
                "pass in quick proto udp from 192.168.70.0/24 port 68 to { 192.168.70.1, "
                "255.255.255.255 } port 67 keep state",
                "pass out quick proto udp from 192.168.70.1 port 67 to 192.168.70.0/24 port 68",
                "pass in quick proto udp from 192.168.70.0/24 to any port 53 keep state",
                "block drop out quick proto icmp from 192.168.1.0/24 to 192.168.70.0/24",
                "block drop in quick from 192.168.70.0/24 to any",
                "pass out quick from any to 192.168.70.0/24 keep state",
                "",
            }));
}

// The lab example itself is checked line for line through the preview tool's test.
TEST(Ruleset, GatewayFallbackNameBreaksAndIPv6DropLinesFromTheMap) {
  EXPECT_EQ(ruleset({}, {}, kGenerated), kHeader);
  FirewallNetworkPolicy n =
      network(1, "a\nb\rc\vd\fe\u0085f\u2028g\u2029h\r\ni \u00A0\u2027", "192.168.64.0/22");
  n.gatewayIPv4 = "gateway";  // unreadable: DHCP falls back to .1, no DNS lines
  n.dnsProxyEnabled = true;
  IPv6DropMap drops;
  drops[n.networkID] = {"bridge99", "en0", "bridge100", "bridge99", "bridge123456", "bridge"};
  drops[model_test::uuidNumber(2)] = {"bridge5"};
  EXPECT_EQ(
      bodyLines(ruleset({n}, drops, kGenerated)),
      (Lines{"# --- a b c d e f g h  i \u00A0\u2027 (192.168.64.0/22) ---",
             "block drop quick on bridge100 inet6 all", "block drop quick on bridge99 inet6 all",
             "pass in quick proto udp from 192.168.64.0/22 port 68 to { 192.168.64.1, "
             "255.255.255.255 } port 67 keep state",
             "pass out quick proto udp from 192.168.64.1 port 67 to 192.168.64.0/22 port 68",
             "pass in quick from 192.168.64.0/22 to any keep state",
             "block drop out quick from any to 192.168.64.0/22", ""}));
}

TEST(IPv6Drops, FollowTheGatewayOntoBridges) {
  const std::vector<HostAddress> hosts = {
      host("bridge101", {192, 168, 64, 1}),     host("en0", {192, 168, 64, 1}),
      host("bridge100", {192, 168, 64, 1}, 16), host("bridge101", {192, 168, 64, 1}),
      host("bridge102", {192, 168, 64, 2}),     host("bridge123456", {192, 168, 64, 1}),
      host("bridge7", {192, 168, 70, 1})};
  EXPECT_EQ(bridgesCarrying("192.168.64.1", hosts), (Lines{"bridge100", "bridge101"}));
  EXPECT_TRUE(bridgesCarrying("192.168.64.1/32", hosts).empty());
  EXPECT_TRUE(bridgesCarrying("192.168.99.1", hosts).empty());

  FirewallNetworkPolicy kept = network(1, "Kept", "192.168.64.0/24");
  kept.keepsIPv6 = true;
  FirewallNetworkPolicy dropped = network(2, "Dropped", "192.168.64.0/24");
  dropped.keepsIPv6 = false;
  FirewallNetworkPolicy absent = network(3, "Default gateway", "192.168.70.0/24");
  FirewallNetworkPolicy enOnly = network(4, "En only", "192.168.80.0/24");
  FirewallNetworkPolicy off = network(5, "Off", "192.168.64.0/24");
  off.policy.enabled = false;
  FirewallNetworkPolicy outside = network(6, "Outside", "10.0.0.0/24");
  outside.gatewayIPv4 = "192.168.64.1";
  FirewallNetworkPolicy explicitGateway = network(7, "Explicit", "192.168.64.0/24");
  explicitGateway.gatewayIPv4 = "192.168.64.2";
  std::vector<HostAddress> all = hosts;
  all.push_back(host("en0", {192, 168, 80, 1}));

  IPv6DropMap drops =
      ipv6DropInterfaces({kept, dropped, absent, enOnly, off, outside, explicitGateway}, all);
  EXPECT_EQ(drops, (IPv6DropMap{{dropped.networkID, {"bridge100", "bridge101"}},
                                {absent.networkID, {"bridge7"}},
                                {explicitGateway.networkID, {"bridge102"}}}));

  // A later network with the same identity replaces the earlier entry.
  FirewallNetworkPolicy again = dropped;
  again.subnetCIDR = "192.168.70.0/24";
  EXPECT_EQ(ipv6DropInterfaces({dropped, again}, all),
            (IPv6DropMap{{dropped.networkID, {"bridge7"}}}));
  EXPECT_EQ(defaultGateway("192.168.64.77/24"), "192.168.64.1");
  EXPECT_EQ(defaultGateway("192.168.64.77/30"), "192.168.64.77");
  EXPECT_EQ(defaultGateway("10.0.0.0/24"), std::nullopt);
}

TEST(Digest, IsLowerCaseSHA256AndTheRulesetDigestIgnoresCommentLinesOnly) {
  EXPECT_EQ(digest(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(digest("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  FirewallNetworkPolicy n = network(1, "Lab", "192.168.64.0/24");
  n.policy.rules = {rule(Dir::inbound, Act::allow, Proto::tcp, "any", "22")};
  const std::string first = ruleset({n}, {}, kGenerated);
  const std::string later = ruleset({n}, {}, kGenerated + std::chrono::seconds(1));
  EXPECT_NE(first, later);
  EXPECT_EQ(rulesetDigest(first), rulesetDigest(later));
  n.name = "Other";
  EXPECT_EQ(rulesetDigest(ruleset({n}, {}, kGenerated)), rulesetDigest(first));
  n.policy.rules[0].ports = "23";
  EXPECT_NE(rulesetDigest(ruleset({n}, {}, kGenerated)), rulesetDigest(first));
  // Comment lines, indented ones included, are dropped; the rest is joined as it was.
  EXPECT_EQ(rulesetDigest("# a\npass\n \t# b\n\nblock\n"), digest("pass\n\nblock\n"));
  EXPECT_EQ(rulesetDigest("\u00A0#x\npass"), digest("pass"));
  EXPECT_EQ(rulesetDigest(" pass # not a comment\n"), digest(" pass # not a comment\n"));
  EXPECT_EQ(rulesetDigest("# only comments\n# here"), digest(""));
  EXPECT_EQ(rulesetDigest("\n"), digest("\n"));
}

}  // namespace
