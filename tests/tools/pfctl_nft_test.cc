// tarnly-pfctl driven as the helper drives it, in a network namespace of the test's own: the same
// listings as the pf simulator for the same rules, refusals that change nothing, counters, and no
// table but its own touched.
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>

#include "service/helper_command.h"
#include "support/temp_tree.h"

namespace {

// Lines the kernel cannot dispatch by subnet (any source, overlapping subnets), lists with
// overlapping elements and a list too long for one kernel rule.
const std::string kMixedRuleset =
    "# mixed\n"
    "block drop quick on bridge100 inet6 all\n"
    "pass in quick proto tcp from any to any port 22 keep state\n"
    "block drop in quick from 192.168.64.0/24 to { 10.0.0.0/8, 10.1.0.0/16 }\n"
    "pass out quick proto udp from { 10.1.1.1, 10.1.1.2, 10.1.1.3, 10.1.1.4, 10.1.1.5, 10.1.1.6, "
    "10.1.1.7, 10.1.1.8 } to 192.168.64.0/24 port 53 keep state\n"
    "pass out quick proto icmp from any to 192.168.0.0/16 keep state\n"
    "pass out quick proto tcp from any to 192.168.64.0/24 port 8000:8080 keep state\n"
    "block drop out quick from any to 192.168.64.0/24\n"
    "pass out quick proto icmp from any to 127.0.0.1\n";

constexpr const char* kScript = R"sh(
P=$1; S=$2; A=com.apple/900.tarnly.firewall
ip link set lo up
nft add table inet other && nft add chain inet other c && nft add rule inet other c counter
before=$(nft list table inet other)
section() { echo "@@$1"; }
section enable; $P -E; echo "status=$?"; $P -E; echo "status=$?"
$P -a $A -f "$3"; echo "load=$?"
PFSIM_STATE=$4 $S -a $A -f "$3" 2>/dev/null
section listing; $P -a $A -sr
section simulator; PFSIM_STATE=$4 $S -a $A -sr 2>/dev/null
ping -c 1 -W 1 127.0.0.1 > /dev/null
section counted; $P -a $A -v -sr | tail -2
section refused; $P -a $A -f "$5" 2>&1; echo "status=$?"
section after; $P -a $A -sr
section flushed; $P -a $A -F rules; $P -a com.tarnly.firewall -F rules; echo "legacy=$?"
$P -a $A -sr; $P -si | head -1; $P -sr
section other; [ "$before" = "$(nft list table inet other)" ] && echo same
)sh";

std::map<std::string, std::string> sections(const std::string& output) {
  std::map<std::string, std::string> found;
  std::istringstream lines(output);
  std::string line, name;
  while (std::getline(lines, line)) {
    if (line.rfind("@@", 0) == 0) {
      name = line.substr(2);
    } else {
      found[name] += line + "\n";
    }
  }
  return found;
}

TEST(PfctlNft, ListsLikeTheSimulatorRefusesWithoutChangeAndTouchesNoOtherTable) {
  HelperCommand::Result probe = HelperCommand::run("/usr/bin/unshare", {"--net", "/bin/true"});
  if (probe.status != 0) GTEST_SKIP() << "no network namespaces here: " << probe.combinedOutput();
  TempTree tree;
  std::string mixed = tree.write("mixed.conf", kMixedRuleset);
  std::string refused = tree.write("refused.conf", "# bad\npass in quick all\npass in fast all\n");
  HelperCommand::Result result = HelperCommand::run(
      "/usr/bin/unshare", {"--net", "/bin/bash", "-c", kScript, "lab", TARNLY_PFCTL_PATH,
                           TARNLY_PFSIM_PATH, mixed, tree.path("pfsim"), refused});
  ASSERT_EQ(result.status, 0) << result.stdout << result.stderr;
  std::map<std::string, std::string> found = sections(result.stdout);
  if (found["enable"].find("status=1") != std::string::npos) {
    GTEST_SKIP() << "no nf_tables here: " << result.stderr;
  }
  EXPECT_EQ(found["enable"], "status=0\nstatus=0\nload=0\n");
  EXPECT_EQ(found["listing"], found["simulator"]);
  EXPECT_NE(found["listing"].find("pass out quick proto udp from 10.1.1.8 to 192.168.64.0/24 "
                                  "port = 53 keep state\n"),
            std::string::npos)
      << found["listing"];
  EXPECT_EQ(found["counted"],
            "pass out quick proto icmp from any to 127.0.0.1\n"
            "  [ Evaluations: 0  Packets: 1  Bytes: 84  States: 0 ]\n");
  EXPECT_EQ(found["refused"], refused +
                                  ":3: syntax error\n"
                                  "pfctl: Syntax error in config file: pf rules not loaded\n"
                                  "status=1\n");
  EXPECT_EQ(found["after"], found["listing"]);
  EXPECT_EQ(found["flushed"],
            "legacy=0\n"
            "Status: Enabled for 0 days 00:00:00           Debug: Urgent\n"
            "anchor \"com.apple/900.tarnly.firewall\" all\n");
  EXPECT_EQ(found["other"], "same\n");
}

}  // namespace
