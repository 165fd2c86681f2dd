// Conversion of the system's interface address list (getifaddrs) into host addresses, kept apart
// from the call itself so that it can be fed hand-built lists. Stateless; any thread.
#pragma once

#include <ifaddrs.h>

#include <cstdint>
#include <span>
#include <vector>

#include "firewall/model/review.h"

namespace NetworkFirewall {

// Leading one bits of a netmask, counted byte by byte and stopping after the first byte that is
// not 255 (whose leading ones still count).
int prefixLengthOfNetmask(std::span<const std::uint8_t> netmask);

// The IPv4 and IPv6 entries of the list, in list order; entries without an address and other
// families are skipped. A missing netmask gives prefix 32 (IPv4) or 128 (IPv6).
std::vector<HostAddress> hostAddressesFrom(const ifaddrs* list);

}  // namespace NetworkFirewall
