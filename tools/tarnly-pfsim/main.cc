// tarnly-pfsim: a stand-in for /sbin/pfctl on systems without pf. It answers the invocations the
// helper makes, keeping pf's state in the folder named by PFSIM_STATE (default /var/lib/pfsim).
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "pfctl_commands.h"
#include "platform/files.h"

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
  const char* configured = std::getenv("PFSIM_STATE");
  std::string stateDirectory =
      configured != nullptr && *configured != '\0' ? configured : "/var/lib/pfsim";
  PfctlOutput output = runPfctl(stateDirectory, arguments);
  writeAll(STDOUT_FILENO, output.out);
  writeAll(STDERR_FILENO, output.err);
  return output.status;
}
