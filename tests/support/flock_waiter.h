// Waiting for a thread to block on an advisory lock: the kernel lists every waiter of a flock in
// /proc/locks ("-> FLOCK ... <major>:<minor>:<inode> ..."), which is the event tests wait on.
// HeldFlock is used from one thread; the wait from any.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "platform/files.h"
#include "platform/text.h"

// Holds an exclusive flock on a file (created when missing), as another process of the helper
// would, until release() or its end.
class HeldFlock {
 public:
  explicit HeldFlock(const std::string& path)
      : fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    ::flock(fd_, LOCK_EX);
  }
  ~HeldFlock() { release(); }
  HeldFlock(const HeldFlock&) = delete;
  HeldFlock& operator=(const HeldFlock&) = delete;
  void release() { ::close(std::exchange(fd_, -1)); }
  // The file's inode, 0 once released or when it could not be opened.
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
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (; std::chrono::steady_clock::now() < end && !finished(); std::this_thread::yield()) {
    const std::string locks = readFile("/proc/locks").value_or("");
    for (std::string_view line : split(locks, '\n', false)) {
      if (line.find("-> FLOCK") != line.npos && line.find(key) != line.npos) return true;
    }
  }
  return false;
}
