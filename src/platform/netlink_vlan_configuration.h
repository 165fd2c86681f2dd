// NetlinkVLANConfiguration: the VLAN configuration of this machine's network namespace, read and
// changed through rtnetlink. VLANs are kernel links of kind "vlan" named vlan<N> (lowest free N),
// with the 802.1Q id as tag and the link's alias as display name. Thread-safe: it holds no state;
// each handle has its own netlink socket.
#pragma once

#include <memory>
#include <string>

#include "platform/vlan_configuration.h"

class NetlinkVLANConfiguration final : public VLANConfiguration {
 public:
  NetlinkVLANConfiguration() = default;

  // A handle with its own connected rtnetlink socket, or null when no socket can be had. The
  // handle reads the link table at its first question and answers from that reading together
  // with its own changes. `commit` checks the changes against the links as they are then (the
  // parent still there, the VLAN to remove still there, no link with the new name or the same
  // parent and tag; a taken vlan<N> name is replaced by the lowest free one); `apply` carries out
  // what was committed: removals, then new VLAN links (alias set; brought up unless the parent is
  // down), then new aliases. An alias the kernel refuses never fails `apply`: a link that was
  // made is reported as made.
  std::unique_ptr<VLANPreferences> createPreferences(const std::string& client) override;
};
