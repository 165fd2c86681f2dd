// HelperAuthorization: who may have the helper change the system — administrators always, the
// console user for the everyday requests, nobody else — with the refusal text and its log line.
// Stateless; every call asks the user directory and the console-user source afresh. Safe to call
// from any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/console_user.h"
#include "platform/ownership.h"
#include "platform/user_directory.h"
#include "service/helper_log.h"

namespace HelperAuthorization {

// The administrators' group.
inline constexpr gid_t kAdministratorGroup = ::kAdministratorGroup;

// The one text every refused request gets.
inline constexpr std::string_view kRefusalText =
    "Only an administrator of this Mac can make this change through Tarnly's helper.";

// Where the console user comes from: the uid at the console, or none.
using ConsoleUserSource = std::function<std::optional<std::uint32_t>()>;

// What the caller check asks and where it logs refusals.
struct Authority {
  const UserDirectory& users;
  ConsoleUserSource consoleUser;
  HelperLog& log;
};

// True for root (answered without asking the directory) and for any user whose primary or
// supplementary groups include group 80. A uid without a passwd entry, or whose groups cannot be
// listed, is not an administrator.
bool isAdministrator(std::uint32_t uid, const UserDirectory& users = systemUserDirectory());

// The console user's uid; none when nobody is logged in at the console, the login screen shows,
// or the source cannot say.
std::optional<std::uint32_t> consoleUserID(const ConsoleUserSource& source = activeConsoleUser);

// Whether `caller` may run `operation`: none for an administrator, and — when `adminOnly` is false
// — for the console user. Otherwise logs "Refused <operation> for uid <caller>: not an
// administrator." (adminOnly) or "...: not an administrator or the console user." and returns
// kRefusalText. An administrator never causes a console-user lookup.
std::optional<std::string> refusal(bool adminOnly, std::string_view operation, std::uint32_t caller,
                                   const Authority& authority);

}  // namespace HelperAuthorization
