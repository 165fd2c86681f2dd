#include "service/helper_command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>

#include "platform/text.h"

namespace HelperCommand {

namespace {

// Closes the descriptors it holds when it leaves scope.
struct Pipes {
  int out[2] = {-1, -1};
  int err[2] = {-1, -1};
  Pipes() = default;
  Pipes(const Pipes&) = delete;
  Pipes& operator=(const Pipes&) = delete;
  ~Pipes() {
    for (int* fd : {&out[0], &out[1], &err[0], &err[1]}) close(*fd);
  }
  static void close(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
};

// Reads both pipes until both reach end of file, whichever has data first, so a child that fills
// one pipe while the other is quiet cannot stall. Throws std::bad_alloc when the output does not
// fit in memory.
void drainBoth(Pipes& pipes, std::string& output, std::string& errors) {
  char buffer[16384];
  while (pipes.out[0] >= 0 || pipes.err[0] >= 0) {
    pollfd fds[2] = {{pipes.out[0], POLLIN, 0}, {pipes.err[0], POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      int& fd = i == 0 ? pipes.out[0] : pipes.err[0];
      ssize_t got = ::read(fd, buffer, sizeof buffer);
      if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (got <= 0) {
        Pipes::close(fd);
        continue;
      }
      (i == 0 ? output : errors).append(buffer, static_cast<size_t>(got));
    }
  }
}

// Waits for the child; its termination status, or nothing (errno set) when the wait failed.
bool reap(pid_t pid, int& status) {
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return false;
  }
  return true;
}

Result failure(const std::string& what, const std::string& path, const std::string& reason) {
  Result result;
  result.status = -1;
  result.stderr = "Could not " + what + " " + path + ": " + reason;
  return result;
}

Result runChecked(const std::string& path, const std::vector<std::string>& arguments) {
  Pipes pipes;
  if (::pipe2(pipes.out, O_CLOEXEC) != 0 || ::pipe2(pipes.err, O_CLOEXEC) != 0) {
    return failure("run", path, std::strerror(errno));
  }

  std::vector<char*> argv;
  argv.reserve(arguments.size() + 2);
  argv.push_back(const_cast<char*>(path.c_str()));
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipes.out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, pipes.err[1], STDERR_FILENO);
  // The tools expect a fresh process: every signal at its default action and none blocked,
  // whatever the helper ignores (SIGPIPE) or the calling thread blocks.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t all;
  sigset_t none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

  pid_t pid = -1;
  int spawned = ::posix_spawn(&pid, path.c_str(), &actions, &attributes, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  // The helper's copies of the writing ends must go now, or the reads never reach end of file.
  Pipes::close(pipes.out[1]);
  Pipes::close(pipes.err[1]);
  if (spawned != 0) return failure("run", path, std::strerror(spawned));

  std::string outputBytes;
  std::string errorBytes;
  std::string trouble;
  try {
    drainBoth(pipes, outputBytes, errorBytes);
  } catch (const std::exception& error) {
    trouble = error.what();
  }
  // Closing the reading ends first lets a child that is still writing end on a broken pipe.
  Pipes::close(pipes.out[0]);
  Pipes::close(pipes.err[0]);
  int status = 0;
  if (!reap(pid, status)) return failure("wait for", path, std::strerror(errno));
  if (!trouble.empty()) return failure("read the output of", path, trouble);

  Result result;
  if (WIFEXITED(status)) {
    result.status = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.status = WTERMSIG(status);
  } else {
    result.status = status;
  }
  result.stdout = decodeUTF8Lossy(outputBytes);
  result.stderr = decodeUTF8Lossy(errorBytes);
  return result;
}

}  // namespace

std::string Result::combinedOutput() const {
  std::string out;
  for (std::string_view part :
       {trimWhitespaceAndNewlines(stdout), trimWhitespaceAndNewlines(stderr)}) {
    if (part.empty()) continue;
    if (!out.empty()) out += '\n';
    out += part;
  }
  return out;
}

Result run(const std::string& path, const std::vector<std::string>& arguments) noexcept {
  try {
    return runChecked(path, arguments);
  } catch (const std::exception& error) {
    // Only memory can run out before the child starts or after it was reaped.
    Result result;
    try {
      result.stderr = error.what();
    } catch (const std::exception&) {
      // The status alone says it failed.
    }
    return result;
  }
}

}  // namespace HelperCommand
