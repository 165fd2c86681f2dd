// Reading pfctl's output: the error text of a refused load and the enabled state.
#include "firewall/enforce/pf_output.h"

#include <gtest/gtest.h>

namespace {

using NetworkFirewall::PfStatus;

TEST(PfctlErrorText, KeepsTheErrorLinesOrElseTheWholeOutputTrimmed) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"pfctl: Use of -f option, could result in flushing of rules\n"
       "present in the main ruleset added by the system at startup.\n"
       "See /etc/pf.conf for further details.\n\nNo ALTQ support in kernel\n"
       "ALTQ related functions disabled\n"
       "/Library/Application Support/Tarnly/firewall.pf.conf:7: syntax error\n \t \n"
       "  pfctl: Syntax error in config file: pf rules not loaded",
       "/Library/Application Support/Tarnly/firewall.pf.conf:7: syntax error\n"
       "  pfctl: Syntax error in config file: pf rules not loaded"},
      {"pfctl: DIOCXCOMMIT: Resource busy", "pfctl: DIOCXCOMMIT: Resource busy"},
      {"\n No ALTQ support in kernel\nALTQ related functions disabled\n\n",
       "No ALTQ support in kernel\nALTQ related functions disabled"},
      {"", ""},
  };
  for (const auto& [output, expected] : cases) {
    EXPECT_EQ(HelperFirewall::pfctlErrorText(output), expected) << output;
  }
}

TEST(PfEnabled, ReadsTheFirstStatusLine) {
  const std::vector<std::pair<std::string, PfStatus>> cases = {
      {"Status: Enabled for 0 days 02:13:41           Debug: Urgent\n\nState Table  Total Rate\n",
       PfStatus::enabled},
      {"\n  \tStatus: Disabled for 0 days 00:00:00          Debug: Urgent\n", PfStatus::disabled},
      {"Status: Unknown\nStatus: Enabled\n", PfStatus::unknown},
      {"State Table\nEnabled\n", PfStatus::unknown},
      {"", PfStatus::unknown},
  };
  for (const auto& [output, expected] : cases) {
    EXPECT_EQ(NetworkFirewall::pfEnabled(output), expected) << output;
  }
}

}  // namespace
