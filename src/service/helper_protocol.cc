#include "service/helper_protocol.h"

#include <array>
#include <exception>
#include <limits>

#include <nlohmann/json.hpp>

#include "platform/base64.h"

namespace HelperProtocol {
namespace {

using K = ArgumentKind;
using R = CallerRule;
using nlohmann::json;

const std::string& text(const Call& call, std::size_t index) {
  return std::get<std::string>(call.arguments[index]);
}

// adoptLegacy: the firewall may take over networks stored before owners were recorded when the
// caller is the console user or nobody is at the console.
bool adoptLegacy(const Call& call) {
  std::optional<std::uint32_t> console =
      HelperAuthorization::consoleUserID(call.service.authority.consoleUser);
  return !console || *console == call.caller;
}

const Operations& ops(const Call& call) {
  return call.service.operations;
}

Values version(const Call& call) {
  return {ops(call).versionString()};
}
Values applyFirewall(const Call& call) {
  return {ops(call).applyFirewall(text(call, 0), call.caller, adoptLegacy(call)), std::nullopt};
}
Values removeFirewall(const Call& call) {
  ops(call).removeFirewall(call.caller, adoptLegacy(call));
  return {std::nullopt};
}
Values firewallReport(const Call& call) {
  return {ops(call).firewallReport(), std::nullopt};
}
Values createVLAN(const Call& call) {
  return {
      ops(call).createVLAN(text(call, 0), std::get<std::int64_t>(call.arguments[1]), text(call, 2)),
      std::nullopt};
}
Values deleteVLAN(const Call& call) {
  ops(call).deleteVLAN(text(call, 0));
  return {std::nullopt};
}
Values createdVLANs(const Call& call) {
  return {ops(call).createdVLANs(), std::nullopt};
}
Values installCLISymlink(const Call& call) {
  ops(call).installCLISymlink();
  return {std::nullopt};
}
Values removeCLISymlink(const Call& call) {
  ops(call).removeCLISymlink();
  return {std::nullopt};
}
Values pruneStale(const Call& call) {
  return {ops(call).pruneStaleVMInterfaces(), std::nullopt};
}
Values setResolver(const Call& call) {
  ops(call).setResolver(std::get<bool>(call.arguments[0]));
  return {std::nullopt};
}
Values shutdownForUpgrade(const Call& call) {
  ops(call).shutdownForUpgrade();
  return {};
}
Values removeFilesForUninstall(const Call& call) {
  return {ops(call).removeFilesForUninstall(), std::nullopt};
}

constexpr std::array<K, 0> kNone{};
constexpr std::array<K, 1> kText{K::text};
constexpr std::array<K, 1> kBytes{K::bytes};
constexpr std::array<K, 1> kBoolean{K::boolean};
constexpr std::array<K, 3> kTextTagText{K::text, K::tag, K::text};
constexpr std::array<K, 2> kTextText{K::text, K::text};
constexpr std::array<K, 2> kBytesText{K::bytes, K::text};

// selector, arguments, replies, caller rule, operation, notes activity, logs failures, call
constexpr std::array<Method, 13> kMethods{{
    {"helperVersionWithReply:", kNone, kText, R::none, "", true, false, version},
    {"applyFirewallWithPolicyData:withReply:", kBytes, kTextText, R::administratorOrConsoleUser,
     "applyFirewall", true, true, applyFirewall},
    {"removeFirewallWithReply:", kNone, kText, R::administratorOrConsoleUser, "removeFirewall",
     true, true, removeFirewall},
    {"firewallReportWithReply:", kNone, kTextText, R::none, "", true, false, firewallReport},
    {"createVLANWithName:tag:parentBSD:withReply:", kTextTagText, kTextText, R::administratorOnly,
     "createVLAN", true, true, createVLAN},
    {"deleteVLANWithBsdName:withReply:", kText, kText, R::administratorOnly, "deleteVLAN", true,
     true, deleteVLAN},
    {"createdVLANsWithReply:", kNone, kBytesText, R::none, "", true, false, createdVLANs},
    {"installCLISymlinkWithReply:", kNone, kText, R::administratorOrConsoleUser,
     "installCLISymlink", true, true, installCLISymlink},
    {"removeCLISymlinkWithReply:", kNone, kText, R::administratorOrConsoleUser, "removeCLISymlink",
     true, true, removeCLISymlink},
    {"pruneStaleVMInterfacesWithReply:", kNone, kTextText, R::administratorOrConsoleUser,
     "pruneStaleVMInterfaces", true, false, pruneStale},
    {"setTarnlyResolverWithEnabled:withReply:", kBoolean, kText, R::byDirection,
     "setTarnlyResolver", true, true, setResolver},
    {"shutdownForUpgradeWithReply:", kNone, kNone, R::administratorOrConsoleUser,
     "shutdownForUpgrade", false, false, shutdownForUpgrade},
    {"removeFilesForUninstallWithReply:", kNone, kTextText, R::administratorOrConsoleUser,
     "removeFilesForUninstall", true, false, removeFilesForUninstall},
}};

// Texts leave as JSON strings, with bytes that are not UTF-8 replaced.
std::string dump(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

Response fault(const std::string& sentence) {
  return {faultPayload(sentence), true};
}

std::string_view kindName(K kind) {
  switch (kind) {
    case K::text:
      return "a string";
    case K::tag:
      return "a 64-bit integer";
    case K::boolean:
      return "true or false";
    case K::bytes:
      return "a base64 string";
  }
  return "";
}

// The argument of `kind` in `value`; none when it has another type.
std::optional<Argument> decodeArgument(K kind, const json& value) {
  switch (kind) {
    case K::text:
      if (value.is_string()) return Argument(value.get<std::string>());
      break;
    case K::tag:
      if (value.is_number_integer() && !value.is_number_unsigned()) {
        return Argument(value.get<std::int64_t>());
      }
      if (value.is_number_unsigned() &&
          value.get<std::uint64_t>() <=
              static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return Argument(static_cast<std::int64_t>(value.get<std::uint64_t>()));
      }
      break;
    case K::boolean:
      if (value.is_boolean()) return Argument(value.get<bool>());
      break;
    case K::bytes:
      if (value.is_string()) {
        if (auto bytes = Base64::decode(value.get_ref<const std::string&>())) {
          return Argument(std::move(*bytes));
        }
      }
      break;
  }
  return std::nullopt;
}

std::string replyPayload(const Method& method, const Values& values) {
  json reply = json::array();
  for (std::size_t i = 0; i < method.replies.size(); ++i) {
    const std::optional<std::string>& value = i < values.size() ? values[i] : std::nullopt;
    if (!value) {
      reply.push_back(nullptr);
    } else if (method.replies[i] == K::bytes) {
      reply.push_back(Base64::encode(*value));
    } else {
      reply.push_back(*value);
    }
  }
  return dump(json{{"reply", std::move(reply)}});
}

// Every value absent but the last, which carries `error` (nothing for a reply without values).
Values errorValues(const Method& method, std::string error) {
  Values values(method.replies.size());
  if (!values.empty()) values.back() = std::move(error);
  return values;
}

Values run(const Method& method, const Call& call) {
  const Service& service = call.service;
  if (method.notesActivity && service.operations.noteActivity) service.operations.noteActivity();
  if (method.rule != R::none) {
    bool adminOnly = method.rule == R::administratorOnly ||
                     (method.rule == R::byDirection && !std::get<bool>(call.arguments[0]));
    if (auto refused = HelperAuthorization::refusal(adminOnly, method.operation, call.caller,
                                                    service.authority)) {
      return errorValues(method, std::move(*refused));
    }
  }
  std::string description;
  try {
    return method.call(call);
  } catch (const std::exception& error) {
    description = error.what();
  } catch (...) {
    description = "The helper ran into an unexpected error.";
  }
  if (method.logsFailures) {
    service.authority.log.write(std::string(method.operation) + " failed: " + description);
  }
  return errorValues(method, std::move(description));
}

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

std::string faultPayload(std::string_view sentence) {
  return dump(json{{"fault", std::string(sentence)}});
}

Response handle(std::string_view payload, std::uint32_t caller, const Service& service) {
  json request = json::parse(payload.begin(), payload.end(), nullptr, false);
  if (request.is_discarded()) return fault("The request is not valid JSON.");
  if (!request.is_object() || !request.contains("method") || !request["method"].is_string() ||
      !request.contains("args") || !request["args"].is_array()) {
    return fault("The request must be a JSON object with a method name and an argument list.");
  }
  const std::string& selector = request["method"].get_ref<const std::string&>();
  const Method* method = find(selector);
  if (method == nullptr) return fault("The helper has no method named " + selector + ".");
  const json& args = request["args"];
  if (args.size() != method->arguments.size()) {
    return fault(selector + " takes " + std::to_string(method->arguments.size()) +
                 (method->arguments.size() == 1 ? " argument, not " : " arguments, not ") +
                 std::to_string(args.size()) + ".");
  }
  std::vector<Argument> arguments;
  arguments.reserve(args.size());
  for (std::size_t i = 0; i < args.size(); ++i) {
    std::optional<Argument> argument = decodeArgument(method->arguments[i], args[i]);
    if (!argument) {
      return fault("Argument " + std::to_string(i + 1) + " of " + selector + " must be " +
                   std::string(kindName(method->arguments[i])) + ".");
    }
    arguments.push_back(std::move(*argument));
  }
  return {replyPayload(*method, run(*method, Call{service, arguments, caller})), false};
}

}  // namespace HelperProtocol
