// The client, run as a program against a stand-in helper socket: what it sends for each kind of
// argument, what it prints for each kind of answer, and that a bad command line sends nothing.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "service/helper_command.h"
#include "service/wire_frame.h"
#include "support/temp_tree.h"

namespace {

// A listening socket that answers one connection with a canned frame (or closes it unanswered).
class StandInHelper {
 public:
  explicit StandInHelper(const TempTree& tree) : path_(tree.path("helper.sock")) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path_.c_str(), sizeof(address.sun_path) - 1);
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(::listen(listener_, 4), 0);
  }
  ~StandInHelper() { ::close(listener_); }

  // Runs the client with `arguments` while serving one connection with `answer` (empty: close).
  HelperCommand::Result serveOnce(std::vector<std::string> arguments, const std::string& answer) {
    std::thread server([&] {
      int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      received_ = WireFrame::read(connection).payload;
      if (!answer.empty()) WireFrame::write(connection, answer);
      ::close(connection);
    });
    HelperCommand::Result result = run(std::move(arguments));
    server.join();
    return result;
  }
  HelperCommand::Result run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--socket", path_});
    return HelperCommand::run(TARNLY_HELPERCTL_PATH, arguments);
  }
  // True when a client is waiting to be accepted.
  bool connectionPending() {
    pollfd waiting{listener_, POLLIN, 0};
    return ::poll(&waiting, 1, 0) == 1;
  }
  const std::string& received() const { return received_; }

 private:
  std::string path_;
  int listener_ = -1;
  std::string received_;
};

TEST(HelperctlTest, SendsEachKindOfArgumentAndPrintsTheReplyOnOneLine) {
  TempTree tree;
  StandInHelper helper(tree);
  std::string policy = tree.write("policy.json", "[]");
  struct Case {
    std::vector<std::string> arguments;
    std::string sent;
  } cases[] = {
      {{"helperVersionWithReply:"}, R"({"args":[],"method":"helperVersionWithReply:"})"},
      {{"createVLANWithName:tag:parentBSD:withReply:", "Lab \"1\"", "-9223372036854775808", "en0"},
       R"({"args":["Lab \"1\"",-9223372036854775808,"en0"],)"
       R"("method":"createVLANWithName:tag:parentBSD:withReply:"})"},
      {{"setTarnlyResolverWithEnabled:withReply:", "false"},
       R"({"args":[false],"method":"setTarnlyResolverWithEnabled:withReply:"})"},
      {{"applyFirewallWithPolicyData:withReply:", policy},
       R"({"args":["W10="],"method":"applyFirewallWithPolicyData:withReply:"})"},
  };
  for (const Case& c : cases) {
    HelperCommand::Result result =
        helper.serveOnce(c.arguments, R"({"reply": ["line one\nline two", null]})");
    EXPECT_EQ(helper.received(), c.sent);
    EXPECT_EQ(result.status, 0) << result.stderr;
    EXPECT_EQ(result.stdout, "[\"line one\\nline two\",null]\n");
  }
}

TEST(HelperctlTest, AFaultOrAConnectionClosedUnansweredIsOneLineAndStatusOne) {
  TempTree tree;
  StandInHelper helper(tree);
  HelperCommand::Result fault =
      helper.serveOnce({"removeFirewallWithReply:"}, R"({"fault": "Unknown method."})");
  EXPECT_EQ(fault.status, 1);
  EXPECT_EQ(fault.stderr, "tarnly-helperctl: the helper refused the request: Unknown method.\n");
  HelperCommand::Result closed = helper.serveOnce({"removeFirewallWithReply:"}, "");
  EXPECT_EQ(closed.status, 1);
  EXPECT_EQ(closed.stderr, "tarnly-helperctl: the helper closed the connection without a reply\n");
  EXPECT_EQ(fault.stdout + closed.stdout, "");
}

TEST(HelperctlTest, ABadCommandLineIsAUsageErrorAndSendsNothing) {
  TempTree tree;
  StandInHelper helper(tree);
  const std::vector<std::string> cases[] = {
      {},
      {"helperVersion"},
      {"helperVersionWithReply:", "extra"},
      {"deleteVLANWithBsdName:withReply:"},
      {"createVLANWithName:tag:parentBSD:withReply:", "Lab", "9223372036854775808", "en0"},
      {"createVLANWithName:tag:parentBSD:withReply:", "Lab", "12a", "en0"},
      {"createVLANWithName:tag:parentBSD:withReply:", "Lab", "", "en0"},
      {"setTarnlyResolverWithEnabled:withReply:", "True"},
      {"applyFirewallWithPolicyData:withReply:", tree.path("missing.json")},
      {"deleteVLANWithBsdName:withReply:", "vlan\xff"},
  };
  for (const std::vector<std::string>& arguments : cases) {
    HelperCommand::Result result = helper.run(arguments);
    EXPECT_EQ(result.status, 2) << testing::PrintToString(arguments);
    EXPECT_NE(result.stderr.find("usage: tarnly-helperctl"), std::string::npos);
    EXPECT_FALSE(helper.connectionPending()) << testing::PrintToString(arguments);
  }
}

}  // namespace
