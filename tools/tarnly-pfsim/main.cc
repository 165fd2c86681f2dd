// tarnly-pfsim: a stand-in for /sbin/pfctl on systems without pf. It answers the invocations the
// helper makes, keeping pf's state in the folder named by PFSIM_STATE (default /var/lib/pfsim).
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "pfctl_commands.h"

namespace {

void writeAll(int fd, const std::string& text) {
  const char* data = text.data();
  size_t left = text.size();
  while (left > 0) {
    ssize_t written = ::write(fd, data, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      return;
    }
    data += written;
    left -= static_cast<size_t>(written);
  }
}

}  // namespace

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
