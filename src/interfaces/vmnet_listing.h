// The part of a macOS `ifconfig -a` listing that vmnet pruning needs: the vmnet interfaces (header
// lines at the left margin beginning with "vmenet") and the members of every bridge (indented
// "member: <name> ..." lines).
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace HelperVMNet {

struct InterfaceListing {
  std::vector<std::string> vmnets;  // in listing order, duplicates kept
  std::set<std::string> members;    // every bridge member named anywhere
};

// Reads the listing line by line (split at line feeds, empty lines dropped). Never fails: lines of
// any other shape are ignored.
InterfaceListing parseInterfaceListing(std::string_view output);

}  // namespace HelperVMNet
