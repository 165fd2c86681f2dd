// The resolver files: exact content, written once, only the helper's own files replaced or
// removed, the folder created when missing, and file errors passed on as the system's text.
#include "host/helper_resolver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "host/host_tree.h"
#include "support/temp_tree.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class HelperResolverTest : public ::testing::Test {
 protected:
  std::string folder() const { return tree.path("etc/resolver"); }
  std::string tqz() const { return folder() + "/tqz"; }
  std::string tarnly() const { return folder() + "/tarnly"; }
  void install() { HelperResolver::install(tree.env(), tree.users()); }
  void remove() { HelperResolver::remove(tree.env(), tree.users()); }
  // The sentence install throws.
  std::string installError() {
    try {
      install();
    } catch (const std::exception& error) {
      return error.what();
    }
    return "<no error>";
  }

  HostTree tree;
};

TEST_F(HelperResolverTest, InstallCreatesTheFolderAndWritesBothFilesOnce) {
  const std::string content =
      "# Installed by Tarnly: <vm>.tqz names resolve to its VMs.\n"
      "nameserver 127.0.0.1\n"
      "port 5380\n"
      "timeout 2\n";
  EXPECT_EQ(HelperResolver::fileContent("tqz"), content);
  EXPECT_THAT(HelperResolver::resolverPaths(tree.env()), ElementsAre(tqz(), tarnly()));
  install();
  EXPECT_EQ(modeOf(folder()), 0755);
  EXPECT_EQ(modeOf(tqz()), 0644);
  EXPECT_EQ(modeOf(tarnly()), 0644);
  EXPECT_EQ(contentOf(tqz()), content);
  EXPECT_EQ(contentOf(tarnly()), "# Installed by Tarnly: <vm>.tarnly names resolve to its VMs.\n" +
                                     content.substr(content.find('\n') + 1));
  EXPECT_THAT(tree.log(), ElementsAre("Installed " + tqz() + ".", "Installed " + tarnly() + "."));
  EXPECT_THAT(tree.entries(folder()), ElementsAre("tarnly", "tqz")) << "no temporary files left";

  struct stat before {
  }, after{};
  ::stat(tqz().c_str(), &before);
  tree.clearLog();
  install();
  ::stat(tqz().c_str(), &after);
  EXPECT_EQ(after.st_ino, before.st_ino) << "an identical file is not rewritten";
  EXPECT_THAT(tree.log(), IsEmpty());
}

TEST_F(HelperResolverTest, MarkedFilesAreReplacedAndRemovedAndForeignOnesLeftAlone) {
  std::string edited = HelperResolver::fileContent("tqz");
  edited.replace(edited.find("5380"), 4, "5353");
  tree.makeFolder(folder());
  writeFileAtomically(tqz(), edited, 0600);
  writeFileAtomically(tarnly(), "nameserver 10.0.0.53\n", 0600);
  install();
  EXPECT_EQ(contentOf(tqz()), HelperResolver::fileContent("tqz"));
  EXPECT_EQ(modeOf(tqz()), 0644);
  EXPECT_THAT(tree.log(),
              ElementsAre("Installed " + tqz() + ".",
                          "Left " + tarnly() + " alone: it wasn't installed by Tarnly."));
  writeFileAtomically(tqz(), edited, 0644);
  tree.clearLog();
  remove();
  EXPECT_FALSE(pathExists(tqz()));
  EXPECT_EQ(contentOf(tarnly()), "nameserver 10.0.0.53\n");
  EXPECT_EQ(modeOf(tarnly()), 0600);
  EXPECT_THAT(tree.log(), ElementsAre("Removed " + tqz() + ".")) << "the foreign file: no word";

  // Bytes that are not UTF-8 do not hide the marker.
  writeFileAtomically(tarnly(), "\xff\xfe# Installed by Tarnly long ago\nport 53\n", 0644);
  install();
  EXPECT_EQ(contentOf(tarnly()), HelperResolver::fileContent("tarnly"));
}

TEST_F(HelperResolverTest, OnlyARealAdministratorFolderAndRegularFilesAreUsed) {
  // Missing folders are made 0755 from the start, whatever the umask.
  ::umask(077);
  install();
  ::umask(022);
  EXPECT_EQ(modeOf(tree.path("etc")), 0755);
  EXPECT_EQ(modeOf(folder()), 0755);

  // A FIFO, a link to a marked file elsewhere and an oversized marked file read as absent: install
  // replaces each without blocking or touching what a link points at, and remove skips them.
  std::string elsewhere = tree.outside() + "/marked";
  writeFileAtomically(elsewhere, HelperResolver::fileContent("tqz"), 0644);
  std::filesystem::remove(tqz());
  std::filesystem::create_symlink(elsewhere, tqz());
  std::filesystem::remove(tarnly());
  ASSERT_EQ(::mkfifo(tarnly().c_str(), 0644), 0);
  remove();
  EXPECT_TRUE(std::filesystem::is_symlink(tqz()));
  EXPECT_TRUE(pathExists(tarnly()));
  install();
  EXPECT_EQ(contentOf(tqz()), HelperResolver::fileContent("tqz"));
  EXPECT_FALSE(std::filesystem::is_symlink(tqz()));
  EXPECT_EQ(contentOf(tarnly()), HelperResolver::fileContent("tarnly"));
  EXPECT_EQ(contentOf(elsewhere), HelperResolver::fileContent("tqz"));
  writeFileAtomically(tqz(), "# Installed by Tarnly\n" + std::string(8192, '#'), 0644);
  remove();
  EXPECT_TRUE(pathExists(tqz())) << "an oversized file is not the helper's";
  // Something that cannot be replaced stops the request with a sentence naming the file.
  std::filesystem::remove(tqz());
  tree.makeFolder(tqz());
  EXPECT_EQ(installError(), "Could not write " + tqz() + ": Is a directory.");
  std::filesystem::remove(tqz());

  // A temporary file a crash left behind goes with the next request.
  std::string leftover = folder() + "/.tqz.tmp-0123456789ab";
  writeFileAtomically(leftover, HelperResolver::fileContent("tqz"), 0644);
  install();
  EXPECT_THAT(tree.entries(folder()), ElementsAre("tarnly", "tqz"));

  // An existing resolver "folder" that is a link, or one a non-administrator can change, is
  // refused by name before anything is written.
  std::filesystem::remove_all(folder());
  std::filesystem::create_symlink(tree.outside(), folder());
  const std::string refusal =
      folder() +
      " isn't a folder that only administrators can change, so Tarnly won't write "
      "resolver files into it.";
  EXPECT_EQ(installError(), refusal);
  std::filesystem::remove(folder());
  tree.makeFolder(folder());
  ASSERT_EQ(::chmod(folder().c_str(), 0777), 0);
  EXPECT_EQ(installError(), refusal);
  EXPECT_THROW(remove(), std::runtime_error);
  EXPECT_THAT(tree.entries(folder()), IsEmpty());
  EXPECT_THAT(tree.entries(tree.outside()), ElementsAre("marked"));
}

}  // namespace
