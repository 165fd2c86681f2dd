// HelperListener: the service's bookkeeping of connections, requests and deferred work, and the
// three ways the process ends — idle, executable replaced, shutdown for upgrade — each with its
// log line and `_exit(0)`. Time, sleeps, the tick and the exit reach it through Seams, so tests
// step them. Shared (std::shared_ptr); every member function is safe from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "service/helper_environment.h"

class HelperListener : public std::enable_shared_from_this<HelperListener> {
 public:
  using MonotonicTime = std::chrono::steady_clock::time_point;

  static constexpr std::chrono::seconds kTickInterval{30};
  static constexpr std::chrono::seconds kIdleLimit{360};
  static constexpr std::chrono::milliseconds kShutdownDelay{300};
  static constexpr std::chrono::seconds kShutdownWaitLimit{10};
  static constexpr std::chrono::milliseconds kShutdownPoll{100};

  struct Seams {
    std::function<MonotonicTime()> now;                    // default: the steady clock
    std::function<void(std::chrono::microseconds)> sleep;  // default: blocks the thread
    // Calls the tick 30 s from now and then every 30 s for the life of the process.
    std::function<void(std::function<void()> tick)> startTimer;  // default: a thread of its own
    std::function<void()> exit;                                  // default: _exit(0)
    std::function<void()> holdFirewallLock;                      // default: holdFirewallLockForever
  };

  // A listener whose lastActivity is now. `env.paths.executable` is the launch path. Seams left
  // empty get the real ones.
  static std::shared_ptr<HelperListener> create(const HelperEnvironment& env);
  static std::shared_ptr<HelperListener> create(const HelperEnvironment& env, Seams seams);
  HelperListener(const HelperListener&) = delete;
  HelperListener& operator=(const HelperListener&) = delete;

  // Records the launch inode, starts the idle timer and logs
  // "Helper <version> listening on com.orbelle.tarnly.adminhelper.", then runs `serve` (the
  // dispatch loop, which in the helper never returns).
  void listen(const std::function<void()>& serve);

  // A connection was accepted: one more open connection; counts as activity.
  void connectionAccepted();
  // A connection ended: one fewer (never below 0); counts as activity.
  void connectionEnded();
  // A request started: postpones the idle exit.
  void noteActivity();
  // Runs `work` on a thread of its own, counted as deferred work until it returns.
  void runDeferred(std::function<void()> work);

  // The timer's check: exits when the launch file was replaced (unless deferred work runs) or when
  // no connection is open, no deferred work runs and the last activity is more than 360 s ago.
  void idleTick();

  // An accepted shutdown for upgrade: logs, and 0.3 s later waits (at most 10 s) for deferred work,
  // takes the firewall lock and exits holding it. Returns at once.
  void shutdownForUpgrade();

  // The compiled project version; "18" when there is none.
  static std::string versionString();
  // The inode of the file at the launch path now; none when the path is empty or cannot be
  // stat'ed.
  std::optional<std::uint64_t> executableInode() const;

  std::int64_t activeConnections() const;
  std::int64_t workInFlight() const;
  MonotonicTime lastActivity() const;

 private:
  HelperListener(const HelperEnvironment& env, Seams seams);

  const HelperEnvironment& env_;
  const Seams seams_;
  std::uint64_t launchInode_ = 0;  // set by listen before the timer starts; 0: check off

  mutable std::mutex stateLock_;
  std::int64_t activeConnections_ = 0;  // guarded by stateLock_
  std::int64_t workInFlight_ = 0;       // guarded by stateLock_
  MonotonicTime lastActivity_;          // guarded by stateLock_
};

// Takes the firewall lock (in this process and across processes) and never gives it back, so no
// firewall operation starts while the process exits.
void holdFirewallLockForever(const HelperEnvironment& env);
