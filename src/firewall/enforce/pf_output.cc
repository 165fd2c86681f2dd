#include "firewall/enforce/pf_output.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <vector>

#include "platform/text.h"

namespace NetworkFirewall {

PfStatus pfEnabled(std::string_view statusInfo) {
  for (std::string_view line : split(statusInfo, '\n', false)) {
    std::string_view trimmed = trimSpaces(line);
    if (!trimmed.starts_with("Status:")) continue;
    if (trimmed.find("Enabled") != std::string_view::npos) return PfStatus::enabled;
    if (trimmed.find("Disabled") != std::string_view::npos) return PfStatus::disabled;
    return PfStatus::unknown;
  }
  return PfStatus::unknown;
}

}  // namespace NetworkFirewall

namespace HelperFirewall {

namespace {

constexpr std::array<std::string_view, 5> kNoise = {
    "Use of -f option", "present in the main ruleset", "See /etc/pf.conf", "No ALTQ support",
    "ALTQ related functions"};

bool isNoise(std::string_view line) {
  if (trimSpaces(line).empty()) return true;
  return std::any_of(kNoise.begin(), kNoise.end(), [&](std::string_view marker) {
    return line.find(marker) != std::string_view::npos;
  });
}

}  // namespace

std::string pfctlErrorText(std::string_view output) {
  std::vector<std::string_view> lines = split(output, '\n', false);
  std::vector<std::string_view> views;
  std::copy_if(lines.begin(), lines.end(), std::back_inserter(views),
               [](std::string_view line) { return !isNoise(line); });
  std::vector<std::string> kept(views.begin(), views.end());
  if (kept.empty()) return std::string(trimWhitespaceAndNewlines(output));
  return join(kept, "\n");
}

}  // namespace HelperFirewall
