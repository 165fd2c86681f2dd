#include "service/helper_listener.h"

#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "firewall/enforce/firewall_lock.h"

namespace {

void exitNow() {
  ::_exit(0);
}

void sleepBlocking(std::chrono::microseconds duration) {
  std::this_thread::sleep_for(duration);
}

HelperListener::Seams withDefaults(HelperListener::Seams seams, const HelperEnvironment& env) {
  if (!seams.now) seams.now = [] { return std::chrono::steady_clock::now(); };
  if (!seams.sleep) seams.sleep = sleepBlocking;
  if (!seams.exit) seams.exit = exitNow;
  if (!seams.holdFirewallLock) seams.holdFirewallLock = [&env] { holdFirewallLockForever(env); };
  if (!seams.startTimer) {
    seams.startTimer = [sleep = seams.sleep](std::function<void()> tick) {
      std::thread([sleep, tick = std::move(tick)] {
        while (true) {
          sleep(HelperListener::kTickInterval);
          tick();
        }
      }).detach();
    };
  }
  return seams;
}

}  // namespace

void holdFirewallLockForever(const HelperEnvironment& env) {
  // Never released: the process exits holding it, and its end lets the flock go.
  static_cast<void>(new HelperFirewall::FirewallLock(env));
}

std::shared_ptr<HelperListener> HelperListener::create(const HelperEnvironment& env) {
  return create(env, Seams{});
}

std::shared_ptr<HelperListener> HelperListener::create(const HelperEnvironment& env, Seams seams) {
  return std::shared_ptr<HelperListener>(
      new HelperListener(env, withDefaults(std::move(seams), env)));
}

HelperListener::HelperListener(const HelperEnvironment& env, Seams seams)
    : env_(env), seams_(std::move(seams)), lastActivity_(seams_.now()) {}

void HelperListener::listen(const std::function<void()>& serve) {
  launchInode_ = executableInode().value_or(0);
  // The timer holds the listener weakly: once it is gone, ticks do nothing.
  seams_.startTimer([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->idleTick();
  });
  env_.log.write("Helper " + versionString() + " listening on com.orbelle.tarnly.adminhelper.");
  serve();
}

void HelperListener::connectionAccepted() {
  std::lock_guard<std::mutex> guard(stateLock_);
  ++activeConnections_;
  lastActivity_ = seams_.now();
}

void HelperListener::connectionEnded() {
  std::lock_guard<std::mutex> guard(stateLock_);
  activeConnections_ = activeConnections_ > 0 ? activeConnections_ - 1 : 0;
  lastActivity_ = seams_.now();
}

void HelperListener::noteActivity() {
  std::lock_guard<std::mutex> guard(stateLock_);
  lastActivity_ = seams_.now();
}

void HelperListener::runDeferred(std::function<void()> work) {
  {
    std::lock_guard<std::mutex> guard(stateLock_);
    ++workInFlight_;
    lastActivity_ = seams_.now();
  }
  std::thread([weak = weak_from_this(), work = std::move(work)] {
    work();
    if (auto self = weak.lock()) {
      std::lock_guard<std::mutex> guard(self->stateLock_);
      --self->workInFlight_;
      self->lastActivity_ = self->seams_.now();
    }
  }).detach();
}

void HelperListener::idleTick() {
  bool idle = false;
  std::int64_t busy = 0;
  {
    std::lock_guard<std::mutex> guard(stateLock_);
    idle = activeConnections_ == 0 && workInFlight_ == 0 &&
           seams_.now() - lastActivity_ > std::chrono::steady_clock::duration(kIdleLimit);
    busy = workInFlight_;
  }
  if (busy == 0 && launchInode_ != 0) {
    std::optional<std::uint64_t> current = executableInode();
    if (current && *current != launchInode_) {
      env_.log.write(
          "This helper's executable was replaced by an update; exiting so launchd starts the new "
          "one.");
      seams_.exit();
      return;
    }
  }
  if (idle) {
    env_.log.write("Idle; exiting. launchd will relaunch on the next request.");
    seams_.exit();
  }
}

void HelperListener::shutdownForUpgrade() {
  env_.log.write("Shutdown requested for upgrade; exiting so launchd re-execs the new binary.");
  // The work keeps its own copies of the seams: it exits even when the listener is gone.
  std::thread([weak = weak_from_this(), seams = seams_] {
    seams.sleep(kShutdownDelay);
    auto deadline = seams.now() + kShutdownWaitLimit;
    while (auto self = weak.lock()) {
      if (self->workInFlight() < 1 || !(seams.now() < deadline)) break;
      self.reset();
      seams.sleep(kShutdownPoll);
    }
    seams.holdFirewallLock();
    seams.exit();
  }).detach();
}

std::string HelperListener::versionString() {
#ifdef TARNLY_VERSION
  std::string_view compiled = TARNLY_VERSION;
  if (!compiled.empty()) return std::string(compiled);
#endif
  return "18";
}

std::optional<std::uint64_t> HelperListener::executableInode() const {
  const std::string& path = env_.paths.executable;
  if (path.empty()) return std::nullopt;
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return std::nullopt;
  return static_cast<std::uint64_t>(info.st_ino);
}

std::int64_t HelperListener::activeConnections() const {
  std::lock_guard<std::mutex> guard(stateLock_);
  return activeConnections_;
}

std::int64_t HelperListener::workInFlight() const {
  std::lock_guard<std::mutex> guard(stateLock_);
  return workInFlight_;
}

HelperListener::MonotonicTime HelperListener::lastActivity() const {
  std::lock_guard<std::mutex> guard(stateLock_);
  return lastActivity_;
}
