// The protocol's rows through recording operations: the caller rule of each row (the resolver by
// direction), the refusal and its log line, the arguments and uid passed on, the reply shapes,
// and the failure lines.
#include "service/helper_protocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "host/fake_user_directory.h"
#include "service_fixtures.h"

namespace {

using nlohmann::json;
using service_test::TestEnvironment;

constexpr std::uint32_t kAdmin = 501;
constexpr std::uint32_t kConsole = 502;  // at the console, not an administrator
constexpr std::uint32_t kOther = 503;

const std::string kRefusal =
    "Only an administrator of this Mac can make this change through Tarnly's helper.";

class HelperProtocolTest : public ::testing::Test {
 protected:
  HelperProtocolTest() {
    users.addUser(kAdmin, {20, 80});
    users.addUser(kConsole, {20});
    users.addUser(kOther, {20});
    auto record = [this](std::string call) {
      calls.push_back(std::move(call));
      if (!failure.empty()) throw std::runtime_error(failure);
    };
    auto& ops = service.operations;
    ops.noteActivity = [this] { ++activity; };
    ops.versionString = [] { return "9.9"; };
    ops.applyFirewall = [=](const std::string& data, std::uint32_t uid, bool adopt) {
      record("apply " + data + " " + std::to_string(uid) + (adopt ? " adopt" : ""));
      return std::string("Enforcing 1 network: Lab");
    };
    ops.removeFirewall = [=](std::uint32_t uid, bool adopt) {
      record("remove " + std::to_string(uid) + (adopt ? " adopt" : ""));
    };
    ops.firewallReport = [=] {
      record("report");
      return std::string("== pf status ==");
    };
    ops.createVLAN = [=](const std::string& name, std::int64_t tag, const std::string& parent) {
      record("createVLAN " + name + " " + std::to_string(tag) + " " + parent);
      return std::string("vlan0");
    };
    ops.deleteVLAN = [=](const std::string& name) { record("deleteVLAN " + name); };
    ops.createdVLANs = [=] {
      record("createdVLANs");
      return std::string("[]");
    };
    ops.installCLISymlink = [=] { record("installCLISymlink"); };
    ops.removeCLISymlink = [=] { record("removeCLISymlink"); };
    ops.pruneStaleVMInterfaces = [=] {
      record("prune");
      return std::string("No vmnet interfaces.");
    };
    ops.setResolver = [=](bool enabled) { record(enabled ? "resolver on" : "resolver off"); };
    ops.shutdownForUpgrade = [=] { record("shutdown"); };
    ops.removeFilesForUninstall = [=] {
      record("uninstall");
      return std::optional<std::string>();
    };
  }

  // The reply (or fault) to `request` from `caller`, as JSON.
  json send(const json& request, std::uint32_t caller) {
    HelperProtocol::Response response = HelperProtocol::handle(request.dump(), caller, service);
    return json::parse(response.payload);
  }

  TestEnvironment test;
  FakeUserDirectory users;
  std::optional<std::uint32_t> console = kConsole;
  HelperProtocol::Service service{{}, {users, [this] { return console; }, test.log}};
  std::vector<std::string> calls;
  std::string failure;  // when set, every operation throws it
  int activity = 0;
};

json request(std::string_view selector, json args = json::array()) {
  return {{"method", selector}, {"args", std::move(args)}};
}

// Who each row lets through: administrator, console user, anybody else.
struct RowCase {
  json request;
  std::string call;  // what the operation records
  bool console;
  bool other;
  std::string reply;  // the reply to the administrator
};

TEST_F(HelperProtocolTest, EachRowChecksItsCallerAndRepliesInItsShape) {
  const RowCase rows[] = {
      {request("helperVersionWithReply:"), "", true, true, R"(["9.9"])"},
      {request("applyFirewallWithPolicyData:withReply:", {"W10="}), "apply [] 501", true, false,
       R"(["Enforcing 1 network: Lab",null])"},
      {request("removeFirewallWithReply:"), "remove 501", true, false, "[null]"},
      {request("firewallReportWithReply:"), "report", true, true, R"(["== pf status ==",null])"},
      {request("createVLANWithName:tag:parentBSD:withReply:", {"Lab", 4094, "en0"}),
       "createVLAN Lab 4094 en0", false, false, R"(["vlan0",null])"},
      {request("deleteVLANWithBsdName:withReply:", {"vlan0"}), "deleteVLAN vlan0", false, false,
       "[null]"},
      {request("createdVLANsWithReply:"), "createdVLANs", true, true, R"(["W10=",null])"},
      {request("installCLISymlinkWithReply:"), "installCLISymlink", true, false, "[null]"},
      {request("removeCLISymlinkWithReply:"), "removeCLISymlink", true, false, "[null]"},
      {request("pruneStaleVMInterfacesWithReply:"), "prune", true, false,
       R"(["No vmnet interfaces.",null])"},
      {request("setTarnlyResolverWithEnabled:withReply:", {true}), "resolver on", true, false,
       "[null]"},
      {request("setTarnlyResolverWithEnabled:withReply:", {false}), "resolver off", false, false,
       "[null]"},
      {request("shutdownForUpgradeWithReply:"), "shutdown", true, false, "[]"},
      {request("removeFilesForUninstallWithReply:"), "uninstall", true, false, "[null,null]"},
  };
  for (const RowCase& row : rows) {
    const std::string selector = row.request["method"];
    const HelperProtocol::Method& method = *HelperProtocol::find(selector);
    for (auto [caller, allowed] : {std::pair{kAdmin, true}, std::pair{kConsole, row.console},
                                   std::pair{kOther, row.other}}) {
      SCOPED_TRACE(selector + " from " + std::to_string(caller));
      calls.clear();
      activity = 0;
      json reply = send(row.request, caller)["reply"];
      EXPECT_EQ(activity, selector == "shutdownForUpgradeWithReply:" ? 0 : 1);
      if (allowed) {
        EXPECT_EQ(calls.size(), row.call.empty() ? 0u : 1u);
        if (caller == kAdmin) {
          EXPECT_EQ(reply.dump(), row.reply);
          EXPECT_EQ(calls, row.call.empty() ? std::vector<std::string>{}
                                            : std::vector<std::string>{row.call});
        }
        continue;
      }
      EXPECT_TRUE(calls.empty());
      // The refusal takes the error position; a reply without values stays empty.
      json refused = json::array();
      for (std::size_t i = 0; i < method.replyCount(); ++i) refused.push_back(nullptr);
      if (!refused.empty()) refused.back() = kRefusal;
      EXPECT_EQ(reply, refused);
      bool adminOnly = !row.console;
      EXPECT_EQ(test.logLines().back(),
                "Refused " + std::string(method.operation) + " for uid " + std::to_string(caller) +
                    (adminOnly ? ": not an administrator."
                               : ": not an administrator or the console user."));
    }
  }
}

TEST_F(HelperProtocolTest, FirewallRowsPassTheCallerAndAdoptLegacyForTheConsoleOrNobody) {
  const std::string apply = "applyFirewallWithPolicyData:withReply:";
  send(request(apply, {"W10="}), kAdmin);  // an administrator away from the console
  send(request("removeFirewallWithReply:"), kConsole);
  console.reset();  // nobody at the console
  send(request(apply, {"W10="}), kAdmin);
  console = 0;
  send(request("removeFirewallWithReply:"), 0);
  EXPECT_THAT(calls, testing::ElementsAre("apply [] 501", "remove 502 adopt", "apply [] 501 adopt",
                                          "remove 0 adopt"));
}

TEST_F(HelperProtocolTest, AThrownErrorIsRepliedAndLoggedForTheRowsThatLogFailures) {
  failure = "No VLAN interface named vlan7.";
  struct Case {
    json request;
    std::string reply;
    std::string logLine;  // empty: none
  };
  const Case cases[] = {
      {request("deleteVLANWithBsdName:withReply:", {"vlan7"}),
       R"(["No VLAN interface named vlan7."])",
       "deleteVLAN failed: No VLAN interface named vlan7."},
      {request("applyFirewallWithPolicyData:withReply:", {""}),
       R"([null,"No VLAN interface named vlan7."])",
       "applyFirewall failed: No VLAN interface named vlan7."},
      {request("setTarnlyResolverWithEnabled:withReply:", {false}),
       R"(["No VLAN interface named vlan7."])",
       "setTarnlyResolver failed: No VLAN interface named vlan7."},
      {request("createdVLANsWithReply:"), R"([null,"No VLAN interface named vlan7."])", ""},
      {request("pruneStaleVMInterfacesWithReply:"), R"([null,"No VLAN interface named vlan7."])",
       ""},
  };
  for (const Case& c : cases) {
    std::size_t linesBefore = test.logLines().size();
    EXPECT_EQ(send(c.request, 0)["reply"].dump(), c.reply) << c.request;
    std::vector<std::string> lines = test.logLines();
    if (c.logLine.empty()) {
      EXPECT_EQ(lines.size(), linesBefore) << c.request;
    } else {
      EXPECT_EQ(lines.back(), c.logLine);
    }
  }
}

TEST_F(HelperProtocolTest, MalformedRequestsGetAFaultAndRunNothing) {
  const std::pair<std::string, std::string> cases[] = {
      {"{\"method\": ", "The request is not valid JSON."},
      {"\"helperVersionWithReply:\"",
       "The request must be a JSON object with a method name and an argument list."},
      {R"({"method": "helperVersionWithReply:"})",
       "The request must be a JSON object with a method name and an argument list."},
      {R"({"method": "helperVersion", "args": []})",
       "The helper has no method named helperVersion."},
      {R"({"method": "deleteVLANWithBsdName:withReply:", "args": []})",
       "deleteVLANWithBsdName:withReply: takes 1 argument, not 0."},
      {R"({"method": "firewallReportWithReply:", "args": [null]})",
       "firewallReportWithReply: takes 0 arguments, not 1."},
      {R"({"method": "createVLANWithName:tag:parentBSD:withReply:", "args": ["a", 1.5, "en0"]})",
       "Argument 2 of createVLANWithName:tag:parentBSD:withReply: must be a 64-bit integer."},
      {R"({"method": "createVLANWithName:tag:parentBSD:withReply:",
           "args": ["a", 9223372036854775808, "en0"]})",
       "Argument 2 of createVLANWithName:tag:parentBSD:withReply: must be a 64-bit integer."},
      {R"({"method": "setTarnlyResolverWithEnabled:withReply:", "args": [1]})",
       "Argument 1 of setTarnlyResolverWithEnabled:withReply: must be true or false."},
      {R"({"method": "applyFirewallWithPolicyData:withReply:", "args": ["W10"]})",
       "Argument 1 of applyFirewallWithPolicyData:withReply: must be a base64 string."},
      {R"({"method": "deleteVLANWithBsdName:withReply:", "args": [7]})",
       "Argument 1 of deleteVLANWithBsdName:withReply: must be a string."},
  };
  for (const auto& [payload, fault] : cases) {
    HelperProtocol::Response response = HelperProtocol::handle(payload, 0, service);
    EXPECT_TRUE(response.closeAfter) << payload;
    EXPECT_EQ(json::parse(response.payload), json({{"fault", fault}})) << payload;
  }
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(activity, 0);
  // The extreme tags pass unchanged.
  send(request("createVLANWithName:tag:parentBSD:withReply:",
               {"", std::numeric_limits<std::int64_t>::min(), "en0"}),
       0);
  EXPECT_EQ(calls.back(), "createVLAN  -9223372036854775808 en0");
}

}  // namespace
