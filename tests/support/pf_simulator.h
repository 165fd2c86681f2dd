// PfSimulator: installs the pf simulator as an executable at a path the helper runs as pfctl, with
// its state in a folder of the test's tree, and reads that state back for assertions. Not
// thread-safe itself; the simulator processes it starts lock their shared state on their own.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

class PfSimulator {
 public:
  // Writes an executable wrapper at `pfctlPath` that runs TARNLY_PFSIM_PATH-built simulator
  // (the path is passed in: `simulatorBinary`) with PFSIM_STATE=`stateDirectory`.
  PfSimulator(std::string simulatorBinary, std::string pfctlPath, std::string stateDirectory);
  const std::string& pfctlPath() const;
  // Arguments of every run since construction or the last clearInvocations, in order.
  std::vector<std::vector<std::string>> invocations() const;
  void clearInvocations();
  bool enabled() const;
  void setEnabled(bool enabled);
  // The next `count` loads (-f) answer "Resource busy".
  void failNextLoads(int count);
  // The anchor's rules as loaded (the ruleset text of the last successful load, comments included),
  // or empty when never loaded or flushed.
  std::string loadedRuleset(const std::string& anchor) const;
  // Adds a connection state between two addresses; states() lists the remaining ones as "from to".
  void addState(const std::string& from, const std::string& to);
  std::vector<std::string> states() const;
  // Replaces the main ruleset text (what "-sr" prints).
  void setMainRuleset(const std::string& text);

 private:
  std::string simulatorBinary_;
  std::string pfctlPath_;
  std::string stateDirectory_;
  size_t invocationsSeen_ = 0;  // log records before construction or the last clearInvocations
};
