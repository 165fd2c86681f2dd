#include "service/helper_protocol.h"

#include <array>

namespace HelperProtocol {
namespace {

using K = ArgumentKind;
using R = CallerRule;

constexpr std::array<K, 0> kNone{};
constexpr std::array<K, 1> kText{K::text};
constexpr std::array<K, 1> kBytes{K::bytes};
constexpr std::array<K, 1> kBoolean{K::boolean};
constexpr std::array<K, 3> kTextTagText{K::text, K::tag, K::text};
constexpr std::array<K, 2> kTextText{K::text, K::text};
constexpr std::array<K, 2> kBytesText{K::bytes, K::text};

constexpr std::array<Method, 13> kMethods{{
    {"helperVersionWithReply:", kNone, kText, R::none, ""},
    {"applyFirewallWithPolicyData:withReply:", kBytes, kTextText, R::administratorOrConsoleUser,
     "applyFirewall"},
    {"removeFirewallWithReply:", kNone, kText, R::administratorOrConsoleUser, "removeFirewall"},
    {"firewallReportWithReply:", kNone, kTextText, R::none, ""},
    {"createVLANWithName:tag:parentBSD:withReply:", kTextTagText, kTextText, R::administratorOnly,
     "createVLAN"},
    {"deleteVLANWithBsdName:withReply:", kText, kText, R::administratorOnly, "deleteVLAN"},
    {"createdVLANsWithReply:", kNone, kBytesText, R::none, ""},
    {"installCLISymlinkWithReply:", kNone, kText, R::administratorOrConsoleUser,
     "installCLISymlink"},
    {"removeCLISymlinkWithReply:", kNone, kText, R::administratorOrConsoleUser, "removeCLISymlink"},
    {"pruneStaleVMInterfacesWithReply:", kNone, kTextText, R::administratorOrConsoleUser,
     "pruneStaleVMInterfaces"},
    {"setTarnlyResolverWithEnabled:withReply:", kBoolean, kText, R::byDirection,
     "setTarnlyResolver"},
    {"shutdownForUpgradeWithReply:", kNone, kNone, R::administratorOrConsoleUser,
     "shutdownForUpgrade"},
    {"removeFilesForUninstallWithReply:", kNone, kTextText, R::administratorOrConsoleUser,
     "removeFilesForUninstall"},
}};

}  // namespace

std::span<const Method> methods() {
  return kMethods;
}

const Method* find(std::string_view selector) {
  for (const Method& method : kMethods) {
    if (method.selector == selector) return &method;
  }
  return nullptr;
}

}  // namespace HelperProtocol
