// The merge of all owners' stored networks into the one list the anchor carries. A subnet goes to
// the owner who applied most recently (and within one owner to the earlier network); the losers
// are left out and logged. Pure functions apart from mergeAndReview's log lines.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "firewall/enforce/policy_store.h"
#include "firewall/model/review.h"
#include "service/helper_environment.h"

namespace NetworkFirewall::PolicyStore {

// One stored network in precedence order.
struct Claim {
  std::string owner;
  std::string subnetKey;  // canonical subnet, or the subnet text as written when it has none
  FirewallNetworkPolicy policy;
  bool kept = false;  // the first claim of its subnet key
};

struct Merged {
  std::vector<FirewallNetworkPolicy> kept;
  std::vector<std::pair<std::string, FirewallNetworkPolicy>> leftOut;  // (owner, network)
};

// Entries by later appliedAt first, equal dates by owner key in text order; networks in stored
// order within an entry.
std::vector<Claim> claims(const Owners& owners);
Merged merged(const Owners& owners);
// Subnet key -> owner of the kept claim.
std::map<std::string, std::string> subnetOwners(const Owners& owners);

}  // namespace NetworkFirewall::PolicyStore

namespace NetworkFirewall {

// "<subnet> <owner>" lines in subnet text order, or "(none)".
std::string subnetOwnersReport(const PolicyStore::Owners& owners);

}  // namespace NetworkFirewall

namespace HelperFirewall {

// Logs every left-out network ("<subnet> is claimed by networks of more than one user; uid
// <owner>'s \"<name>\" is left out for the most recently applied one.") and reviews the kept ones.
NetworkFirewall::Review mergeAndReview(const HelperEnvironment& env,
                                       const NetworkFirewall::PolicyStore::Owners& owners,
                                       const std::vector<NetworkFirewall::HostAddress>& hosts);

}  // namespace HelperFirewall
