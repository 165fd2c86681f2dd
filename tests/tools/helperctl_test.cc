// The client, run as a program against a stand-in helper socket: what it sends for each kind of
// argument, what it prints for each kind of answer, and that a bad command line sends nothing.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "service/helper_command.h"
#include "service/wire_frame.h"
#include "support/temp_tree.h"

namespace {

TEST(HelperctlTest, SendsTypedArgumentsAnswersOnOneLineAndSendsNothingForABadCommandLine) {
  TempTree tree;
  sockaddr_un address{AF_UNIX, {}};
  const std::string socket = tree.path("helper.sock"),
                    vlan = "createVLANWithName:tag:parentBSD:withReply:";
  std::strncpy(address.sun_path, socket.c_str(), sizeof(address.sun_path) - 1);
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(::listen(listener, 4), 0);
  // "<request received> -> <status>|<stdout>|<stderr>", the helper answering one connection with
  // `answer` (empty: closing it unanswered), or not accepting any when there is none.
  auto run = [&](std::vector<std::string> arguments, std::optional<std::string> answer) {
    std::string sent;
    std::thread helper;
    if (answer) {
      helper = std::thread([&] {
        const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        sent = WireFrame::read(connection).payload;
        if (!answer->empty()) WireFrame::write(connection, *answer);
        ::close(connection);
      });
    }
    arguments.insert(arguments.begin(), {"--socket", socket});
    HelperCommand::Result result = HelperCommand::run(TARNLY_HELPERCTL_PATH, arguments);
    if (helper.joinable()) helper.join();
    pollfd waiting{listener, POLLIN, 0};
    EXPECT_EQ(::poll(&waiting, 1, 0), 0) << "a connection is left waiting";
    return sent + " -> " + std::to_string(result.status) + "|" + result.stdout + "|" +
           result.stderr;
  };
  const std::vector<std::pair<std::vector<std::string>, std::string>> typed = {
      {{"helperVersionWithReply:"}, R"({"args":[],"method":"helperVersionWithReply:"})"},
      {{vlan, "Lab \"1\"", "-9223372036854775808", "en0"},
       R"({"args":["Lab \"1\"",-9223372036854775808,"en0"],"method":")" + vlan + "\"}"},
      {{"setTarnlyResolverWithEnabled:withReply:", "false"},
       R"({"args":[false],"method":"setTarnlyResolverWithEnabled:withReply:"})"},
      {{"applyFirewallWithPolicyData:withReply:", tree.write("policy.json", "[]")},
       R"({"args":["W10="],"method":"applyFirewallWithPolicyData:withReply:"})"}};
  for (const auto& [arguments, sent] : typed) {
    EXPECT_EQ(run(arguments, R"({"reply": ["line one\nline two", null]})"),
              sent + R"( -> 0|["line one\nline two",null])"
                     "\n|");
  }
  const std::vector<std::pair<std::string, std::string>> unanswered = {
      {R"({"fault": "Unknown method."})", "the helper refused the request: Unknown method."},
      {"", "the helper closed the connection without a reply"},
      {R"({"replies": []})", "the helper's answer is neither a reply nor a fault"}};
  for (const auto& [answer, line] : unanswered) {
    EXPECT_EQ(run({"removeFirewallWithReply:"}, answer),
              R"({"args":[],"method":"removeFirewallWithReply:"} -> 1||tarnly-helperctl: )" + line +
                  "\n");
  }
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {},
           {"helperVersion"},
           {"helperVersionWithReply:", "extra"},
           {"deleteVLANWithBsdName:withReply:"},
           {vlan, "Lab", "9223372036854775808", "en0"},
           {vlan, "Lab", "12a", "en0"},
           {vlan, "Lab", "", "en0"},
           {"setTarnlyResolverWithEnabled:withReply:", "True"},
           {"applyFirewallWithPolicyData:withReply:", tree.path("missing.json")},
           {"deleteVLANWithBsdName:withReply:", "vlan\xff"}}) {
    EXPECT_THAT(run(arguments, std::nullopt),
                ::testing::MatchesRegex(
                    " -> 2\\|\\|(tarnly-helperctl: [^\n]+\n)?usage: tarnly-helperctl .*"));
  }
  ::close(listener);
}

}  // namespace
