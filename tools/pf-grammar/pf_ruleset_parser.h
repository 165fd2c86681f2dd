// The pf rule grammar of the helper's anchor: the line shapes the helper writes, read as strictly
// as pfctl reads them, and pf's listing of the loaded rules. Shared by the pf simulator and the
// nftables front end.
// Pure functions of their arguments; safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// An address clause: `any`, or an IPv4 address with a prefix length (32 when none was written).
struct PfAddress {
  bool any = true;
  uint32_t address = 0;  // host byte order
  int prefixLength = 0;
};

// A port clause: one port (low == high, range false) or an inclusive range written low:high.
struct PfPort {
  unsigned low = 0;
  unsigned high = 0;
  bool range = false;
};

// One side of a rule: its addresses (a list already flattened, in written order) and its port.
struct PfEndpoint {
  std::vector<PfAddress> addresses;
  std::optional<PfPort> port;
};

// One rule line as written (before lists are expanded).
struct PfRule {
  bool pass = true;       // false: block drop
  std::string direction;  // "in", "out", or empty for both
  std::string interface;  // empty without `on`
  bool inet6 = false;
  std::string protocol;  // "tcp", "udp", "icmp", or empty
  PfEndpoint from;
  PfEndpoint to;
  bool keepState = false;
};

// The outcome of reading a ruleset: the rules, or the first refused line (1-based) and pfctl's
// message for it ("syntax error" for anything outside the grammar).
struct PfRulesetParse {
  std::vector<PfRule> rules;
  int errorLine = 0;
  std::string errorMessage;
  bool accepted() const { return errorLine == 0; }
};

// Reads a ruleset: comment lines, empty lines and rules of the form
//   (pass | block drop) [in | out] quick [on IFNAME] [inet6] [proto (tcp|udp|icmp)]
//   (all | from ADDR [port PORT] to ADDR [port PORT]) [keep state]
// ADDR is any, an IPv4 address, IPv4/prefix, or a braced list of them; PORT is 1-65535 or a:b.
// A `#` starts a comment anywhere on a line, as in pf.conf.
PfRulesetParse parsePfRuleset(std::string_view text);

// An IPv4 address or IPv4/prefix written as pfctl takes it (dotted quad, no leading zeros,
// prefix 0-32); nothing otherwise.
std::optional<PfAddress> parsePfHost(std::string_view word);

// True when `address` (host byte order) lies in the network, or the network is `any`.
bool pfNetworkContains(const PfAddress& network, uint32_t address);

// What pf counted for a rule.
struct PfCounters {
  uint64_t evaluations = 0;
  uint64_t packets = 0;
  uint64_t bytes = 0;
  uint64_t states = 0;
};

// The rules as `pfctl -sr` lists them: one line per expanded rule, each followed by a counters
// line (all zero) when `verbose` is set.
std::string pfRulesListing(const std::vector<PfRule>& rules, bool verbose);

// One rule as `pfctl -sr` lists it, each expanded line followed by a line with `counters` when
// given (`pfctl -v -sr`).
std::string pfRuleListing(const PfRule& rule, const PfCounters* counters);

// The rule written back as one line of the grammar (lists braced, no comment), which
// parsePfRuleset reads as the same rule.
std::string pfRuleText(const PfRule& rule);
