// Everything the helper does to pf: generating and loading the anchor (skipped when pf already
// runs the same rules), retrying while pf is busy, enabling pf once per boot, killing the states
// of changed subnets, and removing the legacy anchor. Called with the FirewallLock held.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "firewall/enforce/firewall_host.h"
#include "firewall/model/firewall_records.h"
#include "firewall/model/review.h"

namespace HelperFirewall {

// At most 5 retries of a busy load, 400 ms apart.
inline constexpr int kMaxBusyRetries = 5;
inline constexpr std::chrono::microseconds kBusyRetryDelay{400000};

struct LoadOutcome {
  std::string summary;  // "Enforcing <n> network(s) for all users: ..." and skipped rules
  bool reloaded = false;
};

// Loads `policies` (the merged review's enforceable networks) into the anchor. Returns without
// touching pf when the record shows pf already runs these rules (only when `flushSubnets` is
// empty). Throws FileError when the anchor file cannot be written and HelperError::pfctlFailed
// when pf refuses the rules; nothing after the load happens then and the record stays unchanged.
LoadOutcome loadAnchor(const FirewallHost& host, const std::vector<FirewallNetworkPolicy>& policies,
                       const std::vector<NetworkFirewall::Review::Note>& skipped,
                       const std::vector<NetworkFirewall::HostAddress>& hosts,
                       const std::vector<std::string>& flushSubnets);

// Removes lines naming the legacy anchor from pf.conf (keeping one backup of the original in the
// state directory), deletes the legacy anchor file and flushes the legacy anchor. Never fails.
void cleanUpLegacyAnchor(const FirewallHost& host);

// The current boot's identifier (env.paths.bootID, line feed trimmed), or nothing when unreadable
// or empty.
std::optional<std::string> bootSessionID(const HelperEnvironment& env);

}  // namespace HelperFirewall
