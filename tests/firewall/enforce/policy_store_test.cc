// The policy store's two JSON forms, its replace rule with legacy adoption, and the store and
// record files in the state folder.
#include "firewall/enforce/policy_store.h"

#include <nlohmann/json.hpp>

#include "enforce_fixtures.h"
#include "firewall/enforce/firewall_state.h"
#include "firewall/enforce/loaded_ruleset.h"

namespace {

using namespace enforce_test;
using NetworkFirewall::LoadedRuleset;
namespace Store = NetworkFirewall::PolicyStore;

constexpr double kYearOne = -63114076800.0;  // 0001-01-01T00:00:00Z

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
  EXPECT_DOUBLE_EQ(parsed["owners"]["legacy"]["appliedAt"].get<double>(), kYearOne);
  EXPECT_EQ(Store::decoded(text), owners);
}

TEST(PolicyStoreJSON, BareArrayIsTheLegacyOwnerAndAnythingElseIsUndecodable) {
  FirewallNetworkPolicy lab = network(1, "Lab", "192.168.64.0/24");
  EXPECT_EQ(Store::decoded(document({lab})),
            (Store::Owners{{"legacy", {{lab}, Store::legacyDate()}}}));
  EXPECT_EQ(Store::decoded("[]"), Store::Owners{});
  EXPECT_EQ(Store::decoded(R"({"owners": {}, "version": 2})"), Store::Owners{});  // unknown keys
  // No entry without networks; dates beyond the representable range are clamped, in order.
  std::string lab1 = FirewallJSON::encode(lab).dump();
  auto edges = Store::decoded(R"({"owners": {"1": {"policies": [], "appliedAt": 5},
      "2": {"policies": [)" + lab1 +
                              R"(], "appliedAt": 1e300},
      "3": {"policies": [)" + lab1 +
                              R"(], "appliedAt": -1e300}}})");
  ASSERT_TRUE(edges.has_value());
  EXPECT_FALSE(edges->contains("1"));
  EXPECT_EQ(edges->at("2").appliedAt, TimePoint::max());
  EXPECT_EQ(edges->at("3").appliedAt, TimePoint::min());

  std::string one = FirewallJSON::encode(lab).dump();
  for (const std::string& data : std::vector<std::string>{
           "not json", "{}", R"({"owners": []})",
           R"({"owners": {"501": {"policies": [], "appliedAt": "yesterday"}}})",
           R"({"owners": {"501": {"appliedAt": 1}}})",
           R"({"owners": {"501": {"policies": [)" + one + "]}}}",
           R"({"owners": {"501": {"policies": [{"name": "x"}], "appliedAt": 1}}})",
           R"([{"name": "no id"}])", "\"text\""}) {
    EXPECT_FALSE(Store::decoded(data).has_value()) << data;
  }
}

TEST(PolicyStoreReplace, ReplacesTheCallersEntryAndAdoptsLegacy) {
  FirewallNetworkPolicy legacyLab = network(1, "Lab", "192.168.64.0/24");
  FirewallNetworkPolicy mine = network(2, "Mine", "192.168.80.0/24");
  FirewallNetworkPolicy changed = legacyLab;  // shares the legacy network's ID
  changed.policy.defaultInbound = FirewallRule::Action::allow;
  FirewallNetworkPolicy unrelated = network(3, "New", "192.168.81.0/24");
  struct Case {
    bool hasOwn;
    std::vector<FirewallNetworkPolicy> policies;
    bool adopt;
    std::vector<FirewallNetworkPolicy> previous;
    std::vector<std::string> keys;
  };
  const std::vector<Case> cases = {
      {true, {unrelated}, false, {mine}, {"1000", "501", "legacy"}},
      {false, {changed}, false, {legacyLab}, {"1000", "501"}},
      {true, {legacyLab}, true, {mine}, {"1000", "501"}},
      {true, {}, false, {mine}, {"1000", "legacy"}},
      {false, {}, true, {legacyLab}, {"1000"}},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    Store::Owners owners;
    owners["legacy"] = {{legacyLab}, Store::legacyDate()};
    owners["1000"] = {{network(5, "Farm", "192.168.70.0/24")}, at(100)};
    if (c.hasOwn) owners["501"] = {{mine}, at(50)};
    EXPECT_EQ(Store::replace(owners, "501", c.policies, at(200), c.adopt), c.previous) << i;
    std::vector<std::string> keys;
    for (const auto& [key, entry] : owners) keys.push_back(key);
    EXPECT_EQ(keys, c.keys) << i;
    if (!c.policies.empty()) {
      EXPECT_EQ(owners.at("501"), (Store::Entry{c.policies, at(200)})) << i;
    }
  }
}

class StateFiles : public EnforceTest {};

TEST_F(StateFiles, UndecodableStoreIsLoggedAndKeptAndTheRecordIsOptional) {
  EXPECT_TRUE(HelperFirewall::loadStore(env).empty());
  tree.write(kStore, "{\"owners\": 7}");
  EXPECT_TRUE(HelperFirewall::loadStore(env).empty());
  EXPECT_THAT(logLines(), testing::ElementsAre("Persisted firewall policy could not be decoded; "
                                               "starting from none."));
  EXPECT_EQ(contentOf(state("firewall-policies.json")), "{\"owners\": 7}");

  LoadedRuleset bare{std::string(64, 'c'), std::nullopt, std::nullopt};
  HelperFirewall::recordLoadedRuleset(env, bare);
  EXPECT_EQ(contentOf(state("firewall-loaded.json")),
            "{\"rulesDigest\":\"" + std::string(64, 'c') + "\"}");
  EXPECT_EQ(modeOf(state("firewall-loaded.json")), 0600);
  EXPECT_EQ(HelperFirewall::readLoadedRuleset(env), bare);
  for (const char* data : {R"({"anchorDigest": "x"})", "{", R"({"rulesDigest": 5})"}) {
    tree.write("Library/Application Support/Tarnly/firewall-loaded.json", data);
    EXPECT_FALSE(HelperFirewall::readLoadedRuleset(env).has_value()) << data;
  }
  EXPECT_EQ(logLines().size(), 1u);
}

TEST_F(StateFiles, RecordWriteFailureIsOnlyLogged) {  // no state folder
  HelperFirewall::recordLoadedRuleset(env, LoadedRuleset{"d", std::nullopt, std::nullopt});
  ASSERT_EQ(logLines().size(), 1u);
  EXPECT_EQ(logLines()[0], "Could not record what pf was loaded with: Could not write " +
                               env.paths.state("firewall-loaded.json") +
                               ": No such file or directory.");
}

}  // namespace
