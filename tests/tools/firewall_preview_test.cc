// The firewall preview program, run as an administrator runs it: policy and hosts files in a
// temporary tree, output and exit status read back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "firewall/model/ruleset.h"
#include "service/helper_command.h"
#include "support/pf_simulator.h"
#include "support/temp_tree.h"

namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::StartsWith;

const std::string kLabID = "6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B";
const std::string kHomeID = "7A2D3B8F-4C5E-4F60-9BAC-1D2E3F4A5B6C";

// Lab: enforceable, one bad rule. Home: overlaps en0 in the hosts below.
const std::string kPolicy = R"([
  {"networkID": "6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5b", "name": "Lab",
   "subnetCIDR": " 192.168.64.9/24", "gatewayIPv4": "192.168.64.1", "dnsProxyEnabled": true,
   "policy": {"enabled": true, "defaultInbound": "deny", "defaultOutbound": "allow", "rules": [
     {"id": "0A1B2C3D-4E5F-4061-8283-94A5B6C7D8E9", "enabled": true, "direction": "inbound",
      "action": "allow", "proto": "tcp", "remoteCIDR": "any", "ports": "22"},
     {"id": "1B2C3D4E-5F60-4172-8394-A5B6C7D8E9FA", "enabled": true, "direction": "outbound",
      "action": "deny", "proto": "any", "remoteCIDR": "10.0.0.0/33", "ports": ""},
     {"id": "2C3D4E5F-6071-4283-94A5-B6C7D8E9FA0B", "enabled": true, "direction": "inbound",
      "action": "allow", "proto": "any", "remoteCIDR": "192.168.1.0/24", "ports": "8000-8080"}]}},
  {"networkID": "7a2d3b8f-4c5e-4f60-9bac-1d2e3f4a5b6c", "name": "Home",
   "subnetCIDR": "192.168.1.0/24", "dnsProxyEnabled": false,
   "policy": {"enabled": true, "defaultInbound": "deny", "defaultOutbound": "deny", "rules": []}}
])";

const std::string kHosts = R"([
  {"interface": "lo0", "address": "127.0.0.1", "prefixLength": 8},
  {"interface": "en0", "address": "192.168.1.20", "prefixLength": 24},
  {"interface": "en0", "address": "fe80::1", "prefixLength": 64},
  {"interface": "bridge100", "address": "192.168.64.1", "prefixLength": 24}
])";

const std::string kLabBlock =
    "# --- Lab (192.168.64.0/24) ---\n"
    "block drop quick on bridge100 inet6 all\n"
    "pass in quick proto udp from 192.168.64.0/24 port 68 to { 192.168.64.1, 255.255.255.255 } "
    "port 67 keep state\n"
    "pass out quick proto udp from 192.168.64.1 port 67 to 192.168.64.0/24 port 68\n"
    "pass in quick proto udp from 192.168.64.0/24 to 192.168.64.1/32 port 53 keep state\n"
    "pass in quick proto tcp from 192.168.64.0/24 to 192.168.64.1/32 port 53 keep state\n"
    "pass out quick proto tcp from any to 192.168.64.0/24 port 22 keep state\n"
    "pass out quick proto tcp from 192.168.1.0/24 to 192.168.64.0/24 port 8000:8080 keep state\n"
    "pass out quick proto udp from 192.168.1.0/24 to 192.168.64.0/24 port 8000:8080 keep state\n"
    "pass in quick from 192.168.64.0/24 to any keep state\n"
    "block drop out quick from any to 192.168.64.0/24\n"
    "\n";

const std::string kNotes =
    "Home: 192.168.1.0/24 overlaps en0 (192.168.1.20), one of this Mac's own networks; rules "
    "there would cut the Mac off from it.\n"
    "Lab, rule 2: \"10.0.0.0/33\" isn't an IPv4 address or CIDR (such as 10.0.0.0/8).\n";

class FirewallPreviewTool : public ::testing::Test {
 protected:
  HelperCommand::Result preview(const std::vector<std::string>& arguments) const {
    return HelperCommand::run(TARNLY_FIREWALL_PREVIEW_PATH, arguments);
  }
  // Runs the program with a file as its standard input.
  HelperCommand::Result previewFromStdin(const std::string& input,
                                         const std::vector<std::string>& arguments) const {
    std::string command = "exec \"$0\"";
    for (std::size_t i = 0; i < arguments.size(); ++i) {
      command += " \"$" + std::to_string(i + 1) + "\"";
    }
    command += " < \"" + input + "\"";
    std::vector<std::string> shellArguments = {"-c", command, TARNLY_FIREWALL_PREVIEW_PATH};
    shellArguments.insert(shellArguments.end(), arguments.begin(), arguments.end());
    return HelperCommand::run("/bin/sh", shellArguments);
  }

  TempTree tree;
  std::string policy = tree.write("policy.json", kPolicy);
  std::string hosts = tree.write("hosts.json", kHosts);
};

// The ruleset without its time-stamped first line.
std::string afterFirstLine(const std::string& text) {
  return text.substr(text.find('\n') + 1);
}

TEST_F(FirewallPreviewTool, PrintsTheRulesetAndNotesFromAFileOrStandardInput) {
  HelperCommand::Result result = preview({"--hosts", hosts, policy});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.stdout, StartsWith("# Tarnly network firewall - generated "));
  EXPECT_EQ(afterFirstLine(result.stdout),
            "# Loaded into pf anchor \"com.apple/900.tarnly.firewall\" by TarnlyAdminHelper. Do "
            "not edit.\n\n" +
                kLabBlock);
  EXPECT_EQ(result.stderr, kNotes);
  // A dash or no policy argument reads standard input.
  for (const auto& arguments : {std::vector<std::string>{"--hosts", hosts, "-"},
                                std::vector<std::string>{"--hosts=" + hosts}}) {
    HelperCommand::Result piped = previewFromStdin(policy, arguments);
    EXPECT_EQ(piped.status, 0) << piped.stderr;
    EXPECT_EQ(afterFirstLine(piped.stdout), afterFirstLine(result.stdout));
    EXPECT_EQ(piped.stderr, kNotes);
  }
  // Without a hosts file this machine's own addresses are used; --help prints the usage.
  HelperCommand::Result own = preview({std::string(TARNLY_SOURCE_DIR) + "/samples/policy.json"});
  EXPECT_EQ(own.status, 0) << own.stderr;
  EXPECT_THAT(own.stdout, StartsWith("# Tarnly network firewall - generated "));
  EXPECT_THAT(preview({"--help"}).stdout, StartsWith("usage: tarnly-firewall-preview"));
}

TEST_F(FirewallPreviewTool, JsonReportHoldsEverythingOnStandardOutput) {
  HelperCommand::Result result = preview({policy, "--json", "--hosts", hosts});
  ASSERT_EQ(result.status, 0) << result.stderr;
  EXPECT_EQ(result.stderr, "");
  json report = json::parse(result.stdout);
  // Keys come in a fixed order, so that people reading the report find it the same each time.
  std::vector<std::string> keys;
  const nlohmann::ordered_json ordered = nlohmann::ordered_json::parse(result.stdout);
  for (auto item = ordered.begin(); item != ordered.end(); ++item) keys.push_back(item.key());
  EXPECT_EQ(keys, (std::vector<std::string>{"enforceable", "refused", "skippedRules", "ipv6Drops",
                                            "ruleset", "rulesDigest"}));

  ASSERT_EQ(report["enforceable"].size(), 1u);
  EXPECT_EQ(report["enforceable"][0]["networkID"], kLabID);
  EXPECT_EQ(report["enforceable"][0]["subnetCIDR"], "192.168.64.0/24");
  EXPECT_FALSE(report["enforceable"][0].contains("keepsIPv6"));
  EXPECT_EQ(report["refused"],
            json::parse(R"([{"networkID": ")" + kHomeID + R"(", "label": "Home", "problem": )" +
                        json(kNotes.substr(6, kNotes.find('\n') - 6)).dump() + "}]"));
  EXPECT_EQ(report["skippedRules"][0]["label"], "Lab, rule 2");
  EXPECT_EQ(report["ipv6Drops"], json::parse(R"({")" + kLabID + R"(": ["bridge100"]})"));
  const std::string ruleset = report["ruleset"];
  EXPECT_THAT(ruleset, HasSubstr(kLabBlock));
  EXPECT_EQ(report["rulesDigest"], NetworkFirewall::rulesetDigest(ruleset));
}

// Every refusal, with status 2, nothing on standard output and exactly this text (a prefix when
// it ends in "..."): policy files, hosts files and command lines.
TEST_F(FirewallPreviewTool, RefusesBadInputWithStatusTwoAndOneSentence) {
  std::string upper = kPolicy;
  upper.replace(upper.find("\"tcp\""), 5, "\"TCP\"");
  const std::string usage =
      " (usage: tarnly-firewall-preview [--json] [--hosts FILE] [POLICY.json | -])\n";
  const std::string policyError = "Could not read the firewall policy: ";
  const std::string hostsError = "Could not read the hosts file: ";
  int written = 0;
  auto file = [&](const std::string& content) {
    return tree.write("input-" + std::to_string(++written) + ".json", content);
  };
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--hosts", hosts, file(upper)},
       policyError + "[0].policy.rules[0].proto: \"TCP\" is not one of \"any\", \"tcp\", "
                     "\"udp\", \"icmp\"\n"},
      {{"--hosts", hosts, file("{}")},
       policyError + "the document: expected an array of networks, found object\n"},
      {{"--hosts", hosts, file("[")},
       policyError + "the document is not JSON: parse error at line 1..."},
      {{"--hosts", hosts, file("")},
       policyError + "the document is not JSON: parse error at line 1..."},
      {{tree.path("absent.json")},
       policyError + "open(" + tree.path("absent.json") + "): No such file or directory\n"},
      {{"--verbose", policy}, "tarnly-firewall-preview: unknown option \"--verbose\"" + usage},
      {{policy, "--hosts"}, "tarnly-firewall-preview: --hosts needs a file" + usage},
      {{policy, policy},
       "tarnly-firewall-preview: only one policy file can be previewed at a time" + usage},
      {{"--hosts", tree.path("none.json"), policy},
       hostsError + "open(" + tree.path("none.json") + "): No such file or directory\n"},
      {{"--hosts", file(R"({"interface": "en0"})"), policy},
       hostsError + "the document: expected an array, found object\n"},
      {{"--hosts",
        file(R"([{"interface": "en0", "address": "192.168.1.300", "prefixLength": 24}])"), policy},
       hostsError + "[0].address: \"192.168.1.300\" is not an IPv4 or IPv6 address\n"},
      {{"--hosts", file(R"([{"interface": "en0", "address": "::1", "prefixLength": "64"}])"),
        policy},
       hostsError + "[0].prefixLength: \"64\" is not an integer from 0 to 128\n"},
      {{"--hosts", file(R"([{"address": "::1", "prefixLength": 64}])"), policy},
       hostsError + "[0].interface: required key is missing\n"},
      {{"--hosts", file("en0 192.168.1.2/24"), policy}, hostsError + "it is not JSON: ..."},
  };
  for (const auto& [arguments, message] : cases) {
    HelperCommand::Result result = preview(arguments);
    EXPECT_EQ(result.status, 2) << message;
    EXPECT_EQ(result.stdout, "");
    if (message.ends_with("...")) {
      EXPECT_THAT(result.stderr, StartsWith(message.substr(0, message.size() - 3)));
    } else {
      EXPECT_EQ(result.stderr, message);
    }
  }
}

TEST_F(FirewallPreviewTool, ItsRulesetLoadsIntoThePfSimulator) {
  PfSimulator pf{TARNLY_PFSIM_PATH, tree.path("sbin/pfctl"), tree.path("pfsim")};
  std::string policyText = kPolicy;
  // Every kind of line: icmp, udp, deny rules with ports, a /30 and a disabled rule.
  policyText.replace(policyText.rfind("\"rules\": []"), 11, R"("rules": [
     {"id": "3D4E5F60-7182-4394-A5B6-C7D8E9FA0B1C", "enabled": true, "direction": "outbound",
      "action": "deny", "proto": "icmp", "remoteCIDR": "10.1.2.3", "ports": "x"},
     {"id": "4E5F6071-8293-44A5-B6C7-D8E9FA0B1C2D", "enabled": false, "direction": "outbound",
      "action": "allow", "proto": "tcp", "remoteCIDR": "bad", "ports": "443"},
     {"id": "5F607182-93A4-45B6-C7D8-E9FA0B1C2D3E", "enabled": true, "direction": "inbound",
      "action": "deny", "proto": "udp", "remoteCIDR": "172.16.0.0/12", "ports": "+53"}])");
  policyText.replace(policyText.find("192.168.1.0/24\", \"dnsProxyEnabled\""), 14,
                     "192.168.90.7/30");
  HelperCommand::Result result = preview({"--hosts", hosts, tree.write("full.json", policyText)});
  ASSERT_EQ(result.status, 0) << result.stderr;
  EXPECT_THAT(result.stdout, HasSubstr("# --- Home (192.168.90.4/30) ---"));
  const std::string rules = tree.write("anchor.conf", result.stdout);
  HelperCommand::Result load =
      HelperCommand::run(pf.pfctlPath(), {"-a", "com.apple/900.tarnly.firewall", "-f", rules});
  EXPECT_EQ(load.status, 0) << load.stderr;
  EXPECT_EQ(pf.loadedRuleset("com.apple/900.tarnly.firewall"), result.stdout);
}

}  // namespace
