// The link and resolver requests, on two threads, while a user who isn't an administrator keeps
// swapping what it owns on their paths — folders renamed away and back, links to a folder outside
// and to a file there, FIFOs: whatever the timing, nothing but the helper's own links is created,
// changed or removed, no link is followed and no request blocks.
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <map>

#include "host/helper_cli_symlink.h"
#include "host/helper_resolver.h"
#include "host/host_tree.h"

namespace {

using std::chrono::steady_clock;
constexpr uid_t kNobody = 65534;

// The child, as `kNobody` without supplementary groups, until `end`: puts links to `targets` and a
// FIFO ("") at each path and renames it aside and back. Exits 0 after at least one round. Only
// system calls on strings made before the fork.
[[noreturn]] void swapAsUser(const std::vector<std::string>& paths, const std::string (&targets)[3],
                             steady_clock::time_point end) {
  if (::setgroups(0, nullptr) != 0 || ::setresgid(kNobody, kNobody, kNobody) != 0 ||
      ::setresuid(kNobody, kNobody, kNobody) != 0) {
    ::_exit(2);
  }
  int rounds = 0;
  for (; steady_clock::now() < end; ++rounds) {
    for (size_t i = 0; i < paths.size(); i += 2) {
      const char *path = paths[i].c_str(), *aside = paths[i + 1].c_str();
      bool moved = ::rename(path, aside) == 0;
      for (const std::string& target : targets) {  // a link to each, then a FIFO
        target.empty() ? ::mkfifo(path, 0644) : ::symlink(target.c_str(), path);
        ::sched_yield();
        ::unlink(path);
      }
      if (moved) static_cast<void>(::rename(aside, path));
    }
  }
  ::_exit(rounds > 0 ? 0 : 3);
}

// Every item but the log and the helper's own links: type, mode, owner, link target or content.
std::map<std::string, std::string> snapshot(const HostTree& t) {
  std::map<std::string, std::string> items;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(t.path(""))) {
    const std::string path = entry.path(), relative = path.substr(t.path("").size());
    struct stat info {};
    if (relative.starts_with("log") || relative.starts_with("usr/local/bin/") ||
        relative.starts_with("usr/local/share/fish/vendor_completions.d/") ||
        ::lstat(path.c_str(), &info) != 0) {
      continue;
    }
    items[relative] = std::to_string(info.st_mode) + " " + std::to_string(info.st_uid) + " " +
                      (S_ISLNK(info.st_mode) ? t.linkTarget(path) : readFile(path).value_or(""));
  }
  return items;
}

TEST(HostRaceConcurrent, NothingButTheHelpersOwnLinksChangesWhileAUserSwapsWhatItOwns) {
  if (::geteuid() != 0) GTEST_SKIP() << "acting as a user who isn't an administrator needs root";
  HostTree t;
  ASSERT_EQ(::chmod(t.path("").c_str(), 0755), 0);  // the user may pass
  for (auto folder : {"usr/local/bin", "usr/local/share/zsh/site-functions",
                      "usr/local/share/fish/vendor_completions.d", "etc/resolver"}) {
    std::filesystem::create_directories(t.path(folder));
  }
  // The user owns a zsh tree (as a package manager run by a user leaves it) and the folder around
  // the root-owned resolver folder. A followed link would reach a root-owned folder and a marked
  // resolver file outside.
  for (auto folder : {"usr/local/share/zsh", "usr/local/share/zsh/site-functions", "etc"}) {
    ASSERT_EQ(::chown(t.path(folder).c_str(), kNobody, kNobody), 0);
  }
  writeFileAtomically(t.path("outside/file"), HelperResolver::fileContent("tqz") + "#\n", 0644);
  std::vector<std::string> paths;  // each swapped path, then where it is put aside
  for (auto path : {"usr/local/share/zsh/site-functions",
                    "usr/local/share/zsh/site-functions/_tarnly", "etc/resolver"}) {
    paths.insert(paths.end(), {t.path(path), t.path(path) + ".aside"});
  }
  const std::string targets[3] = {t.path("outside"), t.path("outside/file"), ""};
  const auto before = snapshot(t);

  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) swapAsUser(paths, targets, steady_clock::now() + std::chrono::seconds(2));
  std::atomic<bool> swapping = true;
  auto repeat = [&](auto remove, auto install) {
    return std::async(std::launch::async, [&, remove, install] {
      int done = 0;
      while (swapping) {
        try {
          remove(t.env_, systemUserDirectory());
          install(t.env_, systemUserDirectory());
          ++done;
        } catch (const std::exception&) {
          // A refusal or a failed step, told in its sentence: only what happens to the tree counts.
        }
      }
      return done;
    });
  };
  auto links = repeat(HelperCLISymlink::remove, HelperCLISymlink::install);
  auto resolver = repeat(HelperResolver::remove, HelperResolver::install);
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  swapping = false;
  ::alarm(60);  // far beyond a round of requests: only one blocked on a FIFO or a lock ends the run
  EXPECT_GT(links.get(), 0) << "the links in the administrators' /usr/local/bin were never made";
  resolver.get();
  ::alarm(0);
  EXPECT_EQ(status, 0) << "the user could not become uid " << kNobody << " or swap";
  EXPECT_EQ(snapshot(t), before);
}

}  // namespace
