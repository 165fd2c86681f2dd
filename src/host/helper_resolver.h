// HelperResolver: the per-domain resolver files that send names under "tqz" and "tarnly" to the
// application's DNS proxy on 127.0.0.1 port 5380. Only files carrying the marker are written or
// removed. Holds no state; the operations take no lock.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/user_directory.h"
#include "service/helper_environment.h"

namespace HelperResolver {

// The domains, in install order.
inline constexpr std::array<std::string_view, 2> domains = {"tqz", "tarnly"};
inline constexpr std::string_view nameServer = "127.0.0.1";
inline constexpr std::uint16_t port = 5380;
inline constexpr int timeout = 2;
// A file counts as the helper's when its text contains this anywhere.
inline constexpr std::string_view marker = "Installed by Tarnly";

// The four lines of the file for `domain`, each ended by a line feed.
std::string fileContent(std::string_view domain);

// The files in removal order: the resolver folder followed by "tqz", then "tarnly".
std::array<std::string, 2> resolverPaths(const HelperEnvironment& env);

// Creates the resolver folder and its missing parents (0755) when nothing is there, then writes
// each domain's file (0644) unless it already has exactly this content or is someone else's
// (logged and left). Files are read without following links or blocking, at most 4 KiB; anything
// else reads as absent. Throws std::runtime_error naming the folder when an existing one is not
// a real folder that passes the ownership rule of the command-line links, and FileError when a
// folder or file cannot be written; files written for earlier domains stay.
void install(const HelperEnvironment& env, const UserDirectory& users = systemUserDirectory());

// Removes each file that carries the marker; files without it are passed over silently. Throws
// like install for the folder, and FileError at the first file that cannot be removed.
void remove(const HelperEnvironment& env, const UserDirectory& users = systemUserDirectory());

}  // namespace HelperResolver
