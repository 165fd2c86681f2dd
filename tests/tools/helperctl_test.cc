// The client against a stand-in helper socket: typed arguments at their limits, one line for each
// kind of answer the helper never gives it, and nothing sent for a bad command line.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
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
  std::strncpy(address.sun_path, socket.c_str(), sizeof(address.sun_path) - 1);
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(::listen(listener, 4), 0);
  // "<request received> -> status|stdout|stderr"; the stand-in answers one connection with
  // `answer`, or accepts none when the client is to send nothing.
  auto run = [&](std::vector<std::string> arguments, const std::string& answer, bool sends) {
    std::string sent;
    std::thread helper([&] {
      if (!sends) return;
      const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      sent = WireFrame::read(connection).payload;
      WireFrame::write(connection, answer);
      ::close(connection);
    });
    arguments.insert(arguments.begin(), {"--socket", socket});
    HelperCommand::Result result = HelperCommand::run(TARNLY_HELPERCTL_PATH, arguments);
    helper.join();
    pollfd waiting{listener, POLLIN, 0};
    EXPECT_EQ(::poll(&waiting, 1, 0), 0) << "a connection is left waiting";
    return sent + " -> " + std::to_string(result.status) + "|" + result.stdout + "|" +
           result.stderr;
  };
  const std::string reply = R"({"reply": ["line one\nline two", null]})";
  const std::string printed = R"( -> 0|["line one\nline two",null])"
                              "\n|";
  const std::vector<std::pair<std::vector<std::string>, std::string>> typed = {
      {{"helperVersionWithReply:"}, R"({"args":[],"method":"helperVersionWithReply:"})"},
      {{vlan, "Lab \"1\"", "-9223372036854775808", "en0"},
       R"({"args":["Lab \"1\"",-9223372036854775808,"en0"],"method":")" + vlan + "\"}"},
      {{"applyFirewallWithPolicyData:withReply:", tree.write("policy.json", "[]")},
       R"({"args":["W10="],"method":"applyFirewallWithPolicyData:withReply:"})"}};
  for (const auto& [arguments, sent] : typed)
    EXPECT_EQ(run(arguments, reply, true), sent + printed);
  for (const auto& [answer, line] : std::vector<std::pair<std::string, std::string>>{
           {R"({"fault": "Unknown method."})", " refused the request: Unknown method."},
           {R"({"replies": []})", "'s answer is neither a reply nor a fault"}}) {
    EXPECT_EQ(
        run({"removeFirewallWithReply:"}, answer, true),
        R"({"args":[],"method":"removeFirewallWithReply:"} -> 1||tarnly-helperctl: the helper)" +
            line + "\n");
  }
  for (const std::string& line : std::vector<std::string>{
           "", "helperVersion", "helperVersionWithReply: extra",
           "deleteVLANWithBsdName:withReply:", vlan + " Lab 9223372036854775808 en0",
           vlan + " Lab 12a en0", "setTarnlyResolverWithEnabled:withReply: True",
           "applyFirewallWithPolicyData:withReply: " + socket + "x",
           "deleteVLANWithBsdName:withReply: vlan\xff"}) {
    std::istringstream words(line);
    EXPECT_THAT(run({std::istream_iterator<std::string>(words), {}}, "", false),
                ::testing::MatchesRegex(
                    " -> 2\\|\\|(tarnly-helperctl: [^\n]+\n)?usage: tarnly-helperctl .*"));
  }
  ::close(listener);
}
