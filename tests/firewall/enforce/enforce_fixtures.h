// Shared set-up of the enforcement tests: a temporary tree holding the state folder, the log,
// pf.conf and the boot identifier, the pf simulator installed as pfctl, fixed host addresses, a
// recording sleep and a stepping clock; plus builders of networks and policy documents.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "firewall/enforce/firewall_host.h"
#include "firewall/model/firewall_json.h"
#include "firewall/model/firewall_records.h"
#include "platform/files.h"
#include "platform/text.h"
#include "service/helper_environment.h"
#include "service/helper_log.h"
#include "support/pf_simulator.h"
#include "support/temp_tree.h"

namespace enforce_test {

inline Uuid uuidNumber(int n) {
  Uuid uuid;
  uuid.bytes[0] = 0xA0;
  uuid.bytes[14] = static_cast<std::uint8_t>(n >> 8);
  uuid.bytes[15] = static_cast<std::uint8_t>(n);
  return uuid;
}

// A network "a.b.c.0/24" with gateway "a.b.c.1", default inbound deny and one (defaulted: inbound,
// allow) tcp rule for port 22 from anywhere.
inline FirewallNetworkPolicy network(int id, std::string name, std::string subnet) {
  FirewallNetworkPolicy n;
  n.networkID = uuidNumber(id);
  n.name = std::move(name);
  n.subnetCIDR = std::move(subnet);
  if (auto at = n.subnetCIDR.rfind(".0/"); at != std::string::npos) {
    n.gatewayIPv4 = n.subnetCIDR.substr(0, at) + ".1";
  }
  n.dnsProxyEnabled = n.policy.enabled = true;
  n.policy.defaultInbound = FirewallRule::Action::deny;
  n.policy.rules = {{.id = uuidNumber(10000 + id),
                     .proto = FirewallRule::Proto::tcp,
                     .remoteCIDR = "any",
                     .ports = "22"}};
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
inline const std::string kBootID = "6c0a3a8e-2b1f-4f39-9b3c-7c1d5e2f8a90";
inline const std::string kStore = "Library/Application Support/Tarnly/firewall-policies.json";

class EnforceTest : public ::testing::Test {
 protected:
  EnforceTest()
      : paths(testPaths(tree)),
        log(paths.logFile, paths.rotatedLogFile),
        env{paths, [this] { return TimePoint(std::chrono::seconds(1'800'000'000 + seconds++)); },
            log},
        pf(TARNLY_PFSIM_PATH, paths.pfctl, tree.path("pfsim")),
        host{env, [this] { return hostAddresses; },
             [this](std::chrono::microseconds duration) {
               std::lock_guard<std::mutex> guard(sleepsLock);
               sleeps.push_back(duration);
             }} {
    setBootID(kBootID);
  }

  // Log messages without their "2026-11-16T20:51:26Z " time stamps (21 bytes).
  std::vector<std::string> logLines() const {
    std::string text = readFile(paths.logFile).value_or("");
    std::vector<std::string> lines;
    for (std::string_view line : split(text, '\n', false)) {
      lines.emplace_back(line.size() > 21 ? line.substr(21) : line);
    }
    return lines;
  }

  // How often pfctl ran with exactly these arguments.
  size_t runsOf(const std::vector<std::string>& arguments) const {
    Runs runs = pf.invocations();
    return static_cast<size_t>(std::count(runs.begin(), runs.end(), arguments));
  }

  std::string state(const std::string& name) const { return paths.state(name); }
  std::vector<std::string> anchorLoad() const {
    return {"-a", kAnchor, "-f", state("firewall.pf.conf")};
  }
  void setBootID(const std::string& id) const {
    createDirectories(parentPath(paths.bootID));
    writeFileAtomically(paths.bootID, id + "\n", 0644);
  }
  void flushAnchor() const { HelperCommand::run(paths.pfctl, {"-a", kAnchor, "-F", "rules"}); }

  static HostPaths testPaths(const TempTree& tree) {
    createDirectories(tree.path("pfsim"));
    return tree.hostPaths();
  }

  TempTree tree;
  HostPaths paths;
  HelperLog log;
  std::atomic<long long> seconds{0};  // the clock steps one second per reading
  HelperEnvironment env;
  PfSimulator pf;
  // The machine's own addresses: en0 on 192.168.1.0/24 (networks overlapping it are refused) and
  // bridge100 holding the gateway of 192.168.64.0/24.
  std::vector<NetworkFirewall::HostAddress> hostAddresses = {{"lo0", {127, 0, 0, 1}, 8},
                                                             {"en0", {192, 168, 1, 20}, 24},
                                                             {"bridge100", {192, 168, 64, 1}, 24}};
  std::mutex sleepsLock;
  std::vector<std::chrono::microseconds> sleeps;
  FirewallHost host;
};

}  // namespace enforce_test
