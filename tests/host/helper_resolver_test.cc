// The resolver files: exact content, written once, only the helper's own files replaced or
// removed, the folder created when missing, and file errors passed on as the system's text.
#include "host/helper_resolver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "host/host_tree.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class HelperResolverTest : public ::testing::Test {
 protected:
  std::string folder() const { return tree.path("etc/resolver"); }
  std::string tqz() const { return folder() + "/tqz"; }
  std::string tarnly() const { return folder() + "/tarnly"; }

  // Inode and modification time, which any rewrite changes.
  static std::pair<ino_t, long> identity(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return {0, 0};
    return {info.st_ino, info.st_mtim.tv_nsec + info.st_mtim.tv_sec * 1000000000L};
  }

  HostTree tree;
};

TEST_F(HelperResolverTest, FileContentIsExactlyFourLines) {
  EXPECT_EQ(HelperResolver::fileContent("tqz"),
            "# Installed by Tarnly: <vm>.tqz names resolve to its VMs.\n"
            "nameserver 127.0.0.1\n"
            "port 5380\n"
            "timeout 2\n");
  EXPECT_EQ(HelperResolver::fileContent("tarnly"),
            "# Installed by Tarnly: <vm>.tarnly names resolve to its VMs.\n"
            "nameserver 127.0.0.1\n"
            "port 5380\n"
            "timeout 2\n");
  EXPECT_THAT(HelperResolver::resolverPaths(tree.env()), ElementsAre(tqz(), tarnly()));
}

TEST_F(HelperResolverTest, InstallCreatesTheFolderAndWritesBothFilesOnce) {
  HelperResolver::install(tree.env());
  EXPECT_EQ(modeOf(folder()), 0755);
  EXPECT_EQ(modeOf(tqz()), 0644);
  EXPECT_EQ(modeOf(tarnly()), 0644);
  EXPECT_EQ(contentOf(tqz()), HelperResolver::fileContent("tqz"));
  EXPECT_EQ(contentOf(tarnly()), HelperResolver::fileContent("tarnly"));
  EXPECT_THAT(tree.log(), ElementsAre("Installed " + tqz() + ".", "Installed " + tarnly() + "."));
  EXPECT_THAT(tree.entries(folder()), ElementsAre("tarnly", "tqz")) << "no temporary files left";

  auto before = identity(tqz());
  tree.clearLog();
  HelperResolver::install(tree.env());
  EXPECT_EQ(identity(tqz()), before) << "an identical file is not rewritten";
  EXPECT_THAT(tree.log(), IsEmpty());
}

TEST_F(HelperResolverTest, ForeignFileIsLeftAloneAndNeverRemoved) {
  const std::string mine = "nameserver 10.0.0.53\n";
  tree.makeFolder(folder());
  writeFileAtomically(tarnly(), mine, 0600);

  HelperResolver::install(tree.env());
  EXPECT_EQ(contentOf(tarnly()), mine);
  EXPECT_EQ(modeOf(tarnly()), 0600);
  EXPECT_EQ(contentOf(tqz()), HelperResolver::fileContent("tqz"));
  EXPECT_THAT(tree.log(),
              ElementsAre("Installed " + tqz() + ".",
                          "Left " + tarnly() + " alone: it wasn't installed by Tarnly."));

  tree.clearLog();
  HelperResolver::remove(tree.env());
  EXPECT_FALSE(pathExists(tqz()));
  EXPECT_EQ(contentOf(tarnly()), mine);
  EXPECT_THAT(tree.log(), ElementsAre("Removed " + tqz() + ".")) << "the foreign file: no word";

  tree.clearLog();
  HelperResolver::remove(tree.env());
  EXPECT_THAT(tree.log(), IsEmpty());
}

TEST_F(HelperResolverTest, MarkedFileOfAnotherVersionIsReplacedAndRemoved) {
  std::string edited = HelperResolver::fileContent("tqz");
  edited.replace(edited.find("5380"), 4, "5353");
  tree.makeFolder(folder());
  writeFileAtomically(tqz(), edited, 0600);
  // Bytes that are not UTF-8 do not hide the marker.
  writeFileAtomically(tarnly(), "\xff\xfe# Installed by Tarnly long ago\nport 53\n", 0644);

  HelperResolver::install(tree.env());
  EXPECT_EQ(contentOf(tqz()), HelperResolver::fileContent("tqz"));
  EXPECT_EQ(modeOf(tqz()), 0644);
  EXPECT_EQ(contentOf(tarnly()), HelperResolver::fileContent("tarnly"));

  writeFileAtomically(tqz(), edited, 0644);
  HelperResolver::remove(tree.env());
  EXPECT_THAT(tree.entries(folder()), IsEmpty());
}

TEST_F(HelperResolverTest, FileSystemErrorsCarryTheSystemsText) {
  // Something that is no folder stands where the folder belongs.
  tree.makeFolder(tree.path("etc"));
  writeFileAtomically(folder(), "", 0644);
  try {
    HelperResolver::install(tree.env());
    ADD_FAILURE() << "install succeeded";
  } catch (const FileError& error) {
    EXPECT_THAT(error.what(), StartsWith("open(" + tqz()));
    EXPECT_THAT(error.what(), HasSubstr("): Not a directory"));
  }
  EXPECT_THAT(tree.log(), IsEmpty());
}

TEST_F(HelperResolverTest, FolderAtAFilePathReadsAsAbsentAndStopsInstall) {
  // A folder carrying the marker in its name cannot be read, so it counts as absent...
  tree.makeFolder(tqz());
  HelperResolver::remove(tree.env());
  EXPECT_TRUE(pathExists(tqz()));
  // ...and install cannot replace it: the system's error ends the request before "tarnly".
  EXPECT_THROW(HelperResolver::install(tree.env()), FileError);
  EXPECT_FALSE(pathExists(tarnly()));
}

}  // namespace
