// The peer check in its strict form, against a bundle only root can change, with a copy of the
// client program as the peer: whatever happens to the bundle is seen at the very next message.
#include "service/helper_peer_check.h"

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "host/fake_user_directory.h"
#include "platform/service_socket.h"

namespace {

namespace fs = std::filesystem;

TEST(HelperPeerCheckTest, SeesEveryChangeToTheBundleAtTheNextMessage) {
  // /run is root's alone, so a bundle made there takes the strict form.
  char top[] = "/run/tarnly-peer-XXXXXX";
  if (::geteuid() != 0 || ::mkdtemp(top) == nullptr) GTEST_SKIP() << "needs root and /run";
  std::string bundle = std::string(top) + "/Tarnly.app";
  std::string contents = bundle + "/Contents";
  std::string client = contents + "/MacOS/Tarnly";
  fs::create_directories(contents + "/Helpers");
  fs::create_directories(contents + "/MacOS");
  std::FILE* helperFile = std::fopen((contents + "/Helpers/TarnlyAdminHelper").c_str(), "w");
  std::fclose(helperFile);
  fs::copy_file(TARNLY_HELPERCTL_PATH, client);
  FakeUserDirectory users;
  HelperPeerCheck check(contents + "/Helpers/TarnlyAdminHelper", users);
  ASSERT_TRUE(check.strict());

  // The client connects, sends its request and waits for a reply that never comes.
  std::string socketPath = std::string(top) + "/helper.sock";
  std::string error;
  int listener = bindServiceSocket(socketPath, error);
  ASSERT_GE(listener, 0) << error;
  std::vector<char*> argv = {client.data(), const_cast<char*>("--socket"), socketPath.data(),
                             const_cast<char*>("helperVersionWithReply:"), nullptr};
  pid_t pid = 0;
  ASSERT_EQ(::posix_spawn(&pid, client.c_str(), nullptr, nullptr, argv.data(), environ), 0);
  int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  std::optional<PeerProcess> peer = PeerProcess::ofSocket(connection);
  ASSERT_TRUE(peer);

  auto accepted = [&] { return check.accepts(*peer); };
  EXPECT_TRUE(accepted());
  const struct {
    const char* change;
    std::function<void()> make, undo;
  } changes[] = {
      {"its folder writable by all", [&] { fs::permissions(contents + "/MacOS", fs::perms::all); },
       [&] { fs::permissions(contents + "/MacOS", fs::perms(0755)); }},
      {"the bundle owned by nobody", [&] { ::lchown(bundle.c_str(), 65534, 65534); },
       [&] { ::lchown(bundle.c_str(), 0, 0); }},
      {"the file writable by nobody's group",
       [&] {
         ::lchown(client.c_str(), 0, 65534);
         fs::permissions(client, fs::perms(0775));
       },
       [&] { ::lchown(client.c_str(), 0, 0); }},
      {"the file moved away", [&] { fs::rename(client, client + ".old"); },
       [&] { fs::rename(client + ".old", client); }},
      {"a link in its place",
       [&] {
         fs::rename(client, client + ".old");
         fs::create_symlink(client + ".old", client);
       },
       [&] { fs::rename(client + ".old", client); }},
      {"the folder moved away",
       [&] {
         fs::rename(contents + "/MacOS", contents + "/Old");
         fs::create_directory(contents + "/MacOS");
       },
       [&] {
         fs::remove(contents + "/MacOS");
         fs::rename(contents + "/Old", contents + "/MacOS");
       }},
  };
  for (const auto& change : changes) {
    SCOPED_TRACE(change.change);
    change.make();
    EXPECT_FALSE(accepted());
    change.undo();
    EXPECT_TRUE(accepted());
  }
  ::close(connection);
  ::waitpid(pid, nullptr, 0);
  EXPECT_FALSE(accepted()) << "the peer has exited";
  ::close(listener);
  fs::remove_all(top);
}

}  // namespace
