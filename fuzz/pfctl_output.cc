// What pfctl prints, as the helper reads it back: the enabled state from `pfctl -si` and the error
// text of a refused load. The error text keeps no noise line unless nothing else is left, and it
// never grows the output.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "firewall/enforce/pf_output.h"
#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view output(reinterpret_cast<const char*>(data), size);
  using NetworkFirewall::PfStatus;
  const PfStatus status = NetworkFirewall::pfEnabled(output);
  // The first "Status:" line decides: one added after the output changes only an unknown state.
  const PfStatus appended = NetworkFirewall::pfEnabled(std::string(output) + "\nStatus: Enabled");
  FUZZ_CHECK(appended == (status == PfStatus::unknown ? PfStatus::enabled : status) ||
             (status == PfStatus::unknown && appended == PfStatus::unknown));
  FUZZ_CHECK(NetworkFirewall::pfEnabled("Status: Disabled\n" + std::string(output)) ==
             PfStatus::disabled);

  const std::string text = HelperFirewall::pfctlErrorText(output);
  FUZZ_CHECK(text.size() <= output.size());
  // pfctl's noise around the output never reaches the text shown.
  const std::string noisy = "pfctl: Use of -f option, could result in flushing of rules\n" +
                            std::string(output) + "\nNo ALTQ support in kernel\n";
  FUZZ_CHECK(HelperFirewall::pfctlErrorText(noisy).find(text) != std::string::npos);
  return 0;
}
