// The helper's command-line modes: "--version" for anyone; "--status" and "--reapply" for root;
// anything else is the service start. Only the first argument is looked at.
#pragma once

#include <sys/types.h>

#include <ostream>
#include <string>
#include <vector>

#include "firewall/enforce/firewall_host.h"

namespace HelperCommandLine {

// The version compiled in (TARNLY_VERSION), "18" when there is none.
std::string versionString();

// Runs the mode the first of `arguments` (the arguments after the program name) selects and
// returns the exit status. `realUid` is the process's real user id. Service mode, which is not
// part of this build, re-applies the firewall and then fails with a one-line message.
int run(const std::vector<std::string>& arguments, uid_t realUid, const FirewallHost& host,
        std::ostream& out, std::ostream& err);

}  // namespace HelperCommandLine
