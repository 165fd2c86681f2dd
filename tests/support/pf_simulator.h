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
  // Writes an executable wrapper at `pfctlPath` that runs the simulator `simulatorBinary` with
  // PFSIM_STATE=`stateDirectory`. Throws FileError.
  PfSimulator(std::string simulatorBinary, std::string pfctlPath, std::string stateDirectory)
      : pfctl_(std::move(pfctlPath)), state_(std::move(stateDirectory)) {
    createDirectories(parentPath(pfctl_));
    const auto quoted = [](std::string text) {
      for (auto at = text.find('\''); at != text.npos; at = text.find('\'', at + 4)) {
        text.replace(at, 1, "'\\''");
      }
      return "'" + text + "'";
    };
    writeFileAtomically(pfctl_,
                        "#!/bin/sh\nPFSIM_STATE=" + quoted(state_) + " exec " +
                            quoted(simulatorBinary) + " \"$@\"\n",
                        0755);
    clearInvocations();
  }
  const std::string& pfctlPath() const { return pfctl_; }
  // Arguments of every run since construction or the last clearInvocations, in order.
  std::vector<std::vector<std::string>> invocations() const {
    std::vector<std::vector<std::string>> runs;
    const std::vector<std::string> records = log();
    for (auto record = records.begin() + seen_; record != records.end(); ++record) {
      runs.push_back(nlohmann::json::parse(*record).get<std::vector<std::string>>());
    }
    return runs;
  }
  void clearInvocations() { seen_ = log().size(); }
  bool enabled() const { return PfState(state_).enabled(); }
  void setEnabled(bool enabled) { PfState(state_).setEnabled(enabled); }
  // The next `count` loads (-f) answer "Resource busy".
  void failNextLoads(int count) { PfState(state_).setBusyLoads(count); }
  // The ruleset text of the anchor's last successful load, comments included; empty when never
  // loaded or flushed.
  std::string loadedRuleset(const std::string& anchor) const {
    return PfState(state_).anchorRuleset(anchor).value_or("");
  }
  // Adds a connection state between two addresses; states() lists the remaining ones as "from to".
  void addState(const std::string& from, const std::string& to) {
    PfState state(state_);
    std::vector<PfConnection> connections = state.connections();
    connections.emplace_back(from, to);
    state.setConnections(connections);
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
  // The invocation log's records, one JSON array of arguments per run.
  std::vector<std::string> log() const {
    const PfState lock(state_);
    const std::string text = readFile(state_ + "/invocations.jsonl").value_or("");
    const std::vector<std::string_view> lines = split(text, '\n', false);
    return {lines.begin(), lines.end()};
  }

  std::string pfctl_;
  std::string state_;     // the simulator's state folder
  std::size_t seen_ = 0;  // invocation records before construction or the last clear
};
