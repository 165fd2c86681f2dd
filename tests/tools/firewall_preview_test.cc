// The firewall preview program, run as an administrator runs it on the sample policy: hosts files
// in a temporary tree, output and exit status read back.
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

using ::testing::StartsWith;

const std::string kSample = std::string(TARNLY_SOURCE_DIR) + "/samples/policy.json";
// The build farm's subnet is one of this machine's own: it is refused.
const std::string kHosts = R"([{"interface": "en0", "address": "192.168.70.20", "prefixLength": 24},
  {"interface": "en0", "address": "fe80::1", "prefixLength": 64},
  {"interface": "bridge100", "address": "192.168.64.1", "prefixLength": 24}])";
const std::string kLabRuleset =
    "# Loaded into pf anchor \"com.apple/900.tarnly.firewall\" by TarnlyAdminHelper. Do not edit.\n"
    "\n# --- Lab (192.168.64.0/24) ---\nblock drop quick on bridge100 inet6 all\n"
    "pass in quick proto udp from 192.168.64.0/24 port 68 to { 192.168.64.1, 255.255.255.255 } "
    "port 67 keep state\n"
    R"(pass out quick proto udp from 192.168.64.1 port 67 to 192.168.64.0/24 port 68
pass in quick proto udp from 192.168.64.0/24 to 192.168.64.1/32 port 53 keep state
pass in quick proto tcp from 192.168.64.0/24 to 192.168.64.1/32 port 53 keep state
pass out quick proto tcp from any to 192.168.64.0/24 port 22 keep state
block drop in quick from 192.168.64.0/24 to 10.0.0.0/8
pass out quick proto tcp from 192.168.1.0/24 to 192.168.64.0/24 port 8000:8080 keep state
pass out quick proto udp from 192.168.1.0/24 to 192.168.64.0/24 port 8000:8080 keep state
pass in quick from 192.168.64.0/24 to any keep state
block drop out quick from any to 192.168.64.0/24

)";
const std::string kFarmProblem =
    "192.168.70.0/24 overlaps en0 (192.168.70.20), one of this Mac's own networks; rules there "
    "would cut the Mac off from it.";

// The output without its first line, the one that says when it was generated.
std::string undated(const HelperCommand::Result& result) {
  EXPECT_THAT(result.stdout, StartsWith("# Tarnly network firewall - generated "));
  return result.stdout.substr(result.stdout.find('\n') + 1);
}

HelperCommand::Result preview(const std::vector<std::string>& arguments) {
  return HelperCommand::run(TARNLY_FIREWALL_PREVIEW_PATH, arguments);
}

TEST(FirewallPreviewTool, PrintsTheSampleRulesetNotesAndReportThatLoadIntoThePfSimulator) {
  TempTree tree;
  const std::string hosts = tree.write("hosts.json", kHosts);
  HelperCommand::Result result = preview({"--hosts", hosts, kSample});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(undated(result), kLabRuleset);
  EXPECT_EQ(result.stderr, "Isolated build farm: " + kFarmProblem + "\n");
  // The policy from standard input, with a dash or nothing; without --hosts, this machine's own
  // addresses.
  for (const auto& options : {std::string("--hosts " + hosts + " -"), std::string()}) {
    HelperCommand::Result piped = HelperCommand::run(
        "/bin/sh", {"-c", "exec " TARNLY_FIREWALL_PREVIEW_PATH " " + options + " < " + kSample});
    EXPECT_EQ(piped.status, 0) << piped.stderr;
    if (!options.empty()) EXPECT_EQ(undated(piped) + piped.stderr, undated(result) + result.stderr);
  }

  HelperCommand::Result report = preview({kSample, "--json", "--hosts", hosts});
  ASSERT_EQ(report.status, 0) << report.stderr;
  EXPECT_EQ(report.stderr, "");
  std::vector<std::string> keys;  // in a fixed order, so that people find the report the same
  const nlohmann::ordered_json json = nlohmann::ordered_json::parse(report.stdout);
  for (auto item = json.begin(); item != json.end(); ++item) keys.push_back(item.key());
  EXPECT_EQ(keys, (std::vector<std::string>{"enforceable", "refused", "skippedRules", "ipv6Drops",
                                            "ruleset", "rulesDigest"}));
  ASSERT_EQ(json["enforceable"].size(), 1u);
  EXPECT_EQ(json["enforceable"][0]["networkID"], "6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B");
  EXPECT_FALSE(json["enforceable"][0].contains("keepsIPv6"));
  EXPECT_EQ(
      json["refused"],
      nlohmann::ordered_json::parse(
          R"([{"networkID": "7A2D3B8F-4C5E-4F60-9BAC-1D2E3F4A5B6C", "label": "Isolated build farm", "problem": ")" +
          kFarmProblem + "\"}]"));
  EXPECT_EQ(json["skippedRules"], nlohmann::ordered_json::array());
  EXPECT_EQ(json["ipv6Drops"], nlohmann::ordered_json::parse(
                                   R"({"6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B": ["bridge100"]})"));
  const std::string ruleset = json["ruleset"];
  EXPECT_EQ(ruleset.substr(ruleset.find('\n') + 1), kLabRuleset);
  EXPECT_EQ(json["rulesDigest"], NetworkFirewall::rulesetDigest(ruleset));

  // With the build farm kept, both networks' lines load into pf as they are.
  PfSimulator pf{TARNLY_PFSIM_PATH, tree.path("sbin/pfctl"), tree.path("pfsim")};
  result = preview({"--hosts=" + tree.write("lab.json", "[]"), kSample});
  EXPECT_THAT(result.stdout,
              testing::HasSubstr("# --- Isolated build farm (192.168.70.0/24) ---\n"));
  const std::string rules = tree.write("anchor.conf", result.stdout);
  EXPECT_EQ(HelperCommand::run(pf.pfctlPath(), {"-a", "com.apple/900.tarnly.firewall", "-f", rules})
                .status,
            0);
  EXPECT_EQ(pf.loadedRuleset("com.apple/900.tarnly.firewall"), result.stdout);
  EXPECT_THAT(preview({"--help"}).stdout, StartsWith("usage: tarnly-firewall-preview"));
}

// Every refusal, with status 2, nothing on standard output and exactly this text (a prefix when
// it ends in "..."): policy files, hosts files and command lines.
TEST(FirewallPreviewTool, RefusesBadInputWithStatusTwoAndOneSentence) {
  TempTree tree;
  std::string upper = contentOf(kSample);
  upper.replace(upper.find("\"tcp\""), 5, "\"TCP\"");
  const std::string usage =
      " (usage: tarnly-firewall-preview [--json] [--hosts FILE] [POLICY.json | -])\n";
  const std::string policy = "Could not read the firewall policy: ",
                    hosts = "Could not read the hosts file: ";
  const std::string& p = kSample;
  int written = 0;
  auto file = [&](const std::string& content) {
    return tree.write(std::to_string(++written), content);
  };
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{file(upper)},
       policy + "[0].policy.rules[0].proto: \"TCP\" is not one of \"any\", \"tcp\", \"udp\", "
                "\"icmp\"\n"},
      {{file("{}")}, policy + "the document: expected an array of networks, found object\n"},
      {{file("[")}, policy + "the document is not JSON: parse error at line 1..."},
      {{file("")}, policy + "the document is not JSON: parse error at line 1..."},
      {{tree.path("absent")},
       policy + "open(" + tree.path("absent") + "): No such file or directory\n"},
      {{"--verbose", p}, "tarnly-firewall-preview: unknown option \"--verbose\"" + usage},
      {{p, "--hosts"}, "tarnly-firewall-preview: --hosts needs a file" + usage},
      {{"--hosts=", p}, "tarnly-firewall-preview: --hosts needs a file" + usage},
      {{p, p}, "tarnly-firewall-preview: only one policy file can be previewed at a time" + usage},
      {{"--hosts", tree.path("none"), p},
       hosts + "open(" + tree.path("none") + "): No such file or directory\n"},
      {{"--hosts", file(R"({"interface": "en0"})"), p},
       hosts + "the document: expected an array, found object\n"},
      {{"--hosts",
        file(R"([{"interface": "en0", "address": "192.168.1.300", "prefixLength": 24}])"), p},
       hosts + "[0].address: \"192.168.1.300\" is not an IPv4 or IPv6 address\n"},
      {{"--hosts", file(R"([{"interface": "en0", "address": "::1", "prefixLength": "64"}])"), p},
       hosts + "[0].prefixLength: \"64\" is not an integer from 0 to 128\n"},
      {{"--hosts", file(R"([{"address": "::1", "prefixLength": 64}])"), p},
       hosts + "[0].interface: required key is missing\n"},
      {{"--hosts", file("en0 192.168.1.2/24"), p}, hosts + "it is not JSON: ..."},
  };
  for (const auto& [arguments, message] : cases) {
    HelperCommand::Result result = preview(arguments);
    const std::size_t exact = message.ends_with("...") ? message.size() - 3 : std::string::npos;
    EXPECT_EQ(
        std::to_string(result.status) + "|" + result.stdout + "|" + result.stderr.substr(0, exact),
        "2||" + message.substr(0, exact));
  }
}

}  // namespace
