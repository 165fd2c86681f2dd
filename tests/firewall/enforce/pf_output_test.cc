// Reading pfctl's output: the error text of a refused load and the enabled state.
#include "firewall/enforce/pf_output.h"

#include <gtest/gtest.h>

namespace {

using NetworkFirewall::pfEnabled;
using NetworkFirewall::PfStatus;

TEST(PfctlErrorText, KeepsTheErrorLinesAndDropsTheNoise) {
  std::string output =
      "pfctl: Use of -f option, could result in flushing of rules\n"
      "present in the main ruleset added by the system at startup.\n"
      "See /etc/pf.conf for further details.\n"
      "\n"
      "No ALTQ support in kernel\n"
      "ALTQ related functions disabled\n"
      "/Library/Application Support/Tarnly/firewall.pf.conf:7: syntax error\n"
      " \t \n"
      "  pfctl: Syntax error in config file: pf rules not loaded";
  EXPECT_EQ(HelperFirewall::pfctlErrorText(output),
            "/Library/Application Support/Tarnly/firewall.pf.conf:7: syntax error\n"
            "  pfctl: Syntax error in config file: pf rules not loaded");
  EXPECT_EQ(HelperFirewall::pfctlErrorText("pfctl: DIOCXCOMMIT: Resource busy"),
            "pfctl: DIOCXCOMMIT: Resource busy");
}

TEST(PfctlErrorText, OnlyNoiseGivesTheWholeOutputTrimmed) {
  std::string output = "\n No ALTQ support in kernel\nALTQ related functions disabled\n\n";
  EXPECT_EQ(HelperFirewall::pfctlErrorText(output),
            "No ALTQ support in kernel\nALTQ related functions disabled");
  EXPECT_EQ(HelperFirewall::pfctlErrorText(""), "");
}

TEST(PfEnabled, ReadsTheFirstStatusLine) {
  EXPECT_EQ(pfEnabled("Status: Enabled for 0 days 02:13:41           Debug: Urgent\n\n"
                      "State Table  Total Rate\n"),
            PfStatus::enabled);
  EXPECT_EQ(pfEnabled("\n  \tStatus: Disabled for 0 days 00:00:00          Debug: Urgent\n"),
            PfStatus::disabled);
  EXPECT_EQ(pfEnabled("Status: Unknown\nStatus: Enabled\n"), PfStatus::unknown);
  EXPECT_EQ(pfEnabled("State Table\nEnabled\n"), PfStatus::unknown);
  EXPECT_EQ(pfEnabled(""), PfStatus::unknown);
}

}  // namespace
