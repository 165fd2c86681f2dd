#include "firewall/model/host_addresses.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace {

using namespace NetworkFirewall;

// Entries without an address and of other families are skipped; a netmask counts byte by byte
// up to and including the first byte that is not 255.
TEST(HostAddresses, ConvertsIPv4AndIPv6EntriesInListOrder) {
  // clang-format off
  const std::vector<std::tuple<const char*, int, const char*, const char*>> entries = {
      {"gif0", AF_INET, nullptr, nullptr}, {"en0", AF_PACKET, "", nullptr},
      {"en0", AF_INET6, "fe80::1", "ffff:ffff:ffff:ffff::"},
      {"en0", AF_INET, "192.168.1.20", "255.255.240.0"}, {"utun2", AF_INET, "10.8.0.2", nullptr},
      {"utun2", AF_INET6, "fd00::2", nullptr}, {"en0", AF_INET, "192.168.1.21", "255.176.255.255"}};
  // clang-format on
  std::vector<ifaddrs> list(entries.size());
  std::vector<sockaddr_in6> addresses(2 * entries.size());
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const auto& [name, family, address, netmask] = entries[i];
    list[i].ifa_name = const_cast<char*>(name);
    list[i].ifa_next = i + 1 < list.size() ? &list[i + 1] : nullptr;
    for (auto [text, slot, field] :
         {std::tuple{address, &addresses[2 * i], &list[i].ifa_addr},
          std::tuple{netmask, &addresses[2 * i + 1], &list[i].ifa_netmask}}) {
      if (text == nullptr) continue;
      slot->sin6_family = static_cast<sa_family_t>(family);
      void* sin = &reinterpret_cast<sockaddr_in*>(slot)->sin_addr;
      EXPECT_TRUE(family == AF_PACKET ||
                  inet_pton(family, text, family == AF_INET ? sin : &slot->sin6_addr) == 1);
      *field = reinterpret_cast<sockaddr*>(slot);
    }
  }
  EXPECT_EQ(
      hostAddressesFrom(list.data()),
      (std::vector<HostAddress>{{"en0", {0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 64},
                                {"en0", {192, 168, 1, 20}, 20},
                                {"utun2", {10, 8, 0, 2}, 32},
                                {"utun2", {0xFD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}, 128},
                                {"en0", {192, 168, 1, 21}, 9}}));
}

}  // namespace
