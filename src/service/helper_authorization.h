// HelperAuthorization: who may have the helper change the system. For now the administrator test
// that the caller check and the ownership rule of the command-line links share.
// Stateless; safe to call from any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "platform/user_directory.h"

namespace HelperAuthorization {

// The administrators' group.
inline constexpr gid_t kAdministratorGroup = 80;

// True for root (answered without asking the directory) and for any user whose primary or
// supplementary groups include group 80. A uid without a passwd entry, or whose groups cannot be
// listed, is not an administrator.
bool isAdministrator(std::uint32_t uid, const UserDirectory& users = systemUserDirectory());

}  // namespace HelperAuthorization
