// FakeVLANConfiguration: an in-memory VLAN configuration that records the handles opened and the
// commits and applies made, and can be told to refuse at each step. Changes enter the stored
// configuration at commit, as saved preferences do. Thread-safe: one lock over everything.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/vlan_configuration.h"

class FakeVLANConfiguration final : public VLANConfiguration {
 public:
  struct Interface {
    std::optional<std::string> bsdName;
    std::optional<std::string> displayName;
    bool physical = false;
    bool vlan = false;
    std::optional<std::int64_t> tag;
    std::optional<NetworkInterfaceID> parent;
    bool exists = true;    // false: not (or no longer) in the stored configuration
    bool pending = false;  // made by a handle that has not committed it
  };

  // Knobs; set them before the request.
  bool refuseHandle = false;         // createPreferences gives null
  bool noPhysicalList = false;       // availablePhysicalInterfaces gives nothing
  bool noVLANList = false;           // allVLANInterfaces gives nothing
  bool refuseCreate = false;         // createVLAN gives nothing
  bool newVLANsWithoutName = false;  // new VLANs have no BSD name
  bool failCommit = false;
  bool failApply = false;

  // The system as it was set up, or as the helper or "someone else" changed it.
  NetworkInterfaceID addPhysical(std::optional<std::string> name) {
    std::lock_guard<std::mutex> guard(lock_);
    Interface interface;
    interface.bsdName = std::move(name);
    interface.physical = true;
    return append(std::move(interface));
  }

  // A VLAN made outside the helper.
  NetworkInterfaceID addVLAN(const std::string& name, std::optional<std::int64_t> tag,
                             std::optional<NetworkInterfaceID> parent,
                             std::optional<std::string> displayName = std::nullopt) {
    std::lock_guard<std::mutex> guard(lock_);
    Interface interface;
    interface.bsdName = name;
    interface.vlan = true;
    interface.tag = tag;
    interface.parent = parent;
    interface.displayName = std::move(displayName);
    return append(std::move(interface));
  }

  // Changes the existing interface named `name` (for example removes it by other means).
  void change(const std::string& name, const std::function<void(Interface&)>& edit) {
    std::lock_guard<std::mutex> guard(lock_);
    for (Interface& interface : interfaces_) {
      if (interface.exists && interface.bsdName == name) edit(interface);
    }
  }

  // The existing interface named `name`, if any.
  std::optional<Interface> find(const std::string& name) const {
    std::lock_guard<std::mutex> guard(lock_);
    for (const Interface& interface : interfaces_) {
      if (interface.exists && interface.bsdName == name) return interface;
    }
    return std::nullopt;
  }

  // Names of the existing VLANs, in order.
  std::vector<std::string> vlanNames() const {
    std::lock_guard<std::mutex> guard(lock_);
    std::vector<std::string> names;
    for (const Interface& interface : interfaces_) {
      if (interface.exists && interface.vlan) names.push_back(interface.bsdName.value_or("<none>"));
    }
    return names;
  }

  // What was asked of the configuration so far.
  std::vector<std::string> clients() const {
    std::lock_guard<std::mutex> guard(lock_);
    return clients_;
  }
  int commits() const {
    std::lock_guard<std::mutex> guard(lock_);
    return commits_;
  }
  int applies() const {
    std::lock_guard<std::mutex> guard(lock_);
    return applies_;
  }

  std::unique_ptr<VLANPreferences> createPreferences(const std::string& client) override {
    std::lock_guard<std::mutex> guard(lock_);
    clients_.push_back(client);
    if (refuseHandle) return nullptr;
    return std::make_unique<Handle>(*this);
  }

 private:
  class Handle final : public VLANPreferences {
   public:
    explicit Handle(FakeVLANConfiguration& owner) : owner_(owner) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    // Uncommitted VLANs are dropped with the handle.
    ~Handle() override {
      std::lock_guard<std::mutex> guard(owner_.lock_);
      for (NetworkInterfaceID id : created_) owner_.interfaces_[id].pending = false;
    }

    std::optional<std::vector<NetworkInterfaceID>> availablePhysicalInterfaces() override {
      std::lock_guard<std::mutex> guard(owner_.lock_);
      if (owner_.noPhysicalList) return std::nullopt;
      return select([](NetworkInterfaceID, const Interface& i) { return i.exists && i.physical; });
    }

    std::optional<std::vector<NetworkInterfaceID>> allVLANInterfaces() override {
      std::lock_guard<std::mutex> guard(owner_.lock_);
      if (owner_.noVLANList) return std::nullopt;
      return select(
          [this](NetworkInterfaceID id, const Interface& i) { return i.vlan && listed(id, i); });
    }

    std::optional<std::string> bsdName(NetworkInterfaceID id) override {
      std::lock_guard<std::mutex> guard(owner_.lock_);
      return owner_.interfaces_.at(id).bsdName;
    }

    std::optional<std::string> displayName(NetworkInterfaceID id) override {
      std::lock_guard<std::mutex> guard(owner_.lock_);
      return owner_.interfaces_.at(id).displayName;
    }

    std::optional<NetworkInterfaceID> createVLAN(NetworkInterfaceID physical,
                                                 std::int64_t tag) override {
      std::lock_guard<std::mutex> guard(owner_.lock_);
      if (owner_.refuseCreate || !owner_.interfaces_.at(physical).physical) return std::nullopt;
      Interface vlan;
      if (!owner_.newVLANsWithoutName) vlan.bsdName = owner_.lowestFreeName();
      vlan.vlan = true;
      vlan.tag = tag;
      vlan.parent = physical;
      vlan.exists = false;
      vlan.pending = true;
      NetworkInterfaceID id = owner_.append(std::move(vlan));
      created_.push_back(id);
      return id;
    }

    bool setDisplayName(NetworkInterfaceID vlan, const std::string& name) override {
      std::lock_guard<std::mutex> guard(owner_.lock_);
      owner_.interfaces_.at(vlan).displayName = name;
      return true;
    }

    std::optional<std::int64_t> tag(NetworkInterfaceID vlan) override {
      std::lock_guard<std::mutex> guard(owner_.lock_);
      return owner_.interfaces_.at(vlan).tag;
    }

    std::optional<NetworkInterfaceID> physicalInterface(NetworkInterfaceID vlan) override {
      std::lock_guard<std::mutex> guard(owner_.lock_);
      return owner_.interfaces_.at(vlan).parent;
    }

    bool remove(NetworkInterfaceID vlan) override {
      std::lock_guard<std::mutex> guard(owner_.lock_);
      removed_.push_back(vlan);
      return true;
    }

    bool commit() override {
      std::lock_guard<std::mutex> guard(owner_.lock_);
      ++owner_.commits_;
      if (owner_.failCommit) return false;
      for (NetworkInterfaceID id : created_) {
        owner_.interfaces_[id].exists = true;
        owner_.interfaces_[id].pending = false;
      }
      for (NetworkInterfaceID id : removed_) owner_.interfaces_[id].exists = false;
      created_.clear();
      removed_.clear();
      return true;
    }

    bool apply() override {
      std::lock_guard<std::mutex> guard(owner_.lock_);
      ++owner_.applies_;
      return !owner_.failApply;
    }

   private:
    // Whether this handle sees the interface: stored or made here, and not removed here.
    bool listed(NetworkInterfaceID id, const Interface& i) const {
      bool mine = std::find(created_.begin(), created_.end(), id) != created_.end();
      bool gone = std::find(removed_.begin(), removed_.end(), id) != removed_.end();
      return (i.exists || mine) && !gone;
    }

    template <typename Predicate>
    std::vector<NetworkInterfaceID> select(Predicate wanted) const {
      std::vector<NetworkInterfaceID> ids;
      for (NetworkInterfaceID id = 0; id < owner_.interfaces_.size(); ++id) {
        if (wanted(id, owner_.interfaces_[id])) ids.push_back(id);
      }
      return ids;
    }

    FakeVLANConfiguration& owner_;
    std::vector<NetworkInterfaceID> created_;
    std::vector<NetworkInterfaceID> removed_;
  };

  NetworkInterfaceID append(Interface interface) {
    interfaces_.push_back(std::move(interface));
    return interfaces_.size() - 1;
  }

  // vlan<N> with the lowest N that no stored or pending interface has.
  std::string lowestFreeName() const {
    for (int n = 0;; ++n) {
      std::string name = "vlan" + std::to_string(n);
      if (std::none_of(interfaces_.begin(), interfaces_.end(), [&](const Interface& i) {
            return i.bsdName == name && (i.exists || i.pending);
          })) {
        return name;
      }
    }
  }

  mutable std::mutex lock_;
  std::vector<Interface> interfaces_;  // append-only; ids are indexes
  std::vector<std::string> clients_;
  int commits_ = 0;
  int applies_ = 0;
};
