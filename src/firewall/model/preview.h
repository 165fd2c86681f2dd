// The firewall preview for administrators: reviews a policy document against host addresses and
// shows the ruleset the helper would load, as text or as one JSON report. The program
// tarnly-firewall-preview is a thin wrapper around runPreview. Stateless; any thread.
#pragma once

#include <functional>
#include <iosfwd>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/model/review.h"
#include "firewall/model/ruleset.h"
#include "platform/clock.h"

namespace FirewallPreview {

// A command line or hosts file the preview cannot use; what() is the one-line message.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Options {
  std::string policyPath = "-";  // "-" reads standard input
  std::optional<std::string> hostsPath;
  bool json = false;
  bool help = false;
};

// Reads "[--json] [--hosts FILE] [POLICY | -]" (options in any order, "--hosts=FILE" too, "--"
// ends the options). Throws UsageError for an unknown option or a second policy argument.
Options parseArguments(const std::vector<std::string>& arguments);

// A JSON array of {"interface": text, "address": IPv4 or IPv6 text, "prefixLength": integer},
// in order. Throws UsageError naming the faulty place.
std::vector<NetworkFirewall::HostAddress> decodeHosts(std::string_view document);

// What the helper would enforce for the networks on these hosts.
struct Outcome {
  NetworkFirewall::Review review;
  NetworkFirewall::IPv6DropMap drops;
  std::string ruleset;
  std::string rulesDigest;
};
Outcome preview(const std::vector<FirewallNetworkPolicy>& networks,
                const std::vector<NetworkFirewall::HostAddress>& hosts, TimePoint now);

// One "<label>: <problem>" line per refused network, then per skipped rule, each kept on one line.
std::string noteLines(const NetworkFirewall::Review& review);
// The JSON report: enforceable, refused, skippedRules, ipv6Drops, ruleset, rulesDigest.
std::string jsonReport(const Outcome& outcome);

// Where the program gets what it does not compute.
struct Sources {
  std::function<std::vector<NetworkFirewall::HostAddress>()> hostAddresses;
  Clock clock;
};

// The whole program: reads the policy (file or `in`), writes the result to `out` and notes or
// errors to `err`. Returns the exit status: 0 done, 2 unusable command line or input.
int runPreview(const std::vector<std::string>& arguments, std::istream& in, std::ostream& out,
               std::ostream& err, const Sources& sources);

}  // namespace FirewallPreview
