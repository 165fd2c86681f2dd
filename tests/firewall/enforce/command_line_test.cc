// The command-line modes: "--version" for anyone, the root check, "--status", "--reapply" and
// the service start, in process through the mode function and through the built executable.
#include "firewall/enforce/command_line.h"

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "enforce_fixtures.h"
#include "firewall/enforce/firewall_operations.h"

namespace {

using enforce_test::document;
using enforce_test::kStatusInfo;
using enforce_test::network;
using testing::HasSubstr;

const std::string kNotRoot = "TarnlyAdminHelper must run as root (launchd LaunchDaemon).\n";

class CommandLine : public enforce_test::EnforceTest {
 protected:
  int run(const std::vector<std::string>& arguments, uid_t uid = 0) {
    out.str("");
    err.str("");
    return HelperCommandLine::run(arguments, uid, host, out, err);
  }

  std::ostringstream out;
  std::ostringstream err;
};

TEST_F(CommandLine, VersionIsOpenToEveryone) {
  EXPECT_EQ(run({"--version"}, 501), 0);
  EXPECT_EQ(out.str(), HelperCommandLine::versionString() + "\n");
  EXPECT_EQ(HelperCommandLine::versionString(), TARNLY_VERSION);
  EXPECT_TRUE(err.str().empty());
  EXPECT_TRUE(pf.invocations().empty());
}

TEST_F(CommandLine, EveryOtherModeNeedsRoot) {
  for (const auto& arguments : std::vector<std::vector<std::string>>{
           {"--status"}, {"--reapply"}, {}, {"--Version"}, {"version"}}) {
    EXPECT_EQ(run(arguments, 501), 1);
    EXPECT_EQ(err.str(), kNotRoot);
    EXPECT_TRUE(out.str().empty());
  }
  EXPECT_TRUE(pf.invocations().empty());
  EXPECT_FALSE(pathExists(paths.logFile));
}

TEST_F(CommandLine, StatusPrintsTheReportAndIgnoresFurtherArguments) {
  EXPECT_EQ(run({"--status", "--reapply"}), 0);
  EXPECT_THAT(out.str(), testing::StartsWith("== pf status ==\n"));
  EXPECT_THAT(out.str(), testing::EndsWith("== subnet owners ==\n(none)\n"));
  EXPECT_TRUE(err.str().empty());
  EXPECT_EQ(runsOf({"-a", "com.apple/900.tarnly.firewall", "-f", state("firewall.pf.conf")}), 0u);
}

TEST_F(CommandLine, ReapplyLoadsTheStoredFirewall) {
  HelperFirewall::apply(host, document({network(1, "Lab", "192.168.64.0/24")}), 501, false);
  HelperCommand::run(paths.pfctl, {"-a", "com.apple/900.tarnly.firewall", "-F", "rules"});
  EXPECT_EQ(run({"--reapply"}), 0);
  EXPECT_TRUE(out.str().empty());
  EXPECT_TRUE(err.str().empty());
  EXPECT_EQ(logLines().back(), "Boot re-apply: Enforcing 1 network for all users: Lab");
  EXPECT_THAT(pf.loadedRuleset("com.apple/900.tarnly.firewall"), HasSubstr("# --- Lab"));
}

TEST_F(CommandLine, AnyOtherWordStartsTheServiceAfterTheReapply) {
  HelperFirewall::apply(host, document({network(1, "Lab", "192.168.64.0/24")}), 501, false);
  for (const auto& arguments : std::vector<std::vector<std::string>>{
           {}, {"--STATUS"}, {"status"}, {"reapply", "--status"}}) {
    pf.clearInvocations();
    EXPECT_EQ(run(arguments), 1);
    EXPECT_TRUE(out.str().empty());
    std::string message = err.str();
    EXPECT_THAT(message, HasSubstr("socket service"));
    EXPECT_EQ(std::count(message.begin(), message.end(), '\n'), 1);
    EXPECT_TRUE(message.ends_with("\n"));
    EXPECT_EQ(pf.invocations().front(), kStatusInfo);
    EXPECT_THAT(logLines().back(), testing::StartsWith("Boot re-apply: "));
  }
}

TEST(HelperExecutable, PrintsItsVersionForAnyone) {
  HelperCommand::Result result = HelperCommand::run(TARNLY_HELPER_PATH, {"--version", "extra"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.stdout, std::string(TARNLY_VERSION) + "\n");
  EXPECT_EQ(result.stderr, "");
}

TEST(HelperExecutable, RefusesOrdinaryUsersWithTheExactMessage) {
  if (::getuid() != 0) GTEST_SKIP() << "needs root to run the helper as another user";
  const char* setpriv = "/usr/bin/setpriv";
  if (::access(setpriv, X_OK) != 0) GTEST_SKIP() << "setpriv is not installed";
  for (const auto& mode : std::vector<std::string>{"--status", "--reapply", ""}) {
    std::vector<std::string> arguments = {"--reuid=65534", "--regid=65534", "--clear-groups",
                                          TARNLY_HELPER_PATH};
    if (!mode.empty()) arguments.push_back(mode);
    HelperCommand::Result result = HelperCommand::run(setpriv, arguments);
    if (result.status != 1 && result.stderr.find("Permission denied") != std::string::npos) {
      GTEST_SKIP() << "the build folder is not reachable for uid 65534: " << result.stderr;
    }
    EXPECT_EQ(result.status, 1) << mode;
    EXPECT_EQ(result.stdout, "") << mode;
    EXPECT_EQ(result.stderr, kNotRoot) << mode;
  }

  HelperCommand::Result version = HelperCommand::run(
      setpriv,
      {"--reuid=65534", "--regid=65534", "--clear-groups", TARNLY_HELPER_PATH, "--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.stdout, std::string(TARNLY_VERSION) + "\n");
}

}  // namespace
