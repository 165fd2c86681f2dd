// IsolatedRoot: runs a shell script as root inside a private mount and network namespace, chrooted
// into an overlay of "/" whose changes live on a tmpfs, so the unmodified helper can use its real
// fixed paths (/Library, /etc, /usr/local, /var/log) without touching the host. The pf simulator is
// installed at /sbin/pfctl inside.
#pragma once

#include <string>

#include "service/helper_command.h"

namespace IsolatedRoot {

// Why isolated roots cannot be made here (not root, no namespaces), or empty when they can.
std::string unavailableReason();

// Runs `script` with /bin/sh inside a fresh isolated root, with `pfctl` (the simulator unless
// another program is named) installed at /sbin/pfctl; the helper binary and the tools are
// reachable at their build paths. Returns what the script printed and its status.
HelperCommand::Result run(const std::string& script, const std::string& pfctl = TARNLY_PFSIM_PATH);

}  // namespace IsolatedRoot
