// The policy store's two JSON forms, its replace rule with legacy adoption, and the store and
// record files in the state folder.
#include "firewall/enforce/policy_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "enforce_fixtures.h"
#include "firewall/enforce/firewall_state.h"
#include "firewall/enforce/loaded_ruleset.h"

namespace {

using enforce_test::network;
using NetworkFirewall::LoadedRuleset;
namespace Store = NetworkFirewall::PolicyStore;

TimePoint at(double seconds) {
  return fromSecondsSinceReferenceDate(seconds);
}

TEST(PolicyStoreJSON, OwnersFormRoundTripsAndIsWrittenSortedAndPretty) {
  Store::Owners owners;
  owners["501"] = {{network(1, "Lab", "192.168.64.0/24")}, at(800000000.25)};
  owners["1000"] = {{network(2, "Farm", "192.168.70.0/24"), network(3, "Web", "192.168.71.0/24")},
                    at(800000100)};
  owners["legacy"] = {{network(4, "Old", "192.168.72.0/24")}, Store::legacyDate()};

  std::string text = Store::encoded(owners);
  EXPECT_LT(text.find("\"1000\""), text.find("\"501\""));
  EXPECT_LT(text.find("\"501\""), text.find("\"legacy\""));
  EXPECT_NE(text.find("\n  \"owners\""), std::string::npos) << text;

  nlohmann::json parsed = nlohmann::json::parse(text);
  EXPECT_DOUBLE_EQ(parsed["owners"]["501"]["appliedAt"].get<double>(), 800000000.25);
  EXPECT_DOUBLE_EQ(parsed["owners"]["legacy"]["appliedAt"].get<double>(), -63114076800.0);

  std::optional<Store::Owners> back = Store::decoded(text);
  ASSERT_TRUE(back.has_value());
  EXPECT_EQ(*back, owners);
}

TEST(PolicyStoreJSON, BareArrayIsTheLegacyOwnerDatedYearOne) {
  std::string array = enforce_test::document({network(1, "Lab", "192.168.64.0/24")});
  std::optional<Store::Owners> owners = Store::decoded(array);
  ASSERT_TRUE(owners.has_value());
  ASSERT_EQ(owners->size(), 1u);
  const Store::Entry& legacy = owners->at("legacy");
  EXPECT_EQ(legacy.policies, std::vector{network(1, "Lab", "192.168.64.0/24")});
  EXPECT_DOUBLE_EQ(secondsSinceReferenceDate(legacy.appliedAt), -63114076800.0);

  std::optional<Store::Owners> empty = Store::decoded("[]");
  ASSERT_TRUE(empty.has_value());
  EXPECT_TRUE(empty->empty());
}

TEST(PolicyStoreJSON, AnythingElseIsUndecodable) {
  std::string lab = FirewallJSON::encode(network(1, "Lab", "192.168.64.0/24")).dump();
  const std::vector<std::string> undecodable = {
      "not json",
      "{}",
      R"({"owners": []})",
      R"({"owners": {"501": {"policies": [], "appliedAt": "yesterday"}}})",
      R"({"owners": {"501": {"appliedAt": 1}}})",
      R"({"owners": {"501": {"policies": [)" + lab + "]}}}",
      R"({"owners": {"501": {"policies": [{"name": "x"}], "appliedAt": 1}}})",
      R"([{"name": "no id"}])",
      "\"text\"",
  };
  for (const std::string& data : undecodable) {
    EXPECT_FALSE(Store::decoded(data).has_value()) << data;
  }
  // Unknown keys are ignored.
  EXPECT_TRUE(Store::decoded(R"({"owners": {}, "version": 2})").has_value());
}

class PolicyStoreReplace : public ::testing::Test {
 protected:
  PolicyStoreReplace() {
    owners["legacy"] = {{legacyLab}, Store::legacyDate()};
    owners["1000"] = {{network(5, "Farm", "192.168.70.0/24")}, at(100)};
  }
  FirewallNetworkPolicy legacyLab = network(1, "Lab", "192.168.64.0/24");
  Store::Owners owners;
};

TEST_F(PolicyStoreReplace, UnrelatedNetworksLeaveLegacyInPlace) {
  owners["501"] = {{network(2, "Old", "192.168.80.0/24")}, at(50)};
  auto previous =
      Store::replace(owners, "501", {network(3, "New", "192.168.81.0/24")}, at(200), false);
  EXPECT_EQ(previous, std::vector{network(2, "Old", "192.168.80.0/24")});
  EXPECT_TRUE(owners.contains("legacy"));
  EXPECT_EQ(owners.at("501"), (Store::Entry{{network(3, "New", "192.168.81.0/24")}, at(200)}));
}

TEST_F(PolicyStoreReplace, SharedNetworkIDAdoptsLegacyAsPrevious) {
  FirewallNetworkPolicy changed = legacyLab;
  changed.policy.defaultInbound = FirewallRule::Action::allow;
  auto previous = Store::replace(owners, "501", {changed}, at(200), false);
  EXPECT_EQ(previous, std::vector{legacyLab});
  EXPECT_FALSE(owners.contains("legacy"));
  EXPECT_EQ(owners.at("501").policies, std::vector{changed});
}

TEST_F(PolicyStoreReplace, AdoptionKeepsAnOwnEntryAsPrevious) {
  owners["501"] = {{network(2, "Mine", "192.168.80.0/24")}, at(50)};
  auto previous = Store::replace(owners, "501", {legacyLab}, at(200), true);
  EXPECT_EQ(previous, std::vector{network(2, "Mine", "192.168.80.0/24")});
  EXPECT_FALSE(owners.contains("legacy"));
}

TEST_F(PolicyStoreReplace, EmptyListRemovesTheEntryAndWithAdoptionTheLegacyOne) {
  owners["501"] = {{network(2, "Mine", "192.168.80.0/24")}, at(50)};
  Store::replace(owners, "501", {}, at(200), false);
  EXPECT_FALSE(owners.contains("501"));
  EXPECT_TRUE(owners.contains("legacy"));

  auto previous = Store::replace(owners, "501", {}, at(300), true);
  EXPECT_EQ(previous, std::vector{legacyLab});
  EXPECT_EQ(owners.size(), 1u);
  EXPECT_TRUE(owners.contains("1000"));
}

class StateFiles : public enforce_test::EnforceTest {};

TEST_F(StateFiles, SaveCreatesTheFolderAndAPrivateFileThatLoadsBack) {
  Store::Owners owners;
  owners["501"] = {{network(1, "Lab", "192.168.64.0/24")}, at(1000.5)};
  HelperFirewall::saveStore(env, owners);
  EXPECT_EQ(modeOf(state("firewall-policies.json")), 0600);
  EXPECT_EQ(HelperFirewall::loadStore(env), owners);
  EXPECT_TRUE(logLines().empty());
}

TEST_F(StateFiles, MissingStoreIsEmptyAndSilentUndecodableIsLogged) {
  EXPECT_TRUE(HelperFirewall::loadStore(env).empty());
  EXPECT_TRUE(logLines().empty());

  tree.write("Library/Application Support/Tarnly/firewall-policies.json", "{\"owners\": 7}");
  EXPECT_TRUE(HelperFirewall::loadStore(env).empty());
  EXPECT_THAT(
      logLines(),
      testing::ElementsAre("Persisted firewall policy could not be decoded; starting from none."));
  EXPECT_EQ(contentOf(state("firewall-policies.json")), "{\"owners\": 7}");
}

TEST_F(StateFiles, LegacyFileIsRewrittenInOwnersFormWithItsEarlyDate) {
  tree.write("Library/Application Support/Tarnly/firewall-policies.json",
             enforce_test::document({network(1, "Lab", "192.168.64.0/24")}));
  Store::Owners owners = HelperFirewall::loadStore(env);
  HelperFirewall::saveStore(env, owners);
  nlohmann::json saved = nlohmann::json::parse(contentOf(state("firewall-policies.json")));
  EXPECT_DOUBLE_EQ(saved["owners"]["legacy"]["appliedAt"].get<double>(), -63114076800.0);
  EXPECT_EQ(saved["owners"]["legacy"]["policies"][0]["name"], "Lab");
}

TEST_F(StateFiles, SaveFailureIsThrown) {
  tree.write("Library/Application Support/Tarnly", "a file where the folder belongs");
  EXPECT_THROW(HelperFirewall::saveStore(env, {}), FileError);
}

TEST_F(StateFiles, RecordRoundTripsWithAndWithoutOptionalFields) {
  createDirectories(paths.stateDirectory);
  LoadedRuleset full{std::string(64, 'a'), std::string(64, 'b'), "boot"};
  HelperFirewall::recordLoadedRuleset(env, full);
  EXPECT_EQ(modeOf(state("firewall-loaded.json")), 0600);
  EXPECT_EQ(HelperFirewall::readLoadedRuleset(env), full);

  LoadedRuleset bare{std::string(64, 'c'), std::nullopt, std::nullopt};
  HelperFirewall::recordLoadedRuleset(env, bare);
  EXPECT_EQ(contentOf(state("firewall-loaded.json")),
            "{\"rulesDigest\":\"" + std::string(64, 'c') + "\"}");
  EXPECT_EQ(HelperFirewall::readLoadedRuleset(env), bare);
  EXPECT_TRUE(logLines().empty());
}

TEST_F(StateFiles, RecordWithoutRulesDigestOrUnreadableIsNoRecord) {
  EXPECT_FALSE(HelperFirewall::readLoadedRuleset(env).has_value());
  for (const char* data : {R"({"anchorDigest": "x"})", "[]", "{", R"({"rulesDigest": 5})",
                           R"({"rulesDigest": "d", "enabledInBoot": 3})"}) {
    tree.write("Library/Application Support/Tarnly/firewall-loaded.json", data);
    EXPECT_FALSE(HelperFirewall::readLoadedRuleset(env).has_value()) << data;
  }
  EXPECT_TRUE(logLines().empty());
}

TEST_F(StateFiles, RecordWriteFailureIsOnlyLogged) {
  // No state folder: the record cannot be written.
  HelperFirewall::recordLoadedRuleset(env, LoadedRuleset{"d", std::nullopt, std::nullopt});
  std::vector<std::string> lines = logLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(lines[0].starts_with("Could not record what pf was loaded with: open(")) << lines[0];
}

}  // namespace
