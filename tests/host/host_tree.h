// HostTree: a temporary host for the link and resolver requests (a "/usr" with /usr/local/bin, a
// Tarnly.app bundle with the helper, its tool and completions, a log) and the HelperEnvironment
// pointing at it; below /run as root, as the ownership walk checks every folder up to "/".
#pragma once

#include <unistd.h>

#include <filesystem>
#include <functional>
#include <set>

#include "host/fake_user_directory.h"
#include "platform/files.h"
#include "platform/ownership.h"
#include "platform/text.h"
#include "service/helper_environment.h"

class HostTree {
  const std::string root_ = makeRoot();
  HelperLog log_{root_ + "/log", root_ + "/log.1"};

 public:
  using Request = std::function<void(const HelperEnvironment&, const UserDirectory&)>;
  const std::string bundle = path("Applications/Tarnly.app/Contents/"),
                    tool = bundle + "Helpers/tarnly-cli",
                    completions = bundle + "Resources/completions/";
  HelperEnvironment env_{{}, systemNow, log_};
  FakeUserDirectory users_;
  std::vector<std::string> transcript;  // per run: its log lines without time stamps, its error

  HostTree() {  // umask 022: folders made here are 0755
    ::umask(022);
    env_.paths = {.resolverDirectory = path("etc/resolver"),
                  .usr = path("usr"),
                  .executable = bundle + "Helpers/TarnlyAdminHelper"};
    users_.addUser(::geteuid(), {kAdministratorGroup});  // owns the build folder when not root
    for (auto dir : {path("usr/local/bin"), path("outside"), completions, bundle + "Helpers"})
      std::filesystem::create_directories(dir);
    for (auto file :
         {tool, completions + "_tarnly", completions + "tarnly.fish", env_.paths.executable})
      writeFileAtomically(file, "#!/bin/sh\n", 0755);
  }
  ~HostTree() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

  std::string path(const std::string& relative) const { return root_ + "/" + relative; }
  static void makeLink(const std::string& link, const std::string& target) {
    std::filesystem::create_directories(parentPath(link));
    std::filesystem::create_symlink(target, link);
  }
  static std::string linkTarget(const std::string& link) {
    return std::filesystem::is_symlink(link) ? std::filesystem::read_symlink(link) : "<no link>";
  }
  static std::set<std::string> entries(const std::string& folder) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
      names.insert(entry.path().filename());
    return names;
  }

  // Runs a request, adds what it logged and threw to `transcript`; true when it threw nothing.
  bool run(const Request& request) {
    std::string error;
    try {
      request(env_, users_);
    } catch (const std::exception& thrown) {
      error = thrown.what();
    }
    const std::string log = readFile(path("log")).value_or("");
    for (std::string_view line : split(log, '\n', false))
      transcript.emplace_back(line.substr(line.find(' ') + 1));
    if (!error.empty()) transcript.push_back(error);
    removeFile(path("log"));
    return error.empty();
  }

 private:
  static std::string makeRoot() {
    std::string pattern = (::geteuid() == 0 ? "/run" : parentPath(currentExecutablePath())) +
                          "/tarnly-host-tree-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) throw FileError("mkdtemp", pattern, errno);
    return std::filesystem::canonical(pattern).string();
  }
};
