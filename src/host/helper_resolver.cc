#include "host/helper_resolver.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/files.h"
#include "platform/text.h"

namespace HelperResolver {

namespace {

constexpr mode_t kFolderMode = 0755;
constexpr mode_t kFileMode = 0644;

std::string pathFor(const HelperEnvironment& env, std::string_view domain) {
  return env.paths.resolverDirectory + "/" + std::string(domain);
}

bool carriesMarker(const std::string& bytes) {
  return decodeUTF8Lossy(bytes).find(marker) != std::string::npos;
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

void install(const HelperEnvironment& env) {
  const std::string& folder = env.paths.resolverDirectory;
  if (!pathExists(folder)) {
    createDirectories(folder);
    if (!setMode(folder, kFolderMode)) throw FileError("chmod", folder, errno);
  }
  for (std::string_view domain : domains) {
    const std::string path = pathFor(env, domain);
    const std::string content = fileContent(domain);
    if (readFile(path) == content) continue;
    // Read again: the file may have changed since, and only the marker decides.
    if (auto current = readFile(path); current && !carriesMarker(*current)) {
      env.log.write("Left " + path + " alone: it wasn't installed by Tarnly.");
      continue;
    }
    writeFileAtomically(path, content, kFileMode);
    if (!setMode(path, kFileMode)) throw FileError("chmod", path, errno);
    env.log.write("Installed " + path + ".");
  }
}

void remove(const HelperEnvironment& env) {
  for (const std::string& path : resolverPaths(env)) {
    auto current = readFile(path);
    if (!current || !carriesMarker(*current)) continue;
    if (::unlink(path.c_str()) != 0) throw FileError("unlink", path, errno);
    env.log.write("Removed " + path + ".");
  }
}

}  // namespace HelperResolver
