// Process entry of TarnlyAdminHelper: chooses the mode and wires the real parts together.
#include <unistd.h>

#include <cstdio>
#include <string_view>

int main(int argc, char** argv) {
  std::string_view first = argc > 1 ? argv[1] : "";
  if (first == "--version") {
    std::printf("%s\n", TARNLY_VERSION);
    return 0;
  }
  static constexpr std::string_view kNotRoot =
      "TarnlyAdminHelper must run as root (launchd LaunchDaemon).\n";
  if (::getuid() != 0) {
    if (::write(STDERR_FILENO, kNotRoot.data(), kNotRoot.size()) < 0) {
      // Nothing to do: the status says it all.
    }
    return 1;
  }
  return 0;
}
