// Waiting for a thread to block on an advisory lock: the kernel lists every waiter of a flock in
// /proc/locks ("-> FLOCK ... <major>:<minor>:<inode> ..."), which is the event tests wait on.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "platform/files.h"

// Holds an exclusive flock on a file, as another process of the helper would.
class HeldFlock {
 public:
  explicit HeldFlock(const std::string& path)
      : fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    if (fd_ >= 0) ::flock(fd_, LOCK_EX);
  }
  ~HeldFlock() { release(); }
  HeldFlock(const HeldFlock&) = delete;
  HeldFlock& operator=(const HeldFlock&) = delete;
  void release() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }
  ino_t inode() const {
    struct stat info {};
    return ::fstat(fd_, &info) == 0 ? info.st_ino : 0;
  }

 private:
  int fd_;
};

// True once some thread waits for the flock of `inode`; false as soon as `finished` holds (the
// thread went ahead without waiting) or after ten seconds.
inline bool waitForFlockWaiter(ino_t inode, const std::function<bool()>& finished) {
  const std::string key = ":" + std::to_string(inode) + " ";
  for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
       std::chrono::steady_clock::now() < end;) {
    if (finished()) return false;
    const std::string locks = readFile("/proc/locks").value_or("");
    for (size_t at = locks.find("-> FLOCK"); at != std::string::npos;
         at = locks.find("-> FLOCK", at + 1)) {
      if (locks.substr(at, locks.find('\n', at) - at).find(key) != std::string::npos) return true;
    }
    std::this_thread::yield();
  }
  return false;
}
