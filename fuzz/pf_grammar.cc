// The pf grammar the simulator and the nftables front end read anchors with. A refusal names a
// line of the text; an accepted ruleset, written back rule by rule, reads as the same rules: the
// same writing again and the same listing.
#include <algorithm>

#include "fuzz_check.h"
#include "pf_ruleset_parser.h"

FUZZ_TARGET(text) {
  const PfRulesetParse parsed = parsePfRuleset(text);
  if (!parsed.accepted()) {
    FUZZ_CHECK(parsed.errorLine > 0 && parsed.rules.empty() && !parsed.errorMessage.empty());
    FUZZ_CHECK(parsed.errorLine <= 1 + std::count(text.begin(), text.end(), '\n'));
    return;
  }
  const auto written = [](const std::vector<PfRule>& rules) {
    std::string lines;
    for (const PfRule& rule : rules) lines += pfRuleText(rule) + " # written back\n";
    return lines;
  };
  std::size_t expanded = 0;
  for (const PfRule& rule : parsed.rules)
    expanded += rule.from.addresses.size() * rule.to.addresses.size();
  const PfRulesetParse reread = parsePfRuleset(written(parsed.rules));
  FUZZ_CHECK(reread.accepted() && written(reread.rules) == written(parsed.rules));
  // Listing multiplies lists out; keep it to inputs whose listing stays small.
  FUZZ_CHECK(expanded > 4096 ||
             pfRulesListing(reread.rules, true) == pfRulesListing(parsed.rules, true));
}
