// The uninstall clean-up of the state directory: what goes, what stays and why, the log removed
// last, and the firewall lock held throughout.
#include "firewall/enforce/uninstall_cleanup.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "firewall/enforce/firewall_lock.h"
#include "platform/files.h"
#include "support/temp_tree.h"

namespace {

class UninstallCleanupTest : public ::testing::Test {
 protected:
  UninstallCleanupTest()
      : log(tree.path("log/helper.log"), tree.path("log/helper.log.1")),
        env{paths(), systemNow, log} {
    tree.write("log/helper.log", "2026-01-01T00:00:00Z Helper listening.\n");
    tree.write("log/helper.log.1", "older lines\n");
  }

  HostPaths paths() const {
    HostPaths paths;
    paths.stateDirectory = tree.path("state");
    paths.logFile = tree.path("log/helper.log");
    paths.rotatedLogFile = tree.path("log/helper.log.1");
    return paths;
  }

  void writeState(const std::string& name, const std::string& content) {
    tree.write("state/" + name, content, 0600);
  }

  bool logFilesGone() const {
    return !pathExists(tree.path("log/helper.log")) && !pathExists(tree.path("log/helper.log.1"));
  }

  TempTree tree;
  HelperLog log;
  HelperEnvironment env;
};

TEST_F(UninstallCleanupTest, EmptyVLANRecordAndLeftoversGoWithTheDirectory) {
  writeState("vlans.json", "[]");
  writeState("pf.conf.before-tarnly-cleanup", "pass all\n");
  writeState(".DS_Store", "");
  EXPECT_EQ(HelperFirewall::removeStateForUninstall(env), std::nullopt);
  EXPECT_FALSE(pathExists(tree.path("state")));
  EXPECT_TRUE(logFilesGone());
}

TEST_F(UninstallCleanupTest, UndecodableVLANRecordIsRemovedLikeAnEmptyOne) {
  writeState("vlans.json", "{\"bsdName\": tru");
  EXPECT_EQ(HelperFirewall::removeStateForUninstall(env), std::nullopt);
  EXPECT_FALSE(pathExists(tree.path("state")));
}

TEST_F(UninstallCleanupTest, FilesStillInUseStayWithTheirReasons) {
  writeState("firewall-policies.json", "{}");
  writeState("firewall.pf.conf", "block drop all\n");
  EXPECT_EQ(HelperFirewall::removeStateForUninstall(env),
            "firewall rules another account on this Mac still uses");
  EXPECT_TRUE(pathExists(tree.path("state/firewall-policies.json")));
  EXPECT_TRUE(pathExists(tree.path("state/firewall.pf.conf")));
  EXPECT_TRUE(logFilesGone());
}

TEST_F(UninstallCleanupTest, RecordedVLANsAndUnknownFilesAreExplainedInOrder) {
  writeState("vlans.json", R"([{"bsdName":"vlan0","tag":42,"parentBSD":"en0"}])");
  writeState("firewall-loaded.json", "{}");
  writeState("notes.txt", "mine");
  writeState(".DS_Store", "");
  EXPECT_EQ(HelperFirewall::removeStateForUninstall(env),
            "firewall rules another account on this Mac still uses, the list of VLANs Tarnly "
            "created, which lets a later install remove them, and notes.txt");
  EXPECT_TRUE(pathExists(tree.path("state/vlans.json")));
  EXPECT_FALSE(pathExists(tree.path("state/.DS_Store")));
}

TEST_F(UninstallCleanupTest, MissingStateDirectoryStillRemovesTheLog) {
  EXPECT_EQ(HelperFirewall::removeStateForUninstall(env), std::nullopt);
  EXPECT_TRUE(logFilesGone());
  log.write("Helper exiting: idle.");
  EXPECT_TRUE(logFilesGone()) << "no line is written after the clean-up";
}

TEST_F(UninstallCleanupTest, UnlistableStateDirectoryGivesNoExplanation) {
  tree.write("state", "not a folder");
  EXPECT_EQ(HelperFirewall::removeStateForUninstall(env), std::nullopt);
  EXPECT_TRUE(pathExists(tree.path("state")));
  EXPECT_TRUE(logFilesGone());
}

TEST_F(UninstallCleanupTest, ConcurrentFirewallOperationHoldsOffTheCleanup) {
  writeState("vlans.json", "[]");
  std::atomic<bool> done{false};
  std::thread cleanup;
  {
    std::lock_guard<std::mutex> firewall(HelperFirewall::lock());
    cleanup = std::thread([&] {
      HelperFirewall::removeStateForUninstall(env);
      done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(done.load());
    EXPECT_TRUE(pathExists(tree.path("state/vlans.json"))) << "nothing removed while locked out";
  }
  cleanup.join();
  EXPECT_TRUE(done.load());
  EXPECT_FALSE(pathExists(tree.path("state")));
}

}  // namespace
