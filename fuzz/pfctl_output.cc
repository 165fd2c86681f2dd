// What pfctl prints, as the helper reads it back: the enabled state from `pfctl -si` and the error
// text of a refused load. The first "Status:" line decides the state. The error text never grows
// the output, keeps out pfctl's noise around it and reads back as itself.
#include "firewall/enforce/pf_output.h"
#include "fuzz_check.h"

FUZZ_TARGET(output) {
  using NetworkFirewall::PfStatus;
  const PfStatus status = NetworkFirewall::pfEnabled(output);
  const PfStatus appended = NetworkFirewall::pfEnabled(std::string(output) + "\nStatus: Enabled");
  FUZZ_CHECK(appended == status || (status == PfStatus::unknown && appended == PfStatus::enabled));
  FUZZ_CHECK(NetworkFirewall::pfEnabled("Status: Disabled\n" + std::string(output)) ==
             PfStatus::disabled);

  const std::string text = HelperFirewall::pfctlErrorText(output);
  FUZZ_CHECK(text.size() <= output.size() && HelperFirewall::pfctlErrorText(text) == text);
  const std::string noisy = "pfctl: Use of -f option, could result in flushing of rules\n" +
                            std::string(output) + "\nNo ALTQ support in kernel\n";
  FUZZ_CHECK(HelperFirewall::pfctlErrorText(noisy).find(text) != std::string::npos);
}
