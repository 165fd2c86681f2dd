#include "service/helper_authorization.h"

namespace HelperAuthorization {

bool isAdministrator(std::uint32_t uid, const UserDirectory& users) {
  return isAdministratorAccount(uid, users);
}

std::optional<std::uint32_t> consoleUserID(const ConsoleUserSource& source) {
  return source ? source() : std::nullopt;
}

std::optional<std::string> refusal(bool adminOnly, std::string_view operation, std::uint32_t caller,
                                   const Authority& authority) {
  if (isAdministrator(caller, authority.users)) return std::nullopt;
  if (!adminOnly && consoleUserID(authority.consoleUser) == caller) return std::nullopt;
  authority.log.write(
      "Refused " + std::string(operation) + " for uid " + std::to_string(caller) +
      (adminOnly ? ": not an administrator." : ": not an administrator or the console user."));
  return std::string(kRefusalText);
}

}  // namespace HelperAuthorization
