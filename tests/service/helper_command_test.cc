#include "service/helper_command.h"

#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/stat.h>

#include <csignal>
#include <thread>
#include <tuple>

#include "platform/files.h"
#include "platform/text.h"
#include "support/temp_tree.h"

namespace {

using HelperCommand::Result;
using HelperCommand::run;

// Exact results: arguments passed one to one without a shell, both streams and the status, start
// failures, invalid UTF-8, signals (ones the helper ignores or blocks act by default in the child),
// output beyond a pipe buffer, a wait that fails, and the combined output.
TEST(HelperCommandRun, ReportsStatusAndBothStreamsExactly) {
  TempTree tree;
  const std::string plain = tree.write("plain", "data", 0644), missing = tree.path("no-tool");
  const std::tuple<std::string, std::vector<std::string>, Result> cases[] = {
      {"/bin/echo", {"a b", "$HOME", "*", "'q'"}, {0, "a b $HOME * 'q'\n", ""}},
      {"/bin/sh", {"-c", "echo out; echo err >&2; exit 3"}, {3, "out\n", "err\n"}},
      {missing, {}, {-1, "", "Could not run " + missing + ": No such file or directory"}},
      {plain, {}, {-1, "", "Could not run " + plain + ": Permission denied"}},
      {"/bin/sh",
       {"-c", "printf 'ok \\377\\376 done'; printf '\\303' >&2"},
       {0, "ok \uFFFD\uFFFD done", "\uFFFD"}},
      {"/bin/sh", {"-c", "kill -INT $$; exit 0"}, {SIGINT, "", ""}},
      {"/bin/sh", {"-c", "kill -TERM $$; exit 0"}, {SIGTERM, "", ""}},
      // 1 MiB to each stream, interleaved, far beyond the 64 KiB a pipe holds.
      {"/bin/sh",
       {"-c",
        "for i in $(seq 16); do head -c 65536 /dev/zero | tr '\\0' o; "
        "head -c 65536 /dev/zero | tr '\\0' e >&2; done"},
       {0, std::string(1 << 20, 'o'), std::string(1 << 20, 'e')}},
  };
  auto fields = [](const Result& r) { return std::tuple(r.status, r.stdout, r.stderr); };
  auto savedInt = std::signal(SIGINT, SIG_IGN);
  sigset_t term, savedMask;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &term, &savedMask);
  for (const auto& [path, arguments, expected] : cases)
    EXPECT_EQ(fields(run(path, arguments)), fields(expected)) << testing::PrintToString(arguments);
  ::pthread_sigmask(SIG_SETMASK, &savedMask, nullptr);
  std::signal(SIGINT, savedInt);
  // With SIGCHLD ignored the kernel reaps the child itself: the failed wait is no success.
  auto savedChild = std::signal(SIGCHLD, SIG_IGN);
  EXPECT_EQ(fields(run("/bin/true", {})),
            fields({-1, "", "Could not wait for /bin/true: No child processes"}));
  std::signal(SIGCHLD, savedChild);
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
  // The shell lists the descriptors it inherited.
  Result result = run("/bin/sh", {"-c", "ls /proc/$$/fd"});
  ASSERT_TRUE(writeAll(gateFd, std::string(others.size(), '\n')));
  for (auto& thread : threads) thread.join();
  ::close(readyFd);
  ::close(gateFd);
  ASSERT_EQ(result.status, 0);
  // All of them the test process had already (inherited itself, not close-on-exec).
  EXPECT_THAT(split(result.stdout, '\n', false), testing::IsSubsetOf(before));
  for (std::size_t i = 0; i < others.size(); ++i)
    EXPECT_EQ(others[i].stdout, std::to_string(i) + "\n");
}

}  // namespace
