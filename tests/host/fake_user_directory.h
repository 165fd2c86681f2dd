// FakeUserDirectory: a user and group table for tests of the administrator test and of the
// ownership rule. Records every lookup so tests can show when the directory was not asked.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/user_directory.h"

class FakeUserDirectory final : public UserDirectory {
 public:
  // Adds a passwd entry named "user<uid>" with its primary group and supplementary groups.
  void addUser(uid_t uid, gid_t primaryGroup, std::vector<gid_t> supplementary = {}) {
    users_[uid] = Entry{"user" + std::to_string(uid), primaryGroup, std::move(supplementary)};
  }
  // Makes the group list of the user with `uid` unobtainable.
  void failGroupsOf(uid_t uid) { users_.at(uid).groupsFail = true; }

  std::optional<User> user(uid_t uid) const override {
    ++lookups_;
    auto found = users_.find(uid);
    if (found == users_.end()) return std::nullopt;
    return User{found->second.name, found->second.primaryGroup};
  }

  std::optional<std::vector<gid_t>> groups(const std::string& name,
                                           gid_t primaryGroup) const override {
    ++lookups_;
    for (const auto& [uid, entry] : users_) {
      if (entry.name != name) continue;
      if (entry.groupsFail) return std::nullopt;
      std::vector<gid_t> all{primaryGroup};
      all.insert(all.end(), entry.supplementary.begin(), entry.supplementary.end());
      return all;
    }
    return std::vector<gid_t>{primaryGroup};
  }

  int lookups() const { return lookups_; }

 private:
  struct Entry {
    std::string name;
    gid_t primaryGroup = 0;
    std::vector<gid_t> supplementary;
    bool groupsFail = false;
  };
  std::map<uid_t, Entry> users_;
  mutable int lookups_ = 0;
};
