#include "firewall/enforce/uninstall_cleanup.h"

#include <unistd.h>

#include <filesystem>
#include <system_error>
#include <vector>

#include "firewall/enforce/firewall_lock.h"
#include "firewall/enforce/firewall_state.h"
#include "interfaces/helper_vlan.h"
#include "platform/files.h"
#include "service/helper_uninstall.h"

namespace HelperFirewall {

namespace {

// The names in the state directory; none when it cannot be listed.
std::optional<std::vector<std::string>> entryNames(const std::string& folder) {
  std::error_code error;
  std::filesystem::directory_iterator entries(folder, error);
  if (error) return std::nullopt;
  std::vector<std::string> names;
  for (; entries != std::filesystem::directory_iterator(); entries.increment(error)) {
    if (error) return std::nullopt;
    names.push_back(entries->path().filename().string());
  }
  if (error) return std::nullopt;
  return names;
}

}  // namespace

std::optional<std::string> removeStateForUninstall(const HelperEnvironment& env) {
  FirewallLock guard(env);
  removeFile(env.paths.state(kPfConfBackupFile));
  removeFile(env.paths.state(kUnreadableStoreFile));
  removeFile(env.paths.state(".DS_Store"));
  HelperVLAN::removeRecordFileIfEmpty(env);
  removeLeftoverTemporaryFiles(env.paths.stateDirectory);

  std::optional<std::string> explanation;
  if (auto names = entryNames(env.paths.stateDirectory)) {
    // The lock file and the temporary file of a write still running are no state of their own.
    std::erase_if(*names, [](const std::string& name) {
      return name == kLockFile || isTemporaryFileName(name);
    });
    if (names->empty()) {
      guard.unlinkLockFile();
      ::rmdir(env.paths.stateDirectory.c_str());
    } else {
      explanation = HelperUninstall::explanation(*names);
    }
  }
  env.log.removeForUninstall();
  return explanation;
}

}  // namespace HelperFirewall
