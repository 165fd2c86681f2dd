// The uninstall clean-up of the state directory: what goes, what stays and why, the log removed
// last, and the firewall lock held throughout.
#include "firewall/enforce/uninstall_cleanup.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "firewall/enforce/firewall_lock.h"
#include "platform/files.h"
#include "support/flock_waiter.h"
#include "support/temp_tree.h"

namespace {

class UninstallCleanupTest : public ::testing::Test {
 protected:
  UninstallCleanupTest()
      : log(tree.path("log/a.log"), tree.path("log/a.log.1")), env{{}, systemNow, log} {
    env.paths.stateDirectory = tree.path("state");
    env.paths.logFile = tree.path("log/a.log");
    env.paths.rotatedLogFile = tree.path("log/a.log.1");
    tree.write("log/a.log", "2026-01-01T00:00:00Z Helper listening.\n");
    tree.write("log/a.log.1", "older lines\n");
  }
  // Writes the state files and cleans up; the log files must be gone afterwards.
  std::optional<std::string> cleanUp(
      const std::vector<std::pair<std::string, std::string>>& files) {
    for (const auto& [name, content] : files) tree.write("state/" + name, content, 0600);
    auto result = HelperFirewall::removeStateForUninstall(env);
    EXPECT_FALSE(exists("log/a.log") || exists("log/a.log.1"));
    return result;
  }
  bool exists(const std::string& name) const { return pathExists(tree.path(name)); }

  TempTree tree;
  HelperLog log;
  HelperEnvironment env;
};

TEST_F(UninstallCleanupTest, EmptyOrUndecodableVLANRecordAndLeftoversGoWithTheDirectory) {
  // Temporary files a crash left, the kept unreadable store and the lock file go too.
  EXPECT_EQ(cleanUp({{"vlans.json", "[]"},
                     {"pf.conf.before-tarnly-cleanup", "x"},
                     {".DS_Store", ""},
                     {"firewall-policies.json.unreadable", "{"},
                     {".vlans.json.tmp-0123456789ab", "["},
                     {".firewall.lock", ""}}),
            std::nullopt);
  EXPECT_FALSE(exists("state"));
  EXPECT_EQ(cleanUp({{"vlans.json", "{\"bsdName\": tru"}}), std::nullopt);
  EXPECT_FALSE(exists("state"));
}

TEST_F(UninstallCleanupTest, FilesStillInUseStayAndAreExplainedInOrder) {
  EXPECT_EQ(cleanUp({{"firewall-policies.json", "{}"}, {"firewall.pf.conf", "block drop all\n"}}),
            "firewall rules another account on this Mac still uses");
  EXPECT_TRUE(exists("state/firewall-policies.json") && exists("state/firewall.pf.conf"));
  EXPECT_EQ(cleanUp({{"vlans.json", R"([{"bsdName":"vlan0","tag":42,"parentBSD":"en0"}])"},
                     {"notes.txt", "mine"},
                     {".firewall.lock", ""},
                     {".DS_Store", ""}}),
            "firewall rules another account on this Mac still uses, the list of VLANs Tarnly "
            "created, which lets a later install remove them, and notes.txt");
  EXPECT_TRUE(exists("state/vlans.json"));
  EXPECT_FALSE(exists("state/.DS_Store"));
}

TEST_F(UninstallCleanupTest, MissingOrUnlistableStateDirectoryStillRemovesTheLog) {
  EXPECT_EQ(cleanUp({}), std::nullopt);
  log.write("Helper exiting: idle.");
  EXPECT_FALSE(exists("log/a.log")) << "no line is written after the clean-up";
  tree.write("state", "not a folder");
  EXPECT_EQ(cleanUp({}), std::nullopt);
  EXPECT_TRUE(exists("state"));
}

TEST_F(UninstallCleanupTest, ConcurrentFirewallOperationOfAnotherProcessHoldsOffTheCleanup) {
  tree.write("state/vlans.json", "[]");
  HeldFlock other(tree.path("state/.firewall.lock"));
  std::atomic<bool> done{false};
  std::thread cleanup([&] {
    HelperFirewall::removeStateForUninstall(env);
    done = true;
  });
  EXPECT_TRUE(waitForFlockWaiter(other.inode(), [&] { return done.load(); }))
      << "the clean-up did not wait for the other process";
  EXPECT_TRUE(exists("state/vlans.json")) << "nothing removed while locked out";
  other.release();
  cleanup.join();
  EXPECT_FALSE(exists("state")) << "the lock file goes with the folder";
}

TEST_F(UninstallCleanupTest, ConcurrentWaiterOfARemovedLockFileLocksTheOneThatReplacesIt) {
  // Another process runs the clean-up: it holds the lock, then removes its file and the folder.
  createDirectories(tree.path("state"));
  HeldFlock cleanup(tree.path("state/.firewall.lock"));
  std::atomic<bool> locked{false};
  std::thread apply([&] {
    HelperFirewall::FirewallLock guard(env, HelperFirewall::FirewallLock::Folder::create);
    locked = true;
    EXPECT_TRUE(guard.holdsFileLock());
    // Whoever comes next must find this holder's lock on the file now in place.
    int next = ::open(tree.path("state/.firewall.lock").c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(next, 0);
    EXPECT_NE(::flock(next, LOCK_EX | LOCK_NB), 0);
    ::close(next);
  });
  EXPECT_TRUE(waitForFlockWaiter(cleanup.inode(), [&] { return locked.load(); }));
  EXPECT_EQ(::unlink(tree.path("state/.firewall.lock").c_str()), 0);
  EXPECT_EQ(::rmdir(tree.path("state").c_str()), 0);
  cleanup.release();
  apply.join();
}

}  // namespace
