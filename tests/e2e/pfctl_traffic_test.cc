// tarnly-pfctl at /sbin/pfctl of an isolated root, driven by the unmodified helper, shown with
// real TCP, UDP and ICMP between network namespaces.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "e2e/isolated_root.h"
#include "e2e/traffic_lab.h"

namespace {

// Default outbound allow, inbound deny; rules: outbound tcp 7001 and udp 5301 to the LAN denied,
// inbound tcp 8022 allowed. IPv6 not kept.
const std::string kFirstPolicy = TrafficLab::store(
    R"("defaultInbound": "deny", "defaultOutbound": "allow")",
    R"([{"id": "0A1B2C3D-4E5F-4061-8283-94A5B6C7D8E1", "enabled": true, "direction": "outbound",
         "action": "deny", "proto": "tcp", "remoteCIDR": "10.77.0.0/24", "ports": "7001"},
        {"id": "0A1B2C3D-4E5F-4061-8283-94A5B6C7D8E2", "enabled": true, "direction": "outbound",
         "action": "deny", "proto": "udp", "remoteCIDR": "10.77.0.0/24", "ports": "5301"},
        {"id": "0A1B2C3D-4E5F-4061-8283-94A5B6C7D8E3", "enabled": true, "direction": "inbound",
         "action": "allow", "proto": "tcp", "remoteCIDR": "any", "ports": "8022"}])",
    false);

// Default outbound deny; rules allow udp 5300 and icmp to the LAN; no inbound rule. IPv6 kept.
const std::string kSecondPolicy = TrafficLab::store(
    R"("defaultInbound": "deny", "defaultOutbound": "deny")",
    R"([{"id": "0A1B2C3D-4E5F-4061-8283-94A5B6C7D8E4", "enabled": true, "direction": "outbound",
         "action": "allow", "proto": "udp", "remoteCIDR": "10.77.0.0/24", "ports": "5300"},
        {"id": "0A1B2C3D-4E5F-4061-8283-94A5B6C7D8E5", "enabled": true, "direction": "outbound",
         "action": "allow", "proto": "icmp", "remoteCIDR": "10.77.0.2", "ports": ""}])",
    true);

// Every probe of the lab, run after each step under the step's name.
constexpr const char* kProbes = R"(
probes() {
  probe $1.out.tcp.default vm tcp 10.77.0.2 7000
  probe $1.out.tcp.rule vm tcp 10.77.0.2 7001
  probe $1.out.udp.default vm udp 10.77.0.2 5301
  probe $1.out.udp.rule vm udp 10.77.0.2 5300
  probe $1.out.icmp vm icmp 10.77.0.2
  probe $1.in.tcp.rule lan tcp 192.168.64.2 8022
  probe $1.in.tcp.default lan tcp 192.168.64.2 8023
  probe $1.in.icmp lan icmp 192.168.64.2
  probe $1.vm.ipv6 vm icmp6 fd00:64::1
}
serve lan tcp 7000; serve lan tcp 7001; serve lan udp 5300; serve lan udp 5301
serve vm tcp 8022; serve vm tcp 8023
)";

std::map<std::string, std::string> results(const std::string& output) {
  std::map<std::string, std::string> found;
  std::istringstream lines(output);
  std::string line;
  while (std::getline(lines, line)) {
    size_t equals = line.find('=');
    if (equals != std::string::npos) found[line.substr(0, equals)] = line.substr(equals + 1);
  }
  return found;
}

std::string writeFile(const std::string& name, const std::string& text) {
  return "cat > " + name + " <<'EOF'\n" + text + "\nEOF\n";
}

class PfctlTraffic : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string reason = IsolatedRoot::unavailableReason();
    if (!reason.empty()) GTEST_SKIP() << reason;
    HelperCommand::Result probe =
        HelperCommand::run("/usr/bin/unshare", {"--net", TARNLY_PFCTL_PATH, "-si"});
    if (probe.status != 0) GTEST_SKIP() << probe.combinedOutput();
  }

  static HelperCommand::Result run(const std::string& scenario) {
    return IsolatedRoot::run(TrafficLab::prelude() + writeFile("/tmp/first.json", kFirstPolicy) +
                                 writeFile("/tmp/second.json", kSecondPolicy) + kProbes + scenario,
                             TARNLY_PFCTL_PATH);
  }
};

TEST_F(PfctlTraffic, PoliciesAppliedThroughTheHelperHoldForRealTraffic) {
  HelperCommand::Result result = run(R"(
probes before
hold vm 10.77.0.2 7000
apply_store /tmp/first.json
probes first
say held.first
apply_store /tmp/second.json
say held.second.kept
kill_states 192.168.64.0/24
say held.second.killed
unhold
probes second
remove_all
probes removed
)");
  ASSERT_EQ(result.status, 0) << result.stdout << result.stderr;
  std::map<std::string, std::string> found = results(result.stdout);
  // Expected outcome per probe: before any policy, under the first, under the second, removed.
  const std::map<std::string, std::string> expected[4] = {{},
                                                          {{"out.tcp.rule", "blocked"},
                                                           {"out.udp.default", "blocked"},
                                                           {"in.tcp.default", "blocked"},
                                                           {"in.icmp", "blocked"},
                                                           {"vm.ipv6", "blocked"}},
                                                          {{"out.tcp.default", "blocked"},
                                                           {"out.tcp.rule", "blocked"},
                                                           {"out.udp.default", "blocked"},
                                                           {"in.tcp.rule", "blocked"},
                                                           {"in.tcp.default", "blocked"},
                                                           {"in.icmp", "blocked"}},
                                                          {}};
  const char* steps[4] = {"before", "first", "second", "removed"};
  for (int step = 0; step < 4; ++step) {
    for (const char* probe : {"out.tcp.default", "out.tcp.rule", "out.udp.default", "out.udp.rule",
                              "out.icmp", "in.tcp.rule", "in.tcp.default", "in.icmp", "vm.ipv6"}) {
      auto want = expected[step].find(probe);
      std::string key = std::string(steps[step]) + "." + probe;
      EXPECT_EQ(found[key], want == expected[step].end() ? "open" : want->second) << key;
    }
  }
  // The connection outlives the apply that denies it (its state is kept) until its states go.
  EXPECT_EQ(found["held.first"], "open");
  EXPECT_EQ(found["held.second.kept"], "open");
  EXPECT_EQ(found["held.second.killed"], "cut") << result.stdout;
}

TEST_F(PfctlTraffic, SecondIdenticalApplyOnlyChecksAndAFlushedTableIsReloaded) {
  HelperCommand::Result result = run(R"sh(
mv /sbin/pfctl /sbin/pfctl.real
printf '#!/bin/sh\necho "$*" >> /tmp/lab/pfctl.log\nexec /sbin/pfctl.real "$@"\n' > /sbin/pfctl
chmod 755 /sbin/pfctl
apply_store /tmp/first.json
: > $LAB/pfctl.log
apply_store /tmp/first.json
echo "unchanged=$(tr '\n' ';' < $LAB/pfctl.log)"
nft flush table inet tarnly_pf
probe flushed.in.tcp.default lan tcp 192.168.64.2 8023
: > $LAB/pfctl.log
apply_store /tmp/first.json
echo "reloaded=$(grep -c -- ' -f ' $LAB/pfctl.log)"
probe reloaded.in.tcp.default lan tcp 192.168.64.2 8023
probe reloaded.in.tcp.rule lan tcp 192.168.64.2 8022
)sh");
  ASSERT_EQ(result.status, 0) << result.stdout << result.stderr;
  std::map<std::string, std::string> found = results(result.stdout);
  EXPECT_EQ(found["unchanged"], "-si;-a com.apple/900.tarnly.firewall -sr;");
  EXPECT_EQ(found["flushed.in.tcp.default"], "open");
  EXPECT_EQ(found["reloaded"], "1");
  EXPECT_EQ(found["reloaded.in.tcp.default"], "blocked");
  EXPECT_EQ(found["reloaded.in.tcp.rule"], "open");
}

}  // namespace
