// The stored networks of every owner, in the owners form or the legacy bare array. Whatever
// decodes re-encodes to a document that decodes to the same owners, and encoding is stable from
// then on; an owner's replace returns its networks and leaves the other owners' entries alone.
#include "firewall/enforce/policy_store.h"
#include "fuzz_check.h"

namespace Store = NetworkFirewall::PolicyStore;

FUZZ_TARGET(text) {
  const std::optional<Store::Owners> owners = Store::decoded(text);
  if (!owners) return;
  // Dates are kept to the microsecond, so the first encoding may round the document's seconds;
  // from then on the form is a fixed point.
  const std::string once = Store::encoded(*owners);
  const std::optional<Store::Owners> again = Store::decoded(once);
  FUZZ_CHECK(again.has_value() && Store::encoded(*again) == once &&
             again->size() == owners->size());
  for (const auto& [key, entry] : *owners) FUZZ_CHECK(again->at(key).policies == entry.policies);
  Store::Owners changed = *again;
  const std::string owner = Store::ownerKey(501);
  const auto previous = Store::replace(changed, owner, {}, TimePoint{}, false);
  const auto own = again->find(owner);
  FUZZ_CHECK(previous == (own == again->end() ? decltype(previous){} : own->second.policies));
  FUZZ_CHECK(!changed.contains(owner) && changed.size() + (own != again->end()) == again->size());
  for (const auto& [key, entry] : changed) FUZZ_CHECK(again->at(key) == entry);
}
