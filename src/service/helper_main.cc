#include "service/helper_main.h"

#include <unistd.h>

#include <string_view>

#include "firewall/enforce/firewall_operations.h"
#include "platform/netlink_vlan_configuration.h"
#include "platform/service_socket.h"
#include "service/helper_listener.h"
#include "service/helper_operations.h"
#include "service/helper_peer_check.h"
#include "service/helper_transport.h"

namespace HelperCommandLine {

int run(const std::vector<std::string>& arguments, uid_t realUid, const FirewallHost& host,
        std::ostream& out, std::ostream& err, const std::function<int()>& startService) {
  std::string_view mode = arguments.empty() ? std::string_view() : arguments.front();
  if (mode == "--version") {
    out << HelperListener::versionString() << '\n' << std::flush;
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
  return startService();
}

int runService(const HelperEnvironment& env) {
  std::string error;
  int fd = openServiceSocket(env.paths.socketPath, error);
  if (fd < 0) {
    env.log.write(error);
    return 1;
  }
  NetlinkVLANConfiguration vlans;
  std::shared_ptr<HelperListener> listener = HelperListener::create(env);
  HelperPeerCheck peerCheck(env.paths.executable, systemUserDirectory());
  HelperProtocol::Service service{helperOperations(env, listener, vlans),
                                  {systemUserDirectory(), activeConsoleUser, env.log}};
  HelperTransport transport(
      fd, [&peerCheck](const PeerProcess& peer) { return peerCheck.accepts(peer); },
      [&service](std::string_view request, std::uint32_t caller) {
        return HelperProtocol::handle(request, caller, service);
      },
      {[listener] { listener->connectionAccepted(); }, [listener] { listener->connectionEnded(); }},
      env.log);
  listener->listen([&transport] { transport.serve(); });
  // Serving only ends when the socket broke. Exit at once, as the helper's other exits do: no
  // destructor may run under the connection and timer threads.
  env.log.write("Stopped serving " + env.paths.socketPath + ".");
  ::_exit(1);
}

}  // namespace HelperCommandLine
