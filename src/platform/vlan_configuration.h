// VLANConfiguration: the system's store of VLAN interfaces, reached through preference handles that
// gather changes and then save (commit) and carry them out (apply). A configuration object may be
// shared by threads; each handle belongs to one request and is used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// One network interface as a handle knows it. Meaningful only to the handle that gave it out, and
// only while that handle lives.
using NetworkInterfaceID = std::size_t;

class VLANPreferences {
 public:
  VLANPreferences() = default;
  VLANPreferences(const VLANPreferences&) = delete;
  VLANPreferences& operator=(const VLANPreferences&) = delete;
  virtual ~VLANPreferences() = default;

  // Interfaces that can carry VLANs, in the system's order; nothing when the system gives no list.
  virtual std::optional<std::vector<NetworkInterfaceID>> availablePhysicalInterfaces() = 0;
  // The configured VLAN interfaces, changes of this handle included; nothing when the system gives
  // no list.
  virtual std::optional<std::vector<NetworkInterfaceID>> allVLANInterfaces() = 0;

  // The interface's BSD name, or nothing.
  virtual std::optional<std::string> bsdName(NetworkInterfaceID interface) = 0;
  // The interface's display name, or nothing when it has none.
  virtual std::optional<std::string> displayName(NetworkInterfaceID interface) = 0;

  // A new VLAN interface with `tag` on `physical`, recorded in this handle only; nothing when the
  // system refuses it.
  virtual std::optional<NetworkInterfaceID> createVLAN(NetworkInterfaceID physical,
                                                       std::int64_t tag) = 0;
  // Gives a VLAN interface a display name; false when refused.
  virtual bool setDisplayName(NetworkInterfaceID vlan, const std::string& name) = 0;
  // The VLAN interface's tag, or nothing.
  virtual std::optional<std::int64_t> tag(NetworkInterfaceID vlan) = 0;
  // The interface that carries the VLAN, or nothing.
  virtual std::optional<NetworkInterfaceID> physicalInterface(NetworkInterfaceID vlan) = 0;
  // Marks a VLAN interface for removal in this handle; false when refused.
  virtual bool remove(NetworkInterfaceID vlan) = 0;

  // Saves the changes gathered so far; false when they cannot be saved.
  virtual bool commit() = 0;
  // Puts the saved changes into effect; false when that failed (the saved changes stay saved).
  virtual bool apply() = 0;
};

class VLANConfiguration {
 public:
  VLANConfiguration() = default;
  VLANConfiguration(const VLANConfiguration&) = delete;
  VLANConfiguration& operator=(const VLANConfiguration&) = delete;
  virtual ~VLANConfiguration() = default;

  // A new preferences handle opened in the name of `client`, or null when it cannot be opened.
  virtual std::unique_ptr<VLANPreferences> createPreferences(const std::string& client) = 0;
};
