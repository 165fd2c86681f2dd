#include "nft_ruleset.h"

#include <algorithm>
#include <exception>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

const char* const nftTableName = "tarnly_pf";

namespace {

// Rule comments hold "<index> <rule text>"; the kernel keeps at most this many bytes.
constexpr size_t maximumCommentLength = 128;

const std::string tablePrefix = std::string("inet ") + nftTableName + " ";

std::string dotted(uint32_t address) {
  return std::to_string(address >> 24) + "." + std::to_string((address >> 16) & 255) + "." +
         std::to_string((address >> 8) & 255) + "." + std::to_string(address & 255);
}

bool isAny(const PfAddress& address) {
  return address.any || address.prefixLength == 0;
}

uint32_t firstAddress(const PfAddress& address) {
  if (address.prefixLength >= 32) return address.address;
  return address.address & ~(0xFFFFFFFFu >> address.prefixLength);
}
uint32_t lastAddress(const PfAddress& address) {
  if (address.prefixLength >= 32) return address.address;
  return firstAddress(address) | (0xFFFFFFFFu >> address.prefixLength);
}

std::string networkText(const PfAddress& address) {
  std::string text = dotted(firstAddress(address));
  if (address.prefixLength < 32) text += "/" + std::to_string(address.prefixLength);
  return text;
}

// True when some two of the addresses share an address (an interval set refuses them).
bool overlap(std::vector<PfAddress> addresses) {
  std::sort(addresses.begin(), addresses.end(), [](const PfAddress& a, const PfAddress& b) {
    return firstAddress(a) < firstAddress(b);
  });
  for (size_t i = 1; i < addresses.size(); ++i) {
    if (firstAddress(addresses[i]) <= lastAddress(addresses[i - 1])) return true;
  }
  return false;
}

// The rule as several, one per address pair, the way pf expands it.
std::vector<PfRule> expanded(const PfRule& rule) {
  std::vector<PfRule> pieces;
  for (const PfAddress& from : rule.from.addresses) {
    for (const PfAddress& to : rule.to.addresses) {
      PfRule piece = rule;
      piece.from.addresses = {from};
      piece.to.addresses = {to};
      pieces.push_back(piece);
    }
  }
  return pieces;
}

std::string comment(size_t index, const PfRule& rule) {
  return std::to_string(index) + " " + pfRuleText(rule);
}

// A rule's list can go into one kernel rule when its elements are apart and its text fits the
// comment; any address in a list makes the whole side any.
bool fitsOneRule(const PfRule& rule, size_t index) {
  for (const PfEndpoint* side : {&rule.from, &rule.to}) {
    bool anyInList = std::any_of(side->addresses.begin(), side->addresses.end(), isAny);
    if (!anyInList && overlap(side->addresses)) return false;
  }
  return comment(index, rule).size() <= maximumCommentLength;
}

// The set holding a rule's address list: named, because binding anonymous sets costs the kernel a
// walk of the whole transaction each, which makes large loads quadratic.
std::string listSetName(size_t index, const char* field) {
  return "list" + std::to_string(index) + "_" + field;
}

bool needsSet(const std::vector<PfAddress>& addresses) {
  return addresses.size() > 1 && !std::any_of(addresses.begin(), addresses.end(), isAny);
}

std::string addressMatch(const char* field, const std::vector<PfAddress>& addresses, size_t index) {
  if (std::any_of(addresses.begin(), addresses.end(), isAny)) return "";
  std::string text = std::string(" ip ") + field + " ";
  if (addresses.size() == 1) return text + networkText(addresses.front());
  return text + "@" + listSetName(index, field);
}

std::string listSet(const char* field, const std::vector<PfAddress>& addresses, size_t index) {
  std::string text = "add set " + tablePrefix + listSetName(index, field) +
                     " { type ipv4_addr; flags interval; elements = {";
  for (size_t i = 0; i < addresses.size(); ++i) {
    text += (i == 0 ? " " : ", ") + networkText(addresses[i]);
  }
  return text + " }; }\n";
}

std::string portMatch(const std::string& protocol, const char* field,
                      const std::optional<PfPort>& port) {
  if (!port) return "";
  std::string text = " " + protocol + " " + field + " " + std::to_string(port->low);
  if (port->low != port->high) text += "-" + std::to_string(port->high);
  return text;
}

// The body of one kernel rule for a pf rule in a direction ("in" or "out").
std::string ruleBody(const PfRule& rule, const std::string& direction, size_t index) {
  std::string body;
  if (rule.inet6) body += " meta nfproto ipv6";
  if (!rule.interface.empty()) {
    body += (direction == "in" ? " iifname \"" : " oifname \"") + rule.interface + "\"";
  }
  if (!rule.protocol.empty()) body += " meta l4proto " + rule.protocol;
  body += addressMatch("saddr", rule.from.addresses, index);
  body += addressMatch("daddr", rule.to.addresses, index);
  body += portMatch(rule.protocol, "sport", rule.from.port);
  body += portMatch(rule.protocol, "dport", rule.to.port);
  // pf passes tcp with `flags S/SA`: only a connection's first packet creates its state.
  if (rule.pass && rule.protocol == "tcp") body += " tcp flags & (syn | ack) == syn";
  body += rule.pass ? " counter accept" : " counter drop";
  body += " comment \"" + comment(index, rule) + "\"";
  return body;
}

struct Numbered {
  size_t index;
  const PfRule* rule;
};

// The network subnet a rule is dispatched by in a direction: the source of "in" rules and the
// destination of "out" rules, when it is one IPv4 network.
std::optional<PfAddress> dispatchKey(const PfRule& rule, const std::string& direction) {
  const PfEndpoint& side = direction == "in" ? rule.from : rule.to;
  if (side.addresses.size() != 1 || isAny(side.addresses.front())) return std::nullopt;
  PfAddress key = side.addresses.front();
  key.address = firstAddress(key);
  return key;
}

// Adds the chains and rules of one direction to `chains` and `rules`.
void buildDirection(const std::vector<Numbered>& all, const std::string& direction,
                    std::string& chains, std::string& rules) {
  std::vector<Numbered> mine;
  for (const Numbered& numbered : all) {
    if (numbered.rule->direction.empty() || numbered.rule->direction == direction) {
      mine.push_back(numbered);
    }
  }
  const std::string entry = "anchor_" + direction;
  auto addRule = [&](const std::string& chain, const Numbered& numbered) {
    rules += "add rule " + tablePrefix + chain +
             ruleBody(*numbered.rule, direction, numbered.index) + "\n";
  };

  // Networks in order of first appearance, each with its rules in order; IPv6 rules apart.
  std::vector<Numbered> inet6;
  std::vector<std::pair<PfAddress, std::vector<Numbered>>> networks;
  std::map<std::pair<uint32_t, int>, size_t> networkIndex;
  bool dispatchable = true;
  for (const Numbered& numbered : mine) {
    if (numbered.rule->inet6) {
      inet6.push_back(numbered);
      continue;
    }
    auto key = dispatchKey(*numbered.rule, direction);
    if (!key) {
      dispatchable = false;
      break;
    }
    auto [position, inserted] =
        networkIndex.try_emplace({key->address, key->prefixLength}, networks.size());
    if (inserted) networks.emplace_back(*key, std::vector<Numbered>{});
    networks[position->second].second.push_back(numbered);
  }
  if (dispatchable) {
    std::vector<PfAddress> keys;
    for (const auto& network : networks) keys.push_back(network.first);
    dispatchable = !overlap(keys);
  }
  if (!dispatchable) {
    // Rules that are not keyed on distinct subnets are evaluated in order, one after another.
    for (const Numbered& numbered : mine) addRule(entry, numbered);
    return;
  }
  if (!inet6.empty()) {
    // IPv6 lines name their interface: dispatched by it when all do, else in order.
    const char* field = direction == "in" ? "iifname" : "oifname";
    std::vector<std::pair<std::string, std::vector<Numbered>>> interfaces;
    std::map<std::string, size_t> interfaceIndex;
    for (const Numbered& numbered : inet6) {
      auto [position, inserted] =
          interfaceIndex.try_emplace(numbered.rule->interface, interfaces.size());
      if (inserted) interfaces.emplace_back(numbered.rule->interface, std::vector<Numbered>{});
      interfaces[position->second].second.push_back(numbered);
    }
    if (interfaceIndex.count("") != 0) {
      chains += "add chain " + tablePrefix + "inet6_" + direction + "\n";
      rules +=
          "add rule " + tablePrefix + entry + " meta nfproto ipv6 jump inet6_" + direction + "\n";
      for (const Numbered& numbered : inet6) addRule("inet6_" + direction, numbered);
    } else {
      std::string map;
      for (size_t i = 0; i < interfaces.size(); ++i) {
        std::string chain = "if" + std::to_string(i) + "_" + direction;
        chains += "add chain " + tablePrefix + chain + "\n";
        for (const Numbered& numbered : interfaces[i].second) addRule(chain, numbered);
        map += (i == 0 ? " \"" : ", \"") + interfaces[i].first + "\" : jump " + chain;
      }
      rules += "add rule " + tablePrefix + entry + " meta nfproto ipv6 " + field + " vmap {" + map +
               " }\n";
    }
  }
  if (networks.empty()) return;
  std::string map;
  for (size_t i = 0; i < networks.size(); ++i) {
    std::string chain = "net" + std::to_string(i) + "_" + direction;
    chains += "add chain " + tablePrefix + chain + "\n";
    for (const Numbered& numbered : networks[i].second) addRule(chain, numbered);
    map += (i == 0 ? " " : ", ") + networkText(networks[i].first) + " : jump " + chain;
  }
  rules += "add rule " + tablePrefix + entry + " ip " + (direction == "in" ? "saddr" : "daddr") +
           " vmap {" + map + " }\n";
}

std::string baseChains() {
  std::string script;
  for (const char* direction : {"in", "out"}) {
    std::string chain = std::string("pf_") + direction;
    const char* hook = std::string(direction) == "in" ? "prerouting" : "postrouting";
    script += "add chain " + tablePrefix + chain + " { type filter hook " + hook +
              " priority filter; policy accept; }\n";
    // pf's keep state: packets of known connections pass before any rule.
    script += "add rule " + tablePrefix + chain + " ct state established,related accept\n";
    script += "add rule " + tablePrefix + chain + " jump anchor_" + direction + "\n";
  }
  return script;
}

uint64_t number(const nlohmann::json& value) {
  return value.is_number_unsigned() ? value.get<uint64_t>() : 0;
}

}  // namespace

std::optional<std::string> nftLoadScript(const std::vector<PfRule>& rules, bool enabled,
                                         std::string& error) {
  std::vector<PfRule> pieces;
  for (const PfRule& rule : rules) {
    if (fitsOneRule(rule, pieces.size() + 1)) {
      pieces.push_back(rule);
      continue;
    }
    for (const PfRule& piece : expanded(rule)) {
      if (comment(pieces.size() + 1, piece).size() > maximumCommentLength) {
        error = "rule too long to be carried: " + pfRuleText(piece);
        return std::nullopt;
      }
      pieces.push_back(piece);
    }
  }
  std::vector<Numbered> numbered;
  for (size_t i = 0; i < pieces.size(); ++i) numbered.push_back(Numbered{i + 1, &pieces[i]});

  std::string chains =
      "add chain " + tablePrefix + "anchor_in\nadd chain " + tablePrefix + "anchor_out\n";
  for (const Numbered& rule : numbered) {
    if (needsSet(rule.rule->from.addresses)) {
      chains += listSet("saddr", rule.rule->from.addresses, rule.index);
    }
    if (needsSet(rule.rule->to.addresses)) {
      chains += listSet("daddr", rule.rule->to.addresses, rule.index);
    }
  }
  std::string body;
  buildDirection(numbered, "in", chains, body);
  buildDirection(numbered, "out", chains, body);
  // The whole table is replaced in one transaction: the kernel applies all of it or nothing.
  std::string script = "add table inet " + std::string(nftTableName) + "\ndelete table inet " +
                       nftTableName + "\nadd table inet " + nftTableName + "\n" + chains + body;
  if (enabled) script += baseChains();
  return script;
}

std::string nftEnableScript(const NftTableState& current) {
  std::string script = "add table inet " + std::string(nftTableName) + "\n";
  if (!current.exists) {
    script += "add chain " + tablePrefix + "anchor_in\nadd chain " + tablePrefix + "anchor_out\n";
  }
  return script + baseChains();
}

NftTableState nftTableStateFromJson(const std::string& json) {
  NftTableState state;
  nlohmann::json document = nlohmann::json::parse(json, nullptr, false);
  if (!document.is_object() || !document["nftables"].is_array()) return state;
  std::set<std::string> baseChains;
  std::map<size_t, NftLoadedRule> byIndex;
  for (const nlohmann::json& item : document["nftables"]) {
    if (!item.is_object()) continue;
    if (item.contains("table") && item["table"].value("name", "") == nftTableName) {
      state.exists = true;
    }
    if (item.contains("chain") && item["chain"].value("table", "") == nftTableName) {
      state.exists = true;
      const nlohmann::json& chain = item["chain"];
      std::string hook = chain.value("hook", "");
      std::string name = chain.value("name", "");
      if ((name == "pf_in" && hook == "prerouting") ||
          (name == "pf_out" && hook == "postrouting")) {
        baseChains.insert(name);
      }
    }
    if (!item.contains("rule") || item["rule"].value("table", "") != nftTableName) continue;
    const nlohmann::json& rule = item["rule"];
    std::string text = rule.value("comment", "");
    size_t space = text.find(' ');
    if (space == std::string::npos || space == 0) continue;
    size_t index = 0;
    try {
      index = std::stoul(text.substr(0, space));
    } catch (const std::exception&) {
      continue;
    }
    PfRulesetParse parse = parsePfRuleset(text.substr(space + 1));
    if (!parse.accepted() || parse.rules.size() != 1) continue;
    PfCounters counters;
    if (rule["expr"].is_array()) {
      for (const nlohmann::json& expression : rule["expr"]) {
        if (expression.is_object() && expression.contains("counter") &&
            expression["counter"].is_object()) {
          counters.packets = number(expression["counter"].value("packets", nlohmann::json()));
          counters.bytes = number(expression["counter"].value("bytes", nlohmann::json()));
        }
      }
    }
    // A rule for both directions sits in both chains: pf counts it once, for both.
    auto [entry, inserted] = byIndex.try_emplace(index, NftLoadedRule{parse.rules.front(), {}});
    entry->second.counters.packets += counters.packets;
    entry->second.counters.bytes += counters.bytes;
  }
  state.enabled = baseChains.size() == 2;
  for (auto& [index, loaded] : byIndex) state.rules.push_back(std::move(loaded));
  return state;
}
