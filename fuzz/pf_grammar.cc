// The pf grammar the simulator (and the nftables front end) reads anchors with. A refusal names a
// line of the text; an accepted ruleset, written back in the grammar, reads as the same rules.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_check.h"
#include "pf_ruleset_parser.h"

namespace {

std::string hostText(const PfAddress& address) {
  if (address.any) return "any";
  const std::uint32_t a = address.address;
  return std::to_string(a >> 24) + "." + std::to_string((a >> 16) & 255) + "." +
         std::to_string((a >> 8) & 255) + "." + std::to_string(a & 255) + "/" +
         std::to_string(address.prefixLength);
}

std::string endpointText(const PfEndpoint& side) {
  std::string text = "{";
  for (const PfAddress& address : side.addresses) {
    text += (text.size() > 1 ? ", " : " ") + hostText(address);
  }
  text += " }";
  if (side.port) {
    text += " port " + std::to_string(side.port->low);
    if (side.port->range) text += ":" + std::to_string(side.port->high);
  }
  return text;
}

// The rule in the grammar's own words, lists always braced.
std::string ruleText(const PfRule& rule) {
  std::string text = rule.pass ? "pass" : "block drop";
  if (!rule.direction.empty()) text += " " + rule.direction;
  text += " quick";
  if (!rule.interface.empty()) text += " on " + rule.interface;
  if (rule.inet6) text += " inet6";
  if (!rule.protocol.empty()) text += " proto " + rule.protocol;
  text += " from " + endpointText(rule.from) + " to " + endpointText(rule.to);
  if (rule.keepState) text += " keep state";
  return text + "\n";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const PfRulesetParse parsed = parsePfRuleset(text);
  if (!parsed.accepted()) {
    FUZZ_CHECK(parsed.errorLine > 0 && parsed.rules.empty() && !parsed.errorMessage.empty());
    FUZZ_CHECK(parsed.errorLine <= 1 + std::count(text.begin(), text.end(), '\n'));
    return 0;
  }
  std::string written;
  std::size_t expanded = 0;
  for (const PfRule& rule : parsed.rules) {
    written += ruleText(rule);
    expanded += rule.from.addresses.size() * rule.to.addresses.size();
    for (const PfAddress& address : rule.from.addresses) {
      FUZZ_CHECK(address.any || pfNetworkContains(address, address.address));
    }
  }
  const PfRulesetParse reread = parsePfRuleset(written);
  FUZZ_CHECK(reread.accepted() && reread.rules.size() == parsed.rules.size());
  // Listing multiplies lists out; keep it to inputs whose listing stays small.
  if (expanded <= 4096) {
    FUZZ_CHECK(pfRulesListing(reread.rules, true) == pfRulesListing(parsed.rules, true));
  }
  return 0;
}
