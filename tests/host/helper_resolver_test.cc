// The resolver files: exact content, written atomically once with their mode, only the helper's
// own regular files replaced or removed, only in a folder that administrators alone can change.
#include "host/helper_resolver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "host/host_tree.h"
#include "support/temp_tree.h"

namespace {

using ::testing::ElementsAre;

TEST(HelperResolver, OnlyItsOwnRegularFilesAreWrittenOrRemovedInAnAdministratorsFolder) {
  HostTree t;
  const HostTree::Request install = HelperResolver::install, uninstall = HelperResolver::remove;
  const std::string R = t.env_.paths.resolverDirectory, tqz = R + "/tqz", tarnly = R + "/tarnly",
                    marked = t.path("outside/marked");
  const auto own = HelperResolver::fileContent;  // its exact text: see the end-to-end test
  // Folders are made 0755 and files 0644 whatever the umask; an identical file is not rewritten.
  ::umask(077);
  EXPECT_TRUE(t.run(install));
  ::umask(022);
  EXPECT_EQ(std::tuple(contentOf(tqz), contentOf(tarnly), modeOf(t.path("etc")), modeOf(R),
                       modeOf(tqz), modeOf(tarnly), t.entries(R).size()),
            std::tuple(own("tqz"), own("tarnly"), 0755, 0755, 0644, 0644, 2U));
  EXPECT_THAT(HelperResolver::resolverPaths(t.env_), ElementsAre(tqz, tarnly));
  EXPECT_TRUE(t.run(install));  // logs nothing
  // An edited file of the helper is replaced, another one stays as it is.
  writeFileAtomically(tqz, own("tqz") + "# edited\n", 0600);
  writeFileAtomically(tarnly, "nameserver 10.0.0.53\n", 0600);
  EXPECT_TRUE(t.run(install) && t.run(uninstall));
  EXPECT_EQ(std::tuple(contentOf(tarnly), modeOf(tarnly), pathExists(tqz)),
            std::tuple("nameserver 10.0.0.53\n", 0600, false));
  // A link to a marked file, a FIFO and a huge marked file read as absent: remove leaves them,
  // install replaces them without following or blocking. Bytes that aren't UTF-8 hide no marker.
  writeFileAtomically(marked, own("tqz"), 0644);
  t.makeLink(tqz, marked);
  ASSERT_EQ(::unlink(tarnly.c_str()) | ::mkfifo(tarnly.c_str(), 0644), 0);
  EXPECT_TRUE(t.run(uninstall));
  EXPECT_EQ(t.linkTarget(tqz), marked);
  EXPECT_TRUE(t.run(install));
  EXPECT_EQ(std::tuple(contentOf(tqz), contentOf(tarnly), contentOf(marked)),
            std::tuple(own("tqz"), own("tarnly"), own("tqz")));
  writeFileAtomically(tqz, "# Installed by Tarnly\n" + std::string(8192, '#'), 0644);
  writeFileAtomically(tarnly, "\xff\xfe# Installed by Tarnly long ago\n", 0644);
  EXPECT_TRUE(t.run(uninstall));
  EXPECT_EQ(t.entries(R), std::set<std::string>{"tqz"});
  // Temporary files a crash left behind go with the next request.
  for (auto [request, left] : {std::pair{install, 2U}, {uninstall, 0U}}) {
    for (auto name : {"/.tarnly.tmp-0123456789ab", "/tqz.tmp-0123456789ab"})
      writeFileAtomically(R + name, "half", 0644);
    EXPECT_TRUE(t.run(request));
    EXPECT_EQ(t.entries(R).size(), left);
  }
  // A file that can't be replaced ends the request; a folder that is a link, or that a
  // non-administrator can change, or below one, is neither written nor emptied.
  std::filesystem::create_directory(tqz);
  EXPECT_FALSE(t.run(install));
  EXPECT_FALSE(pathExists(tarnly));
  std::filesystem::remove(tqz);
  EXPECT_TRUE(t.run(install));
  ASSERT_EQ(::chmod(t.path("etc").c_str(), 0777), 0);
  EXPECT_FALSE(t.run(uninstall));
  ASSERT_EQ(::chmod(t.path("etc").c_str(), 0755) | ::chmod(R.c_str(), 0777), 0);
  EXPECT_FALSE(t.run(uninstall));
  EXPECT_THAT(t.entries(R), ElementsAre("tarnly", "tqz"));
  std::filesystem::remove_all(R);
  t.makeLink(R, t.path("outside"));
  EXPECT_FALSE(t.run(install));
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

}  // namespace
