// Process entry of TarnlyAdminHelper: builds the real environment and runs the selected mode.
#include <signal.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "firewall/enforce/firewall_host.h"
#include "platform/host_paths.h"
#include "service/helper_environment.h"
#include "service/helper_log.h"
#include "service/helper_main.h"

int main(int argc, char** argv) {
  // A client that closes its connection must not end the helper; the command runner needs the
  // real exit statuses of its children.
  (void)::signal(SIGPIPE, SIG_IGN);
  (void)::signal(SIGCHLD, SIG_DFL);

  std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
  HostPaths paths;
  paths.executable = currentExecutablePath();
  // Never destroyed: the helper's exits must not run destructors under live threads.
  static HelperLog* const log = new HelperLog(paths.logFile, paths.rotatedLogFile, systemNow);
  static const HelperEnvironment* const env = new HelperEnvironment{paths, systemNow, *log};
  return HelperCommandLine::run(arguments, ::getuid(), FirewallHost{*env}, std::cout, std::cerr,
                                [] { return HelperCommandLine::runService(*env); });
}
