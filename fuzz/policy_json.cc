// Client networks through decode, review against fixed host addresses, IPv6 drops, ruleset and
// digests: a decoded document re-encodes to itself; enforceable networks are canonical and render
// exactly their problem-free rules; the anchor parses as pf and its digest ignores the time.
#include <chrono>

#include "firewall/model/firewall_json.h"
#include "firewall/model/review.h"
#include "firewall/model/ruleset.h"
#include "fuzz_check.h"
#include "pf_ruleset_parser.h"

namespace NF = NetworkFirewall;

FUZZ_TARGET(text) {
  // clang-format off
  static const std::vector<NF::HostAddress> hosts = {{"lo0", {127, 0, 0, 1}, 8},
      {"en0", {192, 168, 1, 23}, 24}, {"bridge100", {192, 168, 64, 1}, 24},
      {"bridge101", {192, 168, 70, 1}, 24}, {"bridge7", {192, 168, 80, 1}, 24},
      {"bridge100", {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 64}};
  // clang-format on
  std::vector<FirewallNetworkPolicy> networks;
  try {
    networks = FirewallJSON::decodeDocument(text);
  } catch (const FirewallJSON::DecodeError&) {
    return;
  }
  FUZZ_CHECK(FirewallJSON::decodeDocument(FirewallJSON::encode(networks).dump()) == networks &&
             FirewallJSON::decodeDocument(FirewallJSON::encodeOrdered(networks).dump()) ==
                 networks);
  const NF::Review review = NF::review(networks, hosts);
  std::size_t enabled = 0;
  for (const FirewallNetworkPolicy& network : networks) enabled += network.policy.enabled;
  FUZZ_CHECK(review.enforceable.size() + review.refused.size() == enabled);
  for (const FirewallNetworkPolicy& network : review.enforceable) {
    FUZZ_CHECK(NF::canonicalSubnet(network.subnetCIDR) == network.subnetCIDR);
    for (const FirewallRule& rule : network.policy.rules) {
      FUZZ_CHECK(!rule.enabled || NF::ruleProblem(rule).has_value() ==
                                      NF::ruleLines(rule, network.subnetCIDR).empty());
    }
  }
  const auto drops = NF::ipv6DropInterfaces(review.enforceable, hosts);
  const TimePoint first{std::chrono::seconds(1'795'000'000)};
  const std::string anchor = NF::ruleset(review.enforceable, drops, first);
  FUZZ_CHECK(parsePfRuleset(anchor).accepted() && NF::digest(anchor).size() == 64);
  const std::string later = NF::ruleset(review.enforceable, drops, first + std::chrono::hours(30));
  FUZZ_CHECK(NF::rulesetDigest(later) == NF::rulesetDigest(anchor));
}
