// HelperVLAN: the VLANs the helper creates for the application, with the record file "vlans.json"
// that lets it tell its own VLANs from the user's. Thread-safe: create, deleteVLAN and
// removeRecordFileIfEmpty hold recordFileLock() for their whole run; listing takes no lock.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "interfaces/created_vlan.h"
#include "platform/vlan_configuration.h"
#include "service/helper_environment.h"

namespace HelperVLAN {

// The name of the record file in the state directory.
inline constexpr const char* kRecordFileName = "vlans.json";
// The client name under which preference handles are opened.
inline constexpr const char* kPreferencesName = "TarnlyAdminHelper";

// One VLAN the helper created. Records match only when all three fields are equal.
struct Record {
  std::string bsdName;    // BSD name the system gave the VLAN interface
  std::int64_t tag = 0;   // the VLAN ID
  std::string parentBSD;  // BSD name of the physical interface that carries it

  bool operator==(const Record&) const = default;
};

// A refusal of a VLAN request; what() is the sentence the application shows.
class VLANError : public std::runtime_error {
 public:
  enum class Kind {
    noSuchPhysicalInterface,  // "No physical interface named <parentBSD>."
    notFound,                 // "No VLAN interface named <bsdName>."
    preferences,              // "Could not open the system network preferences."
    createFailed,             // "macOS refused to create the VLAN interface."
    notCreatedByHelper,       // "Tarnly's helper only removes VLANs it created."
    commitFailed,             // "Could not save the network configuration."
  };

  static VLANError noSuchPhysicalInterface(const std::string& parentBSD);
  static VLANError notFound(const std::string& bsdName);
  static VLANError preferences();
  static VLANError createFailed();
  static VLANError notCreatedByHelper();
  static VLANError commitFailed();

  Kind kind() const { return kind_; }
  // The interface name the first two kinds carry; empty for the others.
  const std::string& interfaceName() const { return interfaceName_; }

 private:
  VLANError(Kind kind, std::string interfaceName, const std::string& message);

  Kind kind_;
  std::string interfaceName_;
};

// Creates a VLAN with `tag` on the physical interface named `parentBSD`, gives it the display name
// `name` (trimmed of spaces and tabs; a blank name leaves the system's default), saves and applies
// the configuration, logs "Created VLAN <bsdName> (tag <tag>) on <parentBSD>.", and brings the
// record file in step: records of VLANs that no longer exist are dropped and the new one appended.
// Returns the new BSD name, empty when the system reports none (then nothing is recorded).
// Throws VLANError; on a throw the record file is untouched.
std::string create(const HelperEnvironment& env, VLANConfiguration& configuration,
                   const std::string& name, std::int64_t tag, const std::string& parentBSD);

// Removes the VLAN interface `bsdName` when the record file lists it with the tag and parent it
// has now, drops its record and logs "Deleted VLAN <bsdName>.". Any other VLAN is left alone and
// logged as such. Throws VLANError (notFound, notCreatedByHelper, preferences, commitFailed).
void deleteVLAN(const HelperEnvironment& env, VLANConfiguration& configuration,
                const std::string& bsdName);

// The recorded VLANs that still exist with their recorded tag and parent, in the system's order.
// Opens no preferences handle when nothing is recorded. Never fails: problems shorten the list.
std::vector<CreatedVLAN> createdVLANs(const HelperEnvironment& env,
                                      VLANConfiguration& configuration);

// The records of the record file; empty when it is missing, unreadable or undecodable.
std::vector<Record> loadRecords(const HelperEnvironment& env);

// Replaces the record file (state directory created first; compact JSON, atomic, mode 0600).
// Never fails: a failure is logged as "Could not record Tarnly's VLANs: <description>".
void saveRecords(const HelperEnvironment& env, const std::vector<Record>& records);

// Deletes the record file when it lists no VLAN (or cannot be read as a list). Never fails.
void removeRecordFileIfEmpty(const HelperEnvironment& env);

// The record file's text: a compact JSON array of {"bsdName","tag","parentBSD"} objects.
std::string encodeRecords(const std::vector<Record>& records);
// Records from that text; nothing when it is not such an array (every key is required, with its
// type; unknown keys are ignored).
std::optional<std::vector<Record>> decodeRecords(std::string_view json);

// The process-wide lock that makes each read-modify-write of the record file exclusive. Taken
// inside HelperFirewall's lock by the uninstall clean-up; nothing is locked under it but the log.
std::mutex& recordFileLock();

}  // namespace HelperVLAN
