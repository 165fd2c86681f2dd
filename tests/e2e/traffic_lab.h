// TrafficLab: the shell pieces of a real-traffic scenario run in an isolated root with
// tarnly-pfctl at /sbin/pfctl. The root's own network namespace is the host (bridge100 holding
// 192.168.64.1/24 and fd00:64::1/64, forwarding on); a "vm" namespace sits on bridge100 at
// 192.168.64.2 and fd00:64::2 and a "lan" namespace is routed through the host at 10.77.0.2.
// Nothing here is thread-safe state; the functions build script text.
#pragma once

#include <string>

namespace TrafficLab {

// The script prelude: builds the namespaces, installs the probe program and defines the shell
// functions the scenario uses:
//   serve NS PROTO PORT     echo server in NS, returns once it listens
//   probe NAME NS PROTO HOST PORT
//                           prints "NAME=open" when an echo came back within the bound,
//                           "NAME=blocked" otherwise (PROTO tcp, udp, icmp or icmp6)
//   hold NS HOST PORT / say NAME / unhold
//                           one TCP connection kept open; `say` echoes over it and prints
//                           "NAME=open" or "NAME=cut"
//   apply_store FILE        makes FILE the helper's store and applies it through the helper
//   kill_states SUBNET      drops the subnet's connection states as the helper's apply does for a
//                           network whose rules changed
//   remove_all              removes every owner as the helper's remove of the last owner does
// A lab that cannot be built ends the script with status 3 and the failing step's output.
std::string prelude();

// One stored owner (uid 501) with one network "Lab" on 192.168.64.0/24 with gateway
// 192.168.64.1: `defaults` is the JSON members defaultInbound/defaultOutbound, `rules` the JSON
// array of rules and `keepsIPv6` the network's flag.
std::string store(const std::string& defaults, const std::string& rules, bool keepsIPv6);

}  // namespace TrafficLab
