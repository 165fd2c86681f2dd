// The firewall preview program on the sample policy, hosts files in a temporary tree. Answers read
// "status|stdout|stderr", a generated first line cut to its fixed start.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "firewall/model/ruleset.h"
#include "service/helper_command.h"
#include "support/temp_tree.h"

namespace {

const std::string kSample = TARNLY_SOURCE_DIR "/samples/policy.json";
const std::string kDated = "# Tarnly network firewall - generated ";
const std::string kLabRuleset =
    "# Loaded into pf anchor \"com.apple/900.tarnly.firewall\" by TarnlyAdminHelper. Do not edit.\n"
    "\n# --- Lab (192.168.64.0/24) ---\nblock drop quick on bridge100 inet6 all\n"
    "pass in quick proto udp from 192.168.64.0/24 port 68 to { 192.168.64.1, 255.255.255.255 } "
    "port 67 keep state\n"
    R"(pass out quick proto udp from 192.168.64.1 port 67 to 192.168.64.0/24 port 68
pass in quick proto udp from 192.168.64.0/24 to 192.168.64.1/32 port 53 keep state
pass in quick proto tcp from 192.168.64.0/24 to 192.168.64.1/32 port 53 keep state
pass out quick proto tcp from any to 192.168.64.0/24 port 22 keep state
pass out quick proto tcp from 192.168.1.0/24 to 192.168.64.0/24 port 8000:8080 keep state
pass out quick proto udp from 192.168.1.0/24 to 192.168.64.0/24 port 8000:8080 keep state
pass in quick from 192.168.64.0/24 to any keep state
block drop out quick from any to 192.168.64.0/24

)";
const std::string kFarmProblem =
    "192.168.70.0/24 overlaps en0 (192.168.70.20), one of this Mac's own networks; rules there "
    "would cut the Mac off from it.";

std::string preview(std::vector<std::string> arguments, const std::string& input = "") {
  arguments.insert(arguments.begin(), {"-c", "exec \"$@\"" + (input.empty() ? "" : " < " + input),
                                       "sh", TARNLY_FIREWALL_PREVIEW_PATH});
  HelperCommand::Result result = HelperCommand::run("/bin/sh", arguments);
  std::string out = result.stdout;
  if (out.starts_with(kDated)) out.replace(kDated.size(), out.find('\n') - kDated.size(), "...");
  return std::to_string(result.status) + "|" + out + "|" + result.stderr;
}

TEST(FirewallPreviewTool, PrintsTheRulesetWithNotesOrAsAReportAndRefusesBadInputInOneSentence) {
  TempTree tree;
  // The build farm's subnet is one of this machine's own: it is refused. A rule the helper cannot
  // enforce is left out, noted after the refused networks.
  const std::string hosts =
      tree.write("hosts.json", R"([{"interface": "en0", "address": "192.168.70.20",
    "prefixLength": 24}, {"interface": "en0", "address": "fe80::1", "prefixLength": 64},
    {"interface": "bridge100", "address": "192.168.64.1", "prefixLength": 24}])");
  std::string policy = contentOf(kSample);
  policy = tree.write("policy.json", policy.replace(policy.find("10.0.0.0/8"), 10, "10.0.0.0/33"));
  const std::string skipped = "\"10.0.0.0/33\" isn't an IPv4 address or CIDR (such as 10.0.0.0/8).";
  EXPECT_EQ(preview({"--hosts", hosts, "-"}, policy), "0|" + kDated + "...\n" + kLabRuleset +
                                                          "|Isolated build farm: " + kFarmProblem +
                                                          "\nLab, rule 2: " + skipped + "\n");
  // Nothing names the policy: standard input; no hosts file: this machine's own addresses.
  EXPECT_EQ(preview({}, kSample).rfind("0|" + kDated, 0), 0u);
  EXPECT_EQ(preview({"--help"}).rfind("0|usage: tarnly-firewall-preview [--json]", 0), 0u);

  HelperCommand::Result report =
      HelperCommand::run(TARNLY_FIREWALL_PREVIEW_PATH, {policy, "--json", "--hosts=" + hosts});
  nlohmann::ordered_json json = nlohmann::ordered_json::parse(report.stdout + report.stderr);
  const std::string ruleset = json["ruleset"];
  EXPECT_EQ(json["rulesDigest"], NetworkFirewall::rulesetDigest(ruleset));
  json["enforceable"][0].erase("policy");
  json["ruleset"] = ruleset.substr(ruleset.find('\n') + 1);
  json.erase("rulesDigest");
  EXPECT_EQ(
      std::to_string(report.status) + json.dump(),  // keys in a fixed order, for people
      R"(0{"enforceable":[{"networkID":"6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B","name":"Lab",)"
      R"("subnetCIDR":"192.168.64.0/24","gatewayIPv4":"192.168.64.1","dnsProxyEnabled":true}],)"
      R"("refused":[{"networkID":"7A2D3B8F-4C5E-4F60-9BAC-1D2E3F4A5B6C","label":)"
      R"("Isolated build farm","problem":")" +
          kFarmProblem +
          R"("}],"skippedRules":[{"networkID":"6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B","label":)"
          R"("Lab, rule 2","problem":)" +
          nlohmann::json(skipped).dump() +
          R"(}],"ipv6Drops":{"6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B":["bridge100"]},"ruleset":)" +
          nlohmann::json(kLabRuleset).dump() + "}");

  // Every refusal: status 2, nothing on standard output and one sentence naming the input's fault.
  int files = 0;
  auto in = [&](const std::string& text) { return tree.write(std::to_string(++files), text); };
  auto use = [](const std::string& fault) {
    return "tarnly-firewall-preview: " + fault +
           " (usage: tarnly-firewall-preview [--json] [--hosts FILE] [POLICY.json | -])";
  };
  const std::string p = kSample, absent = tree.path("absent"),
                    policyFault = "Could not read the firewall policy: ",
                    hostsFault = "Could not read the hosts file: ",
                    missing = "open(" + absent + "): No such file or directory";
  const std::vector<std::pair<std::vector<std::string>, std::string>> refusals = {
      {{"--verbose", p}, use("unknown option \"--verbose\"")},
      {{p, "--hosts"}, use("--hosts needs a file")},
      {{"--hosts=", p}, use("--hosts needs a file")},
      {{p, p}, use("only one policy file can be previewed at a time")},
      {{in("[")},
       policyFault +
           "the document is not JSON: parse error at line 1, column 2: syntax "
           "error while parsing value - unexpected end of input; expected '[', '{', or a literal"},
      {{absent}, policyFault + missing},
      {{"--hosts", in("en0"), p},
       hostsFault + "it is not JSON: parse error at line 1, column 1: "
                    "syntax error while parsing value - invalid literal; last read: 'e'"},
      {{"--hosts", in(R"({"interface": "en0"})"), p},
       hostsFault + "the document: expected an array, found object"},
      {{"--hosts", in(R"([{"interface": "en0", "address": "192.168.1.300", "prefixLength": 24}])"),
        p},
       hostsFault + "[0].address: \"192.168.1.300\" is not an IPv4 or IPv6 address"},
      {{"--hosts", in(R"([{"interface": "en0", "address": "::1", "prefixLength": "64"}])"), p},
       hostsFault + "[0].prefixLength: \"64\" is not an integer from 0 to 128"},
      {{"--hosts", in(R"([{"address": "::1", "prefixLength": 64}])"), p},
       hostsFault + "[0].interface: required key is missing"},
      {{"--hosts", absent, p}, hostsFault + missing}};
  for (const auto& [arguments, sentence] : refusals)
    EXPECT_EQ(preview(arguments), "2||" + sentence + "\n");
}

}  // namespace
