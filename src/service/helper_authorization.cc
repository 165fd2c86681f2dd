#include "service/helper_authorization.h"

#include <algorithm>

namespace HelperAuthorization {

bool isAdministrator(std::uint32_t uid, const UserDirectory& users) {
  if (uid == 0) return true;
  auto user = users.user(static_cast<uid_t>(uid));
  if (!user) return false;
  auto groups = users.groups(user->name, user->primaryGroup);
  if (!groups) return false;
  return std::find(groups->begin(), groups->end(), kAdministratorGroup) != groups->end();
}

}  // namespace HelperAuthorization
