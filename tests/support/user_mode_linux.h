// How tests run a command on a user-mode Linux kernel (tests/uml-run.sh) when this machine's
// kernel lacks a feature they need. Plain functions of constant data; safe from any thread.
#pragma once

#include <string>
#include <vector>

namespace UserModeLinux {

// Why this build cannot run on user-mode Linux, or empty when it may be tried.
inline std::string unavailableReason() {
#if defined(__SANITIZE_ADDRESS__)
  return "user-mode Linux cannot run this AddressSanitizer build: ASan's shadow memory lies at "
         "0x7fff8000-0x10007fff7fff, and the address space of a UML process ends at 512 GiB "
         "(0x7fc0000000); the normal build runs these tests under user-mode Linux";
#else
  return {};
#endif
}

// tests/uml-run.sh loading each of `modules`, bounded to two minutes, up to its "--": the command
// and its arguments follow.
inline std::vector<std::string> launcher(const std::vector<std::string>& modules) {
  std::vector<std::string> command = {TARNLY_SOURCE_DIR "/tests/uml-run.sh"};
  for (const std::string& module : modules) command.insert(command.end(), {"--module", module});
  command.insert(command.end(), {"--timeout", "120", "--"});
  return command;
}

// Why user-mode Linux could not run the command, from the launcher's exit status (125) and its
// "uml-run: " error line, or empty when it ran it (whatever the command's own outcome).
inline std::string failure(int status, const std::string& errors) {
  if (status != 125 || !errors.starts_with("uml-run: ")) return {};
  return "user-mode Linux cannot stand in: " + errors.substr(9, errors.find('\n') - 9);
}

}  // namespace UserModeLinux
