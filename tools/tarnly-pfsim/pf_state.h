// PfState: the simulator's pf, kept as files in one folder so that every pfctl run (a separate
// process) sees what the previous ones did. An instance holds an exclusive flock on the folder's
// "lock" file for its whole life, so runs happen one at a time; it is not shared between threads.
//
// Folder layout (tests read it back through tests/support/pf_simulator.cc):
//   lock               the flock file
//   invocations.jsonl  one JSON array of argument strings per run, in run order
//   enabled            "1" when pf is enabled; absent or anything else: disabled
//   main.conf          the main ruleset as `pfctl -sr` lists it; absent: the stock Mac one
//   anchors/<name>     the ruleset text of the anchor's last successful load, the name encoded
//                      with pfAnchorFileName
//   states             one connection state per line: "<from> <to>"
//   busy               how many of the next loads answer "Resource busy"; absent: none
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

// A connection state between two addresses.
using PfConnection = std::pair<std::string, std::string>;

class PfState {
 public:
  // Creates the folder when missing and waits for its lock. Throws FileError.
  explicit PfState(std::string directory);
  ~PfState();
  PfState(const PfState&) = delete;
  PfState& operator=(const PfState&) = delete;

  // Appends one invocation record. Throws FileError.
  void recordInvocation(const std::vector<std::string>& arguments);

  bool enabled() const;
  void setEnabled(bool enabled);

  std::string mainRuleset() const;

  // The anchor's loaded ruleset text; nothing when never loaded or flushed.
  std::optional<std::string> anchorRuleset(const std::string& anchor) const;
  void setAnchorRuleset(const std::string& anchor, const std::string& text);
  void flushAnchor(const std::string& anchor);

  std::vector<PfConnection> connections() const;
  void setConnections(const std::vector<PfConnection>& connections);

  // The remaining count of loads that answer busy (0 when none).
  int busyLoads() const;
  void setBusyLoads(int count);

 private:
  std::string path(const std::string& name) const { return directory_ + "/" + name; }

  std::string directory_;
  int lockDescriptor_ = -1;
};

// The file name under anchors/ for an anchor: bytes other than ASCII letters, digits, '-' and
// '_' written as %XX, so "com.apple/900.x" is "com%2Eapple%2F900%2Ex".
std::string pfAnchorFileName(const std::string& anchor);

// The stock main ruleset of a Mac.
extern const char* const pfStockMainRuleset;
