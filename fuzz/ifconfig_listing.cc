// The `ifconfig -a` listing as vmnet pruning reads it. Every vmnet named comes from a header line
// of the listing and every member from a "member: " line; adding lines of another shape changes
// nothing.
#include "fuzz_check.h"
#include "interfaces/vmnet_listing.h"

FUZZ_TARGET(output) {
  const HelperVMNet::InterfaceListing listing = HelperVMNet::parseInterfaceListing(output);
  const std::string lines = "\n" + std::string(output);
  for (const std::string& vmnet : listing.vmnets) {
    FUZZ_CHECK(vmnet.starts_with("vmenet") && vmnet.find_first_of(":\n") == std::string::npos);
    FUZZ_CHECK(lines.find("\n" + vmnet) != std::string::npos);
  }
  for (const std::string& member : listing.members) {
    FUZZ_CHECK(!member.empty() && member.find_first_of(" \n") == std::string::npos);
    FUZZ_CHECK(output.find(member) != std::string_view::npos);
  }
  const HelperVMNet::InterfaceListing same = HelperVMNet::parseInterfaceListing(
      "lo0: flags=8049<UP,LOOPBACK> mtu 16384\n\n" + std::string(output) + "\n\tstatus: active\n");
  FUZZ_CHECK(same.vmnets == listing.vmnets && same.members == listing.members);
}
