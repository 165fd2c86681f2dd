// The link and resolver requests while a user who isn't an administrator keeps swapping what it
// owns on their paths — folders renamed away and back, links to a folder outside and to a file
// there, FIFOs: whatever the timing, nothing but the helper's own links and files is created,
// changed or removed, no link is followed and no request blocks.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <future>
#include <map>
#include <string>
#include <vector>

#include "host/helper_cli_symlink.h"
#include "host/helper_resolver.h"
#include "host/host_tree.h"

namespace {

constexpr uid_t kNobody = 65534;
constexpr int kIterations = 300;
constexpr auto kRunTime = std::chrono::seconds(2);
// Far beyond the run time: only a request blocked on a FIFO or lock takes this long.
constexpr auto kHangBound = std::chrono::seconds(60);

// Which folders the user owns and which paths in them it swaps.
struct Layout {
  const char* name;
  std::vector<std::string> userFolders, swapped;
};

const Layout kLayouts[] = {
    // A user-owned zsh tree (as a package manager run by a user leaves it) and resolver folder.
    {"UserOwnsZshAndResolverFolders",
     {"usr/local/share/zsh", "usr/local/share/zsh/site-functions", "etc/resolver"},
     {"usr/local/share/zsh/site-functions", "usr/local/share/zsh/site-functions/_tarnly",
      "etc/resolver/tqz", "etc/resolver/tarnly"}},
    // A user-owned share and etc around root-owned folders the helper would use.
    {"UserOwnsShareAndEtc",
     {"usr/local/share", "etc"},
     {"usr/local/share/zsh", "usr/local/share/fish", "etc/resolver"}},
};

void PrintTo(const Layout& layout, std::ostream* out) {
  *out << layout.name;
}

// The helper's own links and files, below `tree`.
const std::vector<std::string> kHelpersOwn = {
    "usr/local/bin/tarnly",
    "usr/local/bin/tqz",
    "usr/local/share/zsh/site-functions/_tarnly",
    "usr/local/share/fish/vendor_completions.d/tarnly.fish",
    "usr/local/share/fish/vendor_completions.d/tqz.fish",
    "etc/resolver/tqz",
    "etc/resolver/tarnly"};

// Runs in the child as `kNobody` with no supplementary group: swaps each path until `stop` is
// closed, puts everything back, reports the number of rounds and exits. Only system calls on
// strings made before the fork.
[[noreturn]] void swapAsUser(const std::vector<std::string>& paths,
                             const std::vector<std::string>& asides, const std::string& outside,
                             const std::string& outsideFile, int stop, int report) {
  if (::setgroups(0, nullptr) != 0 || ::setresgid(kNobody, kNobody, kNobody) != 0 ||
      ::setresuid(kNobody, kNobody, kNobody) != 0) {
    ::_exit(2);
  }
  long rounds = 0;
  if (::write(report, &rounds, sizeof rounds) != sizeof rounds) ::_exit(3);
  pollfd stopped{stop, POLLIN, 0};
  while (::poll(&stopped, 1, 0) == 0) {
    for (size_t i = 0; i < paths.size(); ++i) {
      const char* path = paths[i].c_str();
      bool moved = ::rename(path, asides[i].c_str()) == 0;
      for (const char* target : {outside.c_str(), outsideFile.c_str()}) {
        ::symlink(target, path);
        ::sched_yield();
        ::unlink(path);
      }
      ::mkfifo(path, 0644);
      ::sched_yield();
      ::unlink(path);
      if (moved) static_cast<void>(::rename(asides[i].c_str(), path));
    }
    ++rounds;
  }
  ::_exit(::write(report, &rounds, sizeof rounds) == sizeof rounds ? 0 : 3);
}

class HostRaceConcurrent : public ::testing::TestWithParam<Layout> {
 protected:
  bool underUserFolder(const std::string& relative) const {
    for (const std::string& folder : GetParam().userFolders) {
      if (relative.starts_with(folder + "/")) return true;
    }
    return false;
  }
  // Every item of the tree (links not followed) but the log and the helper's own links and files
  // in folders the user can't change: type and mode, owner, and link target or content.
  std::map<std::string, std::string> snapshot() const {
    std::map<std::string, std::string> items;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(tree.root())) {
      const std::string path = entry.path().string(),
                        relative = path.substr(tree.root().size() + 1);
      if (relative.starts_with("log/") ||
          (std::find(kHelpersOwn.begin(), kHelpersOwn.end(), relative) != kHelpersOwn.end() &&
           !underUserFolder(relative))) {
        continue;
      }
      struct stat info {};
      if (::lstat(path.c_str(), &info) != 0) continue;
      char item[64];
      static_cast<void>(
          std::snprintf(item, sizeof item, "%o %u:%u ", info.st_mode, info.st_uid, info.st_gid));
      items[relative] =
          item + (S_ISLNK(info.st_mode) ? tree.linkTarget(path) : readFile(path).value_or(""));
    }
    return items;
  }

  HostTree tree;
};

TEST_P(HostRaceConcurrent, NothingOutsideTheHelpersOwnPathsChangesWhileAUserSwapsWhatItOwns) {
  if (::geteuid() != 0) GTEST_SKIP() << "acting as a user who isn't an administrator needs root";
  ASSERT_EQ(::chmod(tree.root().c_str(), 0755), 0);
  for (auto folder : {"usr/local/bin", "usr/local/share/zsh/site-functions",
                      "usr/local/share/fish/vendor_completions.d", "etc/resolver"}) {
    tree.makeFolder(tree.path(folder));
  }
  // The sentinel: a root-owned folder and a marked resolver file that a followed link would reach.
  const std::string outsideFile = tree.outside() + "/file";
  writeFileAtomically(outsideFile, HelperResolver::fileContent("tqz") + "# old\n", 0644);
  for (const std::string& folder : GetParam().userFolders) {
    ASSERT_EQ(::chown(tree.path(folder).c_str(), kNobody, kNobody), 0);
  }
  std::vector<std::string> paths, asides;
  for (const std::string& path : GetParam().swapped) {
    paths.push_back(tree.path(path));
    asides.push_back(tree.path(path) + ".aside");
  }
  const auto before = snapshot();

  int stop[2], report[2];
  ASSERT_EQ(::pipe2(stop, O_CLOEXEC), 0);
  ASSERT_EQ(::pipe2(report, O_CLOEXEC), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::close(stop[1]);
    ::close(report[0]);
    swapAsUser(paths, asides, tree.outside(), outsideFile, stop[0], report[1]);
  }
  ::close(stop[0]);
  ::close(report[1]);
  long rounds = -1;
  ASSERT_EQ(::read(report[0], &rounds, sizeof rounds), static_cast<ssize_t>(sizeof rounds))
      << "the user process could not become uid " << kNobody;

  auto requests = std::async(std::launch::async, [&env = tree.env(), &users = tree.users()] {
    auto succeeds = [](auto request) {
      try {
        request();
        return 1;
      } catch (const std::exception&) {
        return 0;  // a refusal or a failed step, told in its sentence
      }
    };
    int linked = 0;
    const auto end = std::chrono::steady_clock::now() + kRunTime;
    for (int i = 0; i < kIterations && std::chrono::steady_clock::now() < end; ++i) {
      succeeds([&] { HelperResolver::remove(env, users); });
      succeeds([&] { HelperCLISymlink::remove(env, users); });
      linked += succeeds([&] { HelperCLISymlink::install(env, users); });
      succeeds([&] { HelperResolver::install(env, users); });
    }
    return linked;
  });
  if (requests.wait_for(kHangBound) != std::future_status::ready) {
    // Printed at once; the blocked request can't be unwound, so the run ends here.
    ADD_FAILURE() << "a request blocked for " << kHangBound.count() << " s";
    ::kill(child, SIGKILL);
    std::_Exit(1);
  }
  const int linked = requests.get();
  ::close(stop[1]);
  ASSERT_EQ(::read(report[0], &rounds, sizeof rounds), static_cast<ssize_t>(sizeof rounds));
  ::close(report[0]);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_GT(rounds, 0) << "the user swapped nothing";
  EXPECT_GT(linked, 0) << "the tool links in the administrators' /usr/local/bin were never made";

  const auto after = snapshot();
  for (const auto& [path, item] : before) {
    EXPECT_EQ(after.contains(path) ? after.at(path) : "<removed>", item) << path;
  }
  for (const auto& [path, item] : after) {
    EXPECT_TRUE(before.contains(path)) << "created " << path << ": " << item;
  }
}

INSTANTIATE_TEST_SUITE_P(Layouts, HostRaceConcurrent, ::testing::ValuesIn(kLayouts),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
