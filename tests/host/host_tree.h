// HostTree: a temporary stand-in for the host's file system for the host-integration tests — a
// "/usr" root, a Tarnly.app bundle with the helper, its tool and completions, a resolver folder
// and a log — and the HelperEnvironment that points the helper at it.
//
// The ownership walk checks every folder up to "/", and /tmp is world-writable, so the tree is
// made below the test binary's own folder (root-owned and 0755 in the project's builds), in
// "host-test-trees". Tests that need the walk to pass check the tree's root first.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "host/fake_user_directory.h"
#include "platform/files.h"
#include "platform/text.h"
#include "service/helper_authorization.h"
#include "service/helper_environment.h"
#include "support/temp_tree.h"

class HostTree {
 public:
  // Administrator uid (member of group 80 through a supplementary group), a uid that is no
  // administrator, and a group that is neither 0 nor 80.
  static constexpr uid_t kAdminUID = 501;
  static constexpr uid_t kUserUID = 4242;
  static constexpr gid_t kOtherGID = 4243;

  HostTree()
      : root_(makeRoot()),
        helperLog_(path("var/log/tarnly-adminhelper.log"),
                   path("var/log/tarnly-adminhelper.log.1")),
        env_{paths(root_), systemNow, helperLog_} {
    users_.addUser(kAdminUID, 20, {12, HelperAuthorization::kAdministratorGroup});
    users_.addUser(kUserUID, 20, {12});
    // Whoever runs the tests owns the build folder; count them as an administrator.
    if (::geteuid() != 0) users_.addUser(::geteuid(), HelperAuthorization::kAdministratorGroup);
    makeFolder(usr());
    makeFolder(outside());
    makeFolder(path("var/log"));
    makeFolder(bundle() + "/Contents/Helpers");
    makeFolder(completions());
    writeFileAtomically(env_.paths.executable, "#!/bin/sh\n", 0755);
    writeFileAtomically(tool(), "#!/bin/sh\necho tarnly\n", 0755);
    writeFileAtomically(completions() + "/_tarnly", "#compdef tarnly\n", 0644);
    writeFileAtomically(completions() + "/tarnly.fish", "complete -c tarnly\n", 0644);
  }
  ~HostTree() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  HostTree(const HostTree&) = delete;
  HostTree& operator=(const HostTree&) = delete;

  const std::string& root() const { return root_; }
  std::string path(const std::string& relative) const { return root_ + "/" + relative; }
  // The "/usr" stand-in and a path below it ("local/bin/tarnly").
  std::string usr(const std::string& relative = "") const {
    return relative.empty() ? path("usr") : path("usr/" + relative);
  }
  // A folder outside the "/usr" stand-in that links must never reach.
  std::string outside() const { return path("outside"); }

  std::string bundle() const { return path("Applications/Tarnly.app"); }
  std::string tool() const { return bundle() + "/Contents/Helpers/tarnly-cli"; }
  std::string completions() const { return bundle() + "/Contents/Resources/completions"; }

  // Creates a folder (and its parents) with mode 0755 whatever the umask.
  void makeFolder(const std::string& path) const {
    if (path.empty() || path == "/") return;
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0) return;
    makeFolder(parentPath(path));
    if (::mkdir(path.c_str(), 0755) != 0 || ::chmod(path.c_str(), 0755) != 0) {
      throw FileError("mkdir", path, errno);
    }
  }
  // Creates a symbolic link at `path` whose content is `target`.
  void makeLink(const std::string& path, const std::string& target) const {
    makeFolder(parentPath(path));
    if (::symlink(target.c_str(), path.c_str()) != 0) throw FileError("symlink", path, errno);
  }
  // The target of the link at `path`, or "<no link>".
  std::string linkTarget(const std::string& path) const {
    std::error_code error;
    auto target = std::filesystem::read_symlink(path, error);
    return error ? "<no link>" : target.string();
  }
  // The names in a folder, sorted; empty when it is missing.
  std::vector<std::string> entries(const std::string& folder) const {
    std::vector<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end;
         it.increment(error)) {
      names.push_back(it->path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  // Log messages written so far, without their time stamps.
  std::vector<std::string> log() const {
    std::vector<std::string> messages;
    auto text = readFile(path("var/log/tarnly-adminhelper.log"));
    if (!text) return messages;
    for (std::string_view line : split(*text, '\n', false)) {
      size_t space = line.find(' ');
      messages.emplace_back(space == std::string_view::npos ? line : line.substr(space + 1));
    }
    return messages;
  }
  void clearLog() const { removeFile(path("var/log/tarnly-adminhelper.log")); }

  HelperEnvironment& env() { return env_; }
  FakeUserDirectory& users() { return users_; }

 private:
  // A fresh folder below "<test binary's folder>/host-test-trees", canonical.
  static std::string makeRoot() {
    std::string base = parentPath(currentExecutablePath()) + "/host-test-trees";
    if (::mkdir(base.c_str(), 0755) != 0 && errno != EEXIST) throw FileError("mkdir", base, errno);
    std::string pattern = base + "/tree-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) throw FileError("mkdtemp", pattern, errno);
    char resolved[PATH_MAX];
    if (::realpath(pattern.c_str(), resolved) == nullptr)
      throw FileError("realpath", pattern, errno);
    return resolved;
  }

  static HostPaths paths(const std::string& root) {
    HostPaths paths;
    paths.stateDirectory = root + "/Library/Application Support/Tarnly";
    paths.logFile = root + "/var/log/tarnly-adminhelper.log";
    paths.rotatedLogFile = root + "/var/log/tarnly-adminhelper.log.1";
    paths.resolverDirectory = root + "/etc/resolver";
    paths.usr = root + "/usr";
    paths.executable = root + "/Applications/Tarnly.app/Contents/Helpers/TarnlyAdminHelper";
    return paths;
  }

  std::string root_;
  HelperLog helperLog_;
  HelperEnvironment env_;
  FakeUserDirectory users_;
};

// The number of open descriptors of this process.
inline int openDescriptorCount() {
  int count = 0;
  std::error_code error;
  for (std::filesystem::directory_iterator it("/proc/self/fd", error), end; !error && it != end;
       it.increment(error)) {
    ++count;
  }
  return count;
}
