#include "platform/user_directory.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>

std::optional<UserDirectory::User> SystemUserDirectory::user(uid_t uid) const {
  long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(suggested > 0 ? static_cast<size_t>(suggested) : 4096);
  while (true) {
    struct passwd entry {};
    struct passwd* found = nullptr;
    int error = ::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
    if (error == ERANGE && buffer.size() < (1u << 20)) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (error == EINTR) continue;
    if (error != 0 || found == nullptr) return std::nullopt;
    return User{entry.pw_name != nullptr ? entry.pw_name : "", entry.pw_gid};
  }
}

std::optional<std::vector<gid_t>> SystemUserDirectory::groups(const std::string& name,
                                                              gid_t primaryGroup) const {
  std::vector<gid_t> list(64);
  // getgrouplist reports the number it needs when the list is too short; a group database that
  // keeps growing between calls gives up after a few rounds.
  for (int attempt = 0; attempt < 8; ++attempt) {
    int count = static_cast<int>(list.size());
    if (::getgrouplist(name.c_str(), primaryGroup, list.data(), &count) >= 0) {
      list.resize(static_cast<size_t>(count));
      return list;
    }
    if (count <= static_cast<int>(list.size())) count = static_cast<int>(list.size()) * 2;
    list.resize(static_cast<size_t>(count));
  }
  return std::nullopt;
}

const UserDirectory& systemUserDirectory() {
  static const SystemUserDirectory directory;
  return directory;
}
