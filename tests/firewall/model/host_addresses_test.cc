#include "firewall/model/host_addresses.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <deque>

namespace {

using namespace NetworkFirewall;
using Bytes = std::vector<std::uint8_t>;

// A hand-built interface list; entries keep their socket addresses alive.
class FakeList {
 public:
  void add4(const char* name, const char* address, const char* netmask) {
    ifaddrs& entry = newEntry(name);
    entry.ifa_addr = v4(address);
    if (netmask != nullptr) entry.ifa_netmask = v4(netmask);
  }
  void add6(const char* name, const char* address, const char* netmask) {
    ifaddrs& entry = newEntry(name);
    entry.ifa_addr = v6(address);
    if (netmask != nullptr) entry.ifa_netmask = v6(netmask);
  }
  void addOther(const char* name, sa_family_t family) {
    ifaddrs& entry = newEntry(name);
    storage_.emplace_back();
    storage_.back().ss_family = family;
    entry.ifa_addr = reinterpret_cast<sockaddr*>(&storage_.back());
  }
  void addWithoutAddress(const char* name) { newEntry(name); }
  const ifaddrs* head() const { return entries_.empty() ? nullptr : &entries_.front(); }

 private:
  ifaddrs& newEntry(const char* name) {
    entries_.emplace_back();
    ifaddrs& entry = entries_.back();
    entry.ifa_name = const_cast<char*>(name);
    if (entries_.size() > 1) entries_[entries_.size() - 2].ifa_next = &entry;
    return entry;
  }
  sockaddr* v4(const char* text) {
    storage_.emplace_back();
    auto* address = reinterpret_cast<sockaddr_in*>(&storage_.back());
    address->sin_family = AF_INET;
    EXPECT_EQ(inet_pton(AF_INET, text, &address->sin_addr), 1);
    return reinterpret_cast<sockaddr*>(address);
  }
  sockaddr* v6(const char* text) {
    storage_.emplace_back();
    auto* address = reinterpret_cast<sockaddr_in6*>(&storage_.back());
    address->sin6_family = AF_INET6;
    EXPECT_EQ(inet_pton(AF_INET6, text, &address->sin6_addr), 1);
    return reinterpret_cast<sockaddr*>(address);
  }
  std::deque<ifaddrs> entries_;
  std::deque<sockaddr_storage> storage_;
};

TEST(HostAddresses, NetmaskPrefixCountsByteByByteUpToTheFirstNonFullByte) {
  EXPECT_EQ(prefixLengthOfNetmask(Bytes{255, 255, 255, 0}), 24);
  EXPECT_EQ(prefixLengthOfNetmask(Bytes{255, 255, 240, 0}), 20);
  EXPECT_EQ(prefixLengthOfNetmask(Bytes{255, 255, 255, 255}), 32);
  EXPECT_EQ(prefixLengthOfNetmask(Bytes{0, 0, 0, 0}), 0);
  // Bits after the first byte that is not 255 are not looked at.
  EXPECT_EQ(prefixLengthOfNetmask(Bytes{255, 0, 255, 255}), 8);
  EXPECT_EQ(prefixLengthOfNetmask(Bytes{255, 254, 255, 0}), 15);
  EXPECT_EQ(prefixLengthOfNetmask(Bytes{255, 0b10110000, 0, 0}), 9);
}

TEST(HostAddresses, ConvertsIPv4AndIPv6EntriesInListOrder) {
  FakeList list;
  list.add4("lo0", "127.0.0.1", "255.0.0.0");
  list.addWithoutAddress("gif0");
  list.addOther("en0", AF_PACKET);
  list.add6("en0", "fe80::1", "ffff:ffff:ffff:ffff::");
  list.add4("en0", "192.168.1.20", "255.255.255.0");
  list.add4("utun2", "10.8.0.2", nullptr);
  list.add6("utun2", "fd00::2", nullptr);
  list.add4("en0", "192.168.1.21", "255.255.0.255");

  std::vector<HostAddress> hosts = hostAddressesFrom(list.head());
  ASSERT_EQ(hosts.size(), 6u);
  EXPECT_EQ(hosts[0], (HostAddress{"lo0", {127, 0, 0, 1}, 8}));
  EXPECT_EQ(hosts[1].interface, "en0");
  EXPECT_EQ(hosts[1].bytes.size(), 16u);
  EXPECT_EQ(hosts[1].bytes[0], 0xFE);
  EXPECT_EQ(hosts[1].bytes[15], 1);
  EXPECT_EQ(hosts[1].prefixLength, 64);
  EXPECT_EQ(hosts[2], (HostAddress{"en0", {192, 168, 1, 20}, 24}));
  EXPECT_EQ(hosts[3], (HostAddress{"utun2", {10, 8, 0, 2}, 32}));
  EXPECT_EQ(hosts[4].prefixLength, 128);
  EXPECT_EQ(hosts[5], (HostAddress{"en0", {192, 168, 1, 21}, 16}));
  EXPECT_TRUE(hostAddressesFrom(nullptr).empty());
}

TEST(HostAddresses, ThisMachinesAddressesNameExistingInterfaces) {
  for (const HostAddress& h : hostAddresses()) {
    EXPECT_TRUE(h.bytes.size() == 4 || h.bytes.size() == 16) << h.interface;
    EXPECT_NE(if_nametoindex(h.interface.c_str()), 0u) << h.interface;
    EXPECT_LE(h.prefixLength, static_cast<int>(h.bytes.size() * 8)) << h.interface;
  }
}

}  // namespace
