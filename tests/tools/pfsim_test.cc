// The pf simulator, driven as the helper drives it: through its installed wrapper, one process
// per pfctl invocation, with the state read back through PfSimulator.
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
const std::string loadNoise =
    "pfctl: Use of -f option, could result in flushing of rules\n"
    "present in the main ruleset added by the system at startup.\n"
    "See /etc/pf.conf for further details.\n\n" +
    altq;

class PfSimulatorTest : public ::testing::Test {
 protected:
  HelperCommand::Result pfctl(const std::vector<std::string>& arguments) const {
    return HelperCommand::run(pf.pfctlPath(), arguments);
  }
  // Writes `text` as the rule file and loads it into `into`.
  HelperCommand::Result load(const std::string& text, const std::string& into = anchor) {
    rules = tree.write("Library/firewall.pf.conf", text);
    return pfctl({"-a", into, "-f", rules});
  }
  std::string listing(bool verbose = false) const {
    if (verbose) return pfctl({"-a", anchor, "-v", "-sr"}).stdout;
    return pfctl({"-a", anchor, "-sr"}).stdout;
  }

  TempTree tree;
  PfSimulator pf{TARNLY_PFSIM_PATH, tree.path("sbin/pfctl"), tree.path("pfsim")};
  std::string rules;
};

const std::string labRuleset =
    "# Tarnly network firewall - generated 2026-11-16T20:41:07Z.\n"
    "# Loaded into pf anchor \"com.apple/900.tarnly.firewall\" by TarnlyAdminHelper. Do not edit.\n"
    "\n"
    "# --- Lab (192.168.64.0/24) ---\n"
    "block drop quick on bridge100 inet6 all\n"
    "pass in quick proto udp from 192.168.64.0/24 port 68 to { 192.168.64.1, 255.255.255.255 } "
    "port 67 keep state\n"
    "pass out quick proto udp from 192.168.64.1 port 67 to 192.168.64.0/24 port 68\n"
    "pass in quick proto udp from 192.168.64.0/24 to 192.168.64.1/32 port 53 keep state\n"
    "pass in quick proto tcp from 192.168.64.0/24 to 192.168.64.1/32 port 53 keep state\n"
    "pass out quick proto tcp from any to 192.168.64.0/24 port 22 keep state\n"
    "pass out quick proto udp from 10.1.2.3 to 192.168.64.0/24 port 8000:8080 keep state\n"
    "pass out quick proto icmp from any to 192.168.64.0/24 keep state\n"
    "block drop in quick from 192.168.64.0/24 to 10.0.0.0/8\n"
    "pass in quick from 192.168.64.0/24 to any keep state\n"
    "block drop out quick from any to 192.168.64.0/24\n"
    "\n";

TEST_F(PfSimulatorTest, LoadsTheHelpersLineShapesAndListsThemAsPfDoes) {
  auto result = load(labRuleset);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.stdout, "");
  EXPECT_EQ(result.stderr, loadNoise);
  EXPECT_EQ(pf.loadedRuleset(anchor), labRuleset);
  EXPECT_EQ(listing(),
            "block drop quick on bridge100 inet6 all\n"
            "pass in quick proto udp from 192.168.64.0/24 port = 68 to 192.168.64.1 port = 67 "
            "keep state\n"
            "pass in quick proto udp from 192.168.64.0/24 port = 68 to 255.255.255.255 port = 67 "
            "keep state\n"
            "pass out quick proto udp from 192.168.64.1 port = 67 to 192.168.64.0/24 port = 68\n"
            "pass in quick proto udp from 192.168.64.0/24 to 192.168.64.1 port = 53 keep state\n"
            "pass in quick proto tcp from 192.168.64.0/24 to 192.168.64.1 port = 53 flags S/SA "
            "keep state\n"
            "pass out quick proto tcp from any to 192.168.64.0/24 port = 22 flags S/SA keep state\n"
            "pass out quick proto udp from 10.1.2.3 to 192.168.64.0/24 port 8000:8080 keep state\n"
            "pass out quick proto icmp from any to 192.168.64.0/24 keep state\n"
            "block drop in quick from 192.168.64.0/24 to 10.0.0.0/8\n"
            "pass in quick from 192.168.64.0/24 to any keep state\n"
            "block drop out quick from any to 192.168.64.0/24\n");
}

TEST_F(PfSimulatorTest, ListingNormalizesWhatPfNormalizes) {
  ASSERT_EQ(load("pass in quick from any to any keep state # trailing comment\n"
                 "\tblock drop out quick on en0 from 0.0.0.0/0 to { 10.0.0.1 { 10.0.0.2, any } }\n"
                 "block drop in quick proto tcp from any port 1:65535 to any keep state")
                .status,
            0);
  EXPECT_EQ(listing(),
            "pass in quick all keep state\n"
            "block drop out quick on en0 from any to 10.0.0.1\n"
            "block drop out quick on en0 from any to 10.0.0.2\n"
            "block drop out quick on en0 all\n"
            "block drop in quick proto tcp from any port 1:65535 to any keep state\n");
  const std::string counters = "  [ Evaluations: 0  Packets: 0  Bytes: 0  States: 0 ]\n";
  const std::string verbose = listing(true);
  EXPECT_EQ(verbose.substr(0, 29 + counters.size()), "pass in quick all keep state\n" + counters);
  EXPECT_EQ(verbose.size(), listing().size() + 5 * counters.size());
}

TEST_F(PfSimulatorTest, AnchorsAreSeparateAndLoadsReplaceOrFlushThem) {
  auto never = pfctl({"-a", anchor, "-sr"});
  EXPECT_EQ(never.status, 0);
  EXPECT_EQ(never.stdout, "");

  ASSERT_EQ(load("pass in quick from 10.0.0.0/8 to any\n", "other").status, 0);
  EXPECT_EQ(listing(), "");
  ASSERT_EQ(load("block drop in quick from 10.0.0.0/8 to any\n").status, 0);
  ASSERT_EQ(load("pass out quick from any to 10.0.0.0/8\n").status, 0);
  EXPECT_EQ(listing(), "pass out quick from any to 10.0.0.0/8\n");

  auto flush = pfctl({"-a", anchor, "-F", "rules"});
  EXPECT_EQ(flush.status, 0);
  EXPECT_EQ(flush.stderr, altq + "rules cleared\n");
  EXPECT_EQ(listing(), "");
  EXPECT_EQ(pf.loadedRuleset(anchor), "");
  EXPECT_EQ(pf.loadedRuleset("other"), "pass in quick from 10.0.0.0/8 to any\n");

  ASSERT_EQ(load("").status, 0);  // an empty ruleset is a valid, empty load
  EXPECT_EQ(listing(), "");
}

TEST_F(PfSimulatorTest, RefusesLinesOutsideTheGrammarNamingTheLineAndKeepsTheOldRules) {
  const std::string kept = "pass in quick from 192.168.64.0/24 to any keep state\n";
  ASSERT_EQ(load(kept).status, 0);
  struct Case {
    std::string line;
    std::string message;
  };
  const std::vector<Case> cases = {
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
  for (const Case& c : cases) {
    std::string text = "# header\n" + kept;
    text.append(c.line).append("\n").append(kept);
    auto result = load(text);
    EXPECT_EQ(result.status, 1) << c.line;
    EXPECT_EQ(result.stdout, "") << c.line;
    EXPECT_EQ(result.stderr, rules + ":3: " + c.message + "\n" + refusedTail) << c.line;
  }
  EXPECT_EQ(pf.loadedRuleset(anchor), kept);
  EXPECT_EQ(listing(), kept);

  auto missing = pfctl({"-a", anchor, "-f", tree.path("nowhere.conf")});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.stderr,
            "pfctl: cannot open the main config file!: No such file or directory\n" + refusedTail);
  EXPECT_EQ(pf.loadedRuleset(anchor), kept);
}

TEST_F(PfSimulatorTest, AnswersResourceBusyForTheNextLoadsOnly) {
  pf.failNextLoads(2);
  // A ruleset that does not parse is refused before the commit and does not use up a busy answer.
  auto refused = load("nonsense\n");
  EXPECT_EQ(refused.stderr, rules + ":1: syntax error\n" + refusedTail);
  for (int attempt = 0; attempt < 2; ++attempt) {
    auto busy = load("pass in quick all\n");
    EXPECT_EQ(busy.status, 1);
    EXPECT_EQ(busy.stderr, "pfctl: DIOCXCOMMIT: Resource busy\n");
    EXPECT_EQ(pf.loadedRuleset(anchor), "");
  }
  EXPECT_EQ(load("pass in quick all\n").status, 0);
  EXPECT_EQ(pf.loadedRuleset(anchor), "pass in quick all\n");
}

TEST_F(PfSimulatorTest, StatusInfoFollowsEnableAndTheStateCountAndMainRulesetIsStock) {
  auto disabled = pfctl({"-si"});
  EXPECT_EQ(disabled.status, 0);
  EXPECT_EQ(disabled.stderr, altq);
  EXPECT_EQ(disabled.stdout,
            "Status: Disabled for 0 days 00:00:00          Debug: Urgent\n\n"
            "State Table                          Total             Rate\n"
            "  current entries                        0\n"
            "  searches                               0            0.0/s\n"
            "  inserts                                0            0.0/s\n"
            "  removals                               0            0.0/s\n");
  EXPECT_FALSE(pf.enabled());

  auto enable = pfctl({"-E"});
  EXPECT_EQ(enable.status, 0);
  EXPECT_EQ(enable.stderr, altq + "pf enabled\n");
  EXPECT_TRUE(pf.enabled());
  auto again = pfctl({"-E"});
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(again.stderr, altq + "pfctl: pf already enabled\n");

  pf.addState("192.168.64.2", "1.1.1.1");
  auto enabled = pfctl({"-si"}).stdout;
  EXPECT_EQ(enabled.substr(0, enabled.find('\n')),
            "Status: Enabled for 0 days 00:00:00           Debug: Urgent");
  EXPECT_NE(enabled.find("  current entries                        1\n"), std::string::npos);

  pf.setEnabled(false);
  EXPECT_EQ(pfctl({"-si"}).stdout.rfind("Status: Disabled", 0), 0u);

  // The main ruleset is the stock one until replaced.
  EXPECT_EQ(pfctl({"-sr"}).stdout,
            "scrub-anchor \"com.apple/*\" all fragment reassemble\nanchor \"com.apple/*\" all\n");
  pf.setMainRuleset("anchor \"com.apple/*\" all\n");
  EXPECT_EQ(pfctl({"-sr"}).stdout, "anchor \"com.apple/*\" all\n");
}

TEST_F(PfSimulatorTest, KillsStatesFromAndToASubnet) {
  pf.addState("192.168.64.2", "1.1.1.1");
  pf.addState("192.168.64.3", "192.168.65.9");
  pf.addState("10.0.0.1", "192.168.64.4");
  pf.addState("192.168.65.7", "192.168.64.5");
  pf.addState("192.168.640.1", "192.168.64.6");  // not an address: never matched

  auto from = pfctl({"-k", "192.168.64.0/24"});
  EXPECT_EQ(from.status, 0);
  EXPECT_EQ(from.stderr, altq + "killed 2 states from 1 sources and 0 destinations\n");
  EXPECT_EQ(pf.states(),
            (std::vector<std::string>{"10.0.0.1 192.168.64.4", "192.168.65.7 192.168.64.5",
                                      "192.168.640.1 192.168.64.6"}));

  auto to = pfctl({"-k", "0.0.0.0/0", "-k", "192.168.64.0/24"});
  EXPECT_EQ(to.status, 0);
  EXPECT_EQ(to.stderr, altq + "killed 2 states from 1 sources and 1 destinations\n");
  EXPECT_EQ(pf.states(), std::vector<std::string>{"192.168.640.1 192.168.64.6"});

  auto bad = pfctl({"-k", "lab.example"});
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.stderr, "pfctl: no IP address found for lab.example\n");
  EXPECT_EQ(pf.states().size(), 1u);
}

TEST_F(PfSimulatorTest, RefusesEveryOtherArgumentVectorWithUsage) {
  const std::vector<std::vector<std::string>> others = {
      {},
      {"-sa"},
      {"-e"},
      {"-E", "-E"},
      {"-si", "extra"},
      {"-a", anchor},
      {"-a", "", "-sr"},
      {"-a", anchor, "-sr", "-v"},
      {"-a", anchor, "-F", "all"},
      {"-k", "10.0.0.0/8", "-k"},
      {"-k", "10.0.0.0/8", "-K", "10.0.0.1"},
      {"-a", anchor, "-f", tree.write("rules.conf", "pass in quick all\n"), "-E"},
  };
  for (const auto& arguments : others) {
    auto result = pfctl(arguments);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.stdout, "");
    EXPECT_EQ(result.stderr.rfind("usage: pfctl ", 0), 0u) << result.stderr;
  }
  EXPECT_FALSE(pf.enabled());
  EXPECT_EQ(pf.invocations(), others);
}

TEST_F(PfSimulatorTest, LogsEveryInvocationSinceConstructionOrClear) {
  pfctl({"-si"});
  pfctl({"-a", "with space/and \"quotes\"", "-f", tree.path("a file.conf")});
  EXPECT_EQ(pf.invocations(),
            (std::vector<std::vector<std::string>>{
                {"-si"}, {"-a", "with space/and \"quotes\"", "-f", tree.path("a file.conf")}}));
  pf.clearInvocations();
  PfSimulator second(TARNLY_PFSIM_PATH, tree.path("bin/pfctl2"), tree.path("pfsim"));
  HelperCommand::run(second.pfctlPath(), {"-sr"});
  EXPECT_EQ(pf.invocations(), std::vector<std::vector<std::string>>{{"-sr"}});
}

TEST_F(PfSimulatorTest, ConcurrentRunsShareOneConsistentState) {
  constexpr int runs = 8;
  pf.failNextLoads(runs / 2);
  for (int i = 0; i < runs; ++i) pf.addState("10.0." + std::to_string(i) + ".1", "1.1.1.1");
  std::string file = tree.write("rules.conf", "pass in quick all\n");

  std::vector<HelperCommand::Result> loads(runs);
  std::vector<HelperCommand::Result> kills(runs);
  std::vector<std::thread> threads;
  threads.reserve(runs);
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
  EXPECT_EQ(pf.invocations().size(), 2u * runs);
}

}  // namespace
