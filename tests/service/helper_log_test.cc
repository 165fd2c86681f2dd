#include "service/helper_log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "platform/files.h"
#include "platform/text.h"
#include "support/flock_waiter.h"
#include "support/temp_tree.h"

namespace {

class HelperLogTest : public ::testing::Test {
 protected:
  std::string logFile() const { return tree_.path("log/tarnly-adminhelper.log"); }
  std::string rotatedFile() const { return tree_.path("log/tarnly-adminhelper.log.1"); }
  HelperLog makeLog(Clock clock = systemNow) {
    createDirectories(tree_.path("log"));
    return HelperLog(logFile(), rotatedFile(), std::move(clock));
  }

  TempTree tree_;
};

TimePoint fixedTime() {
  return fromSecondsSinceReferenceDate(816555086.0);
}

TEST_F(HelperLogTest, WritesStampedLinesIntoA0644FileRecreatedWhenDeletedUntilUninstall) {
  ::umask(077);
  HelperLog log = makeLog(fixedTime);
  log.write("Removed firewall enforcement.");
  log.write("two\nlines kept as they are");
  ::umask(022);
  EXPECT_EQ(contentOf(logFile()),
            "2026-11-16T20:51:26Z Removed firewall enforcement.\n"
            "2026-11-16T20:51:26Z two\nlines kept as they are\n");
  EXPECT_EQ(modeOf(logFile()), 0644);
  ASSERT_TRUE(removeFile(logFile()));
  log.write("second");
  EXPECT_EQ(contentOf(logFile()), "2026-11-16T20:51:26Z second\n");
  tree_.write("log/tarnly-adminhelper.log.1", "older\n");
  log.removeForUninstall();
  log.write("after");
  EXPECT_FALSE(pathExists(logFile()) || pathExists(rotatedFile()));
  // Without its folder a line is lost quietly.
  HelperLog lost(tree_.path("missing-folder/x.log"), tree_.path("missing-folder/x.log.1"));
  lost.write("lost");
  EXPECT_FALSE(pathExists(tree_.path("missing-folder")));
}

TEST_F(HelperLogTest, RotatesOnlyAFileStrictlyLargerThanTheLimitAndTruncatesWhenItCannotMove) {
  HelperLog log = makeLog(fixedTime);
  const std::string line = "2026-11-16T20:51:26Z next\n";
  tree_.write("log/tarnly-adminhelper.log.1", "older generation\n");
  tree_.write("log/tarnly-adminhelper.log", std::string(HelperLog::kRotationLimit, 'x'));
  log.write("next");  // exactly at the limit: appended, not rotated
  EXPECT_EQ(contentOf(logFile()).size(), HelperLog::kRotationLimit + line.size());
  EXPECT_EQ(contentOf(rotatedFile()), "older generation\n");
  log.write("next");  // now larger: rotated first, the line starts a fresh file
  EXPECT_EQ(contentOf(logFile()), line);
  EXPECT_EQ(modeOf(logFile()), 0644);
  EXPECT_EQ(contentOf(rotatedFile()).size(), HelperLog::kRotationLimit + line.size());
  // A folder at the rotated path can be neither removed as a file nor replaced by the move.
  ASSERT_TRUE(removeFile(rotatedFile()));
  createDirectories(rotatedFile() + "/occupied");
  tree_.write("log/tarnly-adminhelper.log", std::string(HelperLog::kRotationLimit + 1, 'x'));
  log.write("next");
  EXPECT_EQ(contentOf(logFile()), line);
}

TEST_F(HelperLogTest, ConcurrentRotationByAnotherProcessKeepsBothGenerations) {
  HelperLog log = makeLog(fixedTime);
  tree_.write("log/tarnly-adminhelper.log.1", "older generation\n");
  tree_.write("log/tarnly-adminhelper.log", std::string(HelperLog::kRotationLimit + 1, 'x'));
  // Another process holds the log while it rotates it.
  HeldFlock other(logFile());
  std::atomic<bool> done{false};
  std::thread writer([&] {
    log.write("line");
    done = true;
  });
  EXPECT_TRUE(waitForFlockWaiter(other.inode(), [&] { return done.load(); }))
      << "the write went ahead while another process rotated";
  ASSERT_EQ(::rename(logFile().c_str(), rotatedFile().c_str()), 0);
  other.release();
  writer.join();
  EXPECT_EQ(contentOf(rotatedFile()).size(), HelperLog::kRotationLimit + 1)
      << "the generation the other process made is kept";
  EXPECT_EQ(contentOf(logFile()), "2026-11-16T20:51:26Z line\n");
}

TEST_F(HelperLogTest, ConcurrentWritersProduceWholeLines) {
  HelperLog log = makeLog(fixedTime);
  constexpr int kThreads = 8;
  constexpr int kLines = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&log, t] {
      for (int i = 0; i < kLines; ++i)
        log.write("thread " + std::to_string(t) + " line " + std::to_string(i));
    });
  }
  for (auto& thread : threads) thread.join();
  const std::string content = contentOf(logFile());
  auto lines = split(content, '\n', false);
  ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
  // Every line whole, and every message there exactly once.
  std::set<std::string_view> seen(lines.begin(), lines.end());
  EXPECT_EQ(seen.size(), lines.size());
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kLines; ++i) {
      std::string expected =
          "2026-11-16T20:51:26Z thread " + std::to_string(t) + " line " + std::to_string(i);
      ASSERT_EQ(seen.count(expected), 1u) << expected;
    }
  }
}

}  // namespace
