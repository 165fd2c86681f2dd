// The firewall's files in the state directory: the policy store and the loaded-ruleset record.
// Callers other than the status report hold the FirewallLock; atomic replacement keeps
// unlocked readers from ever seeing half a file.
#pragma once

#include <optional>
#include <string>

#include "firewall/enforce/loaded_ruleset.h"
#include "firewall/enforce/policy_store.h"
#include "service/helper_environment.h"

namespace HelperFirewall {

inline constexpr const char* kStoreFile = "firewall-policies.json";
inline constexpr const char* kLoadedFile = "firewall-loaded.json";
inline constexpr const char* kAnchorFile = "firewall.pf.conf";
inline constexpr const char* kPfConfBackupFile = "pf.conf.before-tarnly-cleanup";
// A store that could not be decoded, kept once when a save replaces it.
inline constexpr const char* kUnreadableStoreFile = "firewall-policies.json.unreadable";

// The folder of the firewall files (and of the VLAN record).
const std::string& stateDirectory(const HelperEnvironment& env);

// The stored owners. A missing or unreadable file gives an empty store silently; an undecodable
// one gives an empty store and the log line "Persisted firewall policy could not be decoded;
// starting from none."
NetworkFirewall::PolicyStore::Owners loadStore(const HelperEnvironment& env);

// Creates the state directory and replaces the store file (0600). A store file that cannot be
// decoded is first moved aside to kUnreadableStoreFile (replacing an older one), which is logged.
// Throws FileError or the encoder's exception.
void saveStore(const HelperEnvironment& env, const NetworkFirewall::PolicyStore::Owners& owners);

// The record, or nothing when it is missing or unreadable as one. Logs nothing.
std::optional<NetworkFirewall::LoadedRuleset> readLoadedRuleset(const HelperEnvironment& env);

// Replaces the record file (0600). Never throws: a failure is logged as "Could not record what pf
// was loaded with: <description>".
void recordLoadedRuleset(const HelperEnvironment& env,
                         const NetworkFirewall::LoadedRuleset& record);

}  // namespace HelperFirewall
