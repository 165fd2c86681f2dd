// Loading the anchor through the pf simulator: the unchanged check, enabling once per boot, the
// busy retry, state kills, refusals, the record, and the legacy anchor clean-up.
#include "firewall/enforce/anchor_load.h"

#include "enforce_fixtures.h"
#include "firewall/enforce/firewall_state.h"
#include "firewall/enforce/helper_error.h"
#include "firewall/model/ruleset.h"

namespace {

using namespace enforce_test;
using HelperFirewall::HelperError;
using HelperFirewall::LoadOutcome;
using testing::ElementsAre;
using testing::HasSubstr;

const std::vector<std::string> kEnable = {"-E"};
const std::vector<std::string> kLegacyFlush = {"-a", "com.tarnly.firewall", "-F", "rules"};

class AnchorLoad : public EnforceTest {
 protected:
  LoadOutcome load(const std::vector<FirewallNetworkPolicy>& networks,
                   const std::vector<std::string>& flushSubnets = {}) {
    NetworkFirewall::Review review = NetworkFirewall::review(networks, hostAddresses);
    return HelperFirewall::loadAnchor(host, review.enforceable, review.skippedRules, hostAddresses,
                                      flushSubnets);
  }
  // The what() of the HelperError a load throws.
  std::string loadError() {
    try {
      load(labAndFarm);
    } catch (const HelperError& error) {
      EXPECT_EQ(error.kind(), HelperError::Kind::pfctlFailed);
      return error.what();
    }
    ADD_FAILURE() << "the load succeeded";
    return "";
  }
  std::optional<std::string> recordedBoot() const {
    return HelperFirewall::readLoadedRuleset(env).value().enabledInBoot;
  }

  FirewallNetworkPolicy lab = network(1, "Lab", "192.168.64.0/24");
  std::vector<FirewallNetworkPolicy> labAndFarm = {lab, network(2, "Farm", "192.168.70.0/24")};
};

TEST_F(AnchorLoad, LoadsWhenRulesOrAnchorChangedAndEnablesPfOncePerBoot) {
  LoadOutcome outcome = load(labAndFarm);
  EXPECT_TRUE(outcome.reloaded);
  EXPECT_EQ(outcome.summary, "Enforcing 2 networks for all users: Lab, Farm");
  EXPECT_EQ(pf.invocations(),
            (Runs{kStatusInfo, kLegacyFlush, anchorLoad(), kEnable, kAnchorListing}));
  std::string text = contentOf(state("firewall.pf.conf"));
  EXPECT_EQ(modeOf(state("firewall.pf.conf")), 0644);
  EXPECT_EQ(pf.loadedRuleset(kAnchor), text);
  auto record = HelperFirewall::readLoadedRuleset(env);
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ(record->rulesDigest, NetworkFirewall::rulesetDigest(text));
  EXPECT_EQ(record->anchorDigest,
            NetworkFirewall::digest(HelperCommand::run(paths.pfctl, kAnchorListing).stdout));
  EXPECT_EQ(record->enabledInBoot, kBootID);
  EXPECT_THAT(logLines(), ElementsAre("Applied firewall. Enforcing 2 networks for all users: Lab, "
                                      "Farm - IPv6 dropped on bridge100"));
  pf.clearInvocations();
  load({lab});
  flushAnchor();  // behind the helper's back: the listing no longer matches
  EXPECT_TRUE(load({lab}).reloaded);
  EXPECT_EQ(runsOf(anchorLoad()), 2u);
  EXPECT_EQ(runsOf(kEnable), 0u);
  setBootID("2f9d7c1e-0000-4000-8000-000000000001");
  load(labAndFarm);
  EXPECT_EQ(runsOf(kEnable), 1u);
  EXPECT_EQ(recordedBoot(), "2f9d7c1e-0000-4000-8000-000000000001");
  // No networks: an empty anchor that keeps the boot of the last enable and leaves pf alone.
  pf.setEnabled(false);
  outcome = load({});
  EXPECT_EQ(outcome.summary, "No networks have an enabled firewall - the anchor is empty.");
  EXPECT_EQ(recordedBoot(), "2f9d7c1e-0000-4000-8000-000000000001");
  pf.clearInvocations();  // pf being off does not make an empty anchor stale
  EXPECT_FALSE(load({}).reloaded);
  EXPECT_EQ(pf.invocations(), (Runs{kStatusInfo, kAnchorListing}));
  EXPECT_FALSE(pf.enabled());
}

TEST_F(AnchorLoad, BusyLoadsAreRetriedSixTimesAndARefusalIsNotRetried) {
  pf.failNextLoads(100);
  EXPECT_EQ(loadError(), "pfctl rejected the ruleset: pfctl: DIOCXCOMMIT: Resource busy");
  EXPECT_EQ(runsOf(anchorLoad()), 6u);
  EXPECT_EQ(sleeps.size(), 5u);
  EXPECT_EQ(runsOf(kEnable), 0u);
  EXPECT_FALSE(HelperFirewall::readLoadedRuleset(env).has_value());
  EXPECT_TRUE(logLines().empty());
  pf.failNextLoads(2);
  pf.clearInvocations();
  sleeps.clear();
  EXPECT_TRUE(load(labAndFarm).reloaded);
  EXPECT_EQ(runsOf(anchorLoad()), 3u);
  EXPECT_EQ(sleeps, std::vector<std::chrono::microseconds>(2, std::chrono::milliseconds(400)));
  EXPECT_THAT(logLines(), testing::Contains("pf was busy; the ruleset loaded on attempt 3."));

  NetworkFirewall::LoadedRuleset old{"old", std::nullopt, std::nullopt};
  HelperFirewall::recordLoadedRuleset(env, old);
  tree.script("sbin/pfctl",
              "[ \"$3\" = -f ] || exit 0\n"
              "printf 'No ALTQ support in kernel\\nfirewall.pf.conf:7: syntax error\\n' >&2\n"
              "exit 1\n");
  sleeps.clear();
  EXPECT_EQ(loadError(), "pfctl rejected the ruleset: firewall.pf.conf:7: syntax error");
  EXPECT_EQ(HelperFirewall::readLoadedRuleset(env), old);
  EXPECT_TRUE(sleeps.empty());
}

TEST_F(AnchorLoad, LegacyCleanUpRemovesLegacyLinesAndKeepsTheFirstBackup) {
  std::string original =
      "scrub-anchor \"com.apple/*\" all fragment reassemble\n"
      "anchor \"com.tarnly.firewall\"\n"
      "load anchor \"com.tarnly.firewall\" from \"/etc/pf.anchors/com.tarnly.firewall\"\n"
      "anchor \"com.apple/*\" all\n";
  HelperFirewall::cleanUpLegacyAnchor(host);  // no pf.conf: only the flush
  EXPECT_FALSE(pathExists(paths.pfConf));
  pf.clearInvocations();
  tree.write("etc/pf.conf", original);
  tree.write("etc/pf.anchors/com.tarnly.firewall", "pass all\n");
  HelperFirewall::cleanUpLegacyAnchor(host);
  EXPECT_EQ(contentOf(paths.pfConf),
            "scrub-anchor \"com.apple/*\" all fragment reassemble\nanchor \"com.apple/*\" all\n");
  EXPECT_EQ(contentOf(state("pf.conf.before-tarnly-cleanup")), original);
  EXPECT_FALSE(pathExists(paths.legacyAnchorFile));
  EXPECT_EQ(pf.invocations(), (Runs{kLegacyFlush}));
  EXPECT_THAT(logLines(), ElementsAre("Removed legacy anchor references from /etc/pf.conf."));

  tree.write("etc/pf.conf", "anchor \"com.tarnly.firewall\"\npass all\n");
  HelperFirewall::cleanUpLegacyAnchor(host);
  EXPECT_EQ(contentOf(paths.pfConf), "pass all\n");
  HelperFirewall::cleanUpLegacyAnchor(host);  // a clean pf.conf is left alone
  EXPECT_EQ(contentOf(paths.pfConf), "pass all\n");
  EXPECT_EQ(contentOf(state("pf.conf.before-tarnly-cleanup")), original);
  EXPECT_EQ(logLines().size(), 2u);
}

}  // namespace
