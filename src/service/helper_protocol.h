// HelperProtocol: the helper's thirteen methods as one table — selector, argument and reply kinds,
// caller rule and operation name — shared by the helper and its clients. A request frame is
// {"method": "<selector>", "args": [...]}, a reply {"reply": [...]} (absent values are null) and a
// refused request {"fault": "<sentence>"} before the helper closes the connection.
// The table is constant; everything here is safe on any thread.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace HelperProtocol {

// How one argument or reply value travels: texts as JSON strings, the tag as a JSON integer
// (signed 64-bit), booleans as JSON booleans, byte buffers as base64 strings.
enum class ArgumentKind { text, tag, boolean, bytes };

// Who may call a method: anybody connected, administrators or the console user, administrators
// only, or — for the resolver switch — by direction (on: administrator or console user; off:
// administrators only).
enum class CallerRule { none, administratorOrConsoleUser, administratorOnly, byDirection };

struct Method {
  std::string_view selector;
  std::span<const ArgumentKind> arguments;  // in declared order, the reply block left out
  std::span<const ArgumentKind> replies;    // the reply block's values: text or bytes
  CallerRule rule = CallerRule::none;
  std::string_view operation;  // the name in refusals and failure lines; empty for rule none

  std::size_t replyCount() const { return replies.size(); }
};

// All thirteen methods in the order the protocol declares them.
std::span<const Method> methods();

// The method with exactly this selector; null when there is none.
const Method* find(std::string_view selector);

}  // namespace HelperProtocol
