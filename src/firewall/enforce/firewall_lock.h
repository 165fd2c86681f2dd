// The firewall lock: apply, remove, boot re-apply and the uninstall clean-up hold it for their
// whole run, so they happen one at a time, within this process (a mutex) and across processes
// (an advisory flock on kLockFile in the state folder, so a "--reapply" run by hand waits for the
// service's apply). The status report does not take it. FirewallLock is the one way to take it.
//
// To hold it until the process ends (the shutdown for upgrade), create the guard on the heap and
// never delete it: `new HelperFirewall::FirewallLock(env);` then `_exit`. The process's end
// releases the flock.
#pragma once

#include <string_view>

#include "service/helper_environment.h"

namespace HelperFirewall {

// The lock file's name in the state folder. It never counts as state of its own: the uninstall
// clean-up neither explains it nor keeps the folder for it.
inline constexpr std::string_view kLockFile = ".firewall.lock";

class FirewallLock {
 public:
  // What to do when the state folder does not exist yet.
  enum class Folder {
    existingOnly,  // take only the in-process mutex: there is no state another process could use
    create,        // create it (the caller is about to write there), then take both
  };

  // Blocks until this thread holds the in-process mutex and then the flock for the state folder.
  // The flock is taken on the lock file that is in place once it is held (one that the uninstall
  // clean-up unlinked meanwhile is let go and the new one taken). A lock file that cannot be
  // made (no folder, no permission) leaves the mutex alone in force; creating the folder throws
  // FileError on failure.
  explicit FirewallLock(const HelperEnvironment& env, Folder folder = Folder::existingOnly);
  // Releases the flock, then the mutex.
  ~FirewallLock();
  FirewallLock(const FirewallLock&) = delete;
  FirewallLock& operator=(const FirewallLock&) = delete;

  // True when the cross-process flock is held too.
  bool holdsFileLock() const { return fd_ >= 0; }

  // Unlinks the lock file while holding it, so that the state folder can go (the uninstall
  // clean-up). Waiters notice and lock whatever takes its place.
  void unlinkLockFile();

 private:
  const HelperEnvironment& env_;
  int fd_ = -1;
};

}  // namespace HelperFirewall
