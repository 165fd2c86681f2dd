#include "service/helper_log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <thread>

#include "platform/files.h"
#include "platform/text.h"
#include "support/flock_waiter.h"
#include "support/temp_tree.h"

namespace {

const std::string kStamp = "2026-11-16T20:51:26Z ";

class HelperLogTest : public ::testing::Test {
 protected:
  TempTree tree;
  std::string file = tree.write("log/tarnly-adminhelper.log", ""), rotated = file + ".1";
  HelperLog log{file, rotated, [] { return fromSecondsSinceReferenceDate(816555086.0); }};
};

TEST_F(HelperLogTest, WritesStampedLinesIntoA0644FileAndRotatesPastTheLimitUntilUninstall) {
  ASSERT_TRUE(removeFile(file));
  ::umask(077);
  log.write("two\nlines kept as they are");  // re-created when missing, 0644 whatever the umask
  ::umask(022);
  EXPECT_EQ(contentOf(file), kStamp + "two\nlines kept as they are\n");
  EXPECT_EQ(modeOf(file), 0644);
  tree.write("log/tarnly-adminhelper.log.1", "older generation\n");
  tree.write("log/tarnly-adminhelper.log", std::string(HelperLog::kRotationLimit, 'x'));
  log.write("next");  // exactly at the limit: appended, not rotated
  EXPECT_EQ(contentOf(rotated), "older generation\n");
  log.write("next");  // now larger: rotated first, the line starts a fresh file
  EXPECT_EQ(contentOf(file), kStamp + "next\n");
  EXPECT_EQ(contentOf(rotated), std::string(HelperLog::kRotationLimit, 'x') + kStamp + "next\n");
  // A folder at the rotated path can be neither removed as a file nor replaced by the move: the
  // log is truncated instead.
  ASSERT_TRUE(removeFile(rotated));
  createDirectories(rotated + "/occupied");
  tree.write("log/tarnly-adminhelper.log", std::string(HelperLog::kRotationLimit + 1, 'x'));
  log.write("next");
  EXPECT_EQ(contentOf(file), kStamp + "next\n");
  std::filesystem::remove_all(rotated);
  tree.write("log/tarnly-adminhelper.log.1", "older\n");
  log.removeForUninstall();
  log.write("after");
  EXPECT_FALSE(pathExists(file) || pathExists(rotated));
  HelperLog lost(tree.path("missing/x.log"), tree.path("missing/x.log.1"));
  lost.write("lost");  // without its folder a line is lost quietly
  EXPECT_FALSE(pathExists(tree.path("missing")));
}

TEST_F(HelperLogTest, ConcurrentRotationByAnotherProcessKeepsBothGenerationsAndWholeLines) {
  tree.write("log/tarnly-adminhelper.log", std::string(HelperLog::kRotationLimit + 1, 'x'));
  HeldFlock other(file);  // another process holds the log while it rotates it
  std::atomic<bool> done{false};
  std::thread writer([&] { log.write("line"), done = true; });
  EXPECT_TRUE(waitForFlockWaiter(other.inode(), [&] { return done.load(); }))
      << "the write went ahead while another process rotated";
  ASSERT_EQ(::rename(file.c_str(), rotated.c_str()), 0);
  other.release();
  writer.join();
  EXPECT_EQ(contentOf(rotated), std::string(HelperLog::kRotationLimit + 1, 'x'));
  EXPECT_EQ(contentOf(file), kStamp + "line\n");

  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 200; ++i) log.write(std::to_string(t) + " " + std::to_string(i));
    });
  }
  for (auto& thread : threads) thread.join();
  const std::string content = contentOf(file);
  std::vector<std::string_view> lines = split(content, '\n', false);
  ASSERT_EQ(lines.size(), 1u + 8 * 200);
  std::set<std::string_view> seen(lines.begin() + 1, lines.end());
  EXPECT_EQ(seen.size(), 8u * 200u) << "every line whole, and each message there once";
  for (int t = 0; t < 8; ++t)
    for (int i = 0; i < 200; ++i)
      EXPECT_EQ(seen.count(kStamp + std::to_string(t) + " " + std::to_string(i)), 1u);
}

}  // namespace
