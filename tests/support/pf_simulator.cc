#include "support/pf_simulator.h"

#include <unistd.h>

#include <cerrno>
#include <nlohmann/json.hpp>
#include <utility>

#include "platform/files.h"
#include "platform/text.h"
// The simulator's own state folder code: its layout and its lock.
#include "tarnly-pfsim/pf_state.h"

// The simulator's state folder layout is described in tools/tarnly-pfsim/pf_state.h; this file
// reads and changes it the same way, under the same lock.

namespace {

// Single quotes for the shell.
std::string shellQuoted(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

// Invocation records are lines of the log; the count already seen is kept in the caller.
std::vector<std::string> logLines(const std::string& directory) {
  auto text = readFile(directory + "/invocations.jsonl");
  if (!text) return {};
  auto lines = split(*text, '\n', false);
  return {lines.begin(), lines.end()};
}

}  // namespace

PfSimulator::PfSimulator(std::string simulatorBinary, std::string pfctlPath,
                         std::string stateDirectory)
    : simulatorBinary_(std::move(simulatorBinary)),
      pfctlPath_(std::move(pfctlPath)),
      stateDirectory_(std::move(stateDirectory)) {
  createDirectories(parentPath(pfctlPath_));
  writeFileAtomically(pfctlPath_,
                      "#!/bin/sh\nPFSIM_STATE=" + shellQuoted(stateDirectory_) + " exec " +
                          shellQuoted(simulatorBinary_) + " \"$@\"\n",
                      0755);
  clearInvocations();
}

const std::string& PfSimulator::pfctlPath() const {
  return pfctlPath_;
}

std::vector<std::vector<std::string>> PfSimulator::invocations() const {
  std::vector<std::string> lines;
  {
    PfState lock(stateDirectory_);
    lines = logLines(stateDirectory_);
  }
  std::vector<std::vector<std::string>> result;
  for (size_t i = invocationsSeen_; i < lines.size(); ++i) {
    result.push_back(nlohmann::json::parse(lines[i]).get<std::vector<std::string>>());
  }
  return result;
}

void PfSimulator::clearInvocations() {
  PfState lock(stateDirectory_);
  invocationsSeen_ = logLines(stateDirectory_).size();
}

bool PfSimulator::enabled() const {
  PfState lock(stateDirectory_);
  auto flag = readFile(stateDirectory_ + "/enabled");
  return flag && trimWhitespaceAndNewlines(*flag) == "1";
}

void PfSimulator::setEnabled(bool enabled) {
  PfState lock(stateDirectory_);
  writeFileAtomically(stateDirectory_ + "/enabled", enabled ? "1\n" : "0\n", 0644);
}

void PfSimulator::failNextLoads(int count) {
  PfState lock(stateDirectory_);
  std::string path = stateDirectory_ + "/busy";
  if (count <= 0) {
    removeFile(path);
  } else {
    writeFileAtomically(path, std::to_string(count) + "\n", 0644);
  }
}

std::string PfSimulator::loadedRuleset(const std::string& anchor) const {
  PfState lock(stateDirectory_);
  auto text = readFile(stateDirectory_ + "/anchors/" + pfAnchorFileName(anchor));
  return text ? *text : std::string();
}

void PfSimulator::addState(const std::string& from, const std::string& to) {
  PfState lock(stateDirectory_);
  std::string path = stateDirectory_ + "/states";
  auto text = readFile(path);
  writeFileAtomically(path, (text ? *text : std::string()) + from + " " + to + "\n", 0644);
}

std::vector<std::string> PfSimulator::states() const {
  PfState lock(stateDirectory_);
  auto text = readFile(stateDirectory_ + "/states");
  if (!text) return {};
  auto lines = split(*text, '\n', false);
  return {lines.begin(), lines.end()};
}

void PfSimulator::setMainRuleset(const std::string& text) {
  PfState lock(stateDirectory_);
  writeFileAtomically(stateDirectory_ + "/main.conf", text, 0644);
}
