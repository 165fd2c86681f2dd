// The firewall preview program, run as an administrator runs it on the sample policy with hosts
// files in a temporary tree. Answers read "status|stdout|stderr".
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "firewall/model/ruleset.h"
#include "service/helper_command.h"
#include "support/pf_simulator.h"
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
block drop in quick from 192.168.64.0/24 to 10.0.0.0/8
pass out quick proto tcp from 192.168.1.0/24 to 192.168.64.0/24 port 8000:8080 keep state
pass out quick proto udp from 192.168.1.0/24 to 192.168.64.0/24 port 8000:8080 keep state
pass in quick from 192.168.64.0/24 to any keep state
block drop out quick from any to 192.168.64.0/24

)";
const std::string kFarmProblem =
    "192.168.70.0/24 overlaps en0 (192.168.70.20), one of this Mac's own networks; rules there "
    "would cut the Mac off from it.";

// The answer, the output's first line (when it was generated) cut to its fixed start.
std::string preview(const std::vector<std::string>& arguments, const std::string& input = "") {
  std::string command = "exec \"$@\"" + (input.empty() ? "" : " < " + input);
  std::vector<std::string> shell = {"-c", command, "sh", TARNLY_FIREWALL_PREVIEW_PATH};
  shell.insert(shell.end(), arguments.begin(), arguments.end());
  HelperCommand::Result result = HelperCommand::run("/bin/sh", shell);
  std::string out = result.stdout;
  if (out.starts_with(kDated)) out.replace(kDated.size(), out.find('\n') - kDated.size(), "...");
  return std::to_string(result.status) + "|" + out + "|" + result.stderr;
}

TEST(FirewallPreviewTool, PrintsTheSampleRulesetWithNotesOrAsAReportAndItLoadsIntoThePfSimulator) {
  TempTree tree;
  // The build farm's subnet is one of this machine's own: it is refused.
  const std::string hosts = tree.write("hosts.json", R"([
    {"interface": "en0", "address": "192.168.70.20", "prefixLength": 24},
    {"interface": "en0", "address": "fe80::1", "prefixLength": 64},
    {"interface": "bridge100", "address": "192.168.64.1", "prefixLength": 24}])");
  const std::string printed =
      "0|" + kDated + "...\n" + kLabRuleset + "|Isolated build farm: " + kFarmProblem + "\n";
  EXPECT_EQ(preview({"--hosts", hosts, kSample}), printed);
  // A rule the helper cannot enforce is left out, noted after the refused networks.
  std::string skipping = contentOf(kSample), expected = printed;
  skipping.replace(skipping.find("10.0.0.0/8"), 10, "10.0.0.0/33");
  const std::string skipped = "block drop in quick from 192.168.64.0/24 to 10.0.0.0/8\n";
  expected.erase(expected.find(skipped), skipped.size());
  EXPECT_EQ(
      preview({"--hosts", hosts, "-"}, tree.write("skipping.json", skipping)),
      expected +
          "Lab, rule 2: \"10.0.0.0/33\" isn't an IPv4 address or CIDR (such as 10.0.0.0/8).\n");
  // Nothing names the policy: standard input; no hosts file: this machine's own addresses.
  EXPECT_EQ(preview({}, kSample).rfind("0|" + kDated, 0), 0u);
  EXPECT_EQ(preview({"--help"}).rfind("0|usage: tarnly-firewall-preview [--json]", 0), 0u);

  HelperCommand::Result report =
      HelperCommand::run(TARNLY_FIREWALL_PREVIEW_PATH, {kSample, "--json", "--hosts", hosts});
  EXPECT_EQ(report.status, 0);
  nlohmann::ordered_json json = nlohmann::ordered_json::parse(report.stdout + report.stderr);
  const std::string ruleset = json["ruleset"];
  EXPECT_EQ(ruleset.substr(ruleset.find('\n') + 1), kLabRuleset);
  EXPECT_EQ(json["rulesDigest"], NetworkFirewall::rulesetDigest(ruleset));
  json["enforceable"][0].erase("policy");
  json["ruleset"] = json["rulesDigest"] = "...";
  EXPECT_EQ(
      json.dump(),  // its keys in a fixed order, so that people find the report the same
      R"({"enforceable":[{"networkID":"6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B","name":"Lab",)"
      R"("subnetCIDR":"192.168.64.0/24","gatewayIPv4":"192.168.64.1","dnsProxyEnabled":true}],)"
      R"("refused":[{"networkID":"7A2D3B8F-4C5E-4F60-9BAC-1D2E3F4A5B6C","label":)"
      R"("Isolated build farm","problem":")" +
          kFarmProblem +
          R"("}],"skippedRules":[],)"
          R"("ipv6Drops":{"6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B":["bridge100"]},)"
          R"("ruleset":"...","rulesDigest":"..."})");

  // With the build farm kept, both networks' lines load into pf as they are.
  PfSimulator pf{TARNLY_PFSIM_PATH, tree.path("sbin/pfctl"), tree.path("pfsim")};
  const std::string both = tree.write(
      "anchor.conf", HelperCommand::run(TARNLY_FIREWALL_PREVIEW_PATH,
                                        {"--hosts=" + tree.write("none.json", "[]"), kSample})
                         .stdout);
  EXPECT_EQ(HelperCommand::run(pf.pfctlPath(), {"-a", "com.apple/900.tarnly.firewall", "-f", both})
                .status,
            0);
  const std::string loaded = pf.loadedRuleset("com.apple/900.tarnly.firewall");
  EXPECT_EQ(loaded, contentOf(both));
  EXPECT_NE(loaded.find("# --- Isolated build farm (192.168.70.0/24) ---\n"), std::string::npos);
}

// Every refusal: status 2, nothing on standard output and one sentence naming the input's fault.
TEST(FirewallPreviewTool, RefusesBadInputWithStatusTwoAndOneSentence) {
  TempTree tree;
  const std::string& p = kSample;
  const std::string usage =
      " (usage: tarnly-firewall-preview [--json] [--hosts FILE] [POLICY.json | -])\n";
  std::vector<std::pair<std::vector<std::string>, std::string>> lines = {
      {{"--verbose", p}, "unknown option \"--verbose\""},
      {{p, "--hosts"}, "--hosts needs a file"},
      {{"--hosts=", p}, "--hosts needs a file"},
      {{p, p}, "only one policy file can be previewed at a time"}};
  for (auto& [arguments, fault] : lines) {
    EXPECT_EQ(preview(arguments), "2||tarnly-firewall-preview: " + fault.append(usage));
  }
  // Policy files, then hosts files: what is in them (none: no such file) and the fault.
  const std::vector<std::pair<std::string, std::string>> policies = {
      {"{}", "the document: expected an array of networks, found object"},
      {"[",
       "the document is not JSON: parse error at line 1, column 2: syntax error while parsing "
       "value - unexpected end of input; expected '[', '{', or a literal"},
      {"", "open(" + tree.path("absent") + "): No such file or directory"}};
  const std::vector<std::pair<std::string, std::string>> hosts = {
      {"en0",
       "it is not JSON: parse error at line 1, column 1: syntax error while parsing value - "
       "invalid literal; last read: 'e'"},
      {R"({"interface": "en0"})", "the document: expected an array, found object"},
      {R"([{"interface": "en0", "address": "192.168.1.300", "prefixLength": 24}])",
       "[0].address: \"192.168.1.300\" is not an IPv4 or IPv6 address"},
      {R"([{"interface": "en0", "address": "::1", "prefixLength": "64"}])",
       "[0].prefixLength: \"64\" is not an integer from 0 to 128"},
      {R"([{"address": "::1", "prefixLength": 64}])", "[0].interface: required key is missing"},
      {"", "open(" + tree.path("absent") + "): No such file or directory"}};
  for (const auto& [content, fault] : policies) {
    const std::string input = content.empty() ? tree.path("absent") : tree.write("input", content);
    EXPECT_EQ(preview({input}), "2||Could not read the firewall policy: " + fault + "\n");
  }
  for (const auto& [content, fault] : hosts) {
    const std::string input = content.empty() ? tree.path("absent") : tree.write("input", content);
    EXPECT_EQ(preview({"--hosts", input, p}), "2||Could not read the hosts file: " + fault + "\n");
  }
}

}  // namespace
