// Shared set-up of the enforcement tests: a temporary tree holding the state folder, the log,
// pf.conf and the boot identifier, the pf simulator installed as pfctl, fixed host addresses, a
// recording sleep and a clock stepping one second per reading; plus builders of networks.
#pragma once

#include <gmock/gmock.h>

#include <atomic>

#include "firewall/enforce/firewall_operations.h"
#include "firewall/enforce/firewall_state.h"
#include "firewall/model/firewall_json.h"
#include "platform/files.h"
#include "platform/text.h"
#include "support/pf_simulator.h"
#include "support/temp_tree.h"

namespace enforce_test {

// "a.b.c.0/24" with gateway "a.b.c.1", inbound denied but tcp port 22 from anywhere.
inline FirewallNetworkPolicy network(int id, std::string name, std::string subnet) {
  FirewallNetworkPolicy n;
  n.name = std::move(name);
  n.subnetCIDR = std::move(subnet);
  n.networkID.bytes[0] = 0xA0;
  n.networkID.bytes[15] = static_cast<std::uint8_t>(id);
  if (auto at = n.subnetCIDR.rfind(".0/"); at != std::string::npos) {
    n.gatewayIPv4 = n.subnetCIDR.substr(0, at) + ".1";
  }
  n.dnsProxyEnabled = n.policy.enabled = true;
  n.policy.defaultInbound = FirewallRule::Action::deny;
  n.policy.rules = {
      {.id = n.networkID, .proto = FirewallRule::Proto::tcp, .remoteCIDR = "any", .ports = "22"}};
  return n;
}
inline std::string document(const std::vector<FirewallNetworkPolicy>& networks) {
  return FirewallJSON::encode(networks).dump();
}
inline TimePoint at(double seconds) {
  return fromSecondsSinceReferenceDate(seconds);
}

using Runs = std::vector<std::vector<std::string>>;
inline const std::string kAnchor = "com.apple/900.tarnly.firewall";
inline const std::vector<std::string> kStatusInfo = {"-si"};
inline const std::vector<std::string> kAnchorListing = {"-a", kAnchor, "-sr"};
inline const std::string kState = "Library/Application Support/Tarnly/";

class EnforceTest : public ::testing::Test {
 protected:
  EnforceTest()
      : paths(tree.hostPaths()),
        log(paths.logFile, paths.rotatedLogFile),
        env{paths, [this] { return TimePoint(std::chrono::seconds(1'800'000'000 + seconds++)); },
            log},
        pf(TARNLY_PFSIM_PATH, paths.pfctl, tree.root()),
        host{env, [this] { return hostAddresses; },
             [this](std::chrono::microseconds duration) { sleeps.push_back(duration); }} {
    setBootID("6c0a3a8e-2b1f-4f39-9b3c-7c1d5e2f8a90");
  }

  // Log messages without their "2026-11-16T20:51:26Z " time stamps.
  std::vector<std::string> logLines() const {
    std::string text = readFile(paths.logFile).value_or("");
    std::vector<std::string> lines;
    for (std::string_view line : split(text, '\n', false)) lines.emplace_back(line.substr(21));
    return lines;
  }
  // How often pfctl ran with exactly these arguments.
  size_t runsOf(const std::vector<std::string>& arguments) const {
    Runs runs = pf.invocations();
    return static_cast<size_t>(std::count(runs.begin(), runs.end(), arguments));
  }
  std::string state(const std::string& name) const { return paths.state(name); }
  std::vector<std::string> anchorLoad() const {
    return {"-a", kAnchor, "-f", state(HelperFirewall::kAnchorFile)};
  }
  void setBootID(const std::string& id) const {
    tree.write("proc/sys/kernel/random/boot_id", id + "\n");
  }
  void flushAnchor() const { HelperCommand::run(paths.pfctl, {"-a", kAnchor, "-F", "rules"}); }
  // The reply of an apply of `networks` (or of `data`), or the text of what it threw.
  std::string apply(const std::vector<FirewallNetworkPolicy>& networks, unsigned int uid,
                    bool adoptLegacy = false, std::string_view data = {}) {
    try {
      return HelperFirewall::apply(host, data.empty() ? document(networks) : std::string(data), uid,
                                   adoptLegacy);
    } catch (const std::exception& error) {
      return error.what();
    }
  }
  NetworkFirewall::PolicyStore::Owners stored() const { return HelperFirewall::loadStore(env); }

  TempTree tree;
  HostPaths paths;
  HelperLog log;
  std::atomic<long long> seconds{0};
  HelperEnvironment env;
  PfSimulator pf;
  // en0 holds 192.168.1.0/24 (networks overlapping it are refused); bridge100 the gateway of
  // 192.168.64.0/24.
  std::vector<NetworkFirewall::HostAddress> hostAddresses = {{"lo0", {127, 0, 0, 1}, 8},
                                                             {"en0", {192, 168, 1, 20}, 24},
                                                             {"bridge100", {192, 168, 64, 1}, 24}};
  std::vector<std::chrono::microseconds> sleeps;  // only busy retries sleep, never concurrently
  FirewallHost host;
};

}  // namespace enforce_test
