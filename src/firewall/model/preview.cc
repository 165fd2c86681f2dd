#include "firewall/model/preview.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <istream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <ostream>
#include <stdexcept>

#include "firewall/model/firewall_json.h"
#include "firewall/model/one_line.h"
#include "platform/files.h"

namespace FirewallPreview {

namespace {

using NetworkFirewall::HostAddress;
using nlohmann::json;
using nlohmann::ordered_json;

constexpr std::string_view kProgram = "tarnly-firewall-preview";
constexpr std::string_view kUsage =
    "usage: tarnly-firewall-preview [--json] [--hosts FILE] [POLICY.json | -]";

const std::string kHelp =
    std::string(kUsage) +
    "\n"
    "Shows the pf anchor ruleset TarnlyAdminHelper would load for a firewall policy (a JSON array\n"
    "of networks, read from POLICY.json or standard input). Networks are reviewed against this\n"
    "machine's interface addresses, or against the JSON array of {\"interface\", \"address\",\n"
    "\"prefixLength\"} objects in the --hosts file. The ruleset goes to standard output and each\n"
    "refused network or skipped rule to standard error as \"<label>: <problem>\". With --json,\n"
    "standard output is one JSON object holding all of it.\n";

UsageError usage(const std::string& message) {
  return UsageError(std::string(kProgram) + ": " + message + " (" + std::string(kUsage) + ")");
}

// A failed read of an input file: "<call>(<path>): <system error text>".
std::runtime_error inputError(const std::string& call, const std::string& path, int error) {
  return std::runtime_error(call + "(" + path + "): " + std::strerror(error));
}

// The whole content of a file; throws inputError naming the failed call.
std::string readWholeFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw inputError("open", path, errno);
  std::string content;
  char buffer[65536];
  while (true) {
    const ssize_t count = ::read(fd, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      const int error = errno;
      ::close(fd);
      throw inputError("read", path, error);
    }
    if (count == 0) break;
    content.append(buffer, static_cast<std::size_t>(count));
  }
  ::close(fd);
  return content;
}

[[noreturn]] void hostsFault(const std::string& where, const std::string& what) {
  throw UsageError("Could not read the hosts file: " + where + ": " + what);
}

}  // namespace

Options parseArguments(const std::vector<std::string>& arguments) {
  Options options;
  bool policyGiven = false;
  bool optionsEnded = false;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (!optionsEnded && argument == "--") {
      optionsEnded = true;
    } else if (!optionsEnded && argument == "--json") {
      options.json = true;
    } else if (!optionsEnded && (argument == "--help" || argument == "-h")) {
      options.help = true;
    } else if (!optionsEnded && argument == "--hosts") {
      if (i + 1 >= arguments.size()) throw usage("--hosts needs a file");
      options.hostsPath = arguments[++i];
    } else if (!optionsEnded && argument.starts_with("--hosts=")) {
      options.hostsPath = argument.substr(8);
      if (options.hostsPath->empty()) throw usage("--hosts needs a file");
    } else if (!optionsEnded && argument.size() > 1 && argument[0] == '-') {
      throw usage("unknown option " +
                  json(argument).dump(-1, ' ', false, json::error_handler_t::replace));
    } else {
      if (policyGiven) throw usage("only one policy file can be previewed at a time");
      options.policyPath = argument;
      policyGiven = true;
    }
  }
  return options;
}

std::vector<HostAddress> decodeHosts(std::string_view document) {
  json parsed;
  try {
    parsed = json::parse(document.begin(), document.end());
  } catch (const json::exception& error) {
    throw UsageError("Could not read the hosts file: it is not JSON: " +
                     FirewallJSON::parserMessage(error));
  }
  if (!parsed.is_array()) {
    hostsFault("the document", std::string("expected an array, found ") + parsed.type_name());
  }
  std::vector<HostAddress> hosts;
  hosts.reserve(parsed.size());
  for (std::size_t i = 0; i < parsed.size(); ++i) {
    const std::string where = "[" + std::to_string(i) + "]";
    const json& entry = parsed[i];
    if (!entry.is_object()) {
      hostsFault(where, std::string("expected an object, found ") + entry.type_name());
    }
    auto field = [&](const char* key) -> const json& {
      auto found = entry.find(key);
      if (found == entry.end() || found->is_null()) {
        hostsFault(where + "." + key, "required key is missing");
      }
      return *found;
    };
    HostAddress host;
    const json& interface = field("interface");
    if (!interface.is_string()) {
      hostsFault(where + ".interface",
                 std::string("expected a string, found ") + interface.type_name());
    }
    host.interface = interface.get<std::string>();
    const json& address = field("address");
    if (!address.is_string()) {
      hostsFault(where + ".address",
                 std::string("expected a string, found ") + address.type_name());
    }
    const std::string text = address.get<std::string>();
    in_addr v4{};
    in6_addr v6{};
    if (text.find('\0') == std::string::npos && inet_pton(AF_INET, text.c_str(), &v4) == 1) {
      const auto* bytes = reinterpret_cast<const std::uint8_t*>(&v4);
      host.bytes.assign(bytes, bytes + 4);
    } else if (text.find('\0') == std::string::npos &&
               inet_pton(AF_INET6, text.c_str(), &v6) == 1) {
      const auto* bytes = reinterpret_cast<const std::uint8_t*>(&v6);
      host.bytes.assign(bytes, bytes + 16);
    } else {
      hostsFault(where + ".address", address.dump(-1, ' ', false, json::error_handler_t::replace) +
                                         " is not an IPv4 or IPv6 address");
    }
    const json& prefix = field("prefixLength");
    const int limit = static_cast<int>(host.bytes.size() * 8);
    if (!prefix.is_number_integer() || prefix.get<std::int64_t>() < 0 ||
        prefix.get<std::int64_t>() > limit) {
      hostsFault(where + ".prefixLength",
                 prefix.dump() + " is not an integer from 0 to " + std::to_string(limit));
    }
    host.prefixLength = prefix.get<int>();
    hosts.push_back(std::move(host));
  }
  return hosts;
}

Outcome preview(const std::vector<FirewallNetworkPolicy>& networks,
                const std::vector<HostAddress>& hosts, TimePoint now) {
  Outcome outcome;
  outcome.review = NetworkFirewall::review(networks, hosts);
  outcome.drops = NetworkFirewall::ipv6DropInterfaces(outcome.review.enforceable, hosts);
  outcome.ruleset = NetworkFirewall::ruleset(outcome.review.enforceable, outcome.drops, now);
  outcome.rulesDigest = NetworkFirewall::rulesetDigest(outcome.ruleset);
  return outcome;
}

std::string noteLines(const NetworkFirewall::Review& review) {
  std::string out;
  for (const auto* notes : {&review.refused, &review.skippedRules}) {
    for (const NetworkFirewall::Review::Note& note : *notes) {
      NetworkFirewall::appendOnOneLine(out, NetworkFirewall::rendered(note));
      out += '\n';
    }
  }
  return out;
}

std::string jsonReport(const Outcome& outcome) {
  auto notes = [](const std::vector<NetworkFirewall::Review::Note>& list) {
    ordered_json array = ordered_json::array();
    for (const NetworkFirewall::Review::Note& note : list) {
      ordered_json entry = ordered_json::object();
      entry["networkID"] = note.networkID.text();
      entry["label"] = note.label;
      entry["problem"] = note.problem;
      array.push_back(std::move(entry));
    }
    return array;
  };
  ordered_json drops = ordered_json::object();
  for (const auto& [id, names] : outcome.drops) drops[id.text()] = names;
  ordered_json report = ordered_json::object();
  report["enforceable"] = FirewallJSON::encodeOrdered(outcome.review.enforceable);
  report["refused"] = notes(outcome.review.refused);
  report["skippedRules"] = notes(outcome.review.skippedRules);
  report["ipv6Drops"] = std::move(drops);
  report["ruleset"] = outcome.ruleset;
  report["rulesDigest"] = outcome.rulesDigest;
  return report.dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

int runPreview(const std::vector<std::string>& arguments, std::istream& in, std::ostream& out,
               std::ostream& err, const Sources& sources) {
  Options options;
  std::vector<HostAddress> hosts;
  try {
    options = parseArguments(arguments);
    if (options.help) {
      out << kHelp;
      return 0;
    }
    if (options.hostsPath) {
      std::string document;
      try {
        document = readWholeFile(*options.hostsPath);
      } catch (const std::runtime_error& error) {
        throw UsageError(std::string("Could not read the hosts file: ") + error.what());
      }
      hosts = decodeHosts(document);
    }
  } catch (const UsageError& error) {
    err << error.what() << '\n';
    return 2;
  }

  std::vector<FirewallNetworkPolicy> networks;
  try {
    std::string document;
    if (options.policyPath == "-") {
      document.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    } else {
      document = readWholeFile(options.policyPath);
    }
    networks = FirewallJSON::decodeDocument(document);
  } catch (const std::runtime_error& error) {  // an input error or FirewallJSON::DecodeError
    err << "Could not read the firewall policy: " << error.what() << '\n';
    return 2;
  }
  if (!options.hostsPath) hosts = sources.hostAddresses();

  const Outcome outcome = preview(networks, hosts, sources.clock());
  if (options.json) {
    out << jsonReport(outcome);
  } else {
    out << outcome.ruleset;
    err << noteLines(outcome.review);
  }
  return 0;
}

}  // namespace FirewallPreview
