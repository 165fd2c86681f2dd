// The review of networks against this machine's own interface addresses: which networks can be
// enforced (in canonical form), which are refused and which rules are skipped, with the IPv4 text
// helpers it rests on. Pure computation apart from hostAddresses; nothing here throws.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/model/firewall_records.h"

namespace NetworkFirewall {

// One address of one of the host's interfaces.
struct HostAddress {
  std::string interface;
  std::vector<std::uint8_t> bytes;  // network order: 4 bytes (IPv4) or 16 (IPv6)
  int prefixLength = 0;             // 32 or 128 when the interface reports no netmask

  bool operator==(const HostAddress&) const = default;
};

struct ParsedCIDR {
  std::array<std::uint8_t, 4> address{};
  int prefixLength = 32;  // 0 to 32

  bool operator==(const ParsedCIDR&) const = default;
};

struct Review {
  struct Note {
    Uuid networkID;
    std::string label;    // network name, or "<name>, rule <n>"
    std::string problem;  // one of the fixed problem texts

    bool operator==(const Note&) const = default;
  };

  std::vector<FirewallNetworkPolicy> enforceable;  // canonical subnet, cleaned gateway
  std::vector<Note> refused;
  std::vector<Note> skippedRules;
};

// The host's interface addresses in the system's order (getifaddrs); empty when that fails.
std::vector<HostAddress> hostAddresses();

// Four decimal octets exactly as inet_pton reads them; the text is not trimmed.
std::optional<std::array<std::uint8_t, 4>> parseIPv4(std::string_view text);
// "<address>" (prefix 32) or "<address>/<one or two digits up to 32>", after trimming.
std::optional<ParsedCIDR> parseCIDR(std::string_view text);
// "<network>/<p>" with host bits cleared, 20 <= p <= 30, inside 192.168.0.0/16.
std::optional<std::string> canonicalSubnet(std::string_view text);
// True when the first min(bits, 8 * length) bits agree; false for arrays of different lengths.
bool prefixesMatch(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b, int bits);
std::string dottedQuad(std::span<const std::uint8_t> bytes);

std::optional<std::string> subnetProblem(std::string_view subnet,
                                         const std::vector<HostAddress>& hosts);
// "any" or "<a.b.c.d>/<p>" (host bits kept).
std::optional<std::string> normalizedRemote(std::string_view text);
// "<p>" or "<a>:<b>".
std::optional<std::string> normalizedPorts(std::string_view text);
std::optional<std::string> ruleProblem(const FirewallRule& rule);
std::vector<Review::Note> skippedRuleNotes(const std::vector<FirewallRule>& rules,
                                           const FirewallNetworkPolicy& network,
                                           std::string_view name);
Review review(const std::vector<FirewallNetworkPolicy>& networks,
              const std::vector<HostAddress>& hosts);

// trimSpaces (space separators and tabs, not line breaks), quicker for text that has nothing to
// trim at either end.
std::string_view trimmedField(std::string_view text);

// "<label>: <problem>", the form in which notes reach users and the log.
std::string rendered(const Review::Note& note);

}  // namespace NetworkFirewall
