// tarnly-firewall-preview: shows administrators the pf ruleset TarnlyAdminHelper would enforce
// for a firewall policy on this machine. See FirewallPreview::runPreview.
#include <iostream>
#include <string>
#include <vector>

#include "firewall/model/preview.h"

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  const FirewallPreview::Sources sources{NetworkFirewall::hostAddresses, systemNow};
  const int status =
      FirewallPreview::runPreview(arguments, std::cin, std::cout, std::cerr, sources);
  std::cout.flush();
  return std::cout.good() ? status : 1;
}
