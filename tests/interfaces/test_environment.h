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
  HostPaths paths{.stateDirectory = tree.path("state"),
                  .logFile = tree.path("helper.log"),
                  .rotatedLogFile = tree.path("helper.log.1"),
                  .ifconfig = tree.path("bin/ifconfig"),
                  .pgrep = tree.path("bin/pgrep"),
                  .executable = {}};
  HelperLog log{paths.logFile, paths.rotatedLogFile, now};
  HelperEnvironment env{paths, now, log};

  std::string recordFile() const { return paths.state(HelperVLAN::kRecordFileName); }
  std::vector<std::string> logged() const {  // time stamps left out
    std::vector<std::string> messages;
    const std::string text = readFile(paths.logFile).value_or("");
    for (std::string_view line : split(text, '\n', false)) {
      messages.emplace_back(line.substr(line.find(' ') + 1));
    }
    return messages;
  }
};
