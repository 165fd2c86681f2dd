// Readers of what pfctl prints: the error text shown for a refused load and pf's enabled state
// from the status listing. Pure functions of their text.
#pragma once

#include <string>
#include <string_view>

namespace NetworkFirewall {

enum class PfStatus { enabled, disabled, unknown };

// From the first "Status:" line of `pfctl -si` output: Enabled, Disabled, or unknown.
PfStatus pfEnabled(std::string_view statusInfo);

}  // namespace NetworkFirewall

namespace HelperFirewall {

// The lines of a failed load's output without pfctl's usual noise (the -f warning, ALTQ lines,
// blank lines); the whole output trimmed when nothing else remains.
std::string pfctlErrorText(std::string_view output);

}  // namespace HelperFirewall
