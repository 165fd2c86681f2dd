// The stored networks of every owner, in the owners form or the legacy bare array. Whatever
// decodes re-encodes to a document that decodes to the same owners, and encoding is stable from
// then on; an owner's replace leaves the other owners' entries alone.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "firewall/enforce/policy_store.h"
#include "fuzz_check.h"

namespace Store = NetworkFirewall::PolicyStore;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::optional<Store::Owners> owners =
      Store::decoded(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!owners) return 0;
  // Dates are kept to the microsecond, so the first encoding may round the document's seconds;
  // from then on the form is a fixed point.
  const std::string once = Store::encoded(*owners);
  const std::optional<Store::Owners> again = Store::decoded(once);
  FUZZ_CHECK(again.has_value());
  FUZZ_CHECK(Store::encoded(*again) == once);
  for (const auto& [key, entry] : *owners) {
    const auto& reread = again->at(key);
    FUZZ_CHECK(reread.policies == entry.policies);
  }

  Store::Owners changed = *again;
  const std::string owner = Store::ownerKey(501);
  const std::vector<FirewallNetworkPolicy> previous =
      Store::replace(changed, owner, {}, TimePoint{}, false);
  if (auto own = again->find(owner); own != again->end()) {
    FUZZ_CHECK(previous == own->second.policies);
  }
  FUZZ_CHECK(!changed.contains(owner));
  for (const auto& [key, entry] : changed) FUZZ_CHECK(again->at(key) == entry);
  return 0;
}
