// The unmodified helper in isolated roots: its command-line modes and its service's methods.
#include <gtest/gtest.h>

#include <string>

#include "e2e/isolated_root.h"
#include "support/user_mode_linux.h"

namespace {

const std::string kVersion = std::string("[\"") + TARNLY_VERSION + "\"]\n";
const std::string kRefusal =
    "Only an administrator of this Mac can make this change through Tarnly's helper.";

// Shell lines: `net UID N` makes bridge<N+36> holding 192.168.N.1/24 and /tmp/policy-UID.json with
// one network NetUID on 192.168.N.0/24; `anchor N...` tells whether it is in the firewall's anchor.
const std::string kNetworks = R"sh(S='/Library/Application Support/Tarnly'; mkdir -p "$S"
net() { ip link add bridge$(($2 + 36)) type bridge && ip addr add 192.168.$2.1/24 dev bridge$(($2 + 36))
  printf '[{"networkID":"6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A%s","name":"Net%s","subnetCIDR":"192.168.%s.0/24","gatewayIPv4":
  "192.168.%s.1","dnsProxyEnabled":true,"policy":{"enabled":true,"defaultInbound":"deny","defaultOutbound":"allow","rules":[]}}]' \
  $2 $1 $2 $2 > /tmp/policy-$1.json; }
anchor() { for n; do pfctl -a com.apple/900.tarnly.firewall -sr | grep -q 192.168.$n.0/24 && echo "$n on" || echo "$n off"; done; }
)sh";

using ServiceEndToEnd = IsolatedRootTest;

TEST_F(ServiceEndToEnd, ModesLifecycleHostAndUninstall) {
  std::string out =
      run(kNetworks + R"sh(net 501 64; NB='setpriv --reuid=65534 --regid=65534 --clear-groups'
rmdir "$S"; $NB $HELPER --version; $NB $HELPER --status 2>&1; echo "status=$?"; $NB $HELPER 2>/dev/null
echo "service=$?"; $HELPER --reapply; echo "reapply=$?, $(ls $LOG "$S" /var/lib/pfsim 2>/dev/null | wc -l) written"; mkdir "$S"
printf '{"owners": {"501": {"appliedAt": 815000000.5, "policies": %s}}}' "$(cat /tmp/policy-501.json)" > "$S/firewall-policies.json"
$HELPER --reapply && $HELPER --reapply && log_lines; anchor 64
$HELPER --status | grep -A1 -x '== \(pf status\|subnet owners\) ==' | sed '/^--$/d; s/ for .*//'
O=/opt/Other.app/Contents/MacOS/Tarnly; install -D $CTL $O; start_helper  # a copy outside the bundle
$O setTarnlyResolverWithEnabled:withReply: true 2>&1; echo "exit=$?"; ls /etc/resolver 2>/dev/null || echo 'no resolver'
ctl_as 65534 65534 shutdownForUpgradeWithReply:; ctl helperVersionWithReply:
ctl shutdownForUpgradeWithReply:; (sleep 20; kill -9 $HELPER_PID) >/dev/null 2>&1 & watchdog=$!
wait $HELPER_PID; echo "helper exit=$?"; HELPER_PID=; kill $watchdog; start_helper; log_lines | grep -c '^Boot re-apply'
for f in Helpers/tarnly-cli Resources/completions/_tarnly Resources/completions/tarnly.fish; do install -D /dev/null $C/$f; done
links() { find /usr/local -type l -lname "$C/*" | sort | xargs -r readlink | sed "s|$C/||" | tr '\n' ';'; echo; }
ctl installCLISymlinkWithReply:; links; ctl setTarnlyResolverWithEnabled:withReply: true
ctl_as 65534 65534 setTarnlyResolverWithEnabled:withReply: false; log_lines | grep -c ^Refused
ls /etc/resolver; ctl setTarnlyResolverWithEnabled:withReply: false; ctl removeCLISymlinkWithReply:
ls /etc/resolver; links
printf 'bridge100: flags=8a63<UP> mtu 1500\n\tmember: vmenet0 flags=3<LEARNING>\nvmenet0: flags=8963<UP> mtu 1500\nvmenet1: flags=8963<UP> mtu 1500\n' \
  > /var/lib/fakes/ifconfig-a.txt  # vmenet0 is a member of bridge100; vmenet1 is in no bridge
ctl pruneStaleVMInterfacesWithReply:; ctl pruneStaleVMInterfacesWithReply:; grep destroy /var/lib/fakes/ifconfig.calls
ctl removeFilesForUninstallWithReply:; ls "$S"; ls $LOG 2>/dev/null || echo 'no log'
)sh");
  // Not as root: nothing written. The boot re-apply runs after --reapply, and at each start: an
  // administrator's shutdown ends the helper with status 0 and the next start re-applies. The copy
  // of the client outside the bundle is disconnected before any method runs. The firewall another
  // account uses stays.
  EXPECT_EQ(out, std::string(TARNLY_VERSION) +
                     "\nTarnlyAdminHelper must run as root (launchd LaunchDaemon).\nstatus=1\n"
                     "service=1\nreapply=0, 0 written\nApplied firewall. Enforcing 1 network for "
                     "all users: Net501 - IPv6 dropped on bridge100\nBoot re-apply: Enforcing 1 "
                     "network for all users: Net501\nBoot re-apply: pf already runs these rules; "
                     "nothing reloaded. Enforcing 1 network for all users: Net501\n64 on\n== pf "
                     "status ==\nStatus: Enabled\n== subnet owners ==\n192.168.64.0/24 501\n"
                     "tarnly-helperctl: the helper closed the connection without a reply\nexit=1\n"
                     "no resolver\n[]\n" +
                     kVersion +
                     "[]\nhelper exit=0\n4\n[null]\nHelpers/tarnly-cli;Helpers/tarnly-cli;"
                     "Resources/completions/tarnly.fish;Resources/completions/tarnly.fish;"
                     "Resources/completions/_tarnly;\n[null]\n[\"" +
                     kRefusal +
                     "\"]\n2\ntarnly\ntqz\n[null]\n[null]\n\n[\"1 vmnet interface(s) in no bridge "
                     "for now; destroyed if still so at the next scan.\",null]\n[\"Destroyed 1 of "
                     "1 stale vmnet interface(s) (1 in use).\",null]\nvmenet1 destroy\n[\"firewall "
                     "rules another account on this Mac still uses\",null]\nfirewall-loaded.json\n"
                     "firewall-policies.json\nfirewall.pf.conf\nno log\n");
}

#ifdef TARNLY_SANITIZED
const std::string kPeak = "PEAK=1048576\n";  // sanitizers keep freed memory in quarantine
#else
const std::string kPeak = "PEAK=196608\n";  // 64 MiB of frames, 20 MiB of small ones, the rest
#endif

TEST_F(ServiceEndToEnd, FirewallForTwoUsersAFullFolderManyClientsAndTheTransportsBounds) {
  std::string out = run(kPeak + kNetworks + R"sh(net 0 64; net 501 65; net 502 66
mount -t tmpfs -o size=64k tmpfs "$S"; start_helper
apply() { ctl_as $1 $2 applyFirewallWithPolicyData:withReply: /tmp/policy-${3:-$1}.json; }
apply 501 80; apply 502 502; apply 65534 65534 501; ctl_as 65534 65534 helperVersionWithReply:
log_lines | grep -c ^Refused; ctl firewallReportWithReply: | grep -o 'Status: Enabled\|== subnet owners ==.*'
ctl_as 501 80 removeFirewallWithReply:; anchor 65 66
cp "$S/firewall-policies.json" /tmp/store; dd if=/dev/zero of="$S/fill" bs=4k 2>/dev/null
apply 501 80; cmp "$S/firewall-policies.json" /tmp/store && echo 'same store'
ls -a "$S" | grep -c tmp-; anchor 65 66; rm "$S/fill"; apply 501 80
for i in $(seq 40); do case $((i % 4)) in 0) apply 501 80 ;; 1) apply 502 502 ;;
  2) ctl helperVersionWithReply: ;; 3) ctl createdVLANsWithReply: ;; esac > /tmp/client.$i &
  pids="${pids:-} $!"; done; wait $pids; cat /tmp/client.* | LC_ALL=C sort | uniq -c | sed 's/^ *//'
$DRIVER 1000 200 && kill -0 $HELPER_PID && echo 'helper alive'
log_lines | grep -c '^Refused a connection'; awk '/VmHWM/ { print $2 < '$PEAK' ? "peak bounded" : $0 }' /proc/$HELPER_PID/status
)sh");
  auto more = [](const std::string& net) {
    return "[\"Enforcing 1 network: " + net + " - 1 more for other users of this Mac\",null]\n";
  };
  // The refused apply logs one line, the version none. A failed write keeps the previous store and
  // firewall and leaves no temporary file. Connections over the limit are refused; 4 frames fill
  // the budget, the rest hear busy.
  EXPECT_EQ(out, "[\"Enforcing 1 network: Net501\",null]\n" + more("Net502") + "[null,\"" +
                     kRefusal + "\"]\n" + kVersion +
                     "1\nStatus: Enabled\n== subnet owners ==\\n192.168.65.0/24 501\\n"
                     "192.168.66.0/24 502\",null]\n[null]\n65 off\n66 on\n[null,\"Could not write "
                     "/Library/Application Support/Tarnly/firewall.pf.conf: No space left on "
                     "device.\"]\nsame store\n0\n65 off\n66 on\n" +
                     more("Net501") + "10 " + kVersion + "10 " + more("Net501") + "10 " +
                     more("Net502") +
                     "10 [\"W10=\",null]\nidle: 1000 kept, 3 over the limit refused\nflood: 200 "
                     "half frames of 16 MiB: 4 held, 196 refused as busy, 0 other\nhelper "
                     "alive\n1\npeak bounded\n");
}

// On this kernel; where it has no 802.1Q VLAN links, once more on user-mode Linux's, which has.
TEST_F(ServiceEndToEnd, VLANsAreMadeListedDeletedAndRefusedThroughTheSocket) {
  const std::string script = R"sh(ip link add veth0 type veth peer name veth1
ip link add link veth1 name probe0 type vlan id 9 2>/dev/null && ip link del probe0 && echo yes || echo no
start_helper; ctl createdVLANsWithReply:
ctl_as 65534 65534 createVLANWithName:tag:parentBSD:withReply: Lab 5 veth0
ctl createVLANWithName:tag:parentBSD:withReply: Lab 5 en9; ctl deleteVLANWithBsdName:withReply: vlan7
log_lines | grep -c ^Refused; ctl createVLANWithName:tag:parentBSD:withReply: ' Lab ' 5 veth0
ctl createdVLANsWithReply: | cut -d'"' -f2 | base64 -d; echo
ip -d -o link show type vlan | sed 's/^[0-9]*: \([^:]*\):.* 802.1Q id \([0-9]*\) .*/\1 tag \2/'
ctl deleteVLANWithBsdName:withReply: vlan0; ip -o link show type vlan | wc -l
)sh";
  const std::string refused = "[\"W10=\",null]\n[null,\"" + kRefusal +
                              "\"]\n[null,\"No physical interface named en9.\"]\n"
                              "[\"No VLAN interface named vlan7.\"]\n1\n";
  std::string out = run(script);
  if (out.starts_with("no\n")) {
    // The kernel refuses the link when the change is carried out: nothing is recorded.
    EXPECT_EQ(out, "no\n" + refused +
                       "[null,\"Could not save the network configuration.\"]\n[]\n"
                       "[\"No VLAN interface named vlan0.\"]\n0\n");
    HelperCommand::Result onUML;
    std::string noUML = UserModeLinux::unavailableReason();
    if (noUML.empty())
      onUML = runIn(script, TARNLY_PFSIM_PATH, UserModeLinux::launcher({"8021q", "veth"}));
    if (noUML.empty()) noUML = UserModeLinux::failure(onUML.status, onUML.stderr);
    if (!noUML.empty())
      GTEST_SKIP() << "this kernel has no 802.1Q VLAN links (CONFIG_VLAN_8021Q); " << noUML;
    EXPECT_EQ(onUML.status, 0) << onUML.stderr;
    out = onUML.stdout;
  }
  EXPECT_EQ(out, "yes\n" + refused +
                     "[\"vlan0\",null]\n[{\"bsdName\":\"vlan0\",\"tag\":5,\"parentBSD\":"
                     "\"veth0\",\"name\":\"Lab\"}]\nvlan0@veth0 tag 5\n[null]\n0\n");
}

}  // namespace
