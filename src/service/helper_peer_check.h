// HelperPeerCheck: which processes may talk to the helper — only those running one of the two
// client executables of the bundle that holds the helper (<bundle>/Contents/MacOS/Tarnly and
// <bundle>/Contents/Helpers/TarnlyService), compared as files (device and inode). When the helper
// and every folder above it pass the ownership rule, the client's executable and its folders must
// pass it too. Immutable after construction; safe on any thread.
#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>

#include "platform/peer_process.h"
#include "platform/user_directory.h"

class HelperPeerCheck {
 public:
  // `helperExecutable` is the helper's own path as read at start. A helper that is not at
  // <bundle>/Contents/Helpers/TarnlyAdminHelper accepts no peer.
  HelperPeerCheck(const std::string& helperExecutable, const UserDirectory& users);
  HelperPeerCheck(const HelperPeerCheck&) = delete;
  HelperPeerCheck& operator=(const HelperPeerCheck&) = delete;

  // True when the pinned process still lives and runs one of the two client files now.
  bool accepts(const PeerProcess& peer) const;

  // The bundle folder; empty when the helper is not inside one.
  const std::string& bundle() const { return bundle_; }
  // Whether the strict (ownership) form applies.
  bool strict() const { return strict_; }

 private:
  // The ownership rule for the client file `file` at `client` below the bundle and each folder
  // between it and the bundle.
  bool onlyAdministratorsCanChange(const struct stat& file, std::string_view client) const;

  const UserDirectory& users_;
  std::string bundle_;
  bool strict_ = false;
};
