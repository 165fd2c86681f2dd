// The networks a client sends, through the whole path to the anchor text: decode, review against
// a fixed set of host addresses, IPv6 drops, ruleset and digests. A decoded document encodes and
// decodes to itself; the review's enforceable networks are canonical; the ruleset always parses
// with the pf grammar and its rules digest ignores the generation time.
// Input that is not a JSON array is read as networks written one field per '|' (see `fromLines`),
// so that mutations reach the review's texts without first breaking the JSON around them.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "firewall/model/firewall_json.h"
#include "firewall/model/review.h"
#include "firewall/model/ruleset.h"
#include "fuzz_check.h"
#include "pf_ruleset_parser.h"

namespace {

const std::vector<NetworkFirewall::HostAddress> kHosts = {
    {"lo0", {127, 0, 0, 1}, 8},
    {"en0", {192, 168, 1, 23}, 24},
    {"bridge100", {192, 168, 64, 1}, 24},
    {"bridge101", {192, 168, 70, 1}, 24},
    {"bridge7", {192, 168, 80, 1}, 24},
    {"bridge100", {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 64},
};

std::vector<std::string_view> fields(std::string_view line) {
  std::vector<std::string_view> out;
  for (std::size_t bar; (bar = line.find('|')) != std::string_view::npos;
       line.remove_prefix(bar + 1)) {
    out.push_back(line.substr(0, bar));
  }
  out.push_back(line);
  out.resize(std::max<std::size_t>(out.size(), 3));
  return out;
}

// "=<flags>subnet|gateway|name" starts a network (flag bits: enabled, DNS proxy, default inbound,
// default outbound, keeps IPv6, has gateway); "<flags>remote|ports" adds a rule to it (enabled,
// direction, action, two bits of protocol).
std::vector<FirewallNetworkPolicy> fromLines(std::string_view text) {
  std::vector<FirewallNetworkPolicy> networks;
  std::uint8_t next = 0;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    const bool network = line.starts_with('=');
    if (network) line.remove_prefix(1);
    if (line.empty() || (!network && networks.empty())) continue;
    const auto bits = static_cast<unsigned char>(line.front());
    const std::vector<std::string_view> parts = fields(line.substr(1));
    Uuid id;
    id.bytes[15] = ++next;
    const auto action = [](bool allow) {
      return allow ? FirewallRule::Action::allow : FirewallRule::Action::deny;
    };
    if (network) {
      FirewallNetworkPolicy& n = networks.emplace_back();
      n.networkID = id;
      n.subnetCIDR = parts[0];
      if (bits & 32) n.gatewayIPv4 = std::string(parts[1]);
      n.name = parts[2];
      n.policy.enabled = bits & 1;
      n.dnsProxyEnabled = bits & 2;
      n.policy.defaultInbound = action(bits & 4);
      n.policy.defaultOutbound = action(bits & 8);
      if (bits & 16) n.keepsIPv6 = (bits & 64) != 0;
    } else {
      FirewallRule& rule = networks.back().policy.rules.emplace_back();
      rule.id = id;
      rule.enabled = bits & 1;
      rule.direction =
          bits & 2 ? FirewallRule::Direction::outbound : FirewallRule::Direction::inbound;
      rule.action = action(bits & 4);
      rule.proto = static_cast<FirewallRule::Proto>((bits >> 3) & 3);
      rule.remoteCIDR = parts[0];
      rule.ports = parts[1];
    }
  }
  return networks;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::vector<FirewallNetworkPolicy> networks;
  if (text.starts_with('[')) {
    try {
      networks = FirewallJSON::decodeDocument(text);
    } catch (const FirewallJSON::DecodeError&) {
      return 0;
    }
    FUZZ_CHECK(FirewallJSON::decodeDocument(FirewallJSON::encode(networks).dump()) == networks);
    FUZZ_CHECK(FirewallJSON::decodeDocument(FirewallJSON::encodeOrdered(networks).dump()) ==
               networks);
  } else {
    networks = fromLines(text);
  }

  const NetworkFirewall::Review review = NetworkFirewall::review(networks, kHosts);
  const auto enabled = std::count_if(networks.begin(), networks.end(),
                                     [](const auto& network) { return network.policy.enabled; });
  FUZZ_CHECK(review.enforceable.size() + review.refused.size() == std::size_t(enabled));
  for (const FirewallNetworkPolicy& network : review.enforceable) {
    FUZZ_CHECK(NetworkFirewall::canonicalSubnet(network.subnetCIDR) == network.subnetCIDR);
    // A rule the review lets through is rendered; one it skips is left out.
    for (const FirewallRule& rule : network.policy.rules) {
      if (!rule.enabled) continue;
      FUZZ_CHECK(NetworkFirewall::ruleProblem(rule).has_value() ==
                 NetworkFirewall::ruleLines(rule, network.subnetCIDR).empty());
    }
  }
  for (const auto& note : review.refused) FUZZ_CHECK(!NetworkFirewall::rendered(note).empty());

  const auto drops = NetworkFirewall::ipv6DropInterfaces(review.enforceable, kHosts);
  const TimePoint first{std::chrono::seconds(1'795'000'000)};
  const std::string anchor = NetworkFirewall::ruleset(review.enforceable, drops, first);
  const PfRulesetParse parsed = parsePfRuleset(anchor);
  if (!parsed.accepted()) {
    (void)std::fprintf(stderr, "line %d: %s\n%s", parsed.errorLine, parsed.errorMessage.c_str(),
                       anchor.c_str());
  }
  FUZZ_CHECK(parsed.accepted());
  const std::string later =
      NetworkFirewall::ruleset(review.enforceable, drops, first + std::chrono::hours(30));
  FUZZ_CHECK(NetworkFirewall::rulesetDigest(later) == NetworkFirewall::rulesetDigest(anchor));
  FUZZ_CHECK(NetworkFirewall::digest(anchor).size() == 64);
  return 0;
}
