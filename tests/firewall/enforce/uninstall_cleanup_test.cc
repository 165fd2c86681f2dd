// The uninstall clean-up of the state folder: what goes, what stays and why, the log removed
// last, and the firewall lock of another process waited for.
#include "firewall/enforce/uninstall_cleanup.h"

#include <filesystem>
#include <thread>

#include "enforce_fixtures.h"
#include "support/flock_waiter.h"

namespace {

using enforce_test::kState;
using UninstallCleanup = enforce_test::EnforceTest;

TEST_F(UninstallCleanup, LeftoversGoWithTheFolderAndFilesInUseAreExplainedInOrder) {
  using Files = std::vector<std::pair<std::string, std::string>>;
  const std::vector<std::pair<Files, std::optional<std::string>>> cases = {
      {{}, std::nullopt},  // no folder
      {{{"vlans.json", "[]"},
        {"pf.conf.before-tarnly-cleanup", "x"},
        {"firewall-policies.json.unreadable", "{"},
        {".vlans.json.tmp-0123456789ab", "["},
        {".firewall.lock", ""},
        {".DS_Store", ""}},
       std::nullopt},
      {{{"vlans.json", "{\"bsdName\": tru"}}, std::nullopt},
      {{{"firewall-loaded.json", "{}"},
        {"notes.txt", "mine"},
        {".DS_Store", ""},
        {"vlans.json", R"([{"bsdName":"vlan0","tag":42,"parentBSD":"en0"}])"}},
       "firewall rules another account on this Mac still uses, the list of VLANs Tarnly "
       "created, which lets a later install remove them, and notes.txt"},
  };
  for (const auto& [files, explanation] : cases) {
    for (const char* file :
         {"var/log/tarnly-adminhelper.log", "var/log/tarnly-adminhelper.log.1"}) {
      tree.write(file, "2026-01-01T00:00:00Z Helper listening.\n");
    }
    for (const auto& [name, content] : files) tree.write(kState + name, content, 0600);
    EXPECT_EQ(HelperFirewall::removeStateForUninstall(env), explanation);
    EXPECT_EQ(pathExists(paths.stateDirectory), explanation.has_value());
    EXPECT_FALSE(pathExists(paths.logFile) || pathExists(paths.rotatedLogFile));
  }
  EXPECT_FALSE(pathExists(state(".DS_Store")));
  log.write("Helper exiting: idle.");
  EXPECT_FALSE(pathExists(paths.logFile)) << "no line is written after the clean-up";
  std::filesystem::remove_all(paths.stateDirectory);
  tree.write(kState.substr(0, kState.size() - 1), "not a folder");
  EXPECT_EQ(HelperFirewall::removeStateForUninstall(env), std::nullopt);
  EXPECT_TRUE(pathExists(paths.stateDirectory));
}

TEST_F(UninstallCleanup,
       ConcurrentCleanUpWaitsForAnotherProcessAndLocksTheFileThatReplacedItsLock) {
  tree.write(kState + "vlans.json", "[]");
  auto other = std::make_unique<HeldFlock>(state(".firewall.lock"));
  std::atomic<bool> done{false};
  std::thread cleanup([&] {
    HelperFirewall::removeStateForUninstall(env);
    done = true;
  });
  EXPECT_TRUE(waitForFlockWaiter(other->inode(), [&] { return done.load(); }))
      << "the clean-up did not wait for the other process";
  EXPECT_TRUE(pathExists(state("vlans.json"))) << "nothing removed while locked out";
  // The other process removes its lock file; the next holder's file is in place when it lets go.
  removeFile(state(".firewall.lock"));
  HeldFlock next(state(".firewall.lock"));
  other.reset();
  EXPECT_TRUE(waitForFlockWaiter(next.inode(), [&] { return done.load(); }))
      << "the clean-up went ahead on a lock file no longer in place";
  next.release();
  cleanup.join();
  EXPECT_FALSE(pathExists(paths.stateDirectory)) << "the lock file goes with the folder";
}

}  // namespace
