// The link and resolver requests on a temporary host: only the helper's own links and files change,
// none from a copy or in a folder a non-administrator can change, even while that user swaps it.
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <map>
#include <set>

#include "host/fake_user_directory.h"
#include "host/helper_cli_symlink.h"
#include "host/helper_resolver.h"
#include "platform/files.h"
#include "platform/ownership.h"
#include "platform/text.h"
#include "service/helper_environment.h"
#include "support/temp_tree.h"

namespace {

using ::testing::ElementsAre;
namespace fs = std::filesystem;

// A "/usr" with local/bin, a Tarnly.app bundle and a log, and the environment pointing at them;
// below /run as root, as the ownership walk checks every folder up to "/".
struct HostTree {
  const std::string root_ = makeRoot();
  HelperLog log_{root_ + "/log", root_ + "/log.1"};
  const std::string bundle = path("Applications/Tarnly.app/Contents/"),
                    tool = bundle + "Helpers/tarnly-cli",
                    completions = bundle + "Resources/completions/";
  HelperEnvironment env_{{}, systemNow, log_};
  FakeUserDirectory users_;
  std::vector<std::string> transcript;  // per run: its log lines without time stamps, its error

  HostTree() {  // umask 022: folders made here are 0755
    ::umask(022);
    env_.paths = {.resolverDirectory = path("etc/resolver"),
                  .usr = path("usr"),
                  .executable = bundle + "Helpers/TarnlyAdminHelper"};
    users_.addUser(::geteuid(), {kAdministratorGroup});  // owns the build folder when not root
    for (const auto& dir :
         {path("usr/local/bin"), path("outside"), completions, bundle + "Helpers"})
      fs::create_directories(dir);
    for (const auto& file :
         {tool, completions + "_tarnly", completions + "tarnly.fish", env_.paths.executable})
      writeFileAtomically(file, "#!/bin/sh\n", 0755);
  }
  ~HostTree() { fs::remove_all(root_); }

  std::string path(const std::string& relative) const { return root_ + "/" + relative; }
  static void makeLink(const std::string& link, const std::string& target) {
    fs::create_directories(parentPath(link));
    fs::create_symlink(target, link);
  }
  static std::string linkTarget(const std::string& link) { return fs::read_symlink(link); }
  static std::set<std::string> entries(const std::string& folder) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.insert(entry.path().filename());
    return names;
  }

  // Runs a request, adds what it logged and threw to `transcript`; true when it threw nothing.
  bool run(auto request) {
    std::string error;
    try {
      request(env_, users_);
    } catch (const std::exception& thrown) {
      error = thrown.what();
    }
    const std::string log = readFile(path("log")).value_or("");
    for (std::string_view line : split(log, '\n', false))
      transcript.emplace_back(line.substr(line.find(' ') + 1));
    if (!error.empty()) transcript.push_back(error);
    removeFile(path("log"));
    return error.empty();
  }
  static std::string makeRoot() {
    std::string pattern = (::geteuid() == 0 ? "/run" : parentPath(currentExecutablePath())) +
                          "/tarnly-host-tree-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) throw FileError("mkdtemp", pattern, errno);
    return fs::canonical(pattern).string();
  }
};

const auto install = &HelperCLISymlink::install, uninstall = &HelperCLISymlink::remove;
const std::string kBinMayChange =
    "/usr/local/bin can be changed by someone who isn't an administrator, so Tarnly won't link "
    "into it.";

TEST(HelperCLISymlink, OnlyItsOwnLinksAreMadeReplacedOrRemovedAndEveryRefusalIsTold) {
  HostTree t;
  const std::string bin = t.path("usr/local/bin/"), T = t.tool, C = t.completions,
                    vendor = t.path("usr/local/share/fish/vendor_completions.d/");
  // Links into any Tarnly bundle are replaced, or removed under legacy names; others stay.
  t.makeLink(bin + "tqz", "/Volumes/Old/Tarnly.app/Contents/Helpers/tarnly");
  t.makeLink(bin + "qz", "../Tarnly.app/Contents/Helpers/qz");
  t.makeLink(bin + "qzr", "/MyTarnly.app/Contents/Helpers/tarnly");
  t.makeLink(vendor + "tarnly.fish", "/V/Tarnly.app/Contents/Resources/completions/tarnly.fish");
  t.makeLink(vendor + "tqz.fish", "/A/Tarnly.app/Contents/Resources/completions/tqz.fish");
  ::umask(077);
  EXPECT_TRUE(t.run(install));
  ::umask(022);
  EXPECT_EQ(std::tuple(modeOf(t.path("usr/local/share/zsh/site-functions")), t.entries(bin).size(),
                       t.linkTarget(bin + "tarnly"), t.linkTarget(bin + "tqz"),
                       t.linkTarget(vendor + "tarnly.fish")),
            std::tuple(0755, 3U, T, T, C + "tarnly.fish"));
  EXPECT_TRUE(t.run(uninstall));
  EXPECT_EQ(std::pair(t.entries(bin), t.entries(vendor)),
            std::pair(std::set<std::string>{"qzr"}, std::set<std::string>{"tqz.fish"}));
  // A copy that a non-administrator can change links nothing and loses the links at it.
  t.makeLink(bin + "tarnly", T);
  t.makeLink(bin + "tqz", "/Applications/Tarnly.app/Contents/Helpers/tarnly-cli");
  EXPECT_FALSE(::chmod(t.path("Applications").c_str(), 0757) || t.run(install));
  EXPECT_THAT(t.entries(bin), ElementsAre("qzr", "tqz"));
  ASSERT_EQ(::chmod(t.path("Applications").c_str(), 0755), 0);
  // Something else in the way stops the request there, before the completions.
  fs::remove_all(t.path("usr/local"));
  t.makeLink(bin + "tqz", "/Applications/Tarnly.app/Contents/MacOS/Tarnly");
  EXPECT_FALSE(t.run(install));
  EXPECT_EQ(std::pair(t.linkTarget(bin + "tarnly"), pathExists(t.path("usr/local/share"))),
            std::pair(T, false));
  // No /usr/local/bin: remove does nothing. A link or a folder anyone may change in its place,
  // no /usr, no executable tool: refused, and nothing made through the link.
  fs::remove_all(t.path("usr/local"));
  EXPECT_TRUE(t.run(uninstall));
  t.makeLink(t.path("usr/local"), t.path("outside"));
  EXPECT_FALSE(t.run(install) || t.run(uninstall));
  EXPECT_THAT(t.entries(t.path("outside")), ElementsAre());
  removeFile(t.path("usr/local"));
  fs::create_directories(bin);
  EXPECT_FALSE(::chmod(bin.c_str(), 0757) || t.run(install));
  fs::remove_all(t.path("usr"));
  EXPECT_FALSE(t.run(install));
  EXPECT_FALSE(::chmod(T.c_str(), 0644) || t.run(install)) << "checked before /usr is opened";
  // clang-format off
  const std::string L = "Linked /usr/local/", Rm = "Removed /usr/local/", to = " -> " + T + ".",
      fish = "share/fish/vendor_completions.d/", zsh = "share/zsh/site-functions/_tarnly",
      share = "/usr/local/" + fish + "tqz.fish", bundle = ", not a Tarnly bundle.",
      qzr = "Left /usr/local/bin/qzr alone: it points at /MyTarnly.app/Contents/Helpers/"
            "tarnly" + bundle,
      taken = " already exists and isn't a Tarnly link. Move it aside, then try again.",
      notFolder = "/usr/local isn't a real folder (it's a link or a file), so Tarnly won't link "
                  "into it.";
  EXPECT_EQ(t.transcript, (std::vector<std::string>{
      L + "bin/tarnly" + to, L + "bin/tqz" + to, Rm + "bin/qz.", qzr,
      L + zsh + " -> " + C + "_tarnly.", L + fish + "tarnly.fish -> " + C + "tarnly.fish.",
      "Shell completion " + share + " not linked: " + share + taken,
      Rm + "bin/tarnly.", Rm + "bin/tqz.", qzr, Rm + zsh + ".", Rm + fish + "tarnly.fish.",
      "Left " + share + " alone: it points at /A/Tarnly.app/Contents/Resources/completions/"
          "tqz.fish" + bundle,
      Rm + "bin/tarnly.", "Tarnly can't link its command-line tool from this copy: " +
          t.path("Applications") + " can be changed by someone who isn't an administrator. Ask an "
          "administrator to install Tarnly in /Applications.",
      L + "bin/tarnly" + to, "/usr/local/bin/tqz" + taken, notFolder, notFolder, kBinMayChange,
      "Could not open /usr.", "The bundled command-line tool isn't at " + T + "."}));
  // clang-format on
}

TEST(HelperCLISymlink, FolderOwnershipDecidesWhetherLinksGoIntoIt) {
  if (::geteuid() != 0) GTEST_SKIP() << "changing owners needs root";
  HostTree t;
  t.users_.addUser(501, {20, kAdministratorGroup});  // an administrator; 4242 is none
  removeFile(t.completions + "tarnly.fish");
  const std::string bin = t.path("usr/local/bin");
  // Root's or the administrators' group (80), or an administrator owner, may write; no one else.
  for (auto [owner, group, mode, accepted] : {std::tuple{0, 0, 0775, true},
                                              {0, 80, 0775, true},
                                              {501, 20, 0755, true},
                                              {0, 4243, 0775, false},
                                              {0, 4243, 0755, true},
                                              {0, 0, 01777, false},
                                              {4242, 0, 0755, false}}) {
    SCOPED_TRACE(::testing::Message() << owner << ":" << group << " " << std::oct << mode);
    ASSERT_EQ(::chown(bin.c_str(), owner, group) | ::chmod(bin.c_str(), mode), 0);
    EXPECT_EQ(t.run(install) ? "linked" : t.transcript.back(), accepted ? "linked" : kBinMayChange);
  }
  EXPECT_FALSE(pathExists(t.path("usr/local/share/fish"))) << "no fish source, no fish links";
}

TEST(HelperCLISymlink, AFolderSwappedForALinkAfterItsCheckCannotRedirectTheLink) {
  HostTree t;
  auto handle = HelperCLISymlink::openSafeDirectory(t.env_, {"local", "bin"}, true, t.users_);
  fs::rename(t.path("usr/local/bin"), t.path("usr/local/checked"));
  t.makeLink(t.path("usr/local/bin"), t.path("outside"));
  HelperCLISymlink::link(t.env_, "/usr/local/bin/tarnly", handle.value(), t.tool,
                         [](const std::string&) { return false; });
  EXPECT_EQ(t.linkTarget(t.path("usr/local/checked/tarnly")), t.tool);
  EXPECT_THAT(t.entries(t.path("outside")), ElementsAre());
}

TEST(HelperResolver, OnlyItsOwnRegularFilesAreWrittenOrRemovedInAnAdministratorsFolder) {
  HostTree t;
  const auto on = &HelperResolver::install, off = &HelperResolver::remove;
  const std::string R = t.env_.paths.resolverDirectory, tqz = R + "/tqz", tarnly = R + "/tarnly",
                    marked = t.path("outside/marked");
  const auto own = HelperResolver::fileContent;  // its exact text: see the end-to-end test
  // Folders are made 0755 and files 0644 whatever the umask; an identical file is not rewritten.
  ::umask(077);
  EXPECT_TRUE(t.run(on));
  ::umask(022);
  EXPECT_EQ(std::tuple(contentOf(tqz), contentOf(tarnly), modeOf(t.path("etc")), modeOf(R),
                       modeOf(tqz), modeOf(tarnly), t.entries(R).size()),
            std::tuple(own("tqz"), own("tarnly"), 0755, 0755, 0644, 0644, 2U));
  EXPECT_THAT(HelperResolver::resolverPaths(t.env_), ElementsAre(tqz, tarnly));
  EXPECT_TRUE(t.run(on));  // logs nothing
  // An edited file of the helper is replaced, another one stays as it is.
  writeFileAtomically(tqz, own("tqz") + "# edited\n", 0600);
  writeFileAtomically(tarnly, "nameserver 10.0.0.53\n", 0600);
  EXPECT_TRUE(t.run(on) && t.run(off));
  EXPECT_EQ(std::tuple(contentOf(tarnly), modeOf(tarnly), pathExists(tqz)),
            std::tuple("nameserver 10.0.0.53\n", 0600, false));
  // A link to a marked file, a FIFO and a huge marked file read as absent: remove leaves them,
  // install replaces them without following or blocking. Bytes that aren't UTF-8 hide no marker.
  writeFileAtomically(marked, own("tqz"), 0644);
  t.makeLink(tqz, marked);
  ASSERT_EQ(::unlink(tarnly.c_str()) | ::mkfifo(tarnly.c_str(), 0644), 0);
  EXPECT_EQ(std::pair(t.run(off), t.linkTarget(tqz)), std::pair(true, marked));
  EXPECT_TRUE(t.run(on));
  EXPECT_EQ(std::tuple(contentOf(tqz), contentOf(tarnly), contentOf(marked)),
            std::tuple(own("tqz"), own("tarnly"), own("tqz")));
  writeFileAtomically(tqz, "# Installed by Tarnly\n" + std::string(8192, '#'), 0644);
  writeFileAtomically(tarnly, "\xff\xfe# Installed by Tarnly long ago\n", 0644);
  EXPECT_TRUE(t.run(off));
  EXPECT_EQ(t.entries(R), std::set<std::string>{"tqz"});
  // Temporary files a crash left behind go with the next request.
  for (auto [request, left] : {std::pair{on, 2U}, {off, 0U}}) {
    for (auto name : {"/.tarnly.tmp-0123456789ab", "/tqz.tmp-0123456789ab"})
      writeFileAtomically(R + name, "half", 0644);
    EXPECT_TRUE(t.run(request) && t.entries(R).size() == left);
  }
  // A file that can't be replaced ends the request; a folder that is a link, or that a
  // non-administrator can change, or below one, is neither written nor emptied.
  fs::create_directory(tqz);
  EXPECT_FALSE(t.run(on) || pathExists(tarnly));
  fs::remove(tqz);
  EXPECT_TRUE(t.run(on));
  EXPECT_FALSE(::chmod(t.path("etc").c_str(), 0777) || t.run(off));
  EXPECT_FALSE(::chmod(t.path("etc").c_str(), 0755) || ::chmod(R.c_str(), 0777) || t.run(off));
  EXPECT_THAT(t.entries(R), ElementsAre("tarnly", "tqz"));
  fs::remove_all(R);
  t.makeLink(R, t.path("outside"));
  EXPECT_FALSE(t.run(on));
  EXPECT_THAT(t.entries(t.path("outside")), ElementsAre("marked"));
  const std::string in = "Installed " + tqz + ".", inT = "Installed " + tarnly + ".",
                    rm = "Removed " + tqz + ".", rmT = "Removed " + tarnly + ".",
                    no = R +
                         " isn't a folder that only administrators can change, so Tarnly "
                         "won't write resolver files into it.";
  EXPECT_EQ(t.transcript,
            (std::vector<std::string>{
                in, inT, in, "Left " + tarnly + " alone: it wasn't installed by Tarnly.", rm, in,
                inT, rmT, in, inT, rm, rmT, "Could not write " + tqz + ": Is a directory.", in, inT,
                no, no, no}));
}

constexpr uid_t kNobody = 65534;

// Every item but the log and the helper's own links: type, mode, owner, link target or content.
std::map<std::string, std::string> snapshot(const HostTree& t) {
  std::map<std::string, std::string> items;
  for (const auto& entry : fs::recursive_directory_iterator(t.path(""))) {
    const std::string path = entry.path(), relative = path.substr(t.path("").size());
    struct stat info {};
    if (relative.starts_with("log") || relative.starts_with("usr/local/bin/") ||
        relative.starts_with("usr/local/share/fish") || ::lstat(path.c_str(), &info) != 0)
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
  // The user owns a zsh tree (as a package manager run by a user leaves it) and the folder around
  // the resolver folder; a followed link would reach a root-owned folder or marked file outside.
  const std::string zsh = t.path("usr/local/share/zsh/site-functions"), R = t.path("etc/resolver");
  for (const auto& folder : {zsh, R}) fs::create_directories(folder);
  for (const auto& folder : {parentPath(zsh), zsh, parentPath(R)})
    ASSERT_EQ(::chown(folder.c_str(), kNobody, kNobody), 0);
  writeFileAtomically(t.path("outside/file"), HelperResolver::fileContent("tqz") + "#\n", 0644);
  const std::string paths[] = {zsh, zsh + ".aside", zsh + "/_tarnly", zsh + "/_tarnly.aside",
                               R,   R + ".aside"};  // each swapped path, then where it is put aside
  const std::string targets[3] = {t.path("outside"), t.path("outside/file"), ""};  // "": a FIFO
  const auto before = snapshot(t);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  const pid_t child = ::fork();  // only system calls on strings made before the fork
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::setgroups(0, nullptr) | ::setresgid(kNobody, kNobody, kNobody) |
        ::setresuid(kNobody, kNobody, kNobody))
      ::_exit(2);
    while (std::chrono::steady_clock::now() < end) {
      for (size_t i = 0; i < std::size(paths); i += 2) {
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
    ::_exit(0);
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
