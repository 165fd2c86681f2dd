// Loading the anchor through the pf simulator: the unchanged check, enabling once per boot, the
// busy retry, state kills, refusals, the record, and the legacy anchor clean-up.
#include "firewall/enforce/anchor_load.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "enforce_fixtures.h"
#include "firewall/enforce/firewall_state.h"
#include "firewall/enforce/helper_error.h"
#include "firewall/model/ruleset.h"

namespace {

using enforce_test::kAnchor;
using enforce_test::kAnchorListing;
using enforce_test::kStatusInfo;
using enforce_test::network;
using enforce_test::Runs;
using HelperFirewall::HelperError;
using HelperFirewall::LoadOutcome;
using testing::ElementsAre;
using testing::HasSubstr;

const std::vector<std::string> kEnable = {"-E"};
const std::vector<std::string> kLegacyFlush = {"-a", "com.tarnly.firewall", "-F", "rules"};

class AnchorLoad : public enforce_test::EnforceTest {
 protected:
  LoadOutcome load(const std::vector<FirewallNetworkPolicy>& networks,
                   const std::vector<std::string>& flushSubnets = {}) {
    NetworkFirewall::Review review = NetworkFirewall::review(networks, hostAddresses);
    return HelperFirewall::loadAnchor(host, review.enforceable, review.skippedRules, hostAddresses,
                                      flushSubnets);
  }

  std::vector<std::string> anchorLoad() const {
    return {"-a", kAnchor, "-f", state("firewall.pf.conf")};
  }

  std::string listing() const {
    return HelperCommand::run(paths.pfctl, {"-a", kAnchor, "-sr"}).stdout;
  }

  std::vector<FirewallNetworkPolicy> labAndFarm = {network(1, "Lab", "192.168.64.0/24"),
                                                   network(2, "Farm", "192.168.70.0/24")};
};

TEST_F(AnchorLoad, FirstLoadWritesLoadsEnablesAndRecords) {
  LoadOutcome outcome = load(labAndFarm);
  EXPECT_TRUE(outcome.reloaded);
  EXPECT_EQ(outcome.summary, "Enforcing 2 networks for all users: Lab, Farm");
  EXPECT_EQ(pf.invocations(),
            (Runs{kStatusInfo, kLegacyFlush, anchorLoad(), kEnable, kAnchorListing}));

  std::string text = contentOf(state("firewall.pf.conf"));
  EXPECT_EQ(modeOf(state("firewall.pf.conf")), 0644);
  EXPECT_EQ(pf.loadedRuleset(kAnchor), text);
  EXPECT_THAT(text, HasSubstr("block drop quick on bridge100 inet6 all\n"));
  EXPECT_TRUE(pf.enabled());

  auto record = HelperFirewall::readLoadedRuleset(env);
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ(record->rulesDigest, NetworkFirewall::rulesetDigest(text));
  EXPECT_EQ(record->anchorDigest, NetworkFirewall::digest(listing()));
  EXPECT_EQ(record->enabledInBoot, enforce_test::kBootID);
  EXPECT_THAT(logLines(), ElementsAre("Applied firewall. Enforcing 2 networks for all users: Lab, "
                                      "Farm - IPv6 dropped on bridge100"));
}

TEST_F(AnchorLoad, ChangedRulesOrChangedAnchorReload) {
  load(labAndFarm);
  pf.clearInvocations();
  load({labAndFarm[0]});
  EXPECT_EQ(runsOf(anchorLoad()), 1u);

  // Someone flushed the anchor behind the helper's back: the listing no longer matches.
  HelperCommand::run(paths.pfctl, {"-a", kAnchor, "-F", "rules"});
  pf.clearInvocations();
  EXPECT_TRUE(load({labAndFarm[0]}).reloaded);
  EXPECT_EQ(runsOf(anchorLoad()), 1u);
}

TEST_F(AnchorLoad, EnablesOncePerBoot) {
  load(labAndFarm);
  pf.clearInvocations();
  load({labAndFarm[0]});
  EXPECT_EQ(runsOf(kEnable), 0u);
  EXPECT_EQ(HelperFirewall::readLoadedRuleset(env)->enabledInBoot, enforce_test::kBootID);

  setBootID("2f9d7c1e-0000-4000-8000-000000000001");
  pf.clearInvocations();
  load(labAndFarm);
  EXPECT_EQ(runsOf(kEnable), 1u);
  EXPECT_EQ(HelperFirewall::readLoadedRuleset(env)->enabledInBoot,
            "2f9d7c1e-0000-4000-8000-000000000001");
}

TEST_F(AnchorLoad, UnknownBootEnablesEveryTime) {
  removeFile(paths.bootID);
  load(labAndFarm);
  EXPECT_FALSE(HelperFirewall::readLoadedRuleset(env)->enabledInBoot.has_value());
  pf.clearInvocations();
  load({labAndFarm[0]});
  EXPECT_EQ(runsOf(kEnable), 1u);
}

TEST_F(AnchorLoad, NoNetworksLoadAnEmptyAnchorAndLeavePfAlone) {
  LoadOutcome outcome = load({});
  EXPECT_TRUE(outcome.reloaded);
  EXPECT_EQ(outcome.summary, "No networks have an enabled firewall - the anchor is empty.");
  EXPECT_EQ(runsOf(kEnable), 0u);
  EXPECT_FALSE(pf.enabled());
  EXPECT_FALSE(HelperFirewall::readLoadedRuleset(env)->enabledInBoot.has_value());

  // pf being off does not make an empty anchor stale.
  pf.clearInvocations();
  EXPECT_FALSE(load({}).reloaded);
  EXPECT_EQ(pf.invocations(), (Runs{kStatusInfo, kAnchorListing}));
}

TEST_F(AnchorLoad, EmptyAnchorKeepsTheBootOfTheLastEnable) {
  load(labAndFarm);
  load({});
  EXPECT_EQ(HelperFirewall::readLoadedRuleset(env)->enabledInBoot, enforce_test::kBootID);
}

TEST_F(AnchorLoad, SkippedRulesAreCountedInTheSummary) {
  FirewallNetworkPolicy lab = labAndFarm[0];
  lab.policy.rules[0].ports = "80,443";
  lab.policy.rules.push_back(lab.policy.rules[0]);
  EXPECT_EQ(load({lab}).summary, "Enforcing 1 network for all users: Lab - 2 rules skipped");
}

TEST_F(AnchorLoad, BusyLoadIsRetriedAndTheAttemptLogged) {
  pf.failNextLoads(2);
  EXPECT_TRUE(load(labAndFarm).reloaded);
  EXPECT_EQ(runsOf(anchorLoad()), 3u);
  EXPECT_EQ(sleeps, std::vector<std::chrono::microseconds>(2, std::chrono::milliseconds(400)));
  EXPECT_TRUE(logged("pf was busy; the ruleset loaded on attempt 3."));
  EXPECT_FALSE(pf.loadedRuleset(kAnchor).empty());
}

TEST_F(AnchorLoad, BusyThroughSixRunsFailsAndRecordsNothing) {
  pf.failNextLoads(100);
  try {
    load(labAndFarm);
    FAIL() << "the load succeeded";
  } catch (const HelperError& error) {
    EXPECT_EQ(error.kind(), HelperError::Kind::pfctlFailed);
    EXPECT_THAT(error.what(), testing::StartsWith("pfctl rejected the ruleset: "));
    EXPECT_THAT(error.what(), HasSubstr("Resource busy"));
  }
  EXPECT_EQ(runsOf(anchorLoad()), 6u);
  EXPECT_EQ(sleeps.size(), 5u);
  EXPECT_EQ(runsOf(kEnable), 0u);
  EXPECT_FALSE(HelperFirewall::readLoadedRuleset(env).has_value());
  EXPECT_TRUE(logLines().empty());
}

TEST_F(AnchorLoad, KillsStatesOfChangedSubnetsThatAreLoaded) {
  pf.addState("192.168.64.5", "10.0.0.1");
  pf.addState("10.0.0.1", "192.168.64.5");
  pf.addState("192.168.70.5", "10.0.0.1");
  load(labAndFarm, {"192.168.64.0/24", "192.168.99.0/24"});

  EXPECT_EQ(runsOf({"-k", "192.168.64.0/24"}), 1u);
  EXPECT_EQ(runsOf({"-k", "0.0.0.0/0", "-k", "192.168.64.0/24"}), 1u);
  for (const auto& run : pf.invocations()) {
    EXPECT_THAT(run, testing::Not(testing::Contains("192.168.99.0/24")));
    EXPECT_THAT(run, testing::Not(testing::Contains("192.168.70.0/24")));
  }
  EXPECT_THAT(pf.states(), ElementsAre(HasSubstr("192.168.70.5")));
}

TEST_F(AnchorLoad, FlushSubnetsSkipTheUnchangedCheck) {
  load(labAndFarm);
  pf.clearInvocations();
  EXPECT_TRUE(load(labAndFarm, {"192.168.70.0/24"}).reloaded);
  EXPECT_EQ(runsOf(kAnchorListing), 1u);  // only the listing after the load
}

TEST_F(AnchorLoad, UnwritableAnchorFileFailsBeforePfIsTouched) {
  tree.write("Library/Application Support/Tarnly", "not a folder");
  EXPECT_THROW(load(labAndFarm), FileError);
  EXPECT_EQ(runsOf(anchorLoad()), 0u);
}

class RefusingPfctl : public AnchorLoad {
 protected:
  void install(const std::string& loadOutput) {
    tree.script("sbin/pfctl",
                "case \"$1$2$3\" in\n"
                "  -si) echo 'Status: Enabled for 0 days 00:01:00   Debug: Urgent' ;;\n"
                "  -a" +
                    kAnchor + "-f) printf '" + loadOutput +
                    "' >&2; exit 1 ;;\n"
                    "esac\n"
                    "exit 0\n");
  }
};

TEST_F(RefusingPfctl, ReportsTheErrorLinesWithoutNoise) {
  createDirectories(paths.stateDirectory);
  NetworkFirewall::LoadedRuleset old{"old", std::nullopt, std::nullopt};
  HelperFirewall::recordLoadedRuleset(env, old);
  install(
      "pfctl: Use of -f option, could result in flushing of rules\\n"
      "present in the main ruleset added by the system at startup.\\n"
      "See /etc/pf.conf for further details.\\n\\nNo ALTQ support in kernel\\n"
      "firewall.pf.conf:7: syntax error\\n"
      "pfctl: Syntax error in config file: pf rules not loaded\\n");
  try {
    load(labAndFarm);
    FAIL() << "the load succeeded";
  } catch (const HelperError& error) {
    EXPECT_STREQ(error.what(),
                 "pfctl rejected the ruleset: firewall.pf.conf:7: syntax error\n"
                 "pfctl: Syntax error in config file: pf rules not loaded");
  }
  EXPECT_EQ(HelperFirewall::readLoadedRuleset(env), old);
}

TEST_F(RefusingPfctl, NoiseOnlyFailureReportsTheWholeOutput) {
  install("No ALTQ support in kernel\\nALTQ related functions disabled\\n");
  try {
    load(labAndFarm);
    FAIL() << "the load succeeded";
  } catch (const HelperError& error) {
    EXPECT_STREQ(error.what(),
                 "pfctl rejected the ruleset: No ALTQ support in kernel\n"
                 "ALTQ related functions disabled");
  }
  EXPECT_TRUE(sleeps.empty());
}

class LegacyCleanUp : public enforce_test::EnforceTest {};

TEST_F(LegacyCleanUp, RemovesLegacyLinesAndKeepsTheFirstBackup) {
  std::string original =
      "scrub-anchor \"com.apple/*\" all fragment reassemble\n"
      "anchor \"com.tarnly.firewall\"\n"
      "load anchor \"com.tarnly.firewall\" from \"/etc/pf.anchors/com.tarnly.firewall\"\n"
      "anchor \"com.apple/*\" all\n";
  tree.write("etc/pf.conf", original);
  tree.write("etc/pf.anchors/com.tarnly.firewall", "pass all\n");

  HelperFirewall::cleanUpLegacyAnchor(host);
  EXPECT_EQ(contentOf(paths.pfConf),
            "scrub-anchor \"com.apple/*\" all fragment reassemble\nanchor \"com.apple/*\" all\n");
  EXPECT_EQ(contentOf(state("pf.conf.before-tarnly-cleanup")), original);
  EXPECT_FALSE(pathExists(paths.legacyAnchorFile));
  EXPECT_EQ(pf.invocations(), (Runs{{"-a", "com.tarnly.firewall", "-F", "rules"}}));
  EXPECT_THAT(logLines(), ElementsAre("Removed legacy anchor references from /etc/pf.conf."));

  tree.write("etc/pf.conf", "anchor \"com.tarnly.firewall\"\npass all\n");
  HelperFirewall::cleanUpLegacyAnchor(host);
  EXPECT_EQ(contentOf(paths.pfConf), "pass all\n");
  EXPECT_EQ(contentOf(state("pf.conf.before-tarnly-cleanup")), original);
  EXPECT_EQ(logLines().size(), 2u);
}

TEST_F(LegacyCleanUp, CleanPfConfIsLeftAloneButTheLegacyAnchorIsStillFlushed) {
  std::string conf = "anchor \"com.apple/*\" all\nanchor \"com.apple/900.tarnly.firewall\"\n";
  tree.write("etc/pf.conf", conf);
  HelperFirewall::cleanUpLegacyAnchor(host);
  HelperFirewall::cleanUpLegacyAnchor(host);
  EXPECT_EQ(contentOf(paths.pfConf), conf);
  EXPECT_FALSE(pathExists(state("pf.conf.before-tarnly-cleanup")));
  EXPECT_EQ(pf.invocations().size(), 2u);
  EXPECT_TRUE(logLines().empty());
}

TEST_F(LegacyCleanUp, MissingPfConfOnlyFlushes) {
  HelperFirewall::cleanUpLegacyAnchor(host);
  EXPECT_FALSE(pathExists(paths.pfConf));
  EXPECT_EQ(pf.invocations().size(), 1u);
}

class BootSession : public enforce_test::EnforceTest {};

TEST_F(BootSession, IsTheTrimmedIdentifierOrNothing) {
  EXPECT_EQ(HelperFirewall::bootSessionID(env), enforce_test::kBootID);
  tree.write("proc/boot_id", "\n");
  EXPECT_FALSE(HelperFirewall::bootSessionID(env).has_value());
  tree.write("proc/boot_id", std::string("abc\0def", 7));
  EXPECT_EQ(HelperFirewall::bootSessionID(env), "abc");
  removeFile(paths.bootID);
  EXPECT_FALSE(HelperFirewall::bootSessionID(env).has_value());
}

}  // namespace
