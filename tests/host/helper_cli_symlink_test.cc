// The command-line links: only the helper's own replaced or removed, none from a copy or into a
// folder a non-administrator can change, every step below /usr on unredirectable folder handles.
#include "host/helper_cli_symlink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/host_tree.h"
#include "support/temp_tree.h"

namespace {

using ::testing::ElementsAre;
const HostTree::Request install = HelperCLISymlink::install, uninstall = HelperCLISymlink::remove;
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
  t.makeLink(bin + "qzr", "/A/MyTarnly.app/Contents/Helpers/tarnly");
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
  ASSERT_EQ(::chmod(t.path("Applications").c_str(), 0757), 0);
  EXPECT_FALSE(t.run(install));
  EXPECT_THAT(t.entries(bin), ElementsAre("qzr", "tqz"));
  ASSERT_EQ(::chmod(t.path("Applications").c_str(), 0755), 0);
  // Something else in the way stops the request there, before the completions.
  std::filesystem::remove_all(t.path("usr/local"));
  t.makeLink(bin + "tqz", "/Applications/Tarnly.app/Contents/MacOS/Tarnly");
  EXPECT_FALSE(t.run(install));
  EXPECT_EQ(std::pair(t.linkTarget(bin + "tarnly"), pathExists(t.path("usr/local/share"))),
            std::pair(T, false));
  // No /usr/local/bin: remove does nothing. A link or a folder anyone may change in its place,
  // no /usr, no executable tool: refused, and nothing made through the link.
  std::filesystem::remove_all(t.path("usr/local"));
  EXPECT_TRUE(t.run(uninstall));
  t.makeLink(t.path("usr/local"), t.path("outside"));
  std::filesystem::create_directory(t.path("outside/bin"));
  EXPECT_FALSE(t.run(install) || t.run(uninstall));
  EXPECT_THAT(t.entries(t.path("outside/bin")), ElementsAre());
  removeFile(t.path("usr/local"));
  std::filesystem::create_directories(bin);
  ASSERT_EQ(::chmod(bin.c_str(), 0757), 0);
  EXPECT_FALSE(t.run(install));
  std::filesystem::remove_all(t.path("usr"));
  EXPECT_FALSE(t.run(install));
  ASSERT_EQ(::chmod(T.c_str(), 0644), 0);
  EXPECT_FALSE(t.run(install)) << "checked before /usr is opened";

  const std::string L = "Linked /usr/local/", Rm = "Removed /usr/local/", to = " -> " + T + ".",
                    fish = "share/fish/vendor_completions.d/",
                    zsh = "share/zsh/site-functions/_tarnly",
                    qzr =
                        "Left /usr/local/bin/qzr alone: it points at /A/MyTarnly.app/Contents/"
                        "Helpers/tarnly, not a Tarnly bundle.",
                    taken =
                        " already exists and isn't a Tarnly link. Move it aside, then try again.",
                    notFolder =
                        "/usr/local isn't a real folder (it's a link or a file), so Tarnly "
                        "won't link into it.";
  // clang-format off
  EXPECT_EQ(t.transcript, (std::vector<std::string>{
      L + "bin/tarnly" + to, L + "bin/tqz" + to, Rm + "bin/qz.", qzr, L + zsh + " -> " + C + "_tarnly.",
      L + fish + "tarnly.fish -> " + C + "tarnly.fish.",
      "Shell completion /usr/local/" + fish + "tqz.fish not linked: /usr/local/" + fish + "tqz.fish" + taken,
      Rm + "bin/tarnly.", Rm + "bin/tqz.", qzr, Rm + zsh + ".", Rm + fish + "tarnly.fish.",
      "Left /usr/local/" + fish + "tqz.fish alone: it points at /A/Tarnly.app/Contents/Resources/"
          "completions/tqz.fish, not a Tarnly bundle.",
      Rm + "bin/tarnly.", "Tarnly can't link its command-line tool from this copy: " + t.path("Applications") +
          " can be changed by someone who isn't an administrator. Ask an administrator to install "
          "Tarnly in /Applications.",
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
  std::filesystem::create_directories(bin);
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
  std::filesystem::rename(t.path("usr/local/bin"), t.path("usr/local/checked"));
  t.makeLink(t.path("usr/local/bin"), t.path("outside"));
  HelperCLISymlink::link(t.env_, "/usr/local/bin/tarnly", handle.value(), t.tool,
                         [](const std::string&) { return false; });
  EXPECT_EQ(t.linkTarget(t.path("usr/local/checked/tarnly")), t.tool);
  EXPECT_THAT(t.entries(t.path("outside")), ElementsAre());
}

}  // namespace
