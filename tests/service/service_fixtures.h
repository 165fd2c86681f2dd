// Shared pieces of the service tests: a log on a temporary tree read back without time stamps,
// a clock the test moves, and an event a test thread can wait for with a bound.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/files.h"
#include "platform/text.h"
#include "service/helper_environment.h"
#include "service/helper_log.h"
#include "support/temp_tree.h"

namespace service_test {

// A HelperEnvironment whose paths lie in a temporary tree.
struct TestEnvironment {
  TempTree tree;
  HostPaths paths = tree.hostPaths();
  HelperLog log{paths.logFile, paths.rotatedLogFile};
  HelperEnvironment env{paths, systemNow, log};

  // The logged messages without their "2026-11-16T20:51:26Z " stamps.
  std::vector<std::string> logLines() const {
    std::vector<std::string> lines;
    std::string text = readFile(paths.logFile).value_or("");
    for (std::string_view line : split(text, '\n', false)) {
      lines.emplace_back(line.size() > 21 ? line.substr(21) : line);
    }
    return lines;
  }
};

// Monotonic time that moves only when the test (or a sleep it stands in for) moves it.
struct ManualClock {
  std::atomic<std::chrono::steady_clock::duration::rep> ticks{0};
  std::chrono::steady_clock::time_point now() const {
    return std::chrono::steady_clock::time_point(std::chrono::steady_clock::duration(ticks));
  }
  void advance(std::chrono::steady_clock::duration by) { ticks += by.count(); }
};

// A counter other threads bump and the test waits on.
class Events {
 public:
  void bump() {
    std::lock_guard<std::mutex> guard(lock_);
    ++count_;
    changed_.notify_all();
  }
  int count() const {
    std::lock_guard<std::mutex> guard(lock_);
    return count_;
  }
  // True once the count reaches `n`; false after `bound` without it.
  bool waitFor(int n, std::chrono::milliseconds bound = std::chrono::seconds(10)) {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, bound, [&] { return count_ >= n; });
  }

 private:
  mutable std::mutex lock_;
  std::condition_variable changed_;
  int count_ = 0;
};

}  // namespace service_test
