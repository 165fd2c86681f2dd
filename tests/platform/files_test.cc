#include "platform/files.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <filesystem>

#include "support/temp_tree.h"

namespace {

using ::testing::ThrowsMessage;

TEST(Files, WritesAtomicallyWithTheirModeReadsUpToTheLimitFailNamingTheFileAndRemoveLeftovers) {
  TempTree tree;
  const std::string file = tree.path("file"), folder = tree.path("a/b");
  ::umask(077);
  writeFileAtomically(file, "old", 0644);
  writeFileAtomically(file, "new", 0644);
  createDirectories(folder, 0755);
  createDirectories(folder, 0700);  // exists: left as it is
  createDirectories(tree.path("a/c"));
  ::umask(022);
  EXPECT_EQ(std::tuple(contentOf(file), modeOf(file), modeOf(tree.path("a")), modeOf(folder)),
            std::tuple("new", 0644, 0755, 0755));
  EXPECT_EQ(std::tuple(readFile(file, 3), readFile(file, 2)), std::tuple("new", std::nullopt));
  EXPECT_THAT([&] { writeFileAtomically(file + "/f", "", 0600); },
              ThrowsMessage<FileError>("Could not write " + file + "/f: Not a directory."));
  EXPECT_THAT([&] { writeFileAtomically(folder, "", 0600); },
              ThrowsMessage<FileError>("Could not write " + folder + ": Is a directory."));
  EXPECT_THAT(
      [&] { createDirectories(file + "/sub"); },
      ThrowsMessage<FileError>("Could not create the folder " + file + ": Not a directory."));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(tree.path("a")), {}), 2)
      << "no temporary file";
  // Only leftovers of a crash are removed, not a write in progress: that one holds a lock.
  const std::string leftover = tree.write(".record.json.tmp-00000000abcd", "half"),
                    older = tree.write("record.json.tmp-0123456789ab", "half"),
                    other = tree.write(".other.json.tmp-00000000abcd", "half"),
                    notOurs = tree.write("record.json.tmp-notes", "mine"),
                    busy = tree.write(".record.json.tmp-0000000000ff", "busy");
  const int held = ::open(busy.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(held, LOCK_EX), 0);
  writeFileAtomically(tree.path("record.json"), "new", 0600);
  auto left = [&] {
    return std::tuple(pathExists(leftover) || pathExists(older), pathExists(other),
                      pathExists(notOurs), pathExists(busy));
  };
  EXPECT_EQ(left(), std::tuple(false, true, true, true));
  ::close(held);
  removeLeftoverTemporaryFiles(tree.root());
  EXPECT_EQ(left(), std::tuple(false, false, true, false));
}

}  // namespace
