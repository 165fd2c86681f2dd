// The re-apply at every helper start when pf already runs the stored rules: it must cost exactly
// two pfctl runs (status info and the anchor listing) and under 2 ms of the helper's own time.
// Two measurements with 100 stored networks:
//  - UnchangedReapplyWithSimulator runs the pf simulator as pfctl and reports the time spent
//    outside the pfctl runs ("helper_us") and the runs per re-apply ("pfctl_runs", checked
//    against the simulator's invocation log);
//  - UnchangedReapplyHelperOnly answers the two runs instantly with the simulator's recorded
//    replies, so the benchmark's own time is the helper's time.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "firewall/enforce/firewall_host.h"
#include "firewall/enforce/firewall_operations.h"
#include "firewall/model/firewall_json.h"
#include "platform/files.h"
#include "service/helper_environment.h"
#include "service/helper_log.h"
#include "support/pf_simulator.h"
#include "support/temp_tree.h"

namespace {

using Clock_ = std::chrono::steady_clock;

std::vector<FirewallNetworkPolicy> hundredNetworks() {
  std::vector<FirewallNetworkPolicy> networks;
  for (int i = 0; i < 100; ++i) {
    FirewallNetworkPolicy n;
    n.networkID.bytes[0] = 0xB0;
    n.networkID.bytes[15] = static_cast<std::uint8_t>(i);
    n.name = "Network " + std::to_string(i);
    n.subnetCIDR = "192.168." + std::to_string(100 + i) + ".0/24";
    n.gatewayIPv4 = "192.168." + std::to_string(100 + i) + ".1";
    n.dnsProxyEnabled = i % 2 == 0;
    n.policy.defaultInbound = FirewallRule::Action::deny;
    FirewallRule ssh;
    ssh.id.bytes[0] = 0xC0;
    ssh.id.bytes[15] = static_cast<std::uint8_t>(i);
    ssh.proto = FirewallRule::Proto::tcp;
    ssh.remoteCIDR = "10.0.0.0/8";
    ssh.ports = "22";
    FirewallRule web = ssh;
    web.proto = FirewallRule::Proto::any;
    web.direction = FirewallRule::Direction::outbound;
    web.remoteCIDR = "any";
    web.ports = "8000-8080";
    n.policy.rules = {ssh, web};
    networks.push_back(n);
  }
  return networks;
}

// A temporary machine: state folder, log, boot identifier and the pf simulator as pfctl, with
// 100 networks applied by four users so that the next re-apply finds them loaded.
struct Machine {
  Machine()
      : paths(makePaths(tree)),
        log(paths.logFile, paths.rotatedLogFile),
        env{paths, systemNow, log},
        pf(TARNLY_PFSIM_PATH, paths.pfctl, tree.path("pfsim")) {
    createDirectories(parentPath(paths.bootID));
    writeFileAtomically(paths.bootID, "0b4e7f6a-1c2d-4e5f-8a9b-0c1d2e3f4a5b\n", 0644);
    FirewallHost host{env, [] { return hostAddresses(); }};
    std::vector<FirewallNetworkPolicy> networks = hundredNetworks();
    for (std::ptrdiff_t user = 0; user < 4; ++user) {
      std::vector<FirewallNetworkPolicy> own(networks.begin() + user * 25,
                                             networks.begin() + (user + 1) * 25);
      HelperFirewall::apply(host, FirewallJSON::encode(own).dump(),
                            static_cast<unsigned int>(501 + user), false);
    }
    pf.clearInvocations();
  }

  static std::vector<NetworkFirewall::HostAddress> hostAddresses() {
    return {{"en0", {10, 0, 1, 5}, 24}, {"bridge100", {192, 168, 100, 1}, 24}};
  }

  static HostPaths makePaths(const TempTree& tree) {
    createDirectories(tree.path("pfsim"));
    return tree.hostPaths();
  }

  TempTree tree;
  HostPaths paths;
  HelperLog log;
  HelperEnvironment env;
  PfSimulator pf;
};

void UnchangedReapplyWithSimulator(benchmark::State& state) {
  Machine machine;
  Clock_::duration insideRuns{};
  benchmark::IterationCount runs = 0;
  FirewallHost host{machine.env, [] { return Machine::hostAddresses(); }};
  host.run = [&](const std::string& path, const std::vector<std::string>& arguments) {
    auto start = Clock_::now();
    HelperCommand::Result result = HelperCommand::run(path, arguments);
    insideRuns += Clock_::now() - start;
    ++runs;
    return result;
  };

  Clock_::duration total{};
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
    auto start = Clock_::now();
    HelperFirewall::reapplyAtBoot(host);
    total += Clock_::now() - start;
  }

  auto iterations = static_cast<double>(state.iterations());
  std::size_t logged = machine.pf.invocations().size();
  if (logged != static_cast<std::size_t>(runs) || runs != 2 * state.iterations()) {
    state.SkipWithError("an unchanged re-apply did not run pfctl exactly twice");
  }
  state.counters["pfctl_runs"] = static_cast<double>(runs) / iterations;
  state.counters["helper_us"] =
      std::chrono::duration<double, std::micro>(total - insideRuns).count() / iterations;
  state.counters["pfctl_us"] =
      std::chrono::duration<double, std::micro>(insideRuns).count() / iterations;
}
BENCHMARK(UnchangedReapplyWithSimulator)->Unit(benchmark::kMillisecond)->Iterations(30);

void UnchangedReapplyHelperOnly(benchmark::State& state) {
  Machine machine;
  // The simulator's replies to the two runs of an unchanged re-apply, recorded once.
  std::map<std::vector<std::string>, HelperCommand::Result> replies;
  FirewallHost recording{machine.env, [] { return Machine::hostAddresses(); }};
  recording.run = [&](const std::string& path, const std::vector<std::string>& arguments) {
    HelperCommand::Result result = HelperCommand::run(path, arguments);
    replies[arguments] = result;
    return result;
  };
  HelperFirewall::reapplyAtBoot(recording);

  benchmark::IterationCount runs = 0;
  FirewallHost host{machine.env, [] { return Machine::hostAddresses(); }};
  host.run = [&](const std::string&, const std::vector<std::string>& arguments) {
    ++runs;
    auto reply = replies.find(arguments);
    return reply != replies.end() ? reply->second : HelperCommand::Result{};
  };
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
    HelperFirewall::reapplyAtBoot(host);
  }

  if (replies.size() != 2 || runs != 2 * state.iterations()) {
    state.SkipWithError("an unchanged re-apply did not run pfctl exactly twice");
  }
  state.counters["pfctl_runs"] =
      static_cast<double>(runs) / static_cast<double>(state.iterations());
}
BENCHMARK(UnchangedReapplyHelperOnly)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
