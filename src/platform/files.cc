#include "platform/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>

FileError::FileError(const std::string& call, const std::string& path, int error)
    : std::runtime_error(call + "(" + path + "): " + std::strerror(error)), error_(error) {}

namespace {

// Closes a descriptor when it leaves scope.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }
  // Closes now and reports the result.
  int close() {
    int result = ::close(fd_);
    fd_ = -1;
    return result;
  }

 private:
  int fd_;
};

std::string temporaryName(const std::string& path) {
  static thread_local std::mt19937_64 random{std::random_device{}()};
  char suffix[24];
  (void)std::snprintf(suffix, sizeof suffix, ".tmp-%012llx",
                      static_cast<unsigned long long>(random() & 0xFFFFFFFFFFFFull));
  return path + suffix;
}

}  // namespace

bool writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t written = ::write(fd, data.data(), data.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

std::string parentPath(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::optional<std::string> readFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  Descriptor file(fd);
  std::string data;
  char buffer[65536];
  while (true) {
    ssize_t got = ::read(file.get(), buffer, sizeof buffer);
    if (got < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    if (got == 0) break;
    data.append(buffer, static_cast<size_t>(got));
  }
  return data;
}

void writeFileAtomically(const std::string& path, const std::string& data, mode_t mode) {
  std::string temporary;
  int fd = -1;
  for (int attempt = 0; attempt < 16 && fd < 0; ++attempt) {
    temporary = temporaryName(path);
    fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode);
    if (fd < 0 && errno != EEXIST) break;
  }
  if (fd < 0) throw FileError("open", temporary, errno);
  Descriptor file(fd);
  auto fail = [&](const char* call) {
    int error = errno;
    ::unlink(temporary.c_str());
    throw FileError(call, temporary, error);
  };
  // The umask may have narrowed the mode at creation.
  if (::fchmod(file.get(), mode) != 0) fail("fchmod");
  if (!writeAll(file.get(), data)) fail("write");
  if (::fsync(file.get()) != 0) fail("fsync");
  if (file.close() != 0) fail("close");
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    int error = errno;
    ::unlink(temporary.c_str());
    throw FileError("rename", path, error);
  }
  int folder = ::open(parentPath(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder >= 0) {
    ::fsync(folder);
    ::close(folder);
  }
}

void createDirectories(const std::string& path) {
  if (path.empty()) return;
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0) {
    if (S_ISDIR(info.st_mode)) return;
    throw FileError("mkdir", path, ENOTDIR);
  }
  std::string parent = parentPath(path);
  if (parent != path && parent != "." && parent != "/") createDirectories(parent);
  if (::mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) throw FileError("mkdir", path, errno);
}

bool removeFile(const std::string& path) {
  return ::unlink(path.c_str()) == 0;
}

bool setMode(const std::string& path, mode_t mode) {
  return ::chmod(path.c_str(), mode) == 0;
}

bool pathExists(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0;
}
