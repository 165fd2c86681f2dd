// The command-line links as a careful root helper must make them: only its own links replaced or
// removed, nothing linked from a copy or into a folder a non-administrator could change, every
// step below /usr on folder handles that a swapped-in link cannot redirect.
#include "host/helper_cli_symlink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <tuple>

#include "host/host_tree.h"
#include "support/temp_tree.h"

namespace {

using HelperCLISymlink::SymlinkError;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

const std::string kNotAFolder =
    " isn't a real folder (it's a link or a file), so Tarnly won't link into it.";
const std::string kTaken =
    " already exists and isn't a Tarnly link. Move it aside, then try again.";

class HelperCLISymlinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto unsafe = HelperCLISymlink::firstPathNonAdminCanChange(tree.root(), tree.users());
    ASSERT_FALSE(unsafe.has_value())
        << *unsafe << " fails the ownership rule; build the tests in a "
        << "folder only root or an administrator can change";
  }
  void install() { HelperCLISymlink::install(tree.env(), tree.users()); }
  void remove() { HelperCLISymlink::remove(tree.env(), tree.users()); }
  // The message of the SymlinkError that install (or remove) throws, or "<no error>".
  std::string failure(bool removing = false) {
    try {
      removing ? remove() : install();
    } catch (const SymlinkError& error) {
      return error.what();
    }
    return "<no error>";
  }
  std::string bin(const std::string& name) const { return tree.usr("local/bin/" + name); }
  std::string zshLink() const { return tree.usr("local/share/zsh/site-functions/_tarnly"); }
  std::string fishLink(const std::string& name) const {
    return tree.usr("local/share/fish/vendor_completions.d/" + name);
  }
  static std::string leftAlone(const std::string& link, const std::string& target) {
    return "Left " + link + " alone: it points at " + target + ", not a Tarnly bundle.";
  }

  HostTree tree;
};

TEST_F(HelperCLISymlinkTest, InstallLinksToolsAndCompletionsAndASecondReplacesOnlyItsOwn) {
  install();
  EXPECT_EQ(modeOf(tree.usr("local/bin")), 0755);
  EXPECT_EQ(modeOf(tree.usr("local/share/zsh/site-functions")), 0755);
  const auto firstLog = tree.log();
  const std::string zsh = tree.completions() + "/_tarnly",
                    fish = tree.completions() + "/tarnly.fish";
  EXPECT_THAT(
      firstLog,
      ElementsAre("Linked /usr/local/bin/tarnly -> " + tree.tool() + ".",
                  "Linked /usr/local/bin/tqz -> " + tree.tool() + ".",
                  "Linked /usr/local/share/zsh/site-functions/_tarnly -> " + zsh + ".",
                  "Linked /usr/local/share/fish/vendor_completions.d/tarnly.fish -> " + fish + ".",
                  "Linked /usr/local/share/fish/vendor_completions.d/tqz.fish -> " + fish + "."));
  tree.makeLink(bin("python3"), "/usr/bin/python3.11");
  tree.clearLog();
  install();
  EXPECT_EQ(tree.log(), firstLog) << "the same links are made and logged again";
  for (auto [link, target] : {std::pair{bin("tarnly"), tree.tool()},
                              {bin("tqz"), tree.tool()},
                              {zshLink(), zsh},
                              {fishLink("tarnly.fish"), fish},
                              {fishLink("tqz.fish"), fish}}) {
    EXPECT_EQ(tree.linkTarget(link), target);
  }
  EXPECT_THAT(tree.entries(tree.usr("local/bin")), ElementsAre("python3", "tarnly", "tqz"));
}

TEST_F(HelperCLISymlinkTest, OtherCopiesAndLegacyLinksAreReplacedOrRemovedAndNoFishSkipsFish) {
  removeFile(tree.completions() + "/tarnly.fish");
  tree.makeLink(bin("tqz"), "/Volumes/Backup/Old Apps/Tarnly.app/Contents/Helpers/tarnly");
  tree.makeLink(zshLink(), "/Volumes/Backup/Tarnly.app/Contents/Resources/completions/_tarnly");
  tree.makeLink(bin("qz"), "/Applications/Tarnly.app/Contents/Helpers/qz");
  tree.makeLink(bin("qzr"), "/opt/homebrew/bin/qzr");
  install();
  EXPECT_EQ(tree.linkTarget(bin("tqz")), tree.tool());
  EXPECT_EQ(tree.linkTarget(zshLink()), tree.completions() + "/_tarnly");
  EXPECT_FALSE(pathExists(bin("qz")));
  EXPECT_EQ(tree.linkTarget(bin("qzr")), "/opt/homebrew/bin/qzr");
  EXPECT_THAT(tree.log(), Contains("Removed /usr/local/bin/qz."));
  EXPECT_THAT(tree.log(), Contains(leftAlone("/usr/local/bin/qzr", "/opt/homebrew/bin/qzr")));
  EXPECT_FALSE(pathExists(tree.usr("local/share/fish")));
  for (const std::string& line : tree.log()) EXPECT_THAT(line, Not(HasSubstr("fish")));
}

TEST_F(HelperCLISymlinkTest, ForeignFilesNoRealFoldersOrNoExecutableToolAreRefused) {
  tree.makeFolder(tree.usr("local/bin"));
  writeFileAtomically(bin("tarnly"), "my own script\n", 0755);
  EXPECT_EQ(failure(), "/usr/local/bin/tarnly" + kTaken);
  EXPECT_EQ(contentOf(bin("tarnly")), "my own script\n");
  EXPECT_FALSE(pathExists(bin("tqz")) || pathExists(tree.usr("local/share"))) << "nothing further";
  // A link into the bundle but not at a tool is foreign too.
  removeFile(bin("tarnly"));
  tree.makeLink(bin("tqz"), "/Applications/Tarnly.app/Contents/MacOS/Tarnly");
  EXPECT_EQ(failure(), "/usr/local/bin/tqz" + kTaken);
  EXPECT_EQ(tree.linkTarget(bin("tarnly")), tree.tool()) << "made before tqz";
  std::filesystem::remove_all(tree.usr("local"));

  tree.makeFolder(tree.outside() + "/bin");
  tree.makeLink(tree.usr("local"), tree.outside());
  EXPECT_EQ(failure(), "/usr/local" + kNotAFolder);
  EXPECT_EQ(failure(true), "/usr/local" + kNotAFolder);
  EXPECT_THAT(tree.entries(tree.outside()), ElementsAre("bin"));
  EXPECT_THAT(tree.entries(tree.outside() + "/bin"), IsEmpty());

  removeFile(tree.usr("local"));
  tree.makeFolder(tree.usr("local"));
  writeFileAtomically(tree.usr("local/bin"), "", 0644);
  EXPECT_EQ(failure(), "/usr/local/bin" + kNotAFolder);
  std::filesystem::remove_all(tree.usr());
  EXPECT_EQ(failure(), "Could not open /usr.");

  // A tool that is not executable, or missing, fails before /usr is opened.
  const std::string toolMissing = "The bundled command-line tool isn't at " + tree.tool() + ".";
  ASSERT_EQ(::chmod(tree.tool().c_str(), 0644), 0);
  EXPECT_EQ(failure(), toolMissing);
  removeFile(tree.tool());
  EXPECT_EQ(failure(), toolMissing);
}

TEST_F(HelperCLISymlinkTest, FolderOwnershipDecidesWhetherLinksGoIntoIt) {
  if (::geteuid() != 0) GTEST_SKIP() << "changing owners needs root";
  struct Case {
    uid_t owner;
    gid_t group;
    mode_t mode;
    bool accepted;
  } const cases[] = {
      {0, 0, 0755, true},
      {0, 0, 0775, true},                                         // group root may write
      {0, HelperAuthorization::kAdministratorGroup, 0775, true},  // group admin may write
      {HostTree::kAdminUID, 20, 0755, true},                      // owned by an administrator
      {0, 4243, 0775, false},                                     // another group may write
      {0, 4243, 0755, true},                 // ... but only its write bit counts
      {0, 0, 0757, false},                   // anyone may write
      {0, 0, 01777, false},                  // sticky does not help
      {HostTree::kUserUID, 0, 0755, false},  // owned by a non-administrator
  };
  const std::string folder = tree.usr("local/bin");
  tree.makeFolder(folder);
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message()
                 << "owner " << c.owner << " group " << c.group << " mode " << std::oct << c.mode);
    ASSERT_EQ(::chown(folder.c_str(), c.owner, c.group), 0);
    ASSERT_EQ(::chmod(folder.c_str(), c.mode), 0);
    EXPECT_EQ(failure(), c.accepted ? "<no error>"
                                    : "/usr/local/bin can be changed by someone who isn't an "
                                      "administrator, so Tarnly won't link into it.");
  }
}

TEST_F(HelperCLISymlinkTest, CopyANonAdministratorCanChangeIsRefusedAndItsLinksRemoved) {
  if (::geteuid() != 0) GTEST_SKIP() << "changing owners needs root";
  install();
  const std::string otherCopy = "/Applications/Tarnly.app/Contents/Helpers/tarnly-cli";
  removeFile(bin("tqz"));
  tree.makeLink(bin("tqz"), otherCopy);
  tree.clearLog();

  const std::string applications = tree.path("Applications");
  ASSERT_EQ(::chown(applications.c_str(), HostTree::kUserUID, 20), 0);
  EXPECT_EQ(failure(), "Tarnly can't link its command-line tool from this copy: " + applications +
                           " can be changed by someone who isn't an administrator. Ask an "
                           "administrator to install Tarnly in /Applications.");
  EXPECT_FALSE(pathExists(bin("tarnly")));
  EXPECT_EQ(tree.linkTarget(bin("tqz")), otherCopy) << "not this copy: kept";
  EXPECT_EQ(tree.linkTarget(zshLink()), tree.completions() + "/_tarnly") << "completions stay";
  EXPECT_THAT(tree.log(), ElementsAre("Removed /usr/local/bin/tarnly."));

  // The refusal names the first changeable item from the tool upwards.
  ASSERT_EQ(::chmod(tree.tool().c_str(), 0757), 0);
  EXPECT_THAT(failure(), HasSubstr("from this copy: " + tree.tool() + " can be changed"));
}

TEST_F(HelperCLISymlinkTest, RemoveTakesAwayOnlyBundleLinks) {
  tree.makeLink(zshLink(), tree.completions() + "/_tarnly");
  remove();
  EXPECT_EQ(tree.linkTarget(zshLink()), tree.completions() + "/_tarnly") << "no bin: nothing done";
  EXPECT_THAT(tree.log(), IsEmpty());

  install();
  tree.makeLink(bin("qz"), "/Applications/Tarnly.app/Contents/Helpers/qz");
  tree.makeLink(bin("qzr"), "/usr/local/Cellar/qzr/bin/qzr");
  removeFile(fishLink("tqz.fish"));
  tree.makeLink(fishLink("tqz.fish"), "/usr/share/fish/tqz.fish");
  tree.clearLog();
  remove();
  EXPECT_THAT(tree.entries(tree.usr("local/bin")), ElementsAre("qzr"));
  EXPECT_FALSE(pathExists(zshLink()) || pathExists(fishLink("tarnly.fish")));
  EXPECT_EQ(tree.linkTarget(fishLink("tqz.fish")), "/usr/share/fish/tqz.fish");
  const std::string qzr = leftAlone("/usr/local/bin/qzr", "/usr/local/Cellar/qzr/bin/qzr");
  const std::string tqzFish =
      leftAlone("/usr/local/share/fish/vendor_completions.d/tqz.fish", "/usr/share/fish/tqz.fish");
  EXPECT_THAT(
      tree.log(),
      ElementsAre("Removed /usr/local/bin/tarnly.", "Removed /usr/local/bin/tqz.",
                  "Removed /usr/local/bin/qz.", qzr,
                  "Removed /usr/local/share/zsh/site-functions/_tarnly.",
                  "Removed /usr/local/share/fish/vendor_completions.d/tarnly.fish.", tqzFish));

  // A second remove finds nothing of its own; a regular file at a link path stays.
  writeFileAtomically(bin("tarnly"), "mine\n", 0755);
  tree.clearLog();
  remove();
  EXPECT_EQ(contentOf(bin("tarnly")), "mine\n");
  EXPECT_THAT(tree.log(), ElementsAre(qzr, tqzFish));
}

TEST_F(HelperCLISymlinkTest, FoldersSwappedForLinksBetweenStepsCreateNothingOutside) {
  install();
  const std::string zsh = tree.usr("local/share/zsh");
  ASSERT_EQ(std::rename(zsh.c_str(), tree.path("old-zsh").c_str()), 0);
  tree.makeFolder(tree.outside() + "/site-functions");
  tree.makeLink(zsh, tree.outside());
  tree.clearLog();
  install();
  EXPECT_THAT(tree.log(),
              Contains("Shell completion /usr/local/share/zsh/site-functions/_tarnly not linked: "
                       "/usr/local/share/zsh" +
                       kNotAFolder));
  remove();
  EXPECT_THAT(tree.entries(tree.outside() + "/site-functions"), IsEmpty());
  EXPECT_EQ(tree.linkTarget(zsh), tree.outside()) << "the planted link itself is not touched";

  // The handle keeps naming the folder that was checked, whatever is at its path later.
  auto handle =
      HelperCLISymlink::openSafeDirectory(tree.env(), {"local", "bin"}, true, tree.users());
  ASSERT_TRUE(handle.has_value());
  ASSERT_EQ(std::rename(tree.usr("local/bin").c_str(), tree.usr("local/bin.checked").c_str()), 0);
  tree.makeLink(tree.usr("local/bin"), tree.outside());
  HelperCLISymlink::link(tree.env(), "/usr/local/bin/tarnly", *handle, tree.tool(),
                         [](const std::string&) { return false; });
  EXPECT_EQ(tree.linkTarget(tree.usr("local/bin.checked/tarnly")), tree.tool());
  // The next operation opens the path afresh and refuses the link.
  EXPECT_EQ(failure(), "/usr/local/bin" + kNotAFolder);
  EXPECT_THAT(tree.entries(tree.outside()), ElementsAre("site-functions"));
}

TEST(HelperCLISymlinkTargetTest, BundleTargetsAreRecognisedBySuffix) {
  EXPECT_TRUE(HelperCLISymlink::isBundleCLITarget("../../Tarnly.app/Contents/Helpers/qz"));
  EXPECT_FALSE(HelperCLISymlink::isBundleCLITarget("/A/MyTarnly.app/Contents/Helpers/tarnly"));
  EXPECT_FALSE(HelperCLISymlink::isBundleCLITarget("Tarnly.app/Contents/Helpers/tarnly"));
  EXPECT_FALSE(HelperCLISymlink::isBundleCompletionTarget(
      "/A/Tarnly.app/Contents/Resources/completions/tqz.fish"))
      << "tqz.fish is a link name, not a source file";
}

}  // namespace
