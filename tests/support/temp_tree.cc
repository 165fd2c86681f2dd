#include "support/temp_tree.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "platform/files.h"

TempTree::TempTree() {
  std::string pattern = (std::filesystem::temp_directory_path() / "tarnly-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  root_ = pattern;
}

TempTree::~TempTree() {
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

std::string TempTree::write(const std::string& relative, const std::string& content,
                            mode_t mode) const {
  std::string full = path(relative);
  createDirectories(parentPath(full));
  writeFileAtomically(full, content, mode);
  return full;
}

HostPaths TempTree::hostPaths() const {
  HostPaths paths;
  for (std::string* path :
       {&paths.stateDirectory, &paths.logFile, &paths.rotatedLogFile, &paths.pfctl, &paths.ifconfig,
        &paths.pgrep, &paths.pfConf, &paths.legacyAnchorFile, &paths.resolverDirectory, &paths.usr,
        &paths.bootID, &paths.socketPath}) {
    *path = root_ + *path;
  }
  for (const std::string* file : {&paths.logFile, &paths.pfctl, &paths.ifconfig, &paths.pgrep}) {
    createDirectories(parentPath(*file));
  }
  return paths;
}

std::string TempTree::script(const std::string& relative, const std::string& body) const {
  return write(relative, "#!/bin/sh\n" + body, 0755);
}

std::string contentOf(const std::string& path) {
  auto data = readFile(path);
  return data ? *data : "<missing>";
}

int modeOf(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return -1;
  return static_cast<int>(info.st_mode & 07777);
}
