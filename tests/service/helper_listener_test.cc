// The listener's bookkeeping and exits, driven through its seams: a clock the test moves, ticks
// the test calls, and an exit that is recorded instead of ending the process.
#include "service/helper_listener.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "firewall/enforce/firewall_lock.h"
#include "service_fixtures.h"

namespace {

using namespace std::chrono_literals;
using service_test::Events;
using service_test::ManualClock;
using service_test::TestEnvironment;
using testing::ElementsAre;

const std::string kIdleLine = "Idle; exiting. launchd will relaunch on the next request.";
const std::string kReplacedLine =
    "This helper's executable was replaced by an update; exiting so launchd starts the new one.";
const std::string kShutdownLine =
    "Shutdown requested for upgrade; exiting so launchd re-execs the new binary.";

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
  EXPECT_EQ(test.logLines().back(), kIdleLine);
}

TEST_F(HelperListenerTest, ConcurrentDeferredWorkHoldsOffTheIdleExit) {
  auto listener = start();
  Events released;
  Events finished;
  listener->runDeferred([&] {
    released.waitFor(1);
    finished.bump();
  });
  EXPECT_EQ(listener->workInFlight(), 1);
  clock.advance(1h);
  listener->idleTick();
  EXPECT_EQ(exits.count(), 0);
  released.bump();
  ASSERT_TRUE(finished.waitFor(1));
}

TEST_F(HelperListenerTest, ExitsWhenTheExecutableIsReplacedButNotWhenRewrittenInPlace) {
  auto listener = start();
  listener->connectionAccepted();  // the check runs with connections open
  {
    std::FILE* file = std::fopen(test.env.paths.executable.c_str(), "w");
    ASSERT_NE(file, nullptr);
    std::fputs("2 rewritten in place", file);
    std::fclose(file);
  }
  listener->idleTick();
  EXPECT_EQ(exits.count(), 0);

  std::string fresh = test.tree.write("new-helper", "3");
  ASSERT_EQ(::rename(fresh.c_str(), test.env.paths.executable.c_str()), 0);
  listener->idleTick();
  EXPECT_EQ(exits.count(), 1);
  EXPECT_EQ(test.logLines().back(), kReplacedLine);

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
  EXPECT_EQ(test.logLines().back(), kShutdownLine);
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
  auto blockedWork = [&] {
    released.waitFor(1);
    finished.bump();
  };

  // Work that ends in time (during the fifth sleep): the exit follows it.
  int finishedAtExit = -1;
  atExit = [&] { finishedAtExit = finished.count(); };
  onSleep = [&](int count) {
    if (count != 5) return;
    released.bump();
    while (listener->workInFlight() > 0) std::this_thread::yield();
  };
  listener->runDeferred(blockedWork);
  listener->shutdownForUpgrade();
  ASSERT_TRUE(exits.waitFor(1));
  EXPECT_EQ(finishedAtExit, 1);
  EXPECT_EQ(sleeps.count(), 5);

  // Work that never ends: the exit comes after 10 s of polling (the clock moves with each sleep).
  onSleep = nullptr;
  atExit = nullptr;
  Events stuck;
  Events stuckFinished;
  listener->runDeferred([&] {
    stuck.waitFor(1);
    stuckFinished.bump();
  });
  int sleepsBefore = sleeps.count();
  auto asked = clock.now();
  listener->shutdownForUpgrade();
  ASSERT_TRUE(exits.waitFor(2));
  EXPECT_EQ(listener->workInFlight(), 1);
  EXPECT_EQ(clock.now() - asked, 300ms + 10s);
  EXPECT_EQ(sleeps.count() - sleepsBefore, 101);
  stuck.bump();
  ASSERT_TRUE(stuckFinished.waitFor(1));
}

}  // namespace
