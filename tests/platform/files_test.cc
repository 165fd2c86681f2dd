#include "platform/files.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

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

TEST(AtomicWrite, FailureThrowsNamingThePathAndKeepsTheOldFile) {
  TempTree tree;
  std::string missing = tree.path("no-such-folder/file");
  try {
    writeFileAtomically(missing, "x", 0600);
    FAIL() << "expected a FileError";
  } catch (const FileError& error) {
    EXPECT_NE(std::string(error.what()).find(tree.path("no-such-folder/")), std::string::npos);
    EXPECT_EQ(error.error(), ENOENT);
  }
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
