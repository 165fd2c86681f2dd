// The helper in service mode, reached only through its socket by the bundle's client, in an
// isolated root: one scenario per group of methods, plus who may connect and who may change what.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "e2e/isolated_root.h"
#include "platform/base64.h"
#include "support/user_mode_linux.h"

namespace {

using nlohmann::json;

const std::string kRefusal =
    "Only an administrator of this Mac can make this change through "
    "Tarnly's helper.";
const std::string kStarted =
    std::string("Helper ") + TARNLY_VERSION + " listening on com.orbelle.tarnly.adminhelper.\n";

// One network with a firewall, as the application sends it: NAME on 192.168.N.0/24.
std::string network(const std::string& name, int n) {
  std::string subnet = "192.168." + std::to_string(n);
  return R"({"networkID": "6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A)" + std::to_string(n) +
         R"(", "name": ")" + name + R"(", "subnetCIDR": ")" + subnet +
         R"(.0/24", "gatewayIPv4": ")" + subnet + R"(.1", "dnsProxyEnabled": true, "policy": {
  "enabled": true, "defaultInbound": "deny", "defaultOutbound": "allow", "rules": [
  {"id": "0A1B2C3D-4E5F-4061-8283-94A5B6C7D8E9", "enabled": true, "direction": "inbound",
   "action": "allow", "proto": "tcp", "remoteCIDR": "any", "ports": "22"}]}})";
}

// Shell lines: a bridge with the network's gateway address, and the policy file /tmp/NAME.json.
std::string bridgeAndPolicy(const std::string& name, int n) {
  return "ip link add bridge" + std::to_string(36 + n) + " type bridge && ip addr add 192.168." +
         std::to_string(n) + ".1/24 dev bridge" + std::to_string(36 + n) + "\ncat > /tmp/" + name +
         ".json <<'EOF'\n[" + network(name, n) + "]\nEOF\n";
}

// The text after "-- <section>\n" up to the next section marker.
std::string section(const std::string& out, const std::string& name) {
  std::string marker = "-- " + name + "\n";
  size_t start = out.find(marker);
  if (start == std::string::npos) return "<no section " + name + ">";
  start += marker.size();
  size_t end = out.find("\n-- ", start - 1);
  return out.substr(start, end == std::string::npos ? std::string::npos : end + 1 - start);
}

// The reply line of a section ("[...]\nexit=0\n"), decoded.
json reply(const std::string& out, const std::string& name) {
  std::string text = section(out, name);
  return json::parse(text.substr(0, text.find('\n')), nullptr, false);
}

using ServiceEndToEnd = IsolatedRootTest;

TEST_F(ServiceEndToEnd, FirewallForTwoAdministratorsAndARefusedOrdinaryUser) {
  std::string out =
      run(bridgeAndPolicy("Lab", 64) + bridgeAndPolicy("Build", 65) +
          "start_helper\n"
          "echo '-- alice'; ctl_as 501 80 applyFirewallWithPolicyData:withReply: "
          "/tmp/Lab.json\n"
          "echo '-- bob'; ctl_as 502 502 applyFirewallWithPolicyData:withReply: "
          "/tmp/Build.json\n"
          "echo '-- nobody'; ctl_as 65534 65534 applyFirewallWithPolicyData:withReply: "
          "/tmp/Lab.json\n"
          "echo '-- nobody version'; ctl_as 65534 65534 helperVersionWithReply:\n"
          "echo '-- report'; ctl firewallReportWithReply:\n"
          "echo '-- alice removes'; ctl_as 501 80 removeFirewallWithReply:\n"
          "echo '-- report after'; ctl firewallReportWithReply:\n"
          "echo '-- anchor'; for subnet in 192.168.64.0/24 192.168.65.0/24; do\n"
          "  pfctl -a com.apple/900.tarnly.firewall -sr | grep -q $subnet && echo "
          "\"$subnet enforced\" || echo \"$subnet not enforced\"; done\n"
          "echo '-- log'; log_lines | grep -v '^Applied firewall'\n");
  EXPECT_EQ(section(out, "alice"), "[\"Enforcing 1 network: Lab\",null]\nexit=0\n");
  EXPECT_EQ(section(out, "bob"),
            "[\"Enforcing 1 network: Build - 1 more for other users of this Mac\",null]\nexit=0\n");
  EXPECT_EQ(section(out, "nobody"), "[null,\"" + kRefusal + "\"]\nexit=0\n");
  EXPECT_EQ(section(out, "nobody version"), std::string("[\"") + TARNLY_VERSION + "\"]\nexit=0\n");
  std::string report = reply(out, "report").at(0);
  EXPECT_NE(report.find("Status: Enabled"), std::string::npos) << report;
  EXPECT_NE(report.find("== subnet owners ==\n192.168.64.0/24 501\n192.168.65.0/24 502"),
            std::string::npos)
      << report;
  EXPECT_EQ(section(out, "alice removes"), "[null]\nexit=0\n");
  std::string after = reply(out, "report after").at(0);
  EXPECT_NE(after.find("== subnet owners ==\n192.168.65.0/24 502"), std::string::npos) << after;
  EXPECT_EQ(after.find("192.168.64.0/24 501"), std::string::npos) << after;
  EXPECT_EQ(section(out, "anchor"), "192.168.64.0/24 not enforced\n192.168.65.0/24 enforced\n");
  EXPECT_EQ(section(out, "log"),
            kStarted +
                "Refused applyFirewall for uid 65534: not an administrator or the console user.\n"
                "Removed uid 501's firewall policies; other users' stay in force.\n");
}

// On this kernel; where it has no 802.1Q VLAN links, once more on user-mode Linux's, which has.
TEST_F(ServiceEndToEnd, VLANsAreMadeListedDeletedAndRefusedThroughTheSocket) {
  const std::string script =
      "ip link add veth0 type veth peer name veth1\n"
      "if ip link add link veth1 name probe0 type vlan id 9 2>/dev/null; then\n"
      "  ip link del probe0; echo '-- 802.1Q'; echo yes; else echo '-- 802.1Q'; echo no; fi\n"
      "start_helper\n"
      "echo '-- list'; ctl createdVLANsWithReply:\n"
      "echo '-- nobody'; ctl_as 65534 65534 createVLANWithName:tag:parentBSD:withReply: Lab 5 "
      "veth0\n"
      "echo '-- no parent'; ctl createVLANWithName:tag:parentBSD:withReply: Lab 5 en9\n"
      "echo '-- no vlan'; ctl deleteVLANWithBsdName:withReply: vlan7\n"
      "echo '-- create'; ctl createVLANWithName:tag:parentBSD:withReply: ' Lab ' 5 veth0\n"
      "echo '-- list after'; ctl createdVLANsWithReply:\n"
      "echo '-- links'; ip -d -o link show type vlan | sed 's/^[0-9]*: \\([^:]*\\):.* 802.1Q id "
      "\\([0-9]*\\) .*/\\1 tag \\2/'\n"
      "echo '-- delete'; ctl deleteVLANWithBsdName:withReply: vlan0\n"
      "echo '-- links after'; ip -o link show type vlan | wc -l\n"
      "echo '-- log'; log_lines\n";
  const std::string log = kStarted +
                          "Refused createVLAN for uid 65534: not an administrator.\n"
                          "createVLAN failed: No physical interface named en9.\n"
                          "deleteVLAN failed: No VLAN interface named vlan7.\n";
  auto refusals = [&](const std::string& out) {
    EXPECT_EQ(section(out, "list"), "[\"W10=\",null]\nexit=0\n");
    EXPECT_EQ(section(out, "nobody"), "[null,\"" + kRefusal + "\"]\nexit=0\n");
    EXPECT_EQ(section(out, "no parent"), "[null,\"No physical interface named en9.\"]\nexit=0\n");
    EXPECT_EQ(section(out, "no vlan"), "[\"No VLAN interface named vlan7.\"]\nexit=0\n");
  };
  std::string out = run(script);
  refusals(out);
  if (section(out, "802.1Q") == "no\n") {
    // The kernel refuses the link when the change is carried out: nothing is recorded.
    EXPECT_EQ(section(out, "create"),
              "[null,\"Could not save the network configuration.\"]\nexit=0\n");
    EXPECT_EQ(section(out, "list after"), "[\"W10=\",null]\nexit=0\n");
    EXPECT_EQ(section(out, "log"),
              log +
                  "createVLAN failed: Could not save the network configuration.\n"
                  "deleteVLAN failed: No VLAN interface named vlan0.\n");
    const std::string noVLANs = "this kernel has no 802.1Q VLAN links (CONFIG_VLAN_8021Q); ";
    std::string noUML = UserModeLinux::unavailableReason();
    if (!noUML.empty()) GTEST_SKIP() << noVLANs << noUML;
    HelperCommand::Result onUML =
        IsolatedRoot::run(script, TARNLY_PFSIM_PATH, UserModeLinux::launcher({"8021q", "veth"}));
    noUML = UserModeLinux::failure(onUML.status, onUML.stderr);
    if (!noUML.empty()) GTEST_SKIP() << noVLANs << noUML;
    ASSERT_EQ(onUML.status, 0) << onUML.stdout << onUML.stderr;
    out = onUML.stdout;
    ASSERT_EQ(section(out, "802.1Q"), "yes\n") << out;
    refusals(out);
  }
  EXPECT_EQ(section(out, "create"), "[\"vlan0\",null]\nexit=0\n");
  json listed = json::parse(
      Base64::decode(reply(out, "list after").at(0).get<std::string>()).value_or("<not base64>"),
      nullptr, false);
  EXPECT_EQ(listed, json::parse(R"([{"bsdName": "vlan0", "tag": 5, "parentBSD": "veth0",
                                     "name": "Lab"}])"));
  EXPECT_EQ(section(out, "links"), "vlan0@veth0 tag 5\n");
  EXPECT_EQ(section(out, "delete"), "[null]\nexit=0\n");
  EXPECT_EQ(section(out, "links after"), "0\n");
  EXPECT_EQ(section(out, "log"),
            log + "Created VLAN vlan0 (tag 5) on veth0.\nDeleted VLAN vlan0.\n");
}

TEST_F(ServiceEndToEnd, HostLinksResolverPruneAndUninstall) {
  std::string out =
      run("C=/Applications/Tarnly.app/Contents\n"
          "install -m 0755 /dev/null $C/Helpers/tarnly-cli\n"
          "install -d -m 0755 $C/Resources/completions\n"
          "echo '#compdef tarnly' > $C/Resources/completions/_tarnly\n"
          "echo 'complete -c tarnly' > $C/Resources/completions/tarnly.fish\n"
          "start_helper\n"
          "echo '-- link'; ctl installCLISymlinkWithReply:; readlink /usr/local/bin/tqz\n"
          "echo '-- resolver on'; ctl setTarnlyResolverWithEnabled:withReply: true\n"
          "cat /etc/resolver/tqz; stat -c '%a' /etc/resolver/tarnly\n"
          "echo '-- nobody off'; ctl_as 65534 65534 setTarnlyResolverWithEnabled:withReply: false\n"
          "echo '-- resolver off'; ctl setTarnlyResolverWithEnabled:withReply: false; ls "
          "/etc/resolver\n"
          "echo '-- unlink'; ctl removeCLISymlinkWithReply:; test -L /usr/local/bin/tarnly || echo "
          "'no link'\n"
          // vmenet0 is a member of bridge100; vmenet1 is in no bridge.
          "printf 'bridge100: flags=8a63<UP> mtu 1500\\n\\tmember: vmenet0 flags=3<LEARNING>\\n"
          "vmenet0: flags=8963<UP> mtu 1500\\nvmenet1: flags=8963<UP> mtu 1500\\n' "
          "> /var/lib/fakes/ifconfig-a.txt\n"
          "echo '-- prune'; ctl pruneStaleVMInterfacesWithReply:\n"
          "ctl pruneStaleVMInterfacesWithReply:\n"
          "echo '-- tools'; fake_calls pgrep; fake_calls ifconfig\n"
          "echo '-- log'; log_lines\n"
          "S='/Library/Application Support/Tarnly'; mkdir -p \"$S\"\n"
          "echo '{\"owners\": {}}' > \"$S/firewall-policies.json\"\n"
          "echo '-- uninstall'; ctl removeFilesForUninstallWithReply:; ls \"$S\"\n"
          "test -e $LOG || echo 'no log'\n");
  const std::string bundle = "/Applications/Tarnly.app/Contents/";
  EXPECT_EQ(section(out, "link"), "[null]\nexit=0\n" + bundle + "Helpers/tarnly-cli\n");
  EXPECT_EQ(section(out, "resolver on"),
            "[null]\nexit=0\n# Installed by Tarnly: <vm>.tqz names resolve to its VMs.\n"
            "nameserver 127.0.0.1\nport 5380\ntimeout 2\n644\n");
  EXPECT_EQ(section(out, "nobody off"), "[\"" + kRefusal + "\"]\nexit=0\n");
  EXPECT_EQ(section(out, "resolver off"), "[null]\nexit=0\n");
  EXPECT_EQ(section(out, "unlink"), "[null]\nexit=0\nno link\n");
  EXPECT_EQ(section(out, "prune"),
            "[\"1 vmnet interface(s) in no bridge for now; destroyed if still so at the next "
            "scan.\",null]\nexit=0\n"
            "[\"Destroyed 1 of 1 stale vmnet interface(s) (1 in use).\",null]\nexit=0\n");
  EXPECT_EQ(section(out, "tools"),
            "-x com.apple.Virtualization.VirtualMachine\n"
            "-x com.apple.Virtualization.VirtualMachine\n-a\n-a\nvmenet1 destroy\n");
  const std::string completions = bundle + "Resources/completions/";
  const std::string zsh = "/usr/local/share/zsh/site-functions/_tarnly";
  const std::string fish = "/usr/local/share/fish/vendor_completions.d/";
  EXPECT_EQ(section(out, "log"),
            kStarted + "Linked /usr/local/bin/tarnly -> " + bundle + "Helpers/tarnly-cli.\n" +
                "Linked /usr/local/bin/tqz -> " + bundle + "Helpers/tarnly-cli.\n" + "Linked " +
                zsh + " -> " + completions + "_tarnly.\n" + "Linked " + fish + "tarnly.fish -> " +
                completions + "tarnly.fish.\n" + "Linked " + fish + "tqz.fish -> " + completions +
                "tarnly.fish.\n" +
                "Installed /etc/resolver/tqz.\nInstalled /etc/resolver/tarnly.\n"
                "Refused setTarnlyResolver for uid 65534: not an administrator.\n"
                "Removed /etc/resolver/tqz.\nRemoved /etc/resolver/tarnly.\n"
                "Removed /usr/local/bin/tarnly.\nRemoved /usr/local/bin/tqz.\n"
                "Removed " +
                zsh + ".\nRemoved " + fish + "tarnly.fish.\nRemoved " + fish +
                "tqz.fish.\n"
                "Destroyed stale vmnet interface(s) in no bridge: vmenet1\n");
  // Another account's firewall file stays and is named; the log is gone.
  EXPECT_EQ(section(out, "uninstall"),
            "[\"firewall rules another account on this Mac still uses\",null]\nexit=0\n"
            "firewall-policies.json\nno log\n");
}

TEST_F(ServiceEndToEnd, PeersConcurrentClientsAndShutdownForUpgrade) {
  std::string out = run(
      bridgeAndPolicy("Lab", 64) +
      "S='/Library/Application Support/Tarnly'; mkdir -p \"$S\"\n"
      "printf '{\"owners\": {\"501\": {\"appliedAt\": 815000000.5, \"policies\": %s}}}' "
      "\"$(cat /tmp/Lab.json)\" > \"$S/firewall-policies.json\"\n"
      "start_helper\n"
      // A copy of the client outside the helper's bundle is disconnected before any method runs.
      "install -d -m 0755 /opt/Other.app/Contents/MacOS\n"
      "install -m 0755 $CTL /opt/Other.app/Contents/MacOS/Tarnly\n"
      "echo '-- stranger'; /opt/Other.app/Contents/MacOS/Tarnly "
      "setTarnlyResolverWithEnabled:withReply: true 2>&1; echo \"exit=$?\"\n"
      "test -e /etc/resolver/tqz || echo 'no resolver file'\n"
      "echo '-- together'; pids=\n"
      "for i in $(seq 1 24); do\n"
      "  if [ $((i % 2)) = 0 ]; then s=helperVersionWithReply:; else s=createdVLANsWithReply:; fi\n"
      "  ctl $s > /tmp/client.$i & pids=\"$pids $!\"\n"
      "done\n"
      "wait $pids; cat /tmp/client.* | LC_ALL=C sort | uniq -c | sed 's/^ *//'\n"
      "echo '-- nobody shutdown'; ctl_as 65534 65534 shutdownForUpgradeWithReply:; ctl "
      "helperVersionWithReply:\n"
      "echo '-- shutdown'; ctl shutdownForUpgradeWithReply:\n"
      "(sleep 20; kill -9 $HELPER_PID) >/dev/null 2>&1 & watchdog=$!\n"
      "wait $HELPER_PID; echo \"helper exit=$?\"; HELPER_PID=; kill $watchdog\n"
      "start_helper\n"
      "echo '-- log'; log_lines | grep -v '^Applied firewall'\n");
  EXPECT_EQ(section(out, "stranger"),
            "tarnly-helperctl: the helper closed the connection without a reply\nexit=1\nno "
            "resolver file\n");
  EXPECT_EQ(section(out, "together"),
            std::string("12 [\"") + TARNLY_VERSION + "\"]\n12 [\"W10=\",null]\n24 exit=0\n");
  EXPECT_EQ(section(out, "nobody shutdown"),
            std::string("[]\nexit=0\n[\"") + TARNLY_VERSION + "\"]\nexit=0\n");
  EXPECT_EQ(section(out, "shutdown"), "[]\nexit=0\nhelper exit=0\n");
  EXPECT_EQ(section(out, "log"),
            "Boot re-apply: Enforcing 1 network for all users: Lab\n" + kStarted +
                "Refused shutdownForUpgrade for uid 65534: not an administrator or the console "
                "user.\n"
                "Shutdown requested for upgrade; exiting so launchd re-execs the new binary.\n"
                "Boot re-apply: pf already runs these rules; nothing reloaded. Enforcing 1 network "
                "for all users: Lab\n" +
                kStarted);
}

}  // namespace
