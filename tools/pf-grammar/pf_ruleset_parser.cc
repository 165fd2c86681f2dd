#include "pf_ruleset_parser.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

constexpr std::string_view keywords[] = {"pass", "block", "drop",  "in",  "out",  "quick", "on",
                                         "inet", "inet6", "proto", "tcp", "udp",  "icmp",  "all",
                                         "from", "to",    "port",  "any", "keep", "state", "log"};

// Lists nest at most this deep; deeper text is refused rather than read recursively.
constexpr int maximumListDepth = 16;

bool isKeyword(std::string_view word) {
  return std::any_of(std::begin(keywords), std::end(keywords),
                     [word](std::string_view keyword) { return word == keyword; });
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// A decimal number without sign or leading zeros, at most `limit`.
std::optional<unsigned> parseNumber(std::string_view text, unsigned limit) {
  if (text.empty() || text.size() > 5) return std::nullopt;
  if (text.size() > 1 && text[0] == '0') return std::nullopt;
  unsigned value = 0;
  for (char c : text) {
    if (!isDigit(c)) return std::nullopt;
    value = value * 10 + static_cast<unsigned>(c - '0');
  }
  if (value > limit) return std::nullopt;
  return value;
}

std::optional<PfPort> parsePort(std::string_view word) {
  size_t colon = word.find(':');
  if (colon == std::string_view::npos) {
    auto port = parseNumber(word, 65535);
    if (!port || *port == 0) return std::nullopt;
    return PfPort{*port, *port, false};
  }
  auto low = parseNumber(word.substr(0, colon), 65535);
  auto high = parseNumber(word.substr(colon + 1), 65535);
  if (!low || !high || *low == 0 || *low > *high) return std::nullopt;
  return PfPort{*low, *high, true};
}

// Splits a line (comment already removed) into words; braces and commas are words of their own.
std::vector<std::string_view> tokens(std::string_view line) {
  std::vector<std::string_view> words;
  size_t i = 0;
  while (i < line.size()) {
    char c = line[i];
    if (c == ' ' || c == '\t') {
      ++i;
    } else if (c == '{' || c == '}' || c == ',') {
      words.push_back(line.substr(i, 1));
      ++i;
    } else {
      size_t start = i;
      while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '{' &&
             line[i] != '}' && line[i] != ',') {
        ++i;
      }
      words.push_back(line.substr(start, i - start));
    }
  }
  return words;
}

// A refusal with pfctl's message.
struct Refusal {
  std::string message;
};

// Recursive-descent reader of one rule line.
class RuleReader {
 public:
  explicit RuleReader(std::vector<std::string_view> words) : words_(std::move(words)) {}

  PfRule read() {
    PfRule rule;
    if (accept("pass")) {
      rule.pass = true;
    } else {
      expect("block");
      expect("drop");
      rule.pass = false;
    }
    if (accept("in")) {
      rule.direction = "in";
    } else if (accept("out")) {
      rule.direction = "out";
    }
    expect("quick");
    if (accept("on")) rule.interface = interfaceName();
    rule.inet6 = accept("inet6");
    if (accept("proto")) {
      std::string_view protocol = next();
      if (protocol != "tcp" && protocol != "udp" && protocol != "icmp") fail();
      rule.protocol = protocol;
    }
    if (accept("all")) {
      rule.from.addresses = {PfAddress{}};
      rule.to.addresses = {PfAddress{}};
    } else {
      expect("from");
      rule.from = endpoint();
      expect("to");
      rule.to = endpoint();
    }
    if (accept("keep")) {
      expect("state");
      rule.keepState = true;
    }
    if (position_ != words_.size()) fail();
    checkConsistency(rule);
    return rule;
  }

 private:
  [[noreturn]] static void fail() { throw Refusal{"syntax error"}; }

  std::string_view next() {
    if (position_ == words_.size()) fail();
    return words_[position_++];
  }
  bool accept(std::string_view word) {
    if (position_ < words_.size() && words_[position_] == word) {
      ++position_;
      return true;
    }
    return false;
  }
  void expect(std::string_view word) {
    if (!accept(word)) fail();
  }

  std::string interfaceName() {
    std::string_view name = next();
    if (name.empty() || name.size() > 15 || !isLetter(name[0]) || isKeyword(name)) fail();
    for (char c : name) {
      if (!isLetter(c) && !isDigit(c) && c != '_' && c != '.') fail();
    }
    return std::string(name);
  }

  PfEndpoint endpoint() {
    PfEndpoint side;
    hosts(side.addresses, 0);
    if (accept("port")) {
      auto port = parsePort(next());
      if (!port) fail();
      side.port = port;
    }
    return side;
  }

  // any | IPv4[/prefix] | { hosts [,] hosts ... }
  void hosts(std::vector<PfAddress>& into, int depth) {
    std::string_view word = next();
    if (word == "any") {
      into.push_back(PfAddress{});
    } else if (word == "{") {
      if (depth >= maximumListDepth) fail();
      hosts(into, depth + 1);
      while (!accept("}")) {
        accept(",");
        hosts(into, depth + 1);
      }
    } else {
      auto host = parsePfHost(word);
      if (!host) fail();
      into.push_back(*host);
    }
  }

  static void checkConsistency(const PfRule& rule) {
    if ((rule.from.port || rule.to.port) && rule.protocol != "tcp" && rule.protocol != "udp") {
      throw Refusal{"port only applies to tcp/udp"};
    }
    if (rule.inet6) {
      for (const PfEndpoint* side : {&rule.from, &rule.to}) {
        if (!std::all_of(side->addresses.begin(), side->addresses.end(),
                         [](const PfAddress& address) { return address.any; })) {
          throw Refusal{"rule expands to no valid combination"};
        }
      }
    }
  }

  std::vector<std::string_view> words_;
  size_t position_ = 0;
};

std::string dottedQuad(uint32_t address) {
  return std::to_string(address >> 24) + "." + std::to_string((address >> 16) & 255) + "." +
         std::to_string((address >> 8) & 255) + "." + std::to_string(address & 255);
}

// pf's form of an address: `any` for any and 0.0.0.0/0, no suffix for a single host.
std::string addressText(const PfAddress& address) {
  if (address.any || (address.address == 0 && address.prefixLength == 0)) return "any";
  std::string text = dottedQuad(address.address);
  if (address.prefixLength != 32) text += "/" + std::to_string(address.prefixLength);
  return text;
}

std::string portText(const PfPort& port) {
  if (port.range) return " port " + std::to_string(port.low) + ":" + std::to_string(port.high);
  return " port = " + std::to_string(port.low);
}

// The address as the grammar reads it back: `any`, a host without a prefix, or address/prefix.
std::string writtenAddress(const PfAddress& address) {
  if (address.any) return "any";
  std::string text = dottedQuad(address.address);
  if (address.prefixLength != 32) text += "/" + std::to_string(address.prefixLength);
  return text;
}

bool listsAsAny(const PfAddress& address) {
  return addressText(address) == "any";
}

}  // namespace

std::optional<PfAddress> parsePfHost(std::string_view word) {
  PfAddress result;
  result.any = false;
  result.prefixLength = 32;
  size_t slash = word.find('/');
  if (slash != std::string_view::npos) {
    auto prefix = parseNumber(word.substr(slash + 1), 32);
    if (!prefix) return std::nullopt;
    result.prefixLength = static_cast<int>(*prefix);
    word = word.substr(0, slash);
  }
  uint32_t address = 0;
  for (int part = 0; part < 4; ++part) {
    size_t dot = word.find('.');
    if ((part < 3) != (dot != std::string_view::npos)) return std::nullopt;
    auto byte = parseNumber(word.substr(0, dot), 255);
    if (!byte || word.substr(0, dot).size() > 3) return std::nullopt;
    address = (address << 8) | *byte;
    word = part < 3 ? word.substr(dot + 1) : std::string_view();
  }
  result.address = address;
  return result;
}

bool pfNetworkContains(const PfAddress& network, uint32_t address) {
  if (network.any || network.prefixLength == 0) return true;
  uint32_t mask = network.prefixLength >= 32 ? 0xFFFFFFFFu : ~(0xFFFFFFFFu >> network.prefixLength);
  return (network.address & mask) == (address & mask);
}

PfRulesetParse parsePfRuleset(std::string_view text) {
  PfRulesetParse result;
  int lineNumber = 0;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(start, end - start);
    start = end + 1;
    ++lineNumber;
    size_t hash = line.find('#');
    if (hash != std::string_view::npos) line = line.substr(0, hash);
    std::vector<std::string_view> words = tokens(line);
    if (words.empty()) continue;
    try {
      result.rules.push_back(RuleReader(std::move(words)).read());
    } catch (const Refusal& refusal) {
      result.rules.clear();
      result.errorLine = lineNumber;
      result.errorMessage = refusal.message;
      return result;
    }
  }
  return result;
}

namespace {

// What a rule's text and its listing both start with: action, direction, quick, interface,
// family and protocol.
std::string ruleHead(const PfRule& rule) {
  std::string head = rule.pass ? "pass" : "block drop";
  if (!rule.direction.empty()) head += " " + rule.direction;
  head += " quick";
  if (!rule.interface.empty()) head += " on " + rule.interface;
  if (rule.inet6) head += " inet6";
  if (!rule.protocol.empty()) head += " proto " + rule.protocol;
  return head;
}

}  // namespace

std::string pfRuleListing(const PfRule& rule, const PfCounters* counters) {
  std::string head = ruleHead(rule);
  std::string tail;
  if (rule.pass && rule.protocol == "tcp") tail += " flags S/SA";
  if (rule.keepState) tail += " keep state";
  std::string listing;
  for (const PfAddress& from : rule.from.addresses) {
    for (const PfAddress& to : rule.to.addresses) {
      std::string line = head;
      if (listsAsAny(from) && listsAsAny(to) && !rule.from.port && !rule.to.port) {
        line += " all";
      } else {
        line += " from " + addressText(from);
        if (rule.from.port) line += portText(*rule.from.port);
        line += " to " + addressText(to);
        if (rule.to.port) line += portText(*rule.to.port);
      }
      listing += line + tail + "\n";
      if (counters != nullptr) {
        listing += "  [ Evaluations: " + std::to_string(counters->evaluations) +
                   "  Packets: " + std::to_string(counters->packets) +
                   "  Bytes: " + std::to_string(counters->bytes) +
                   "  States: " + std::to_string(counters->states) + " ]\n";
      }
    }
  }
  return listing;
}

std::string pfRulesListing(const std::vector<PfRule>& rules, bool verbose) {
  PfCounters zero;
  std::string listing;
  for (const PfRule& rule : rules) listing += pfRuleListing(rule, verbose ? &zero : nullptr);
  return listing;
}

std::string pfRuleText(const PfRule& rule) {
  auto side = [](const PfEndpoint& endpoint) {
    std::string text;
    if (endpoint.addresses.size() == 1) {
      text = writtenAddress(endpoint.addresses.front());
    } else {
      text = "{";
      for (size_t i = 0; i < endpoint.addresses.size(); ++i) {
        text += (i == 0 ? " " : ", ") + writtenAddress(endpoint.addresses[i]);
      }
      text += " }";
    }
    if (endpoint.port) {
      text += " port " + std::to_string(endpoint.port->low);
      if (endpoint.port->range) text += ":" + std::to_string(endpoint.port->high);
    }
    return text;
  };
  std::string line = ruleHead(rule) + " from " + side(rule.from) + " to " + side(rule.to);
  if (rule.keepState) line += " keep state";
  return line;
}
