#include "platform/service_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr int kBacklog = 64;

bool fillAddress(const std::string& path, sockaddr_un& address) {
  address = {};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, path.data(), path.size());
  return true;
}

// True when some process accepts connections on the socket file at `path`.
bool someoneListens(const sockaddr_un& address) {
  int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (probe < 0) return false;
  bool listening =
      ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::close(probe);
  return listening;
}

std::string failure(const std::string& path, const char* call, int error) {
  return "Could not listen on " + path + ": " + call + " failed: " + std::strerror(error) + ".";
}

}  // namespace

int bindServiceSocket(const std::string& path, std::string& error) {
  sockaddr_un address{};
  if (!fillAddress(path, address)) {
    error = "Could not listen on " + path + ": the path does not fit a socket address.";
    return -1;
  }
  struct stat info {};
  if (::lstat(path.c_str(), &info) == 0) {
    if (!S_ISSOCK(info.st_mode)) {
      error = "Left " + path + " alone: it is not a socket.";
      return -1;
    }
    if (someoneListens(address)) {
      error = "Left " + path + " alone: another process is listening on it.";
      return -1;
    }
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
      error = failure(path, "unlink", errno);
      return -1;
    }
  }
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = failure(path, "socket", errno);
    return -1;
  }
  // Until the chmod the file has the umask's mode, which is never wider than 0666.
  const char* call = nullptr;
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    call = "bind";
  } else if (::chmod(path.c_str(), 0666) != 0) {
    call = "chmod";
  } else if (::listen(fd, kBacklog) != 0) {
    call = "listen";
  }
  if (call != nullptr) {
    error = failure(path, call, errno);
    ::close(fd);
    return -1;
  }
  return fd;
}

int openServiceSocket(const std::string& path, std::string& error) {
  // sd_listen_fds checks LISTEN_PID against this process, clears the variables and marks the
  // descriptors close-on-exec.
  if (sd_listen_fds(1) == 1) {
    if (sd_is_socket_unix(SD_LISTEN_FDS_START, SOCK_STREAM, 1, nullptr, 0) > 0) {
      return SD_LISTEN_FDS_START;
    }
    error = "Could not listen on " + path +
            ": the socket systemd passed is not a listening stream socket.";
    return -1;
  }
  return bindServiceSocket(path, error);
}
