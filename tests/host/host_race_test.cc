// The link and resolver requests on two threads while a non-administrator swaps what it owns on
// their paths for links and FIFOs: only the helper's own links change, and no request blocks.
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>

#include <atomic>
#include <future>
#include <map>

#include "host/helper_cli_symlink.h"
#include "host/helper_resolver.h"
#include "host/host_tree.h"

namespace {

constexpr uid_t kNobody = 65534;

// Every item but the log and the helper's own links: type, mode, owner, link target or content.
std::map<std::string, std::string> snapshot(const HostTree& t) {
  std::map<std::string, std::string> items;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(t.path(""))) {
    const std::string path = entry.path(), relative = path.substr(t.path("").size());
    struct stat info {};
    if (relative.starts_with("log") || relative.starts_with("usr/local/bin/") ||
        relative.starts_with("usr/local/share/fish/vendor_completions.d/") ||
        ::lstat(path.c_str(), &info) != 0)
      continue;
    items[relative] = std::to_string(info.st_mode) + " " + std::to_string(info.st_uid) + " " +
                      (S_ISLNK(info.st_mode) ? t.linkTarget(path) : readFile(path).value_or(""));
  }
  return items;
}

TEST(HostRaceConcurrent, NothingButTheHelpersOwnLinksChangesWhileAUserSwapsWhatItOwns) {
  if (::geteuid() != 0) GTEST_SKIP() << "acting as a user who isn't an administrator needs root";
  HostTree t;
  ASSERT_EQ(::chmod(t.path("").c_str(), 0755), 0);  // the user may pass
  for (auto folder : {"usr/local/share/zsh/site-functions",
                      "usr/local/share/fish/vendor_completions.d", "etc/resolver"})
    std::filesystem::create_directories(t.path(folder));
  // The user owns a zsh tree (as a package manager run by a user leaves it) and the folder around
  // the root-owned resolver folder. A followed link would reach a root-owned folder and a marked
  // resolver file outside.
  for (auto folder : {"usr/local/share/zsh", "usr/local/share/zsh/site-functions", "etc"})
    ASSERT_EQ(::chown(t.path(folder).c_str(), kNobody, kNobody), 0);
  writeFileAtomically(t.path("outside/file"), HelperResolver::fileContent("tqz") + "#\n", 0644);
  std::vector<std::string> paths;  // each swapped path, then where it is put aside
  for (auto path : {"usr/local/share/zsh/site-functions",
                    "usr/local/share/zsh/site-functions/_tarnly", "etc/resolver"})
    paths.insert(paths.end(), {t.path(path), t.path(path) + ".aside"});
  const std::string targets[3] = {t.path("outside"), t.path("outside/file"), ""};  // "": a FIFO
  const auto before = snapshot(t);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);

  const pid_t child = ::fork();  // only system calls on strings made before the fork
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::setgroups(0, nullptr) | ::setresgid(kNobody, kNobody, kNobody) |
        ::setresuid(kNobody, kNobody, kNobody))
      ::_exit(2);
    int rounds = 0;
    for (; std::chrono::steady_clock::now() < end; ++rounds) {
      for (size_t i = 0; i < paths.size(); i += 2) {
        const char *path = paths[i].c_str(), *aside = paths[i + 1].c_str();
        const bool moved = ::rename(path, aside) == 0;
        for (const std::string& target : targets) {
          target.empty() ? ::mkfifo(path, 0644) : ::symlink(target.c_str(), path);
          ::sched_yield();
          ::unlink(path);
        }
        if (moved) static_cast<void>(::rename(aside, path));
      }
    }
    ::_exit(rounds > 0 ? 0 : 3);
  }
  std::atomic<bool> swapping = true;
  auto repeat = [&](auto remove, auto install) {
    return std::async(std::launch::async, [&, remove, install] {
      int done = 0;
      for (; swapping; ++done) {
        try {
          remove(t.env_, systemUserDirectory());
          install(t.env_, systemUserDirectory());
        } catch (const std::exception&) {  // a refusal: only what happens to the tree counts
          --done;
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
