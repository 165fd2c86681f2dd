// The networks a client sends, through the whole path to the anchor text: decode, review against
// a fixed set of host addresses, IPv6 drops, ruleset and digests. A decoded document encodes and
// decodes to itself; the review's enforceable networks are canonical; the ruleset always parses
// with the pf grammar and its rules digest ignores the generation time.
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::vector<FirewallNetworkPolicy> networks;
  try {
    networks = FirewallJSON::decodeDocument(text);
  } catch (const FirewallJSON::DecodeError&) {
    return 0;
  }
  FUZZ_CHECK(FirewallJSON::decodeDocument(FirewallJSON::encode(networks).dump()) == networks);
  FUZZ_CHECK(FirewallJSON::decodeDocument(FirewallJSON::encodeOrdered(networks).dump()) ==
             networks);

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
    std::fprintf(stderr, "line %d: %s\n%s", parsed.errorLine, parsed.errorMessage.c_str(),
                 anchor.c_str());
  }
  FUZZ_CHECK(parsed.accepted());
  const std::string later =
      NetworkFirewall::ruleset(review.enforceable, drops, first + std::chrono::hours(30));
  FUZZ_CHECK(NetworkFirewall::rulesetDigest(later) == NetworkFirewall::rulesetDigest(anchor));
  FUZZ_CHECK(NetworkFirewall::digest(anchor).size() == 64);
  return 0;
}
