#include "firewall/model/host_addresses.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>

namespace NetworkFirewall {

int prefixLengthOfNetmask(std::span<const std::uint8_t> netmask) {
  int length = 0;
  for (std::uint8_t byte : netmask) {
    if (byte == 0xFF) {
      length += 8;
      continue;
    }
    for (int bit = 7; bit >= 0 && ((byte >> bit) & 1) != 0; --bit) ++length;
    break;
  }
  return length;
}

namespace {

// The bytes of an address of the family's size, copied out of the socket address.
template <std::size_t N>
std::vector<std::uint8_t> bytesOf(const void* address) {
  std::vector<std::uint8_t> bytes(N);
  std::memcpy(bytes.data(), address, N);
  return bytes;
}

}  // namespace

std::vector<HostAddress> hostAddressesFrom(const ifaddrs* list) {
  std::vector<HostAddress> out;
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr) continue;
    HostAddress host;
    host.interface = entry->ifa_name != nullptr ? entry->ifa_name : "";
    if (entry->ifa_addr->sa_family == AF_INET) {
      const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
      host.bytes = bytesOf<4>(&address->sin_addr);
      host.prefixLength = 32;
      if (entry->ifa_netmask != nullptr) {
        const auto* mask = reinterpret_cast<const sockaddr_in*>(entry->ifa_netmask);
        host.prefixLength = prefixLengthOfNetmask(bytesOf<4>(&mask->sin_addr));
      }
    } else if (entry->ifa_addr->sa_family == AF_INET6) {
      const auto* address = reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr);
      host.bytes = bytesOf<16>(&address->sin6_addr);
      host.prefixLength = 128;
      if (entry->ifa_netmask != nullptr) {
        const auto* mask = reinterpret_cast<const sockaddr_in6*>(entry->ifa_netmask);
        host.prefixLength = prefixLengthOfNetmask(bytesOf<16>(&mask->sin6_addr));
      }
    } else {
      continue;
    }
    out.push_back(std::move(host));
  }
  return out;
}

std::vector<HostAddress> hostAddresses() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return {};
  std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, &freeifaddrs);
  return hostAddressesFrom(list);
}

}  // namespace NetworkFirewall
