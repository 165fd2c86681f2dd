// TempTree: a temporary folder for one test, removed with everything in it when the test ends,
// and helpers to lay files into it. Not shared between threads while it changes.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "platform/files.h"
#include "platform/host_paths.h"

class TempTree {
 public:
  // Makes the folder below the system's temporary folder; throws when it cannot.
  TempTree() : root_((std::filesystem::temp_directory_path() / "tarnly-test-XXXXXX").string()) {
    if (::mkdtemp(root_.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  }
  ~TempTree() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  TempTree(const TempTree&) = delete;
  TempTree& operator=(const TempTree&) = delete;

  const std::string& root() const { return root_; }
  // Absolute path of a path relative to the root.
  std::string path(const std::string& relative) const { return root_ + "/" + relative; }
  // Writes a file (creating its folders) with `mode`; returns its absolute path. Throws FileError.
  std::string write(const std::string& relative, const std::string& content,
                    mode_t mode = 0644) const {
    createDirectories(parentPath(path(relative)));
    writeFileAtomically(path(relative), content, mode);
    return path(relative);
  }
  // Writes an executable shell script; returns its absolute path.
  std::string script(const std::string& relative, const std::string& body) const {
    return write(relative, "#!/bin/sh\n" + body, 0755);
  }
  // The helper's fixed paths, each re-rooted below this tree
  // (".../var/log/tarnly-adminhelper.log"), with the folders of the log and of the programs the
  // helper runs already made.
  HostPaths hostPaths() const {
    HostPaths paths;
    for (std::string* path :
         {&paths.stateDirectory, &paths.logFile, &paths.rotatedLogFile, &paths.pfctl,
          &paths.ifconfig, &paths.pgrep, &paths.pfConf, &paths.legacyAnchorFile,
          &paths.resolverDirectory, &paths.usr, &paths.bootID, &paths.socketPath}) {
      *path = root_ + *path;
    }
    for (const std::string* file : {&paths.logFile, &paths.pfctl, &paths.ifconfig, &paths.pgrep}) {
      createDirectories(parentPath(*file));
    }
    return paths;
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
