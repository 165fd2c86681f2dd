// HelperCLISymlink: links the bundle's command-line tool as /usr/local/bin/tarnly and
// /usr/local/bin/tqz and its shell completions under /usr/local/share, and takes them away.
// Everything below /usr is reached through folder handles opened one component at a time without
// following links; only links that point into a Tarnly bundle (or at this copy) are replaced or
// removed. Holds no state; the operations may run on several threads at once.
#pragma once

#include <sys/stat.h>

#include <array>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "host/directory_handle.h"
#include "platform/ownership.h"
#include "platform/user_directory.h"
#include "service/helper_environment.h"

namespace HelperCLISymlink {

// A failed link request; what() is the sentence for the user.
class SymlinkError : public std::runtime_error {
 public:
  enum class Kind { cliMissing, failed };

  // The bundled tool is missing or not executable at `path`.
  static SymlinkError cliMissing(const std::string& path);
  // Any other failure, with its complete message.
  static SymlinkError failed(const std::string& message);

  Kind kind() const { return kind_; }

 private:
  SymlinkError(Kind kind, const std::string& message) : std::runtime_error(message), kind_(kind) {}
  Kind kind_;
};

inline constexpr std::string_view toolName = "tarnly-cli";
// The links to the tool, in the order they are made.
inline constexpr std::array<std::string_view, 2> mainLinks = {"/usr/local/bin/tarnly",
                                                              "/usr/local/bin/tqz"};
// Links of earlier versions, removed when they point into a bundle.
inline constexpr std::array<std::string_view, 2> legacyLinks = {"/usr/local/bin/qz",
                                                                "/usr/local/bin/qzr"};

// One completion link and the file of the bundle's completions folder it points at.
struct CompletionLink {
  std::string_view linkPath;
  std::string_view sourceName;
};
inline constexpr std::array<CompletionLink, 3> completionTable = {{
    {"/usr/local/share/zsh/site-functions/_tarnly", "_tarnly"},
    {"/usr/local/share/fish/vendor_completions.d/tarnly.fish", "tarnly.fish"},
    {"/usr/local/share/fish/vendor_completions.d/tqz.fish", "tarnly.fish"},
}};

// Links the tool and the completions. Throws SymlinkError: cliMissing when the tool is not an
// executable file (before anything under /usr is touched); failed when this copy can be changed
// by a non-administrator (its links at this copy are removed first), when /usr/local/bin cannot
// be opened safely, or when a main link path holds something that is not a Tarnly link.
// Completion problems are logged and never fail the request.
void install(const HelperEnvironment& env, const UserDirectory& users = systemUserDirectory());

// Removes the main, legacy and completion links that point into a Tarnly bundle; logs what it
// leaves. Without /usr/local/bin it removes nothing. Throws SymlinkError (failed) when
// /usr/local/bin cannot be opened safely or a main link still points into a bundle afterwards.
void remove(const HelperEnvironment& env, const UserDirectory& users = systemUserDirectory());

// The running helper executable's path (taken at start), as UTF-8 with invalid bytes replaced.
std::string ownExecutablePath(const HelperEnvironment& env);
// The tool beside the executable, symbolic links of the executable's path resolved.
std::string cliURL(const HelperEnvironment& env);
// The bundle's "Contents/Resources/completions", links of the executable's path resolved.
std::string completionsDirectory(const HelperEnvironment& env);

// The ownership rule lives with the platform layers; these names keep the link code's callers.
using ::firstPathNonAdminCanChange;
using ::nonAdministratorCanChange;

// Opens the folder reached by `components` below the /usr root, one component at a time without
// following links, creating missing ones with mode 0755 when `create` is set. Every folder below
// /usr must pass the ownership rule. None when a component is missing and `create` is off.
// Throws SymlinkError (failed), naming the folder as "/usr/...".
std::optional<DirectoryHandle> openSafeDirectory(const HelperEnvironment& env,
                                                 const std::vector<std::string>& components,
                                                 bool create, const UserDirectory& users);

// The target text of the link named by the last component of `linkPath` in `folder`; none when
// there is no link there. Targets longer than 1024 bytes come back truncated.
std::optional<std::string> readLink(std::string_view linkPath, const DirectoryHandle& folder);

// Decides whether an existing link target is the helper's to replace or remove.
using IsOurs = std::function<bool(const std::string& target)>;

// Makes the last component of `linkPath` in `folder` a link to `targetPath`, first replacing a
// link whose target `isOurs` accepts. Logs "Linked <link path> -> <target path>.". Throws
// SymlinkError (failed) when something else is in the way or the link cannot be made.
void link(const HelperEnvironment& env, std::string_view linkPath, const DirectoryHandle& folder,
          const std::string& targetPath, const IsOurs& isOurs);

// True for a target ending in "/Tarnly.app/Contents/Helpers/" and "tarnly-cli", "tarnly" or "qz".
bool isBundleCLITarget(std::string_view target);
// True for a target ending in "/Tarnly.app/Contents/Resources/completions/" and the source name
// of a completion table row.
bool isBundleCompletionTarget(std::string_view target);

// Links every completion whose source exists and passes the ownership walk; logs failures.
void linkCompletions(const HelperEnvironment& env,
                     const UserDirectory& users = systemUserDirectory());
// Removes the completion links that point into a Tarnly bundle or this copy's completions.
void removeCompletions(const HelperEnvironment& env,
                       const UserDirectory& users = systemUserDirectory());

}  // namespace HelperCLISymlink
