#include "firewall/enforce/anchor_load.h"

#include <sys/stat.h>

#include <algorithm>
#include <set>

#include "firewall/enforce/firewall_state.h"
#include "firewall/enforce/helper_error.h"
#include "firewall/enforce/pf_output.h"
#include "firewall/enforce/pfctl.h"
#include "firewall/enforce/summary_text.h"
#include "firewall/model/ruleset.h"
#include "platform/files.h"
#include "platform/text.h"

namespace HelperFirewall {

namespace {

std::string loadSummary(const std::vector<FirewallNetworkPolicy>& policies, size_t skipped) {
  std::string summary = policies.empty()
                            ? "No networks have an enabled firewall - the anchor is empty."
                            : enforcingPhrase(policies, " for all users");
  return summary + skippedPhrase(skipped);
}

// Runs the anchor load until it succeeds, retrying while pf reports "Resource busy". Returns the
// attempt that succeeded; throws pfctlFailed otherwise.
int loadWithBusyRetry(const FirewallHost& host, const Pfctl& pfctl, const std::string& file) {
  int attempt = 1;
  HelperCommand::Result result = pfctl.anchorLoad(file);
  while (result.status != 0) {
    std::string output = result.combinedOutput();
    if (output.find("Resource busy") == std::string::npos || attempt > kMaxBusyRetries) {
      throw HelperError::pfctlFailed(pfctlErrorText(output));
    }
    host.sleep(kBusyRetryDelay);
    ++attempt;
    result = pfctl.anchorLoad(file);
  }
  return attempt;
}

// Runs "-E" unless pf is known to have been enabled by the helper in this boot; returns the new
// enabledInBoot of the record.
std::optional<std::string> enableIfNeeded(
    const FirewallHost& host, const Pfctl& pfctl, size_t networkCount, bool enabled,
    const std::optional<NetworkFirewall::LoadedRuleset>& previous) {
  if (networkCount == 0) {
    return previous ? previous->enabledInBoot : std::nullopt;
  }
  std::optional<std::string> boot = bootSessionID(host.env);
  if (enabled && boot && previous && previous->enabledInBoot == boot) {
    return previous->enabledInBoot;
  }
  if (pfctl.enable().status != 0) return std::nullopt;
  return boot;
}

// The permission bits of an existing file, 0644 when they cannot be read.
mode_t permissionsOf(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return 0644;
  return info.st_mode & 07777;
}

std::string ipv6Suffix(const NetworkFirewall::IPv6DropMap& drops) {
  std::set<std::string> interfaces;
  for (const auto& [network, names] : drops) interfaces.insert(names.begin(), names.end());
  if (interfaces.empty()) return "";
  return " - IPv6 dropped on " +
         join(std::vector<std::string>(interfaces.begin(), interfaces.end()), ", ");
}

}  // namespace

std::optional<std::string> bootSessionID(const HelperEnvironment& env) {
  std::optional<std::string> data = readFile(env.paths.bootID);
  if (!data) return std::nullopt;
  std::string_view bytes = *data;
  bytes = bytes.substr(0, bytes.find('\0'));
  std::string text(trimWhitespaceAndNewlines(decodeUTF8Lossy(bytes)));
  if (text.empty()) return std::nullopt;
  return text;
}

LoadOutcome loadAnchor(const FirewallHost& host, const std::vector<FirewallNetworkPolicy>& policies,
                       const std::vector<NetworkFirewall::Review::Note>& skipped,
                       const std::vector<NetworkFirewall::HostAddress>& hosts,
                       const std::vector<std::string>& flushSubnets) {
  const HelperEnvironment& env = host.env;
  Pfctl pfctl(host);

  NetworkFirewall::IPv6DropMap drops = NetworkFirewall::ipv6DropInterfaces(policies, hosts);
  std::string text = NetworkFirewall::ruleset(policies, drops, env.clock());
  std::string summary = loadSummary(policies, skipped.size());
  std::string rulesDigest = NetworkFirewall::rulesetDigest(text);

  std::optional<NetworkFirewall::LoadedRuleset> previous = readLoadedRuleset(env);
  bool enabled =
      NetworkFirewall::pfEnabled(pfctl.statusInfo().stdout) == NetworkFirewall::PfStatus::enabled;

  if (flushSubnets.empty() && previous) {
    HelperCommand::Result listing = pfctl.anchorListing();
    bool unchanged = listing.status == 0 && previous->anchorDigest &&
                     rulesDigest == previous->rulesDigest &&
                     NetworkFirewall::digest(listing.stdout) == *previous->anchorDigest &&
                     (policies.empty() || enabled);
    if (unchanged) return {summary, false};
  }

  createDirectories(stateDirectory(env));
  std::string anchorFile = env.paths.state(kAnchorFile);
  writeFileAtomically(anchorFile, text, 0644);

  cleanUpLegacyAnchor(host);

  int attempt = loadWithBusyRetry(host, pfctl, anchorFile);
  if (attempt > 1) {
    env.log.write("pf was busy; the ruleset loaded on attempt " + std::to_string(attempt) + ".");
  }

  std::optional<std::string> enabledInBoot =
      enableIfNeeded(host, pfctl, policies.size(), enabled, previous);

  std::set<std::string> loadedSubnets;
  for (const FirewallNetworkPolicy& policy : policies) loadedSubnets.insert(policy.subnetCIDR);
  for (const std::string& subnet : flushSubnets) {
    if (!loadedSubnets.contains(subnet)) continue;
    pfctl.killStatesFrom(subnet);
    pfctl.killStatesTo(subnet);
  }

  HelperCommand::Result listing = pfctl.anchorListing();
  std::optional<std::string> anchorDigest;
  if (listing.status == 0) anchorDigest = NetworkFirewall::digest(listing.stdout);

  recordLoadedRuleset(env,
                      NetworkFirewall::LoadedRuleset{rulesDigest, anchorDigest, enabledInBoot});
  env.log.write("Applied firewall. " + summary + ipv6Suffix(drops));
  return {summary, true};
}

void cleanUpLegacyAnchor(const FirewallHost& host) {
  const HelperEnvironment& env = host.env;
  std::optional<std::string> conf = readFile(env.paths.pfConf);
  bool readable = conf && decodeUTF8Lossy(*conf) == *conf;
  if (readable && conf->find(kLegacyAnchor) != std::string::npos) {
    std::vector<std::string> kept;
    for (std::string_view line : split(*conf, '\n', true)) {
      if (line.find(kLegacyAnchor) == std::string_view::npos) kept.emplace_back(line);
    }
    std::string backup = env.paths.state(kPfConfBackupFile);
    if (!pathExists(backup)) {
      try {
        createDirectories(stateDirectory(env));
      } catch (const FileError&) {
        // The write below fails as well and is ignored the same way.
      }
      try {
        writeFileAtomically(backup, *conf, 0644);
      } catch (const FileError&) {
        // A missing backup does not stop the clean-up.
      }
    }
    try {
      writeFileAtomically(env.paths.pfConf, join(kept, "\n"), permissionsOf(env.paths.pfConf));
    } catch (const FileError&) {
      // pf.conf keeps its legacy lines; the anchor file and the flush below still go.
    }
    env.log.write("Removed legacy anchor references from /etc/pf.conf.");
  }
  removeFile(env.paths.legacyAnchorFile);
  Pfctl(host).legacyFlush();
}

}  // namespace HelperFirewall
