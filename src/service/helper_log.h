// HelperLog: the helper's one log file, one time-stamped line per message, rotated past 512 KiB.
// Thread-safe: every write and the uninstall removal go through one lock, the innermost of the
// helper's locks; across processes each line and each rotation happen under an advisory lock on
// the log file. Never throws and never reports its own failures.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/clock.h"

class HelperLog {
 public:
  static constexpr std::uintmax_t kRotationLimit = 524288;

  HelperLog(std::string logFile, std::string rotatedFile, Clock clock = systemNow);
  HelperLog(const HelperLog&) = delete;
  HelperLog& operator=(const HelperLog&) = delete;

  // Appends "<UTC time stamp> <message>\n". The file is opened and closed for every line and
  // re-created (0644) when missing. Dropped after removeForUninstall.
  void write(std::string_view message);

  // Stops all further writes of this process and deletes both files.
  void removeForUninstall();

  // Moves a log file strictly larger than `limit` to `rotatedFile`, replacing it; truncates the
  // log file when the move fails. write calls it holding the log file's advisory lock.
  static void rotateIfNeeded(const std::string& logFile, const std::string& rotatedFile,
                             std::uintmax_t limit);

 private:
  const std::string logFile_;
  const std::string rotatedFile_;
  const Clock clock_;
  std::mutex lock_;
  bool stopped_ = false;  // guarded by lock_
};
