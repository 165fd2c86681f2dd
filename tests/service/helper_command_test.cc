#include "service/helper_command.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <thread>

#include "platform/files.h"
#include "platform/text.h"
#include "support/temp_tree.h"

namespace {

using HelperCommand::Result;
using HelperCommand::run;

// Exact results: arguments passed one to one without a shell, both streams and the status, start
// failures, invalid UTF-8, a signal (one the helper ignores or blocks gets its default action in
// the child), output beyond a pipe buffer, a wait that fails, and the combined output.
TEST(HelperCommandRun, ReportsStatusAndBothStreamsExactly) {
  TempTree tree;
  const std::string plain = tree.write("plain", "data", 0644), missing = tree.path("no-tool");
  struct Case {
    std::string path;
    std::vector<std::string> arguments;
    Result expected;
  };
  const Case cases[] = {
      {"/bin/echo", {"a b", "$HOME", "*", "'q'"}, {0, "a b $HOME * 'q'\n", ""}},
      {tree.script("tool", "echo 'pfctl: Syntax error' >&2\nexit 3\n"),
       {},
       {3, "", "pfctl: Syntax error\n"}},
      {missing, {}, {-1, "", "Could not run " + missing + ": No such file or directory"}},
      {plain, {}, {-1, "", "Could not run " + plain + ": Permission denied"}},
      {tree.script("bytes", "printf 'ok \\377\\376 done'\nprintf '\\303' >&2\n"),
       {},
       {0, "ok \uFFFD\uFFFD done", "\uFFFD"}},
      {tree.script("int", "kill -INT $$\nexit 0\n"), {}, {SIGINT, "", ""}},
      {tree.script("term", "kill -TERM $$\nexit 0\n"), {}, {SIGTERM, "", ""}},
      // 1 MiB to each stream, interleaved, far beyond the 64 KiB a pipe holds.
      {tree.script("loud",
                   "i=0\nwhile [ $i -lt 16 ]; do head -c 65536 /dev/zero | tr '\\0' o; "
                   "head -c 65536 /dev/zero | tr '\\0' e >&2; i=$((i+1)); done\n"),
       {},
       {0, std::string(1 << 20, 'o'), std::string(1 << 20, 'e')}},
  };
  struct sigaction ignore {
  }, savedInt{}, savedChild{};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGINT, &ignore, &savedInt);
  sigset_t term, savedMask;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &term, &savedMask);
  for (const Case& c : cases) {
    Result result = run(c.path, c.arguments);
    EXPECT_EQ(result.status, c.expected.status) << c.path;
    EXPECT_EQ(result.stdout, c.expected.stdout) << c.path;
    EXPECT_EQ(result.stderr, c.expected.stderr) << c.path;
  }
  ::pthread_sigmask(SIG_SETMASK, &savedMask, nullptr);
  // With SIGCHLD ignored the kernel reaps the child itself: the failed wait is no success.
  ::sigaction(SIGCHLD, &ignore, &savedChild);
  Result reaped = run("/bin/true", {});
  ::sigaction(SIGCHLD, &savedChild, nullptr);
  ::sigaction(SIGINT, &savedInt, nullptr);
  EXPECT_EQ(reaped.status, -1);
  EXPECT_EQ(reaped.stderr, "Could not wait for /bin/true: No child processes");
  EXPECT_EQ((Result{0, " word\n", ""}).combinedOutput(), "word");
  EXPECT_EQ((Result{1, "\n out \n", "\t err\n\n"}).combinedOutput(), "out\nerr");
  EXPECT_EQ((Result{1, " \n", " \n"}).combinedOutput(), "");
  EXPECT_EQ((Result{1, "", "a\n\nb\n"}).combinedOutput(), "a\n\nb");
}

// While other runs hold their pipes (each says it is ready on one FIFO, then waits for a line on
// another), a child inherits no descriptor of the helper or of them, and each run keeps its output.
TEST(HelperCommandRun, ConcurrentRunsKeepTheirOutputAndLeakNoDescriptor) {
  TempTree tree;
  std::vector<std::string> before;  // descriptors open in this process now
  DIR* dir = ::opendir("/proc/self/fd");
  for (dirent* entry; (entry = ::readdir(dir)) != nullptr;)
    if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != ::dirfd(dir))
      before.emplace_back(entry->d_name);
  ::closedir(dir);
  std::string ready = tree.path("ready"), gate = tree.path("gate");
  ASSERT_EQ(::mkfifo(ready.c_str(), 0600) | ::mkfifo(gate.c_str(), 0600), 0);
  int readyFd = ::open(ready.c_str(), O_RDWR | O_CLOEXEC);
  int gateFd = ::open(gate.c_str(), O_RDWR | O_CLOEXEC);
  std::vector<Result> others(4);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < others.size(); ++i) {
    threads.emplace_back([&, i] {
      others[i] = run("/bin/sh", {"-c", "printf x > \"$0\"; read l < \"$1\"; echo $2", ready, gate,
                                  std::to_string(i)});
    });
  }
  for (ssize_t got = 0, n = 0; got < ssize_t(others.size()); got += n) {
    char bytes[4];
    ASSERT_GT(n = ::read(readyFd, bytes, sizeof bytes), 0);
  }
  // The shell lists its own descriptors: what it inherited from the helper.
  Result result = run("/bin/sh", {"-c", "ls /proc/$$/fd"});
  ASSERT_TRUE(writeAll(gateFd, std::string(others.size(), '\n')));
  for (auto& thread : threads) thread.join();
  ::close(readyFd);
  ::close(gateFd);
  ASSERT_EQ(result.status, 0);
  for (std::string_view fd : split(result.stdout, '\n', false)) {
    // Anything but the three streams was inherited by the test process itself, not close-on-exec.
    EXPECT_TRUE(fd == "0" || fd == "1" || fd == "2" ||
                std::find(before.begin(), before.end(), fd) != before.end())
        << "leaked descriptor " << fd;
  }
  for (std::size_t i = 0; i < others.size(); ++i)
    EXPECT_EQ(others[i].stdout, std::to_string(i) + "\n");
}

}  // namespace
