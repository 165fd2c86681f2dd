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
    auto& ops = service.operations;
    ops.noteActivity = [this] { ++activity; };
    ops.versionString = [] { return "9.9"; };
    ops.applyFirewall = record<std::string, const std::string&, std::uint32_t, bool>(
        "apply", "Enforcing 1 network: Lab");
    ops.removeFirewall = record<void, std::uint32_t, bool>("remove");
    ops.firewallReport = record<std::string>("report", "== pf status ==");
    ops.createVLAN = record<std::string, const std::string&, std::int64_t, const std::string&>(
        "createVLAN", "vlan0");
    ops.deleteVLAN = record<void, const std::string&>("deleteVLAN");
    ops.createdVLANs = record<std::string>("createdVLANs", "[]");
    ops.installCLISymlink = record<void>("installCLISymlink");
    ops.removeCLISymlink = record<void>("removeCLISymlink");
    ops.pruneStaleVMInterfaces = record<std::string>("prune", "No vmnet interfaces.");
    ops.setResolver = record<void, bool>("resolver");
    ops.shutdownForUpgrade = record<void>("shutdown");
    ops.removeFilesForUninstall = record<std::optional<std::string>>("uninstall", std::nullopt);
  }

  // An operation that records "<name> <argument>..." and then throws `failure` when one is set.
  template <typename Result, typename... Args, typename... Returned>
  std::function<Result(Args...)> record(std::string name, Returned... result) {
    return [this, name, result...](Args... args) -> Result {
      std::string call = name;
      ((call += " " + testing::PrintToString(args)), ...);
      calls.push_back(call);
      if (!failure.empty()) throw std::runtime_error(failure);
      return Result(result...);
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

// Who each row lets through besides administrators, what it calls and replies, and whether a
// thrown error is logged.
struct RowCase {
  json request;
  std::string call;  // what the operation records for the administrator
  bool console;
  bool other;
  std::string reply;  // the reply to the administrator
  bool logsFailure;
};

TEST_F(HelperProtocolTest, EachRowChecksItsCallerRepliesInItsShapeAndReportsFailures) {
  const RowCase rows[] = {
      {request("helperVersionWithReply:"), "", true, true, R"(["9.9"])", false},
      {request("applyFirewallWithPolicyData:withReply:", {"W10="}), R"(apply "[]" 501 false)", true,
       false, R"(["Enforcing 1 network: Lab",null])", true},
      {request("removeFirewallWithReply:"), "remove 501 false", true, false, "[null]", true},
      {request("firewallReportWithReply:"), "report", true, true, R"(["== pf status ==",null])",
       false},
      {request("createVLANWithName:tag:parentBSD:withReply:", {"Lab", -9, "en0"}),
       R"(createVLAN "Lab" -9 "en0")", false, false, R"(["vlan0",null])", true},
      {request("deleteVLANWithBsdName:withReply:", {"vlan0"}), R"(deleteVLAN "vlan0")", false,
       false, "[null]", true},
      {request("createdVLANsWithReply:"), "createdVLANs", true, true, R"(["W10=",null])", false},
      {request("installCLISymlinkWithReply:"), "installCLISymlink", true, false, "[null]", true},
      {request("removeCLISymlinkWithReply:"), "removeCLISymlink", true, false, "[null]", true},
      {request("pruneStaleVMInterfacesWithReply:"), "prune", true, false,
       R"(["No vmnet interfaces.",null])", false},
      {request("setTarnlyResolverWithEnabled:withReply:", {true}), "resolver true", true, false,
       "[null]", true},
      {request("setTarnlyResolverWithEnabled:withReply:", {false}), "resolver false", false, false,
       "[null]", true},
      {request("shutdownForUpgradeWithReply:"), "shutdown", true, false, "[]", false},
      {request("removeFilesForUninstallWithReply:"), "uninstall", true, false, "[null,null]",
       false},
  };
  for (const RowCase& row : rows) {
    const std::string selector = row.request["method"];
    const HelperProtocol::Method& method = *HelperProtocol::find(selector);
    std::vector<std::string> expectedCalls;
    if (!row.call.empty()) expectedCalls.push_back(row.call);
    for (auto [caller, allowed] : {std::pair{kAdmin, true}, std::pair{kConsole, row.console},
                                   std::pair{kOther, row.other}}) {
      SCOPED_TRACE(selector + " from " + std::to_string(caller));
      calls.clear();
      activity = 0;
      json reply = send(row.request, caller)["reply"];
      EXPECT_EQ(activity, selector == "shutdownForUpgradeWithReply:" ? 0 : 1);
      if (allowed) {
        EXPECT_EQ(calls.size(), expectedCalls.size());
        if (caller == kAdmin) {
          EXPECT_EQ(reply.dump(), row.reply);
          EXPECT_EQ(calls, expectedCalls);
        }
        continue;
      }
      EXPECT_TRUE(calls.empty());
      // The refusal takes the error position; a reply without values stays empty.
      json refused = json::array();
      for (std::size_t i = 0; i < method.replyCount(); ++i) refused.push_back(nullptr);
      if (!refused.empty()) refused.back() = kRefusal;
      EXPECT_EQ(reply, refused);
      EXPECT_EQ(test.logLines().back(),
                "Refused " + std::string(method.operation) + " for uid " + std::to_string(caller) +
                    (row.console ? ": not an administrator or the console user."
                                 : ": not an administrator."));
    }
    if (row.call.empty()) continue;
    // A thrown error: its text in the error position, and the failure line where the row has one.
    failure = "It broke.";
    std::size_t linesBefore = test.logLines().size();
    json reply = send(row.request, kAdmin)["reply"];
    failure.clear();
    EXPECT_EQ(reply.empty() ? json() : reply.back(),
              method.replyCount() ? json("It broke.") : json());
    if (row.logsFailure) {
      EXPECT_EQ(test.logLines().back(), std::string(method.operation) + " failed: It broke.");
    } else {
      EXPECT_EQ(test.logLines().size(), linesBefore) << selector;
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
  EXPECT_THAT(calls, testing::ElementsAre(R"(apply "[]" 501 false)", "remove 502 true",
                                          R"(apply "[]" 501 true)", "remove 0 true"));
}

}  // namespace
