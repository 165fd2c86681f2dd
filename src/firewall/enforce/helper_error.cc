#include "firewall/enforce/helper_error.h"

namespace HelperFirewall {

HelperError HelperError::decodeFailed(const std::string& description) {
  return HelperError(Kind::decodeFailed, "Could not read the firewall policy: " + description,
                     description);
}

HelperError HelperError::pfctlFailed(const std::string& text) {
  return HelperError(Kind::pfctlFailed, "pfctl rejected the ruleset: " + text, text);
}

HelperError HelperError::networksRefused(const std::string& applied,
                                         const std::vector<std::string>& refused) {
  std::string description = applied + "\nNot enforced:\n";
  for (size_t i = 0; i < refused.size(); ++i) {
    if (i > 0) description += "\n";
    description += "- " + refused[i];
  }
  return HelperError(Kind::networksRefused, description, applied, refused);
}

}  // namespace HelperFirewall
