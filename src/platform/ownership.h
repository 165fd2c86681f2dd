// The ownership rule: whether someone who isn't an administrator (root or a member of group 80)
// could change a file or folder, and the walk that applies it to a path and every folder above.
// The command-line links and the socket's peer check share it. Safe on any thread.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "platform/user_directory.h"

// The administrators' group.
inline constexpr gid_t kAdministratorGroup = 80;

// True for root (answered without asking the directory) and for any user whose primary or
// supplementary groups include group 80. A uid without a passwd entry, or whose groups cannot be
// listed, is not an administrator.
bool isAdministratorAccount(std::uint32_t uid, const UserDirectory& users);

// True when someone who isn't an administrator could change an item with this owner, group and
// mode: a non-administrator owner, world-writable, or group-writable for a group other than root's
// and the administrators'.
bool nonAdministratorCanChange(const struct stat& info, const UserDirectory& users);

// Walks from the canonical form of `path` up to "/" and answers the first path that fails the
// ownership rule or cannot be examined; none when every step passes. A path that cannot be
// canonicalised is answered as given.
std::optional<std::string> firstPathNonAdminCanChange(const std::string& path,
                                                      const UserDirectory& users);
