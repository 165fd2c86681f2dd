// FirewallHost: what the firewall operations reach the system through — the environment (paths,
// clock, log), the source of the host's interface addresses, the sleep of the busy retry and the
// command runner. The defaults are the real ones; tests and benchmarks replace single members.
// Immutable once built; safe to share between threads when the functions it holds are.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "firewall/model/review.h"
#include "service/helper_command.h"
#include "service/helper_environment.h"

using HostAddressSource = std::function<std::vector<NetworkFirewall::HostAddress>()>;
using SleepFunction = std::function<void(std::chrono::microseconds)>;
using CommandRunner =
    std::function<HelperCommand::Result(const std::string&, const std::vector<std::string>&)>;

// Blocks the calling thread for the duration.
void sleepFor(std::chrono::microseconds duration);

struct FirewallHost {
  const HelperEnvironment& env;
  HostAddressSource hostAddresses = NetworkFirewall::hostAddresses;
  SleepFunction sleep = sleepFor;
  CommandRunner run = HelperCommand::run;
};
