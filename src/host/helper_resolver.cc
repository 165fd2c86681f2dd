#include "host/helper_resolver.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "host/helper_cli_symlink.h"
#include "platform/files.h"
#include "platform/text.h"

namespace HelperResolver {

namespace {

constexpr mode_t kFolderMode = 0755;
constexpr mode_t kFileMode = 0644;
// The files are four short lines; anything larger is not one of them.
constexpr std::size_t kReadLimit = 4096;

std::string pathFor(const HelperEnvironment& env, std::string_view domain) {
  return env.paths.resolverDirectory + "/" + std::string(domain);
}

bool carriesMarker(const std::string& bytes) {
  return decodeUTF8Lossy(bytes).find(marker) != std::string::npos;
}

std::optional<std::string> readOwn(const std::string& path) {
  return readFile(path, kReadLimit);
}

// True when the resolver folder exists; throws when what is there is not a real folder that only
// administrators can change, since the files would then go where someone else decides.
bool checkFolder(const std::string& folder, const UserDirectory& users) {
  struct stat info {};
  if (::lstat(folder.c_str(), &info) != 0) {
    if (errno == ENOENT) return false;
    throw FileError("examine", folder, errno);
  }
  if (!S_ISDIR(info.st_mode) || HelperCLISymlink::nonAdministratorCanChange(info, users)) {
    throw std::runtime_error(folder +
                             " isn't a folder that only administrators can change, so Tarnly "
                             "won't write resolver files into it.");
  }
  return true;
}

}  // namespace

std::string fileContent(std::string_view domain) {
  std::string content = "# ";
  content += marker;
  content += ": <vm>.";
  content += domain;
  content += " names resolve to its VMs.\n";
  content += "nameserver " + std::string(nameServer) + "\n";
  content += "port " + std::to_string(port) + "\n";
  content += "timeout " + std::to_string(timeout) + "\n";
  return content;
}

std::array<std::string, 2> resolverPaths(const HelperEnvironment& env) {
  return {pathFor(env, domains[0]), pathFor(env, domains[1])};
}

void install(const HelperEnvironment& env, const UserDirectory& users) {
  const std::string& folder = env.paths.resolverDirectory;
  if (!checkFolder(folder, users)) createDirectories(folder, kFolderMode);
  for (std::string_view domain : domains) {
    removeLeftoverTemporaryFiles(folder, domain);
    const std::string path = pathFor(env, domain);
    const std::string content = fileContent(domain);
    if (readOwn(path) == content) continue;
    // Read again: the file may have changed since, and only the marker decides.
    if (auto current = readOwn(path); current && !carriesMarker(*current)) {
      env.log.write("Left " + path + " alone: it wasn't installed by Tarnly.");
      continue;
    }
    writeFileAtomically(path, content, kFileMode);
    env.log.write("Installed " + path + ".");
  }
}

void remove(const HelperEnvironment& env, const UserDirectory& users) {
  const std::string& folder = env.paths.resolverDirectory;
  if (!checkFolder(folder, users)) return;
  for (std::string_view domain : domains) {
    removeLeftoverTemporaryFiles(folder, domain);
    const std::string path = pathFor(env, domain);
    auto current = readOwn(path);
    if (!current || !carriesMarker(*current)) continue;
    if (::unlink(path.c_str()) != 0) throw FileError("remove", path, errno);
    env.log.write("Removed " + path + ".");
  }
}

}  // namespace HelperResolver
