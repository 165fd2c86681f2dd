// The pfctl invocations the simulator answers: each argument vector the helper uses, run against
// the state folder, giving what pfctl would print and its exit status. Anything else is a usage
// error. Safe to call from several processes at once (the state folder is locked for each run).
#pragma once

#include <string>
#include <vector>

struct PfctlOutput {
  int status = 0;
  std::string out;  // standard output
  std::string err;  // standard error
};

// Runs one invocation (`arguments` without the program name) on the state in `stateDirectory`
// and logs it there. Never throws: state folder failures become "pfctl: ..." and status 1.
PfctlOutput runPfctl(const std::string& stateDirectory, const std::vector<std::string>& arguments);
