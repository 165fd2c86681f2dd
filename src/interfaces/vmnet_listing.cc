#include "interfaces/vmnet_listing.h"

#include "platform/text.h"

namespace HelperVMNet {

InterfaceListing parseInterfaceListing(std::string_view output) {
  static constexpr std::string_view kVMNetPrefix = "vmenet";
  static constexpr std::string_view kMemberPrefix = "member: ";
  InterfaceListing listing;
  for (std::string_view line : split(output, '\n', false)) {
    if (line.starts_with(kVMNetPrefix)) {
      // "vmenet3: flags=..." -> "vmenet3"; the line is never empty, so neither is the piece.
      listing.vmnets.emplace_back(split(line, ':', false).front());
      continue;
    }
    std::string_view trimmed = trimSpaces(line);
    if (!trimmed.starts_with(kMemberPrefix)) continue;
    std::vector<std::string_view> pieces = split(trimmed, ' ', false);
    if (pieces.size() >= 2) listing.members.emplace(pieces[1]);
  }
  return listing;
}

}  // namespace HelperVMNet
