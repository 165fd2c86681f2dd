// tarnly-pfctl driven as the helper drives it, in a network namespace of the test's own: the same
// listings as the pf simulator for the same rules, refusals that change nothing, counters, and no
// table but its own touched.
#include <gtest/gtest.h>

#include <string>

#include "service/helper_command.h"
#include "support/temp_tree.h"

namespace {

// Lines the kernel cannot dispatch by subnet (any source, overlapping subnets), lists with
// overlapping elements and a list too long for one kernel rule.
const std::string kMixedRuleset =
    R"(# mixed
block drop quick on bridge100 inet6 all
pass in quick proto tcp from any to any port 22 keep state
block drop in quick from 192.168.64.0/24 to { 10.0.0.0/8, 10.1.0.0/16 }
)"
    "pass out quick proto udp from { 10.1.1.1, 10.1.1.2, 10.1.1.3, 10.1.1.4, 10.1.1.5, 10.1.1.6, "
    "10.1.1.7, 10.1.1.8 } to 192.168.64.0/24 port 53 keep state\n"
    R"(pass out quick proto icmp from any to 192.168.0.0/16 keep state
pass out quick proto tcp from any to 192.168.64.0/24 port 8000:8080 keep state
block drop out quick from any to 192.168.64.0/24
pass out quick proto icmp from any to 127.0.0.1
)";

// Each step prints what it found; the listings are compared with the simulator's in the script.
constexpr const char* kScript = R"sh(
P=$1 S=$2 R=$3 A=com.apple/900.tarnly.firewall; export PFSIM_STATE=$4
ip link set lo up; nft add table inet other; nft add chain inet other c; nft add rule inet other c counter
other=$(nft list table inet other)
$P -E; echo "status=$?"; $P -E; echo "status=$?"; $P -a $A -f $R; echo "load=$?"
$S -a $A -f $R 2>/dev/null; listed=$($P -a $A -sr)
[ "$listed" = "$($S -a $A -sr 2>/dev/null)" ] && echo "listed as simulated"
echo "$listed" | grep -Fx 'pass out quick proto udp from 10.1.1.8 to 192.168.64.0/24 port = 53 keep state'
ping -c 1 -W 1 127.0.0.1 > /dev/null; $P -a $A -v -sr | tail -2
$P -a $A -f "$5" 2>&1; echo "status=$?"; [ "$listed" = "$($P -a $A -sr)" ] && echo unchanged
$P -a $A -F rules; $P -a com.tarnly.firewall -F rules; echo "legacy=$?"
$P -a $A -sr; $P -si | head -1; $P -sr; [ "$other" = "$(nft list table inet other)" ] && echo "other kept"
)sh";

TEST(PfctlNft, ListsLikeTheSimulatorRefusesWithoutChangeAndTouchesNoOtherTable) {
  HelperCommand::Result probe = HelperCommand::run("/usr/bin/unshare", {"--net", "/bin/true"});
  if (probe.status != 0) GTEST_SKIP() << "no network namespaces here: " << probe.combinedOutput();
  TempTree tree;
  std::string mixed = tree.write("mixed.conf", kMixedRuleset);
  std::string refused = tree.write("refused.conf", "# bad\npass in quick all\npass in fast all\n");
  HelperCommand::Result result = HelperCommand::run(
      "/usr/bin/unshare", {"--net", "/bin/bash", "-c", kScript, "lab", TARNLY_PFCTL_PATH,
                           TARNLY_PFSIM_PATH, mixed, tree.path("pfsim"), refused});
  if (result.stdout.starts_with("status=1")) GTEST_SKIP() << "no nf_tables here: " << result.stderr;
  EXPECT_EQ(result.stdout,
            "status=0\nstatus=0\nload=0\nlisted as simulated\n"
            "pass out quick proto udp from 10.1.1.8 to 192.168.64.0/24 port = 53 keep state\n"
            "pass out quick proto icmp from any to 127.0.0.1\n"
            "  [ Evaluations: 0  Packets: 1  Bytes: 84  States: 0 ]\n" +
                refused + ":3: syntax error\n" +
                "pfctl: Syntax error in config file: pf rules not loaded\nstatus=1\nunchanged\n"
                "legacy=0\nStatus: Enabled for 0 days 00:00:00           Debug: Urgent\n"
                "anchor \"com.apple/900.tarnly.firewall\" all\nother kept\n")
      << result.stderr;
}

}  // namespace
