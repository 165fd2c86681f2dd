// FakeUserDirectory: a user and group table for tests of the administrator test and the ownership
// rule; counts every lookup so tests can show when it was not asked. Not thread-safe.
#pragma once

#include <map>

#include "platform/user_directory.h"

class FakeUserDirectory final : public UserDirectory {
 public:
  // Adds a passwd entry "user<uid>"; `groups` lists the primary group first.
  void addUser(uid_t uid, std::vector<gid_t> groups) { users_[uid] = std::move(groups); }
  void failGroupsOf(uid_t uid) { failing_ = "user" + std::to_string(uid); }  // unobtainable groups
  int lookups() const { return lookups_; }

  std::optional<User> user(uid_t uid) const override {
    ++lookups_;
    if (!users_.contains(uid)) return std::nullopt;
    return User{"user" + std::to_string(uid), users_.at(uid).front()};
  }
  std::optional<std::vector<gid_t>> groups(const std::string& name, gid_t primary) const override {
    ++lookups_;
    if (name == failing_) return std::nullopt;
    for (const auto& [uid, groups] : users_)
      if ("user" + std::to_string(uid) == name) return groups;
    return std::vector<gid_t>{primary};
  }

 private:
  std::map<uid_t, std::vector<gid_t>> users_;
  std::string failing_;
  mutable int lookups_ = 0;
};
