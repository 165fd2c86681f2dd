// LoadedRuleset: what pf was last loaded with, kept so that a load of the same rules can be
// skipped, and its compact JSON form. Plain value.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace NetworkFirewall {

struct LoadedRuleset {
  std::string rulesDigest;                   // rulesetDigest of the generated text
  std::optional<std::string> anchorDigest;   // digest of the anchor listing after the load
  std::optional<std::string> enabledInBoot;  // boot in which the helper last enabled pf

  bool operator==(const LoadedRuleset&) const = default;

  // {"rulesDigest": ..., "anchorDigest": ..., "enabledInBoot": ...}, absent ones left out.
  std::string encoded() const;
  // Nothing for anything but an object with a text "rulesDigest" whose other two keys, when
  // present and not null, hold texts. Unknown keys are ignored.
  static std::optional<LoadedRuleset> decoded(std::string_view data);
};

}  // namespace NetworkFirewall
