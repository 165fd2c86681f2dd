#include "service/helper_command.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "platform/text.h"

namespace HelperCommand {

namespace {

// Reads until end of file.
std::string drain(int fd) {
  std::string data;
  char buffer[16384];
  while (true) {
    ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (got == 0) break;
    data.append(buffer, static_cast<size_t>(got));
  }
  return data;
}

void closeBoth(int (&fds)[2]) {
  for (int& fd : fds) {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
}

Result startFailure(const std::string& path, int error) {
  Result result;
  result.status = -1;
  result.stderr = "Could not run " + path + ": " + std::strerror(error);
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

Result run(const std::string& path, const std::vector<std::string>& arguments) {
  int out[2] = {-1, -1};
  int err[2] = {-1, -1};
  if (::pipe2(out, O_CLOEXEC) != 0) return startFailure(path, errno);
  if (::pipe2(err, O_CLOEXEC) != 0) {
    int error = errno;
    closeBoth(out);
    return startFailure(path, error);
  }

  std::vector<char*> argv;
  argv.reserve(arguments.size() + 2);
  argv.push_back(const_cast<char*>(path.c_str()));
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
  // The helper ignores SIGPIPE; the tools it runs expect the default.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);

  pid_t pid = -1;
  int spawned = ::posix_spawn(&pid, path.c_str(), &actions, &attributes, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  // The helper's copies of the writing ends must go now, or the reads never reach end of file.
  ::close(out[1]);
  ::close(err[1]);
  out[1] = err[1] = -1;
  if (spawned != 0) {
    closeBoth(out);
    closeBoth(err);
    return startFailure(path, spawned);
  }

  std::string errorBytes;
  std::thread errorReader([&errorBytes, fd = err[0]] { errorBytes = drain(fd); });
  std::string outputBytes = drain(out[0]);
  errorReader.join();
  closeBoth(out);
  closeBoth(err);

  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
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

}  // namespace HelperCommand
