// PfSimulator: installs the pf simulator as the program the helper runs as pfctl, with its state
// in a folder of the test's tree, and reads and changes that state under the simulator's own lock
// (tools/tarnly-pfsim/pf_state.h). Not thread-safe itself; the simulator's runs lock the state.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/files.h"
#include "platform/text.h"
#include "tarnly-pfsim/pf_state.h"

class PfSimulator {
 public:
  // Installs at `pfctlPath` a wrapper running the simulator on `stateDirectory` (paths without ').
  PfSimulator(const std::string& simulatorBinary, std::string pfctlPath, std::string stateDirectory)
      : pfctl_(std::move(pfctlPath)), state_(std::move(stateDirectory)) {
    createDirectories(parentPath(pfctl_));
    writeFileAtomically(
        pfctl_, "#!/bin/sh\nPFSIM_STATE='" + state_ + "' exec '" + simulatorBinary + "' \"$@\"\n",
        0755);
    clearInvocations();
  }
  const std::string& pfctlPath() const { return pfctl_; }
  // Arguments of every run since construction or the last clearInvocations, in order.
  std::vector<std::vector<std::string>> invocations() const {
    const std::string text = log();
    std::vector<std::vector<std::string>> runs;
    for (std::string_view line : split(text, '\n', false))
      runs.push_back(nlohmann::json::parse(line));
    return {runs.begin() + static_cast<std::ptrdiff_t>(seen_), runs.end()};
  }
  void clearInvocations() { seen_ = split(log(), '\n', false).size(); }
  bool enabled() const { return PfState(state_).enabled(); }
  void setEnabled(bool enabled) { PfState(state_).setEnabled(enabled); }
  // The next `count` loads (-f) answer "Resource busy".
  void failNextLoads(int count) { PfState(state_).setBusyLoads(count); }
  // The text of the anchor's last successful load; empty when never loaded or flushed.
  std::string loadedRuleset(const std::string& anchor) const {
    return PfState(state_).anchorRuleset(anchor).value_or("");
  }
  // Adds a connection state between two addresses; states() lists the remaining ones as "from to".
  void addState(const std::string& from, const std::string& to) {
    PfState state(state_);
    std::vector<PfConnection> connections = state.connections();
    state.setConnections((connections.emplace_back(from, to), connections));
  }
  std::vector<std::string> states() const {
    std::vector<std::string> lines;
    for (const auto& c : PfState(state_).connections()) lines.push_back(c.first + ' ' + c.second);
    return lines;
  }
  // Replaces the main ruleset text (what "-sr" prints).
  void setMainRuleset(const std::string& text) {
    const PfState lock(state_);
    writeFileAtomically(state_ + "/main.conf", text, 0644);
  }

 private:
  std::string log() const {
    const PfState lock(state_);
    return readFile(state_ + "/invocations.jsonl").value_or("");
  }

  std::string pfctl_;
  std::string state_;     // the simulator's state folder
  std::size_t seen_ = 0;  // invocation records before construction or the last clear
};
