// HelperProtocol: the helper's thirteen methods as one table — selector, argument and reply kinds,
// caller rule and operation name — shared by the helper and its clients. A request frame is
// {"method": "<selector>", "args": [...]}, a reply {"reply": [...]} (absent values are null) and a
// refused request {"fault": "<sentence>"} before the helper closes the connection.
// The table is constant; `handle` is safe on any thread when the operations it calls are.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "service/helper_authorization.h"

namespace HelperProtocol {

// How one argument or reply value travels: texts as JSON strings, the tag as a JSON integer
// (signed 64-bit), booleans as JSON booleans, byte buffers as base64 strings.
enum class ArgumentKind { text, tag, boolean, bytes };

// Who may call a method: anybody connected, administrators or the console user, administrators
// only, or — for the resolver switch — by direction (on: administrator or console user; off:
// administrators only).
enum class CallerRule { none, administratorOrConsoleUser, administratorOnly, byDirection };

// Reply values in the reply block's order; none is an absent value.
using Values = std::vector<std::optional<std::string>>;
struct Call;

struct Method {
  std::string_view selector;
  std::span<const ArgumentKind> arguments;  // in declared order, the reply block left out
  std::span<const ArgumentKind> replies;    // the reply block's values: text or bytes
  CallerRule rule = CallerRule::none;
  std::string_view operation;  // the name in refusals and failure lines; empty for rule none
  bool notesActivity = true;   // postpones the helper's idle exit
  bool logsFailures = false;   // a thrown error is logged as "<operation> failed: <description>"
  Values (*call)(const Call&) = nullptr;  // the helper's side: carries the method out

  std::size_t replyCount() const { return replies.size(); }
};

// All thirteen methods in the order the protocol declares them.
std::span<const Method> methods();

// The method with exactly this selector; null when there is none.
const Method* find(std::string_view selector);

// The helper's side.

// What the methods reach: the listener's bookkeeping and each subsystem's operation. main wires
// the real ones; tests pass recording fakes. Errors are thrown as exceptions whose what() is the
// sentence for the user.
struct Operations {
  std::function<void()> noteActivity;
  std::function<std::string()> versionString;
  std::function<std::string(const std::string& policyData, std::uint32_t uid, bool adoptLegacy)>
      applyFirewall;
  std::function<void(std::uint32_t uid, bool adoptLegacy)> removeFirewall;
  std::function<std::string()> firewallReport;
  std::function<std::string(const std::string& name, std::int64_t tag,
                            const std::string& parentBSD)>
      createVLAN;
  std::function<void(const std::string& bsdName)> deleteVLAN;
  std::function<std::string()> createdVLANs;  // the compact JSON array
  std::function<void()> installCLISymlink;
  std::function<void()> removeCLISymlink;
  std::function<std::string()> pruneStaleVMInterfaces;
  std::function<void(bool enabled)> setResolver;
  std::function<void()> shutdownForUpgrade;  // schedules the exit; returns at once
  std::function<std::optional<std::string>()> removeFilesForUninstall;
};

struct Service {
  Operations operations;
  HelperAuthorization::Authority authority;
};

// One decoded argument: text and bytes as std::string, the tag, a boolean.
using Argument = std::variant<std::string, std::int64_t, bool>;

// One request as a method row sees it.
struct Call {
  const Service& service;
  const std::vector<Argument>& arguments;
  std::uint32_t caller;  // the uid of the connection that carried the request
};

// The frame to send back and whether the connection closes after it.
struct Response {
  std::string payload;
  bool closeAfter = false;
};

// {"fault": "<sentence>"} as frame payload.
std::string faultPayload(std::string_view sentence);

// Decodes one request frame from `caller`, runs its method — activity, caller check, operation,
// failure line — and answers the reply. A frame that is not a well-formed request of a known
// method with the declared arguments gets a fault and closeAfter; no method runs for it.
Response handle(std::string_view payload, std::uint32_t caller, const Service& service);

}  // namespace HelperProtocol
