// The policy store's two JSON forms, its replace rule with legacy adoption, who wins a subnet two
// owners claim, the record of what pf was loaded with, and reading pfctl's output.
#include "firewall/enforce/policy_store.h"

#include "enforce_fixtures.h"
#include "firewall/enforce/loaded_ruleset.h"
#include "firewall/enforce/owners_merge.h"
#include "firewall/enforce/pf_output.h"

namespace {

using namespace enforce_test;
namespace Store = NetworkFirewall::PolicyStore;
using Networks = std::vector<FirewallNetworkPolicy>;
const FirewallNetworkPolicy lab = network(1, "Lab", "192.168.64.0/24");
const std::string lab1 = FirewallJSON::encode(lab).dump();

TEST(PolicyStore, DecodesBothFormsDropsEmptyOwnersAndClampsDates) {
  Store::Owners owners = {
      {"501", {{lab}, at(800000000.25)}},
      {"1000", {{network(2, "Farm", "192.168.70.0/24")}, at(800000100)}},
      {"legacy", {{network(4, "Old", "192.168.72.0/24")}, Store::legacyDate()}}};
  std::string text = Store::encoded(owners);  // sorted keys, indented, dates as seconds
  EXPECT_THAT(text, testing::StartsWith("{\n  \"owners\": {\n    \"1000\": {\n      \"appliedAt\": "
                                        "800000100.0,"));
  EXPECT_THAT(text, testing::HasSubstr("\"appliedAt\": -63114076800.0,"));  // 0001-01-01
  auto entry = [](const std::string& appliedAt) {
    return R"({"owners": {"501": {"policies": [)" + lab1 + "], \"appliedAt\": " + appliedAt + "}";
  };
  const std::vector<std::pair<std::string, std::optional<Store::Owners>>> cases = {
      {text, owners},
      {document({lab}), Store::Owners{{"legacy", {{lab}, Store::legacyDate()}}}},
      {"[]", Store::Owners{}},
      {R"({"owners": {"1": {"policies": [], "appliedAt": 5}}, "version": 2})", Store::Owners{}},
      {entry("1e300") + "}}", Store::Owners{{"501", {{lab}, TimePoint::max()}}}},
      {entry("-1e300") + "}}", Store::Owners{{"501", {{lab}, TimePoint::min()}}}},
      {entry("\"yesterday\"") + "}}", std::nullopt},
      {R"({"owners": {"501": {"policies": [)" + lab1 + "]}}}", std::nullopt},
      {R"({"owners": {"501": {"appliedAt": 1}}})", std::nullopt},
      {R"({"owners": {"501": {"policies": [{"name": "x"}], "appliedAt": 1}}})", std::nullopt},
      {R"({"owners": {"501": 7}})", std::nullopt},
      {R"({"owners": []})", std::nullopt},
      {"{}", std::nullopt},
      {R"([{"name": "no id"}])", std::nullopt},
      {"\"text\"", std::nullopt},
      {"not json", std::nullopt},
  };
  for (const auto& [data, expected] : cases) EXPECT_EQ(Store::decoded(data), expected) << data;
}

// What pf was loaded with: absent fields left out, a record with a field of the wrong type ignored.
TEST(PolicyStore, LoadedRulesetRecordKeepsOnlyWhatItKnows) {
  using NetworkFirewall::LoadedRuleset;
  LoadedRuleset bare{"c", std::nullopt, std::nullopt}, full{"c", "a", "b"};
  EXPECT_EQ(bare.encoded(), R"({"rulesDigest":"c"})");
  EXPECT_EQ(LoadedRuleset::decoded(full.encoded()), full);
  EXPECT_EQ(LoadedRuleset::decoded(R"({"rulesDigest": "c", "anchorDigest": null, "x": 1})"), bare);
  for (const char* data : {R"({"anchorDigest": "a"})", "{", "[]", R"({"rulesDigest": 5})",
                           R"({"rulesDigest": "c", "anchorDigest": 5})",
                           R"({"rulesDigest": "c", "enabledInBoot": 5})"}) {
    EXPECT_EQ(LoadedRuleset::decoded(data), std::nullopt) << data;
  }
}

// Legacy networks are adopted when the caller's share a network ID, and the caller's own previous
// entry wins over the legacy one.
TEST(PolicyStore, ReplaceAdoptsLegacyAndMergeKeepsOneNetworkPerSubnet) {
  FirewallNetworkPolicy mine = network(2, "Mine", "192.168.80.0/24"), changed = lab;
  changed.policy.defaultInbound = FirewallRule::Action::allow;
  Store::Owners owners = {{"legacy", {{lab}, Store::legacyDate()}}, {"501", {{mine}, at(50)}}};
  EXPECT_EQ(Store::replace(owners, "502", {changed}, at(200), false), Networks{lab});
  EXPECT_EQ(owners, (Store::Owners{{"501", {{mine}, at(50)}}, {"502", {{changed}, at(200)}}}));
  owners["legacy"] = {{lab}, Store::legacyDate()};
  EXPECT_EQ(Store::replace(owners, "501", {}, at(300), true), Networks{mine});
  EXPECT_EQ(owners, (Store::Owners{{"502", {{changed}, at(200)}}}));

  // The merge keeps the latest owner's; equal dates go to the smaller key in text order, and
  // within one owner the earlier network wins, whatever its host bits.
  FirewallNetworkPolicy first = network(3, "First", "192.168.65.7/24"),
                        second = network(4, "Second", "192.168.65.0/24"),
                        other = network(5, "Other", "192.168.64.0/24");
  owners = {{"501", {{lab, first, second}, at(100)}}, {"1000", {{other}, at(100)}}};
  Store::Merged merged = Store::merged(owners);
  EXPECT_EQ(merged.kept, (Networks{other, first}));
  EXPECT_THAT(merged.leftOut,
              testing::ElementsAre(testing::Pair("501", lab), testing::Pair("501", second)));
  EXPECT_EQ(NetworkFirewall::subnetOwnersReport(owners),
            "192.168.64.0/24 1000\n192.168.65.0/24 501");
}

TEST(PfOutput, ErrorTextDropsKnownNoiseAndStatusReadsTheFirstStatusLine) {
  const std::pair<std::string, std::string> errors[] = {
      {"pfctl: Use of -f option, could result in flushing of rules\npresent in the main ruleset "
       "added by the system at startup.\nSee /etc/pf.conf for further details.\n\nNo ALTQ support "
       "in kernel\nALTQ related functions disabled\nx.conf:7: syntax error\n \t \n  pfctl: stop",
       "x.conf:7: syntax error\n  pfctl: stop"},
      {"\n No ALTQ support in kernel\nALTQ related functions disabled\n\n",  // all noise: trimmed
       "No ALTQ support in kernel\nALTQ related functions disabled"},
  };
  for (const auto& [output, text] : errors) EXPECT_EQ(HelperFirewall::pfctlErrorText(output), text);
  for (const char* output : {"Status: Unknown\nStatus: Enabled\n", "State Table\nEnabled\n"}) {
    EXPECT_EQ(NetworkFirewall::pfEnabled(output), NetworkFirewall::PfStatus::unknown) << output;
  }
}

}  // namespace
