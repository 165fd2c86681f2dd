#include "platform/peer_process.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <string>
#include <utility>

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace {

int pidfdOpen(pid_t pid) {
  return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

}  // namespace

std::optional<PeerProcess> PeerProcess::ofSocket(int socket) {
  struct ucred credentials {};
  socklen_t length = sizeof credentials;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 ||
      length != sizeof credentials || credentials.pid <= 0) {
    return std::nullopt;
  }
  int pidfd = -1;
  length = sizeof pidfd;
  // The kernel's pidfd refers to the process that connected, even if it has exited since; the
  // fallback can only pin whatever has that pid now. Both come with close-on-exec set.
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &pidfd, &length) != 0 || pidfd < 0) {
    pidfd = pidfdOpen(credentials.pid);
  }
  if (pidfd < 0) return std::nullopt;
  return PeerProcess(credentials.pid, credentials.uid, pidfd);
}

PeerProcess::PeerProcess(PeerProcess&& other) noexcept
    : pid_(other.pid_), uid_(other.uid_), pidfd_(std::exchange(other.pidfd_, -1)) {}

PeerProcess& PeerProcess::operator=(PeerProcess&& other) noexcept {
  if (this != &other) {
    if (pidfd_ >= 0) ::close(pidfd_);
    pid_ = other.pid_;
    uid_ = other.uid_;
    pidfd_ = std::exchange(other.pidfd_, -1);
  }
  return *this;
}

PeerProcess::~PeerProcess() {
  if (pidfd_ >= 0) ::close(pidfd_);
}

std::optional<FileIdentity> PeerProcess::executableIdentity(int alsoPoll, bool& alsoReady) const {
  std::string link = "/proc/" + std::to_string(pid_) + "/exe";
  struct stat info {};
  if (::stat(link.c_str(), &info) != 0) return std::nullopt;
  // A pidfd becomes readable once its process has exited; read after the stat, a living process
  // means the pid was still its own while /proc answered.
  std::array<struct pollfd, 2> fds{{{pidfd_, POLLIN, 0}, {alsoPoll, POLLIN, 0}}};
  int ready = ::poll(fds.data(), alsoPoll >= 0 ? 2 : 1, 0);
  alsoReady = ready > 0 && (fds[1].revents & POLLIN) != 0;
  if (ready < 0 || fds[0].revents != 0) return std::nullopt;
  return FileIdentity{info.st_dev, info.st_ino};
}
