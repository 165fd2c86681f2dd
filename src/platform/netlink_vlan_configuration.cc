#include "platform/netlink_vlan_configuration.h"

#include <net/if.h>
#include <net/if_arp.h>
#include <netlink/cache.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>
#include <netlink/route/link/vlan.h>
#include <netlink/socket.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/text.h"

namespace {

struct SocketDeleter {
  void operator()(nl_sock* socket) const { nl_socket_free(socket); }
};
struct CacheDeleter {
  void operator()(nl_cache* cache) const { nl_cache_free(cache); }
};
struct LinkDeleter {
  void operator()(rtnl_link* link) const { rtnl_link_put(link); }
};
using Socket = std::unique_ptr<nl_sock, SocketDeleter>;
using Cache = std::unique_ptr<nl_cache, CacheDeleter>;
using Link = std::unique_ptr<rtnl_link, LinkDeleter>;

// The longest alias the kernel keeps (IFALIASZ less the terminating zero).
constexpr std::size_t kMaximumAliasLength = 255;
// The VLAN ids 802.1Q leaves for use.
constexpr std::int64_t kLowestTag = 1;
constexpr std::int64_t kHighestTag = 4094;

// Link kinds that are ethernet links but no physical interface to put a VLAN on.
bool isVirtualKind(std::string_view kind) {
  static constexpr std::string_view kinds[] = {"vlan",    "bridge", "bond", "team", "macvlan",
                                               "macvtap", "vxlan",  "tun",  "tap"};
  return std::find(std::begin(kinds), std::end(kinds), kind) != std::end(kinds);
}

// One kernel link as read from the link table.
struct LinkInfo {
  int index = 0;
  std::string name;
  std::optional<std::string> alias;
  unsigned arptype = 0;
  std::string kind;
  int parentIndex = 0;  // 0: none, or the parent lives in another namespace
  std::optional<std::int64_t> vlanID;
};

LinkInfo describe(rtnl_link* link) {
  LinkInfo info;
  info.index = rtnl_link_get_ifindex(link);
  if (const char* name = rtnl_link_get_name(link)) info.name = name;
  if (const char* alias = rtnl_link_get_ifalias(link); alias != nullptr && *alias != '\0') {
    info.alias = decodeUTF8Lossy(alias);
  }
  info.arptype = rtnl_link_get_arptype(link);
  if (const char* kind = rtnl_link_get_type(link)) info.kind = kind;
  std::int32_t otherNamespace = 0;
  if (rtnl_link_get_link_netnsid(link, &otherNamespace) != 0) {
    info.parentIndex = rtnl_link_get_link(link);
  }
  if (info.kind == "vlan") {
    int id = rtnl_link_vlan_get_id(link);
    if (id >= 0) info.vlanID = id;
  }
  return info;
}

// Every link of this namespace, or nothing when the table cannot be read.
std::optional<std::vector<LinkInfo>> readLinks(nl_sock* socket) {
  nl_cache* raw = nullptr;
  if (rtnl_link_alloc_cache(socket, AF_UNSPEC, &raw) < 0) return std::nullopt;
  Cache cache(raw);
  std::vector<LinkInfo> links;
  for (nl_object* object = nl_cache_get_first(cache.get()); object != nullptr;
       object = nl_cache_get_next(object)) {
    links.push_back(describe(reinterpret_cast<rtnl_link*>(object)));
  }
  return links;
}

const LinkInfo* findIndex(const std::vector<LinkInfo>& links, int index) {
  auto found =
      std::find_if(links.begin(), links.end(), [&](const LinkInfo& l) { return l.index == index; });
  return found == links.end() ? nullptr : &*found;
}

bool nameTaken(const std::vector<LinkInfo>& links, const std::string& name) {
  return std::any_of(links.begin(), links.end(), [&](const LinkInfo& l) { return l.name == name; });
}

// "vlan<N>" with the lowest N for which `taken` says no.
template <typename Taken>
std::string lowestFreeVLANName(Taken taken) {
  for (unsigned n = 0;; ++n) {
    std::string name = "vlan" + std::to_string(n);
    if (!taken(name)) return name;
  }
}

class NetlinkVLANPreferences final : public VLANPreferences {
 public:
  explicit NetlinkVLANPreferences(Socket socket) : socket_(std::move(socket)) {}

  std::optional<std::vector<NetworkInterfaceID>> availablePhysicalInterfaces() override {
    if (!load()) return std::nullopt;
    return select([](const Entry& e) { return e.physical && e.status == Status::Existing; });
  }

  std::optional<std::vector<NetworkInterfaceID>> allVLANInterfaces() override {
    if (!load()) return std::nullopt;
    return select([](const Entry& e) { return e.vlan && e.listed(); });
  }

  std::optional<std::string> bsdName(NetworkInterfaceID interface) override {
    const Entry* entry = at(interface);
    if (entry == nullptr || entry->name.empty()) return std::nullopt;
    return entry->name;
  }

  std::optional<std::string> displayName(NetworkInterfaceID interface) override {
    const Entry* entry = at(interface);
    if (entry == nullptr) return std::nullopt;
    return entry->alias;
  }

  std::optional<NetworkInterfaceID> createVLAN(NetworkInterfaceID physical,
                                               std::int64_t tag) override {
    const Entry* parent = at(physical);
    if (parent == nullptr || !parent->physical || parent->status != Status::Existing ||
        tag < kLowestTag || tag > kHighestTag) {
      return std::nullopt;
    }
    if (std::any_of(entries_.begin(), entries_.end(), [&](const Entry& e) {
          return e.vlan && e.listed() && e.parent == physical && e.tag == tag;
        })) {
      return std::nullopt;
    }
    Entry vlan;
    vlan.name = lowestFreeVLANName([&](const std::string& name) { return ownsName(name); });
    vlan.vlan = true;
    vlan.tag = tag;
    vlan.parent = physical;
    vlan.status = Status::PendingCreate;
    entries_.push_back(std::move(vlan));
    return entries_.size() - 1;
  }

  bool setDisplayName(NetworkInterfaceID vlan, const std::string& name) override {
    Entry* entry = at(vlan);
    if (entry == nullptr || !entry->vlan || !entry->listed()) return false;
    if (name.size() > kMaximumAliasLength || name.find('\0') != std::string::npos) return false;
    entry->alias = name;
    entry->aliasChanged = true;
    return true;
  }

  std::optional<std::int64_t> tag(NetworkInterfaceID vlan) override {
    const Entry* entry = at(vlan);
    if (entry == nullptr) return std::nullopt;
    return entry->tag;
  }

  std::optional<NetworkInterfaceID> physicalInterface(NetworkInterfaceID vlan) override {
    const Entry* entry = at(vlan);
    if (entry == nullptr) return std::nullopt;
    return entry->parent;
  }

  bool remove(NetworkInterfaceID vlan) override {
    Entry* entry = at(vlan);
    if (entry == nullptr || !entry->vlan || !entry->listed()) return false;
    // A VLAN made in this handle and not yet carried out is simply forgotten.
    entry->status =
        entry->status == Status::PendingCreate ? Status::Dropped : Status::PendingRemove;
    return true;
  }

  bool commit() override {
    committed_.clear();
    std::optional<std::vector<LinkInfo>> now = readLinks(socket_.get());
    if (!now) return false;
    std::vector<Change> changes;
    for (NetworkInterfaceID id = 0; id < entries_.size(); ++id) {
      Entry& entry = entries_[id];
      if (entry.status == Status::PendingRemove) {
        const LinkInfo* link = findIndex(*now, entry.index);
        if (link == nullptr || link->name != entry.name || link->kind != "vlan") return false;
        changes.push_back({Change::Remove, id});
      } else if (entry.status == Status::PendingCreate) {
        const Entry& parent = entries_[*entry.parent];
        const LinkInfo* link = findIndex(*now, parent.index);
        if (link == nullptr || link->name != parent.name) return false;
        if (std::any_of(now->begin(), now->end(), [&](const LinkInfo& l) {
              return l.kind == "vlan" && l.parentIndex == parent.index && l.vlanID == entry.tag;
            })) {
          return false;
        }
        if (nameTaken(*now, entry.name)) {
          entry.name = lowestFreeVLANName(
              [&](const std::string& name) { return nameTaken(*now, name) || ownsName(name); });
        }
        changes.push_back({Change::Create, id});
      } else if (entry.status == Status::Existing && entry.aliasChanged) {
        if (findIndex(*now, entry.index) == nullptr) return false;
        changes.push_back({Change::Alias, id});
      }
    }
    // Removals first, so that a name or tag they free is free for the creations.
    std::stable_partition(changes.begin(), changes.end(),
                          [](const Change& c) { return c.kind == Change::Remove; });
    committed_ = std::move(changes);
    for (Entry& entry : entries_) entry.aliasChanged = false;
    return true;
  }

  bool apply() override {
    std::vector<Change> changes = std::move(committed_);
    committed_.clear();
    for (const Change& change : changes) {
      Entry& entry = entries_[change.interface];
      bool done = false;
      switch (change.kind) {
        case Change::Remove:
          done = removeLink(entry);
          break;
        case Change::Create:
          done = createLink(entry);
          break;
        case Change::Alias:
          done = setAlias(entry);
          break;
      }
      if (!done) return false;
    }
    return true;
  }

 private:
  enum class Status {
    Existing,       // a kernel link
    PendingCreate,  // a VLAN this handle is to create
    PendingRemove,  // a VLAN this handle is to remove
    Dropped,        // created and removed again before it was carried out
    Gone,           // removed by this handle
  };

  struct Entry {
    std::string name;
    std::optional<std::string> alias;
    int index = 0;  // the kernel's interface index; 0 until a new VLAN exists
    bool physical = false;
    bool vlan = false;
    std::optional<std::int64_t> tag;
    std::optional<NetworkInterfaceID> parent;
    Status status = Status::Existing;
    bool aliasChanged = false;

    bool listed() const { return status == Status::Existing || status == Status::PendingCreate; }
  };

  struct Change {
    enum Kind { Remove, Create, Alias } kind;
    NetworkInterfaceID interface;  // cppcheck-suppress unusedStructMember
  };

  // Reads the link table once; false (and another try next time) when it cannot be read.
  bool load() {
    if (loaded_) return true;
    std::optional<std::vector<LinkInfo>> links = readLinks(socket_.get());
    if (!links) return false;
    for (const LinkInfo& link : *links) {
      Entry entry;
      entry.name = link.name;
      entry.alias = link.alias;
      entry.index = link.index;
      entry.physical = link.arptype == ARPHRD_ETHER && !isVirtualKind(link.kind);
      entry.vlan = link.kind == "vlan";
      entry.tag = link.vlanID;
      entries_.push_back(std::move(entry));
    }
    for (std::size_t i = 0; i < links->size(); ++i) {
      int parentIndex = (*links)[i].parentIndex;
      if (!entries_[i].vlan || parentIndex == 0) continue;
      for (std::size_t j = 0; j < links->size(); ++j) {
        if ((*links)[j].index == parentIndex) entries_[i].parent = j;
      }
    }
    loaded_ = true;
    return true;
  }

  template <typename Predicate>
  std::vector<NetworkInterfaceID> select(Predicate wanted) const {
    std::vector<NetworkInterfaceID> ids;
    for (NetworkInterfaceID id = 0; id < entries_.size(); ++id) {
      if (wanted(entries_[id])) ids.push_back(id);
    }
    return ids;
  }

  Entry* at(NetworkInterfaceID id) { return id < entries_.size() ? &entries_[id] : nullptr; }

  // True when a link of this handle that exists or is to be created has the name.
  bool ownsName(const std::string& name) const {
    return std::any_of(entries_.begin(), entries_.end(), [&](const Entry& e) {
      return e.name == name && e.status != Status::Dropped && e.status != Status::Gone;
    });
  }

  bool removeLink(Entry& entry) {
    Link link(rtnl_link_alloc());
    if (!link) return false;
    rtnl_link_set_ifindex(link.get(), entry.index);
    if (rtnl_link_delete(socket_.get(), link.get()) < 0) return false;
    entry.status = Status::Gone;
    return true;
  }

  bool createLink(Entry& entry) {
    const Entry& parent = entries_[*entry.parent];
    Link link(rtnl_link_vlan_alloc());
    if (!link) return false;
    rtnl_link_set_name(link.get(), entry.name.c_str());
    rtnl_link_set_link(link.get(), parent.index);
    if (rtnl_link_vlan_set_id(link.get(), static_cast<std::uint16_t>(*entry.tag)) < 0) return false;
    if (rtnl_link_add(socket_.get(), link.get(), NLM_F_CREATE | NLM_F_EXCL) < 0) return false;
    rtnl_link* raw = nullptr;
    if (rtnl_link_get_kernel(socket_.get(), 0, entry.name.c_str(), &raw) < 0) return false;
    Link created(raw);
    entry.index = rtnl_link_get_ifindex(created.get());
    entry.status = Status::Existing;
    // The display name is a courtesy: the link exists now and must be reported (and recorded) as
    // made, whether or not the kernel takes the alias.
    if (entry.alias) {
      changeLink(created.get(),
                 [&](rtnl_link* changes) { rtnl_link_set_ifalias(changes, entry.alias->c_str()); });
    }
    // Up like a configured interface; the kernel refuses while the parent is down, and then the
    // VLAN stays down until someone brings it up.
    changeLink(created.get(), [](rtnl_link* changes) { rtnl_link_set_flags(changes, IFF_UP); });
    return true;
  }

  // A display name that the kernel refuses changes nothing else; it never fails the apply.
  bool setAlias(const Entry& entry) {
    if (!entry.alias) return true;
    Link original(rtnl_link_alloc());
    if (!original) return true;
    rtnl_link_set_ifindex(original.get(), entry.index);
    changeLink(original.get(),
               [&](rtnl_link* changes) { rtnl_link_set_ifalias(changes, entry.alias->c_str()); });
    return true;
  }

  // Sends the changes `edit` makes to an empty link object for the link `original`.
  template <typename Edit>
  bool changeLink(rtnl_link* original, Edit edit) {
    Link changes(rtnl_link_alloc());
    if (!changes) return false;
    edit(changes.get());
    return rtnl_link_change(socket_.get(), original, changes.get(), 0) >= 0;
  }

  Socket socket_;
  bool loaded_ = false;
  std::vector<Entry> entries_;
  std::vector<Change> committed_;
};

}  // namespace

std::unique_ptr<VLANPreferences> NetlinkVLANConfiguration::createPreferences(
    const std::string& /*client*/) {
  Socket socket(nl_socket_alloc());
  if (!socket || nl_connect(socket.get(), NETLINK_ROUTE) < 0) return nullptr;
  return std::make_unique<NetlinkVLANPreferences>(std::move(socket));
}
