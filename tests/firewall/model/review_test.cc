#include "firewall/model/review.h"

#include <gtest/gtest.h>

#include "model_fixtures.h"

namespace {

using namespace NetworkFirewall;
using model_test::network;
using model_test::rule;
using Dir = FirewallRule::Direction;
using Act = FirewallRule::Action;
using Proto = FirewallRule::Proto;
using Bytes = std::vector<std::uint8_t>;

HostAddress host(std::string interface, Bytes bytes, int prefix) {
  return {std::move(interface), std::move(bytes), prefix};
}

const std::string kUnusable =
    "\" isn't one macOS gives a virtual network (a /24 such as 192.168.64.0/24, inside "
    "192.168.0.0/16), so its rules can't be keyed on it.";

TEST(IPv4Text, ParsesOnlyExactDottedQuadsAndCIDRsAndClearsHostBits) {
  EXPECT_EQ(parseIPv4("192.168.64.1"), (std::array<std::uint8_t, 4>{192, 168, 64, 1}));
  for (std::string_view bad :
       {"", " 192.168.64.1", "192.168.064.1", "10.0.0", "256.1.1.1", "1.2.3.4.5", "0x1.2.3.4",
        "1.2.3.4/24", "1..2.3", "255.255.255.2555"}) {
    EXPECT_FALSE(parseIPv4(bad)) << bad;
  }
  EXPECT_FALSE(parseIPv4(std::string_view("1.2.3.4\0x", 9)));
  EXPECT_EQ(parseCIDR("10.1.2.3"), (ParsedCIDR{{10, 1, 2, 3}, 32}));
  EXPECT_EQ(parseCIDR("\u00A0 10.1.2.3/8\t"), (ParsedCIDR{{10, 1, 2, 3}, 8}));
  for (std::string_view bad : {"10.1.2.3/", "10.1.2.3/33", "10.1.2.3/024", "10.1.2.3//24", "/24",
                               "10.1.2.3/+8", "10.1.2.3 /8", "\n10.1.2.3/8"}) {
    EXPECT_FALSE(parseCIDR(bad)) << bad;
  }
  const Bytes a{192, 168, 64, 7};
  EXPECT_TRUE(prefixesMatch(a, Bytes{192, 168, 64, 4}, 30));
  EXPECT_FALSE(prefixesMatch(a, Bytes{192, 168, 64, 0}, 30));
  EXPECT_TRUE(prefixesMatch(a, Bytes{192, 168, 65, 0}, 23));
  EXPECT_TRUE(prefixesMatch(a, Bytes{1, 2, 3, 4}, -5));
  EXPECT_FALSE(prefixesMatch(a, Bytes{192, 168, 64, 6}, 500));
  EXPECT_FALSE(prefixesMatch(a, Bytes{192, 168, 64}, 0));
  EXPECT_EQ(dottedQuad(Bytes{0, 10, 100, 255}), "0.10.100.255");
  EXPECT_EQ(canonicalSubnet("  192.168.64.7/24 \u3000"), "192.168.64.0/24");
  EXPECT_EQ(canonicalSubnet("192.168.79.255/20"), "192.168.64.0/20");
  EXPECT_EQ(canonicalSubnet("192.168.64.7/30"), "192.168.64.4/30");
  for (std::string_view bad : {"192.168.64.0/19", "192.168.64.0/31", "192.168.64.0", "10.0.0.0/24",
                               "192.169.64.0/24", "192.168.064.0/24", "lab"}) {
    EXPECT_FALSE(canonicalSubnet(bad)) << bad;
  }
}

TEST(SubnetProblem, RefusesUnusableSubnetsAndOverlapsWithTheHostsOwnNetworks) {
  EXPECT_EQ(subnetProblem(" 10.0.0.0/24 ", {}), "the subnet \" 10.0.0.0/24 " + kUnusable);
  EXPECT_EQ(subnetProblem("192.168.64.0/31", {}), "the subnet \"192.168.64.0/31" + kUnusable);
  const std::string tail =
      ", one of this Mac's own networks; rules there would cut the Mac off from it.";
  // A virtual network's own bridge (bridge100 and up) is not one of the host's networks.
  for (const char* bridge : {"bridge100", "bridge0100"}) {
    EXPECT_FALSE(subnetProblem("192.168.64.9/24", {host(bridge, {192, 168, 64, 1}, 24)}));
  }
  for (const char* other : {"bridge0", "bridge99", "bridgeX", "en0"}) {
    EXPECT_EQ(subnetProblem("192.168.64.5/24", {host(other, {192, 168, 64, 1}, 24)}),
              "192.168.64.0/24 overlaps " + std::string(other) + " (192.168.64.1)" + tail);
  }
  // The shorter prefix decides: a /16 on the host covers every acceptable subnet...
  EXPECT_EQ(subnetProblem("192.168.200.0/22", {host("en0", {192, 168, 0, 10}, 16)}),
            "192.168.200.0/22 overlaps en0 (192.168.0.10)" + tail);
  // ...and a host address inside a /20 subnet overlaps it even with a /32 of its own.
  EXPECT_TRUE(subnetProblem("192.168.64.0/20", {host("utun3", {192, 168, 70, 2}, 32)}));
  EXPECT_FALSE(subnetProblem("192.168.64.0/24", {host("en0", {192, 168, 65, 1}, 24)}));
  // IPv6 addresses are never considered, whatever their bytes.
  Bytes v6(16, 0);
  v6[0] = 192;
  v6[1] = 168;
  EXPECT_FALSE(subnetProblem("192.168.64.0/24", {host("en0", v6, 0)}));
  // Of several overlapping addresses the first in the list is named.
  EXPECT_EQ(subnetProblem("192.168.64.0/24",
                          {host("lo0", {127, 0, 0, 1}, 8), host("bridge101", {192, 168, 64, 1}, 24),
                           host("en1", {192, 168, 64, 20}, 24), host("en0", {192, 168, 0, 2}, 16)}),
            "192.168.64.0/24 overlaps en1 (192.168.64.20)" + tail);
}

TEST(RuleChecks, RemotesAndPortsNormaliseIncludingOddForms) {
  for (std::string_view any : {"", "any", "ANY", " any\t", "\u00A0Any\u2003", "  "}) {
    EXPECT_EQ(normalizedRemote(any), "any") << any;
  }
  EXPECT_EQ(normalizedRemote("10.1.2.3"), "10.1.2.3/32");
  EXPECT_EQ(normalizedRemote(" 10.0.0.0/8 "), "10.0.0.0/8");
  for (std::string_view bad : {"10.0.0.0/33", "example.com", "any/8", "anywhere", "\nany"}) {
    EXPECT_FALSE(normalizedRemote(bad)) << bad;
  }
  // clang-format off
  const std::vector<std::pair<std::string_view, std::string>> good = {
      {" 443\t", "443"}, {"8000-8080", "8000:8080"}, {"8000:8080", "8000:8080"}, {"80-80", "80:80"},
      {"-443", "443"}, {"443-", "443"}, {"+443", "443"}, {"1:+65535", "1:65535"},
      {"--80::90-", "80:90"}, {"0080", "80"}};
  // clang-format on
  for (const auto& [text, ports] : good) {
    EXPECT_EQ(normalizedPorts(text), ports) << text;
  }
  for (std::string_view bad :
       {"", "  ", "8080-8000", "0", "65536", "80,443", "80-90-100", "80 - 90", "http", "-", ":",
        "++443", "+", "99999999999999999999999", "1-0", "80-x"}) {
    EXPECT_FALSE(normalizedPorts(bad)) << bad;
  }
}

TEST(RuleChecks, RuleProblemsQuoteTheFieldAsReceived) {
  EXPECT_EQ(ruleProblem(rule(Dir::inbound, Act::allow, Proto::tcp, " host.example ", "22")),
            "\" host.example \" isn't an IPv4 address or CIDR (such as 10.0.0.0/8).");
  EXPECT_EQ(ruleProblem(rule(Dir::inbound, Act::allow, Proto::udp, "any", "80 - 90")),
            "\"80 - 90\" isn't a port or port range (1-65535, such as 443 or 8000-8080).");
  // The remote is checked first.
  EXPECT_EQ(ruleProblem(rule(Dir::inbound, Act::allow, Proto::any, "x", "y")),
            "\"x\" isn't an IPv4 address or CIDR (such as 10.0.0.0/8).");
  EXPECT_FALSE(ruleProblem(rule(Dir::inbound, Act::allow, Proto::icmp, "any", "junk")));
  EXPECT_FALSE(ruleProblem(rule(Dir::outbound, Act::deny, Proto::any, "10.0.0.0/8", "")));
}

TEST(Review, SortsNetworksIntoEnforceableRefusedAndSkipped) {
  FirewallNetworkPolicy off = network(1, "Off", "10.0.0.0/8");
  off.policy.enabled = false;
  off.policy.rules = {rule(Dir::inbound, Act::allow, Proto::tcp, "junk", "22")};
  FirewallNetworkPolicy lab = network(2, "Lab", " 192.168.64.9/24 ");
  lab.gatewayIPv4 = "192.168.64.1";
  lab.policy.rules = {rule(Dir::inbound, Act::allow, Proto::tcp, "bad", "22", false),
                      rule(Dir::inbound, Act::allow, Proto::tcp, "any", "22"),
                      rule(Dir::outbound, Act::deny, Proto::udp, "any", "0")};
  FirewallNetworkPolicy outside = network(3, "Outside", "10.0.0.0/24");
  outside.policy.rules = {rule(Dir::inbound, Act::allow, Proto::tcp, "junk", "22")};
  FirewallNetworkPolicy home = network(4, "Home", "192.168.1.0/24");
  FirewallNetworkPolicy farm = network(5, "Farm", "192.168.70.0/24");
  farm.policy.rules = {rule(Dir::outbound, Act::allow, Proto::udp, "any", "99999")};

  const std::vector<HostAddress> hosts = {host("en0", {192, 168, 1, 20}, 24),
                                          host("bridge100", {192, 168, 64, 1}, 24)};
  Review result = review({off, lab, outside, home, farm}, hosts);

  ASSERT_EQ(result.enforceable.size(), 2u);
  EXPECT_EQ(result.enforceable[0].networkID, lab.networkID);
  EXPECT_EQ(result.enforceable[0].subnetCIDR, "192.168.64.0/24");
  EXPECT_EQ(result.enforceable[0].gatewayIPv4, "192.168.64.1");
  EXPECT_EQ(result.enforceable[0].policy, lab.policy);  // rules stay as they were
  EXPECT_EQ(result.enforceable[1].networkID, farm.networkID);

  ASSERT_EQ(result.refused.size(), 2u);
  EXPECT_EQ(result.refused[0],
            (Review::Note{outside.networkID, "Outside", "the subnet \"10.0.0.0/24" + kUnusable}));
  EXPECT_EQ(result.refused[1].label, "Home");
  EXPECT_TRUE(result.refused[1].problem.starts_with("192.168.1.0/24 overlaps en0 (192.168.1.20)"))
      << result.refused[1].problem;

  ASSERT_EQ(result.skippedRules.size(), 2u);
  // Labels count disabled rules too.
  EXPECT_EQ(rendered(result.skippedRules[0]),
            "Lab, rule 3: \"0\" isn't a port or port range (1-65535, such as 443 or 8000-8080).");
  EXPECT_EQ(result.skippedRules[0].networkID, lab.networkID);
  EXPECT_EQ(result.skippedRules[1].label, "Farm, rule 1");
}

TEST(Review, CleansTheGateway) {
  auto reviewedGateway = [](std::optional<std::string> gateway) {
    FirewallNetworkPolicy n = network(1, "Lab", "192.168.64.0/24");
    n.gatewayIPv4 = std::move(gateway);
    Review result = review({n}, {});
    EXPECT_EQ(result.enforceable.size(), 1u);
    return result.enforceable.empty() ? std::optional<std::string>("<refused>")
                                      : result.enforceable[0].gatewayIPv4;
  };
  EXPECT_EQ(reviewedGateway("192.168.64.1"), "192.168.64.1");
  EXPECT_EQ(reviewedGateway("192.168.64.255"), "192.168.64.255");  // broadcast stays
  EXPECT_EQ(reviewedGateway("192.168.64.0"), std::nullopt);        // the network address
  EXPECT_EQ(reviewedGateway("192.168.65.1"), std::nullopt);        // outside the subnet
  EXPECT_EQ(reviewedGateway(" 192.168.64.1"), std::nullopt);       // not trimmed
  EXPECT_EQ(reviewedGateway("gateway"), std::nullopt);
}

}  // namespace
