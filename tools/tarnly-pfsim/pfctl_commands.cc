#include "pfctl_commands.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>

#include "pf_ruleset_parser.h"
#include "pf_state.h"

namespace {

constexpr const char* altqNoise = "No ALTQ support in kernel\nALTQ related functions disabled\n";

constexpr const char* loadNoise =
    "pfctl: Use of -f option, could result in flushing of rules\n"
    "present in the main ruleset added by the system at startup.\n"
    "See /etc/pf.conf for further details.\n"
    "\n"
    "No ALTQ support in kernel\n"
    "ALTQ related functions disabled\n";

constexpr const char* usage =
    "usage: pfctl [-AdeghMmNnOqRrvz] [-a anchor] [-D macro=value] [-F modifier]\n"
    "\t[-f file] [-i interface] [-K host | network]\n"
    "\t[-k host | network] [-o level] [-p device]\n"
    "\t[-s modifier] [-t table -T command [address ...]] [-x level]\n";

PfctlOutput failure(std::string message) {
  return PfctlOutput{1, "", std::move(message)};
}

// Reads a whole file, or gives the errno of the failed call.
std::optional<std::string> readRuleFile(const std::string& path, int& error) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    error = errno;
    return std::nullopt;
  }
  std::string data;
  char buffer[65536];
  while (true) {
    ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0) {
      if (errno == EINTR) continue;
      error = errno;
      ::close(fd);
      return std::nullopt;
    }
    if (got == 0) break;
    data.append(buffer, static_cast<size_t>(got));
  }
  ::close(fd);
  return data;
}

PfctlOutput statusInfo(const PfState& state) {
  char text[512];
  std::string status = state.enabled() ? "Status: Enabled for 0 days 00:00:00"
                                       : "Status: Disabled for 0 days 00:00:00";
  int length = std::snprintf(text, sizeof text,
                             "%-44s%15s\n\n"
                             "%-27s %14s %16s\n"
                             "  %-25s %14zu\n"
                             "  %-25s %14u %14.1f/s\n"
                             "  %-25s %14u %14.1f/s\n"
                             "  %-25s %14u %14.1f/s\n",
                             status.c_str(), "Debug: Urgent", "State Table", "Total", "Rate",
                             "current entries", state.connections().size(), "searches", 0u, 0.0,
                             "inserts", 0u, 0.0, "removals", 0u, 0.0);
  return PfctlOutput{0, std::string(text, static_cast<size_t>(length)), altqNoise};
}

PfctlOutput anchorListing(const PfState& state, const std::string& anchor, bool verbose) {
  auto text = state.anchorRuleset(anchor);
  std::string listing;
  if (text) listing = pfRulesListing(parsePfRuleset(*text).rules, verbose);
  return PfctlOutput{0, listing, altqNoise};
}

PfctlOutput loadAnchor(PfState& state, const std::string& anchor, const std::string& file) {
  int error = 0;
  auto text = readRuleFile(file, error);
  if (!text) {
    return failure(
        "pfctl: cannot open the main config file!: " + std::string(std::strerror(error)) +
        "\npfctl: Syntax error in config file: pf rules not loaded\n");
  }
  PfRulesetParse parse = parsePfRuleset(*text);
  if (!parse.accepted()) {
    return failure(file + ":" + std::to_string(parse.errorLine) + ": " + parse.errorMessage +
                   "\npfctl: Syntax error in config file: pf rules not loaded\n");
  }
  // The kernel refuses the commit only after the file has been read.
  int busy = state.busyLoads();
  if (busy > 0) {
    state.setBusyLoads(busy - 1);
    return failure("pfctl: DIOCXCOMMIT: Resource busy\n");
  }
  state.setAnchorRuleset(anchor, *text);
  return PfctlOutput{0, "", loadNoise};
}

PfctlOutput enable(PfState& state) {
  if (state.enabled())
    return PfctlOutput{0, "", std::string(altqNoise) + "pfctl: pf already enabled\n"};
  state.setEnabled(true);
  return PfctlOutput{0, "", std::string(altqNoise) + "pf enabled\n"};
}

// Drops the states whose source lies in `source` and whose destination lies in `destination`.
PfctlOutput killStates(PfState& state, const std::string& source,
                       const std::optional<std::string>& destination) {
  auto from = parsePfHost(source);
  if (!from) return failure("pfctl: no IP address found for " + source + "\n");
  PfAddress to;
  if (destination) {
    auto parsed = parsePfHost(*destination);
    if (!parsed) return failure("pfctl: no IP address found for " + *destination + "\n");
    to = *parsed;
  }
  auto inside = [](const PfAddress& network, const std::string& text) {
    auto address = parsePfHost(text);
    return address && address->prefixLength == 32 && pfNetworkContains(network, address->address);
  };
  std::vector<PfConnection> kept;
  int killed = 0;
  for (const PfConnection& connection : state.connections()) {
    if (inside(*from, connection.first) && inside(to, connection.second)) {
      ++killed;
    } else {
      kept.push_back(connection);
    }
  }
  if (killed > 0) state.setConnections(kept);
  return PfctlOutput{0, "",
                     std::string(altqNoise) + "killed " + std::to_string(killed) +
                         " states from 1 sources and " + (destination ? "1" : "0") +
                         " destinations\n"};
}

PfctlOutput dispatch(PfState& state, const std::vector<std::string>& a) {
  size_t n = a.size();
  if (n == 1 && a[0] == "-si") return statusInfo(state);
  if (n == 1 && a[0] == "-sr") return PfctlOutput{0, state.mainRuleset(), altqNoise};
  if (n == 1 && a[0] == "-E") return enable(state);
  if (n == 2 && a[0] == "-k") return killStates(state, a[1], std::nullopt);
  if (n == 4 && a[0] == "-k" && a[2] == "-k") return killStates(state, a[1], a[3]);
  if (n >= 3 && a[0] == "-a" && !a[1].empty()) {
    const std::string& anchor = a[1];
    if (n == 3 && a[2] == "-sr") return anchorListing(state, anchor, false);
    if (n == 4 && a[2] == "-v" && a[3] == "-sr") return anchorListing(state, anchor, true);
    if (n == 4 && a[2] == "-f") return loadAnchor(state, anchor, a[3]);
    if (n == 4 && a[2] == "-F" && a[3] == "rules") {
      state.flushAnchor(anchor);
      return PfctlOutput{0, "", std::string(altqNoise) + "rules cleared\n"};
    }
  }
  return failure(usage);
}

}  // namespace

PfctlOutput runPfctl(const std::string& stateDirectory, const std::vector<std::string>& arguments) {
  try {
    PfState state(stateDirectory);
    state.recordInvocation(arguments);
    return dispatch(state, arguments);
  } catch (const std::exception& error) {
    return failure("pfctl: " + std::string(error.what()) + "\n");
  }
}
