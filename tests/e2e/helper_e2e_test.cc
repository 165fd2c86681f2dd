// The unmodified helper binary with its real fixed paths, in an isolated root with the pf
// simulator at /sbin/pfctl.
#include <gtest/gtest.h>

#include "e2e/isolated_root.h"
#include "platform/files.h"

namespace {

constexpr const char* kStateFolder = "/Library/Application Support/Tarnly";

// A store with one owner (uid 501) and one network, Lab on 192.168.64.0/24.
constexpr const char* kStore = R"({"owners": {"501": {"appliedAt": 815000000.5, "policies": [{
  "networkID": "6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B", "name": "Lab",
  "subnetCIDR": "192.168.64.0/24", "gatewayIPv4": "192.168.64.1", "dnsProxyEnabled": true,
  "policy": {"enabled": true, "defaultInbound": "deny", "defaultOutbound": "allow", "rules": [
    {"id": "0A1B2C3D-4E5F-4061-8283-94A5B6C7D8E9", "enabled": true, "direction": "inbound",
     "action": "allow", "proto": "tcp", "remoteCIDR": "any", "ports": "22"}]}}]}}})";

class HelperEndToEnd : public IsolatedRootTest {
 protected:
  void SetUp() override {
    IsolatedRootTest::SetUp();
    if (IsSkipped()) return;
    hostHadState_ = pathExists(kStateFolder);
  }
  void TearDown() override {
    // Whatever the helper wrote stayed inside the isolated root.
    if (!IsSkipped()) {
      EXPECT_EQ(pathExists(kStateFolder), hostHadState_);
    }
  }

  static std::string helper() { return std::string("'") + TARNLY_HELPER_PATH + "'"; }

  bool hostHadState_ = false;
};

TEST_F(HelperEndToEnd, ReapplyLoadsTheStoredPolicyOnceAndStatusReportsIt) {
  // The network's gateway sits on bridge100 of this namespace, as on a Mac running the VM.
  std::string script =
      "H=" + helper() +
      "\nip link add bridge100 type bridge && ip addr add 192.168.64.1/24 dev bridge100"
      "\nmkdir -p '" +
      kStateFolder + "'\ncat > '" + kStateFolder + "/firewall-policies.json' <<'EOF'\n" + kStore +
      "\nEOF\n"
      "$H --reapply; echo \"first=$?\"\n"
      "$H --reapply; echo \"second=$?\"\n"
      "echo '-- log'; cut -d' ' -f2- /var/log/tarnly-adminhelper.log\n"
      "echo '-- modes'; cd '" +
      kStateFolder +
      "' && stat -c '%a %n' firewall.pf.conf firewall-loaded.json\n"
      "echo '-- listing'; /sbin/pfctl -a com.apple/900.tarnly.firewall -sr\n"
      "echo '-- status'; $H --status\n";
  HelperCommand::Result result = IsolatedRoot::run(script);
  ASSERT_EQ(result.status, 0) << result.stdout << result.stderr;
  const std::string& out = result.stdout;
  EXPECT_NE(out.find("first=0\nsecond=0\n"), std::string::npos) << out;
  EXPECT_NE(out.find("-- log\n"
                     "Applied firewall. Enforcing 1 network for all users: Lab - IPv6 dropped on "
                     "bridge100\n"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("Boot re-apply: Enforcing 1 network for all users: Lab\n"), std::string::npos)
      << out;
  EXPECT_NE(out.find("Boot re-apply: pf already runs these rules; nothing reloaded. "
                     "Enforcing 1 network for all users: Lab\n"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("-- modes\n644 firewall.pf.conf\n600 firewall-loaded.json\n"),
            std::string::npos)
      << out;
  EXPECT_NE(
      out.find("pass out quick proto tcp from any to 192.168.64.0/24 port = 22 flags S/SA keep "
               "state\n"),
      std::string::npos)
      << out;
  EXPECT_NE(out.find("== pf status ==\nStatus: Enabled"), std::string::npos) << out;
  EXPECT_NE(out.find("== subnet owners ==\n192.168.64.0/24 501\n"), std::string::npos) << out;
}

TEST_F(HelperEndToEnd, ReapplyWithoutAStoreTouchesNothing) {
  std::string script = "H=" + helper() +
                       "\n$H --reapply; echo \"status=$?\"\n"
                       "ls /var/log/tarnly-adminhelper.log 2>/dev/null || echo 'no log'\n"
                       "ls /var/lib/pfsim/invocations* 2>/dev/null || echo 'pfctl never ran'\n";
  HelperCommand::Result result = IsolatedRoot::run(script);
  ASSERT_EQ(result.status, 0) << result.stderr;
  EXPECT_EQ(result.stdout, "status=0\nno log\npfctl never ran\n");
}

TEST_F(HelperEndToEnd, OrdinaryUserGetsTheVersionButNoOtherMode) {
  std::string script =
      "H=" + helper() +
      "\nAS='setpriv --reuid=65534 --regid=65534 --clear-groups'\n"
      "$AS $H --version; echo \"version=$?\"\n"
      "$AS $H --status 2>/tmp/err; echo \"status=$?\"; wc -c < /tmp/err; cat /tmp/err\n"
      "$AS $H 2>/dev/null; echo \"service=$?\"\n"
      "ls /var/log/tarnly-adminhelper.log 2>/dev/null || echo 'no log'\n";
  HelperCommand::Result result = IsolatedRoot::run(script);
  ASSERT_EQ(result.status, 0) << result.stderr;
  EXPECT_EQ(result.stdout, std::string(TARNLY_VERSION) +
                               "\nversion=0\nstatus=1\n59\n"
                               "TarnlyAdminHelper must run as root (launchd LaunchDaemon).\n"
                               "service=1\nno log\n");
}

}  // namespace
