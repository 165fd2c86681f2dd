// Creating, deleting and listing the helper's VLANs through the system's VLAN configuration.
#include "interfaces/helper_vlan.h"

#include <algorithm>
#include <memory>
#include <set>

#include "platform/text.h"

namespace HelperVLAN {

namespace {

std::unique_ptr<VLANPreferences> openPreferences(VLANConfiguration& configuration) {
  std::unique_ptr<VLANPreferences> preferences = configuration.createPreferences(kPreferencesName);
  if (!preferences) throw VLANError::preferences();
  return preferences;
}

// The first of `interfaces` (when there is a list) whose BSD name is `name`.
std::optional<NetworkInterfaceID> findNamed(
    VLANPreferences& preferences, const std::optional<std::vector<NetworkInterfaceID>>& interfaces,
    const std::string& name) {
  if (!interfaces) return std::nullopt;
  auto found = std::find_if(interfaces->begin(), interfaces->end(),
                            [&](NetworkInterfaceID id) { return preferences.bsdName(id) == name; });
  if (found == interfaces->end()) return std::nullopt;
  return *found;
}

// The VLAN as a record would describe it: its tag (-1 when unknown) and its parent's BSD name
// (empty when it has no parent or the parent no name).
Record describe(VLANPreferences& preferences, NetworkInterfaceID vlan, const std::string& bsdName) {
  Record record;
  record.bsdName = bsdName;
  record.tag = preferences.tag(vlan).value_or(-1);
  if (std::optional<NetworkInterfaceID> parent = preferences.physicalInterface(vlan)) {
    record.parentBSD = preferences.bsdName(*parent).value_or("");
  }
  return record;
}

bool isRecorded(const std::vector<Record>& records, const Record& record) {
  return std::find(records.begin(), records.end(), record) != records.end();
}

}  // namespace

std::string create(const HelperEnvironment& env, VLANConfiguration& configuration,
                   const std::string& name, std::int64_t tag, const std::string& parentBSD) {
  // Held for the whole run: it keeps the record file's read-modify-write exclusive, and two
  // creates of this process from picking the same interface name.
  std::lock_guard<std::mutex> guard(recordFileLock());
  std::unique_ptr<VLANPreferences> preferences = openPreferences(configuration);

  std::optional<NetworkInterfaceID> parent =
      findNamed(*preferences, preferences->availablePhysicalInterfaces(), parentBSD);
  if (!parent) throw VLANError::noSuchPhysicalInterface(parentBSD);

  std::optional<NetworkInterfaceID> vlan = preferences->createVLAN(*parent, tag);
  if (!vlan) throw VLANError::createFailed();

  std::string_view displayName = trimSpaces(name);
  if (!displayName.empty()) preferences->setDisplayName(*vlan, std::string(displayName));

  if (!preferences->commit() || !preferences->apply()) throw VLANError::commitFailed();

  std::string bsdName = preferences->bsdName(*vlan).value_or("");
  env.log.write("Created VLAN " + bsdName + " (tag " + std::to_string(tag) + ") on " + parentBSD +
                ".");

  // Records of VLANs that vanished since are dropped here, and only here.
  std::set<std::string> existing;
  if (std::optional<std::vector<NetworkInterfaceID>> all = preferences->allVLANInterfaces()) {
    for (NetworkInterfaceID interface : *all) {
      if (std::optional<std::string> existingName = preferences->bsdName(interface)) {
        existing.insert(*existingName);
      }
    }
  }
  std::vector<Record> records;
  for (Record& record : loadRecords(env)) {
    if (existing.count(record.bsdName) != 0 && record.bsdName != bsdName) {
      records.push_back(std::move(record));
    }
  }
  if (!bsdName.empty()) records.push_back({bsdName, tag, parentBSD});
  saveRecords(env, records);
  return bsdName;
}

void deleteVLAN(const HelperEnvironment& env, VLANConfiguration& configuration,
                const std::string& bsdName) {
  std::lock_guard<std::mutex> guard(recordFileLock());
  std::unique_ptr<VLANPreferences> preferences = openPreferences(configuration);

  std::optional<NetworkInterfaceID> vlan =
      findNamed(*preferences, preferences->allVLANInterfaces(), bsdName);
  if (!vlan) throw VLANError::notFound(bsdName);

  const Record current = describe(*preferences, *vlan, bsdName);
  std::vector<Record> records = loadRecords(env);
  if (!isRecorded(records, current)) {
    env.log.write("Left VLAN " + bsdName + " alone: Tarnly's helper didn't create it.");
    throw VLANError::notCreatedByHelper();
  }

  if (!preferences->remove(*vlan) || !preferences->commit() || !preferences->apply()) {
    throw VLANError::commitFailed();
  }

  records.erase(std::remove(records.begin(), records.end(), current), records.end());
  saveRecords(env, records);
  env.log.write("Deleted VLAN " + bsdName + ".");
}

std::vector<CreatedVLAN> createdVLANs(const HelperEnvironment& env,
                                      VLANConfiguration& configuration) {
  const std::vector<Record> records = loadRecords(env);
  if (records.empty()) return {};
  std::unique_ptr<VLANPreferences> preferences = configuration.createPreferences(kPreferencesName);
  if (!preferences) return {};
  std::optional<std::vector<NetworkInterfaceID>> all = preferences->allVLANInterfaces();
  if (!all) return {};

  std::vector<CreatedVLAN> vlans;
  for (NetworkInterfaceID interface : *all) {
    std::optional<std::string> bsdName = preferences->bsdName(interface);
    if (!bsdName) continue;
    Record current = describe(*preferences, interface, *bsdName);
    if (!isRecorded(records, current)) continue;
    vlans.push_back({std::move(current.bsdName), current.tag, std::move(current.parentBSD),
                     preferences->displayName(interface).value_or("")});
  }
  return vlans;
}

}  // namespace HelperVLAN
