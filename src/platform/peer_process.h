// PeerProcess: the process at the other end of a Unix stream socket, pinned when the connection is
// accepted (SO_PEERCRED for its ids, a pidfd so that a recycled pid is never mistaken for it).
// Move-only; one object is used by one thread at a time.
#pragma once

#include <sys/types.h>

#include <optional>

// A file as the kernel identifies it.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const FileIdentity&) const = default;
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

  // The identity of the file the pinned process runs (one stat of /proc/<pid>/exe); none when it
  // cannot be read or the process has exited by the time the stat returned, so a later process
  // with the same pid is never described. `alsoPoll`, unless -1, is polled for input in the same
  // call that asks whether the process lives; `alsoReady` tells whether it had any.
  std::optional<FileIdentity> executableIdentity(int alsoPoll, bool& alsoReady) const;

 private:
  PeerProcess(pid_t pid, uid_t uid, int pidfd) : pid_(pid), uid_(uid), pidfd_(pidfd) {}

  pid_t pid_ = 0;
  uid_t uid_ = 0;
  int pidfd_ = -1;
};
