#include "platform/files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>

#include "support/temp_tree.h"

namespace {

TEST(Files, WritesAtomicallyWithTheirModeReadsUpToTheLimitAndFailNamingTheFinalPath) {
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
  // Reads stop at the limit (links, FIFOs and huge files: see the resolver files).
  EXPECT_EQ(std::tuple(readFile(file, 3), readFile(file, 2)), std::tuple("new", std::nullopt));
  const std::pair<std::function<void()>, std::string> failures[] = {
      {[&] { writeFileAtomically(tree.path("no/file"), "", 0600); },
       "Could not write " + tree.path("no/file") + ": No such file or directory."},
      {[&] { writeFileAtomically(folder, "", 0600); },
       "Could not write " + folder + ": Is a directory."},
      {[&] { createDirectories(file + "/sub"); },
       "Could not create the folder " + file + ": Not a directory."}};
  for (const auto& [operation, text] : failures) {
    try {
      operation();
      ADD_FAILURE() << "no FileError: " << text;
    } catch (const FileError& error) {
      EXPECT_EQ(error.what(), text);
    }
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(tree.path("a")), {}), 2)
      << "no temporary file";
}

TEST(Files, OnlyLeftoversOfACrashAreRemovedNotAWriteInProgress) {
  TempTree tree;
  const std::string leftover = tree.write(".record.json.tmp-00000000abcd", "half"),
                    older = tree.write("record.json.tmp-0123456789ab", "half"),
                    otherTarget = tree.write(".other.json.tmp-00000000abcd", "half"),
                    notOurs = tree.write("record.json.tmp-notes", "mine"),
                    busy = tree.write(".record.json.tmp-0000000000ff", "busy");
  // A write in progress holds a lock on its temporary file.
  int held = ::open(busy.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(held, LOCK_EX), 0);
  writeFileAtomically(tree.path("record.json"), "new", 0600);
  EXPECT_EQ(std::tuple(pathExists(leftover), pathExists(older), pathExists(otherTarget),
                       pathExists(notOurs), pathExists(busy)),
            std::tuple(false, false, true, true, true));
  ::close(held);
  removeLeftoverTemporaryFiles(tree.root());
  EXPECT_EQ(std::tuple(pathExists(otherTarget), pathExists(notOurs), pathExists(busy)),
            std::tuple(false, true, false));
}

}  // namespace
