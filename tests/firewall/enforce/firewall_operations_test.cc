// The firewall operations end to end against the pf simulator for several owners, with legacy
// adoption, a busy pf, the state folder's unreadable files and the lock of another process.
#include <filesystem>
#include <future>

#include "enforce_fixtures.h"
#include "firewall/enforce/firewall_operations.h"
#include "firewall/enforce/firewall_state.h"
#include "firewall/enforce/helper_error.h"
#include "firewall/enforce/uninstall_cleanup.h"
#include "firewall/model/ruleset.h"
#include "platform/text.h"
#include "support/flock_waiter.h"
#include "support/pf_simulator.h"
#include "support/temp_tree.h"

namespace {

using namespace enforce_test;
using namespace NetworkFirewall;
using testing::HasSubstr;
namespace HF = HelperFirewall;
using Runs = std::vector<std::vector<std::string>>;
const std::string kAnchor = "com.apple/900.tarnly.firewall",
                  kState = "Library/Application Support/Tarnly/",
                  kBootID = "proc/sys/kernel/random/boot_id";
const std::vector<std::string> kStatusInfo = {"-si"}, kAnchorListing = {"-a", kAnchor, "-sr"},
                               kEnable = {"-E"};
const FirewallNetworkPolicy lab = network(1, "Lab", "192.168.64.0/24");
const FirewallNetworkPolicy farm = network(2, "Farm", "192.168.70.0/24");

// The pf simulator as pfctl, fixed host addresses, a recording sleep, a clock ticking per reading.
class FirewallOperations : public ::testing::Test {
 protected:
  FirewallOperations()
      : paths(tree.hostPaths()),
        log(paths.logFile, paths.rotatedLogFile),
        env{paths, [this] { return TimePoint(std::chrono::seconds(1'800'000'000 + seconds++)); },
            log},
        pf(TARNLY_PFSIM_PATH, paths.pfctl, tree.root()),
        host{env, [this] { return hostAddresses; },
             [this](std::chrono::microseconds duration) { sleeps.push_back(duration); }} {
    tree.write(kBootID, "6c0a3a8e-2b1f-4f39-9b3c-7c1d5e2f8a90\n");
  }
  long runsOf(const std::vector<std::string>& arguments) const {
    return std::ranges::count(pf.invocations(), arguments);
  }
  std::string state(const std::string& name) const { return paths.state(name); }
  void flushAnchor() const { HelperCommand::run(paths.pfctl, {"-a", kAnchor, "-F", "rules"}); }
  // The reply of an apply of `networks` (or of `data`), or the text of what it threw.
  std::string apply(const std::vector<FirewallNetworkPolicy>& networks, unsigned int uid,
                    bool adoptLegacy = false, std::string_view data = {}) try {
    return HF::apply(host, data.empty() ? document(networks) : std::string(data), uid, adoptLegacy);
  } catch (const std::exception& error) {
    return error.what();
  }
  PolicyStore::Owners stored() const { return HF::loadStore(env); }

  TempTree tree;
  HostPaths paths;
  HelperLog log;
  std::atomic<long long> seconds{0};
  HelperEnvironment env;
  PfSimulator pf;
  const std::vector<std::string> load = {"-a", kAnchor, "-f", paths.state(HF::kAnchorFile)};
  // Networks overlapping en0 are refused; bridge100 is the gateway of 192.168.64.0/24.
  std::vector<HostAddress> hostAddresses = {{"lo0", {127, 0, 0, 1}, 8},
                                            {"en0", {192, 168, 1, 20}, 24},
                                            {"bridge100", {192, 168, 64, 1}, 24}};
  std::vector<std::chrono::microseconds> sleeps;  // only busy retries sleep, never concurrently
  FirewallHost host;
};

// Every reply and log line of the walk is checked at its end, in order.
TEST_F(FirewallOperations, ApplyRemoveReportReapplyAndUninstallPerUser) {
  std::vector<std::string> replies;
  HF::reapplyAtBoot(host);  // nothing stored: no trace, not even a lock file
  EXPECT_FALSE(pathExists(paths.stateDirectory));
  HF::recordLoadedRuleset(env, {"d", std::nullopt, std::nullopt});  // no folder: only logged
  // A FIFO or a huge file where the store belongs neither blocks nor counts as a store.
  createDirectories(paths.stateDirectory);
  ASSERT_EQ(::mkfifo(state(HF::kStoreFile).c_str(), 0600), 0);
  HF::reapplyAtBoot(host);
  std::filesystem::remove(state(HF::kStoreFile));
  std::filesystem::resize_file(tree.write(kState + HF::kStoreFile, "["), kMaximumReadSize + 1);
  HF::reapplyAtBoot(host);
  EXPECT_TRUE(pf.invocations().empty());
  pf.setMainRuleset("scrub-anchor \"com.apple/*\" all fragment reassemble\npass all\n");
  EXPECT_THAT(
      HF::statusReport(host),
      testing::EndsWith("\n\n== main ruleset anchors ==\nscrub-anchor \"com.apple/*\" all "
                        "fragment reassemble\n\n== com.apple/900.tarnly.firewall ==\n"
                        "(anchor is empty - nothing enforced)\n\n== subnet owners ==\n(none)"));

  // An older version's store (a bare array: no owner) and pf.conf lines; a FIFO at the record.
  std::string conf = "anchor \"com.tarnly.firewall\"\nanchor \"com.apple/*\" all\n";
  tree.write("etc/pf.conf", conf);
  tree.write("etc/pf.anchors/com.tarnly.firewall", "pass all\n");
  tree.write(kState + HF::kStoreFile, document({network(9, "Old", "192.168.64.0/24")}));
  ASSERT_EQ(::mkfifo(state(HF::kLoadedFile).c_str(), 0600), 0);
  pf.clearInvocations();
  replies.push_back(apply({lab, farm}, 501));
  Runs runs = {kStatusInfo, {"-a", "com.tarnly.firewall", "-F", "rules"}, load, kEnable};
  for (const std::string& subnet : {lab.subnetCIDR, farm.subnetCIDR}) {  // new: states killed
    runs.insert(runs.end(), {{"-k", subnet}, {"-k", "0.0.0.0/0", "-k", subnet}});
  }
  runs.push_back(kAnchorListing);
  EXPECT_EQ(pf.invocations(), runs);
  EXPECT_EQ(stored().at("501").policies, (std::vector{lab, farm}));
  std::string text = contentOf(state(HF::kAnchorFile));
  EXPECT_EQ(pf.loadedRuleset(kAnchor), text);
  EXPECT_EQ(std::tuple(modeOf(state(HF::kStoreFile)), modeOf(state(HF::kAnchorFile)),
                       modeOf(state(HF::kLoadedFile))),
            std::tuple(0600, 0644, 0600));
  EXPECT_EQ(HF::readLoadedRuleset(env),
            (LoadedRuleset{rulesetDigest(text),
                           digest(HelperCommand::run(paths.pfctl, kAnchorListing).stdout),
                           "6c0a3a8e-2b1f-4f39-9b3c-7c1d5e2f8a90"}));
  EXPECT_EQ(contentOf(paths.pfConf), "anchor \"com.apple/*\" all\n");
  EXPECT_FALSE(pathExists(paths.legacyAnchorFile));
  // The same again: pf already runs these rules.
  pf.clearInvocations();
  replies.push_back(apply({lab, farm}, 501));
  EXPECT_EQ(pf.invocations(), (Runs{kStatusInfo, kAnchorListing}));

  // Another user adopts the legacy networks and wins the contested subnet as its latest owner.
  FirewallNetworkPolicy theirs = network(3, "Their lab", "192.168.64.0/24"), off = theirs;
  theirs.policy.defaultInbound = FirewallRule::Action::allow;
  tree.write("etc/pf.conf", "anchor \"com.tarnly.firewall\"\npass all\n");  // cleaned again,
  pf.clearInvocations();
  replies.push_back(apply({theirs}, 502, true));
  EXPECT_EQ(contentOf(paths.pfConf), "pass all\n");
  EXPECT_EQ(contentOf(state("pf.conf.before-tarnly-cleanup")), conf);  // the first backup kept
  EXPECT_EQ(runsOf(kEnable), 0) << "pf was enabled in this boot already";
  pf.setMainRuleset("pass all\n");
  EXPECT_THAT(HF::statusReport(host),
              HasSubstr("== main ruleset anchors ==\n(none - the main ruleset evaluates no anchors)"
                        "\n\n== com.apple/900.tarnly.firewall ==\nblock drop quick on bridge100 "
                        "inet6 all\n  [ Evaluations: "));
  off.policy.enabled = false;
  replies.push_back(apply({off}, 502));

  // In a new boot, through a busy pf: a changed network kills the states of its subnet only.
  const std::string boot2 = "2f9d7c1e-0000-4000-8000-000000000001";
  tree.write(kBootID, boot2 + "\n");
  pf.failNextLoads(2);
  pf.clearInvocations();
  FirewallNetworkPolicy changed = farm;
  changed.policy.rules[0].ports = "2222";
  replies.push_back(apply({lab, changed}, 501));
  // runs[1] flushes the legacy anchor, runs[6] and runs[7] kill the states of Farm's subnet.
  EXPECT_EQ(pf.invocations(), (Runs{kStatusInfo, runs[1], load, load, load, kEnable, runs[6],
                                    runs[7], kAnchorListing}));
  EXPECT_EQ(sleeps, std::vector<std::chrono::microseconds>(2, std::chrono::milliseconds(400)));
  EXPECT_EQ(HF::readLoadedRuleset(env)->enabledInBoot, boot2);

  // No enabled network left: an empty anchor, which keeps the boot of the last enable, and stays
  // as it is while pf is off.
  replies.push_back(apply({off}, 501));
  pf.setEnabled(false);
  pf.clearInvocations();
  replies.push_back(apply({off}, 501));
  EXPECT_EQ(pf.invocations(), (Runs{kStatusInfo, kAnchorListing}));
  EXPECT_EQ(HF::readLoadedRuleset(env)->enabledInBoot, boot2);

  // Refused and skipped parts; failures change nothing.
  FirewallNetworkPolicy broken = lab;
  broken.policy.rules[0].remoteCIDR = "example.com";
  replies.push_back(apply({broken, network(4, "Home", "192.168.1.0/24")}, 501));
  EXPECT_EQ(stored().at("501").policies, std::vector{broken});
  replies.push_back(apply({farm, network(5, "Web", "192.168.71.0/24")}, 502));
  std::string store = contentOf(state(HF::kStoreFile));
  auto record = HF::readLoadedRuleset(env);
  pf.clearInvocations();
  sleeps.clear();
  replies.push_back(apply({}, 501, false, "{\"not\": \"an array\"}"));
  EXPECT_TRUE(pf.invocations().empty());
  pf.failNextLoads(6);
  replies.push_back(apply({lab}, 501));
  EXPECT_EQ(runsOf(load), 6);
  EXPECT_EQ(sleeps.size(), 5u);
  pf.failNextLoads(6);
  EXPECT_THAT([&] { HF::remove(host, 501, false); },
              testing::Throws<HF::HelperError>(
                  testing::Property(&HF::HelperError::kind, HF::HelperError::Kind::pfctlFailed)));
  EXPECT_EQ(contentOf(state(HF::kStoreFile)), store);
  EXPECT_EQ(HF::readLoadedRuleset(env), record);
  HF::remove(host, 501, false);

  // The re-apply after a flush reports the networks it leaves out, and logs a failure.
  flushAnchor();
  hostAddresses.push_back({"en1", {192, 168, 70, 9}, 24});  // now overlaps Farm
  HF::reapplyAtBoot(host);
  flushAnchor();
  pf.failNextLoads(6);
  HF::reapplyAtBoot(host);
  hostAddresses.pop_back();
  // The last removal flushes the anchor and deletes the files.
  pf.clearInvocations();
  HF::remove(host, 502, false);
  EXPECT_FALSE(pathExists(state(HF::kStoreFile)) || pathExists(state(HF::kAnchorFile)) ||
               pathExists(state(HF::kLoadedFile)));
  EXPECT_EQ(runsOf({"-a", kAnchor, "-F", "rules"}), 1);

  // An undecodable store leaves pf alone at start, and is kept once when an apply replaces it.
  tree.write(kState + HF::kStoreFile, "{\"owners\": garbage", 0600);
  tree.write(kState + HF::kUnreadableStoreFile, "an older one", 0600);
  pf.clearInvocations();
  HF::reapplyAtBoot(host);
  EXPECT_TRUE(pf.invocations().empty());
  replies.push_back(apply({lab}, 501));
  replies.push_back(apply({lab, farm}, 501));
  EXPECT_EQ(contentOf(state(HF::kUnreadableStoreFile)), "{\"owners\": garbage");
  // A refusal other than a busy pf is not retried, and leaves the record alone.
  tree.script("sbin/pfctl",
              "[ \"$3\" = -f ] || exit 0\nprintf 'No ALTQ support in kernel\\n"
              "firewall.pf.conf:7: syntax error\\n' >&2\nexit 1\n");
  HF::recordLoadedRuleset(env, {"old", std::nullopt, std::nullopt});  // an older record
  sleeps.clear();
  replies.push_back(apply({lab}, 501));
  EXPECT_TRUE(sleeps.empty());
  EXPECT_EQ(HF::readLoadedRuleset(env), (LoadedRuleset{"old", {}, {}}));

  EXPECT_EQ(join(replies, "\n"),
            R"(Enforcing 2 networks: Lab, Farm - 1 more for other users of this Mac
Enforcing 2 networks: Lab, Farm - 1 more for other users of this Mac
Enforcing 1 network: Their lab - 2 more for other users of this Mac
None of your networks has an enabled firewall. - 2 more for other users of this Mac
Enforcing 2 networks: Lab, Farm
None of your networks has an enabled firewall.
None of your networks has an enabled firewall.
Enforcing 1 network: Lab - 1 rule skipped
Not enforced:
- Home: 192.168.1.0/24 overlaps en0 (192.168.1.20), one of this Mac's own networks; rules there would cut the Mac off from it.
Enforcing 2 networks: Farm, Web - 1 more for other users of this Mac
Could not read the firewall policy: the document: expected an array of networks, found object
pfctl rejected the ruleset: pfctl: DIOCXCOMMIT: Resource busy
Enforcing 1 network: Lab
Enforcing 2 networks: Lab, Farm
pfctl rejected the ruleset: firewall.pf.conf:7: syntax error)");
  std::string log = contentOf(paths.logFile), dir = paths.stateDirectory;  // less the time stamps
  for (size_t at = 0; at < log.size(); at = log.find('\n', at) + 1) log.erase(at, 21);
  for (size_t at; (at = log.find(dir)) != log.npos;) log.replace(at, dir.size(), "<state>");
  EXPECT_EQ(
      log,
      R"(Could not record what pf was loaded with: Could not write <state>/firewall-loaded.json: No such file or directory.
192.168.64.0/24 is claimed by networks of more than one user; an unowned "Old" is left out for the most recently applied one.
Removed legacy anchor references from /etc/pf.conf.
Applied firewall. Enforcing 2 networks for all users: Lab, Farm - IPv6 dropped on bridge100
192.168.64.0/24 is claimed by networks of more than one user; an unowned "Old" is left out for the most recently applied one.
Firewall for uid 501 unchanged; pf already runs these rules, so nothing was reloaded.
192.168.64.0/24 is claimed by networks of more than one user; uid 501's "Lab" is left out for the most recently applied one.
Removed legacy anchor references from /etc/pf.conf.
Applied firewall. Enforcing 2 networks for all users: Their lab, Farm - IPv6 dropped on bridge100
Applied firewall. Enforcing 2 networks for all users: Lab, Farm - IPv6 dropped on bridge100
pf was busy; the ruleset loaded on attempt 3.
Applied firewall. Enforcing 2 networks for all users: Lab, Farm - IPv6 dropped on bridge100
Applied firewall. No networks have an enabled firewall - the anchor is empty.
Firewall for uid 501 unchanged; pf already runs these rules, so nothing was reloaded.
Applied firewall. Enforcing 1 network for all users: Lab - 1 rule skipped - IPv6 dropped on bridge100
Applied firewall. Enforcing 3 networks for all users: Farm, Web, Lab - 1 rule skipped - IPv6 dropped on bridge100
Applied firewall. Enforcing 2 networks for all users: Farm, Web
Removed uid 501's firewall policies; other users' stay in force.
Applied firewall. Enforcing 1 network for all users: Web
Boot re-apply: Enforcing 1 network for all users: Web
Boot re-apply left out: Farm: 192.168.70.0/24 overlaps en1 (192.168.70.9), one of this Mac's own networks; rules there would cut the Mac off from it.
Boot re-apply failed: pfctl rejected the ruleset: pfctl: DIOCXCOMMIT: Resource busy
Removed firewall enforcement.
Persisted firewall policy could not be decoded; leaving pf alone.
Persisted firewall policy could not be decoded; starting from none.
Applied firewall. Enforcing 1 network for all users: Lab - IPv6 dropped on bridge100
Kept the firewall policy that could not be decoded as <state>/firewall-policies.json.unreadable.
Applied firewall. Enforcing 2 networks for all users: Lab, Farm - IPv6 dropped on bridge100
)");
  // The uninstall takes the log, the kept store and the pf.conf backup along; files it does not
  // know stay, named; the lock file goes with the folder only.
  HF::remove(host, 501, false);
  for (const char* name : {".vlans.json.tmp-0123456789ab", ".DS_Store", "notes.txt"}) {
    tree.write(kState + name, "[]");
  }
  ASSERT_EQ(::mkfifo(state("vlans.json").c_str(), 0600), 0);  // read without blocking, and gone
  EXPECT_EQ(HF::removeStateForUninstall(env), "notes.txt");
  EXPECT_EQ(std::ranges::distance(std::filesystem::directory_iterator(paths.stateDirectory)), 2);
  EXPECT_TRUE(pathExists(state(".firewall.lock")));
  EXPECT_FALSE(pathExists(paths.logFile));
  removeFile(state("notes.txt"));
  EXPECT_EQ(HF::removeStateForUninstall(env), std::nullopt);
  EXPECT_FALSE(pathExists(paths.stateDirectory));
  tree.write(kState.substr(0, kState.size() - 1), "not a folder");
  EXPECT_EQ(HF::removeStateForUninstall(env), std::nullopt);
}

TEST_F(FirewallOperations, ConcurrentOperationsWaitForTheLockOfAnotherProcess) {
  const std::string lock = state(".firewall.lock");
  createDirectories(paths.stateDirectory);
  std::future<void> running;
  auto done = [&] {
    return running.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  };
  auto holder = std::make_unique<HeldFlock>(lock);  // as another process holds it
  // Runs `operation` on a thread of its own; true once it waits for the lock `holder` holds.
  auto waits = [&](std::function<void()> operation) {
    running = std::async(std::launch::async, std::move(operation));
    return waitForFlockWaiter(holder->inode(), done);
  };
  // The other process removes its lock file on the way out, as the clean-up does: the apply locks
  // the file in place then, which the next one waits for.
  EXPECT_TRUE(waits([&] { apply({lab}, 501); }));
  removeFile(lock);
  holder = std::make_unique<HeldFlock>(lock);
  EXPECT_TRUE(waitForFlockWaiter(holder->inode(), done));
  holder.reset();
  running.get();
  EXPECT_THAT(stored(), testing::ElementsAre(testing::Key("501")));
  // The re-apply reads the store only when the other process (saving Farm) is done.
  flushAnchor();
  holder = std::make_unique<HeldFlock>(lock);
  EXPECT_TRUE(waits([&] { HF::reapplyAtBoot(host); }));
  HF::saveStore(env, {{"501", {{farm}, at(1)}}});
  holder.reset();
  running.get();
  EXPECT_THAT(pf.loadedRuleset(kAnchor),
              testing::AllOf(HasSubstr("# --- Farm"), testing::Not(HasSubstr("Lab"))));
  // The clean-up removes nothing before.
  tree.write(kState + ".DS_Store", "");
  holder = std::make_unique<HeldFlock>(lock);
  EXPECT_TRUE(waits([&] { HF::removeStateForUninstall(env); }));
  EXPECT_TRUE(pathExists(state(".DS_Store")));
  holder.reset();
  running.get();
  EXPECT_FALSE(pathExists(state(".DS_Store")));
}

}  // namespace
