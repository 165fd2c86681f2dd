// HostTree: a temporary stand-in for the host's file system for the host-integration tests — a
// "/usr" root, a Tarnly.app bundle with the helper, its tool and completions, and a log — and the
// HelperEnvironment that points the helper at it.
//
// The ownership walk checks every folder up to "/", and /tmp is world-writable, so the tree is
// made where every folder above it is root-owned and 0755 (see makeRoot).
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "host/fake_user_directory.h"
#include "platform/files.h"
#include "platform/text.h"
#include "service/helper_authorization.h"
#include "service/helper_environment.h"

class HostTree {
 public:
  // An administrator (group 80 as a supplementary group) and a non-administrator.
  static constexpr uid_t kAdminUID = 501, kUserUID = 4242;

  HostTree()
      : root_(makeRoot()), log_(path("log/h.log"), path("log/h.log.1")), env_{{}, systemNow, log_} {
    env_.paths.stateDirectory = path("state");
    env_.paths.logFile = path("log/h.log");
    env_.paths.rotatedLogFile = path("log/h.log.1");
    env_.paths.resolverDirectory = path("etc/resolver");
    env_.paths.usr = usr();
    env_.paths.executable = bundle() + "/Contents/Helpers/TarnlyAdminHelper";
    users_.addUser(kAdminUID, {20, 12, HelperAuthorization::kAdministratorGroup});
    users_.addUser(kUserUID, {20, 12});
    // Whoever runs the tests owns the build folder; count them as an administrator.
    if (::geteuid() != 0) users_.addUser(::geteuid(), {HelperAuthorization::kAdministratorGroup});
    for (auto folder :
         {usr(), outside(), path("log"), bundle() + "/Contents/Helpers", completions()})
      makeFolder(folder);
    writeFileAtomically(env_.paths.executable, "#!/bin/sh\n", 0755);
    writeFileAtomically(tool(), "#!/bin/sh\n", 0755);
    writeFileAtomically(completions() + "/_tarnly", "#compdef tarnly\n", 0644);
    writeFileAtomically(completions() + "/tarnly.fish", "complete -c tarnly\n", 0644);
  }
  ~HostTree() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

  const std::string& root() const { return root_; }
  std::string path(const std::string& relative) const { return root_ + "/" + relative; }
  // The "/usr" stand-in and a path below it ("local/bin/tarnly").
  std::string usr(const std::string& relative = "") const {
    return path(relative.empty() ? "usr" : "usr/" + relative);
  }
  // A folder outside the "/usr" stand-in that links must never reach.
  std::string outside() const { return path("outside"); }
  std::string bundle() const { return path("Applications/Tarnly.app"); }
  std::string tool() const { return bundle() + "/Contents/Helpers/tarnly-cli"; }
  std::string completions() const { return bundle() + "/Contents/Resources/completions"; }

  // Creates a folder (and its parents) with mode 0755 whatever the umask.
  void makeFolder(const std::string& path) const {
    struct stat info {};
    if (path.empty() || ::lstat(path.c_str(), &info) == 0) return;
    makeFolder(parentPath(path));
    if (::mkdir(path.c_str(), 0755) != 0 || ::chmod(path.c_str(), 0755) != 0) {
      throw FileError("mkdir", path, errno);
    }
  }
  void makeLink(const std::string& path, const std::string& target) const {
    makeFolder(parentPath(path));
    std::filesystem::create_symlink(target, path);
  }
  // The target of the link at `path`, or "<no link>".
  std::string linkTarget(const std::string& path) const {
    std::error_code error;
    auto target = std::filesystem::read_symlink(path, error);
    return error ? "<no link>" : target.string();
  }
  // The names in a folder, sorted; empty when it is missing.
  std::set<std::string> entries(const std::string& folder) const {
    std::set<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end;
         it.increment(error)) {
      names.insert(it->path().filename().string());
    }
    return names;
  }
  // Log messages written so far, without their time stamps; clearLog starts afresh.
  std::vector<std::string> log() const {
    std::vector<std::string> messages;
    const std::string text = readFile(path("log/h.log")).value_or("");
    for (std::string_view line : split(text, '\n', false)) {
      messages.emplace_back(line.substr(line.find(' ') + 1));
    }
    return messages;
  }
  void clearLog() const { removeFile(path("log/h.log")); }

  HelperEnvironment& env() { return env_; }
  FakeUserDirectory& users() { return users_; }

 private:
  // A fresh folder, canonical: below /run (root-owned, 0755) when run as root, so the checkout may
  // live anywhere, even under /tmp; otherwise below the test binary's own folder.
  static std::string makeRoot() {
    std::string base = ::geteuid() == 0 && std::filesystem::is_directory("/run")
                           ? "/run/tarnly-host-test-trees"
                           : parentPath(currentExecutablePath()) + "/host-test-trees";
    std::filesystem::create_directories(base);
    std::filesystem::permissions(base, std::filesystem::perms(0755));
    std::string pattern = base + "/tree-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) throw FileError("mkdtemp", pattern, errno);
    return std::filesystem::canonical(pattern).string();
  }

  std::string root_;
  HelperLog log_;
  HelperEnvironment env_;
  FakeUserDirectory users_;
};
