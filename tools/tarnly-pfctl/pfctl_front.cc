#include "pfctl_front.h"

#include <unistd.h>

#include <cstdio>
#include <exception>
#include <optional>

#include "conntrack_states.h"
#include "nft_ruleset.h"
#include "nft_session.h"
#include "pf_ruleset_parser.h"
#include "platform/files.h"

namespace {

// The one anchor carried into the kernel; every other anchor is empty.
const std::string carriedAnchor = "com.apple/900.tarnly.firewall";

constexpr const char* usage =
    "usage: pfctl [-AdeghMmNnOqRrvz] [-a anchor] [-D macro=value] [-F modifier]\n"
    "\t[-f file] [-i interface] [-K host | network]\n"
    "\t[-k host | network] [-o level] [-p device]\n"
    "\t[-s modifier] [-t table -T command [address ...]] [-x level]\n";

PfctlAnswer failure(const std::string& message) {
  return PfctlAnswer{1, "", message + "\n"};
}

// The first line of a libnftables message (the rest repeats the command).
std::string firstLine(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

// Raised when the kernel cannot be asked at all; its text is the one line printed.
struct Unavailable {
  std::string message;
};

// The table's chains (whether it exists and pf is on), and its rules when `withRules`.
NftTableState readTable(NftSession& nft, bool withRules = false) {
  NftSession::Result chains = nft.run("list chains inet", true);
  if (!chains.ok) {
    throw Unavailable{"pfctl: nf_tables is not available in this kernel: " +
                      firstLine(chains.error)};
  }
  NftTableState state = nftTableStateFromJson(chains.output);
  if (!withRules || !state.exists) return state;
  NftSession::Result table = nft.run("list table inet " + std::string(nftTableName), true);
  if (!table.ok) {
    // Deleted between the two readings: nothing is there.
    if (table.error.find("No such file or directory") != std::string::npos) return {};
    throw Unavailable{"pfctl: cannot read the firewall table: " + firstLine(table.error)};
  }
  return nftTableStateFromJson(table.output);
}

PfctlAnswer statusInfo(NftSession& nft) {
  NftTableState table = readTable(nft);
  char text[512];
  std::string status = table.enabled ? "Status: Enabled for 0 days 00:00:00"
                                     : "Status: Disabled for 0 days 00:00:00";
  int length = std::snprintf(text, sizeof text,
                             "%-44s%15s\n\n"
                             "%-27s %14s %16s\n"
                             "  %-25s %14zu\n",
                             status.c_str(), "Debug: Urgent", "State Table", "Total", "Rate",
                             "current entries", conntrackStateCount());
  return PfctlAnswer{0, std::string(text, static_cast<size_t>(length)), ""};
}

PfctlAnswer mainRules(NftSession& nft) {
  if (!readTable(nft).enabled) return PfctlAnswer{};
  return PfctlAnswer{0, "anchor \"" + carriedAnchor + "\" all\n", ""};
}

PfctlAnswer anchorListing(NftSession& nft, const std::string& anchor, bool verbose) {
  if (anchor != carriedAnchor) return PfctlAnswer{};
  std::string listing;
  for (const NftLoadedRule& loaded : readTable(nft, true).rules) {
    listing += pfRuleListing(loaded.rule, verbose ? &loaded.counters : nullptr);
  }
  return PfctlAnswer{0, listing, ""};
}

// Replaces the anchor with `rules`, keeping pf on or off as it is.
PfctlAnswer replaceAnchor(NftSession& nft, const std::vector<PfRule>& rules) {
  NftTableState table = readTable(nft);
  std::string error;
  auto script = nftLoadScript(rules, table.enabled, error);
  if (!script) return failure("pfctl: " + error + "\npfctl: pf rules not loaded");
  NftSession::Result loaded = nft.run(*script);
  if (!loaded.ok) return failure("pfctl: DIOCXCOMMIT: " + firstLine(loaded.error));
  return PfctlAnswer{};
}

PfctlAnswer loadAnchor(NftSession& nft, const std::string& anchor, const std::string& file) {
  if (anchor != carriedAnchor) {
    return failure("pfctl: anchor " + anchor + " is not carried into the kernel");
  }
  auto text = readFile(file);
  if (!text) {
    return failure("pfctl: cannot open the main config file!: " + file +
                   "\npfctl: Syntax error in config file: pf rules not loaded");
  }
  PfRulesetParse parse = parsePfRuleset(*text);
  if (!parse.accepted()) {
    return failure(file + ":" + std::to_string(parse.errorLine) + ": " + parse.errorMessage +
                   "\npfctl: Syntax error in config file: pf rules not loaded");
  }
  return replaceAnchor(nft, parse.rules);
}

PfctlAnswer flushAnchor(NftSession& nft, const std::string& anchor) {
  if (anchor == carriedAnchor && readTable(nft).exists) {
    PfctlAnswer answer = replaceAnchor(nft, {});
    if (answer.status != 0) return answer;
  }
  return PfctlAnswer{0, "", "rules cleared\n"};
}

PfctlAnswer enable(NftSession& nft) {
  NftTableState table = readTable(nft);
  if (table.enabled) return PfctlAnswer{0, "", "pfctl: pf already enabled\n"};
  std::string script = nftEnableScript(table);
  // Base chains half there (one deleted by hand) are made again whole.
  if (table.exists) {
    script = "add chain inet " + std::string(nftTableName) + " pf_in\ndelete chain inet " +
             nftTableName + " pf_in\nadd chain inet " + nftTableName +
             " pf_out\ndelete chain inet " + nftTableName + " pf_out\n" + script;
  }
  NftSession::Result enabled = nft.run(script);
  if (!enabled.ok) return failure("pfctl: cannot enable pf: " + firstLine(enabled.error));
  return PfctlAnswer{0, "", "pf enabled\n"};
}

PfctlAnswer killStates(const std::string& source, const std::optional<std::string>& destination) {
  auto from = parsePfHost(source);
  if (!from) return failure("pfctl: no IP address found for " + source);
  PfAddress to;
  if (destination) {
    auto parsed = parsePfHost(*destination);
    if (!parsed) return failure("pfctl: no IP address found for " + *destination);
    to = *parsed;
  }
  std::string error;
  auto killed = conntrackKill(*from, to, error);
  if (!killed) return failure("pfctl: " + error);
  return PfctlAnswer{0, "",
                     "killed " + std::to_string(*killed) + " states from 1 sources and " +
                         (destination ? "1" : "0") + " destinations\n"};
}

PfctlAnswer dispatch(const std::vector<std::string>& a) {
  // pfctl's own answer to a user who may not open pf.
  if (::geteuid() != 0) return failure("pfctl: /dev/pf: Permission denied");
  size_t n = a.size();
  if (n == 2 && a[0] == "-k") return killStates(a[1], std::nullopt);
  if (n == 4 && a[0] == "-k" && a[2] == "-k") return killStates(a[1], a[3]);
  NftSession nft;
  if (n == 1 && a[0] == "-si") return statusInfo(nft);
  if (n == 1 && a[0] == "-sr") return mainRules(nft);
  if (n == 1 && a[0] == "-E") return enable(nft);
  if (n >= 3 && a[0] == "-a" && !a[1].empty()) {
    const std::string& anchor = a[1];
    if (n == 3 && a[2] == "-sr") return anchorListing(nft, anchor, false);
    if (n == 4 && a[2] == "-v" && a[3] == "-sr") return anchorListing(nft, anchor, true);
    if (n == 4 && a[2] == "-f") return loadAnchor(nft, anchor, a[3]);
    if (n == 4 && a[2] == "-F" && a[3] == "rules") return flushAnchor(nft, anchor);
  }
  return PfctlAnswer{1, "", usage};
}

}  // namespace

PfctlAnswer answerPfctl(const std::vector<std::string>& arguments) {
  try {
    return dispatch(arguments);
  } catch (const Unavailable& unavailable) {
    return failure(unavailable.message);
  } catch (const std::exception& error) {
    return failure("pfctl: " + std::string(error.what()));
  }
}
