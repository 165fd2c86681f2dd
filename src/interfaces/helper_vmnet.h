// HelperVMNet: destroys vmnet interfaces that virtual machines left outside every bridge, but only
// while no virtual machine runs and only after two scans in a row found them so. The memory of the
// previous scan is a ScanMemory; the helper uses the process-wide one, tests pass their own.
#pragma once

#include <mutex>
#include <set>
#include <string>

#include "service/helper_environment.h"

namespace HelperVMNet {

// The vmnet interfaces that were in no bridge at the previous completed scan. Thread-safe: each
// operation is atomic under its own short lock; nothing else is locked under it.
class ScanMemory {
 public:
  ScanMemory() = default;
  ScanMemory(const ScanMemory&) = delete;
  ScanMemory& operator=(const ScanMemory&) = delete;

  // Forgets every name.
  void forget();
  // Keeps `candidates` as the new memory and hands back what was remembered before.
  std::set<std::string> replace(std::set<std::string> candidates);
  // What is remembered now.
  std::set<std::string> contents() const;

 private:
  mutable std::mutex lock_;
  std::set<std::string> names_;  // guarded by lock_
};

// The process-wide memory, empty when the process starts and never destroyed.
ScanMemory& previousCandidates();

// One scan: runs env.paths.pgrep ("-x", "com.apple.Virtualization.VirtualMachine") and
// env.paths.ifconfig ("-a"), destroys ("<name>", "destroy") the vmnet interfaces found in no
// bridge at this scan and the one before, logs what was destroyed and what was refused, and
// returns the one-sentence report. Never fails. The commands run without the memory's lock.
std::string pruneStale(const HelperEnvironment& env, ScanMemory& memory = previousCandidates());

}  // namespace HelperVMNet
