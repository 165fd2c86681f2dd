#include "service/helper_peer_check.h"

#include <string_view>

#include "platform/ownership.h"

namespace {

constexpr std::string_view kHelperInBundle = "/Contents/Helpers/TarnlyAdminHelper";
constexpr std::array<std::string_view, 2> kClients = {"/Contents/MacOS/Tarnly",
                                                      "/Contents/Helpers/TarnlyService"};
// What the bundle's contents are watched at: the bundle, its folders, the client files.
constexpr std::array<std::string_view, 6> kWatched = {
    "", "/Contents", "/Contents/MacOS", "/Contents/Helpers", kClients[0], kClients[1]};

}  // namespace

HelperPeerCheck::HelperPeerCheck(const std::string& helperExecutable, const UserDirectory& users)
    : users_(users) {
  std::string_view path = helperExecutable;
  if (path.size() > kHelperInBundle.size() && path.ends_with(kHelperInBundle)) {
    bundle_ = std::string(path.substr(0, path.size() - kHelperInBundle.size()));
    strict_ = !firstPathNonAdminCanChange(helperExecutable, users_);
  }
}

void HelperPeerCheck::reread() const {
  std::vector<std::string> watched;
  for (std::string_view part : kWatched) watched.push_back(bundle_ + std::string(part));
  watch_.arm(watched);
  for (std::size_t i = 0; i < kClients.size(); ++i) {
    // The bundle's own file, never a link planted in its place.
    Client& client = clients_[i];
    std::string path = bundle_ + std::string(kClients[i]);
    struct stat info {};
    client.file.reset();
    if (::lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) client.file = info;
    // The folders inside the bundle, up to the bundle itself; the folders above it are the
    // helper's own, found unchangeable by non-administrators when the check was made.
    client.folders.emplace();
    while (path.size() > bundle_.size()) {
      path.resize(path.rfind('/'));
      if (::lstat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        client.folders.reset();
        break;
      }
      client.folders->push_back(info);
    }
  }
}

bool HelperPeerCheck::accepts(const PeerProcess& peer) const {
  if (bundle_.empty()) return false;
  // Read while the pinned process lived, so a pid taken over since is never let through; the
  // same poll asks the watch whether anything in the bundle changed.
  bool changed = true;
  std::optional<FileIdentity> running = peer.executableIdentity(watch_.descriptor(), changed);
  if (!running) return false;
  std::lock_guard<std::mutex> guard(lock_);
  // The bundle is read again only when something in it changed, so what passes here is the
  // bundle as it is now.
  if (changed || !watch_.armed()) reread();
  for (const Client& client : clients_) {
    if (!client.file || FileIdentity{client.file->st_dev, client.file->st_ino} != *running) {
      continue;
    }
    if (!strict_) return true;
    // In the strict form the file and every folder up to the bundle pass the ownership rule,
    // asked afresh: who is an administrator may have changed.
    if (!client.folders || nonAdministratorCanChange(*client.file, users_)) return false;
    for (const struct stat& folder : *client.folders) {
      if (nonAdministratorCanChange(folder, users_)) return false;
    }
    return true;
  }
  return false;
}
