#include "nft_ruleset.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

const char* const nftTableName = "tarnly_pf";

namespace {

// Rule comments hold "<index> <rule text>"; the kernel keeps at most this many bytes.
constexpr size_t maximumCommentLength = 128;

// The connection mark bit of a state pf keeps: set by the pass rule that passes a connection's
// first packet (pf keeps state by default). Only marked connections pass as known ones, so a
// connection the kernel picks up again mid-stream after a state kill, whose packets no rule
// passes, meets the rules again at every packet, replies included.
const std::string keptStateMark = "0x00100000";

const std::string tablePrefix = std::string("inet ") + nftTableName + " ";

std::string dotted(uint32_t address) {
  return std::to_string(address >> 24) + "." + std::to_string((address >> 16) & 255) + "." +
         std::to_string((address >> 8) & 255) + "." + std::to_string(address & 255);
}

// True for `any` and 0.0.0.0/0: every IPv4 address.
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
  if (std::any_of(addresses.begin(), addresses.end(),
                  [](const PfAddress& address) { return address.any; })) {
    return "";
  }
  // 0.0.0.0/0 is every IPv4 address, and IPv4 only.
  if (std::any_of(addresses.begin(), addresses.end(), isAny)) return " meta nfproto ipv4";
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

// The bodies of the kernel rules for a pf rule in a direction ("in" or "out"), all with the rule's
// comment, so a listing reads them back as the one rule.
std::vector<std::string> ruleBodies(const PfRule& rule, const std::string& direction,
                                    size_t index) {
  std::string match;
  if (rule.inet6) match += " meta nfproto ipv6";
  if (!rule.interface.empty()) {
    match += (direction == "in" ? " iifname \"" : " oifname \"") + rule.interface + "\"";
  }
  if (!rule.protocol.empty()) match += " meta l4proto " + rule.protocol;
  match += addressMatch("saddr", rule.from.addresses, index);
  match += addressMatch("daddr", rule.to.addresses, index);
  match += portMatch(rule.protocol, "sport", rule.from.port);
  match += portMatch(rule.protocol, "dport", rule.to.port);
  std::string verdict =
      rule.pass ? " counter ct mark set ct mark | " + keptStateMark + " accept" : " counter drop";
  verdict += " comment \"" + comment(index, rule) + "\"";
  // pf passes tcp with `flags S/SA`, also under a rule without a protocol: only a connection's
  // first packet matches, so a mid-stream packet never creates a state. The rule's other
  // protocols pass in a kernel rule of their own.
  const std::string firstPacket = " tcp flags & (syn | ack) == syn";
  if (!rule.pass || (!rule.protocol.empty() && rule.protocol != "tcp")) return {match + verdict};
  if (rule.protocol == "tcp") return {match + firstPacket + verdict};
  return {match + " meta l4proto != tcp" + verdict, match + firstPacket + verdict};
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

// Rules sharing a dispatch key (a subnet or an interface name as nft writes it), in order.
struct Group {
  std::string key;
  std::vector<Numbered> rules;
};

// The rules grouped by `key`, groups in order of first appearance.
template <typename Key>
std::vector<Group> groupedBy(const std::vector<Numbered>& rules, Key key) {
  std::vector<Group> groups;
  std::map<std::string, size_t> index;
  for (const Numbered& numbered : rules) {
    std::string value = key(*numbered.rule);
    auto [position, inserted] = index.try_emplace(value, groups.size());
    if (inserted) groups.push_back(Group{value, {}});
    groups[position->second].rules.push_back(numbered);
  }
  return groups;
}

// Writes the chains and rules of one direction of a load.
class DirectionWriter {
 public:
  DirectionWriter(std::string direction, std::string& chains, std::string& rules)
      : direction_(std::move(direction)),
        entry_("anchor_" + direction_),
        chains_(chains),
        rules_(rules) {}

  void write(const std::vector<Numbered>& all) {
    std::vector<Numbered> mine;
    std::copy_if(all.begin(), all.end(), std::back_inserter(mine), [this](const Numbered& rule) {
      return rule.rule->direction.empty() || rule.rule->direction == direction_;
    });
    std::vector<Numbered> inet6;
    std::vector<Numbered> inet;
    for (const Numbered& numbered : mine) {
      auto key = numbered.rule->inet6 ? std::nullopt : dispatchKey(*numbered.rule, direction_);
      if (numbered.rule->inet6) {
        inet6.push_back(numbered);
      } else if (key) {
        inet.push_back(numbered);
      } else {
        // A line that is not keyed on a subnet: everything is evaluated in order.
        for (const Numbered& rule : mine) addRule(entry_, rule);
        return;
      }
    }
    std::vector<Group> networks = groupedBy(
        inet, [this](const PfRule& rule) { return networkText(*dispatchKey(rule, direction_)); });
    std::vector<PfAddress> distinct(networks.size());
    std::transform(networks.begin(), networks.end(), distinct.begin(),
                   [](const Group& network) { return *parsePfHost(network.key); });
    if (overlap(distinct)) {
      for (const Numbered& rule : mine) addRule(entry_, rule);
      return;
    }
    // IPv6 lines name their interface: dispatched by it when all do, else in order.
    bool allNamed = std::all_of(inet6.begin(), inet6.end(),
                                [](const Numbered& rule) { return !rule.rule->interface.empty(); });
    if (!allNamed) {
      std::string chain = "inet6_" + direction_;
      chains_.append("add chain ").append(tablePrefix).append(chain).append("\n");
      rules_.append("add rule ").append(tablePrefix).append(entry_);
      rules_.append(" meta nfproto ipv6 jump ").append(chain).append("\n");
      for (const Numbered& rule : inet6) addRule(chain, rule);
    } else if (!inet6.empty()) {
      dispatch(direction_ == "in" ? "meta nfproto ipv6 iifname" : "meta nfproto ipv6 oifname", "if",
               groupedBy(inet6, [](const PfRule& rule) { return "\"" + rule.interface + "\""; }));
    }
    if (!networks.empty()) dispatch(direction_ == "in" ? "ip saddr" : "ip daddr", "net", networks);
  }

 private:
  void addRule(const std::string& chain, const Numbered& numbered) {
    for (const std::string& body : ruleBodies(*numbered.rule, direction_, numbered.index)) {
      rules_.append("add rule ").append(tablePrefix).append(chain).append(body).append("\n");
    }
  }

  // One chain per group, and in the entry chain a verdict map on `match` jumping to them.
  void dispatch(const std::string& match, const std::string& prefix,
                const std::vector<Group>& groups) {
    rules_.append("add rule ").append(tablePrefix).append(entry_).append(" ");
    rules_.append(match).append(" vmap {");
    std::string body;
    for (size_t i = 0; i < groups.size(); ++i) {
      std::string chain = prefix + std::to_string(i) + "_" + direction_;
      chains_.append("add chain ").append(tablePrefix).append(chain).append("\n");
      for (const Numbered& rule : groups[i].rules) {
        for (const std::string& kernelRule : ruleBodies(*rule.rule, direction_, rule.index)) {
          body.append("add rule ").append(tablePrefix).append(chain).append(kernelRule);
          body.append("\n");
        }
      }
      rules_.append(i == 0 ? " " : ", ").append(groups[i].key).append(" : jump ").append(chain);
    }
    rules_.append(" }\n").append(body);
  }

  std::string direction_;
  std::string entry_;
  std::string& chains_;
  std::string& rules_;
};

std::string baseChains() {
  std::string script;
  for (const std::string direction : {"in", "out"}) {
    std::string chain = "pf_" + direction;
    const char* hook = direction == "in" ? "prerouting" : "postrouting";
    script.append("add chain ").append(tablePrefix).append(chain).append(" { type filter hook ");
    script.append(hook).append(" priority filter; policy accept; }\n");
    // pf's keep state: packets of the connections its rules keep pass before any rule.
    script.append("add rule ").append(tablePrefix).append(chain);
    script.append(" ct state established,related ct mark & ").append(keptStateMark);
    script.append(" == ").append(keptStateMark).append(" accept\n");
    script.append("add rule ").append(tablePrefix).append(chain);
    script.append(" jump anchor_").append(direction).append("\n");
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
  DirectionWriter("in", chains, body).write(numbered);
  DirectionWriter("out", chains, body).write(numbered);
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
    // A rule for both directions sits in both chains, and a rule may take several kernel rules:
    // pf counts it once, for all of them.
    auto [entry, inserted] = byIndex.try_emplace(index, NftLoadedRule{parse.rules.front(), {}});
    entry->second.counters.packets += counters.packets;
    entry->second.counters.bytes += counters.bytes;
  }
  state.enabled = baseChains.size() == 2;
  for (auto& [index, loaded] : byIndex) state.rules.push_back(std::move(loaded));
  return state;
}
