// The uninstall clean-up of the state directory: removes what no account or later install still
// needs, says why anything stays, and deletes the log. Runs under the FirewallLock.
#pragma once

#include <optional>
#include <string>

#include "service/helper_environment.h"

namespace HelperFirewall {

// Removes the pf.conf backup, the kept unreadable store, ".DS_Store", an empty VLAN record and
// temporary files a crash left from the state directory, and the directory itself (with the lock
// file) when nothing else remains; then stops the log and deletes its files (the
// last step, so no line follows). Returns HelperUninstall::explanation of the remaining names;
// none when nothing remains or the directory cannot be listed. Never throws for file failures.
std::optional<std::string> removeStateForUninstall(const HelperEnvironment& env);

}  // namespace HelperFirewall
