// Pfctl: every pfctl invocation of the helper with its exact argument vector, run through the
// host's command runner at env.paths.pfctl. Holds only a reference to the host.
#pragma once

#include <string>

#include "firewall/enforce/firewall_host.h"

namespace HelperFirewall {

inline constexpr const char* kAnchor = "com.apple/900.tarnly.firewall";
inline constexpr const char* kLegacyAnchor = "com.tarnly.firewall";

class Pfctl {
 public:
  explicit Pfctl(const FirewallHost& host) : host_(host) {}

  HelperCommand::Result statusInfo() const;                         // -si
  HelperCommand::Result mainRules() const;                          // -sr
  HelperCommand::Result anchorListing() const;                      // -a <anchor> -sr
  HelperCommand::Result verboseAnchorListing() const;               // -a <anchor> -v -sr
  HelperCommand::Result anchorLoad(const std::string& file) const;  // -a <anchor> -f <file>
  HelperCommand::Result enable() const;                             // -E
  void killStatesFrom(const std::string& subnet) const;             // -k <subnet>
  void killStatesTo(const std::string& subnet) const;               // -k 0.0.0.0/0 -k <subnet>
  void anchorFlush() const;                                         // -a <anchor> -F rules
  void legacyFlush() const;                                         // -a <legacy anchor> -F rules

 private:
  HelperCommand::Result run(const std::vector<std::string>& arguments) const;

  const FirewallHost& host_;
};

}  // namespace HelperFirewall
