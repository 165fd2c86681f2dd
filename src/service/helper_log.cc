#include "service/helper_log.h"

#include "platform/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

HelperLog::HelperLog(std::string logFile, std::string rotatedFile, Clock clock)
    : logFile_(std::move(logFile)),
      rotatedFile_(std::move(rotatedFile)),
      clock_(std::move(clock)) {}

namespace {

// True when `fd` is still the file at `path`.
bool stillInPlace(int fd, const std::string& path) {
  struct stat held {
  }, current{};
  return ::fstat(fd, &held) == 0 && ::lstat(path.c_str(), &current) == 0 &&
         held.st_dev == current.st_dev && held.st_ino == current.st_ino;
}

// Opens the log for appending, creating it (0644) when missing. Creating with O_EXCL and an
// explicit fchmod only for a new file keeps an administrator's chosen mode on an existing log;
// a create that lost the race to another process opens that process's file instead.
int openLog(const std::string& path) {
  for (int attempt = 0; attempt < 8; ++attempt) {
    int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW);
    if (fd >= 0 || errno != ENOENT) return fd;
    fd =
        ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd >= 0) {
      if (::fchmod(fd, 0644) != 0) {
        // The umask already gave a usable mode.
      }
      return fd;
    }
    if (errno != EEXIST) return -1;
  }
  return -1;
}

}  // namespace

void HelperLog::write(std::string_view message) {
  std::string line = iso8601(clock_());
  line += ' ';
  line += message;
  line += '\n';

  std::lock_guard<std::mutex> guard(lock_);
  if (stopped_) return;
  // Other processes of the helper write the same file: each line is written, and the rotation
  // decided, under an advisory lock on the log file itself. A file that was rotated away while
  // this process waited is let go and the current one opened.
  bool rotated = false;
  for (int attempt = 0; attempt < 8; ++attempt) {
    int fd = openLog(logFile_);
    if (fd < 0) return;
    int locked;
    do {
      locked = ::flock(fd, LOCK_EX);
    } while (locked != 0 && errno == EINTR);
    if (locked == 0 && !stillInPlace(fd, logFile_)) {
      ::close(fd);
      continue;
    }
    struct stat info {};
    if (!rotated && ::fstat(fd, &info) == 0 &&
        static_cast<std::uintmax_t>(info.st_size) > kRotationLimit) {
      rotateIfNeeded(logFile_, rotatedFile_, kRotationLimit);
      rotated = true;
      ::close(fd);
      continue;
    }
    writeAll(fd, line);
    ::close(fd);
    return;
  }
}

void HelperLog::removeForUninstall() {
  std::lock_guard<std::mutex> guard(lock_);
  stopped_ = true;
  ::unlink(logFile_.c_str());
  ::unlink(rotatedFile_.c_str());
}

void HelperLog::rotateIfNeeded(const std::string& logFile, const std::string& rotatedFile,
                               std::uintmax_t limit) {
  struct stat info {};
  if (::stat(logFile.c_str(), &info) != 0) return;
  if (static_cast<std::uintmax_t>(info.st_size) <= limit) return;
  ::unlink(rotatedFile.c_str());
  if (::rename(logFile.c_str(), rotatedFile.c_str()) != 0) {
    if (::truncate(logFile.c_str(), 0) != 0) {
      // Nothing more can be done; the next line tries again.
    }
  }
}
