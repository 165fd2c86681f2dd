#include "service/helper_command.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "platform/text.h"
#include "support/temp_tree.h"

namespace {

using HelperCommand::Result;
using HelperCommand::run;

TEST(HelperCommandRun, PassesArgumentsOneToOneWithoutAShell) {
  Result result = run("/bin/echo", {"a b", "$HOME", "*", "'q'"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.stdout, "a b $HOME * 'q'\n");
  EXPECT_EQ(result.stderr, "");
}

TEST(HelperCommandRun, ReportsExitStatusAndErrorStream) {
  TempTree tree;
  std::string tool = tree.script("tool", "echo 'pfctl: Syntax error' >&2\nexit 3\n");
  Result result = run(tool, {});
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.stdout, "");
  EXPECT_EQ(result.stderr, "pfctl: Syntax error\n");
  EXPECT_EQ(result.combinedOutput(), "pfctl: Syntax error");
}

TEST(HelperCommandRun, MissingOrNonExecutableProgramGivesMinusOneAndTheReason) {
  TempTree tree;
  Result missing = run(tree.path("no-such-tool"), {});
  EXPECT_EQ(missing.status, -1);
  EXPECT_EQ(missing.stdout, "");
  EXPECT_EQ(missing.stderr,
            "Could not run " + tree.path("no-such-tool") + ": No such file or directory");

  std::string plain = tree.write("plain", "data", 0644);
  Result notExecutable = run(plain, {});
  EXPECT_EQ(notExecutable.status, -1);
  EXPECT_EQ(notExecutable.stderr, "Could not run " + plain + ": Permission denied");
}

TEST(HelperCommandRun, DrainsBothStreamsBeyondAPipeBuffer) {
  TempTree tree;
  // 1 MiB to each stream, interleaved, far beyond the 64 KiB a pipe holds.
  std::string tool =
      tree.script("loud",
                  "i=0\nwhile [ $i -lt 16 ]; do head -c 65536 /dev/zero | tr '\\0' o; "
                  "head -c 65536 /dev/zero | tr '\\0' e >&2; i=$((i+1)); done\n");
  Result result = run(tool, {});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.stdout, std::string(1 << 20, 'o'));
  EXPECT_EQ(result.stderr, std::string(1 << 20, 'e'));
}

TEST(HelperCommandRun, InvalidUTF8BecomesReplacementCharacters) {
  TempTree tree;
  std::string tool = tree.script("bytes", "printf 'ok \\377\\376 done'\nprintf '\\303' >&2\n");
  Result result = run(tool, {});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.stdout, "ok \uFFFD\uFFFD done");
  EXPECT_EQ(result.stderr, "\uFFFD");
}

TEST(HelperCommandRun, ChildSeesNoDescriptorOfTheHelperBeyondItsStreams) {
  TempTree tree;
  int opened = ::open(tree.write("secret", "x").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(opened, 0);
  // A number no child would get for itself.
  int leaked = ::fcntl(opened, F_DUPFD_CLOEXEC, 200);
  ::close(opened);
  ASSERT_GE(leaked, 200);
  // Several runs at once: no run's pipes may reach another run's child either.
  std::vector<std::thread> others;
  for (int i = 0; i < 4; ++i) others.emplace_back([] { run("/bin/sleep", {"0.2"}); });
  Result result = run("/bin/ls", {"/proc/self/fd"});
  for (auto& other : others) other.join();
  ::close(leaked);
  auto listed = split(result.stdout, '\n', false);
  EXPECT_EQ(std::count(listed.begin(), listed.end(), std::to_string(leaked)), 0) << result.stdout;
  // The other runs' pipes would show as descriptors the tests did not inherit.
  for (std::string_view fd : listed) {
    int number = std::stoi(std::string(fd));
    EXPECT_TRUE(number <= 3 || ::fcntl(number, F_GETFD) >= 0) << "unexpected descriptor " << fd;
  }
}

TEST(HelperCommandRun, SignalledChildReportsTheSignal) {
  TempTree tree;
  std::string tool = tree.script("killed", "kill -TERM $$\n");
  EXPECT_EQ(run(tool, {}).status, 15);
}

TEST(HelperCommandRun, ConcurrentRunsKeepTheirOwnOutput) {
  std::vector<std::thread> threads;
  std::vector<Result> results(8);
  for (size_t i = 0; i < results.size(); ++i) {
    threads.emplace_back([&results, i] { results[i] = run("/bin/echo", {std::to_string(i)}); });
  }
  for (auto& thread : threads) thread.join();
  for (size_t i = 0; i < results.size(); ++i) {
    EXPECT_EQ(results[i].stdout, std::to_string(i) + "\n");
  }
}

TEST(CombinedOutput, TrimsEachStreamAndLeavesOutEmptyOnes) {
  EXPECT_EQ((Result{0, " word\n", ""}).combinedOutput(), "word");
  EXPECT_EQ((Result{1, "\n out \n", "\t err\n\n"}).combinedOutput(), "out\nerr");
  EXPECT_EQ((Result{1, " \n", " \n"}).combinedOutput(), "");
  EXPECT_EQ((Result{1, "", "a\n\nb\n"}).combinedOutput(), "a\n\nb");
}

}  // namespace
