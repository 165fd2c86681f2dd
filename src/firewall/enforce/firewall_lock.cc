#include "firewall/enforce/firewall_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <string>

#include "platform/files.h"

namespace HelperFirewall {

namespace {

std::mutex& processMutex() {
  // Never destroyed: the helper's exits end the process while other threads may hold it.
  static std::mutex* const instance = new std::mutex;
  return *instance;
}

std::string lockPath(const HelperEnvironment& env) {
  return env.paths.state(std::string(kLockFile));
}

// True when `fd` is still the file at `path`.
bool stillInPlace(int fd, const std::string& path) {
  struct stat held {
  }, current{};
  return ::fstat(fd, &held) == 0 && ::lstat(path.c_str(), &current) == 0 &&
         held.st_dev == current.st_dev && held.st_ino == current.st_ino;
}

}  // namespace

FirewallLock::FirewallLock(const HelperEnvironment& env, Folder folder) : env_(env) {
  processMutex().lock();
  try {
    if (folder == Folder::create) createDirectories(env.paths.stateDirectory);
  } catch (...) {
    processMutex().unlock();
    throw;
  }
  const std::string path = lockPath(env);
  while (true) {
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) return;
    int locked;
    do {
      locked = ::flock(fd, LOCK_EX);
    } while (locked != 0 && errno == EINTR);
    if (locked == 0 && stillInPlace(fd, path)) {
      fd_ = fd;
      return;
    }
    ::close(fd);
    if (locked != 0) return;
    // The holder unlinked the file (and perhaps the folder); lock what is there now.
    if (folder == Folder::create) {
      try {
        createDirectories(env.paths.stateDirectory);
      } catch (...) {
        processMutex().unlock();
        throw;
      }
    }
  }
}

FirewallLock::~FirewallLock() {
  if (fd_ >= 0) ::close(fd_);
  processMutex().unlock();
}

void FirewallLock::unlinkLockFile() {
  if (fd_ >= 0) ::unlink(lockPath(env_).c_str());
}

}  // namespace HelperFirewall
