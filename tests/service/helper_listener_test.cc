// The listener's bookkeeping and exits, driven through its seams: a clock the test moves, ticks
// the test calls, and an exit that is recorded instead of ending the process.
#include "service/helper_listener.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "firewall/enforce/firewall_lock.h"
#include "service_fixtures.h"

namespace {

using namespace std::chrono_literals;
using service_test::Events;
using service_test::ManualClock;
using service_test::TestEnvironment;
using testing::ElementsAre;

class HelperListenerTest : public ::testing::Test {
 protected:
  HelperListenerTest() {
    test.env.paths.executable =
        test.tree.write("Tarnly.app/Contents/Helpers/TarnlyAdminHelper", "1");
  }

  // A listener on the seams below, listening (its dispatch loop returns at once).
  std::shared_ptr<HelperListener> start(bool withExecutable = true) {
    if (!withExecutable) test.env.paths.executable.clear();
    HelperListener::Seams seams;
    seams.now = [this] { return clock.now(); };
    seams.sleep = [this](std::chrono::microseconds duration) {
      clock.advance(duration);
      sleeps.bump();
      if (onSleep) onSleep(sleeps.count());
    };
    seams.startTimer = [this](std::function<void()>) { timerStarts.bump(); };
    seams.exit = [this] {
      if (atExit) atExit();
      exits.bump();
    };
    seams.holdFirewallLock = [this] { HelperFirewall::FirewallLock taken(test.env); };
    auto listener = HelperListener::create(test.env, seams);
    listener->listen([] {});
    return listener;
  }

  TestEnvironment test;
  ManualClock clock;
  Events sleeps;
  Events timerStarts;
  Events exits;
  std::function<void(int sleeps)> onSleep;  // set before the thread that sleeps starts
  std::function<void()> atExit;
};

TEST_F(HelperListenerTest, CountsConnectionsAndExitsOnlyAfterMoreThanTheIdleLimit) {
  auto listener = start();
  EXPECT_EQ(timerStarts.count(), 1);
  EXPECT_THAT(test.logLines(), ElementsAre("Helper " + std::string(TARNLY_VERSION) +
                                           " listening on com.orbelle.tarnly.adminhelper."));

  listener->connectionEnded();  // an end without a start stays at 0
  EXPECT_EQ(listener->activeConnections(), 0);
  listener->connectionAccepted();
  listener->connectionAccepted();
  EXPECT_EQ(listener->activeConnections(), 2);

  // Open connections keep the helper alive for any time.
  clock.advance(1h);
  listener->idleTick();
  listener->connectionEnded();
  clock.advance(1h);
  listener->idleTick();
  EXPECT_EQ(exits.count(), 0);

  listener->connectionEnded();
  auto closedAt = clock.now();
  EXPECT_EQ(listener->lastActivity(), closedAt);
  clock.advance(300s);
  listener->noteActivity();  // a request postpones the exit
  clock.advance(360s);
  listener->idleTick();
  EXPECT_EQ(exits.count(), 0) << "exactly the limit is not more than it";
  clock.advance(1us);
  listener->idleTick();
  EXPECT_EQ(exits.count(), 1);
  EXPECT_EQ(test.logLines().back(), "Idle; exiting. launchd will relaunch on the next request.");
}

TEST_F(HelperListenerTest, ExitsWhenTheExecutableIsReplacedButNotWhenRewrittenInPlace) {
  auto listener = start();
  listener->connectionAccepted();  // the check runs with connections open
  std::ofstream(test.env.paths.executable, std::ios::trunc) << "2 rewritten in place";
  listener->idleTick();
  EXPECT_EQ(exits.count(), 0);

  std::string fresh = test.tree.write("new-helper", "3");
  ASSERT_EQ(::rename(fresh.c_str(), test.env.paths.executable.c_str()), 0);
  listener->idleTick();
  EXPECT_EQ(exits.count(), 1);
  EXPECT_EQ(test.logLines().back(),
            "This helper's executable was replaced by an update; exiting so launchd starts the "
            "new one.");

  // Without a launch inode the check is off; a missing file never exits either.
  auto unchecked = start(false);
  ::unlink(test.tree.path("Tarnly.app/Contents/Helpers/TarnlyAdminHelper").c_str());
  unchecked->idleTick();
  listener->idleTick();
  EXPECT_EQ(exits.count(), 1);
}

TEST_F(HelperListenerTest, ConcurrentShutdownWaitsForTheFirewallLock) {
  std::atomic<bool> applyFinished{false};
  std::atomic<bool> exitedAfterApply{false};
  atExit = [&] { exitedAfterApply = applyFinished.load(); };
  auto listener = start();
  auto apply = std::make_unique<HelperFirewall::FirewallLock>(test.env);
  listener->shutdownForUpgrade();
  EXPECT_EQ(test.logLines().back(),
            "Shutdown requested for upgrade; exiting so launchd re-execs the new binary.");
  ASSERT_TRUE(sleeps.waitFor(1));  // the 0.3 s delay has passed
  EXPECT_FALSE(exits.waitFor(1, 200ms)) << "exited while an apply held the lock";
  applyFinished = true;
  apply.reset();
  ASSERT_TRUE(exits.waitFor(1));
  EXPECT_TRUE(exitedAfterApply);
}

TEST_F(HelperListenerTest, ConcurrentShutdownWaitsForDeferredWorkAtMostTenSeconds) {
  auto listener = start();
  Events released;
  Events finished;
  // Work that ends in time (during the fifth sleep): the exit follows it.
  int finishedAtExit = -1;
  atExit = [&] { finishedAtExit = finished.count(); };
  onSleep = [&](int count) {
    if (count != 5) return;
    released.bump();
    while (listener->workInFlight() > 0) std::this_thread::yield();
  };
  listener->runDeferred([&] {
    released.waitFor(1);
    finished.bump();
  });
  listener->shutdownForUpgrade();
  ASSERT_TRUE(exits.waitFor(1));
  EXPECT_EQ(finishedAtExit, 1);
  EXPECT_EQ(sleeps.count(), 5);

  // Work that never ends holds off the idle exit; the shutdown comes after 10 s of polling (the
  // clock moves with each sleep).
  onSleep = nullptr;
  atExit = nullptr;
  listener->runDeferred([&] {
    released.waitFor(2);
    finished.bump();
  });
  clock.advance(std::chrono::hours(1));
  listener->idleTick();
  EXPECT_EQ(exits.count(), 1);
  int sleepsBefore = sleeps.count();
  auto asked = clock.now();
  listener->shutdownForUpgrade();
  ASSERT_TRUE(exits.waitFor(2));
  EXPECT_EQ(listener->workInFlight(), 1);
  EXPECT_EQ(clock.now() - asked, 300ms + 10s);
  EXPECT_EQ(sleeps.count() - sleepsBefore, 101);
  released.bump();
  ASSERT_TRUE(finished.waitFor(2));
}

}  // namespace
