// The pf simulator, driven as the helper drives it: one process per pfctl invocation through its
// installed wrapper, with the state read back through PfSimulator. Answers read "status|out|err".
#include <gtest/gtest.h>

#include <iterator>
#include <mutex>
#include <regex>
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

TEST_F(PfSimulatorTest, LoadsListsNormalizedRefusesOutsideTheGrammarAndFlushesOneAnchor) {
  const std::string text =
      "\tblock drop out quick on en0 from 0.0.0.0/0 to { 10.0.0.1 { 10.0.0.2, any } }\n"
      R"(# --- Lab (192.168.64.0/24) ---
block drop quick on bridge100 inet6 all
pass in quick proto udp from 192.168.64.0/24 port 68 to { 192.168.64.1, 10.0.0.9 } port 67
pass in quick proto tcp from 192.168.64.0/24 to 192.168.64.1/32 port 53 keep state
pass out quick proto udp from 10.1.2.3 to 192.168.64.0/24 port 8000:8080 keep state
pass in quick from any to any keep state # trailing comment
)";
  const std::string listed = R"(block drop out quick on en0 from any to 10.0.0.1
block drop out quick on en0 from any to 10.0.0.2
block drop out quick on en0 all
block drop quick on bridge100 inet6 all
pass in quick proto udp from 192.168.64.0/24 port = 68 to 192.168.64.1 port = 67
pass in quick proto udp from 192.168.64.0/24 port = 68 to 10.0.0.9 port = 67
pass in quick proto tcp from 192.168.64.0/24 to 192.168.64.1 port = 53 flags S/SA keep state
pass out quick proto udp from 10.1.2.3 to 192.168.64.0/24 port 8000:8080 keep state
pass in quick all keep state
)";
  EXPECT_EQ(load(text), loaded);
  EXPECT_EQ(pfctl({"-a", anchor, "-sr"}), "0|" + listed + "|" + altq);
  const std::regex lineEnd("\n");  // -v puts the counters under each line
  EXPECT_EQ(pfctl({"-a", anchor, "-v", "-sr"}),
            "0|" +
                std::regex_replace(listed, lineEnd,
                                   "\n  [ Evaluations: 0  Packets: 0  Bytes: 0  States: 0 ]\n") +
                "|" + altq);

  // A refusal names the line (here the third) and keeps the rules loaded before.
  std::vector<std::pair<std::string, std::string>> refusals = {
      {"pass in quick from any port 53 to any", "port only applies to tcp/udp"},
      {"block drop quick inet6 from 10.0.0.1 to any", "rule expands to no valid combination"}};
  for (const char* line :
       {"pass in quick log from any to any", "block in quick all", "pass in quick all\r",
        "pass in quick proto sctp all", "pass in quick from 10.0.0.256 to any",
        "pass in quick from 10.0.0.01 to any", "pass in quick from 10.0.0.0/33 to any",
        "pass in quick from lab.example to any", "pass in quick proto tcp from any to any port 0",
        "pass in quick proto tcp from any to any port 8080:8000",
        "pass in quick proto tcp from any port 80-90", "pass in quick from { } to any",
        "pass in quick from { 10.0.0.1, } to any", "pass in quick from any",
        "pass in quick all keep state now", "pass in quick on { en0 } all",
        "pass in quick inet all"}) {
    refusals.emplace_back(line, "syntax error");
  }
  for (const auto& [line, message] : refusals) {
    EXPECT_EQ(load("# header\npass in quick all\n" + line + "\npass in quick all\n"),
              "1||" + rules + ":3: " + message + "\n" + refused);
  }
  EXPECT_EQ(pf.loadedRuleset(anchor), text);

  // Anchors are separate: a flush empties one; an empty ruleset loads empty.
  EXPECT_EQ(load("pass in quick all\n", "other") + pfctl({"-a", anchor, "-F", "rules"}),
            loaded + "0||" + altq + "rules cleared\n");
  EXPECT_EQ(pfctl({"-a", anchor, "-sr"}) + pfctl({"-a", "other", "-sr"}),
            "0||" + altq + "0|pass in quick all\n|" + altq);
  EXPECT_EQ(load("") + pfctl({"-a", anchor, "-sr"}), loaded + "0||" + altq);
}

// Every other invocation the helper makes, and the ones it never makes, with pf's exact answers.
TEST_F(PfSimulatorTest, AnswersEachInvocationAsPfDoes) {
  pf.addState("192.168.64.2", "1.1.1.1");
  pf.addState("10.0.0.1", "192.168.64.4");
  pf.addState("192.168.640.1", "192.168.64.6");  // not an address: never matched
  const std::string killed = "0||" + altq + "killed 1 states from 1 sources and ";
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
      {{"-a", "with space/and \"quotes\"", "-sr"}, "0||" + altq},
      {{"-k", "192.168.64.0/24"}, killed + "0 destinations\n"},
      {{"-k", "0.0.0.0/0", "-k", "192.168.64.0/24"}, killed + "1 destinations\n"},
      {{"-k", "lab.example"}, "1||pfctl: no IP address found for lab.example\n"},
      {{"-a", anchor, "-f", rules},
       "1||pfctl: cannot open the main config file!: No such file or directory\n" + refused},
      {{"-a", "", "-sr"}, ""}};
  // Runs the helper never makes get pfctl's usage.
  for (const char* line : {"", "-sa", "-e", "-E -E", "-si extra", "-a a", "-a a -sr -v",
                           "-a a -F all", "-k 10.0.0.0/8 -k", "-k 10.0.0.0/8 -K 10.0.0.1"}) {
    std::istringstream words(line);
    cases.push_back({{std::istream_iterator<std::string>(words), {}}, ""});
  }
  std::vector<std::vector<std::string>> invoked;
  for (auto& [arguments, answer] : cases) {
    if (answer.empty())
      answer =
          "1||usage: pfctl [-AdeghMmNnOqRrvz] [-a anchor] [-D macro=value] [-F modifier]\n\t[-f "
          "file] [-i interface] [-K host | network]\n\t[-k host | network] [-o level] [-p "
          "device]\n\t[-s modifier] [-t table -T command [address ...]] [-x level]\n";
    EXPECT_EQ(pfctl(arguments), answer) << testing::PrintToString(arguments);
    invoked.push_back(arguments);
  }
  EXPECT_EQ(pf.states(), std::vector<std::string>{"192.168.640.1 192.168.64.6"});
  EXPECT_EQ(pf.invocations(), invoked);
  EXPECT_TRUE(pf.enabled());
}

TEST_F(PfSimulatorTest, ConcurrentRunsShareOneStateAndBusyAnswersGoToTheNextLoadsOnly) {
  pf.failNextLoads(4);
  // A ruleset that does not parse is refused before the commit and uses up no busy answer.
  EXPECT_EQ(load("nonsense\n"), "1||" + rules + ":1: syntax error\n" + refused);
  tree.write("rules.conf", "pass in quick all\n");
  std::multiset<std::string> answers, expected;
  std::mutex lock;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    const std::string network = "10.0." + std::to_string(i);
    pf.addState(network + ".1", "1.1.1.1");
    expected.insert({i < 4 ? "1||pfctl: DIOCXCOMMIT: Resource busy\n" : loaded,
                     "0||" + altq + "killed 1 states from 1 sources and 0 destinations\n"});
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
  EXPECT_EQ(pf.loadedRuleset(anchor), "pass in quick all\n");
  EXPECT_EQ(pf.invocations().size(), 17u);
}

}  // namespace
