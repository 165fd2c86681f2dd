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

bool HelperPeerCheck::accepts(const PeerProcess& peer) const {
  if (bundle_.empty()) return false;
  std::optional<ExecutableFile> running = peer.executable();
  if (!running) return false;
  bool isClient = false;
  for (std::string_view client : kClients) {
    struct stat info {};
    std::string path = bundle_ + std::string(client);
    if (::stat(path.c_str(), &info) == 0 && info.st_dev == running->device &&
        info.st_ino == running->inode) {
      isClient = true;
      break;
    }
  }
  if (!isClient) return false;
  if (strict_ && firstPathNonAdminCanChange(running->path, users_)) return false;
  // The identity was read while the process lived; make sure it still does, so a pid taken over
  // since is never let through.
  return peer.alive();
}
