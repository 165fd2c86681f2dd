// The command-line modes: "--version" for anyone, the root check, "--status", "--reapply" and
// the service start, in process through the mode function and through the built executable.
#include "service/helper_main.h"

#include <unistd.h>

#include <sstream>

#include "firewall/enforce/enforce_fixtures.h"
#include "firewall/enforce/firewall_operations.h"

namespace {

using namespace enforce_test;
using testing::HasSubstr;
using testing::StartsWith;

const std::string kNotRoot = "TarnlyAdminHelper must run as root (launchd LaunchDaemon).\n";

class CommandLine : public EnforceTest {
 protected:
  int run(const std::vector<std::string>& arguments, uid_t uid = 0) {
    out.str("");
    err.str("");
    return HelperCommandLine::run(arguments, uid, host, out, err, [this] {
      ++serviceStarts;
      // The firewall is in place before the service starts.
      EXPECT_THAT(logLines().back(), StartsWith("Boot re-apply: "));
      return 7;
    });
  }
  void applyLab() {
    HelperFirewall::apply(host, document({network(1, "Lab", "192.168.64.0/24")}), 501, false);
  }
  std::ostringstream out;
  std::ostringstream err;
  int serviceStarts = 0;
};

TEST_F(CommandLine, VersionIsOpenToEveryoneAndEveryOtherModeNeedsRoot) {
  EXPECT_EQ(run({"--version"}, 501), 0);
  EXPECT_EQ(out.str(), std::string(TARNLY_VERSION) + "\n");
  EXPECT_TRUE(err.str().empty());
  for (const auto& arguments : std::vector<std::vector<std::string>>{
           {"--status"}, {"--reapply"}, {}, {"--Version"}, {"version"}}) {
    EXPECT_EQ(run(arguments, 501), 1);
    EXPECT_EQ(err.str(), kNotRoot);
    EXPECT_TRUE(out.str().empty());
  }
  EXPECT_TRUE(pf.invocations().empty());
  EXPECT_FALSE(pathExists(paths.logFile));
  EXPECT_EQ(serviceStarts, 0);
}

TEST_F(CommandLine, StatusPrintsTheReportAndReapplyLoadsTheStoredFirewall) {
  EXPECT_EQ(run({"--status", "--reapply"}), 0);  // further arguments are ignored
  EXPECT_THAT(out.str(), StartsWith("== pf status ==\n"));
  EXPECT_THAT(out.str(), testing::EndsWith("== subnet owners ==\n(none)\n"));
  EXPECT_TRUE(err.str().empty());
  EXPECT_EQ(runsOf(anchorLoad()), 0u);

  applyLab();
  flushAnchor();
  EXPECT_EQ(run({"--reapply"}), 0);
  EXPECT_EQ(out.str() + err.str(), "");
  EXPECT_EQ(logLines().back(), "Boot re-apply: Enforcing 1 network for all users: Lab");
  EXPECT_THAT(pf.loadedRuleset(kAnchor), HasSubstr("# --- Lab"));
}

TEST_F(CommandLine, AnyOtherWordStartsTheServiceAfterTheReapply) {
  applyLab();
  for (const auto& arguments : std::vector<std::vector<std::string>>{
           {}, {"--STATUS"}, {"status"}, {"reapply", "--status"}}) {
    pf.clearInvocations();
    serviceStarts = 0;
    EXPECT_EQ(run(arguments), 7);
    EXPECT_EQ(serviceStarts, 1);
    EXPECT_EQ(out.str() + err.str(), "");
    EXPECT_EQ(pf.invocations().front(), kStatusInfo);
  }
}

// The built executable: "--version" for anyone; as an ordinary user (needs root to switch to
// one) the other modes get the exact refusal.
TEST(HelperExecutable, PrintsItsVersionForAnyoneAndRefusesOrdinaryUsers) {
  HelperCommand::Result version = HelperCommand::run(TARNLY_HELPER_PATH, {"--version", "extra"});
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.stdout + "|" + version.stderr, std::string(TARNLY_VERSION) + "\n|");

  const char* setpriv = "/usr/bin/setpriv";
  if (::getuid() != 0 || ::access(setpriv, X_OK) != 0) GTEST_SKIP() << "needs root and setpriv";
  for (const char* mode : {"--status", "--reapply"}) {
    HelperCommand::Result result = HelperCommand::run(
        setpriv, {"--reuid=65534", "--regid=65534", "--clear-groups", TARNLY_HELPER_PATH, mode});
    if (result.stderr.find("Permission denied") != std::string::npos) {
      GTEST_SKIP() << "the build folder is not reachable for uid 65534: " << result.stderr;
    }
    EXPECT_EQ(result.status, 1) << mode;
    EXPECT_EQ(result.stdout + "|" + result.stderr, "|" + kNotRoot) << mode;
  }
}

}  // namespace
