#include "firewall/enforce/command_line.h"

#include <string_view>

#include "firewall/enforce/firewall_operations.h"

namespace HelperCommandLine {

std::string versionString() {
#ifdef TARNLY_VERSION
  std::string_view compiled = TARNLY_VERSION;
  if (!compiled.empty()) return std::string(compiled);
#endif
  return "18";
}

int run(const std::vector<std::string>& arguments, uid_t realUid, const FirewallHost& host,
        std::ostream& out, std::ostream& err) {
  std::string_view mode = arguments.empty() ? std::string_view() : arguments.front();
  if (mode == "--version") {
    out << versionString() << '\n' << std::flush;
    return 0;
  }
  if (realUid != 0) {
    static constexpr std::string_view kNotRoot =
        "TarnlyAdminHelper must run as root (launchd LaunchDaemon).\n";
    err.write(kNotRoot.data(), static_cast<std::streamsize>(kNotRoot.size()));
    err.flush();
    return 1;
  }
  if (mode == "--reapply") {
    HelperFirewall::reapplyAtBoot(host);
    return 0;
  }
  if (mode == "--status") {
    out << HelperFirewall::statusReport(host) << '\n' << std::flush;
    return 0;
  }
  // Service mode: the firewall first, so pf enforces the stored networks before any request.
  HelperFirewall::reapplyAtBoot(host);
  err << "TarnlyAdminHelper: the socket service is not part of this build yet; use --status or "
         "--reapply.\n"
      << std::flush;
  return 1;
}

}  // namespace HelperCommandLine
