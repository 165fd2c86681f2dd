// The firewall operations end to end against the pf simulator: apply, remove, the status report
// and the re-apply at start, with several owners, legacy adoption and concurrent callers.
#include "firewall/enforce/firewall_operations.h"

#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "enforce_fixtures.h"
#include "firewall/enforce/firewall_state.h"
#include "firewall/enforce/helper_error.h"
#include "support/flock_waiter.h"

namespace {

using namespace enforce_test;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
namespace Store = NetworkFirewall::PolicyStore;

class FirewallOperations : public EnforceTest {
 protected:
  std::string apply(const std::vector<FirewallNetworkPolicy>& networks, unsigned int uid,
                    bool adoptLegacy = false) {
    return HelperFirewall::apply(host, document(networks), uid, adoptLegacy);
  }
  // The error text an apply throws; empty when it did not throw.
  std::string applyError(std::string_view data, unsigned int uid) {
    try {
      HelperFirewall::apply(host, data, uid, false);
    } catch (const std::exception& error) {
      return error.what();
    }
    return "";
  }
  std::string storeText() const { return contentOf(state("firewall-policies.json")); }
  Store::Owners stored() const { return Store::decoded(storeText()).value_or(Store::Owners{}); }
  std::string anchorRules() const { return pf.loadedRuleset(kAnchor); }

  FirewallNetworkPolicy lab = network(1, "Lab", "192.168.64.0/24");
  FirewallNetworkPolicy farm = network(2, "Farm", "192.168.70.0/24");
};

TEST_F(FirewallOperations, ApplyReloadsOnlyWhatChangedAndKillsStatesOfChangedSubnetsOnly) {
  std::string first = apply({lab, farm}, 501);
  EXPECT_EQ(first, "Enforcing 2 networks: Lab, Farm");
  EXPECT_EQ(stored().at("501").policies, (std::vector{lab, farm}));
  EXPECT_EQ(modeOf(state("firewall-policies.json")), 0600);
  EXPECT_TRUE(pf.enabled());
  pf.clearInvocations();
  EXPECT_EQ(apply({lab, farm}, 501), first);
  HelperFirewall::reapplyAtBoot(host);
  EXPECT_EQ(pf.invocations(), (Runs{kStatusInfo, kAnchorListing, kStatusInfo, kAnchorListing}));
  EXPECT_THAT(logLines(), Contains("Firewall for uid 501 unchanged; pf already runs these rules, "
                                   "so nothing was reloaded."));
  EXPECT_EQ(logLines().back(),
            "Boot re-apply: pf already runs these rules; nothing reloaded. Enforcing 2 networks "
            "for all users: Lab, Farm");
  pf.setEnabled(false);
  for (const char* inside : {"192.168.64.10", "192.168.70.10"}) {
    pf.addState(inside, "10.1.1.1");
    pf.addState("10.1.1.1", inside);
  }
  pf.clearInvocations();
  FirewallNetworkPolicy changed = farm;
  changed.policy.rules[0].ports = "2222";
  apply({lab, changed}, 501);
  EXPECT_EQ(runsOf(anchorLoad()), 1u);
  EXPECT_EQ(runsOf({"-E"}), 1u);
  EXPECT_EQ(runsOf({"-k", "0.0.0.0/0", "-k", "192.168.70.0/24"}), 1u);
  EXPECT_EQ(runsOf({"-k", "192.168.64.0/24"}), 0u);
  EXPECT_THAT(pf.states(), testing::Each(HasSubstr("192.168.64.10")));
}

TEST_F(FirewallOperations, MostRecentOwnerWinsLegacyIsAdoptedAndTheLastRemovalDeletesTheFiles) {
  tree.write(kStore, document({network(9, "Old", "192.168.90.0/24")}));
  FirewallNetworkPolicy theirs = network(3, "Their lab", "192.168.64.0/24");
  theirs.policy.defaultInbound = FirewallRule::Action::allow;
  apply({lab, farm}, 501);
  EXPECT_TRUE(stored().contains("legacy"));
  EXPECT_EQ(apply({theirs}, 502, true),
            "Enforcing 1 network: Their lab - 2 more for other users of this Mac");
  EXPECT_FALSE(stored().contains("legacy"));
  EXPECT_THAT(logLines(), Contains("192.168.64.0/24 is claimed by networks of more than one "
                                   "user; uid 501's \"Lab\" is left out for the most recently "
                                   "applied one."));
  EXPECT_THAT(anchorRules(), HasSubstr("# --- Their lab (192.168.64.0/24) ---"));
  EXPECT_THAT(anchorRules(), Not(HasSubstr("# --- Lab ")));
  EXPECT_THAT(HelperFirewall::statusReport(host),
              testing::EndsWith("== subnet owners ==\n192.168.64.0/24 502\n192.168.70.0/24 501"));
  HelperFirewall::remove(host, 502, false);
  EXPECT_THAT(stored(), ElementsAre(testing::Key("501")));
  EXPECT_THAT(anchorRules(), HasSubstr("# --- Lab (192.168.64.0/24) ---"));
  EXPECT_EQ(logLines().back(), "Removed uid 502's firewall policies; other users' stay in force.");
  HelperFirewall::remove(host, 501, false);
  for (const char* file : {"firewall-policies.json", "firewall.pf.conf", "firewall-loaded.json"}) {
    EXPECT_FALSE(pathExists(state(file))) << file;
  }
  EXPECT_EQ(runsOf({"-a", kAnchor, "-F", "rules"}), 1u);
  EXPECT_TRUE(anchorRules().empty());
  EXPECT_EQ(logLines().back(), "Removed firewall enforcement.");
}

TEST_F(FirewallOperations, RepliesForRefusedSkippedAndDisabledNetworksAndFailuresKeepTheStore) {
  // A refused network is reported after the rest is applied and saved.
  EXPECT_EQ(applyError(document({lab, network(4, "Home", "192.168.1.0/24")}), 501),
            "Enforcing 1 network: Lab\nNot enforced:\n- Home: 192.168.1.0/24 overlaps en0 "
            "(192.168.1.20), one of this Mac's own networks; rules there would cut the Mac off "
            "from it.");
  EXPECT_EQ(stored().at("501").policies, std::vector{lab});
  FirewallNetworkPolicy broken = lab;
  broken.policy.rules[0].remoteCIDR = "example.com";
  EXPECT_EQ(apply({broken}, 501), "Enforcing 1 network: Lab - 1 rule skipped");
  apply({farm, network(5, "Web", "192.168.71.0/24")}, 502);
  FirewallNetworkPolicy off = network(6, "Off", "192.168.80.0/24");
  off.policy.enabled = false;
  EXPECT_EQ(apply({off}, 501),
            "None of your networks has an enabled firewall. - 2 more for other users of this Mac");
  EXPECT_FALSE(stored().contains("501"));

  apply({lab}, 501);
  std::string store = storeText();
  pf.clearInvocations();
  EXPECT_THAT(applyError("{\"not\": \"an array\"}", 501),
              StartsWith("Could not read the firewall policy: the document: "));
  EXPECT_TRUE(pf.invocations().empty());
  pf.failNextLoads(6);
  EXPECT_THAT(applyError(document({lab, farm}), 501), StartsWith("pfctl rejected the ruleset: "));
  pf.failNextLoads(6);
  EXPECT_THROW(HelperFirewall::remove(host, 501, false), HelperFirewall::HelperError);
  EXPECT_EQ(storeText(), store);
}

TEST_F(FirewallOperations, StatusReportSections) {
  pf.setMainRuleset(
      "scrub-anchor \"com.apple/*\" all fragment reassemble\npass quick on lo0 all\n"
      "anchor \"com.apple/*\" all\n");
  std::string report = HelperFirewall::statusReport(host);
  EXPECT_THAT(report, StartsWith("== pf status ==\nStatus: Disabled"));
  EXPECT_THAT(report, testing::EndsWith(
                          "\n\n== main ruleset anchors ==\n"
                          "scrub-anchor \"com.apple/*\" all fragment reassemble\n"
                          "anchor \"com.apple/*\" all\n\n== com.apple/900.tarnly.firewall ==\n"
                          "(anchor is empty - nothing enforced)\n\n== subnet owners ==\n(none)"));
  pf.setMainRuleset("pass all\n");
  apply({lab}, 501);
  report = HelperFirewall::statusReport(host);
  EXPECT_THAT(report, HasSubstr("== main ruleset anchors ==\n"
                                "(none - the main ruleset evaluates no anchors)\n"));
  EXPECT_THAT(report, HasSubstr("== com.apple/900.tarnly.firewall ==\n"
                                "block drop quick on bridge100 inet6 all\n  [ Evaluations: "));
}

TEST_F(FirewallOperations, ReapplyWithoutOrWithAnUndecodableStoreLeavesPfAlone) {
  HelperFirewall::reapplyAtBoot(host);
  EXPECT_TRUE(logLines().empty());
  EXPECT_FALSE(pathExists(paths.stateDirectory)) << "no trace, not even a lock file";
  // A FIFO where the store belongs neither blocks nor counts as a store.
  createDirectories(paths.stateDirectory);
  ASSERT_EQ(::mkfifo(state("firewall-policies.json").c_str(), 0600), 0);
  HelperFirewall::reapplyAtBoot(host);
  EXPECT_TRUE(logLines().empty());
  std::filesystem::remove(state("firewall-policies.json"));
  tree.write(kStore, "{\"owners\":");
  HelperFirewall::reapplyAtBoot(host);
  EXPECT_TRUE(pf.invocations().empty());
  EXPECT_THAT(logLines(),
              ElementsAre("Persisted firewall policy could not be decoded; leaving pf alone."));
}

TEST_F(FirewallOperations, UnreadableStateFilesNeitherBlockNorVanishSilently) {
  // FIFOs at the record and the VLAN record, and an undecodable store.
  createDirectories(paths.stateDirectory);
  ASSERT_EQ(::mkfifo(state("firewall-loaded.json").c_str(), 0600), 0);
  ASSERT_EQ(::mkfifo(state("vlans.json").c_str(), 0600), 0);
  tree.write(kStore, "{\"owners\": garbage", 0600);
  tree.write(kStore + ".unreadable", "an older one", 0600);
  apply({lab}, 501);
  EXPECT_EQ(stored().at("501").policies, std::vector{lab});
  EXPECT_EQ(contentOf(state("firewall-policies.json.unreadable")), "{\"owners\": garbage");
  EXPECT_THAT(logLines(), testing::IsSupersetOf(std::vector<std::string>{
                              "Persisted firewall policy could not be decoded; starting from none.",
                              "Kept the firewall policy that could not be decoded as " +
                                  state("firewall-policies.json.unreadable") + "."}));
  apply({lab, farm}, 501);
  EXPECT_EQ(contentOf(state("firewall-policies.json.unreadable")), "{\"owners\": garbage")
      << "a decodable store is not kept";
}

TEST_F(FirewallOperations, ConcurrentReapplyOfAnotherProcessLoadsTheStoreAsTheApplyLeftIt) {
  apply({lab}, 501);
  flushAnchor();
  // Another process (the service) is applying: it holds the lock and will store Farm instead.
  HeldFlock service(state(".firewall.lock"));
  std::atomic<bool> done{false};
  std::thread reapply([&] {
    HelperFirewall::reapplyAtBoot(host);
    done = true;
  });
  EXPECT_TRUE(waitForFlockWaiter(service.inode(), [&] { return done.load(); }))
      << "the re-apply did not wait for the other process";
  HelperFirewall::saveStore(env, {{"501", {{farm}, at(1)}}});
  service.release();
  reapply.join();
  EXPECT_THAT(anchorRules(), HasSubstr("Farm"));
  EXPECT_THAT(anchorRules(), Not(HasSubstr("Lab")));
}

TEST_F(FirewallOperations, ReapplyAfterAFlushReloadsReportsRefusalsAndLogsFailures) {
  apply({lab, farm}, 501);
  flushAnchor();
  hostAddresses.push_back({"en1", {192, 168, 70, 9}, 24});  // now overlaps Farm
  HelperFirewall::reapplyAtBoot(host);
  EXPECT_THAT(logLines(),
              testing::IsSupersetOf(
                  {"Boot re-apply: Enforcing 1 network for all users: Lab",
                   "Boot re-apply left out: Farm: 192.168.70.0/24 overlaps en1 (192.168.70.9), "
                   "one of this Mac's own networks; rules there would cut the Mac off from it."}));
  EXPECT_EQ(logLines().back().substr(0, 23), "Boot re-apply left out:");
  EXPECT_THAT(anchorRules(), HasSubstr("# --- Lab"));

  flushAnchor();
  pf.failNextLoads(6);
  HelperFirewall::reapplyAtBoot(host);
  EXPECT_THAT(logLines().back(), StartsWith("Boot re-apply failed: pfctl rejected the ruleset: "));
  EXPECT_EQ(apply({lab}, 501), "Enforcing 1 network: Lab");  // the lock was released
}

TEST_F(FirewallOperations, ConcurrentAppliesOfEightUsersAllEndInTheStore) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([this, i] {
      std::string n = std::to_string(100 + i);
      apply({network(100 + i, "Net " + n, "192.168." + n + ".0/24")}, 600 + i);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(stored().size(), 8u);
  for (int i = 0; i < 8; ++i) {
    EXPECT_THAT(anchorRules(), HasSubstr("# --- Net " + std::to_string(100 + i) + " ("));
  }
}

}  // namespace
