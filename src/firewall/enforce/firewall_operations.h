// The firewall operations the service and the command line invoke: apply one user's networks,
// remove them, the status report and the re-apply at start. Apply, remove and re-apply hold
// the FirewallLock for their whole run; the status report runs without it. Each operation
// has a form taking the environment alone, which uses the real host defaults.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "firewall/enforce/firewall_host.h"
#include "firewall/model/firewall_records.h"
#include "firewall/model/review.h"

namespace NetworkFirewall {

// True when both networks encode to the same JSON bytes (keys sorted); false when either cannot
// be encoded.
bool samePolicy(const FirewallNetworkPolicy& a, const FirewallNetworkPolicy& b);

}  // namespace NetworkFirewall

namespace HelperFirewall {

// Decodes the caller's networks, stores the enforceable ones for the caller, loads the merged
// firewall of all owners and saves the store. Returns the reply text. Throws
// HelperError::decodeFailed (nothing changed), HelperError::pfctlFailed or a file error (store
// unchanged), or HelperError::networksRefused after the rest was applied and saved.
std::string apply(const FirewallHost& host, std::string_view policyData, unsigned int uid,
                  bool adoptLegacy);
std::string apply(const HelperEnvironment& env, std::string_view policyData, unsigned int uid,
                  bool adoptLegacy);

// Removes the caller's networks and reloads the others'; the last owner's removal flushes the
// anchor and deletes the firewall files. Throws like apply.
void remove(const FirewallHost& host, unsigned int uid, bool adoptLegacy);
void remove(const HelperEnvironment& env, unsigned int uid, bool adoptLegacy);

// The status report: pf status, main ruleset anchors, the anchor's rules and the subnet owners.
std::string statusReport(const FirewallHost& host);
std::string statusReport(const HelperEnvironment& env);

// Loads the stored firewall at start, after removing the temporary files a killed process left in
// the state folder. Never fails: problems go to the log.
void reapplyAtBoot(const FirewallHost& host);
void reapplyAtBoot(const HelperEnvironment& env);

// "Enforcing <n> network(s): <names>" or "None of your networks has an enabled firewall.", then
// " - <k> rule(s) skipped" and " - <m> more for other users of this Mac" when they apply.
std::string replyText(const std::vector<FirewallNetworkPolicy>& enforceable,
                      const std::vector<NetworkFirewall::Review::Note>& skipped, size_t others);

}  // namespace HelperFirewall
