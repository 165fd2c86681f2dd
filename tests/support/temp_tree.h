// TempTree: a temporary folder for one test, removed with everything in it when the test ends,
// and helpers to lay files into it.
#pragma once

#include <sys/types.h>

#include <string>

#include "platform/host_paths.h"

class TempTree {
 public:
  TempTree();
  ~TempTree();
  TempTree(const TempTree&) = delete;
  TempTree& operator=(const TempTree&) = delete;

  const std::string& root() const { return root_; }
  // Absolute path of a path relative to the root.
  std::string path(const std::string& relative) const { return root_ + "/" + relative; }
  // Writes a file (creating its folders) and sets its mode; returns its absolute path.
  std::string write(const std::string& relative, const std::string& content,
                    mode_t mode = 0644) const;
  // The helper's fixed paths, each re-rooted below this tree
  // (".../var/log/tarnly-adminhelper.log"), with the folders of the log and of the programs the
  // helper runs already made.
  HostPaths hostPaths() const;
  // Writes an executable shell script; returns its absolute path.
  std::string script(const std::string& relative, const std::string& body) const;

 private:
  std::string root_;
};

// The content of a file, or "<missing>" when it cannot be read.
std::string contentOf(const std::string& path);
// Permission bits of a path (links not followed), or -1 when it does not exist.
int modeOf(const std::string& path);
