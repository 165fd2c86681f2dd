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
#include <thread>
#include <utility>

#include "platform/files.h"
#include "platform/text.h"

// An exclusive flock on a file (made when missing) until release(); inode() 0 when not opened.
class HeldFlock {
 public:
  explicit HeldFlock(const std::string& path)
      : fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    struct stat info {};
    if (::flock(fd_, LOCK_EX) == 0 && ::fstat(fd_, &info) == 0) inode_ = info.st_ino;
  }
  ~HeldFlock() { release(); }
  HeldFlock(const HeldFlock&) = delete;
  HeldFlock& operator=(const HeldFlock&) = delete;
  void release() { ::close(std::exchange(fd_, -1)); }
  ino_t inode() const { return inode_; }

 private:
  int fd_;
  ino_t inode_ = 0;
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
