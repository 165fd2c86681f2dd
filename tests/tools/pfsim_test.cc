// The pf simulator through its installed wrapper (state read back through PfSimulator) and
// tarnly-pfctl, a process per invocation as the helper runs them; answers "status|stdout|stderr".
#include <gtest/gtest.h>

#include <iterator>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "service/helper_command.h"
#include "support/pf_simulator.h"
#include "support/temp_tree.h"

namespace {

const std::string anchor = "com.apple/900.tarnly.firewall";
const std::string refused = "pfctl: Syntax error in config file: pf rules not loaded\n";
const std::string altq = "No ALTQ support in kernel\nALTQ related functions disabled\n";
const std::string loaded =
    "0||pfctl: Use of -f option, could result in flushing of rules\npresent in the main ruleset "
    "added by the system at startup.\nSee /etc/pf.conf for further details.\n\n" +
    altq;
const std::string busy = "1||pfctl: DIOCXCOMMIT: Resource busy\n";
const std::string killed = "0||" + altq + "killed 1 states from 1 sources and ";

class PfSimulatorTest : public ::testing::Test {
 protected:
  std::string pfctl(const std::vector<std::string>& arguments) const {
    HelperCommand::Result result = HelperCommand::run(pf.pfctlPath(), arguments);
    return std::to_string(result.status) + "|" + result.stdout + "|" + result.stderr;
  }
  std::string load(const std::string& text, const std::string& into = anchor) const {
    return pfctl({"-a", into, "-f", tree.write("rules.conf", text)});
  }
  TempTree tree;
  PfSimulator pf{TARNLY_PFSIM_PATH, tree.path("sbin/pfctl"), tree.path("pfsim")};
  const std::string rules = tree.path("rules.conf");
};

TEST_F(PfSimulatorTest, AnswersEachInvocationAsPfDoes) {
  const std::string text =
      "\tblock drop out quick on en0 from 0.0.0.0/0 to { 10.0.0.1 { 10.0.0.2, any } }\n"
      R"(pass out quick proto udp from 10.1.2.3 to 192.168.64.0/24 port 8000:8080 keep state
pass in quick from any to any keep state # trailing comment
)";
  EXPECT_EQ(load(text), loaded);
  EXPECT_EQ(pfctl({"-a", anchor, "-sr"}),
            "0|" + std::string(R"(block drop out quick on en0 from any to 10.0.0.1
block drop out quick on en0 from any to 10.0.0.2
block drop out quick on en0 all
pass out quick proto udp from 10.1.2.3 to 192.168.64.0/24 port 8000:8080 keep state
pass in quick all keep state
|)") + altq);

  // A refusal names the line (here the third), keeps the rules loaded before and uses up no busy
  // answer of the kernel's.
  pf.failNextLoads(1);
  const std::string third = "1||" + rules + ":3: ", syntax = third + "syntax error\n" + refused;
  std::vector<std::pair<std::string, std::string>> refusals = {
      {"pass in quick from any port 53 to any", third + "port only applies to tcp/udp\n" + refused},
      {"block drop quick inet6 from 10.0.0.1 to any",
       third + "rule expands to no valid combination\n" + refused}};
  for (const char* line :
       {"pass in quick log all", "block in quick all", "pass in quick all\r",
        "pass in quick proto sctp all", "pass in quick from 10.0.0.256 to any",
        "pass in quick from 10.0.0.01 to any", "pass in quick from 10.0.0.0/33 to any",
        "pass in quick from lab.example to any", "pass in quick proto tcp from any to any port 0",
        "pass in quick proto tcp from any to any port 8080:8000",
        "pass in quick proto udp from any port 80-90", "pass in quick from { } to any",
        "pass in quick from { 10.0.0.1, } to any", "pass in quick from any",
        "pass in quick all keep state now", "pass in quick on { en0 } all"})
    refusals.emplace_back(line, syntax);
  for (const auto& [line, answer] : refusals)
    EXPECT_EQ(load("# header\npass in quick all\n" + line + "\npass in quick all\n"), answer);
  EXPECT_EQ(load("pass in quick all\n"), busy);
  EXPECT_EQ(pf.loadedRuleset(anchor), text);

  // Anchors are separate: a flush empties one; -v adds counters.
  EXPECT_EQ(load("pass in quick all\n", "other") + pfctl({"-a", anchor, "-F", "rules"}),
            loaded + "0||" + altq + "rules cleared\n");
  EXPECT_EQ(pfctl({"-a", anchor, "-sr"}) + pfctl({"-a", "other", "-v", "-sr"}),
            "0||" + altq +
                "0|pass in quick all\n  [ Evaluations: 0  Packets: 0  Bytes: 0  States: 0 ]\n|" +
                altq);

  // The other invocations the helper makes, and the ones it never makes.
  pf.clearInvocations();
  pf.addState("192.168.64.2", "1.1.1.1");
  pf.addState("10.0.0.1", "192.168.64.4");
  pf.addState("192.168.640.1", "192.168.64.6");  // not an address: never matched
  std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"-si"}, R"(0|Status: Disabled for 0 days 00:00:00          Debug: Urgent

State Table                          Total             Rate
  current entries                        3
  searches                               0            0.0/s
  inserts                                0            0.0/s
  removals                               0            0.0/s
|)" + altq},
      {{"-E"}, "0||" + altq + "pf enabled\n"},
      {{"-E"}, "0||" + altq + "pfctl: pf already enabled\n"},
      {{"-sr"},
       "0|scrub-anchor \"com.apple/*\" all fragment reassemble\nanchor \"com.apple/*\" all\n|" +
           altq},
      {{"-k", "192.168.64.0/24"}, killed + "0 destinations\n"},
      {{"-k", "0.0.0.0/0", "-k", "192.168.64.0/24"}, killed + "1 destinations\n"},
      {{"-k", "lab.example"}, "1||pfctl: no IP address found for lab.example\n"},
      {{"-a", anchor, "-f", rules + "x"},
       "1||pfctl: cannot open the main config file!: No such file or directory\n" + refused},
      {{"-a", "", "-sr"}, ""}};
  for (const char* line : {"", "-sa", "-e", "-E -E", "-si extra", "-a a", "-a a -sr -v",
                           "-a a -F all", "-k 10.0.0.0/8 -k", "-k 10.0.0.0/8 -K 10.0.0.1"}) {
    std::istringstream words(line);
    cases.push_back({{std::istream_iterator<std::string>(words), {}}, ""});  // pfctl's usage
  }
  std::vector<std::vector<std::string>> invoked;
  for (auto& [arguments, answer] : cases) {
    const std::string usage = "1||usage: pfctl [-AdeghMmNnOqRrvz] [-a anchor] ";
    EXPECT_EQ(pfctl(arguments).substr(0, answer.empty() ? usage.size() : std::string::npos),
              answer.empty() ? usage : answer);
    invoked.push_back(arguments);
  }
  EXPECT_EQ(pf.states(), std::vector<std::string>{"192.168.640.1 192.168.64.6"});
  EXPECT_EQ(pf.invocations(), invoked);
}

TEST_F(PfSimulatorTest, ConcurrentRunsShareOneStateAndBusyAnswersGoToTheNextLoadsOnly) {
  pf.failNextLoads(4);
  tree.write("rules.conf", "pass in quick all\n");
  std::multiset<std::string> answers, expected;
  std::mutex lock;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    const std::string network = "10.0." + std::to_string(i);
    pf.addState(network + ".1", "1.1.1.1");
    expected.insert({i < 4 ? busy : loaded, killed + "0 destinations\n"});
    threads.emplace_back([&, network] {
      std::string load = pfctl({"-a", anchor, "-f", rules}),
                  kill = pfctl({"-k", network + ".0/24"});
      std::lock_guard<std::mutex> hold(lock);
      answers.insert({load, kill});
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(answers, expected);
  EXPECT_TRUE(pf.states().empty());
  EXPECT_EQ(pf.invocations().size(), 16u);
}

// tarnly-pfctl in a network namespace on rules the helper never writes (any source, overlaps, a
// list too long for one kernel rule): listed as simulated, counted, refusals changing nothing.
TEST_F(PfSimulatorTest, TarnlyPfctlListsAsSimulatedRefusesWithoutChangeTouchesNoOtherTable) {
  const std::string mixed = tree.write("mixed.conf", R"(block drop quick on bridge100 inet6 all
pass in quick proto tcp from any to any port 22 keep state
block drop in quick from 192.168.64.0/24 to { 10.0.0.0/8, 10.1.0.0/16 }
pass out quick proto icmp from any to 192.168.0.0/16 keep state
pass out quick proto udp from { 10.1.1.1, 10.1.1.2, 10.1.1.3, 10.1.1.4, 10.1.1.5, 10.1.1.6, 10.1.1.7, 10.1.1.8 } to 192.168.64.0/24 port 53 keep state
pass out quick proto icmp from any to 127.0.0.1
)");
  const std::string script = R"sh(P=$1 A=com.apple/900.tarnly.firewall; ip link set lo up
nft add table inet other; nft add chain inet other c; nft add rule inet other c counter
other=$(nft list table inet other); $P -E; echo "status=$?"; $P -a $A -f $3; $2 -a $A -f $3
listed=$($P -a $A -sr); [ "$listed" = "$($2 -a $A -sr)" ] && echo "listed as simulated"
ping -c 1 -W 1 127.0.0.1 > /dev/null; $P -a $A -v -sr | tail -2; $P -a $A -f $4 2>&1
echo "status=$?"; [ "$listed" = "$($P -a $A -sr)" ] && echo unchanged; $P -a $A -F rules
$P -a com.tarnly.firewall -F rules; echo "legacy=$?"; $P -si | head -1; $P -sr
[ "$other" = "$(nft list table inet other)" ] && echo "other kept")sh";
  const std::string bad = tree.write("bad.conf", "# bad\npass in quick all\npass in fast all\n");
  HelperCommand::Result result = HelperCommand::run(
      "/usr/bin/unshare",
      {"--net", "/bin/bash", "-c", script, "lab", TARNLY_PFCTL_PATH, pf.pfctlPath(), mixed, bad});
  if (result.stdout.empty() || result.stdout.starts_with("status=1"))
    GTEST_SKIP() << "no network namespace or nf_tables here: " << result.stderr;
  EXPECT_EQ(result.stdout,
            "status=0\nlisted as simulated\npass out quick proto icmp from any to "
            "127.0.0.1\n  [ Evaluations: 0  Packets: 1  Bytes: 84  States: 0 ]\n" +
                bad + ":3: syntax error\n" + refused +
                "status=1\nunchanged\nlegacy=0\nStatus: Enabled for 0 days 00:00:00"
                "           Debug: Urgent\nanchor \"" +
                anchor + "\" all\nother kept\n")
      << result.stderr;
}

}  // namespace
