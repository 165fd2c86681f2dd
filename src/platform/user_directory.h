// UserDirectory: the system's user and group database as the caller check needs it — a user's
// passwd entry and the groups a user belongs to. SystemUserDirectory asks getpwuid_r and
// getgrouplist; tests pass a table of their own. Implementations are safe to call from any thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

class UserDirectory {
 public:
  // What the passwd entry of a user says about its groups.
  struct User {
    std::string name;
    gid_t primaryGroup = 0;
  };

  UserDirectory() = default;
  UserDirectory(const UserDirectory&) = delete;
  UserDirectory& operator=(const UserDirectory&) = delete;
  virtual ~UserDirectory() = default;

  // The passwd entry of `uid`; none when there is no entry or the lookup fails.
  virtual std::optional<User> user(uid_t uid) const = 0;

  // Every group of the named user: `primaryGroup` and the supplementary groups of the group
  // database. None when the lookup fails.
  virtual std::optional<std::vector<gid_t>> groups(const std::string& name,
                                                   gid_t primaryGroup) const = 0;
};

// The database of this machine (getpwuid_r, getgrouplist). Asks afresh at every call.
class SystemUserDirectory final : public UserDirectory {
 public:
  std::optional<User> user(uid_t uid) const override;
  std::optional<std::vector<gid_t>> groups(const std::string& name,
                                           gid_t primaryGroup) const override;
};

// The one process-wide SystemUserDirectory.
const UserDirectory& systemUserDirectory();
