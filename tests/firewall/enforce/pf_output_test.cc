// Reading pfctl's output: the error text of a refused load and the enabled state.
#include "firewall/enforce/pf_output.h"

#include <gtest/gtest.h>

namespace {

using NetworkFirewall::PfStatus;

TEST(PfOutput, ErrorTextDropsKnownNoiseAndStatusReadsTheFirstStatusLine) {
  const std::pair<std::string, std::string> errors[] = {
      {"pfctl: Use of -f option, could result in flushing of rules\npresent in the main ruleset "
       "added by the system at startup.\nSee /etc/pf.conf for further details.\n\nNo ALTQ support "
       "in kernel\nALTQ related functions disabled\n/x/firewall.pf.conf:7: syntax error\n \t \n"
       "  pfctl: Syntax error in config file: pf rules not loaded",
       "/x/firewall.pf.conf:7: syntax error\n  pfctl: Syntax error in config file: pf rules not "
       "loaded"},
      // Nothing but noise: all of it, trimmed.
      {"\n No ALTQ support in kernel\nALTQ related functions disabled\n\n",
       "No ALTQ support in kernel\nALTQ related functions disabled"},
  };
  for (const auto& [output, text] : errors) EXPECT_EQ(HelperFirewall::pfctlErrorText(output), text);
  const std::pair<std::string, PfStatus> statuses[] = {
      {"Status: Enabled for 0 days 02:13:41           Debug: Urgent\n\n", PfStatus::enabled},
      {"\n  \tStatus: Disabled for 0 days 00:00:00          Debug: Urgent\n", PfStatus::disabled},
      {"Status: Unknown\nStatus: Enabled\n", PfStatus::unknown},
      {"State Table\nEnabled\n", PfStatus::unknown},
  };
  for (const auto& [output, status] : statuses)
    EXPECT_EQ(NetworkFirewall::pfEnabled(output), status);
}

}  // namespace
