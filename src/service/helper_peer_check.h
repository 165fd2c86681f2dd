// HelperPeerCheck: which processes may talk to the helper — only those running one of the two
// client executables of the bundle that holds the helper (<bundle>/Contents/MacOS/Tarnly and
// <bundle>/Contents/Helpers/TarnlyService), compared as files (device and inode). When the helper
// and every folder above it pass the ownership rule, the client's executable and its folders must
// pass it too. Safe on any thread: a lock guards what it read of the bundle.
#pragma once

#include <sys/stat.h>

#include <array>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/change_watch.h"
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
  // A client file as last read: its lstat (none when it is missing or not a regular file) and
  // that of each folder from it up to the bundle (none when one is missing or not a folder).
  struct Client {
    std::optional<struct stat> file;
    std::optional<std::vector<struct stat>> folders;
  };

  // Reads the client files and their folders again, the watch armed first so that no change
  // after the reading goes unseen.
  void reread() const;

  const UserDirectory& users_;
  std::string bundle_;
  bool strict_ = false;
  mutable std::mutex lock_;
  mutable ChangeWatch watch_;
  mutable std::array<Client, 2> clients_;
};
