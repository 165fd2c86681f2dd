// The helper's process entry: the command-line modes ("--version" for anyone; "--status" and
// "--reapply" for root; anything else starts the service) and the service mode that wires the
// real pieces together. Only the first argument is looked at.
#pragma once

#include <sys/types.h>

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "firewall/enforce/firewall_host.h"
#include "service/helper_environment.h"

namespace HelperCommandLine {

// Runs the mode the first of `arguments` (the arguments after the program name) selects and
// returns the exit status. `realUid` is the process's real user id. Service mode re-applies the
// firewall and then returns what `startService` returns (the real one only returns on failure).
int run(const std::vector<std::string>& arguments, uid_t realUid, const FirewallHost& host,
        std::ostream& out, std::ostream& err, const std::function<int()>& startService);

// The service: opens the listening socket (a log line and status 1 when it cannot), builds the
// listener, the peer check, the protocol with the real operations and the transport, and listens.
// Returns only when serving could not start; should serving end later (a broken socket), it logs
// "Stopped serving <socket path>." and ends the process with status 1.
int runService(const HelperEnvironment& env);

}  // namespace HelperCommandLine
