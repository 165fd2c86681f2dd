// The `ifconfig -a` listing as vmnet pruning reads it. Every vmnet named comes from a header line
// of the listing and every member from a "member: " line; adding lines of another shape changes
// nothing.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_check.h"
#include "interfaces/vmnet_listing.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view output(reinterpret_cast<const char*>(data), size);
  const HelperVMNet::InterfaceListing listing = HelperVMNet::parseInterfaceListing(output);
  for (const std::string& vmnet : listing.vmnets) {
    FUZZ_CHECK(vmnet.starts_with("vmenet"));
    FUZZ_CHECK(vmnet.find(':') == std::string::npos && vmnet.find('\n') == std::string::npos);
    FUZZ_CHECK(output.find(vmnet) != std::string_view::npos);
  }
  for (const std::string& member : listing.members) {
    FUZZ_CHECK(!member.empty() && member.find(' ') == std::string::npos);
    FUZZ_CHECK(output.find("member: " + member) != std::string_view::npos ||
               output.find(member) != std::string_view::npos);
  }
  const std::string padded =
      "lo0: flags=8049<UP,LOOPBACK> mtu 16384\n\n" + std::string(output) + "\n\tstatus: active\n";
  const HelperVMNet::InterfaceListing same = HelperVMNet::parseInterfaceListing(padded);
  FUZZ_CHECK(same.vmnets == listing.vmnets && same.members == listing.members);
  return 0;
}
