#include "platform/ownership.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "platform/files.h"

bool isAdministratorAccount(std::uint32_t uid, const UserDirectory& users) {
  if (uid == 0) return true;
  auto user = users.user(static_cast<uid_t>(uid));
  if (!user) return false;
  auto groups = users.groups(user->name, user->primaryGroup);
  if (!groups) return false;
  return std::find(groups->begin(), groups->end(), kAdministratorGroup) != groups->end();
}

bool nonAdministratorCanChange(const struct stat& info, const UserDirectory& users) {
  if (info.st_uid != 0 && !isAdministratorAccount(info.st_uid, users)) return true;
  if ((info.st_mode & S_IWOTH) != 0) return true;
  return (info.st_mode & S_IWGRP) != 0 && info.st_gid != 0 && info.st_gid != kAdministratorGroup;
}

std::optional<std::string> firstPathNonAdminCanChange(const std::string& path,
                                                      const UserDirectory& users) {
  std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr),
                                                       &std::free);
  if (!resolved) return path;
  std::string current = resolved.get();
  while (true) {
    struct stat info {};
    if (::lstat(current.c_str(), &info) != 0) return current;
    if (nonAdministratorCanChange(info, users)) return current;
    if (current == "/") return std::nullopt;
    current = parentPath(current);
  }
}
