#include "service/helper_log.h"

#include "platform/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

HelperLog::HelperLog(std::string logFile, std::string rotatedFile, Clock clock)
    : logFile_(std::move(logFile)),
      rotatedFile_(std::move(rotatedFile)),
      clock_(std::move(clock)) {}

void HelperLog::write(std::string_view message) {
  std::string line = iso8601(clock_());
  line += ' ';
  line += message;
  line += '\n';

  std::lock_guard<std::mutex> guard(lock_);
  if (stopped_) return;
  rotateIfNeeded(logFile_, rotatedFile_, kRotationLimit);
  // Creating with O_CREAT and an explicit fchmod only for a new file keeps an administrator's
  // chosen mode on an existing log.
  int fd = ::open(logFile_.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0 && errno == ENOENT) {
    fd = ::open(logFile_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW,
                0644);
    if (fd >= 0 && ::fchmod(fd, 0644) != 0) {
      // The umask already gave a usable mode.
    }
  }
  if (fd < 0) return;
  writeAll(fd, line);
  ::close(fd);
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
