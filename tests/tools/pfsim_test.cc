// The pf simulator, driven as the helper drives it: one process per pfctl invocation through its
// installed wrapper, with the state read back through PfSimulator.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "service/helper_command.h"
#include "support/pf_simulator.h"
#include "support/temp_tree.h"

namespace {

const std::string anchor = "com.apple/900.tarnly.firewall";
const std::string refusedTail = "pfctl: Syntax error in config file: pf rules not loaded\n";
const std::string altq = "No ALTQ support in kernel\nALTQ related functions disabled\n";

class PfSimulatorTest : public ::testing::Test {
 protected:
  HelperCommand::Result pfctl(const std::vector<std::string>& arguments) const {
    return HelperCommand::run(pf.pfctlPath(), arguments);
  }
  HelperCommand::Result load(const std::string& text, const std::string& into = anchor) {
    rules = tree.write("firewall.pf.conf", text);
    return pfctl({"-a", into, "-f", rules});
  }
  std::string listing() const { return pfctl({"-a", anchor, "-sr"}).stdout; }

  TempTree tree;
  PfSimulator pf{TARNLY_PFSIM_PATH, tree.path("sbin/pfctl"), tree.path("pfsim")};
  std::string rules;
};

TEST_F(PfSimulatorTest, LoadsTheHelpersLinesAndListsThemNormalizedAsPfDoes) {
  const std::string text =
      "# --- Lab (192.168.64.0/24) ---\n"
      "block drop quick on bridge100 inet6 all\n"
      "pass in quick proto udp from 192.168.64.0/24 port 68 to { 192.168.64.1, 255.255.255.255 } "
      "port 67 keep state\n"
      "pass in quick proto tcp from 192.168.64.0/24 to 192.168.64.1/32 port 53 keep state\n"
      "pass out quick proto udp from 10.1.2.3 to 192.168.64.0/24 port 8000:8080 keep state\n"
      "pass out quick proto icmp from any to 192.168.64.0/24 keep state\n"
      "pass in quick from any to any keep state # trailing comment\n"
      "\tblock drop out quick on en0 from 0.0.0.0/0 to { 10.0.0.1 { 10.0.0.2, any } }\n";
  auto result = load(text);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.stdout, "");
  EXPECT_EQ(result.stderr,
            "pfctl: Use of -f option, could result in flushing of rules\n"
            "present in the main ruleset added by the system at startup.\n"
            "See /etc/pf.conf for further details.\n\n" +
                altq);
  EXPECT_EQ(pf.loadedRuleset(anchor), text);
  const std::string listed =
      "block drop quick on bridge100 inet6 all\n"
      "pass in quick proto udp from 192.168.64.0/24 port = 68 to 192.168.64.1 port = 67 "
      "keep state\n"
      "pass in quick proto udp from 192.168.64.0/24 port = 68 to 255.255.255.255 port = 67 "
      "keep state\n"
      "pass in quick proto tcp from 192.168.64.0/24 to 192.168.64.1 port = 53 flags S/SA "
      "keep state\n"
      "pass out quick proto udp from 10.1.2.3 to 192.168.64.0/24 port 8000:8080 keep state\n"
      "pass out quick proto icmp from any to 192.168.64.0/24 keep state\n"
      "pass in quick all keep state\n"
      "block drop out quick on en0 from any to 10.0.0.1\n"
      "block drop out quick on en0 from any to 10.0.0.2\n"
      "block drop out quick on en0 all\n";
  EXPECT_EQ(listing(), listed);
  const std::string counters = "  [ Evaluations: 0  Packets: 0  Bytes: 0  States: 0 ]\n";
  const std::string verbose = pfctl({"-a", anchor, "-v", "-sr"}).stdout;
  EXPECT_EQ(verbose.substr(0, 40 + counters.size()),
            "block drop quick on bridge100 inet6 all\n" + counters);
  EXPECT_EQ(verbose.size(), listed.size() + 10 * counters.size());

  // Anchors are separate; a load replaces, a flush empties, an empty ruleset loads empty.
  ASSERT_EQ(load("pass in quick from 10.0.0.0/8 to any\n", "other").status, 0);
  EXPECT_EQ(listing(), listed);
  auto flush = pfctl({"-a", anchor, "-F", "rules"});
  EXPECT_EQ(flush.stderr, altq + "rules cleared\n");
  EXPECT_EQ(listing(), "");
  EXPECT_EQ(pf.loadedRuleset("other"), "pass in quick from 10.0.0.0/8 to any\n");
  ASSERT_EQ(load("").status, 0);
  EXPECT_EQ(listing(), "");
}

TEST_F(PfSimulatorTest, RefusesLinesOutsideTheGrammarNamingTheLineAndKeepsTheOldRules) {
  const std::string kept = "pass in quick from 192.168.64.0/24 to any keep state\n";
  ASSERT_EQ(load(kept).status, 0);
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"pass in quick log from any to any", "syntax error"},
      {"block in quick from any to any", "syntax error"},
      {"pass in quick proto sctp from any to any", "syntax error"},
      {"pass in quick from 10.0.0.256 to any", "syntax error"},
      {"pass in quick from 10.0.0.01 to any", "syntax error"},
      {"pass in quick from 10.0.0.0/33 to any", "syntax error"},
      {"pass in quick from lab.example to any", "syntax error"},
      {"pass in quick proto tcp from any to any port 0", "syntax error"},
      {"pass in quick proto tcp from any to any port 8080:8000", "syntax error"},
      {"pass in quick proto tcp from any to any port 80-90", "syntax error"},
      {"pass in quick from { } to any", "syntax error"},
      {"pass in quick from { 10.0.0.1, } to any", "syntax error"},
      {"pass in quick from any", "syntax error"},
      {"pass in quick from any to any keep state now", "syntax error"},
      {"pass in quick on { en0 } from any to any", "syntax error"},
      {"pass in quick inet from any to any", "syntax error"},
      {"pass in quick all\r", "syntax error"},
      {"pass in quick from any port 53 to any", "port only applies to tcp/udp"},
      {"block drop quick inet6 from 10.0.0.1 to any", "rule expands to no valid combination"},
  };
  for (const auto& [line, message] : cases) {
    auto result = load("# header\n" + kept + line + "\n" + kept);
    EXPECT_EQ(result.status, 1) << line;
    EXPECT_EQ(result.stderr, rules + ":3: " + message + "\n" + refusedTail) << line;
  }
  EXPECT_EQ(pf.loadedRuleset(anchor), kept);
}

// Every other invocation the helper makes, and the ones it never makes, with pf's exact answers.
TEST_F(PfSimulatorTest, AnswersEachInvocationAsPfDoes) {
  pf.addState("192.168.64.2", "1.1.1.1");
  pf.addState("10.0.0.1", "192.168.64.4");
  pf.addState("192.168.640.1", "192.168.64.6");  // not an address: never matched
  const std::string usage = "usage: pfctl ";
  struct Case {
    std::vector<std::string> arguments;
    int status;
    std::string stdoutText;
    std::string stderrText;  // a prefix when it is `usage`
  };
  const std::vector<Case> cases = {
      {{"-si"},
       0,
       "Status: Disabled for 0 days 00:00:00          Debug: Urgent\n\n"
       "State Table                          Total             Rate\n"
       "  current entries                        3\n"
       "  searches                               0            0.0/s\n"
       "  inserts                                0            0.0/s\n"
       "  removals                               0            0.0/s\n",
       altq},
      {{"-E"}, 0, "", altq + "pf enabled\n"},
      {{"-E"}, 0, "", altq + "pfctl: pf already enabled\n"},
      {{"-sr"},
       0,
       "scrub-anchor \"com.apple/*\" all fragment reassemble\nanchor \"com.apple/*\" all\n",
       altq},
      {{"-a", anchor, "-sr"}, 0, "", altq},
      {{"-k", "192.168.64.0/24"},
       0,
       "",
       altq + "killed 1 states from 1 sources and 0 destinations\n"},
      {{"-k", "0.0.0.0/0", "-k", "192.168.64.0/24"},
       0,
       "",
       altq + "killed 1 states from 1 sources and 1 destinations\n"},
      {{"-k", "lab.example"}, 1, "", "pfctl: no IP address found for lab.example\n"},
      {{"-a", anchor, "-f", tree.path("nowhere.conf")},
       1,
       "",
       "pfctl: cannot open the main config file!: No such file or directory\n" + refusedTail},
      {{}, 1, "", usage},
      {{"-sa"}, 1, "", usage},
      {{"-e"}, 1, "", usage},
      {{"-E", "-E"}, 1, "", usage},
      {{"-si", "extra"}, 1, "", usage},
      {{"-a", anchor}, 1, "", usage},
      {{"-a", "", "-sr"}, 1, "", usage},
      {{"-a", anchor, "-sr", "-v"}, 1, "", usage},
      {{"-a", anchor, "-F", "all"}, 1, "", usage},
      {{"-k", "10.0.0.0/8", "-k"}, 1, "", usage},
      {{"-k", "10.0.0.0/8", "-K", "10.0.0.1"}, 1, "", usage},
  };
  std::vector<std::vector<std::string>> invoked;
  for (const Case& c : cases) {
    auto result = pfctl(c.arguments);
    invoked.push_back(c.arguments);
    EXPECT_EQ(result.status, c.status) << c.arguments.size();
    EXPECT_EQ(result.stdout, c.stdoutText);
    if (c.stderrText == usage) {
      EXPECT_EQ(result.stderr.rfind(usage, 0), 0u) << result.stderr;
    } else {
      EXPECT_EQ(result.stderr, c.stderrText);
    }
  }
  EXPECT_EQ(pf.states(), std::vector<std::string>{"192.168.640.1 192.168.64.6"});
  EXPECT_TRUE(pf.enabled());
  EXPECT_EQ(pf.invocations(), invoked);
  pf.setEnabled(false);
  pf.setMainRuleset("anchor \"com.apple/*\" all\n");
  EXPECT_EQ(pfctl({"-si"}).stdout.rfind("Status: Disabled", 0), 0u);
  EXPECT_EQ(pfctl({"-sr"}).stdout, "anchor \"com.apple/*\" all\n");
  pf.clearInvocations();
  PfSimulator second(TARNLY_PFSIM_PATH, tree.path("bin/pfctl2"), tree.path("pfsim"));
  HelperCommand::run(second.pfctlPath(), {"-a", "with space/and \"quotes\"", "-sr"});
  const std::vector<std::vector<std::string>> quoted = {{"-a", "with space/and \"quotes\"", "-sr"}};
  EXPECT_EQ(pf.invocations(), quoted);
}

TEST_F(PfSimulatorTest, ConcurrentRunsShareOneStateAndBusyAnswersGoToTheNextLoadsOnly) {
  constexpr int runs = 8;
  pf.failNextLoads(runs / 2);
  // A ruleset that does not parse is refused before the commit and uses up no busy answer.
  std::string refused = load("nonsense\n").stderr;
  EXPECT_EQ(refused, rules + ":1: syntax error\n" + refusedTail);
  for (int i = 0; i < runs; ++i) pf.addState("10.0." + std::to_string(i) + ".1", "1.1.1.1");
  std::string file = tree.write("rules.conf", "pass in quick all\n");

  std::vector<HelperCommand::Result> loads(runs);
  std::vector<HelperCommand::Result> kills(runs);
  std::vector<std::thread> threads;
  for (int i = 0; i < runs; ++i) {
    threads.emplace_back([&, i] {
      loads[i] = pfctl({"-a", anchor, "-f", file});
      kills[i] = pfctl({"-k", "10.0." + std::to_string(i) + ".0/24"});
    });
  }
  for (auto& thread : threads) thread.join();
  int busy = 0;
  for (int i = 0; i < runs; ++i) {
    if (loads[i].status != 0) {
      ++busy;
      EXPECT_EQ(loads[i].stderr, "pfctl: DIOCXCOMMIT: Resource busy\n");
    }
    EXPECT_EQ(kills[i].stderr, altq + "killed 1 states from 1 sources and 0 destinations\n");
  }
  EXPECT_EQ(busy, runs / 2);
  EXPECT_TRUE(pf.states().empty());
  EXPECT_EQ(pf.loadedRuleset(anchor), "pass in quick all\n");
  EXPECT_EQ(pf.invocations().size(), 2u * runs + 1);
}

}  // namespace
