// How tests run a command on a user-mode Linux kernel (tests/uml-run.sh) when this machine's
// kernel lacks a feature they need. Plain functions of constant data; safe from any thread.
#pragma once

#include <string>
#include <vector>

namespace UserModeLinux {

// Why this build cannot run on user-mode Linux, or empty when it may be tried.
inline std::string unavailableReason() {
#if defined(__SANITIZE_ADDRESS__)
  return "user-mode Linux cannot run this AddressSanitizer build: ASan's shadow memory lies beyond "
         "the 512 GiB address space of a UML process; the normal build runs these tests under it";
#endif
  return {};
}

// tests/uml-run.sh loading `modules`, bounded to two minutes; the command and its arguments follow.
inline std::vector<std::string> launcher(const std::vector<std::string>& modules) {
  std::vector<std::string> command = {TARNLY_SOURCE_DIR "/tests/uml-run.sh"};
  for (const std::string& module : modules) command.insert(command.end(), {"--module", module});
  return command.insert(command.end(), {"--timeout", "120", "--"}), command;
}

// Why user-mode Linux could not run the command (the launcher's status 125 and "uml-run: " line),
// or empty when it ran it, whatever the command's own outcome.
inline std::string failure(int status, const std::string& errors) {
  if (status != 125 || !errors.starts_with("uml-run: ")) return {};
  return "user-mode Linux cannot stand in: " + errors.substr(9, errors.find('\n') - 9);
}

}  // namespace UserModeLinux
