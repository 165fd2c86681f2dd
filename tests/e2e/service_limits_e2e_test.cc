// The helper in service mode at its limits, in an isolated root: a full state folder, the helper
// killed during a stream of changes, and many clients, idle connections and stalled frames at
// once (the heavy scenarios, run by the bundle's companion service: the end-to-end driver).
#include <gtest/gtest.h>

#include <iostream>
#include <string>
#include <vector>

#include "e2e/isolated_root.h"

namespace {

#ifdef TARNLY_SANITIZED
constexpr long kPeakLimitKb = 1024L * 1024;  // sanitizers keep freed memory in quarantine
const std::string kLoad = "200 50";          // and run the helper five times slower
#else
constexpr long kPeakLimitKb = 192L * 1024;  // 64 MiB of frames, 20 MiB of small ones, the rest
const std::string kLoad = "200 200";
#endif

// Shell lines: for each uid, a bridge with the gateway of 192.168.<64+i>.0/24 and the policy file
// /tmp/policy-<uid>.json with one network "Net<uid>" on it (and /tmp/policy-all.json with all).
std::string bridgesAndPolicies() {
  std::string script, all;
  const int uids[] = {0, 501, 502};
  for (int i = 0; i < 3; ++i) {
    std::string n = std::to_string(64 + i), uid = std::to_string(uids[i]);
    std::string network = R"({"networkID": "6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A)" + n +
                          R"(", "name": "Net)" + uid + R"(", "subnetCIDR": "192.168.)" + n +
                          R"(.0/24", "gatewayIPv4": "192.168.)" + n +
                          R"(.1", "dnsProxyEnabled": true, "policy": {"enabled": true,
  "defaultInbound": "deny", "defaultOutbound": "allow", "rules": [{"id":
  "0A1B2C3D-4E5F-4061-8283-94A5B6C7D8E9", "enabled": true, "direction": "inbound", "action":
  "allow", "proto": "tcp", "remoteCIDR": "any", "ports": "22"}]}})";
    all += (all.empty() ? "" : ",") + network;
    std::string bridge = "bridge" + std::to_string(100 + i);
    script += "ip link add " + bridge + " type bridge && ip addr add 192.168." + n + ".1/24 dev " +
              bridge + "\necho '[" + network + "]' > /tmp/policy-" + uid + ".json\n";
  }
  return script + "echo '[" + all + "]' > /tmp/policy-all.json\n";
}

// The text after "-- <name>\n" up to the next section marker.
std::string section(const std::string& out, const std::string& name) {
  std::string marker = "-- " + name + "\n";
  size_t start = out.find(marker);
  if (start == std::string::npos) return "<no section " + name + ">";
  start += marker.size();
  size_t end = out.find("\n-- ", start - 1);
  return out.substr(start, end == std::string::npos ? std::string::npos : end + 1 - start);
}

// Every "VmHWM <n> kB" figure the driver printed.
std::vector<long> peaks(const std::string& out) {
  std::vector<long> found;
  for (size_t at = out.find("VmHWM "); at != std::string::npos; at = out.find("VmHWM ", at + 1)) {
    found.push_back(std::stol(out.substr(at + 6)));
  }
  return found;
}

class ServiceLimitsEndToEnd : public IsolatedRootTest {
 protected:
  // The scenario's output, also printed: its figures belong in the test log.
  static std::string run(const std::string& script) {
    std::string out = IsolatedRootTest::run(script);
    std::cout << out;
    return out;
  }
};

using HeavyEndToEnd = ServiceLimitsEndToEnd;

TEST_F(ServiceLimitsEndToEnd, FullStateFolderFailsTheApplyAndKeepsThePreviousFirewall) {
  std::string out = run(
      bridgesAndPolicies() +
      "S='/Library/Application Support/Tarnly'; mkdir -p \"$S\"; mount -t tmpfs -o size=64k "
      "tmpfs \"$S\"\n"
      "start_helper\n"
      "echo '-- first'; ctl applyFirewallWithPolicyData:withReply: /tmp/policy-0.json\n"
      "cp \"$S/firewall-policies.json\" /tmp/store-before\n"
      "dd if=/dev/zero of=\"$S/filler\" bs=4k 2>/dev/null\n"
      "echo '-- full'; ctl applyFirewallWithPolicyData:withReply: /tmp/policy-all.json\n"
      "echo '-- kept'; cmp \"$S/firewall-policies.json\" /tmp/store-before && echo same store\n"
      "ls -a \"$S\" | grep -c tmp-\n"
      "for subnet in 64 65; do pfctl -a com.apple/900.tarnly.firewall -sr | grep -q "
      "192.168.$subnet.0/24 && echo \"$subnet enforced\" || echo \"$subnet not enforced\"; done\n"
      "echo '-- next'; ctl helperVersionWithReply:\n"
      "rm \"$S/filler\"; ctl applyFirewallWithPolicyData:withReply: /tmp/policy-all.json\n"
      "echo '-- log'; log_lines | grep failed\n");
  const std::string file = "/Library/Application Support/Tarnly/firewall.pf.conf";
  const std::string failure = "Could not write " + file + ": No space left on device.";
  EXPECT_EQ(section(out, "first"), "[\"Enforcing 1 network: Net0\",null]\nexit=0\n");
  EXPECT_EQ(section(out, "full"), "[null,\"" + failure + "\"]\nexit=0\n");
  EXPECT_EQ(section(out, "kept"), "same store\n0\n64 enforced\n65 not enforced\n");
  EXPECT_EQ(section(out, "next"), std::string("[\"") + TARNLY_VERSION +
                                      "\"]\nexit=0\n"
                                      "[\"Enforcing 3 networks: Net0, Net501, Net502\",null]\n"
                                      "exit=0\n");
  EXPECT_EQ(section(out, "log"), "applyFirewall failed: " + failure + "\n");
}

TEST_F(HeavyEndToEnd, KillsAtRandomMomentsLeaveWholeFilesAndTheNextStartReapplies) {
  std::string out = run(bridgesAndPolicies() +
                        "echo '-- crash'; $DRIVER crash 400 20261123 2>&1 || tail -n 3 $LOG\n");
  EXPECT_NE(section(out, "crash").find("crash: 400 kills survived"), std::string::npos) << out;
}

TEST_F(HeavyEndToEnd, ManyClientsIdleConnectionsAndStalledFramesStayWithinBounds) {
  std::string out = run(bridgesAndPolicies() +
                        "start_helper\n"
                        "echo '-- load'; $DRIVER load " +
                        kLoad +
                        " && echo passed\n"
                        "echo '-- idle'; $DRIVER idle 1000 && echo passed\n"
                        "echo '-- flood'; $DRIVER flood 200 && echo passed\n"
                        "kill -0 $HELPER_PID && echo 'helper alive'\n"
                        "echo '-- refusals'; log_lines | grep -c '^Refused a connection'\n");
  EXPECT_NE(section(out, "load").find("passed\n"), std::string::npos) << out;
  EXPECT_NE(section(out, "idle").find("3 refused"), std::string::npos) << out;
  EXPECT_NE(section(out, "idle").find("passed\n"), std::string::npos) << out;
  // Four frames fill the budget; every other sender is told the helper is busy.
  EXPECT_NE(section(out, "flood").find("4 held, 196 refused as busy, 0 other"), std::string::npos)
      << out;
  EXPECT_NE(section(out, "flood").find("passed\nhelper alive\n"), std::string::npos) << out;
  EXPECT_EQ(section(out, "refusals"), "1\n");
  std::vector<long> figures = peaks(out);
  ASSERT_EQ(figures.size(), 2u) << out;
  for (long peak : figures) EXPECT_LT(peak, kPeakLimitKb) << out;
}

}  // namespace
