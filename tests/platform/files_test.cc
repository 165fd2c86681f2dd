#include "platform/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/clock.h"
#include "support/temp_tree.h"

namespace {

int entriesIn(const std::string& folder) {
  int count = 0;
  DIR* dir = ::opendir(folder.c_str());
  if (dir == nullptr) return -1;
  while (dirent* entry = ::readdir(dir)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") ++count;
  }
  ::closedir(dir);
  return count;
}

TEST(AtomicWrite, ReplacesContentWithTheGivenModeAndLeavesNoTemporaryFile) {
  TempTree tree;
  std::string path = tree.path("record.json");
  writeFileAtomically(path, "old", 0644);
  ::umask(077);
  writeFileAtomically(path, "new", 0644);
  ::umask(022);
  EXPECT_EQ(contentOf(path), "new");
  EXPECT_EQ(modeOf(path), 0644);
  writeFileAtomically(path, "secret", 0600);
  EXPECT_EQ(modeOf(path), 0600);
  EXPECT_EQ(entriesIn(tree.root()), 1);
}

TEST(AtomicWrite, FailureThrowsASentenceNamingTheFinalPath) {
  TempTree tree;
  std::string missing = tree.path("no-such-folder/file");
  try {
    writeFileAtomically(missing, "x", 0600);
    FAIL() << "expected a FileError";
  } catch (const FileError& error) {
    EXPECT_EQ(std::string(error.what()),
              "Could not write " + missing + ": No such file or directory.");
    EXPECT_EQ(error.error(), ENOENT);
  }
}

TEST(AtomicWrite, RemovesLeftoversOfACrashButNotAWriteInProgress) {
  TempTree tree;
  std::string leftover = tree.write(".record.json.tmp-00000000abcd", "half");
  std::string older = tree.write("record.json.tmp-0123456789ab", "half");
  std::string otherTarget = tree.write(".other.json.tmp-00000000abcd", "half");
  std::string notOurs = tree.write("record.json.tmp-notes", "mine");
  // A write in progress holds a lock on its temporary file.
  std::string busy = tree.write(".record.json.tmp-0000000000ff", "busy");
  int held = ::open(busy.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(held, LOCK_EX), 0);
  writeFileAtomically(tree.path("record.json"), "new", 0600);
  EXPECT_FALSE(pathExists(leftover));
  EXPECT_FALSE(pathExists(older));
  EXPECT_TRUE(pathExists(otherTarget)) << "another file's write may still be running";
  EXPECT_TRUE(pathExists(notOurs));
  EXPECT_TRUE(pathExists(busy));
  ::close(held);
  removeLeftoverTemporaryFiles(tree.root());
  EXPECT_FALSE(pathExists(busy) || pathExists(otherTarget));
  EXPECT_TRUE(pathExists(notOurs));
}

TEST(ReadFile, ReadsOnlyRegularFilesUpToTheLimitWithoutFollowingOrBlocking) {
  TempTree tree;
  std::string file = tree.write("file", "12345");
  EXPECT_EQ(readFile(file), "12345");
  EXPECT_EQ(readFile(file, 5), "12345");
  EXPECT_EQ(readFile(file, 4), std::nullopt);
  std::string link = tree.path("link");
  ASSERT_EQ(::symlink(file.c_str(), link.c_str()), 0);
  EXPECT_EQ(readFile(link), std::nullopt);
  std::string fifo = tree.path("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(readFile(fifo), std::nullopt);
  EXPECT_EQ(readFile(tree.root()), std::nullopt);
  EXPECT_EQ(readFile(tree.path("missing")), std::nullopt);
}

TEST(Directories, CreatesParentsAndAcceptsExistingFolders) {
  TempTree tree;
  createDirectories(tree.path("a/b/c"));
  createDirectories(tree.path("a/b/c"));
  EXPECT_TRUE(pathExists(tree.path("a/b/c")));
  tree.write("file", "x");
  EXPECT_THROW(createDirectories(tree.path("file/sub")), FileError);
}

TEST(Clock, FormatsUTCToTheSecondAndConvertsReferenceDates) {
  TimePoint t = fromSecondsSinceReferenceDate(0);
  EXPECT_EQ(iso8601(t), "2001-01-01T00:00:00Z");
  // The store's earliest date survives the round trip exactly.
  EXPECT_EQ(secondsSinceReferenceDate(fromSecondsSinceReferenceDate(-63114076800.0)),
            -63114076800.0);
  TimePoint later = t + std::chrono::milliseconds(815'443'886'900);
  EXPECT_EQ(iso8601(later), "2026-11-04T00:11:26Z");
  EXPECT_DOUBLE_EQ(secondsSinceReferenceDate(later), 815443886.9);
}

}  // namespace
