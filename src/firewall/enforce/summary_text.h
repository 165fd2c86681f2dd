// The counted phrases shared by the load summary and the apply reply:
// "Enforcing <n> network(s)<scope>: <names>" and " - <k> rule(s) skipped".
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/model/firewall_records.h"

namespace HelperFirewall {

// "Enforcing <n> network<s><scope>: <name>, <name>" for a non-empty list.
std::string enforcingPhrase(const std::vector<FirewallNetworkPolicy>& networks,
                            std::string_view scope);

// " - <k> rule<s> skipped", or nothing when k is 0.
std::string skippedPhrase(std::size_t skipped);

}  // namespace HelperFirewall
