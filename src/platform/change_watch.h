// ChangeWatch: whether anything happened to a fixed set of files and folders since they were last
// read (inotify: a change of owner or mode, an entry made, moved or removed in a folder, the file
// itself moved or removed). Its descriptor becomes readable on the first such change; the kernel
// queues the event inside the very call that made the change, so a change that completed before
// a poll of the descriptor is always seen. The descriptor stays the same for the object's life, so
// any thread may poll it; arm() and armed() are called under the user's lock.
#pragma once

#include <string>
#include <vector>

class ChangeWatch {
 public:
  ChangeWatch();
  ChangeWatch(const ChangeWatch&) = delete;
  ChangeWatch& operator=(const ChangeWatch&) = delete;
  ~ChangeWatch();

  // Forgets what happened so far and watches `paths` afresh, never following a link; read them
  // after this returns. A path that does not exist is left to its folder, which must be in
  // `paths` too; the first path must exist. False when the kernel cannot watch them.
  bool arm(const std::vector<std::string>& paths);

  // Whether the last arm() succeeded; when not, a quiet descriptor proves nothing.
  bool armed() const { return !watches_.empty(); }

  // Readable once something changed since the last arm(); -1 when inotify is not available.
  int descriptor() const { return fd_; }

 private:
  int fd_ = -1;
  std::vector<int> watches_;
};
