// PeerProcess: the process at the other end of a Unix stream socket, pinned when the connection is
// accepted (SO_PEERCRED for its ids, a pidfd so that a recycled pid is never mistaken for it).
// Move-only; one object is used by one thread at a time.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

// The file a process runs, as /proc/<pid>/exe names it.
struct ExecutableFile {
  dev_t device = 0;
  ino_t inode = 0;
  std::string path;  // the link's text; ends in " (deleted)" when the file was replaced
};

class PeerProcess {
 public:
  // The peer of a connected socket: its credentials and a pidfd (SO_PEERPIDFD where the kernel
  // offers it, else pidfd_open of the credentials' pid). None when either cannot be had.
  static std::optional<PeerProcess> ofSocket(int socket);

  PeerProcess(PeerProcess&& other) noexcept;
  PeerProcess& operator=(PeerProcess&& other) noexcept;
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;
  ~PeerProcess();

  pid_t pid() const { return pid_; }
  uid_t uid() const { return uid_; }

  // True while the pinned process has not exited.
  bool alive() const;

  // The file the pinned process runs; none when it cannot be read or the process has exited (so
  // a later process with the same pid is never described).
  std::optional<ExecutableFile> executable() const;

 private:
  PeerProcess(pid_t pid, uid_t uid, int pidfd) : pid_(pid), uid_(uid), pidfd_(pidfd) {}

  pid_t pid_ = 0;
  uid_t uid_ = 0;
  int pidfd_ = -1;
};
