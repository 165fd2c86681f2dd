// Generation of the pf anchor ruleset from reviewed networks, the IPv6 drop map, and the digests
// by which an already loaded ruleset is recognised. Nothing here throws; what cannot be rendered
// is left out silently.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/model/firewall_records.h"
#include "firewall/model/review.h"
#include "platform/clock.h"

namespace NetworkFirewall {

// From a network's identity to the bridge interfaces on which its IPv6 traffic is dropped.
using IPv6DropMap = std::map<Uuid, std::vector<std::string>>;

// The subnet's first address (.1 for a /24), or nothing for a subnet that is not acceptable.
std::optional<std::string> defaultGateway(std::string_view subnet);
// Bridge interfaces (bridge + 1 to 5 digits) holding exactly this IPv4 address, sorted, distinct.
std::vector<std::string> bridgesCarrying(std::string_view address,
                                         const std::vector<HostAddress>& hosts);
IPv6DropMap ipv6DropInterfaces(const std::vector<FirewallNetworkPolicy>& networks,
                               const std::vector<HostAddress>& hosts);
// pf lines of one rule for the network's canonical subnet; none for an unusable rule.
std::vector<std::string> ruleLines(const FirewallRule& rule, std::string_view subnet);
// The whole anchor text; `generatedAt` stamps the header comment.
std::string ruleset(const std::vector<FirewallNetworkPolicy>& networks, const IPv6DropMap& drops,
                    TimePoint generatedAt);
// SHA-256 of the UTF-8 bytes, 64 lower-case hexadecimal digits (empty only if the crypto library
// fails, which matches no recorded digest).
std::string digest(std::string_view text);
// digest of the text without its comment lines (trimmed form starting with "#").
std::string rulesetDigest(std::string_view text);

}  // namespace NetworkFirewall
