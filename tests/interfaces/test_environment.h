// TestEnvironment: a HelperEnvironment on a temporary tree with a fixed clock, and the messages
// its log received.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "interfaces/helper_vlan.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/host_paths.h"
#include "platform/text.h"
#include "service/helper_environment.h"
#include "service/helper_log.h"
#include "support/temp_tree.h"

// The message of the VLANError the call throws, or "<no error>".
inline std::string errorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const HelperVLAN::VLANError& error) {
    return error.what();
  }
  return "<no error>";
}

inline TimePoint fixedTestTime() {
  return fromSecondsSinceReferenceDate(800000000);
}

struct TestEnvironment {
  TempTree tree;
  HostPaths paths = [this] {
    HostPaths p;
    p.stateDirectory = tree.path("Library/Application Support/Tarnly");
    p.logFile = tree.path("helper.log");
    p.rotatedLogFile = tree.path("helper.log.1");
    p.pgrep = tree.path("bin/pgrep");
    p.ifconfig = tree.path("bin/ifconfig");
    return p;
  }();
  HelperLog log{paths.logFile, paths.rotatedLogFile, fixedTestTime};
  HelperEnvironment env{paths, fixedTestTime, log};

  std::string recordFile() const { return paths.state("vlans.json"); }

  // The logged messages, time stamps left out.
  std::vector<std::string> logged() const {
    std::vector<std::string> messages;
    const std::string text = readFile(paths.logFile).value_or("");
    for (std::string_view line : split(text, '\n', false)) {
      messages.emplace_back(line.substr(line.find(' ') + 1));  // npos + 1 is 0: the whole line
    }
    return messages;
  }
};
