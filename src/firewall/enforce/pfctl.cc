#include "firewall/enforce/pfctl.h"

namespace HelperFirewall {

HelperCommand::Result Pfctl::run(const std::vector<std::string>& arguments) const {
  return host_.run(host_.env.paths.pfctl, arguments);
}

HelperCommand::Result Pfctl::statusInfo() const {
  return run({"-si"});
}

HelperCommand::Result Pfctl::mainRules() const {
  return run({"-sr"});
}

HelperCommand::Result Pfctl::anchorListing() const {
  return run({"-a", kAnchor, "-sr"});
}

HelperCommand::Result Pfctl::verboseAnchorListing() const {
  return run({"-a", kAnchor, "-v", "-sr"});
}

HelperCommand::Result Pfctl::anchorLoad(const std::string& file) const {
  return run({"-a", kAnchor, "-f", file});
}

HelperCommand::Result Pfctl::enable() const {
  return run({"-E"});
}

void Pfctl::killStatesFrom(const std::string& subnet) const {
  run({"-k", subnet});
}

void Pfctl::killStatesTo(const std::string& subnet) const {
  run({"-k", "0.0.0.0/0", "-k", subnet});
}

void Pfctl::anchorFlush() const {
  run({"-a", kAnchor, "-F", "rules"});
}

void Pfctl::legacyFlush() const {
  run({"-a", kLegacyAnchor, "-F", "rules"});
}

}  // namespace HelperFirewall
