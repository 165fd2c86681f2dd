// TestEnvironment: a HelperEnvironment on a temporary tree with a fixed clock, and the messages
// its log received. Not thread-safe beyond what HelperEnvironment is.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "interfaces/helper_vlan.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/text.h"
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

struct TestEnvironment {
  static TimePoint now() { return fromSecondsSinceReferenceDate(800000000); }
  TempTree tree;
  HostPaths paths = [this] {
    HostPaths p;
    p.stateDirectory = tree.path("state");
    p.logFile = tree.path("helper.log");
    p.rotatedLogFile = tree.path("helper.log.1");
    p.pgrep = tree.path("bin/pgrep");
    p.ifconfig = tree.path("bin/ifconfig");
    return p;
  }();
  HelperLog log{paths.logFile, paths.rotatedLogFile, now};
  HelperEnvironment env{paths, now, log};

  std::string recordFile() const { return paths.state(HelperVLAN::kRecordFileName); }
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
