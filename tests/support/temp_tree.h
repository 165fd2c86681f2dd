// TempTree: a temporary folder for one test, removed with everything in it when the test ends,
// and helpers to lay files into it. Not shared between threads while it changes.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "platform/files.h"
#include "platform/host_paths.h"

class TempTree {
 public:
  // Makes the folder below the system's temporary folder; throws when it cannot.
  TempTree() : root_((std::filesystem::temp_directory_path() / "tarnly-test-XXXXXX").string()) {
    if (::mkdtemp(root_.data()) == nullptr) throw FileError("create", root_, errno);
  }
  ~TempTree() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  TempTree(const TempTree&) = delete;
  TempTree& operator=(const TempTree&) = delete;

  const std::string& root() const { return root_; }
  std::string path(const std::string& relative) const { return root_ + "/" + relative; }
  // Writes a file (making its folders) with `mode`, or a shell script; returns its path.
  std::string write(const std::string& relative, const std::string& content,
                    mode_t mode = 0644) const {
    createDirectories(parentPath(path(relative)));
    writeFileAtomically(path(relative), content, mode);
    return path(relative);
  }
  std::string script(const std::string& relative, const std::string& body) const {
    return write(relative, "#!/bin/sh\n" + body, 0755);
  }
  // The helper's fixed paths re-rooted below this tree, with the folders of the log and of the
  // programs the helper runs made.
  HostPaths hostPaths() const {
    HostPaths p;
    for (std::string* path :
         {&p.stateDirectory, &p.logFile, &p.rotatedLogFile, &p.pfctl, &p.ifconfig, &p.pgrep,
          &p.pfConf, &p.legacyAnchorFile, &p.resolverDirectory, &p.usr, &p.bootID, &p.socketPath}) {
      *path = root_ + *path;
    }
    for (const std::string* file : {&p.logFile, &p.pfctl, &p.ifconfig, &p.pgrep}) {
      createDirectories(parentPath(*file));
    }
    return p;
  }

 private:
  std::string root_;
};

// The content of a file, or "<missing>" when it cannot be read.
inline std::string contentOf(const std::string& path) {
  return readFile(path).value_or("<missing>");
}
// Permission bits of a path (links not followed), or -1 when it does not exist.
inline int modeOf(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 ? static_cast<int>(info.st_mode & 07777) : -1;
}
