#include "service/helper_uninstall.h"

#include <algorithm>

namespace HelperUninstall {

namespace {

constexpr const char* kVLANReason =
    "the list of VLANs Tarnly created, which lets a later install remove them";
constexpr const char* kFirewallReason = "firewall rules another account on this Mac still uses";

void addOnce(std::vector<std::string>& reasons, const std::string& reason) {
  if (std::find(reasons.begin(), reasons.end(), reason) == reasons.end()) reasons.push_back(reason);
}

}  // namespace

std::string englishList(const std::vector<std::string>& items) {
  switch (items.size()) {
    case 0:
      return {};
    case 1:
      return items[0];
    case 2:
      return items[0] + " and " + items[1];
    default: {
      std::string text;
      for (size_t index = 0; index + 1 < items.size(); ++index) text += items[index] + ", ";
      return text + "and " + items.back();
    }
  }
}

std::optional<std::string> explanation(std::vector<std::string> names) {
  // Byte order of UTF-8 is code-point order.
  std::sort(names.begin(), names.end());
  std::vector<std::string> reasons;
  std::vector<std::string> others;
  for (const std::string& name : names) {
    if (name == "vlans.json") {
      addOnce(reasons, kVLANReason);
    } else if (name == "firewall-policies.json" || name == "firewall.pf.conf" ||
               name == "firewall-loaded.json") {
      addOnce(reasons, kFirewallReason);
    } else {
      others.push_back(name);
    }
  }
  if (!others.empty()) reasons.push_back(englishList(others));
  if (reasons.empty()) return std::nullopt;
  return englishList(reasons);
}

}  // namespace HelperUninstall
