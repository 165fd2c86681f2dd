// The firewall operations end to end against the pf simulator: apply, remove, the status report
// and the re-apply at start, with several owners, legacy adoption and concurrent callers.
#include "firewall/enforce/firewall_operations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "enforce_fixtures.h"
#include "firewall/enforce/firewall_state.h"
#include "firewall/enforce/helper_error.h"

namespace {

using enforce_test::document;
using enforce_test::kAnchor;
using enforce_test::kAnchorListing;
using enforce_test::kStatusInfo;
using enforce_test::network;
using enforce_test::Runs;
using HelperFirewall::HelperError;
using testing::ElementsAre;
using testing::HasSubstr;
namespace Store = NetworkFirewall::PolicyStore;

class FirewallOperations : public enforce_test::EnforceTest {
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

  Store::Owners stored() const {
    return Store::decoded(contentOf(state("firewall-policies.json"))).value_or(Store::Owners{});
  }

  FirewallNetworkPolicy lab = network(1, "Lab", "192.168.64.0/24");
  FirewallNetworkPolicy farm = network(2, "Farm", "192.168.70.0/24");
};

TEST_F(FirewallOperations, ApplyStoresLoadsAndReplies) {
  EXPECT_EQ(apply({lab, farm}, 501), "Enforcing 2 networks: Lab, Farm");
  EXPECT_EQ(stored().at("501").policies, (std::vector{lab, farm}));
  EXPECT_EQ(modeOf(state("firewall-policies.json")), 0600);
  EXPECT_THAT(pf.loadedRuleset(kAnchor), HasSubstr("# --- Farm (192.168.70.0/24) ---"));
  EXPECT_TRUE(pf.enabled());
}

TEST_F(FirewallOperations, SecondIdenticalApplyReloadsNothing) {
  std::string first = apply({lab, farm}, 501);
  std::string loaded = pf.loadedRuleset(kAnchor);
  pf.clearInvocations();

  EXPECT_EQ(apply({lab, farm}, 501), first);
  EXPECT_EQ(pf.invocations(), (Runs{kStatusInfo, kAnchorListing}));
  EXPECT_EQ(pf.loadedRuleset(kAnchor), loaded);
  EXPECT_TRUE(
      logged("Firewall for uid 501 unchanged; pf already runs these rules, so nothing "
             "was reloaded."));
}

TEST_F(FirewallOperations, PfDisabledBetweenAppliesIsReloadedAndEnabled) {
  apply({lab}, 501);
  pf.setEnabled(false);
  pf.clearInvocations();
  apply({lab}, 501);
  EXPECT_EQ(runsOf({"-a", kAnchor, "-f", state("firewall.pf.conf")}), 1u);
  EXPECT_EQ(runsOf({"-E"}), 1u);
  EXPECT_TRUE(pf.enabled());
}

TEST_F(FirewallOperations, UndecodableDataChangesNothing) {
  apply({lab}, 501);
  std::string store = contentOf(state("firewall-policies.json"));
  pf.clearInvocations();

  std::string error = applyError("{\"not\": \"an array\"}", 501);
  EXPECT_THAT(error, testing::StartsWith("Could not read the firewall policy: "));
  EXPECT_GT(error.size(), std::string("Could not read the firewall policy: ").size());
  EXPECT_THAT(applyError("", 501), testing::StartsWith("Could not read the firewall policy: "));
  EXPECT_TRUE(pf.invocations().empty());
  EXPECT_EQ(contentOf(state("firewall-policies.json")), store);
}

TEST_F(FirewallOperations, MostRecentOwnerWinsAContestedSubnet) {
  FirewallNetworkPolicy theirs = network(3, "Their lab", "192.168.64.0/24");
  theirs.policy.defaultInbound = FirewallRule::Action::allow;
  apply({lab, farm}, 501);
  EXPECT_EQ(apply({theirs}, 502),
            "Enforcing 1 network: Their lab - 2 more for other users of this Mac");
  EXPECT_TRUE(
      logged("192.168.64.0/24 is claimed by networks of more than one user; uid 501's "
             "\"Lab\" is left out for the most recently applied one."));
  EXPECT_THAT(pf.loadedRuleset(kAnchor), HasSubstr("# --- Their lab (192.168.64.0/24) ---"));
  EXPECT_THAT(pf.loadedRuleset(kAnchor), testing::Not(HasSubstr("# --- Lab ")));
  EXPECT_THAT(HelperFirewall::statusReport(host),
              testing::EndsWith("== subnet owners ==\n192.168.64.0/24 502\n192.168.70.0/24 501"));

  // Re-applying takes the subnet back.
  apply({lab, farm}, 501);
  EXPECT_THAT(pf.loadedRuleset(kAnchor), HasSubstr("# --- Lab (192.168.64.0/24) ---"));
  EXPECT_THAT(pf.loadedRuleset(kAnchor),
              HasSubstr("block drop out quick from any to 192.168.64.0/24"));
  EXPECT_EQ(stored().size(), 2u);
}

TEST_F(FirewallOperations, ConsoleUserAdoptsLegacyNetworks) {
  tree.write("Library/Application Support/Tarnly/firewall-policies.json",
             document({network(9, "Old", "192.168.90.0/24")}));
  apply({farm}, 501, false);
  EXPECT_TRUE(stored().contains("legacy"));
  EXPECT_THAT(pf.loadedRuleset(kAnchor), HasSubstr("# --- Old (192.168.90.0/24) ---"));

  EXPECT_EQ(apply({farm}, 501, true), "Enforcing 1 network: Farm");
  EXPECT_THAT(stored(), ElementsAre(testing::Key("501")));
  EXPECT_THAT(pf.loadedRuleset(kAnchor), testing::Not(HasSubstr("Old")));
}

TEST_F(FirewallOperations, RefusedNetworkIsReportedAfterTheRestIsAppliedAndSaved) {
  FirewallNetworkPolicy home = network(4, "Home", "192.168.1.0/24");
  std::string error = applyError(document({lab, home}), 501);
  EXPECT_EQ(error,
            "Enforcing 1 network: Lab\nNot enforced:\n- Home: 192.168.1.0/24 overlaps en0 "
            "(192.168.1.20), one of this Mac's own networks; rules there would cut the Mac off "
            "from it.");
  EXPECT_EQ(stored().at("501").policies, std::vector{lab});
  EXPECT_THAT(pf.loadedRuleset(kAnchor), HasSubstr("# --- Lab (192.168.64.0/24) ---"));
}

TEST_F(FirewallOperations, AllFirewallsDisabledRemovesTheCallersEntry) {
  apply({lab, farm, network(5, "Web", "192.168.71.0/24")}, 502);
  FirewallNetworkPolicy off = network(6, "Off", "192.168.80.0/24");
  off.policy.enabled = false;
  apply({network(7, "Mine", "192.168.81.0/24")}, 501);
  EXPECT_EQ(apply({off}, 501),
            "None of your networks has an enabled firewall. - 3 more for other users of this Mac");
  EXPECT_FALSE(stored().contains("501"));
}

TEST_F(FirewallOperations, SkippedRulesAreCountedInTheReply) {
  FirewallNetworkPolicy broken = lab;
  broken.policy.rules[0].remoteCIDR = "example.com";
  EXPECT_EQ(apply({broken}, 501), "Enforcing 1 network: Lab - 1 rule skipped");
}

TEST_F(FirewallOperations, ChangedRuleKillsStatesOfThatSubnetOnly) {
  apply({lab, farm}, 501);
  pf.addState("192.168.64.10", "10.1.1.1");
  pf.addState("10.1.1.1", "192.168.64.10");
  pf.addState("192.168.70.10", "10.1.1.1");
  pf.addState("10.1.1.1", "192.168.70.10");
  pf.clearInvocations();

  FirewallNetworkPolicy changed = farm;
  changed.policy.rules[0].ports = "2222";
  apply({lab, changed}, 501);
  EXPECT_EQ(runsOf({"-k", "192.168.70.0/24"}), 1u);
  EXPECT_EQ(runsOf({"-k", "0.0.0.0/0", "-k", "192.168.70.0/24"}), 1u);
  EXPECT_EQ(runsOf({"-k", "192.168.64.0/24"}), 0u);
  EXPECT_THAT(pf.states(), testing::UnorderedElementsAre(HasSubstr("192.168.64.10"),
                                                         HasSubstr("192.168.64.10")));
}

TEST_F(FirewallOperations, LastOwnerRemovalFlushesAndDeletesTheFiles) {
  apply({lab}, 501);
  HelperFirewall::remove(host, 501, false);
  EXPECT_FALSE(pathExists(state("firewall-policies.json")));
  EXPECT_FALSE(pathExists(state("firewall.pf.conf")));
  EXPECT_FALSE(pathExists(state("firewall-loaded.json")));
  EXPECT_EQ(runsOf({"-a", kAnchor, "-F", "rules"}), 1u);
  EXPECT_TRUE(pf.loadedRuleset(kAnchor).empty());
  EXPECT_EQ(logLines().back(), "Removed firewall enforcement.");
  EXPECT_TRUE(pf.enabled());
}

TEST_F(FirewallOperations, RemovalByOneOfTwoOwnersReloadsTheOthers) {
  apply({lab}, 501);
  apply({farm}, 502);
  HelperFirewall::remove(host, 501, false);
  EXPECT_THAT(stored(), ElementsAre(testing::Key("502")));
  EXPECT_THAT(pf.loadedRuleset(kAnchor), testing::Not(HasSubstr("Lab")));
  EXPECT_THAT(pf.loadedRuleset(kAnchor), HasSubstr("# --- Farm"));
  EXPECT_EQ(logLines().back(), "Removed uid 501's firewall policies; other users' stay in force.");
}

TEST_F(FirewallOperations, FailedLoadKeepsTheStore) {
  apply({farm}, 502);
  apply({lab}, 501);
  std::string store = contentOf(state("firewall-policies.json"));
  pf.failNextLoads(6);
  EXPECT_THAT(applyError(document({lab, farm}), 501),
              testing::StartsWith("pfctl rejected the ruleset: "));
  EXPECT_EQ(contentOf(state("firewall-policies.json")), store);
  pf.failNextLoads(6);
  EXPECT_THROW(HelperFirewall::remove(host, 501, false), HelperError);
  EXPECT_EQ(contentOf(state("firewall-policies.json")), store);
}

TEST_F(FirewallOperations, StatusReportSectionsWithNothingEnforced) {
  pf.setMainRuleset(
      "scrub-anchor \"com.apple/*\" all fragment reassemble\n"
      "pass quick on lo0 all\n"
      "anchor \"com.apple/*\" all\n");
  std::string report = HelperFirewall::statusReport(host);
  std::vector<std::string_view> lines = split(report, '\n', true);
  ASSERT_GE(lines.size(), 12u) << report;
  EXPECT_EQ(lines[0], "== pf status ==");
  EXPECT_THAT(lines[1], testing::StartsWith("Status: Disabled"));
  EXPECT_THAT(report, HasSubstr("\n\n== main ruleset anchors ==\n"
                                "scrub-anchor \"com.apple/*\" all fragment reassemble\n"
                                "anchor \"com.apple/*\" all\n\n"
                                "== com.apple/900.tarnly.firewall ==\n"
                                "(anchor is empty - nothing enforced)\n\n"
                                "== subnet owners ==\n(none)"));
  EXPECT_THAT(report, testing::EndsWith("(none)"));
}

TEST_F(FirewallOperations, StatusReportShowsTheAnchorRules) {
  pf.setMainRuleset("pass all\n");
  apply({lab}, 501);
  std::string report = HelperFirewall::statusReport(host);
  EXPECT_THAT(report, HasSubstr("== main ruleset anchors ==\n"
                                "(none - the main ruleset evaluates no anchors)\n"));
  EXPECT_THAT(report, HasSubstr("== com.apple/900.tarnly.firewall ==\n"
                                "block drop quick on bridge100 inet6 all\n"
                                "  [ Evaluations: "));
  EXPECT_THAT(report, HasSubstr("pass out quick proto tcp from any to 192.168.64.0/24 port = 22 "));
  EXPECT_THAT(report, testing::EndsWith("== subnet owners ==\n192.168.64.0/24 501"));
  EXPECT_EQ(runsOf({"-a", kAnchor, "-v", "-sr"}), 1u);
}

TEST_F(FirewallOperations, ReapplyWithoutStoreDoesNothing) {
  HelperFirewall::reapplyAtBoot(host);
  EXPECT_TRUE(pf.invocations().empty());
  EXPECT_TRUE(logLines().empty());
}

TEST_F(FirewallOperations, ReapplyWithUndecodableStoreLeavesPfAlone) {
  tree.write("Library/Application Support/Tarnly/firewall-policies.json", "{\"owners\":");
  HelperFirewall::reapplyAtBoot(host);
  EXPECT_TRUE(pf.invocations().empty());
  EXPECT_THAT(logLines(),
              ElementsAre("Persisted firewall policy could not be decoded; leaving pf alone."));
}

TEST_F(FirewallOperations, ReapplyOfUnchangedRulesRunsTwoCommands) {
  apply({lab, farm}, 501);
  std::string store = contentOf(state("firewall-policies.json"));
  pf.clearInvocations();
  HelperFirewall::reapplyAtBoot(host);
  EXPECT_EQ(pf.invocations(), (Runs{kStatusInfo, kAnchorListing}));
  EXPECT_EQ(logLines().back(),
            "Boot re-apply: pf already runs these rules; nothing reloaded. Enforcing 2 networks "
            "for all users: Lab, Farm");
  EXPECT_EQ(contentOf(state("firewall-policies.json")), store);
}

TEST_F(FirewallOperations, ReapplyAfterAFlushReloadsAndReportsRefusals) {
  apply({lab, farm}, 501);
  HelperCommand::run(paths.pfctl, {"-a", kAnchor, "-F", "rules"});
  // The machine joined a network that now overlaps Farm.
  hostAddresses.push_back({"en1", {192, 168, 70, 9}, 24});
  HelperFirewall::reapplyAtBoot(host);
  std::vector<std::string> lines = logLines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[lines.size() - 2], "Boot re-apply: Enforcing 1 network for all users: Lab");
  EXPECT_EQ(lines.back(),
            "Boot re-apply left out: Farm: 192.168.70.0/24 overlaps en1 (192.168.70.9), one of "
            "this Mac's own networks; rules there would cut the Mac off from it.");
  EXPECT_THAT(pf.loadedRuleset(kAnchor), HasSubstr("# --- Lab"));
}

TEST_F(FirewallOperations, ReapplyFailureIsLogged) {
  apply({lab}, 501);
  HelperCommand::run(paths.pfctl, {"-a", kAnchor, "-F", "rules"});
  pf.failNextLoads(6);
  HelperFirewall::reapplyAtBoot(host);
  EXPECT_THAT(logLines().back(), testing::StartsWith("Boot re-apply failed: pfctl rejected the "
                                                     "ruleset: "));
  // The lock was released: another operation can run.
  EXPECT_EQ(apply({lab}, 501), "Enforcing 1 network: Lab");
}

TEST(SamePolicy, ComparesEveryField) {
  FirewallNetworkPolicy a = network(1, "Lab", "192.168.64.0/24");
  FirewallNetworkPolicy b = a;
  EXPECT_TRUE(NetworkFirewall::samePolicy(a, b));
  b.keepsIPv6 = false;
  EXPECT_FALSE(NetworkFirewall::samePolicy(a, b));
  b = a;
  b.policy.rules[0].enabled = false;
  EXPECT_FALSE(NetworkFirewall::samePolicy(a, b));
}

TEST_F(FirewallOperations, ConcurrentAppliesOfEightUsersAllEndInTheStore) {
  std::vector<std::thread> threads;
  threads.reserve(8);
  std::vector<std::string> replies(8);
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([this, i, &replies] {
      FirewallNetworkPolicy own = network(100 + i, "Net " + std::to_string(i),
                                          "192.168." + std::to_string(100 + i) + ".0/24");
      replies[i] = HelperFirewall::apply(host, document({own}), 600 + i, false);
    });
  }
  for (auto& thread : threads) thread.join();

  Store::Owners owners = stored();
  EXPECT_EQ(owners.size(), 8u);
  for (int i = 0; i < 8; ++i) {
    EXPECT_TRUE(owners.contains(std::to_string(600 + i))) << i;
    EXPECT_THAT(replies[i], testing::StartsWith("Enforcing 1 network: Net " + std::to_string(i)));
    EXPECT_THAT(pf.loadedRuleset(kAnchor), HasSubstr("# --- Net " + std::to_string(i) + " ("));
  }
}

}  // namespace
