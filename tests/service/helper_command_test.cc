#include "service/helper_command.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "platform/files.h"
#include "platform/text.h"
#include "support/temp_tree.h"

namespace {

using HelperCommand::Result;
using HelperCommand::run;

// Exact results of single runs: arguments passed one to one without a shell, both streams and
// the status, start failures, invalid UTF-8, a signal, and output beyond a pipe buffer.
TEST(HelperCommandRun, ReportsStatusAndBothStreamsExactly) {
  TempTree tree;
  const std::string plain = tree.write("plain", "data", 0644);
  const std::string missing = tree.path("no-such-tool");
  struct Case {
    std::string path;
    std::vector<std::string> arguments;
    Result expected;
  };
  const std::vector<Case> cases = {
      {"/bin/echo", {"a b", "$HOME", "*", "'q'"}, {0, "a b $HOME * 'q'\n", ""}},
      {tree.script("tool", "echo 'pfctl: Syntax error' >&2\nexit 3\n"),
       {},
       {3, "", "pfctl: Syntax error\n"}},
      {missing, {}, {-1, "", "Could not run " + missing + ": No such file or directory"}},
      {plain, {}, {-1, "", "Could not run " + plain + ": Permission denied"}},
      {tree.script("bytes", "printf 'ok \\377\\376 done'\nprintf '\\303' >&2\n"),
       {},
       {0, "ok \uFFFD\uFFFD done", "\uFFFD"}},
      {tree.script("killed", "kill -TERM $$\n"), {}, {15, "", ""}},
      // 1 MiB to each stream, interleaved, far beyond the 64 KiB a pipe holds.
      {tree.script("loud",
                   "i=0\nwhile [ $i -lt 16 ]; do head -c 65536 /dev/zero | tr '\\0' o; "
                   "head -c 65536 /dev/zero | tr '\\0' e >&2; i=$((i+1)); done\n"),
       {},
       {0, std::string(1 << 20, 'o'), std::string(1 << 20, 'e')}},
  };
  for (const Case& c : cases) {
    Result result = run(c.path, c.arguments);
    EXPECT_EQ(result.status, c.expected.status) << c.path;
    EXPECT_EQ(result.stdout, c.expected.stdout) << c.path;
    EXPECT_EQ(result.stderr, c.expected.stderr) << c.path;
  }
}

// Descriptors open in this process right now.
std::vector<std::string> openDescriptors() {
  std::vector<std::string> fds;
  if (DIR* dir = ::opendir("/proc/self/fd")) {
    int own = ::dirfd(dir);
    while (dirent* entry = ::readdir(dir)) {
      std::string name = entry->d_name;
      if (name != "." && name != ".." && name != std::to_string(own)) fds.push_back(name);
    }
    ::closedir(dir);
  }
  return fds;
}

TEST(HelperCommandRun, ChildInheritsNoDescriptorOfTheHelperOrOfOtherRuns) {
  TempTree tree;
  int opened = ::open(tree.write("secret", "x").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(opened, 0);
  std::vector<std::string> before = openDescriptors();
  // Other runs hold their pipes while this run starts: each says it is ready on one FIFO and
  // then waits for a line on another.
  std::string ready = tree.path("ready");
  std::string gate = tree.path("gate");
  ASSERT_EQ(::mkfifo(ready.c_str(), 0600), 0);
  ASSERT_EQ(::mkfifo(gate.c_str(), 0600), 0);
  int readyFd = ::open(ready.c_str(), O_RDWR | O_CLOEXEC);
  int gateFd = ::open(gate.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(readyFd, 0);
  ASSERT_GE(gateFd, 0);
  constexpr int kOthers = 4;
  std::vector<std::thread> others;
  for (int i = 0; i < kOthers; ++i) {
    others.emplace_back([&] {
      run("/bin/sh", {"-c", "printf x > \"$0\"; read line < \"$1\"", ready, gate});
    });
  }
  for (int got = 0; got < kOthers;) {
    char bytes[kOthers];
    ssize_t n = ::read(readyFd, bytes, sizeof bytes);
    ASSERT_GT(n, 0);
    got += static_cast<int>(n);
  }
  // The shell lists its own descriptors: what it inherited from the helper.
  Result result = run("/bin/sh", {"-c", "ls /proc/$$/fd"});
  ASSERT_TRUE(writeAll(gateFd, std::string(kOthers, '\n')));
  for (auto& other : others) other.join();
  for (int fd : {opened, readyFd, gateFd}) ::close(fd);

  ASSERT_EQ(result.status, 0);
  for (std::string_view fd : split(result.stdout, '\n', false)) {
    if (fd == "0" || fd == "1" || fd == "2") continue;
    EXPECT_NE(fd, std::to_string(opened));
    // Anything else was inherited by the test process itself and is not close-on-exec there.
    EXPECT_NE(std::find(before.begin(), before.end(), fd), before.end())
        << "leaked descriptor " << fd;
  }
}

// Restores a signal's disposition when it leaves scope.
class SignalDisposition {
 public:
  SignalDisposition(int signal, void (*handler)(int)) : signal_(signal) {
    struct sigaction action {};
    action.sa_handler = handler;
    ::sigaction(signal, &action, &saved_);
  }
  ~SignalDisposition() { ::sigaction(signal_, &saved_, nullptr); }
  SignalDisposition(const SignalDisposition&) = delete;
  SignalDisposition& operator=(const SignalDisposition&) = delete;

 private:
  int signal_;
  struct sigaction saved_ {};
};

TEST(HelperCommandRun, ChildStartsWithDefaultSignalsAndAFailedWaitNeverReadsAsSuccess) {
  TempTree tree;
  {
    // What the helper ignores or blocks is not the child's business.
    SignalDisposition ignored(SIGINT, SIG_IGN);
    sigset_t blocked;
    sigset_t saved;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &saved);
    int interrupted = run(tree.script("int", "kill -INT $$\nexit 0\n"), {}).status;
    int terminated = run(tree.script("term", "kill -TERM $$\nexit 0\n"), {}).status;
    ::pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    EXPECT_EQ(interrupted, SIGINT);
    EXPECT_EQ(terminated, SIGTERM);
  }
  // With SIGCHLD ignored the kernel reaps the child itself and the wait fails.
  SignalDisposition reapedByTheKernel(SIGCHLD, SIG_IGN);
  Result result = run("/bin/true", {});
  EXPECT_EQ(result.status, -1);
  EXPECT_EQ(result.stderr, "Could not wait for /bin/true: No child processes");
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
