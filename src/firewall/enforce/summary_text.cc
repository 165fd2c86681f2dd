#include "firewall/enforce/summary_text.h"

namespace HelperFirewall {

namespace {

std::string_view plural(std::size_t count) {
  return count == 1 ? "" : "s";
}

}  // namespace

std::string enforcingPhrase(const std::vector<FirewallNetworkPolicy>& networks,
                            std::string_view scope) {
  std::string text = "Enforcing " + std::to_string(networks.size()) + " network";
  text += plural(networks.size());
  text += scope;
  text += ": ";
  for (std::size_t i = 0; i < networks.size(); ++i) {
    if (i > 0) text += ", ";
    text += networks[i].name;
  }
  return text;
}

std::string skippedPhrase(std::size_t skipped) {
  if (skipped == 0) return {};
  std::string text = " - " + std::to_string(skipped) + " rule";
  text += plural(skipped);
  text += " skipped";
  return text;
}

}  // namespace HelperFirewall
