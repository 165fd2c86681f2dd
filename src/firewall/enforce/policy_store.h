// The policy store: the networks each user of the machine asked to have enforced, keyed by owner
// ("<uid>" or "legacy"), with its JSON forms and its one mutation. Plain values and pure
// functions; the file side lives in firewall_state.h.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/model/firewall_records.h"
#include "platform/clock.h"

namespace NetworkFirewall::PolicyStore {

// Owner of the networks stored before networks had owners.
inline constexpr std::string_view kLegacyOwner = "legacy";

// The date of legacy networks, 0001-01-01T00:00:00Z (-63114076800 s from 2001-01-01): every real
// owner's apply is later.
TimePoint legacyDate();

struct Entry {
  std::vector<FirewallNetworkPolicy> policies;  // as the owner sent them, never empty when stored
  TimePoint appliedAt;

  bool operator==(const Entry&) const = default;
};

// Owner key -> entry; std::map keeps keys in text order, the order in which they are written.
using Owners = std::map<std::string, Entry>;

// The owner key of a caller: the uid in decimal.
std::string ownerKey(unsigned int uid);

// Reads the owners form ({"owners": {key: {"policies": [...], "appliedAt": seconds}}}) or the
// legacy bare array (one "legacy" entry, or no entry for an empty array). An entry without
// networks is left out; a date beyond the representable range is clamped to it. Nothing when the
// data is neither form.
std::optional<Owners> decoded(std::string_view data);

// The owners form, pretty-printed with sorted keys. Throws nlohmann::json exceptions when a text
// cannot be encoded.
std::string encoded(const Owners& owners);

// Replaces the owner's networks (removing the entry when `policies` is empty) and returns the
// owner's previous networks. The "legacy" entry is dropped when `adoptLegacy` is set or when it
// shares a networkID with the new networks; an owner without an entry of its own then gets the
// legacy networks as its previous ones.
std::vector<FirewallNetworkPolicy> replace(Owners& owners, const std::string& owner,
                                           std::vector<FirewallNetworkPolicy> policies,
                                           TimePoint appliedAt, bool adoptLegacy);

}  // namespace NetworkFirewall::PolicyStore
