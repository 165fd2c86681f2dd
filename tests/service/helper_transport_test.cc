// The socket service end to end in one process: a transport on a temporary socket path, the
// peer check against a temporary bundle whose app executable is this test program, the protocol
// over recording operations, and the listener counting the connections.
#include "service/helper_transport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <thread>

#include "host/fake_user_directory.h"
#include "platform/host_paths.h"
#include "platform/service_socket.h"
#include "service/helper_listener.h"
#include "service/helper_peer_check.h"
#include "service/wire_frame.h"
#include "service_fixtures.h"

namespace {

using nlohmann::json;
using service_test::Events;
using service_test::TestEnvironment;
using Status = WireFrame::ReadResult::Status;

const std::string kVersionRequest = R"({"method":"helperVersionWithReply:","args":[]})";
const std::string kReportRequest = R"({"method":"firewallReportWithReply:","args":[]})";

// A connected client socket; -1 when connecting failed.
int connectTo(const std::string& path) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// The payload of the next frame, or "<closed>" when the helper closed the connection instead.
std::string nextReply(int fd) {
  WireFrame::ReadResult result = WireFrame::read(fd);
  return result.status == Status::frame ? result.payload : "<closed>";
}

class HelperTransportConcurrentTest : public ::testing::Test {
 protected:
  // Serves with the app executable of the bundle pointing at `appExecutable`.
  void serve(const std::string& appExecutable) {
    std::string helper = test.tree.write("Tarnly.app/Contents/Helpers/TarnlyAdminHelper", "");
    std::filesystem::create_directories(test.tree.path("Tarnly.app/Contents/MacOS"));
    std::filesystem::create_symlink(appExecutable,
                                    test.tree.path("Tarnly.app/Contents/MacOS/Tarnly"));
    peerCheck = std::make_unique<HelperPeerCheck>(helper, users);
    if (::geteuid() != 0) users.addUser(::geteuid(), {20, 80});  // an administrator
    HelperListener::Seams seams;
    seams.startTimer = [](std::function<void()>) {};
    listener = HelperListener::create(test.env, seams);
    service.operations.versionString = [] { return "9.9"; };
    service.operations.removeFirewall = [this](std::uint32_t uid, bool) { removedBy = uid; };
    service.operations.firewallReport = [this] {
      reportStarted.bump();
      reportReleased.waitFor(1);
      return std::string("report");
    };
    std::string error;
    int fd = bindServiceSocket(socketPath, error);
    ASSERT_GE(fd, 0) << error;
    transport = std::make_unique<HelperTransport>(
        fd, [this](const PeerProcess& peer) { return peerCheck->accepts(peer); },
        [this](std::string_view request, std::uint32_t caller) {
          return HelperProtocol::handle(request, caller, service);
        },
        HelperTransport::Events{[this] { listener->connectionAccepted(); },
                                [this] {
                                  listener->connectionEnded();
                                  ended.bump();
                                }},
        test.log);
    server = std::thread([this] { listener->listen([this] { transport->serve(); }); });
  }

  ~HelperTransportConcurrentTest() override {
    reportReleased.bump();
    if (transport) transport->stop();
    if (server.joinable()) server.join();
  }

  TestEnvironment test;
  std::string socketPath = test.tree.path("helper.sock");
  FakeUserDirectory users;
  std::unique_ptr<HelperPeerCheck> peerCheck;
  std::shared_ptr<HelperListener> listener;
  HelperProtocol::Service service{{}, {users, [] { return std::nullopt; }, test.log}};
  std::unique_ptr<HelperTransport> transport;
  std::thread server;
  std::atomic<std::uint32_t> removedBy{12345};
  Events ended;
  Events reportStarted;
  Events reportReleased;
};

TEST_F(HelperTransportConcurrentTest, BadInputGetsItsFaultOrIsDroppedWhileOthersAreServed) {
  serve(currentExecutablePath());
  int witness = connectTo(socketPath);
  ASSERT_GE(witness, 0);
  ASSERT_TRUE(WireFrame::write(witness, kVersionRequest));
  ASSERT_EQ(nextReply(witness), R"({"reply":["9.9"]})");

  struct Case {
    std::string bytes;  // sent raw, then the client stops writing
    std::string fault;  // empty: dropped without a reply
  };
  const Case cases[] = {
      {std::string("\0\0", 2), ""},
      {std::string("\0\0\0\x20{\"method\"", 13), ""},
      {std::string("\x01\0\0\x01", 4), "The request is larger than 16 MiB."},
      {WireFrame::encode("{\"method\": [}"), "The request is not valid JSON."},
      {WireFrame::encode("[\"helperVersionWithReply:\"]"),
       "The request must be a JSON object with a method name and an argument list."},
      {WireFrame::encode(R"({"method":"rebootWithReply:","args":[]})"),
       "The helper has no method named rebootWithReply:."},
      {WireFrame::encode(R"({"method":"helperVersionWithReply:","args":[true]})"),
       "helperVersionWithReply: takes 0 arguments, not 1."},
      {WireFrame::encode(R"({"method":"setTarnlyResolverWithEnabled:withReply:","args":["yes"]})"),
       "Argument 1 of setTarnlyResolverWithEnabled:withReply: must be true or false."},
      {WireFrame::encode(R"({"method":"deleteVLANWithBsdName:withReply:","args":[7]})"),
       "Argument 1 of deleteVLANWithBsdName:withReply: must be a string."},
      {WireFrame::encode(R"({"method":"applyFirewallWithPolicyData:withReply:","args":["W10"]})"),
       "Argument 1 of applyFirewallWithPolicyData:withReply: must be a base64 string."},
      {WireFrame::encode(R"({"method":"createVLANWithName:tag:parentBSD:withReply:",)"
                         R"("args":["a",9223372036854775808,"en0"]})"),
       "Argument 2 of createVLANWithName:tag:parentBSD:withReply: must be a 64-bit integer."},
  };
  int endedBefore = ended.count();
  for (const Case& c : cases) {
    int fd = connectTo(socketPath);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::send(fd, c.bytes.data(), c.bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(c.bytes.size()));
    ::shutdown(fd, SHUT_WR);
    std::string reply = nextReply(fd);
    if (c.fault.empty()) {
      EXPECT_EQ(reply, "<closed>");
    } else {
      EXPECT_EQ(json::parse(reply), json({{"fault", c.fault}}));
      EXPECT_EQ(nextReply(fd), "<closed>") << c.fault;
    }
    ::close(fd);
    ASSERT_TRUE(WireFrame::write(witness, kVersionRequest));
    EXPECT_EQ(nextReply(witness), R"({"reply":["9.9"]})");
  }
  ASSERT_TRUE(ended.waitFor(endedBefore + static_cast<int>(std::size(cases))));
  EXPECT_EQ(listener->activeConnections(), 1);
  ::close(witness);
  ASSERT_TRUE(ended.waitFor(endedBefore + static_cast<int>(std::size(cases)) + 1));
  EXPECT_EQ(listener->activeConnections(), 0);
}

TEST_F(HelperTransportConcurrentTest, ServesInOrderAndALeavingClientCostsOnlyItsThread) {
  serve(currentExecutablePath());
  int leaving = connectTo(socketPath);
  int staying = connectTo(socketPath);
  ASSERT_GE(leaving, 0);
  ASSERT_GE(staying, 0);
  // The leaving client asks for the (slow) report and goes away before the reply.
  ASSERT_TRUE(WireFrame::write(leaving, kReportRequest));
  ASSERT_TRUE(reportStarted.waitFor(1));
  ::close(leaving);
  // Two requests in one write are answered one after the other.
  std::string both = WireFrame::encode(kVersionRequest) +
                     WireFrame::encode(R"({"method":"removeFirewallWithReply:","args":[]})");
  ASSERT_EQ(::send(staying, both.data(), both.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(both.size()));
  EXPECT_EQ(nextReply(staying), R"({"reply":["9.9"]})");
  EXPECT_EQ(nextReply(staying), R"({"reply":[null]})");
  EXPECT_EQ(removedBy, ::geteuid()) << "the caller is the connection's uid";
  reportReleased.bump();
  ASSERT_TRUE(ended.waitFor(1));
  EXPECT_EQ(listener->activeConnections(), 1);
  ::close(staying);
  ASSERT_TRUE(ended.waitFor(2));
  EXPECT_EQ(listener->activeConnections(), 0);
}

TEST_F(HelperTransportConcurrentTest, AnotherProgramIsDisconnectedWithNothingRun) {
  serve(std::filesystem::canonical("/bin/sh").string());
  int fd = connectTo(socketPath);
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(WireFrame::write(fd, kReportRequest));
  EXPECT_EQ(nextReply(fd), "<closed>");
  ::close(fd);
  EXPECT_EQ(reportStarted.count(), 0);
  EXPECT_THAT(test.logLines(), testing::ElementsAre(testing::StartsWith("Helper ")));
}

TEST(ServiceSocketTest, ReplacesAStaleSocketAndLeavesAnythingElseAlone) {
  TempTree tree;
  std::string path = tree.path("helper.sock");
  std::string error;
  int first = bindServiceSocket(path, error);
  ASSERT_GE(first, 0) << error;
  struct stat info {};
  ASSERT_EQ(::lstat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0666u);
  EXPECT_EQ(bindServiceSocket(path, error), -1) << "somebody listens there";
  EXPECT_EQ(error, "Left " + path + " alone: another process is listening on it.");
  ::close(first);  // the file stays behind, stale
  int second = bindServiceSocket(path, error);
  EXPECT_GE(second, 0) << error;
  ::close(second);

  std::string file = tree.write("plain", "keep me");
  EXPECT_EQ(bindServiceSocket(file, error), -1);
  EXPECT_EQ(error, "Left " + file + " alone: it is not a socket.");
  EXPECT_EQ(contentOf(file), "keep me");
}

}  // namespace
