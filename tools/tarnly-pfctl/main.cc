// tarnly-pfctl: pfctl for Linux. Answers the invocations the helper makes of /sbin/pfctl and
// carries the anchor out in the kernel through nftables and connection tracking.
#include <unistd.h>

#include <string>
#include <vector>

#include "pfctl_front.h"
#include "platform/files.h"

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
  PfctlAnswer answer = answerPfctl(arguments);
  writeAll(STDOUT_FILENO, answer.out);
  writeAll(STDERR_FILENO, answer.err);
  return answer.status;
}
