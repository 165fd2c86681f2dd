// HelperCommand: runs a system tool directly (no shell) and hands back its exit status and both
// output streams as text. Never fails and never logs; callers decide what a status means.
// Safe to call from any number of threads at once.
#pragma once

#include <string>
#include <vector>

namespace HelperCommand {

struct Result {
  // Termination status: the exit code, or the signal number for a child ended by a signal;
  // -1 when the program could not be started, its end could not be awaited or its output could
  // not be kept; never 0 unless the child exited with 0.
  int status = -1;
  std::string stdout;  // UTF-8, invalid sequences replaced
  std::string stderr;  // likewise; the failure's description when status is -1

  // Standard output, then standard error, each trimmed of white space and line breaks, empty ones
  // left out, joined by one line feed.
  std::string combinedOutput() const;
};

// Runs `path` with `arguments` as its argument vector after argv[0] = path. The child inherits
// the environment, working folder and standard input, and starts with every signal at its
// default action and none blocked. Both pipes are drained at the same time; there is no time
// limit. Never throws: any failure is a status of -1 with its description, the child reaped and
// every pipe closed.
Result run(const std::string& path, const std::vector<std::string>& arguments) noexcept;

}  // namespace HelperCommand
