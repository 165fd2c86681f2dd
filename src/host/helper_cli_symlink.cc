#include "host/helper_cli_symlink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/files.h"
#include "platform/text.h"

namespace HelperCLISymlink {

namespace {

constexpr int kFolderFlags = O_RDONLY | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC;
constexpr mode_t kFolderMode = 0755;
constexpr size_t kLinkBufferSize = 1024;
constexpr std::string_view kBundleHelpers = "/Tarnly.app/Contents/Helpers/";
constexpr std::array<std::string_view, 3> kBundleToolNames = {"tarnly-cli", "tarnly", "qz"};
constexpr std::string_view kBundleCompletions = "/Tarnly.app/Contents/Resources/completions/";
const std::vector<std::string> kLinkFolder = {"local", "bin"};

// The path with every symbolic link resolved; the path as given when that fails.
std::string resolvingLinks(const std::string& path) {
  std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr),
                                                       &std::free);
  return resolved ? std::string(resolved.get()) : path;
}

std::string lastComponent(std::string_view path) {
  size_t slash = path.find_last_of('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

// The folder components of a link below /usr: "/usr/local/bin/x" gives local, bin.
std::vector<std::string> folderComponentsBelowUsr(std::string_view linkPath) {
  const std::string folder = parentPath(std::string(linkPath));
  std::vector<std::string> components;
  for (std::string_view piece : split(folder, '/', false)) {
    components.emplace_back(piece);
  }
  if (!components.empty()) components.erase(components.begin());
  return components;
}

bool isExecutableFile(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
         ::access(path.c_str(), X_OK) == 0;
}

bool unlinkIn(const DirectoryHandle& folder, std::string_view linkPath) {
  return ::unlinkat(folder.fd(), lastComponent(linkPath).c_str(), 0) == 0;
}

void logLeftAlone(const HelperEnvironment& env, std::string_view linkPath,
                  const std::string& target) {
  env.log.write("Left " + std::string(linkPath) + " alone: it points at " + target +
                ", not a Tarnly bundle.");
}

// The tool links' is-ours predicate: a link into any Tarnly bundle, or at this copy's tool.
IsOurs toolIsOurs(const HelperEnvironment& env) {
  return [&env](const std::string& target) {
    return isBundleCLITarget(target) || target == cliURL(env);
  };
}

// Reads a link and removes it when `isOurs` accepts its target, logging either outcome; a link
// that cannot be unlinked is passed over without a word.
void removeIfOurs(const HelperEnvironment& env, std::string_view linkPath,
                  const DirectoryHandle& folder, const IsOurs& isOurs) {
  auto target = readLink(linkPath, folder);
  if (!target) return;
  if (isOurs(*target)) {
    if (unlinkIn(folder, linkPath)) env.log.write("Removed " + std::string(linkPath) + ".");
  } else {
    logLeftAlone(env, linkPath, *target);
  }
}

}  // namespace

SymlinkError SymlinkError::cliMissing(const std::string& path) {
  return SymlinkError(Kind::cliMissing, "The bundled command-line tool isn't at " + path + ".");
}

SymlinkError SymlinkError::failed(const std::string& message) {
  return SymlinkError(Kind::failed, message);
}

std::string ownExecutablePath(const HelperEnvironment& env) {
  const std::string& path = env.paths.executable;
  return decodeUTF8Lossy(std::string_view(path).substr(0, path.find('\0')));
}

std::string cliURL(const HelperEnvironment& env) {
  return parentPath(resolvingLinks(ownExecutablePath(env))) + "/" + std::string(toolName);
}

std::string completionsDirectory(const HelperEnvironment& env) {
  return parentPath(parentPath(resolvingLinks(ownExecutablePath(env)))) + "/Resources/completions";
}

std::optional<DirectoryHandle> openSafeDirectory(const HelperEnvironment& env,
                                                 const std::vector<std::string>& components,
                                                 bool create, const UserDirectory& users) {
  DirectoryHandle current(::open(env.paths.usr.c_str(), kFolderFlags));
  if (current.fd() < 0) throw SymlinkError::failed("Could not open /usr.");
  std::string displayPath = "/usr";
  for (const std::string& component : components) {
    displayPath += "/" + component;
    int child = ::openat(current.fd(), component.c_str(), kFolderFlags);
    bool created = false;
    if (child < 0 && errno == ENOENT) {
      if (!create) return std::nullopt;
      if (::mkdirat(current.fd(), component.c_str(), kFolderMode) == 0) {
        created = true;
        child = ::openat(current.fd(), component.c_str(), kFolderFlags);
      } else if (errno == EEXIST) {
        child = ::openat(current.fd(), component.c_str(), kFolderFlags);
      }
    }
    int error = errno;
    current.reset();
    if (child < 0) {
      if (error == ELOOP || error == ENOTDIR) {
        throw SymlinkError::failed(displayPath +
                                   " isn't a real folder (it's a link or a file), so Tarnly "
                                   "won't link into it.");
      }
      throw SymlinkError::failed("Could not open " + displayPath + ": " + std::strerror(error) +
                                 ".");
    }
    DirectoryHandle next(child);
    // The umask may have narrowed the mode of a folder made just now.
    if (created && ::fchmod(next.fd(), kFolderMode) != 0) {
      // The folder keeps the narrower mode, which is no less safe.
    }
    struct stat info {};
    if (::fstat(next.fd(), &info) != 0 || nonAdministratorCanChange(info, users)) {
      throw SymlinkError::failed(displayPath +
                                 " can be changed by someone who isn't an administrator, so "
                                 "Tarnly won't link into it.");
    }
    current = std::move(next);
  }
  return current;
}

std::optional<std::string> readLink(std::string_view linkPath, const DirectoryHandle& folder) {
  std::array<char, kLinkBufferSize> buffer{};
  ssize_t length =
      ::readlinkat(folder.fd(), lastComponent(linkPath).c_str(), buffer.data(), buffer.size());
  if (length < 0) return std::nullopt;
  return decodeUTF8Lossy(std::string_view(buffer.data(), static_cast<size_t>(length)));
}

void link(const HelperEnvironment& env, std::string_view linkPath, const DirectoryHandle& folder,
          const std::string& targetPath, const IsOurs& isOurs) {
  const std::string name = lastComponent(linkPath);
  struct stat info {};
  if (::fstatat(folder.fd(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0) {
    std::optional<std::string> target;
    if (S_ISLNK(info.st_mode)) target = readLink(linkPath, folder);
    if (!target || !isOurs(*target)) {
      throw SymlinkError::failed(std::string(linkPath) +
                                 " already exists and isn't a Tarnly link. Move it aside, then "
                                 "try again.");
    }
    // A failure shows at the symlinkat below.
    ::unlinkat(folder.fd(), name.c_str(), 0);
  }
  if (::symlinkat(targetPath.c_str(), folder.fd(), name.c_str()) != 0) {
    throw SymlinkError::failed("Could not link " + std::string(linkPath) + ": " +
                               std::strerror(errno) + ".");
  }
  env.log.write("Linked " + std::string(linkPath) + " -> " + targetPath + ".");
}

bool isBundleCLITarget(std::string_view target) {
  for (std::string_view tool : kBundleToolNames) {
    std::string suffix = std::string(kBundleHelpers) + std::string(tool);
    if (target.ends_with(suffix)) return true;
  }
  return false;
}

bool isBundleCompletionTarget(std::string_view target) {
  for (const CompletionLink& row : completionTable) {
    std::string suffix = std::string(kBundleCompletions) + std::string(row.sourceName);
    if (target.ends_with(suffix)) return true;
  }
  return false;
}

void linkCompletions(const HelperEnvironment& env, const UserDirectory& users) {
  const std::string folder = completionsDirectory(env);
  for (const CompletionLink& row : completionTable) {
    const std::string source = folder + "/" + std::string(row.sourceName);
    struct stat info {};
    if (::stat(source.c_str(), &info) != 0) continue;
    if (firstPathNonAdminCanChange(source, users)) continue;
    IsOurs isOurs = [&folder, &source](const std::string& target) {
      return isBundleCompletionTarget(target) || target.starts_with(folder + "/") ||
             target == source;
    };
    try {
      auto handle = openSafeDirectory(env, folderComponentsBelowUsr(row.linkPath), true, users);
      if (!handle) {
        throw SymlinkError::failed("Could not create " + parentPath(std::string(row.linkPath)) +
                                   ".");
      }
      link(env, row.linkPath, *handle, source, isOurs);
    } catch (const std::exception& error) {
      env.log.write("Shell completion " + std::string(row.linkPath) +
                    " not linked: " + error.what());
    }
  }
}

void removeCompletions(const HelperEnvironment& env, const UserDirectory& users) {
  const std::string folder = completionsDirectory(env);
  IsOurs isOurs = [&folder](const std::string& target) {
    return isBundleCompletionTarget(target) || target.starts_with(folder + "/");
  };
  for (const CompletionLink& row : completionTable) {
    std::optional<DirectoryHandle> handle;
    try {
      handle = openSafeDirectory(env, folderComponentsBelowUsr(row.linkPath), false, users);
    } catch (const SymlinkError&) {
      continue;
    }
    if (!handle) continue;
    removeIfOurs(env, row.linkPath, *handle, isOurs);
  }
}

void install(const HelperEnvironment& env, const UserDirectory& users) {
  const std::string tool = cliURL(env);
  if (!isExecutableFile(tool)) throw SymlinkError::cliMissing(tool);
  const IsOurs isOurs = toolIsOurs(env);

  std::optional<std::string> unsafe = firstPathNonAdminCanChange(tool, users);
  if (!unsafe) {
    auto handle = openSafeDirectory(env, kLinkFolder, true, users);
    if (!handle) throw SymlinkError::failed("Could not create /usr/local/bin.");
    for (std::string_view linkPath : mainLinks) link(env, linkPath, *handle, tool, isOurs);
    for (std::string_view linkPath : legacyLinks) removeIfOurs(env, linkPath, *handle, isOurs);
    linkCompletions(env, users);
    return;
  }

  // This copy must not be linked; take away the links that already point at it.
  std::optional<DirectoryHandle> handle;
  try {
    handle = openSafeDirectory(env, kLinkFolder, false, users);
  } catch (const SymlinkError&) {
    // Nothing can be removed safely; the refusal below still stands.
  }
  if (handle) {
    for (std::string_view linkPath : mainLinks) {
      if (readLink(linkPath, *handle) != tool) continue;
      removeIfOurs(env, linkPath, *handle, isOurs);
    }
  }
  throw SymlinkError::failed("Tarnly can't link its command-line tool from this copy: " + *unsafe +
                             " can be changed by someone who isn't an administrator. Ask an "
                             "administrator to install Tarnly in /Applications.");
}

void remove(const HelperEnvironment& env, const UserDirectory& users) {
  auto handle = openSafeDirectory(env, kLinkFolder, false, users);
  if (!handle) return;
  const IsOurs isOurs = toolIsOurs(env);
  for (std::string_view linkPath : mainLinks) removeIfOurs(env, linkPath, *handle, isOurs);
  for (std::string_view linkPath : legacyLinks) removeIfOurs(env, linkPath, *handle, isOurs);
  removeCompletions(env, users);
  for (std::string_view linkPath : mainLinks) {
    auto target = readLink(linkPath, *handle);
    if (target && isBundleCLITarget(*target)) {
      throw SymlinkError::failed("Could not remove " + std::string(linkPath) + ".");
    }
  }
}

}  // namespace HelperCLISymlink
