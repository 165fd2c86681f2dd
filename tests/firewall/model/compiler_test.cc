// The firewall compiler: text forms, the review against the host's addresses, ruleset, digests.
#include <gtest/gtest.h>

#include "firewall/model/review.h"
#include "firewall/model/ruleset.h"

namespace {

using namespace NetworkFirewall;
using Dir = FirewallRule::Direction;
using Act = FirewallRule::Action;
using Proto = FirewallRule::Proto;
using Lines = std::vector<std::string>;

// clang-format off
FirewallRule rule(std::string remote, std::string ports, Proto proto = Proto::tcp,
                  Act action = Act::allow, Dir direction = Dir::inbound, bool enabled = true) {
  return {Uuid{}, enabled, direction, action, proto, std::move(remote), std::move(ports)};
}

// An enabled network that denies inbound and allows outbound traffic.
FirewallNetworkPolicy network(std::size_t id, std::string subnet,
                              std::optional<std::string> gateway = {},
                              std::vector<FirewallRule> rules = {}) {
  return {Uuid{{static_cast<std::uint8_t>(id)}}, "N", std::move(subnet), std::move(gateway), false,
          {true, Act::deny, Act::allow, std::move(rules)}, {}};
}

TEST(TextForms, AcceptedTextsTakeTheirCanonicalFormAndAllOthersAreRefused) {
  using Pairs = std::vector<std::pair<std::string_view, std::string_view>>;
  using Form = std::optional<std::string> (*)(std::string_view);
  const std::vector<std::tuple<Form, Pairs, std::vector<std::string_view>>> forms = {
      {[](std::string_view text) { const auto bytes = parseIPv4(text);
         return bytes ? std::optional(dottedQuad(*bytes)) : std::nullopt; },
       {{"0.10.100.255", "0.10.100.255"}},
       {" 192.168.64.1", "192.168.064.1", "255.255.255.2555", "1.2.3.4/24", {"1.2.3.4\0x", 9}}},
      {normalizedRemote, {{"10.1.2.3", "10.1.2.3/32"}, {"\u00A0 10.1.2.3/8\t", "10.1.2.3/8"},
                          {"", "any"}, {" any\t", "any"}, {"\u00A0Any\u2003", "any"}, {"ANY", "any"}},
       {"10.1.2.3/", "10.1.2.3/33", "10.1.2.3/024", "10.1.2.3/+8", "\n10.1.2.3/8", "any/8", "bad"}},
      {canonicalSubnet, {{"  192.168.64.7/24 \u3000", "192.168.64.0/24"},
                         {"192.168.79.255/20", "192.168.64.0/20"}, {"192.168.64.7/30", "192.168.64.4/30"}},
       {"192.168.64.0/19", "192.168.64.0/31", "10.0.0.0/24", "192.169.64.0/24", "lab"}},
      {defaultGateway, {{"192.168.64.77/24", "192.168.64.1"}, {"192.168.64.77/30", "192.168.64.77"}},
       {"10.0.0.0/24"}},
      {normalizedPorts, {{" 443\t", "443"}, {"8000-8080", "8000:8080"}, {"80-80", "80:80"},
                         {"1:+65535", "1:65535"}, {"--80::90-", "80:90"}, {"0080", "80"}},
       {"  ", "8080-8000", "0", "65536", "80,443", "80-90-100", ":", "++443", "+",
        "99999999999999999999999"}}};
  // clang-format on
  for (const auto& [form, accepted, refused] : forms) {
    for (const auto& [text, canonical] : accepted) EXPECT_EQ(form(text), canonical) << text;
    for (std::string_view text : refused) EXPECT_EQ(form(text), std::nullopt) << text;
  }
  EXPECT_FALSE(prefixesMatch(std::array<std::uint8_t, 4>{}, std::array<std::uint8_t, 3>{}, 0));
}

// Every problem a network or rule can have, as users read it, and the bridges dropping IPv6.
TEST(Review, SortsNetworksIntoEnforceableRefusedAndSkippedAndFindsTheirBridges) {
  // clang-format off
  std::vector<FirewallNetworkPolicy> networks = {
      network(0, "192.168.64.0/24", {}, {rule("x", "")}),
      network(1, " 192.168.64.9/24 ", "192.168.64.1", {
          rule("bad", "22", Proto::tcp, Act::allow, Dir::inbound, false), rule("any", "22"),
          rule(" host.example ", "22"), rule("any", "80 - 90", Proto::udp),
          rule("x", "y", Proto::any),  // the remote is checked first, an icmp rule's ports never
          rule("any", "junk", Proto::icmp), rule("10.0.0.0/8", "", Proto::any, Act::deny)})};
  for (const char* subnet : {" 10.0.0.0/24 ", "192.168.64.0/31", "192.168.1.0/24", "192.168.65.0/24",
                             "192.168.67.0/24", "192.168.68.0/24", "192.168.102.0/24",
                             "192.168.112.0/20", "192.168.130.0/24"})
    networks.push_back(network(networks.size(), subnet));
  // The gateway stays only when it is an address inside the subnet other than the subnet's own.
  const std::vector<std::pair<std::string, std::optional<std::string>>> gateways = {
      {"192.168.104.255", "192.168.104.255"}, {"192.168.104.0", {}}, {"192.168.105.1", {}},
      {" 192.168.104.1", {}}, {"gateway", {}}};
  // A virtual network's bridge (bridge100 and up) is not one of the host's networks; the shorter
  // prefix decides an overlap; IPv6 addresses are never looked at; the first overlap is named.
  const std::vector<HostAddress> hosts = {
      {"en0", {192, 168, 1, 20}, 24}, {"en0", {192, 168, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 0},
      {"bridge101", {192, 168, 64, 1}, 24}, {"bridge100", {192, 168, 64, 1}, 24},
      {"bridge101", {192, 168, 64, 1}, 24}, {"bridge123456", {192, 168, 64, 1}, 24},
      {"bridge0100", {192, 168, 65, 1}, 24}, {"bridge99", {192, 168, 67, 1}, 24},
      {"bridgeX", {192, 168, 68, 1}, 24}, {"en2", {192, 168, 100, 10}, 22},
      {"bridge102", {192, 168, 102, 2}, 24}, {"utun3", {192, 168, 120, 2}, 32},
      {"en1", {192, 168, 130, 1}, 24}, {"en3", {192, 168, 130, 30}, 24}};
  // clang-format on
  networks[0].policy.enabled = false;
  networks[1].name = "Lab";
  networks[1].keepsIPv6 = false;
  networks[2].gatewayIPv4 = "192.168.64.1";
  networks[5].policy.rules = {rule("any", "0", Proto::udp)};
  networks[5].keepsIPv6 = true;
  networks[8].gatewayIPv4 = "192.168.102.2";
  for (const auto& [gateway, kept] : gateways) {
    networks.push_back(network(networks.size(), "192.168.104.0/24", gateway));
  }
  const Review result = review(networks, hosts);

  ASSERT_EQ(result.enforceable.size(), 2 + gateways.size());
  EXPECT_EQ(result.enforceable[0].subnetCIDR, "192.168.64.0/24");
  EXPECT_EQ(result.enforceable[0].gatewayIPv4, "192.168.64.1");
  EXPECT_EQ(result.enforceable[0].policy, networks[1].policy);  // rules stay as they were
  EXPECT_EQ(result.enforceable[1].networkID, networks[5].networkID);
  for (std::size_t i = 0; i < gateways.size(); ++i) {
    EXPECT_EQ(result.enforceable[2 + i].gatewayIPv4, gateways[i].second) << gateways[i].first;
  }
  const std::string unusable =
      "\" isn't one macOS gives a virtual network (a /24 such as 192.168.64.0/24, inside "
      "192.168.0.0/16), so its rules can't be keyed on it.";
  const std::string own =
      "), one of this Mac's own networks; rules there would cut the Mac off from it.";
  const std::string remote = "\" isn't an IPv4 address or CIDR (such as 10.0.0.0/8).";
  const std::string ports = "\" isn't a port or port range (1-65535, such as 443 or 8000-8080).";
  Lines notes;
  for (const auto* list : {&result.refused, &result.skippedRules})
    for (const Review::Note& note : *list) notes.push_back(rendered(note));
  EXPECT_EQ(notes,
            (Lines{"N: the subnet \" 10.0.0.0/24 " + unusable,
                   "N: the subnet \"192.168.64.0/31" + unusable,
                   "N: 192.168.1.0/24 overlaps en0 (192.168.1.20" + own,
                   "N: 192.168.67.0/24 overlaps bridge99 (192.168.67.1" + own,
                   "N: 192.168.68.0/24 overlaps bridgeX (192.168.68.1" + own,
                   "N: 192.168.102.0/24 overlaps en2 (192.168.100.10" + own,
                   "N: 192.168.112.0/20 overlaps utun3 (192.168.120.2" + own,
                   "N: 192.168.130.0/24 overlaps en1 (192.168.130.1" + own,
                   "Lab, rule 3: \" host.example " + remote, "Lab, rule 4: \"80 - 90" + ports,
                   "Lab, rule 5: \"x" + remote, "N, rule 1: \"0" + ports}));
  EXPECT_EQ(result.refused[0].networkID, networks[2].networkID);
  EXPECT_EQ(result.skippedRules[0].networkID, networks[1].networkID);
  EXPECT_EQ(subnetProblem(networks[4].subnetCIDR, hosts), result.refused[2].problem);

  // Drops follow the explicit or default gateway onto bridges (bridge and up to five digits),
  // unless the network keeps IPv6, is off or has an unusable subnet or gateway.
  EXPECT_EQ(ipv6DropInterfaces(networks, hosts),
            (IPv6DropMap{{networks[1].networkID, {"bridge100", "bridge101"}},
                         {networks[6].networkID, {"bridge99"}},
                         {networks[8].networkID, {"bridge102"}}}));
  EXPECT_EQ(bridgesCarrying("192.168.64.1", hosts), (Lines{"bridge100", "bridge101"}));
  EXPECT_EQ(bridgesCarrying("192.168.64.1/32", hosts), Lines{});
  networks[6].networkID = networks[1].networkID;  // a later network of the same identity wins
  EXPECT_EQ(ipv6DropInterfaces({networks[1], networks[6]}, hosts),
            (IPv6DropMap{{networks[1].networkID, {"bridge99"}}}));
}

// Every kind of rule line, DHCP to .1 (no DNS) for an unreadable gateway, IPv6 drops, the name on
// one line; networks off or unusable and rules unusable or disabled leave nothing behind.
TEST(Ruleset, RendersEachUsableNetworksBlockAndDigestsItsRuleLines) {
  const TimePoint generated{std::chrono::seconds(1794861667)};  // 2026-11-16T20:41:07Z
  const std::string header =
      "# Tarnly network firewall - generated 2026-11-16T20:41:07Z.\n"
      "# Loaded into pf anchor \"com.apple/900.tarnly.firewall\" by TarnlyAdminHelper. Do not "
      "edit.\n\n";
  // clang-format off
  std::vector<FirewallNetworkPolicy> networks = {
      network(0, "192.168.60.0/24"), network(1, "10.0.0.0/24"),
      network(2, "192.168.64.5/22", "gateway", {
          rule("any", "53", Proto::any), rule("", " ", Proto::any),
          rule("10.1.2.3", "80", Proto::icmp, Act::deny),
          rule("10.0.0.0/8", "", Proto::tcp, Act::deny, Dir::outbound),
          rule(" ANY ", "8000-8080", Proto::udp, Act::allow, Dir::outbound), rule("bad", "443"),
          rule("any", "443", Proto::tcp, Act::allow, Dir::inbound, false), rule("any", "8080-80")})};
  // clang-format on
  networks[0].policy.enabled = false;
  FirewallNetworkPolicy& farm = networks[2];
  farm.name = "a\nb\rc\vd\fe\u0085f\u2028g\u2029h\r\ni \u00A0\u2027";
  farm.dnsProxyEnabled = true;
  farm.policy = {true, Act::allow, Act::deny, farm.policy.rules};
  const IPv6DropMap drops = {
      {farm.networkID, {"bridge99", "en0", "bridge100", "bridge99", "bridge123456", "bridge"}},
      {Uuid{{1}}, {"bridge5"}}};
  const std::string text = ruleset(networks, drops, generated);
  EXPECT_EQ(text,
            header +
                "# --- a b c d e f g h  i \u00A0\u2027 (192.168.64.0/22) ---\n"
                "block drop quick on bridge100 inet6 all\n"
                "block drop quick on bridge99 inet6 all\n"
                "pass in quick proto udp from 192.168.64.0/22 port 68 to { 192.168.64.1, "
                "255.255.255.255 } port 67 keep state\n"
                "pass out quick proto udp from 192.168.64.1 port 67 to 192.168.64.0/22 port 68\n"
                "pass out quick proto tcp from any to 192.168.64.0/22 port 53 keep state\n"
                "pass out quick proto udp from any to 192.168.64.0/22 port 53 keep state\n"
                "pass out quick from any to 192.168.64.0/22 keep state\n"
                "block drop out quick proto icmp from 10.1.2.3/32 to 192.168.64.0/22\n"
                "block drop in quick proto tcp from 192.168.64.0/22 to 10.0.0.0/8\n"
                "pass in quick proto udp from 192.168.64.0/22 to any port 8000:8080 keep state\n"
                "block drop in quick from 192.168.64.0/22 to any\n"
                "pass out quick from any to 192.168.64.0/22 keep state\n\n");
  EXPECT_EQ(ruleLines(farm.policy.rules[0], "192.168.70.0/24")[1],
            "pass out quick proto udp from any to 192.168.70.0/24 port 53 keep state");
  // Without a gateway DHCP goes to .1 as well; the default lines follow the policy.
  farm.gatewayIPv4.reset();
  farm.policy = {true, Act::deny, Act::allow, {}};
  EXPECT_TRUE(
      ruleset(networks, {}, generated)
          .ends_with("from 192.168.64.1 port 67 to 192.168.64.0/22 port 68\npass in quick "
                     "from 192.168.64.0/22 to any keep state\nblock drop out quick from any "
                     "to 192.168.64.0/22\n\n"));
  // The digest is the lower-case SHA-256 of the text without its comment lines.
  EXPECT_EQ(digest("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  // clang-format off
  const std::vector<std::pair<std::string_view, std::string_view>> digested = {
      {"# a\npass\n \t# b\n\nblock\n", "pass\n\nblock\n"}, {"\u00A0#x\npass", "pass"},
      {" pass # not a comment\n", " pass # not a comment\n"}, {"# only\n# comments", ""}, {"\n", "\n"}};
  // clang-format on
  for (const auto& [text, kept] : digested) EXPECT_EQ(rulesetDigest(text), digest(kept)) << text;
}

}  // namespace
