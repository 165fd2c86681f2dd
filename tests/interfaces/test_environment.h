// TestEnvironment: a HelperEnvironment on a temporary tree with a fixed clock, and the messages
// its log received.
#pragma once

#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/files.h"
#include "platform/host_paths.h"
#include "platform/text.h"
#include "service/helper_environment.h"
#include "service/helper_log.h"
#include "support/temp_tree.h"

inline TimePoint fixedTestTime() {
  return fromSecondsSinceReferenceDate(800000000);
}

inline HostPaths testPaths(const TempTree& tree) {
  HostPaths paths;
  paths.stateDirectory = tree.path("Library/Application Support/Tarnly");
  paths.logFile = tree.path("helper.log");
  paths.rotatedLogFile = tree.path("helper.log.1");
  paths.pgrep = tree.path("bin/pgrep");
  paths.ifconfig = tree.path("bin/ifconfig");
  return paths;
}

struct TestEnvironment {
  TempTree tree;
  HostPaths paths = testPaths(tree);
  HelperLog log{paths.logFile, paths.rotatedLogFile, fixedTestTime};
  HelperEnvironment env{paths, fixedTestTime, log};

  std::string recordFile() const { return paths.state("vlans.json"); }

  // The logged messages, time stamps left out.
  std::vector<std::string> logged() const {
    std::vector<std::string> messages;
    std::optional<std::string> text = readFile(paths.logFile);
    if (!text) return messages;
    for (std::string_view line : split(*text, '\n', false)) {
      std::string_view::size_type blank = line.find(' ');
      messages.emplace_back(blank == std::string_view::npos ? line : line.substr(blank + 1));
    }
    return messages;
  }
};
