#include "firewall/enforce/firewall_operations.h"

#include <algorithm>
#include <exception>
#include <nlohmann/json.hpp>

#include "firewall/enforce/anchor_load.h"
#include "firewall/enforce/firewall_lock.h"
#include "firewall/enforce/firewall_state.h"
#include "firewall/enforce/helper_error.h"
#include "firewall/enforce/owners_merge.h"
#include "firewall/enforce/pfctl.h"
#include "firewall/enforce/summary_text.h"
#include "firewall/model/firewall_json.h"
#include "platform/files.h"
#include "platform/text.h"

namespace NetworkFirewall {

bool samePolicy(const FirewallNetworkPolicy& a, const FirewallNetworkPolicy& b) {
  try {
    // nlohmann::json keeps object keys sorted.
    return FirewallJSON::encode(a).dump() == FirewallJSON::encode(b).dump();
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace NetworkFirewall

namespace HelperFirewall {

namespace {

namespace Store = NetworkFirewall::PolicyStore;

std::vector<std::string> renderedNotes(const std::vector<NetworkFirewall::Review::Note>& notes) {
  std::vector<std::string> lines(notes.size());
  std::transform(notes.begin(), notes.end(), lines.begin(),
                 [](const auto& note) { return NetworkFirewall::rendered(note); });
  return lines;
}

// Subnets whose rules changed: every enforceable network without an identical stored one of the
// same networkID.
std::vector<std::string> changedSubnets(const std::vector<FirewallNetworkPolicy>& enforceable,
                                        const std::vector<FirewallNetworkPolicy>& previous) {
  std::vector<std::string> subnets;
  for (const FirewallNetworkPolicy& network : enforceable) {
    auto old = std::find_if(previous.begin(), previous.end(),
                            [&](const auto& p) { return p.networkID == network.networkID; });
    if (old == previous.end() || !NetworkFirewall::samePolicy(network, *old)) {
      subnets.push_back(network.subnetCIDR);
    }
  }
  return subnets;
}

size_t networksOfOthers(const Store::Owners& owners, const std::string& owner) {
  size_t count = 0;
  for (const auto& [key, entry] : owners) {
    if (key != owner) count += entry.policies.size();
  }
  return count;
}

// The first `limit` non-empty lines of a text.
std::vector<std::string> firstLines(std::string_view text, size_t limit) {
  std::vector<std::string> lines;
  for (std::string_view line : split(text, '\n', false)) {
    if (lines.size() == limit) break;
    lines.emplace_back(line);
  }
  return lines;
}

std::string anchorLines(std::string_view mainRules) {
  std::vector<std::string> lines;
  for (std::string_view line : split(mainRules, '\n', false)) {
    if (line.find("anchor") != std::string_view::npos) lines.emplace_back(line);
  }
  return lines.empty() ? "(none - the main ruleset evaluates no anchors)" : join(lines, "\n");
}

}  // namespace

std::string replyText(const std::vector<FirewallNetworkPolicy>& enforceable,
                      const std::vector<NetworkFirewall::Review::Note>& skipped, size_t others) {
  std::string text = enforceable.empty() ? "None of your networks has an enabled firewall."
                                         : enforcingPhrase(enforceable, "");
  text += skippedPhrase(skipped.size());
  if (others >= 1) text += " - " + std::to_string(others) + " more for other users of this Mac";
  return text;
}

std::string apply(const FirewallHost& host, std::string_view policyData, unsigned int uid,
                  bool adoptLegacy) {
  const HelperEnvironment& env = host.env;
  FirewallLock guard(env, FirewallLock::Folder::create);

  std::vector<FirewallNetworkPolicy> networks;
  try {
    networks = FirewallJSON::decodeDocument(policyData);
  } catch (const FirewallJSON::DecodeError& error) {
    throw HelperError::decodeFailed(error.what());
  }

  std::vector<NetworkFirewall::HostAddress> hosts = host.hostAddresses();
  NetworkFirewall::Review own = NetworkFirewall::review(networks, hosts);

  Store::Owners owners = loadStore(env);
  std::string owner = Store::ownerKey(uid);
  std::vector<FirewallNetworkPolicy> previous =
      Store::replace(owners, owner, own.enforceable, env.clock(), adoptLegacy);
  std::vector<std::string> flushSubnets = changedSubnets(own.enforceable, previous);

  NetworkFirewall::Review merged = mergeAndReview(env, owners, hosts);
  LoadOutcome outcome =
      loadAnchor(host, merged.enforceable, merged.skippedRules, hosts, flushSubnets);
  if (!outcome.reloaded) {
    env.log.write("Firewall for uid " + owner +
                  " unchanged; pf already runs these rules, so nothing was reloaded.");
  }
  saveStore(env, owners);

  std::string text = replyText(own.enforceable, own.skippedRules, networksOfOthers(owners, owner));
  if (!own.refused.empty()) throw HelperError::networksRefused(text, renderedNotes(own.refused));
  return text;
}

void remove(const FirewallHost& host, unsigned int uid, bool adoptLegacy) {
  const HelperEnvironment& env = host.env;
  FirewallLock guard(env);

  Store::Owners owners = loadStore(env);
  std::string owner = Store::ownerKey(uid);
  Store::replace(owners, owner, {}, env.clock(), adoptLegacy);

  if (!owners.empty()) {
    std::vector<NetworkFirewall::HostAddress> hosts = host.hostAddresses();
    NetworkFirewall::Review merged = mergeAndReview(env, owners, hosts);
    loadAnchor(host, merged.enforceable, merged.skippedRules, hosts, {});
    saveStore(env, owners);
    env.log.write("Removed uid " + owner + "'s firewall policies; other users' stay in force.");
    return;
  }

  cleanUpLegacyAnchor(host);
  Pfctl(host).anchorFlush();
  for (const char* name : {kStoreFile, kAnchorFile, kLoadedFile}) removeFile(env.paths.state(name));
  env.log.write("Removed firewall enforcement.");
}

std::string statusReport(const FirewallHost& host) {
  Pfctl pfctl(host);
  HelperCommand::Result status = pfctl.statusInfo();
  HelperCommand::Result mainRules = pfctl.mainRules();
  HelperCommand::Result anchor = pfctl.verboseAnchorListing();

  std::string anchorText(trimWhitespaceAndNewlines(anchor.stdout));
  if (anchorText.empty()) anchorText = "(anchor is empty - nothing enforced)";

  std::vector<std::string> lines = {"== pf status ==",
                                    join(firstLines(status.stdout, 2), "\n"),
                                    "",
                                    "== main ruleset anchors ==",
                                    anchorLines(mainRules.stdout),
                                    "",
                                    std::string("== ") + kAnchor + " ==",
                                    anchorText,
                                    "",
                                    "== subnet owners ==",
                                    NetworkFirewall::subnetOwnersReport(loadStore(host.env))};
  return join(lines, "\n");
}

void reapplyAtBoot(const FirewallHost& host) {
  const HelperEnvironment& env = host.env;
  // Temporary files that a killed process left behind go first: a write in progress keeps its own.
  removeLeftoverTemporaryFiles(env.paths.stateDirectory);
  // Nothing stored: nothing to do, and no trace left (not even the lock file).
  if (!pathExists(env.paths.state(kStoreFile))) return;
  // The store is read under the lock, so that an apply of another process that ran meanwhile is
  // not undone with what the store said before it.
  FirewallLock guard(env);
  std::optional<std::string> data = readFile(env.paths.state(kStoreFile));
  if (!data) return;
  std::optional<Store::Owners> owners = Store::decoded(*data);
  if (!owners) {
    env.log.write("Persisted firewall policy could not be decoded; leaving pf alone.");
    return;
  }

  std::vector<NetworkFirewall::HostAddress> hosts = host.hostAddresses();
  NetworkFirewall::Review merged = mergeAndReview(env, *owners, hosts);
  LoadOutcome outcome;
  try {
    outcome = loadAnchor(host, merged.enforceable, merged.skippedRules, hosts, {});
  } catch (const std::exception& error) {
    env.log.write(std::string("Boot re-apply failed: ") + error.what());
    return;
  }
  if (outcome.reloaded) {
    env.log.write("Boot re-apply: " + outcome.summary);
  } else {
    env.log.write("Boot re-apply: pf already runs these rules; nothing reloaded. " +
                  outcome.summary);
  }
  if (!merged.refused.empty()) {
    env.log.write("Boot re-apply left out: " + join(renderedNotes(merged.refused), " | "));
  }
}

std::string apply(const HelperEnvironment& env, std::string_view policyData, unsigned int uid,
                  bool adoptLegacy) {
  return apply(FirewallHost{env}, policyData, uid, adoptLegacy);
}

void remove(const HelperEnvironment& env, unsigned int uid, bool adoptLegacy) {
  remove(FirewallHost{env}, uid, adoptLegacy);
}

std::string statusReport(const HelperEnvironment& env) {
  return statusReport(FirewallHost{env});
}

void reapplyAtBoot(const HelperEnvironment& env) {
  reapplyAtBoot(FirewallHost{env});
}

}  // namespace HelperFirewall
