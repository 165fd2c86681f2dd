// The client against a stand-in helper socket: arguments at their limits, a reply on one line, the
// answers the helper never gives it, and nothing sent for a bad command line.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "service/helper_command.h"
#include "service/wire_frame.h"
#include "support/temp_tree.h"

TEST(HelperctlTest, SendsTypedArgumentsAnswersOnOneLineAndSendsNothingForABadCommandLine) {
  TempTree tree;
  sockaddr_un address{AF_UNIX, {}};
  const std::string socket = tree.path("helper.sock"),
                    vlan = "createVLANWithName:tag:parentBSD:withReply:";
  socket.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(::listen(listener, 4), 0);
  // "<request received> -> status|stdout|stderr"; the stand-in answers one connection with
  // `answer`, or accepts none when there is none.
  auto run = [&](std::vector<std::string> arguments, const std::string& answer) {
    std::string sent;
    std::thread helper([&] {
      if (answer.empty()) return;
      const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      sent = WireFrame::read(connection).payload;
      WireFrame::write(connection, answer);
      ::close(connection);
    });
    arguments.insert(arguments.begin(), {"--socket", socket});
    HelperCommand::Result result = HelperCommand::run(TARNLY_HELPERCTL_PATH, arguments);
    helper.join();
    pollfd waiting{listener, POLLIN, 0};
    EXPECT_EQ(::poll(&waiting, 1, 0), 0);  // no connection left waiting
    return sent + " -> " + std::to_string(result.status) + "|" + result.stdout + "|" +
           result.stderr;
  };
  EXPECT_EQ(run({vlan, "Lab \"1\"", "-9223372036854775808", "en0"},
                R"({"reply": ["line one\nline two", null]})"),
            R"({"args":["Lab \"1\"",-9223372036854775808,"en0"],"method":")" + vlan +
                R"("} -> 0|["line one\nline two",null])" + "\n|");
  const std::string removal =
      R"({"args":[],"method":"removeFirewallWithReply:"} -> 1||tarnly-helperctl: the helper)";
  EXPECT_EQ(run({"removeFirewallWithReply:"}, R"({"fault": "Unknown method."})"),
            removal + " refused the request: Unknown method.\n");
  EXPECT_EQ(run({"removeFirewallWithReply:"}, R"({"replies": []})"),
            removal + "'s answer is neither a reply nor a fault\n");
  for (const std::string& line : std::vector<std::string>{
           "", "helperVersion", "helperVersionWithReply: extra",
           "deleteVLANWithBsdName:withReply:", vlan + " Lab 9223372036854775808 en0",
           vlan + " Lab 12a en0", "setTarnlyResolverWithEnabled:withReply: True",
           "applyFirewallWithPolicyData:withReply: " + socket + "x",
           "deleteVLANWithBsdName:withReply: vlan\xff"}) {
    std::istringstream words(line);
    EXPECT_THAT(run({std::istream_iterator<std::string>(words), {}}, ""),
                testing::MatchesRegex(
                    " -> 2\\|\\|(tarnly-helperctl: [^\n]+\n)?usage: tarnly-helperctl .*"));
  }
  ::close(listener);
}
