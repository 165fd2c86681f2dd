#include "service/helper_peer_check.h"

#include <sys/stat.h>

#include <array>
#include <string_view>

#include "platform/ownership.h"

namespace {

constexpr std::string_view kHelperInBundle = "/Contents/Helpers/TarnlyAdminHelper";
constexpr std::array<std::string_view, 2> kClients = {"/Contents/MacOS/Tarnly",
                                                      "/Contents/Helpers/TarnlyService"};

}  // namespace

HelperPeerCheck::HelperPeerCheck(const std::string& helperExecutable, const UserDirectory& users)
    : users_(users) {
  std::string_view path = helperExecutable;
  if (path.size() > kHelperInBundle.size() && path.ends_with(kHelperInBundle)) {
    bundle_ = std::string(path.substr(0, path.size() - kHelperInBundle.size()));
    strict_ = !firstPathNonAdminCanChange(helperExecutable, users_);
  }
}

bool HelperPeerCheck::onlyAdministratorsCanChange(const struct stat& file,
                                                  std::string_view client) const {
  if (nonAdministratorCanChange(file, users_)) return false;
  // The folders inside the bundle, up to the bundle itself; the folders above it are the helper's
  // own, found unchangeable by non-administrators when the check was made.
  std::string folder = bundle_ + std::string(client);
  while (folder.size() > bundle_.size()) {
    folder.resize(folder.rfind('/'));
    struct stat info {};
    if (::lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) ||
        nonAdministratorCanChange(info, users_)) {
      return false;
    }
  }
  return true;
}

bool HelperPeerCheck::accepts(const PeerProcess& peer) const {
  if (bundle_.empty()) return false;
  std::optional<FileIdentity> running = peer.executableIdentity();
  if (!running) return false;
  for (std::string_view client : kClients) {
    // The bundle's own file, never a link planted in its place; in the strict form the file and
    // every folder above it pass the ownership rule.
    struct stat info {};
    std::string path = bundle_ + std::string(client);
    if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) ||
        FileIdentity{info.st_dev, info.st_ino} != *running) {
      continue;
    }
    if (strict_ && !onlyAdministratorsCanChange(info, client)) return false;
    // The identity was read while the process lived; make sure it still does, so a pid taken
    // over since is never let through.
    return peer.alive();
  }
  return false;
}
