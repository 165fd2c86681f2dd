// Cost of compiling a policy: review, IPv6 drop map, ruleset text and both digests, end to end,
// per rule. Run with 100 and 1,000 networks of 50 rules so that growth can be compared.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "firewall/model/review.h"
#include "firewall/model/ruleset.h"

namespace {

using Dir = FirewallRule::Direction;
using Act = FirewallRule::Action;
using Proto = FirewallRule::Proto;

constexpr int kRulesPerNetwork = 50;

Uuid numbered(std::uint32_t n, std::uint8_t kind) {
  Uuid uuid;
  uuid.bytes[0] = kind;
  for (int i = 0; i < 4; ++i) uuid.bytes[15 - i] = static_cast<std::uint8_t>(n >> (8 * i));
  return uuid;
}

// A mix of everything a real policy holds: all protocols and directions, single ports, ranges
// in both spellings, remote hosts and networks, and a few disabled and unusable rules.
FirewallRule makeRule(int network, int index) {
  FirewallRule rule;
  rule.id = numbered(static_cast<std::uint32_t>(network * kRulesPerNetwork + index), 2);
  const int k = index + network;
  rule.enabled = index % 17 != 5;
  rule.direction = k % 2 == 0 ? Dir::inbound : Dir::outbound;
  rule.action = k % 3 == 0 ? Act::deny : Act::allow;
  rule.proto = static_cast<Proto>(k % 4);
  switch (k % 5) {
    case 0:
      rule.remoteCIDR = "any";
      break;
    case 1:
      rule.remoteCIDR = "10." + std::to_string(k % 256) + ".0.0/16";
      break;
    case 2:
      rule.remoteCIDR = "172.16." + std::to_string(k % 256) + "." + std::to_string(index);
      break;
    case 3:
      rule.remoteCIDR = "";
      break;
    default:
      rule.remoteCIDR = " 203.0.113.0/24 ";
      break;
  }
  switch (k % 4) {
    case 0:
      rule.ports = std::to_string(1 + (k * 37) % 65000);
      break;
    case 1:
      rule.ports = "8000-8080";
      break;
    case 2:
      rule.ports = "";
      break;
    default:
      rule.ports = "5000:5100";
      break;
  }
  if (index % 23 == 7) rule.remoteCIDR = "host.example";  // skipped: bad remote
  if (index % 29 == 11) rule.ports = "80,443";            // skipped: bad ports (unless icmp)
  return rule;
}

std::vector<FirewallNetworkPolicy> makeNetworks(int count) {
  std::vector<FirewallNetworkPolicy> networks;
  networks.reserve(static_cast<std::size_t>(count));
  for (int n = 0; n < count; ++n) {
    FirewallNetworkPolicy network;
    network.networkID = numbered(static_cast<std::uint32_t>(n), 1);
    network.name = "Network " + std::to_string(n);
    // /30 subnets: 16,384 fit inside 192.168.0.0/16, so every network has its own.
    network.subnetCIDR =
        "192.168." + std::to_string((n * 4) / 256) + "." + std::to_string((n * 4) % 256) + "/30";
    if (n % 3 != 0) {
      network.gatewayIPv4 =
          "192.168." + std::to_string((n * 4) / 256) + "." + std::to_string((n * 4) % 256 + 1);
    }
    network.dnsProxyEnabled = n % 2 == 0;
    network.keepsIPv6 = n % 5 == 0 ? std::optional<bool>(true) : std::nullopt;
    network.policy.enabled = true;
    network.policy.defaultInbound = n % 2 == 0 ? Act::deny : Act::allow;
    network.policy.defaultOutbound = n % 3 == 0 ? Act::deny : Act::allow;
    network.policy.rules.reserve(kRulesPerNetwork);
    for (int r = 0; r < kRulesPerNetwork; ++r) network.policy.rules.push_back(makeRule(n, r));
    networks.push_back(std::move(network));
  }
  return networks;
}

// Host addresses of a typical machine with one bridge per virtual network.
std::vector<NetworkFirewall::HostAddress> makeHosts(int count) {
  std::vector<NetworkFirewall::HostAddress> hosts = {
      {"lo0", {127, 0, 0, 1}, 8},
      {"en0", {10, 20, 30, 40}, 24},
      {"en0", std::vector<std::uint8_t>(16, 0xFE), 64},
  };
  for (int n = 0; n < count; ++n) {
    hosts.push_back({"bridge" + std::to_string(100 + n),
                     {192, 168, static_cast<std::uint8_t>((n * 4) / 256),
                      static_cast<std::uint8_t>((n * 4) % 256 + 1)},
                     30});
  }
  return hosts;
}

void BM_CompilePolicy(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  const std::vector<FirewallNetworkPolicy> networks = makeNetworks(count);
  const std::vector<NetworkFirewall::HostAddress> hosts = makeHosts(count);
  const TimePoint now{std::chrono::seconds(1794861667)};
  std::size_t bytes = 0;
  std::size_t enforced = 0;
  for (auto _ : state) {
    NetworkFirewall::Review review = NetworkFirewall::review(networks, hosts);
    NetworkFirewall::IPv6DropMap drops =
        NetworkFirewall::ipv6DropInterfaces(review.enforceable, hosts);
    std::string text = NetworkFirewall::ruleset(review.enforceable, drops, now);
    std::string rulesDigest = NetworkFirewall::rulesetDigest(text);
    std::string anchorDigest = NetworkFirewall::digest(text);
    benchmark::DoNotOptimize(rulesDigest.data());
    benchmark::DoNotOptimize(anchorDigest.data());
    bytes = text.size();
    enforced = review.enforceable.size();
  }
  const auto rules = static_cast<double>(count) * kRulesPerNetwork;
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(rules));
  // CPU seconds per rule (shown with an SI prefix: 450n is 450 ns).
  state.counters["per_rule"] = benchmark::Counter(
      rules, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["ruleset_bytes"] = static_cast<double>(bytes);
  state.counters["enforced"] = static_cast<double>(enforced);
}

BENCHMARK(BM_CompilePolicy)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
