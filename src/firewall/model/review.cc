#include "firewall/model/review.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdint>
#include <limits>

#include "platform/text.h"

namespace NetworkFirewall {

namespace {

constexpr std::array<std::uint8_t, 4> kVirtualNetworkRange{192, 168, 0, 0};
constexpr int kVirtualNetworkRangeBits = 16;
constexpr int kShortestSubnetPrefix = 20;
constexpr int kLongestSubnetPrefix = 30;

// Reads a decimal integer the way the application's number parsing does: an optional sign, then
// one or more ASCII digits and nothing else, within 64 bits.
std::optional<std::int64_t> decimalInteger(std::string_view text, bool allowMinus) {
  bool negative = false;
  if (!text.empty() && (text.front() == '+' || (allowMinus && text.front() == '-'))) {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  if (text.empty()) return std::nullopt;
  std::uint64_t value = 0;
  const std::uint64_t limit =
      static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) + (negative ? 1 : 0);
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    const auto digit = static_cast<std::uint64_t>(c - '0');
    if (value > (limit - digit) / 10) return std::nullopt;
    value = value * 10 + digit;
  }
  if (negative) return static_cast<std::int64_t>(0 - value);
  return static_cast<std::int64_t>(value);
}

// True for "bridge<n>" with n read as a decimal integer of 100 or more: the bridge of a virtual
// network rather than one of the host's own networks.
bool isVirtualNetworkBridge(std::string_view name) {
  constexpr std::string_view kPrefix = "bridge";
  if (name.substr(0, kPrefix.size()) != kPrefix) return false;
  std::optional<std::int64_t> number = decimalInteger(name.substr(kPrefix.size()), true);
  return number && *number >= 100;
}

void appendDecimal(std::string& out, unsigned value) {
  char digits[10];
  int count = 0;
  do {
    digits[count++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  while (count > 0) out += digits[--count];
}

}  // namespace

std::string_view trimmedField(std::string_view text) {
  // A printable ASCII character other than the space is never trimmed; anything else (blanks,
  // tabs, bytes of multi-byte characters) goes through the full test.
  auto kept = [](char c) { return c > ' ' && c < 0x7F; };
  if (text.empty() || (kept(text.front()) && kept(text.back()))) return text;
  return trimSpaces(text);
}

std::optional<std::array<std::uint8_t, 4>> parseIPv4(std::string_view text) {
  // The longest acceptable text is 255.255.255.255; an embedded NUL would end the text early.
  char buffer[INET_ADDRSTRLEN];
  if (text.size() >= sizeof buffer || text.find('\0') != std::string_view::npos) {
    return std::nullopt;
  }
  std::copy(text.begin(), text.end(), buffer);
  buffer[text.size()] = '\0';
  in_addr address{};
  if (inet_pton(AF_INET, buffer, &address) != 1) return std::nullopt;
  std::array<std::uint8_t, 4> bytes{};
  std::copy_n(reinterpret_cast<const std::uint8_t*>(&address.s_addr), 4, bytes.begin());
  return bytes;
}

std::optional<ParsedCIDR> parseCIDR(std::string_view text) {
  text = trimmedField(text);
  const std::size_t slash = text.find('/');
  std::string_view addressText = text.substr(0, slash);
  std::optional<std::array<std::uint8_t, 4>> address = parseIPv4(addressText);
  if (!address) return std::nullopt;
  ParsedCIDR parsed;
  parsed.address = *address;
  if (slash == std::string_view::npos) return parsed;
  std::string_view prefix = text.substr(slash + 1);
  if (prefix.empty() || prefix.size() > 2) return std::nullopt;  // also rejects a second "/"
  int value = 0;
  for (char c : prefix) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  if (value > 32) return std::nullopt;
  parsed.prefixLength = value;
  return parsed;
}

std::optional<std::string> canonicalSubnet(std::string_view text) {
  std::optional<ParsedCIDR> parsed = parseCIDR(text);
  if (!parsed) return std::nullopt;
  const int prefix = parsed->prefixLength;
  if (prefix < kShortestSubnetPrefix || prefix > kLongestSubnetPrefix) return std::nullopt;
  if (!prefixesMatch(parsed->address, kVirtualNetworkRange, kVirtualNetworkRangeBits)) {
    return std::nullopt;
  }
  std::array<std::uint8_t, 4> network = parsed->address;
  for (int i = 0; i < 4; ++i) {
    const int kept = std::clamp(prefix - 8 * i, 0, 8);
    network[i] &= static_cast<std::uint8_t>(0xFF00u >> kept);
  }
  std::string out = dottedQuad(network);
  out += '/';
  appendDecimal(out, static_cast<unsigned>(prefix));
  return out;
}

bool prefixesMatch(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b, int bits) {
  if (a.size() != b.size()) return false;
  const std::size_t count = std::min(static_cast<std::size_t>(std::max(bits, 0)), a.size() * 8);
  const std::size_t wholeBytes = count / 8;
  if (!std::equal(a.begin(), a.begin() + static_cast<std::ptrdiff_t>(wholeBytes), b.begin())) {
    return false;
  }
  const std::size_t rest = count % 8;
  if (rest == 0) return true;
  const auto mask = static_cast<std::uint8_t>(0xFF00u >> rest);
  return ((a[wholeBytes] ^ b[wholeBytes]) & mask) == 0;
}

std::string dottedQuad(std::span<const std::uint8_t> bytes) {
  std::string out;
  out.reserve(bytes.size() * 4);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i > 0) out += '.';
    appendDecimal(out, bytes[i]);
  }
  return out;
}

namespace {

// The host addresses the overlap test looks at: IPv4 ones, virtual networks' bridges left out.
std::vector<const HostAddress*> ownIPv4Networks(const std::vector<HostAddress>& hosts) {
  std::vector<const HostAddress*> considered;
  for (const HostAddress& host : hosts) {
    if (host.bytes.size() == 4 && !isVirtualNetworkBridge(host.interface)) {
      considered.push_back(&host);
    }
  }
  return considered;
}

// subnetProblem over host addresses already narrowed by ownIPv4Networks.
std::optional<std::string> subnetProblemAmong(std::string_view subnet,
                                              const std::vector<const HostAddress*>& considered) {
  std::optional<std::string> canonical = canonicalSubnet(subnet);
  std::optional<ParsedCIDR> parsed = canonical ? parseCIDR(*canonical) : std::nullopt;
  if (!parsed) {
    std::string problem = "the subnet \"";
    problem += subnet;
    problem +=
        "\" isn't one macOS gives a virtual network (a /24 such as 192.168.64.0/24, inside "
        "192.168.0.0/16), so its rules can't be keyed on it.";
    return problem;
  }
  for (const HostAddress* host : considered) {
    if (prefixesMatch(host->bytes, parsed->address,
                      std::min(host->prefixLength, parsed->prefixLength))) {
      return *canonical + " overlaps " + host->interface + " (" + dottedQuad(host->bytes) +
             "), one of this Mac's own networks; rules there would cut the Mac off from it.";
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> subnetProblem(std::string_view subnet,
                                         const std::vector<HostAddress>& hosts) {
  return subnetProblemAmong(subnet, ownIPv4Networks(hosts));
}

std::optional<std::string> normalizedRemote(std::string_view text) {
  // Letters matter only for "any": an address or CIDR has none, so it is parsed as it stands.
  const std::string_view trimmed = trimmedField(text);
  if (trimmed.empty() || (trimmed.size() == 3 && asciiLowercased(trimmed) == "any")) {
    return std::string("any");
  }
  std::optional<ParsedCIDR> parsed = parseCIDR(trimmed);
  if (!parsed) return std::nullopt;
  std::string out = dottedQuad(parsed->address);
  out += '/';
  appendDecimal(out, static_cast<unsigned>(parsed->prefixLength));
  return out;
}

std::optional<std::string> normalizedPorts(std::string_view text) {
  text = trimmedField(text);
  if (text.empty()) return std::nullopt;
  std::size_t pieces = 0;
  std::size_t kept = 0;
  std::int64_t values[2] = {0, 0};
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find_first_of("-:", start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view piece = text.substr(start, end - start);
    start = end + 1;
    if (piece.empty()) continue;
    ++pieces;
    std::optional<std::int64_t> value = decimalInteger(piece, false);
    if (!value || *value < 1 || *value > 65535) continue;
    if (kept < 2) values[kept] = *value;
    ++kept;
  }
  if (kept != pieces || kept == 0 || kept > 2) return std::nullopt;
  std::string out;
  appendDecimal(out, static_cast<unsigned>(values[0]));
  if (kept == 2) {
    if (values[1] < values[0]) return std::nullopt;
    out += ':';
    appendDecimal(out, static_cast<unsigned>(values[1]));
  }
  return out;
}

std::optional<std::string> ruleProblem(const FirewallRule& rule) {
  if (!normalizedRemote(rule.remoteCIDR)) {
    return "\"" + rule.remoteCIDR + "\" isn't an IPv4 address or CIDR (such as 10.0.0.0/8).";
  }
  if (FirewallRule::carriesPorts(rule.proto) && !trimmedField(rule.ports).empty() &&
      !normalizedPorts(rule.ports)) {
    return "\"" + rule.ports + "\" isn't a port or port range (1-65535, such as 443 or 8000-8080).";
  }
  return std::nullopt;
}

std::vector<Review::Note> skippedRuleNotes(const std::vector<FirewallRule>& rules,
                                           const FirewallNetworkPolicy& network,
                                           std::string_view name) {
  std::vector<Review::Note> notes;
  for (std::size_t i = 0; i < rules.size(); ++i) {
    if (!rules[i].enabled) continue;
    std::optional<std::string> problem = ruleProblem(rules[i]);
    if (!problem) continue;
    std::string label(name);
    label += ", rule ";
    label += std::to_string(i + 1);
    notes.push_back({network.networkID, std::move(label), std::move(*problem)});
  }
  return notes;
}

Review review(const std::vector<FirewallNetworkPolicy>& networks,
              const std::vector<HostAddress>& hosts) {
  Review out;
  out.enforceable.reserve(networks.size());
  const std::vector<const HostAddress*> considered = ownIPv4Networks(hosts);
  for (const FirewallNetworkPolicy& network : networks) {
    if (!network.policy.enabled) continue;
    if (std::optional<std::string> problem = subnetProblemAmong(network.subnetCIDR, considered)) {
      out.refused.push_back({network.networkID, network.name, std::move(*problem)});
      continue;
    }
    FirewallNetworkPolicy reviewed = network;
    reviewed.subnetCIDR = *canonicalSubnet(network.subnetCIDR);
    const ParsedCIDR subnet = *parseCIDR(reviewed.subnetCIDR);
    std::optional<std::string> gateway;
    if (network.gatewayIPv4) {
      std::optional<std::array<std::uint8_t, 4>> address = parseIPv4(*network.gatewayIPv4);
      if (address && prefixesMatch(*address, subnet.address, subnet.prefixLength) &&
          *address != subnet.address) {
        gateway = dottedQuad(*address);
      }
    }
    reviewed.gatewayIPv4 = std::move(gateway);
    std::vector<Review::Note> skipped =
        skippedRuleNotes(reviewed.policy.rules, reviewed, reviewed.name);
    out.enforceable.push_back(std::move(reviewed));
    out.skippedRules.insert(out.skippedRules.end(), std::make_move_iterator(skipped.begin()),
                            std::make_move_iterator(skipped.end()));
  }
  return out;
}

std::string rendered(const Review::Note& note) {
  return note.label + ": " + note.problem;
}

}  // namespace NetworkFirewall
