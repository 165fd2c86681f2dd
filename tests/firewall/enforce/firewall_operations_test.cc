// The firewall operations end to end against the pf simulator: apply, remove, the status report
// and the re-apply at start for several owners, with legacy adoption, a busy or refusing pf, the
// state folder's unreadable files and a caller in another process.
#include <sys/stat.h>

#include <filesystem>
#include <thread>

#include "enforce_fixtures.h"
#include "firewall/enforce/helper_error.h"
#include "firewall/enforce/uninstall_cleanup.h"
#include "firewall/model/ruleset.h"
#include "support/flock_waiter.h"

namespace {

using namespace enforce_test;
using testing::HasSubstr;
using FirewallOperations = EnforceTest;
namespace HF = HelperFirewall;

const std::vector<std::string> kEnable = {"-E"};
const FirewallNetworkPolicy lab = network(1, "Lab", "192.168.64.0/24");
const FirewallNetworkPolicy farm = network(2, "Farm", "192.168.70.0/24");

TEST_F(FirewallOperations, ApplyRemoveReportAndReapplyPerUser) {
  std::vector<std::string> replies;
  HF::reapplyAtBoot(host);  // nothing stored: no trace, not even a lock file
  EXPECT_FALSE(pathExists(paths.stateDirectory));
  HF::recordLoadedRuleset(env, {"d", std::nullopt, std::nullopt});  // no folder: only logged
  pf.setMainRuleset("scrub-anchor \"com.apple/*\" all fragment reassemble\npass all\n");
  EXPECT_THAT(
      HF::statusReport(host),
      testing::EndsWith("\n\n== main ruleset anchors ==\nscrub-anchor \"com.apple/*\" all "
                        "fragment reassemble\n\n== com.apple/900.tarnly.firewall ==\n(anchor "
                        "is empty - nothing enforced)\n\n== subnet owners ==\n(none)"));
  // A FIFO or a huge file where the store belongs neither blocks nor counts as a store.
  createDirectories(paths.stateDirectory);
  ASSERT_EQ(::mkfifo(state("firewall-policies.json").c_str(), 0600), 0);
  pf.clearInvocations();
  HF::reapplyAtBoot(host);
  std::filesystem::remove(state("firewall-policies.json"));
  std::filesystem::resize_file(tree.write(kState + HF::kStoreFile, "["), kMaximumReadSize + 1);
  HF::reapplyAtBoot(host);
  EXPECT_TRUE(pf.invocations().empty());

  // An older version's store (a bare array: no owner) and pf.conf lines; a FIFO at the record.
  std::string conf = "anchor \"com.tarnly.firewall\"\nanchor \"com.apple/*\" all\n";
  tree.write("etc/pf.conf", conf);
  tree.write("etc/pf.anchors/com.tarnly.firewall", "pass all\n");
  tree.write(kState + HF::kStoreFile, document({network(9, "Old", "192.168.64.0/24")}));
  ASSERT_EQ(::mkfifo(state("firewall-loaded.json").c_str(), 0600), 0);
  pf.clearInvocations();
  replies.push_back(apply({lab, farm}, 501));
  const std::string all = "0.0.0.0/0";  // new subnets lose their earlier connection states
  EXPECT_EQ(pf.invocations(), (Runs{kStatusInfo,
                                    {"-a", "com.tarnly.firewall", "-F", "rules"},
                                    anchorLoad(),
                                    kEnable,
                                    {"-k", lab.subnetCIDR},
                                    {"-k", all, "-k", lab.subnetCIDR},
                                    {"-k", farm.subnetCIDR},
                                    {"-k", all, "-k", farm.subnetCIDR},
                                    kAnchorListing}));
  EXPECT_EQ(stored().at("501").policies, (std::vector{lab, farm}));
  EXPECT_TRUE(stored().contains("legacy"));
  EXPECT_EQ(modeOf(state("firewall-policies.json")), 0600);
  std::string text = contentOf(state("firewall.pf.conf"));
  EXPECT_EQ(modeOf(state("firewall.pf.conf")), 0644);
  EXPECT_EQ(pf.loadedRuleset(kAnchor), text);
  EXPECT_EQ(HF::readLoadedRuleset(env),
            (NetworkFirewall::LoadedRuleset{
                NetworkFirewall::rulesetDigest(text),
                NetworkFirewall::digest(HelperCommand::run(paths.pfctl, kAnchorListing).stdout),
                "6c0a3a8e-2b1f-4f39-9b3c-7c1d5e2f8a90"}));
  EXPECT_TRUE(pf.enabled());
  EXPECT_EQ(contentOf(paths.pfConf), "anchor \"com.apple/*\" all\n");
  EXPECT_EQ(contentOf(state("pf.conf.before-tarnly-cleanup")), conf);
  EXPECT_FALSE(pathExists(paths.legacyAnchorFile));
  // The same again, and the re-apply: pf already runs these rules.
  pf.clearInvocations();
  replies.push_back(apply({lab, farm}, 501));
  HF::reapplyAtBoot(host);
  EXPECT_EQ(pf.invocations(), (Runs{kStatusInfo, kAnchorListing, kStatusInfo, kAnchorListing}));

  // Another user adopts the legacy networks and wins the contested subnet as its latest owner.
  FirewallNetworkPolicy theirs = network(3, "Their lab", "192.168.64.0/24");
  theirs.policy.defaultInbound = FirewallRule::Action::allow;
  pf.clearInvocations();
  replies.push_back(apply({theirs}, 502, true));
  EXPECT_EQ(runsOf(kEnable), 0u) << "pf was enabled in this boot already";
  EXPECT_FALSE(stored().contains("legacy"));
  EXPECT_THAT(pf.loadedRuleset(kAnchor), HasSubstr("# --- Their lab (192.168.64.0/24) ---"));
  EXPECT_THAT(pf.loadedRuleset(kAnchor), testing::Not(HasSubstr("# --- Lab ")));
  EXPECT_THAT(HF::statusReport(host),
              testing::AllOf(HasSubstr("== com.apple/900.tarnly.firewall ==\nblock drop quick on "
                                       "bridge100 inet6 all\n  [ Evaluations: "),
                             testing::EndsWith("== subnet owners ==\n192.168.64.0/24 502\n"
                                               "192.168.70.0/24 501")));
  FirewallNetworkPolicy off = network(6, "Off", "192.168.80.0/24");
  off.policy.enabled = false;
  replies.push_back(apply({off}, 502));
  EXPECT_THAT(stored(), testing::ElementsAre(testing::Key("501")));
  EXPECT_THAT(pf.loadedRuleset(kAnchor), HasSubstr("# --- Lab (192.168.64.0/24) ---"));

  // In a new boot, through a busy pf: a changed network kills the states of its subnet only.
  for (const char* inside : {"192.168.64.10", "192.168.70.10"}) {
    pf.addState(inside, "10.1.1.1");
    pf.addState("10.1.1.1", inside);
  }
  setBootID("2f9d7c1e-0000-4000-8000-000000000001");
  pf.failNextLoads(2);
  pf.clearInvocations();
  FirewallNetworkPolicy changed = farm;
  changed.policy.rules[0].ports = "2222";
  replies.push_back(apply({lab, changed}, 501));
  EXPECT_EQ(runsOf(anchorLoad()), 3u);
  EXPECT_EQ(sleeps, std::vector<std::chrono::microseconds>(2, std::chrono::milliseconds(400)));
  EXPECT_EQ(runsOf(kEnable), 1u);
  EXPECT_EQ(HF::readLoadedRuleset(env)->enabledInBoot, "2f9d7c1e-0000-4000-8000-000000000001");
  EXPECT_EQ(runsOf({"-k", all, "-k", "192.168.70.0/24"}), 1u);
  EXPECT_EQ(runsOf({"-k", "192.168.64.0/24"}), 0u);
  EXPECT_THAT(pf.states(), testing::Each(HasSubstr("192.168.64.10")));

  // Refused and skipped parts; failures change nothing.
  FirewallNetworkPolicy broken = lab;
  broken.policy.rules[0].remoteCIDR = "example.com";
  replies.push_back(apply({broken, network(4, "Home", "192.168.1.0/24")}, 501));
  EXPECT_EQ(stored().at("501").policies, std::vector{broken});
  replies.push_back(apply({farm, network(5, "Web", "192.168.71.0/24")}, 502));
  std::string store = contentOf(state("firewall-policies.json"));
  auto record = HF::readLoadedRuleset(env);
  pf.clearInvocations();
  sleeps.clear();
  replies.push_back(apply({}, 501, false, "{\"not\": \"an array\"}"));
  EXPECT_TRUE(pf.invocations().empty());
  pf.failNextLoads(6);
  replies.push_back(apply({lab}, 501));
  EXPECT_EQ(runsOf(anchorLoad()), 6u);
  EXPECT_EQ(sleeps.size(), 5u);
  pf.failNextLoads(6);
  EXPECT_THROW(HF::remove(host, 501, false), HF::HelperError);
  EXPECT_EQ(contentOf(state("firewall-policies.json")), store);
  EXPECT_EQ(HF::readLoadedRuleset(env), record);
  HF::remove(host, 501, false);
  EXPECT_THAT(stored(), testing::ElementsAre(testing::Key("502")));

  // The re-apply after a flush reports the networks it leaves out, and logs a failure.
  flushAnchor();
  hostAddresses.push_back({"en1", {192, 168, 70, 9}, 24});  // now overlaps Farm
  HF::reapplyAtBoot(host);
  EXPECT_THAT(pf.loadedRuleset(kAnchor), HasSubstr("# --- Web"));
  flushAnchor();
  pf.failNextLoads(6);
  HF::reapplyAtBoot(host);
  hostAddresses.pop_back();
  // The last removal flushes the anchor and deletes the files.
  pf.clearInvocations();
  HF::remove(host, 502, false);
  for (const char* file : {"firewall-policies.json", "firewall.pf.conf", "firewall-loaded.json"}) {
    EXPECT_FALSE(pathExists(state(file))) << file;
  }
  EXPECT_EQ(runsOf({"-a", kAnchor, "-F", "rules"}), 1u);
  EXPECT_TRUE(pf.loadedRuleset(kAnchor).empty());

  // An undecodable store leaves pf alone at start, and is kept once when an apply replaces it.
  tree.write(kState + HF::kStoreFile, "{\"owners\": garbage", 0600);
  tree.write(kState + HF::kUnreadableStoreFile, "an older one", 0600);
  pf.clearInvocations();
  HF::reapplyAtBoot(host);
  EXPECT_TRUE(pf.invocations().empty());
  replies.push_back(apply({lab}, 501));
  replies.push_back(apply({lab, farm}, 501));
  EXPECT_EQ(contentOf(state("firewall-policies.json.unreadable")), "{\"owners\": garbage");

  const std::string more = " more for other users of this Mac", v6 = " - IPv6 dropped on bridge100";
  EXPECT_EQ(replies, (std::vector<std::string>{
                         "Enforcing 2 networks: Lab, Farm - 1" + more,
                         "Enforcing 2 networks: Lab, Farm - 1" + more,
                         "Enforcing 1 network: Their lab - 2" + more,
                         "None of your networks has an enabled firewall. - 2" + more,
                         "Enforcing 2 networks: Lab, Farm",
                         "Enforcing 1 network: Lab - 1 rule skipped\nNot enforced:\n- Home: "
                         "192.168.1.0/24 overlaps en0 (192.168.1.20), one of this Mac's own "
                         "networks; rules there would cut the Mac off from it.",
                         "Enforcing 2 networks: Farm, Web - 1" + more,
                         "Could not read the firewall policy: the document: expected an array of "
                         "networks, found object",
                         "pfctl rejected the ruleset: pfctl: DIOCXCOMMIT: Resource busy",
                         "Enforcing 1 network: Lab",
                         "Enforcing 2 networks: Lab, Farm",
                     }));
  const std::string applied = "Applied firewall. Enforcing ",
                    claimed = "192.168.64.0/24 is claimed by networks of more than one user; ",
                    recent = " is left out for the most recently applied one.";
  EXPECT_EQ(
      logLines(),
      (std::vector<std::string>{
          "Could not record what pf was loaded with: Could not write " +
              state("firewall-loaded.json") + ": No such file or directory.",
          claimed + "an unowned \"Old\"" + recent,
          "Removed legacy anchor references from /etc/pf.conf.",
          applied + "2 networks for all users: Lab, Farm" + v6,
          claimed + "an unowned \"Old\"" + recent,
          "Firewall for uid 501 unchanged; pf already runs these rules, so nothing was "
          "reloaded.",
          claimed + "an unowned \"Old\"" + recent,
          "Boot re-apply: pf already runs these rules; nothing reloaded. Enforcing 2 networks "
          "for all users: Lab, Farm",
          claimed + "uid 501's \"Lab\"" + recent,
          applied + "2 networks for all users: Their lab, Farm" + v6,
          applied + "2 networks for all users: Lab, Farm" + v6,
          "pf was busy; the ruleset loaded on attempt 3.",
          applied + "2 networks for all users: Lab, Farm" + v6,
          applied + "1 network for all users: Lab - 1 rule skipped" + v6,
          applied + "3 networks for all users: Farm, Web, Lab - 1 rule skipped" + v6,
          applied + "2 networks for all users: Farm, Web",
          "Removed uid 501's firewall policies; other users' stay in force.",
          applied + "1 network for all users: Web",
          "Boot re-apply: Enforcing 1 network for all users: Web",
          "Boot re-apply left out: Farm: 192.168.70.0/24 overlaps en1 (192.168.70.9), one of "
          "this Mac's own networks; rules there would cut the Mac off from it.",
          "Boot re-apply failed: pfctl rejected the ruleset: pfctl: DIOCXCOMMIT: Resource busy",
          "Removed firewall enforcement.",
          "Persisted firewall policy could not be decoded; leaving pf alone.",
          "Persisted firewall policy could not be decoded; starting from none.",
          applied + "1 network for all users: Lab" + v6,
          "Kept the firewall policy that could not be decoded as " +
              state("firewall-policies.json.unreadable") + ".",
          applied + "2 networks for all users: Lab, Farm" + v6,
      }));
  // The uninstall takes the kept store and the pf.conf backup along, not the store in use.
  EXPECT_EQ(HF::removeStateForUninstall(env),
            "firewall rules another account on this Mac still uses");
  EXPECT_FALSE(pathExists(state("firewall-policies.json.unreadable")));
  EXPECT_FALSE(pathExists(state("pf.conf.before-tarnly-cleanup")));
}

TEST_F(FirewallOperations, ConcurrentReapplyOfAnotherProcessLoadsTheStoreAsTheApplyLeftIt) {
  apply({lab}, 501);
  flushAnchor();
  // Another process (the service) is applying: it holds the lock and will store Farm instead.
  HeldFlock service(state(".firewall.lock"));
  std::atomic<bool> done{false};
  std::thread reapply([&] {
    HF::reapplyAtBoot(host);
    done = true;
  });
  EXPECT_TRUE(waitForFlockWaiter(service.inode(), [&] { return done.load(); }))
      << "the re-apply did not wait for the other process";
  HF::saveStore(env, {{"501", {{farm}, at(1)}}});
  service.release();
  reapply.join();
  EXPECT_THAT(pf.loadedRuleset(kAnchor), HasSubstr("# --- Farm"));
  EXPECT_THAT(pf.loadedRuleset(kAnchor), testing::Not(HasSubstr("Lab")));
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
    EXPECT_THAT(pf.loadedRuleset(kAnchor), HasSubstr("# --- Net " + std::to_string(100 + i)));
  }
}

}  // namespace
