#include "firewall/enforce/firewall_state.h"

#include <cstdio>
#include <exception>

#include "platform/files.h"

namespace HelperFirewall {

const std::string& stateDirectory(const HelperEnvironment& env) {
  return env.paths.stateDirectory;
}

NetworkFirewall::PolicyStore::Owners loadStore(const HelperEnvironment& env) {
  std::optional<std::string> data = readFile(env.paths.state(kStoreFile));
  if (!data) return {};
  auto owners = NetworkFirewall::PolicyStore::decoded(*data);
  if (!owners) {
    env.log.write("Persisted firewall policy could not be decoded; starting from none.");
    return {};
  }
  return std::move(*owners);
}

void saveStore(const HelperEnvironment& env, const NetworkFirewall::PolicyStore::Owners& owners) {
  createDirectories(stateDirectory(env));
  std::string data = NetworkFirewall::PolicyStore::encoded(owners);
  std::string path = env.paths.state(kStoreFile);
  // An administrator may still want what an undecodable store held; keep the latest one.
  if (auto current = readFile(path); current && !NetworkFirewall::PolicyStore::decoded(*current)) {
    std::string kept = env.paths.state(kUnreadableStoreFile);
    if (::rename(path.c_str(), kept.c_str()) == 0) {
      env.log.write("Kept the firewall policy that could not be decoded as " + kept + ".");
    }
  }
  writeFileAtomically(path, data, 0600);
}

std::optional<NetworkFirewall::LoadedRuleset> readLoadedRuleset(const HelperEnvironment& env) {
  std::optional<std::string> data = readFile(env.paths.state(kLoadedFile));
  if (!data) return std::nullopt;
  return NetworkFirewall::LoadedRuleset::decoded(*data);
}

void recordLoadedRuleset(const HelperEnvironment& env,
                         const NetworkFirewall::LoadedRuleset& record) {
  try {
    std::string path = env.paths.state(kLoadedFile);
    writeFileAtomically(path, record.encoded(), 0600);
  } catch (const std::exception& error) {
    env.log.write(std::string("Could not record what pf was loaded with: ") + error.what());
  }
}

}  // namespace HelperFirewall
