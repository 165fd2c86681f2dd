// HelperUninstall: the phrase that tells the user why the uninstall clean-up left files in the
// state directory. Pure functions; safe on any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace HelperUninstall {

// The reasons for the remaining entry names: firewall files, then the VLAN record, then any other
// names as one more reason; none when nothing remains. Each reason appears once.
std::optional<std::string> explanation(std::vector<std::string> names);

// English list: "A", "A and B", "A, B, and C"; empty for no items.
std::string englishList(const std::vector<std::string>& items);

}  // namespace HelperUninstall
