#include "firewall/model/ruleset.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <initializer_list>
#include <memory>
#include <numeric>
#include <span>
#include <unordered_map>

#include "firewall/model/one_line.h"
#include "platform/text.h"

namespace NetworkFirewall {

namespace {

// "bridge" followed by 1 to 5 ASCII digits and nothing else.
bool isBridgeName(std::string_view name) {
  constexpr std::string_view kPrefix = "bridge";
  if (name.size() <= kPrefix.size() || name.size() > kPrefix.size() + 5) return false;
  if (name.substr(0, kPrefix.size()) != kPrefix) return false;
  return std::all_of(name.begin() + kPrefix.size(), name.end(),
                     [](char c) { return c >= '0' && c <= '9'; });
}

std::vector<std::string> sortedDistinct(std::vector<std::string> names) {
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

// Appends the lines of one rule, each ending with a line feed; nothing for an unusable rule.
void appendRuleLines(std::string& out, const FirewallRule& rule, std::string_view subnet) {
  std::optional<std::string> remote = normalizedRemote(rule.remoteCIDR);
  if (!remote) return;
  std::optional<std::string> ports;
  if (FirewallRule::carriesPorts(rule.proto) && !trimmedField(rule.ports).empty()) {
    ports = normalizedPorts(rule.ports);
    if (!ports) return;
  }
  std::array<std::string_view, 2> protocols{};
  std::size_t protocolCount = 1;
  switch (rule.proto) {
    case FirewallRule::Proto::any:
      if (ports) {
        protocols = {"tcp", "udp"};
        protocolCount = 2;
      }
      break;
    case FirewallRule::Proto::tcp:
      protocols[0] = "tcp";
      break;
    case FirewallRule::Proto::udp:
      protocols[0] = "udp";
      break;
    case FirewallRule::Proto::icmp:
      protocols[0] = "icmp";
      break;
  }
  const bool allow = rule.action == FirewallRule::Action::allow;
  const bool inbound = rule.direction == FirewallRule::Direction::inbound;
  const std::string_view source = inbound ? std::string_view(*remote) : subnet;
  const std::string_view destination = inbound ? subnet : std::string_view(*remote);
  for (std::size_t i = 0; i < protocolCount; ++i) {
    out += allow ? "pass" : "block drop";
    out += inbound ? " out quick" : " in quick";
    if (!protocols[i].empty()) {
      out += " proto ";
      out += protocols[i];
    }
    out += " from ";
    out += source;
    out += " to ";
    out += destination;
    if (ports) {
      out += " port ";
      out += *ports;
    }
    if (allow) out += " keep state";
    out += '\n';
  }
}

void appendAll(std::string& out, std::initializer_list<std::string_view> pieces) {
  for (std::string_view piece : pieces) out += piece;
}

// Appends the block of one network, or nothing when its policy is off or its subnet unusable.
void appendNetwork(std::string& out, const FirewallNetworkPolicy& network,
                   const IPv6DropMap& drops) {
  if (!network.policy.enabled) return;
  std::optional<std::string> canonical = canonicalSubnet(network.subnetCIDR);
  if (!canonical) return;
  const std::string& subnet = *canonical;

  out += "# --- ";
  appendOnOneLine(out, network.name);
  out += " (";
  out += subnet;
  out += ") ---\n";

  if (auto found = drops.find(network.networkID); found != drops.end()) {
    for (const std::string& name : sortedDistinct(found->second)) {
      if (!isBridgeName(name)) continue;
      out += "block drop quick on ";
      out += name;
      out += " inet6 all\n";
    }
  }

  std::optional<std::array<std::uint8_t, 4>> gateway;
  if (network.gatewayIPv4) gateway = parseIPv4(*network.gatewayIPv4);
  std::optional<std::string> dhcpGateway =
      gateway ? std::optional<std::string>(dottedQuad(*gateway)) : defaultGateway(subnet);
  if (dhcpGateway) {
    appendAll(out, {"pass in quick proto udp from ", subnet, " port 68 to { ", *dhcpGateway,
                    ", 255.255.255.255 } port 67 keep state\n"});
    appendAll(out, {"pass out quick proto udp from ", *dhcpGateway, " port 67 to ", subnet,
                    " port 68\n"});
  }
  if (gateway && network.dnsProxyEnabled) {
    const std::string dns = dottedQuad(*gateway);
    for (std::string_view protocol : {"udp", "tcp"}) {
      appendAll(out, {"pass in quick proto ", protocol, " from ", subnet, " to ", dns,
                      "/32 port 53 keep state\n"});
    }
  }

  for (const FirewallRule& rule : network.policy.rules) {
    if (rule.enabled) appendRuleLines(out, rule, subnet);
  }

  if (network.policy.defaultOutbound == FirewallRule::Action::allow) {
    appendAll(out, {"pass in quick from ", subnet, " to any keep state\n"});
  } else {
    appendAll(out, {"block drop in quick from ", subnet, " to any\n"});
  }
  if (network.policy.defaultInbound == FirewallRule::Action::allow) {
    appendAll(out, {"pass out quick from any to ", subnet, " keep state\n"});
  } else {
    appendAll(out, {"block drop out quick from any to ", subnet, "\n"});
  }
  out += '\n';
}

using DigestContext = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

// Feeds pieces to SHA-256 and renders the result. Should the library fail (short of memory),
// the result is the empty text, which equals no recorded digest, so a ruleset is never taken
// for one already loaded.
class Sha256 {
 public:
  Sha256() : context_(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
    ok_ = context_ && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1;
  }
  void update(std::string_view bytes) {
    if (ok_ && !bytes.empty())
      ok_ = EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1;
  }
  std::string hex() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> sum{};
    unsigned int length = 0;
    if (!ok_ || EVP_DigestFinal_ex(context_.get(), sum.data(), &length) != 1) {
      return "";
    }
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(std::size_t{length} * 2);
    for (unsigned int i = 0; i < length; ++i) {
      out += kDigits[sum[i] >> 4];
      out += kDigits[sum[i] & 0x0F];
    }
    return out;
  }

 private:
  DigestContext context_;
  bool ok_ = false;
};

}  // namespace

std::optional<std::string> defaultGateway(std::string_view subnet) {
  std::optional<std::string> canonical = canonicalSubnet(subnet);
  if (!canonical) return std::nullopt;
  std::optional<ParsedCIDR> parsed = parseCIDR(*canonical);
  if (!parsed) return std::nullopt;
  parsed->address[3] |= 1;
  return dottedQuad(parsed->address);
}

namespace {

std::uint32_t addressKey(std::span<const std::uint8_t> bytes) {
  return (std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) |
         (std::uint32_t{bytes[2]} << 8) | std::uint32_t{bytes[3]};
}

// The bridges among the host addresses, by the IPv4 address they hold: sorted and distinct.
std::unordered_map<std::uint32_t, std::vector<std::string>> bridgesByAddress(
    const std::vector<HostAddress>& hosts) {
  std::unordered_map<std::uint32_t, std::vector<std::string>> index;
  for (const HostAddress& host : hosts) {
    if (host.bytes.size() == 4 && isBridgeName(host.interface)) {
      index[addressKey(host.bytes)].push_back(host.interface);
    }
  }
  for (auto& entry : index) entry.second = sortedDistinct(std::move(entry.second));
  return index;
}

}  // namespace

std::vector<std::string> bridgesCarrying(std::string_view address,
                                         const std::vector<HostAddress>& hosts) {
  std::optional<std::array<std::uint8_t, 4>> bytes = parseIPv4(address);
  if (!bytes) return {};
  std::vector<std::string> names;
  for (const HostAddress& host : hosts) {
    if (host.bytes.size() == 4 &&
        std::equal(host.bytes.begin(), host.bytes.end(), bytes->begin()) &&
        isBridgeName(host.interface)) {
      names.push_back(host.interface);
    }
  }
  return sortedDistinct(std::move(names));
}

IPv6DropMap ipv6DropInterfaces(const std::vector<FirewallNetworkPolicy>& networks,
                               const std::vector<HostAddress>& hosts) {
  // Same answers as bridgesCarrying for each network, with the hosts indexed once.
  const auto bridges = bridgesByAddress(hosts);
  IPv6DropMap drops;
  for (const FirewallNetworkPolicy& network : networks) {
    if (!network.policy.enabled || network.keepsIPv6.value_or(false)) continue;
    if (!canonicalSubnet(network.subnetCIDR)) continue;
    std::optional<std::string> gateway =
        network.gatewayIPv4 ? network.gatewayIPv4 : defaultGateway(network.subnetCIDR);
    if (!gateway) continue;
    std::optional<std::array<std::uint8_t, 4>> address = parseIPv4(*gateway);
    if (!address) continue;
    auto found = bridges.find(addressKey(*address));
    if (found != bridges.end()) drops[network.networkID] = found->second;
  }
  return drops;
}

std::vector<std::string> ruleLines(const FirewallRule& rule, std::string_view subnet) {
  std::string text;
  appendRuleLines(text, rule, subnet);
  const std::vector<std::string_view> pieces = split(text, '\n', false);
  return std::vector<std::string>(pieces.begin(), pieces.end());
}

std::string ruleset(const std::vector<FirewallNetworkPolicy>& networks, const IPv6DropMap& drops,
                    TimePoint generatedAt) {
  const std::size_t rules = std::accumulate(
      networks.begin(), networks.end(), std::size_t{0},
      [](std::size_t sum, const FirewallNetworkPolicy& n) { return sum + n.policy.rules.size(); });
  std::string out;
  out.reserve(256 + networks.size() * 640 + rules * 96);
  out += "# Tarnly network firewall - generated ";
  out += iso8601(generatedAt);
  out += ".\n";
  out +=
      "# Loaded into pf anchor \"com.apple/900.tarnly.firewall\" by TarnlyAdminHelper. Do not "
      "edit.\n";
  out += '\n';
  // Every line, the empty ones included, ends with a line feed: the lines joined by line feeds
  // with one more at the end.
  for (const FirewallNetworkPolicy& network : networks) appendNetwork(out, network, drops);
  return out;
}

std::string digest(std::string_view text) {
  Sha256 sha;
  sha.update(text);
  return sha.hex();
}

std::string rulesetDigest(std::string_view text) {
  Sha256 sha;
  bool first = true;
  std::size_t start = 0;
  while (true) {
    const std::size_t end = text.find('\n', start);
    const std::string_view piece =
        text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
    const std::string_view trimmed = trimmedField(piece);
    if (trimmed.empty() || trimmed.front() != '#') {
      if (!first) sha.update("\n");
      sha.update(piece);
      first = false;
    }
    if (end == std::string_view::npos) break;
    start = end + 1;
  }
  return sha.hex();
}

}  // namespace NetworkFirewall
