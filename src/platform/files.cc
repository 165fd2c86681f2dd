#include "platform/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <vector>

FileError::FileError(const std::string& action, const std::string& path, int error)
    : std::runtime_error("Could not " + action + " " + path + ": " + std::strerror(error) + "."),
      error_(error) {}

namespace {

constexpr std::string_view kTemporaryMarker = ".tmp-";
constexpr std::size_t kTemporarySuffixDigits = 12;

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

std::string baseName(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// A hidden name beside the target, so that nothing that reads the folder by name takes it for a
// file of its own.
std::string temporaryName(const std::string& path) {
  static thread_local std::mt19937_64 random{std::random_device{}()};
  char suffix[24];
  (void)std::snprintf(suffix, sizeof suffix, "%012llx",
                      static_cast<unsigned long long>(random() & 0xFFFFFFFFFFFFull));
  std::string folder = parentPath(path);
  return (folder == "/" ? "" : folder) + "/." + baseName(path) + std::string(kTemporaryMarker) +
         suffix;
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

std::optional<std::string> readFile(const std::string& path, std::size_t limit) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  Descriptor file(fd);
  struct stat info {};
  if (::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  std::string data;
  char buffer[65536];
  while (true) {
    ssize_t got = ::read(file.get(), buffer, sizeof buffer);
    if (got < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    if (got == 0) break;
    if (static_cast<std::size_t>(got) > limit - data.size()) return std::nullopt;
    data.append(buffer, static_cast<size_t>(got));
  }
  return data;
}

bool isTemporaryFileName(std::string_view name, std::string_view target) {
  size_t marker = name.rfind(kTemporaryMarker);
  if (marker == std::string_view::npos || marker == 0) return false;
  if (!target.empty()) {
    std::string_view stem = name.substr(0, marker);
    if (stem != target &&
        !(stem.size() == target.size() + 1 && stem[0] == '.' && stem.substr(1) == target)) {
      return false;
    }
  }
  std::string_view digits = name.substr(marker + kTemporaryMarker.size());
  if (digits.size() != kTemporarySuffixDigits) return false;
  for (char c : digits) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

void removeLeftoverTemporaryFiles(const std::string& folder, std::string_view target) {
  int folderFd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folderFd < 0) return;
  DIR* dir = ::fdopendir(folderFd);
  if (dir == nullptr) {
    ::close(folderFd);
    return;
  }
  std::vector<std::string> candidates;
  while (dirent* entry = ::readdir(dir)) {
    if (isTemporaryFileName(entry->d_name, target)) candidates.emplace_back(entry->d_name);
  }
  for (const std::string& name : candidates) {
    // A write in progress holds a lock on its temporary file; a leftover has none.
    int fd = ::openat(::dirfd(dir), name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) continue;
    struct stat info {};
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && ::flock(fd, LOCK_EX | LOCK_NB) == 0) {
      ::unlinkat(::dirfd(dir), name.c_str(), 0);
    }
    ::close(fd);
  }
  ::closedir(dir);
}

void writeFileAtomically(const std::string& path, const std::string& data, mode_t mode) {
  removeLeftoverTemporaryFiles(parentPath(path), baseName(path));
  std::string temporary;
  int fd = -1;
  for (int attempt = 0; attempt < 16 && fd < 0; ++attempt) {
    temporary = temporaryName(path);
    fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode);
    if (fd < 0) {
      if (errno == EEXIST) continue;
      break;
    }
    // Marks the file as in use for removeLeftoverTemporaryFiles; one that took it for a
    // leftover in the moment before has removed it, and the next name is tried.
    struct stat info {};
    if (::flock(fd, LOCK_EX) != 0 || ::fstat(fd, &info) != 0 || info.st_nlink == 0) {
      ::close(fd);
      fd = -1;
    }
  }
  if (fd < 0) throw FileError("write", path, errno == 0 ? EEXIST : errno);
  Descriptor file(fd);
  auto fail = [&]() {
    int error = errno;
    ::unlink(temporary.c_str());
    throw FileError("write", path, error);
  };
  // The umask may have narrowed the mode at creation.
  if (::fchmod(file.get(), mode) != 0) fail();
  if (!writeAll(file.get(), data)) fail();
  if (::fsync(file.get()) != 0) fail();
  if (::rename(temporary.c_str(), path.c_str()) != 0) fail();
  file.close();
  int folder = ::open(parentPath(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder >= 0) {
    ::fsync(folder);
    ::close(folder);
  }
}

void createDirectories(const std::string& path, std::optional<mode_t> mode) {
  if (path.empty()) return;
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0) {
    if (S_ISDIR(info.st_mode)) return;
    throw FileError("create the folder", path, ENOTDIR);
  }
  std::string parent = parentPath(path);
  if (parent != path && parent != "." && parent != "/") createDirectories(parent, mode);
  if (::mkdir(path.c_str(), mode.value_or(0777)) != 0) {
    if (errno == EEXIST) return;
    throw FileError("create the folder", path, errno);
  }
  if (!mode) return;
  // The umask may have narrowed the mode; widen it on the folder just made, through its handle.
  int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0 || ::fchmod(fd, *mode) != 0) {
    int error = errno;
    if (fd >= 0) ::close(fd);
    throw FileError("set the permissions of", path, error);
  }
  ::close(fd);
}

bool removeFile(const std::string& path) {
  return ::unlink(path.c_str()) == 0;
}

bool pathExists(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0;
}
