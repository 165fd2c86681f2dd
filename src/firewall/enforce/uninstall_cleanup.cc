#include "firewall/enforce/uninstall_cleanup.h"

#include <unistd.h>

#include <filesystem>
#include <mutex>
#include <system_error>
#include <vector>

#include "firewall/enforce/firewall_lock.h"
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
  std::lock_guard<std::mutex> guard(lock());
  removeFile(env.paths.state("pf.conf.before-tarnly-cleanup"));
  removeFile(env.paths.state(".DS_Store"));
  HelperVLAN::removeRecordFileIfEmpty(env);

  std::optional<std::string> explanation;
  if (auto names = entryNames(env.paths.stateDirectory)) {
    if (names->empty()) {
      ::rmdir(env.paths.stateDirectory.c_str());
    } else {
      explanation = HelperUninstall::explanation(*names);
    }
  }
  env.log.removeForUninstall();
  return explanation;
}

}  // namespace HelperFirewall
