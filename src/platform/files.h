// File operations of the helper: bounded whole-file reads, atomic replacement, folders and
// removal. Failures that matter throw FileError, one sentence that names the file the user knows.
// Safe to call from any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

// A failed file operation: "Could not <action> <path>: <system error text>." The path is the
// file the operation was for, never a temporary file of the helper.
class FileError : public std::runtime_error {
 public:
  // `action` is a verb phrase that reads before the path: "write", "remove", "create the folder".
  FileError(const std::string& action, const std::string& path, int error);
  int error() const { return error_; }

 private:
  int error_;
};

// The largest file the helper reads by default; its records are far smaller.
inline constexpr std::size_t kMaximumReadSize = std::size_t{16} * 1024 * 1024;

// Writes every byte, retrying after interruptions and short writes; false on the first failure.
bool writeAll(int fd, std::string_view data);

// The whole content of the regular file at `path`. A final symbolic link is not followed, a FIFO
// or device never blocks the read. Nothing when the path is missing, is not a regular file, holds
// more than `limit` bytes or cannot be read.
std::optional<std::string> readFile(const std::string& path, std::size_t limit = kMaximumReadSize);

// Replaces the file at `path` with `data`: a temporary file created in the same folder with
// `mode` (set on its descriptor, whatever the umask), written, fsynced, renamed over the path,
// then the folder fsynced. Temporary files of the same path that an interrupted write left are
// removed first; the new one is removed on failure. Throws FileError naming `path`.
void writeFileAtomically(const std::string& path, const std::string& data, mode_t mode);

// True for the name of a temporary file of writeFileAtomically (".<name>.tmp-<12 hex digits>",
// or "<name>.tmp-<12 hex digits>" as earlier versions named them); with `target`, only for
// temporary files of that name.
bool isTemporaryFileName(std::string_view name, std::string_view target = {});

// Removes the temporary files in `folder` (of `target` only, when given) that no write is using
// any more, that is the ones a crash left behind. Failures are ignored.
void removeLeftoverTemporaryFiles(const std::string& folder, std::string_view target = {});

// Creates the folder and any missing parents, each with exactly `mode` when one is given and
// with default attributes (0777 less the umask) otherwise. Succeeds when the folder exists
// already. Throws FileError.
void createDirectories(const std::string& path, std::optional<mode_t> mode = std::nullopt);

// Removes a file (not a folder); false when that failed.
bool removeFile(const std::string& path);

// True when something (of any kind, links not followed) exists at the path.
bool pathExists(const std::string& path);

// The folder part of a path ("/a/b" -> "/a", "b" -> ".").
std::string parentPath(const std::string& path);
