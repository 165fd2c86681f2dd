#include "firewall/model/host_addresses.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <deque>

namespace {

using namespace NetworkFirewall;
using Bytes = std::vector<std::uint8_t>;

// A hand-built interface list; entries keep their socket addresses alive.
class FakeList {
 public:
  // Adds an entry; a null address gives an entry without one, family AF_PACKET one of another kind.
  void add(const char* name, int family, const char* address, const char* netmask = nullptr) {
    entries_.emplace_back();
    ifaddrs& entry = entries_.back();
    entry.ifa_name = const_cast<char*>(name);
    if (entries_.size() > 1) entries_[entries_.size() - 2].ifa_next = &entry;
    if (address != nullptr) entry.ifa_addr = socketAddress(family, address);
    if (netmask != nullptr) entry.ifa_netmask = socketAddress(family, netmask);
  }
  const ifaddrs* head() const { return entries_.empty() ? nullptr : &entries_.front(); }

 private:
  sockaddr* socketAddress(int family, const char* text) {
    sockaddr_storage& storage = storage_.emplace_back();
    storage.ss_family = static_cast<sa_family_t>(family);
    void* bytes = family == AF_INET6
                      ? static_cast<void*>(&reinterpret_cast<sockaddr_in6*>(&storage)->sin6_addr)
                      : static_cast<void*>(&reinterpret_cast<sockaddr_in*>(&storage)->sin_addr);
    if (family != AF_PACKET) {
      EXPECT_EQ(inet_pton(family, text, bytes), 1) << text;
    }
    return reinterpret_cast<sockaddr*>(&storage);
  }
  std::deque<ifaddrs> entries_;
  std::deque<sockaddr_storage> storage_;
};

TEST(HostAddresses, NetmaskPrefixCountsByteByByteUpToTheFirstNonFullByte) {
  EXPECT_EQ(prefixLengthOfNetmask(Bytes{255, 255, 255, 0}), 24);
  EXPECT_EQ(prefixLengthOfNetmask(Bytes{255, 255, 240, 0}), 20);
  // Bits after the first byte that is not 255 are not looked at.
  EXPECT_EQ(prefixLengthOfNetmask(Bytes{255, 0, 255, 255}), 8);
  EXPECT_EQ(prefixLengthOfNetmask(Bytes{255, 0b10110000, 0, 0}), 9);
}

TEST(HostAddresses, ConvertsIPv4AndIPv6EntriesInListOrder) {
  FakeList list;
  list.add("lo0", AF_INET, "127.0.0.1", "255.0.0.0");
  list.add("gif0", AF_INET, nullptr);
  list.add("en0", AF_PACKET, "");
  list.add("en0", AF_INET6, "fe80::1", "ffff:ffff:ffff:ffff::");
  list.add("en0", AF_INET, "192.168.1.20", "255.255.255.0");
  list.add("utun2", AF_INET, "10.8.0.2");
  list.add("utun2", AF_INET6, "fd00::2");
  list.add("en0", AF_INET, "192.168.1.21", "255.255.0.255");

  std::vector<HostAddress> hosts = hostAddressesFrom(list.head());
  ASSERT_EQ(hosts.size(), 6u);
  EXPECT_EQ(hosts[0], (HostAddress{"lo0", {127, 0, 0, 1}, 8}));
  EXPECT_EQ(hosts[1],
            (HostAddress{"en0", {0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 64}));
  EXPECT_EQ(hosts[2], (HostAddress{"en0", {192, 168, 1, 20}, 24}));
  EXPECT_EQ(hosts[3], (HostAddress{"utun2", {10, 8, 0, 2}, 32}));
  EXPECT_EQ(hosts[4].prefixLength, 128);
  EXPECT_EQ(hosts[5], (HostAddress{"en0", {192, 168, 1, 21}, 16}));
  EXPECT_TRUE(hostAddressesFrom(nullptr).empty());
}

}  // namespace
