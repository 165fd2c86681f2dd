// JSON form of the firewall records. Decoding is strict: a missing or null required key, a wrong
// JSON type, an enumeration text that is not exactly a raw value, or a malformed UUID fails the
// whole document with a description naming what was wrong and where. Optional keys that are
// missing or null read as absent and are never written as null. Unknown keys are ignored.
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/model/firewall_records.h"

namespace FirewallJSON {

// A document that is not a valid list of networks; what() is the description.
class DecodeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

nlohmann::json encode(const FirewallRule& rule);
nlohmann::json encode(const NetworkFirewallPolicy& policy);
nlohmann::json encode(const FirewallNetworkPolicy& network);
nlohmann::json encode(const std::vector<FirewallNetworkPolicy>& networks);
// The same array with every object's keys in their declared order, for output people read.
nlohmann::ordered_json encodeOrdered(const std::vector<FirewallNetworkPolicy>& networks);

// Decodes one value; `where` names its place in the document (for example "[2].policy") and
// prefixes error descriptions. Throw DecodeError.
FirewallRule decodeRule(const nlohmann::json& value, const std::string& where);
NetworkFirewallPolicy decodePolicy(const nlohmann::json& value, const std::string& where);
FirewallNetworkPolicy decodeNetwork(const nlohmann::json& value, const std::string& where);
std::vector<FirewallNetworkPolicy> decodeNetworks(const nlohmann::json& value,
                                                  const std::string& where);

// The parser's description of a JSON syntax error, without the library's "[json.exception...] "
// tag.
std::string parserMessage(const nlohmann::json::exception& error);

// Parses UTF-8 bytes whose top level is an array of networks. Throws DecodeError, also for bytes
// that are not JSON.
std::vector<FirewallNetworkPolicy> decodeDocument(std::string_view document);

}  // namespace FirewallJSON
