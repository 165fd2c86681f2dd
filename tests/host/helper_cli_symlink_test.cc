// The command-line links as a careful root helper must make them: only its own links replaced or
// removed, nothing linked from a copy or into a folder a non-administrator could change, every
// step below /usr on folder handles that a swapped-in link cannot redirect.
#include "host/helper_cli_symlink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <tuple>

#include "host/host_tree.h"

namespace {

using HelperCLISymlink::SymlinkError;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class HelperCLISymlinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto unsafe = HelperCLISymlink::firstPathNonAdminCanChange(tree.root(), tree.users());
    ASSERT_FALSE(unsafe.has_value())
        << *unsafe << " fails the ownership rule; build the tests in a folder whose parents are "
        << "owned by root or an administrator and writable by no one else";
  }

  void install() { HelperCLISymlink::install(tree.env(), tree.users()); }
  void remove() { HelperCLISymlink::remove(tree.env(), tree.users()); }

  // The message of the SymlinkError thrown by `operation`, or "<no error>".
  template <typename Operation>
  std::string failure(Operation operation) {
    try {
      operation();
    } catch (const SymlinkError& error) {
      return error.what();
    }
    return "<no error>";
  }

  static void requireRoot() {
    if (::geteuid() != 0) GTEST_SKIP() << "changing owners needs root";
  }

  std::string zshLink() const { return tree.usr("local/share/zsh/site-functions/_tarnly"); }
  std::string fishLink(const std::string& name) const {
    return tree.usr("local/share/fish/vendor_completions.d/" + name);
  }

  HostTree tree;
};

TEST_F(HelperCLISymlinkTest, FreshInstallLinksBothToolLinksAndTheCompletions) {
  install();
  EXPECT_EQ(tree.linkTarget(tree.usr("local/bin/tarnly")), tree.tool());
  EXPECT_EQ(tree.linkTarget(tree.usr("local/bin/tqz")), tree.tool());
  EXPECT_EQ(tree.linkTarget(zshLink()), tree.completions() + "/_tarnly");
  EXPECT_EQ(tree.linkTarget(fishLink("tarnly.fish")), tree.completions() + "/tarnly.fish");
  EXPECT_EQ(tree.linkTarget(fishLink("tqz.fish")), tree.completions() + "/tarnly.fish");
  for (const char* folder :
       {"local", "local/bin", "local/share", "local/share/zsh", "local/share/zsh/site-functions",
        "local/share/fish/vendor_completions.d"}) {
    EXPECT_EQ(modeOf(tree.usr(folder)), 0755) << folder;
  }
  EXPECT_THAT(tree.log(),
              ElementsAre("Linked /usr/local/bin/tarnly -> " + tree.tool() + ".",
                          "Linked /usr/local/bin/tqz -> " + tree.tool() + ".",
                          "Linked /usr/local/share/zsh/site-functions/_tarnly -> " +
                              tree.completions() + "/_tarnly.",
                          "Linked /usr/local/share/fish/vendor_completions.d/tarnly.fish -> " +
                              tree.completions() + "/tarnly.fish.",
                          "Linked /usr/local/share/fish/vendor_completions.d/tqz.fish -> " +
                              tree.completions() + "/tarnly.fish."));
}

TEST_F(HelperCLISymlinkTest, SecondInstallReplacesOnlyItsOwnLinks) {
  install();
  tree.makeLink(tree.usr("local/bin/python3"), "/usr/bin/python3.11");
  tree.makeLink(tree.usr("local/share/zsh/site-functions/_git"), "/usr/share/git/_git");
  auto before = tree.log();
  tree.clearLog();

  install();
  EXPECT_EQ(tree.log(), before) << "the same links are made and logged again";
  EXPECT_EQ(tree.linkTarget(tree.usr("local/bin/tarnly")), tree.tool());
  EXPECT_EQ(tree.linkTarget(tree.usr("local/bin/python3")), "/usr/bin/python3.11");
  EXPECT_EQ(tree.linkTarget(tree.usr("local/share/zsh/site-functions/_git")),
            "/usr/share/git/_git");
  EXPECT_THAT(tree.entries(tree.usr("local/bin")), ElementsAre("python3", "tarnly", "tqz"));
}

TEST_F(HelperCLISymlinkTest, SomethingForeignAtALinkPathFailsWithItsMessageAndStays) {
  tree.makeFolder(tree.usr("local/bin"));
  writeFileAtomically(tree.usr("local/bin/tarnly"), "my own script\n", 0755);
  EXPECT_EQ(failure([&] { install(); }),
            "/usr/local/bin/tarnly already exists and isn't a Tarnly link. Move it aside, then try "
            "again.");
  EXPECT_EQ(contentOf(tree.usr("local/bin/tarnly")), "my own script\n");
  EXPECT_FALSE(pathExists(tree.usr("local/bin/tqz"))) << "the second link is not attempted";
  EXPECT_FALSE(pathExists(tree.usr("local/share"))) << "nor are the completions";

  // A link elsewhere, even into the app bundle but not at a tool, is foreign too.
  removeFile(tree.usr("local/bin/tarnly"));
  const std::string foreign = "/Applications/Tarnly.app/Contents/MacOS/Tarnly";
  tree.makeLink(tree.usr("local/bin/tqz"), foreign);
  EXPECT_EQ(failure([&] { install(); }),
            "/usr/local/bin/tqz already exists and isn't a Tarnly link. Move it aside, then try "
            "again.");
  EXPECT_EQ(tree.linkTarget(tree.usr("local/bin/tqz")), foreign);
  EXPECT_EQ(tree.linkTarget(tree.usr("local/bin/tarnly")), tree.tool()) << "made before tqz";

  // A folder in the way is not a link either.
  removeFile(tree.usr("local/bin/tqz"));
  tree.makeFolder(tree.usr("local/bin/tqz"));
  EXPECT_THAT(failure([&] { install(); }), HasSubstr("/usr/local/bin/tqz already exists"));
}

TEST_F(HelperCLISymlinkTest, LinkIntoAnotherCopyOfTheAppIsReplaced) {
  const std::string other = "/Volumes/Backup/Old Apps/Tarnly.app/Contents/Helpers/tarnly";
  tree.makeLink(tree.usr("local/bin/tqz"), other);
  tree.makeLink(zshLink(), "/Volumes/Backup/Tarnly.app/Contents/Resources/completions/_tarnly");
  install();
  EXPECT_EQ(tree.linkTarget(tree.usr("local/bin/tqz")), tree.tool());
  EXPECT_EQ(tree.linkTarget(zshLink()), tree.completions() + "/_tarnly");
  EXPECT_THAT(tree.log(), Contains("Linked /usr/local/bin/tqz -> " + tree.tool() + "."));
}

TEST_F(HelperCLISymlinkTest, LegacyLinksIntoABundleGoAndForeignOnesStay) {
  tree.makeLink(tree.usr("local/bin/qz"), "/Applications/Tarnly.app/Contents/Helpers/qz");
  tree.makeLink(tree.usr("local/bin/qzr"), "/opt/homebrew/bin/qzr");
  install();
  EXPECT_FALSE(pathExists(tree.usr("local/bin/qz")));
  EXPECT_EQ(tree.linkTarget(tree.usr("local/bin/qzr")), "/opt/homebrew/bin/qzr");
  auto log = tree.log();
  EXPECT_THAT(log, Contains("Removed /usr/local/bin/qz."));
  EXPECT_THAT(log, Contains("Left /usr/local/bin/qzr alone: it points at /opt/homebrew/bin/qzr, "
                            "not a Tarnly bundle."));
}

TEST_F(HelperCLISymlinkTest, MissingFishCompletionSkipsBothFishRowsSilently) {
  removeFile(tree.completions() + "/tarnly.fish");
  install();
  EXPECT_EQ(tree.linkTarget(zshLink()), tree.completions() + "/_tarnly");
  EXPECT_FALSE(pathExists(tree.usr("local/share/fish")));
  for (const std::string& line : tree.log()) EXPECT_THAT(line, Not(HasSubstr("fish")));
}

TEST_F(HelperCLISymlinkTest, CompletionProblemsAreLoggedAndDoNotFailTheInstall) {
  tree.makeFolder(tree.usr("local/share/fish/vendor_completions.d/tarnly.fish"));
  install();
  EXPECT_EQ(tree.linkTarget(fishLink("tqz.fish")), tree.completions() + "/tarnly.fish");
  EXPECT_THAT(tree.log(), Contains("Shell completion "
                                   "/usr/local/share/fish/vendor_completions.d/tarnly.fish not "
                                   "linked: /usr/local/share/fish/vendor_completions.d/tarnly.fish"
                                   " already exists and isn't a Tarnly link. Move it aside, then "
                                   "try again."));
}

TEST_F(HelperCLISymlinkTest, LinkAtUsrLocalIsRefused) {
  tree.makeFolder(tree.outside() + "/bin");
  tree.makeLink(tree.usr("local"), tree.outside());
  const std::string message =
      "/usr/local isn't a real folder (it's a link or a file), so Tarnly won't link into it.";
  EXPECT_EQ(failure([&] { install(); }), message);
  EXPECT_EQ(failure([&] { remove(); }), message);
  EXPECT_THAT(tree.entries(tree.outside() + "/bin"), IsEmpty());
  EXPECT_THAT(tree.entries(tree.outside()), ElementsAre("bin"));
}

TEST_F(HelperCLISymlinkTest, FileAtUsrLocalBinIsRefused) {
  tree.makeFolder(tree.usr("local"));
  writeFileAtomically(tree.usr("local/bin"), "", 0644);
  EXPECT_EQ(failure([&] { install(); }),
            "/usr/local/bin isn't a real folder (it's a link or a file), so Tarnly won't link into "
            "it.");
}

TEST_F(HelperCLISymlinkTest, MissingUsrRootFailsToOpen) {
  ::rmdir(tree.usr().c_str());
  EXPECT_EQ(failure([&] { install(); }), "Could not open /usr.");
}

TEST_F(HelperCLISymlinkTest, FolderOwnershipDecidesWhetherLinksGoIntoIt) {
  requireRoot();
  struct Case {
    uid_t owner;
    gid_t group;
    mode_t mode;
    bool accepted;
  };
  const Case cases[] = {
      {0, 0, 0755, true},
      {0, 0, 0775, true},                                         // group root may write
      {0, HelperAuthorization::kAdministratorGroup, 0775, true},  // group admin may write
      {HostTree::kAdminUID, 20, 0755, true},                      // owned by an administrator
      {0, HostTree::kOtherGID, 0775, false},                      // another group may write
      {0, HostTree::kOtherGID, 0755, true},  // ... but only its write bit counts
      {0, 0, 0757, false},                   // anyone may write
      {0, 0, 01777, false},                  // sticky does not help
      {HostTree::kUserUID, 0, 0755, false},  // owned by a non-administrator
  };
  const std::string bin = tree.usr("local/bin");
  tree.makeFolder(bin);
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message()
                 << "owner " << c.owner << " group " << c.group << " mode " << std::oct << c.mode);
    ASSERT_EQ(::chown(bin.c_str(), c.owner, c.group), 0);
    ASSERT_EQ(::chmod(bin.c_str(), c.mode), 0);
    std::string result = failure([&] { install(); });
    if (c.accepted) {
      EXPECT_EQ(result, "<no error>");
      EXPECT_EQ(tree.linkTarget(bin + "/tarnly"), tree.tool());
    } else {
      EXPECT_EQ(result,
                "/usr/local/bin can be changed by someone who isn't an administrator, so Tarnly "
                "won't link into it.");
    }
  }
}

TEST_F(HelperCLISymlinkTest, UnsafeCompletionFolderSkipsOnlyThatCompletion) {
  requireRoot();
  tree.makeFolder(tree.usr("local/share/zsh"));
  ASSERT_EQ(::chown(tree.usr("local/share/zsh").c_str(), HostTree::kUserUID, 0), 0);
  install();
  EXPECT_EQ(tree.linkTarget(tree.usr("local/bin/tarnly")), tree.tool());
  EXPECT_FALSE(pathExists(tree.usr("local/share/zsh/site-functions")));
  EXPECT_EQ(tree.linkTarget(fishLink("tqz.fish")), tree.completions() + "/tarnly.fish");
  EXPECT_THAT(tree.log(), Contains("Shell completion /usr/local/share/zsh/site-functions/_tarnly "
                                   "not linked: /usr/local/share/zsh can be changed by someone "
                                   "who isn't an administrator, so Tarnly won't link into it."));
}

TEST_F(HelperCLISymlinkTest, CopyANonAdministratorCanChangeIsRefusedAndItsLinksRemoved) {
  requireRoot();
  install();
  const std::string otherCopy = "/Applications/Tarnly.app/Contents/Helpers/tarnly-cli";
  removeFile(tree.usr("local/bin/tqz"));
  tree.makeLink(tree.usr("local/bin/tqz"), otherCopy);
  tree.clearLog();

  const std::string applications = tree.path("Applications");
  ASSERT_EQ(::chown(applications.c_str(), HostTree::kUserUID, 20), 0);
  EXPECT_EQ(failure([&] { install(); }),
            "Tarnly can't link its command-line tool from this copy: " + applications +
                " can be changed by someone who isn't an administrator. Ask an administrator to "
                "install Tarnly in /Applications.");
  EXPECT_FALSE(pathExists(tree.usr("local/bin/tarnly")));
  EXPECT_EQ(tree.linkTarget(tree.usr("local/bin/tqz")), otherCopy) << "not this copy: kept";
  EXPECT_EQ(tree.linkTarget(zshLink()), tree.completions() + "/_tarnly") << "completions stay";
  EXPECT_THAT(tree.log(), ElementsAre("Removed /usr/local/bin/tarnly."));
}

TEST_F(HelperCLISymlinkTest, RefusalNamesTheFirstChangeableItemFromTheToolUpwards) {
  // Both the bundle and the tool can be changed by others; the tool comes first.
  ASSERT_EQ(::chmod(tree.bundle().c_str(), 0777), 0);
  EXPECT_THAT(failure([&] { install(); }),
              HasSubstr("from this copy: " + tree.bundle() + " can be changed"));
  ASSERT_EQ(::chmod(tree.tool().c_str(), 0757), 0);
  EXPECT_THAT(failure([&] { install(); }),
              HasSubstr("from this copy: " + tree.tool() + " can be changed"));
  EXPECT_FALSE(pathExists(tree.usr("local"))) << "a refused copy creates nothing";
}

TEST_F(HelperCLISymlinkTest, ToolMissingOrNotExecutableFailsBeforeUsrIsTouched) {
  ASSERT_EQ(::chmod(tree.tool().c_str(), 0644), 0);
  const std::string message = "The bundled command-line tool isn't at " + tree.tool() + ".";
  try {
    install();
    ADD_FAILURE() << "install succeeded";
  } catch (const SymlinkError& error) {
    EXPECT_EQ(error.kind(), SymlinkError::Kind::cliMissing);
    EXPECT_EQ(std::string(error.what()), message);
  }
  removeFile(tree.tool());
  EXPECT_EQ(failure([&] { install(); }), message);
  ::rmdir(tree.usr().c_str());
  EXPECT_EQ(failure([&] { install(); }), message) << "checked before /usr is opened";
  EXPECT_THAT(tree.log(), IsEmpty());
}

TEST_F(HelperCLISymlinkTest, ExecutableReachedThroughALinkUsesTheRealBundle) {
  const std::string launcher = tree.path("launcher/TarnlyAdminHelper");
  tree.makeLink(launcher, tree.env().paths.executable);
  tree.env().paths.executable = launcher;
  EXPECT_EQ(HelperCLISymlink::cliURL(tree.env()), tree.tool());
  EXPECT_EQ(HelperCLISymlink::completionsDirectory(tree.env()), tree.completions());
  install();
  EXPECT_EQ(tree.linkTarget(tree.usr("local/bin/tarnly")), tree.tool());
}

TEST_F(HelperCLISymlinkTest, RemoveTakesAwayOnlyBundleLinks) {
  install();
  tree.makeLink(tree.usr("local/bin/qz"), "/Applications/Tarnly.app/Contents/Helpers/qz");
  tree.makeLink(tree.usr("local/bin/qzr"), "/usr/local/Cellar/qzr/bin/qzr");
  removeFile(fishLink("tqz.fish"));
  tree.makeLink(fishLink("tqz.fish"), "/usr/share/fish/tqz.fish");
  tree.clearLog();

  remove();
  EXPECT_THAT(tree.entries(tree.usr("local/bin")), ElementsAre("qzr"));
  EXPECT_FALSE(pathExists(zshLink()));
  EXPECT_FALSE(pathExists(fishLink("tarnly.fish")));
  EXPECT_EQ(tree.linkTarget(fishLink("tqz.fish")), "/usr/share/fish/tqz.fish");
  EXPECT_THAT(tree.log(),
              ElementsAre("Removed /usr/local/bin/tarnly.", "Removed /usr/local/bin/tqz.",
                          "Removed /usr/local/bin/qz.",
                          "Left /usr/local/bin/qzr alone: it points at "
                          "/usr/local/Cellar/qzr/bin/qzr, not a Tarnly bundle.",
                          "Removed /usr/local/share/zsh/site-functions/_tarnly.",
                          "Removed /usr/local/share/fish/vendor_completions.d/tarnly.fish.",
                          "Left /usr/local/share/fish/vendor_completions.d/tqz.fish alone: it "
                          "points at /usr/share/fish/tqz.fish, not a Tarnly bundle."));

  // A second remove finds nothing of its own.
  tree.clearLog();
  remove();
  EXPECT_THAT(tree.log(), ElementsAre("Left /usr/local/bin/qzr alone: it points at "
                                      "/usr/local/Cellar/qzr/bin/qzr, not a Tarnly bundle.",
                                      "Left /usr/local/share/fish/vendor_completions.d/tqz.fish "
                                      "alone: it points at /usr/share/fish/tqz.fish, not a Tarnly "
                                      "bundle."));
}

TEST_F(HelperCLISymlinkTest, RemoveLeavesRegularFilesAndOtherCopiesCompletionFolders) {
  tree.makeFolder(tree.usr("local/bin"));
  writeFileAtomically(tree.usr("local/bin/tarnly"), "mine\n", 0755);
  tree.makeLink(zshLink(), "/Users/me/dotfiles/_tarnly");
  remove();
  EXPECT_EQ(contentOf(tree.usr("local/bin/tarnly")), "mine\n");
  EXPECT_EQ(tree.linkTarget(zshLink()), "/Users/me/dotfiles/_tarnly");
  EXPECT_THAT(tree.log(),
              ElementsAre("Left /usr/local/share/zsh/site-functions/_tarnly alone: it "
                          "points at /Users/me/dotfiles/_tarnly, not a Tarnly bundle."));
}

TEST_F(HelperCLISymlinkTest, RemoveWithoutUsrLocalBinSucceedsAndLeavesCompletions) {
  tree.makeLink(zshLink(), tree.completions() + "/_tarnly");
  remove();
  EXPECT_EQ(tree.linkTarget(zshLink()), tree.completions() + "/_tarnly");
  EXPECT_FALSE(pathExists(tree.usr("local/bin")));
  EXPECT_THAT(tree.log(), IsEmpty());
}

TEST_F(HelperCLISymlinkTest, FolderSwappedForALinkBetweenStepsCreatesNothingOutside) {
  // The handle keeps naming the folder that was checked, whatever is at its path later.
  auto handle =
      HelperCLISymlink::openSafeDirectory(tree.env(), {"local", "bin"}, true, tree.users());
  ASSERT_TRUE(handle.has_value());
  ASSERT_EQ(std::rename(tree.usr("local/bin").c_str(), tree.usr("local/bin.checked").c_str()), 0);
  tree.makeLink(tree.usr("local/bin"), tree.outside());
  HelperCLISymlink::link(tree.env(), "/usr/local/bin/tarnly", *handle, tree.tool(),
                         [](const std::string&) { return false; });
  EXPECT_EQ(tree.linkTarget(tree.usr("local/bin.checked/tarnly")), tree.tool());
  EXPECT_THAT(tree.entries(tree.outside()), IsEmpty());

  // The next operation opens the path afresh and refuses the link.
  EXPECT_EQ(failure([&] { install(); }),
            "/usr/local/bin isn't a real folder (it's a link or a file), so Tarnly won't link into "
            "it.");
  EXPECT_THAT(tree.entries(tree.outside()), IsEmpty());
}

TEST_F(HelperCLISymlinkTest, CompletionFolderSwappedForALinkBetweenInstallsIsRefused) {
  install();
  const std::string zsh = tree.usr("local/share/zsh");
  ASSERT_EQ(std::rename(zsh.c_str(), tree.path("old-zsh").c_str()), 0);
  tree.makeFolder(tree.outside() + "/site-functions");
  tree.makeLink(zsh, tree.outside());
  tree.clearLog();

  install();
  EXPECT_THAT(tree.entries(tree.outside() + "/site-functions"), IsEmpty());
  EXPECT_THAT(tree.log(), Contains("Shell completion /usr/local/share/zsh/site-functions/_tarnly "
                                   "not linked: /usr/local/share/zsh isn't a real folder (it's a "
                                   "link or a file), so Tarnly won't link into it."));
  remove();
  EXPECT_THAT(tree.entries(tree.outside() + "/site-functions"), IsEmpty());
  EXPECT_EQ(tree.linkTarget(zsh), tree.outside()) << "the planted link itself is not touched";
}

TEST_F(HelperCLISymlinkTest, EveryDescriptorIsClosedOnEveryPath) {
  int before = openDescriptorCount();
  install();
  install();
  remove();
  tree.makeFolder(tree.usr("local/bin"));
  writeFileAtomically(tree.usr("local/bin/tqz"), "", 0644);
  std::ignore = failure([&] { install(); });  // fails at the second link
  ASSERT_EQ(std::rename(tree.usr("local/share").c_str(), tree.path("old-share").c_str()), 0);
  tree.makeLink(tree.usr("local/share"), tree.outside());
  std::ignore = failure([&] { install(); });  // completions refused
  std::ignore = failure([&] { remove(); });
  ::chmod(tree.bundle().c_str(), 0777);
  std::ignore = failure([&] { install(); });  // refused copy
  EXPECT_EQ(openDescriptorCount(), before);
}

TEST(HelperCLISymlinkTargetTest, BundleTargetsAreRecognisedBySuffix) {
  using HelperCLISymlink::isBundleCLITarget;
  using HelperCLISymlink::isBundleCompletionTarget;
  EXPECT_TRUE(isBundleCLITarget("/Applications/Tarnly.app/Contents/Helpers/tarnly-cli"));
  EXPECT_TRUE(isBundleCLITarget("/Users/a/Downloads/Tarnly.app/Contents/Helpers/tarnly"));
  EXPECT_TRUE(isBundleCLITarget("../../Tarnly.app/Contents/Helpers/qz"));
  EXPECT_FALSE(isBundleCLITarget("/Applications/Tarnly.app/Contents/Helpers/qzr"));
  EXPECT_FALSE(isBundleCLITarget("/Applications/MyTarnly.app/Contents/Helpers/tarnly"));
  EXPECT_FALSE(isBundleCLITarget("/Applications/Tarnly.app/Contents/MacOS/tarnly"));
  EXPECT_FALSE(isBundleCLITarget("Tarnly.app/Contents/Helpers/tarnly"));

  EXPECT_TRUE(isBundleCompletionTarget("/A/Tarnly.app/Contents/Resources/completions/_tarnly"));
  EXPECT_TRUE(isBundleCompletionTarget("/A/Tarnly.app/Contents/Resources/completions/tarnly.fish"));
  EXPECT_FALSE(isBundleCompletionTarget("/A/Tarnly.app/Contents/Resources/completions/tqz.fish"))
      << "tqz.fish is a link name, not a source file";
  EXPECT_FALSE(isBundleCompletionTarget("/A/Tarnly.app/Contents/Resources/completions/_git"));
}

TEST(HelperCLISymlinkWalkTest, UnresolvablePathIsAnsweredAsGiven) {
  FakeUserDirectory users;
  EXPECT_EQ(HelperCLISymlink::firstPathNonAdminCanChange("/no/such/place/tarnly-cli", users),
            "/no/such/place/tarnly-cli");
  EXPECT_EQ(HelperCLISymlink::firstPathNonAdminCanChange("/", users), std::nullopt);
  EXPECT_EQ(HelperCLISymlink::firstPathNonAdminCanChange("/tmp", users), "/tmp");
}

}  // namespace
