// The policy store's two JSON forms, its replace rule with legacy adoption, who wins a subnet two
// owners claim, and the record of what pf was loaded with.
#include "firewall/enforce/policy_store.h"

#include "enforce_fixtures.h"
#include "firewall/enforce/loaded_ruleset.h"
#include "firewall/enforce/owners_merge.h"

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
  EXPECT_THAT(text, testing::HasSubstr("{\n  \"owners\": {\n    \"1000\": {\n      \"appliedAt\": "
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

// The apply's walk covers the plain cases; here legacy networks are adopted because the caller's
// share a network ID, and the caller's own previous entry wins over the legacy one.
TEST(PolicyStore, ReplaceAdoptsLegacyThatSharesANetworkOrWhenAsked) {
  FirewallNetworkPolicy mine = network(2, "Mine", "192.168.80.0/24"), changed = lab;
  changed.policy.defaultInbound = FirewallRule::Action::allow;
  Store::Owners owners = {{"legacy", {{lab}, Store::legacyDate()}}, {"501", {{mine}, at(50)}}};
  EXPECT_EQ(Store::replace(owners, "502", {changed}, at(200), false), Networks{lab});
  EXPECT_EQ(owners, (Store::Owners{{"501", {{mine}, at(50)}}, {"502", {{changed}, at(200)}}}));
  owners["legacy"] = {{lab}, Store::legacyDate()};
  EXPECT_EQ(Store::replace(owners, "501", {}, at(300), true), Networks{mine});
  EXPECT_EQ(owners, (Store::Owners{{"502", {{changed}, at(200)}}}));
}

// The latest owner wins; equal dates go to the smaller key in text order, and within one owner
// the earlier network wins, whatever its host bits.
TEST(PolicyStore, MergeKeepsOneNetworkPerSubnet) {
  FirewallNetworkPolicy five = network(1, "Five", "192.168.64.0/24"),
                        thousand = network(2, "Thousand", "192.168.64.0/24"),
                        first = network(3, "First", "192.168.65.7/24"),
                        second = network(4, "Second", "192.168.65.0/24");
  Store::Owners owners = {{"501", {{five, first, second}, at(100)}},
                          {"1000", {{thousand}, at(100)}}};
  Store::Merged merged = Store::merged(owners);
  EXPECT_EQ(merged.kept, (Networks{thousand, first}));
  EXPECT_THAT(merged.leftOut,
              testing::ElementsAre(testing::Pair("501", five), testing::Pair("501", second)));
  EXPECT_EQ(NetworkFirewall::subnetOwnersReport(owners),
            "192.168.64.0/24 1000\n192.168.65.0/24 501");
}

}  // namespace
