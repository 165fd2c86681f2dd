// File operations of the helper: whole-file reads, atomic replacement, folders and removal.
// Failures that matter throw FileError, whose text names the call and the path.
#pragma once

#include <sys/types.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

// A failed file system call: "<call>(<path>): <system error text>".
class FileError : public std::runtime_error {
 public:
  FileError(const std::string& call, const std::string& path, int error);
  int error() const { return error_; }

 private:
  int error_;
};

// Writes every byte, retrying after interruptions and short writes; false on the first failure.
bool writeAll(int fd, std::string_view data);

// The whole content of a regular file, or nothing when it cannot be opened or read.
std::optional<std::string> readFile(const std::string& path);

// Replaces the file at `path` with `data`: a temporary file created in the same folder with
// `mode`, written, fsynced, renamed over the path, then the folder fsynced. The temporary file is
// removed on failure. Throws FileError.
void writeFileAtomically(const std::string& path, const std::string& data, mode_t mode);

// Creates the folder and any missing parents with default attributes (0777 less the umask).
// Succeeds when the folder exists already. Throws FileError.
void createDirectories(const std::string& path);

// Removes a file (not a folder); false when that failed.
bool removeFile(const std::string& path);

// Sets permission bits; false when that failed.
bool setMode(const std::string& path, mode_t mode);

// True when something (of any kind, links not followed) exists at the path.
bool pathExists(const std::string& path);

// The folder part of a path ("/a/b" -> "/a", "b" -> ".").
std::string parentPath(const std::string& path);
