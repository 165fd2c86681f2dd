#include "interfaces/helper_vmnet.h"

#include <utility>
#include <vector>

#include "interfaces/vmnet_listing.h"
#include "platform/text.h"
#include "service/helper_command.h"

namespace HelperVMNet {

void ScanMemory::forget() {
  std::lock_guard<std::mutex> guard(lock_);
  names_.clear();
}

std::set<std::string> ScanMemory::replace(std::set<std::string> candidates) {
  std::lock_guard<std::mutex> guard(lock_);
  std::swap(names_, candidates);
  return candidates;
}

std::set<std::string> ScanMemory::contents() const {
  std::lock_guard<std::mutex> guard(lock_);
  return names_;
}

ScanMemory& previousCandidates() {
  // Never destroyed: the helper ends with _exit while request threads may still use it.
  static auto* memory = new ScanMemory;
  return *memory;
}

std::string pruneStale(const HelperEnvironment& env, ScanMemory& memory) {
  HelperCommand::Result pgrep =
      HelperCommand::run(env.paths.pgrep, {"-x", "com.apple.Virtualization.VirtualMachine"});
  if (pgrep.status == 0) {
    std::size_t processes = split(pgrep.stdout, '\n', false).size();
    memory.forget();
    return std::to_string(processes) + " VM process(es) running; not pruning.";
  }

  HelperCommand::Result ifconfig = HelperCommand::run(env.paths.ifconfig, {"-a"});
  if (ifconfig.status != 0) return "ifconfig didn't answer: " + ifconfig.combinedOutput();

  InterfaceListing listing = parseInterfaceListing(ifconfig.stdout);
  std::set<std::string> candidateSet;
  for (const std::string& name : listing.vmnets) {
    if (listing.members.count(name) == 0) candidateSet.insert(name);
  }

  const std::set<std::string> previous = memory.replace(candidateSet);
  std::vector<std::string> confirmed;
  for (const std::string& name : listing.vmnets) {
    if (candidateSet.count(name) != 0 && previous.count(name) != 0) confirmed.push_back(name);
  }

  if (confirmed.empty()) {
    if (!candidateSet.empty()) {
      return std::to_string(candidateSet.size()) +
             " vmnet interface(s) in no bridge for now; destroyed if still so at the next scan.";
    }
    if (listing.vmnets.empty()) return "No vmnet interfaces.";
    return std::to_string(listing.vmnets.size()) + " vmnet interface(s), every one in a bridge.";
  }

  std::vector<std::string> destroyed;
  std::vector<std::string> refused;
  for (const std::string& name : confirmed) {
    HelperCommand::Result destroy = HelperCommand::run(env.paths.ifconfig, {name, "destroy"});
    if (destroy.status == 0) {
      destroyed.push_back(name);
    } else {
      refused.push_back(name + ": " + destroy.combinedOutput());
    }
  }

  if (!destroyed.empty()) {
    env.log.write("Destroyed stale vmnet interface(s) in no bridge: " + join(destroyed, " "));
  }
  const std::string refusedList = join(refused, "; ");
  if (!refused.empty()) env.log.write("Couldn't destroy stale vmnet interface(s): " + refusedList);

  std::string report = "Destroyed " + std::to_string(destroyed.size()) + " of " +
                       std::to_string(confirmed.size()) + " stale vmnet interface(s) (" +
                       std::to_string(listing.vmnets.size() - confirmed.size()) + " in use).";
  if (!refused.empty()) report += " Refused: " + refusedList;
  return report;
}

}  // namespace HelperVMNet
