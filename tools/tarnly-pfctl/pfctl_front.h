// The pfctl invocations tarnly-pfctl answers, carried out on the kernel's nftables and connection
// tracking: each argument vector the helper uses, giving what pfctl would print and its exit
// status. Anything else is a usage error. One invocation at a time per process.
#pragma once

#include <string>
#include <vector>

struct PfctlAnswer {
  int status = 0;
  std::string out;  // standard output
  std::string err;  // standard error
};

// Runs one invocation (`arguments` without the program name). Never throws: kernel failures
// become one "pfctl: ..." line and status 1.
PfctlAnswer answerPfctl(const std::vector<std::string>& arguments);
