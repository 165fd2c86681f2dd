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
    std::optional<std::string> bsdName{};
    std::optional<std::string> displayName{};
    bool physical = false;
    bool vlan = false;
    std::optional<std::int64_t> tag{};
    std::optional<NetworkInterfaceID> parent{};
    bool exists = true;  // false: not (or no longer) in the stored configuration
  };

  // Knobs; set them before the request.
  bool refuseHandle = false;         // createPreferences gives null
  bool noPhysicalList = false;       // availablePhysicalInterfaces gives nothing
  bool noVLANList = false;           // allVLANInterfaces gives nothing
  bool refuseCreate = false;         // createVLAN gives nothing
  bool newVLANsWithoutName = false;  // new VLANs have no BSD name
  bool failCommit = false;
  bool failApply = false;

  NetworkInterfaceID addPhysical(std::optional<std::string> name) {
    return add({.bsdName = std::move(name), .physical = true});
  }
  // A VLAN made outside the helper.
  NetworkInterfaceID addVLAN(const std::string& name, std::optional<std::int64_t> tag,
                             std::optional<NetworkInterfaceID> parent,
                             std::optional<std::string> display = std::nullopt) {
    return add({.bsdName = name,
                .displayName = std::move(display),
                .vlan = true,
                .tag = tag,
                .parent = parent});
  }

  // Edits the existing interface named `name` (for example removes it by other means).
  void change(const std::string& name, const std::function<void(Interface&)>& edit) {
    std::lock_guard<std::mutex> guard(lock_);
    for (Interface& i : interfaces_) {
      if (i.exists && i.bsdName == name) edit(i);
    }
  }
  std::optional<Interface> find(const std::string& name) const {
    std::lock_guard<std::mutex> guard(lock_);
    for (const Interface& i : interfaces_) {
      if (i.exists && i.bsdName == name) return i;
    }
    return std::nullopt;
  }
  // Names of the existing VLANs, in order.
  std::vector<std::string> vlanNames() const {
    std::lock_guard<std::mutex> guard(lock_);
    std::vector<std::string> names;
    for (const Interface& i : interfaces_) {
      if (i.exists && i.vlan) names.push_back(i.bsdName.value_or("<none>"));
    }
    return names;
  }

  // What was asked of the configuration so far.
  std::vector<std::string> clients() const { return locked(clients_); }
  int commits() const { return locked(commits_); }
  int applies() const { return locked(applies_); }

  std::unique_ptr<VLANPreferences> createPreferences(const std::string& client) override {
    std::lock_guard<std::mutex> guard(lock_);
    clients_.push_back(client);
    return refuseHandle ? nullptr : std::make_unique<Handle>(*this);
  }

 private:
  class Handle final : public VLANPreferences {
   public:
    explicit Handle(FakeVLANConfiguration& owner) : owner_(owner) {}

    std::optional<std::vector<NetworkInterfaceID>> availablePhysicalInterfaces() override {
      Guard guard(owner_.lock_);
      if (owner_.noPhysicalList) return std::nullopt;
      return select([](NetworkInterfaceID, const Interface& i) { return i.exists && i.physical; });
    }
    std::optional<std::vector<NetworkInterfaceID>> allVLANInterfaces() override {
      Guard guard(owner_.lock_);
      if (owner_.noVLANList) return std::nullopt;
      // Stored or made here, and not removed here.
      return select([this](NetworkInterfaceID id, const Interface& i) {
        return i.vlan && (i.exists || has(created_, id)) && !has(removed_, id);
      });
    }
    std::optional<std::string> bsdName(NetworkInterfaceID id) override {
      Guard guard(owner_.lock_);
      return at(id).bsdName;
    }
    std::optional<std::string> displayName(NetworkInterfaceID id) override {
      Guard guard(owner_.lock_);
      return at(id).displayName;
    }
    std::optional<NetworkInterfaceID> createVLAN(NetworkInterfaceID physical,
                                                 std::int64_t tag) override {
      Guard guard(owner_.lock_);
      if (owner_.refuseCreate || !at(physical).physical) return std::nullopt;
      // Not stored until committed, and so dropped with an uncommitted handle.
      Interface vlan{.vlan = true, .tag = tag, .parent = physical, .exists = false};
      if (!owner_.newVLANsWithoutName) vlan.bsdName = owner_.lowestFreeName();
      owner_.interfaces_.push_back(vlan);
      created_.push_back(owner_.interfaces_.size() - 1);
      return created_.back();
    }
    bool setDisplayName(NetworkInterfaceID vlan, const std::string& name) override {
      Guard guard(owner_.lock_);
      at(vlan).displayName = name;
      return true;
    }
    std::optional<std::int64_t> tag(NetworkInterfaceID vlan) override {
      Guard guard(owner_.lock_);
      return at(vlan).tag;
    }
    std::optional<NetworkInterfaceID> physicalInterface(NetworkInterfaceID vlan) override {
      Guard guard(owner_.lock_);
      return at(vlan).parent;
    }
    bool remove(NetworkInterfaceID vlan) override {
      Guard guard(owner_.lock_);
      removed_.push_back(vlan);
      return true;
    }
    bool commit() override {
      Guard guard(owner_.lock_);
      ++owner_.commits_;
      if (owner_.failCommit) return false;
      for (NetworkInterfaceID id : created_) at(id).exists = true;
      for (NetworkInterfaceID id : removed_) at(id).exists = false;
      created_.clear();
      removed_.clear();
      return true;
    }
    bool apply() override {
      Guard guard(owner_.lock_);
      ++owner_.applies_;
      return !owner_.failApply;
    }

   private:
    using Guard = std::lock_guard<std::mutex>;
    Interface& at(NetworkInterfaceID id) { return owner_.interfaces_.at(id); }
    static bool has(const std::vector<NetworkInterfaceID>& ids, NetworkInterfaceID id) {
      return std::find(ids.begin(), ids.end(), id) != ids.end();
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

  NetworkInterfaceID add(Interface interface) {
    std::lock_guard<std::mutex> guard(lock_);
    interfaces_.push_back(std::move(interface));
    return interfaces_.size() - 1;
  }
  template <typename T>
  T locked(const T& value) const {
    std::lock_guard<std::mutex> guard(lock_);
    return value;
  }
  // vlan<N> with the lowest N that no stored interface has. Nothing keeps two handles from
  // planning the same name: the helper's own lock must.
  std::string lowestFreeName() const {
    for (int n = 0;; ++n) {
      std::string name = "vlan" + std::to_string(n);
      if (std::none_of(interfaces_.begin(), interfaces_.end(),
                       [&](const Interface& i) { return i.exists && i.bsdName == name; })) {
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
