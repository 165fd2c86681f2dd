#include "platform/peer_process.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
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

bool PeerProcess::alive() const {
  // A pidfd becomes readable once its process has exited.
  struct pollfd poller {
    pidfd_, POLLIN, 0
  };
  int ready = ::poll(&poller, 1, 0);
  return ready == 0;
}

std::optional<ExecutableFile> PeerProcess::executable() const {
  std::string link = "/proc/" + std::to_string(pid_) + "/exe";
  struct stat info {};
  if (::stat(link.c_str(), &info) != 0) return std::nullopt;
  std::array<char, 4096> buffer{};
  ssize_t length = ::readlink(link.c_str(), buffer.data(), buffer.size() - 1);
  if (length <= 0) return std::nullopt;
  // Read before asking whether the pinned process still lives: if it does, the pid was still its
  // own while /proc answered.
  if (!alive()) return std::nullopt;
  return ExecutableFile{info.st_dev, info.st_ino,
                        std::string(buffer.data(), static_cast<std::size_t>(length))};
}
