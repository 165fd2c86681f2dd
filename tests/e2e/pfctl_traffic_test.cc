// tarnly-pfctl at /sbin/pfctl of an isolated root, driven by the unmodified helper in service mode
// through the bundle's client, shown with real TCP, UDP and ICMP. The root's network namespace is
// the host: bridge100 holds 192.168.64.1/24 and fd00:64::1; a "vm" namespace sits on it at
// 192.168.64.2 and fd00:64::2, and a "lan" namespace is routed through the host at 10.77.0.2.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "e2e/isolated_root.h"

namespace {

// Echo servers, one-shot probes ("open" when the echo came back within 1.5 s) and one held
// connection answering a line per line read.
constexpr const char* kProbe = R"(import socket, sys, threading
def echo(c):
    while (data := c.recv(256)): c.sendall(data)
mode, args = sys.argv[1], sys.argv[2:]
if mode == "serve":
    tcp = args[0] == "tcp"
    s = socket.socket(socket.AF_INET, socket.SOCK_STREAM if tcp else socket.SOCK_DGRAM)
    s.bind(("0.0.0.0", int(args[1])))
    if tcp: s.listen(16)
    print("ready", flush=True)
    while True:
        if tcp: threading.Thread(target=echo, args=(s.accept()[0],), daemon=True).start()
        else: data, peer = s.recvfrom(256); s.sendto(data, peer)
try:
    if mode == "udp":
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.connect((args[0], int(args[1])))
    else:
        s = socket.create_connection((args[0], int(args[1])), timeout=1.5)
    s.settimeout(1.5)
    for _ in [0] if mode != "hold" else sys.stdin:
        s.send(b"x"); print("open" if s.recv(9) == b"x" else "cut", flush=True)
except OSError:
    print("blocked" if mode != "hold" else "cut", flush=True)
)";

// The lab and its shell functions; every wait is bounded by `read -t`, the probe's timeout or the
// client's reply. `apply FILE` and `remove` are alice's requests to the helper; /sbin/pfctl
// records each of its runs in $L/pfctl.log before it runs tarnly-pfctl.
constexpr const char* kLab = R"sh(
[ -n "${BASH_VERSION:-}" ] || exec /bin/bash "$0"
fail() { echo "lab: $*"; exit 3; }
trap 'kill $(jobs -p) 2>/dev/null' EXIT
L=/tmp/lab
mv /sbin/pfctl /sbin/pfctl.real
printf '#!/bin/sh\necho "$*" >> /tmp/lab/pfctl.log\nexec /sbin/pfctl.real "$@"\n' > /sbin/pfctl
chmod 755 /sbin/pfctl
ip link add bridge100 type bridge || fail "no bridge"
ip addr add 192.168.64.1/24 dev bridge100 && ip addr add fd00:64::1/64 dev bridge100 nodad
ip link set lo up && ip link set bridge100 up && echo 1 > /proc/sys/net/ipv4/ip_forward
ip netns add vm && ip netns add lan || fail "no named namespaces"
ip link add vmport type veth peer name eth0 netns vm && ip link set vmport master bridge100 up
ip link add lanport type veth peer name eth0 netns lan
ip addr add 10.77.0.1/24 dev lanport && ip link set lanport up
for ns in vm lan; do ip -n $ns link set lo up && ip -n $ns link set eth0 up; done
ip -n vm addr add 192.168.64.2/24 dev eth0 && ip -n vm addr add fd00:64::2/64 dev eth0 nodad
ip -n vm route add default via 192.168.64.1
ip -n lan addr add 10.77.0.2/24 dev eth0 && ip -n lan route add default via 10.77.0.1
serve() {
  mkfifo $L/$1.$2.$3; ip netns exec $1 python3 $L/probe.py serve $2 $3 > $L/$1.$2.$3 2>&1 &
  exec 9<> $L/$1.$2.$3; read -t 5 line <&9 && [ "$line" = ready ] || fail "no server $*"
  exec 9<&-
}
probe() {
  case $3 in
    icmp*) v=${3#icmp}; ip netns exec $2 ping -${v:-4} -c 1 -W 1 $4 >/dev/null && r=open || r=blocked ;;
    *) r=$(ip netns exec $2 python3 $L/probe.py $3 $4 $5) ;;
  esac
  echo "$1=$r"
}
hold() {
  mkfifo $L/in $L/out; ip netns exec $1 python3 $L/probe.py hold $2 $3 < $L/in > $L/out 2>&1 &
  exec 7<> $L/in 8<> $L/out
}
say() { echo >&7; read -t 5 line <&8 || line=cut; echo "$1=$line"; }
asks() {  # asks EXPECTED_REPLY ARGS...
  want=$1; shift; reply=$(ctl_as 501 80 "$@" | tr '\n' ' ')
  [ "$reply" = "$want exit=0 " ] || fail "$*: $reply"
}
apply() { asks '["Enforcing 1 network: Lab",null]' applyFirewallWithPolicyData:withReply: $1; }
remove() { asks '[null]' removeFirewallWithReply:; }
probes() {
  probe $1.out.tcp.default vm tcp 10.77.0.2 7000; probe $1.out.tcp.rule vm tcp 10.77.0.2 7001
  probe $1.out.udp.default vm udp 10.77.0.2 5301; probe $1.out.udp.rule vm udp 10.77.0.2 5300
  probe $1.out.icmp vm icmp 10.77.0.2; probe $1.vm.ipv6 vm icmp6 fd00:64::1
  probe $1.in.tcp.rule lan tcp 192.168.64.2 8022; probe $1.in.tcp.default lan tcp 192.168.64.2 8023
  probe $1.in.icmp lan icmp 192.168.64.2
}
serve lan tcp 7000; serve lan tcp 7001; serve lan udp 5300; serve lan udp 5301
serve vm tcp 8022; serve vm tcp 8023
start_helper
)sh";

// The network Lab on 192.168.64.0/24, as the application sends it.
std::string policy(const std::string& outbound, const std::string& rules, bool keepsIPv6) {
  return R"([{"networkID": "6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B", "name": "Lab",
  "subnetCIDR": "192.168.64.0/24", "gatewayIPv4": "192.168.64.1", "dnsProxyEnabled": false,
  "keepsIPv6": )" +
         std::string(keepsIPv6 ? "true" : "false") +
         R"(, "policy": {"enabled": true, "defaultInbound": "deny", "defaultOutbound": ")" +
         outbound + R"(", "rules": [)" + rules + "]}}]";
}

std::string rule(int n, const char* direction, const char* action, const char* proto,
                 const char* remote, const char* ports) {
  return std::string(n > 1 ? ", " : "") + R"({"id": "0A1B2C3D-4E5F-4061-8283-94A5B6C7D8E)" +
         std::to_string(n) + R"(", "enabled": true, "direction": ")" + direction +
         R"(", "action": ")" + action + R"(", "proto": ")" + proto + R"(", "remoteCIDR": ")" +
         remote + R"(", "ports": ")" + ports + R"("})";
}

// Outbound allowed but tcp 7001 and udp 5301 to the LAN; inbound tcp 8022 only; IPv6 dropped.
const std::string kFirst = policy("allow",
                                  rule(1, "outbound", "deny", "tcp", "10.77.0.0/24", "7001") +
                                      rule(2, "outbound", "deny", "udp", "10.77.0.0/24", "5301") +
                                      rule(3, "inbound", "allow", "tcp", "any", "8022"),
                                  false);
// Outbound denied but udp 5300 and icmp to the LAN; no inbound rule; IPv6 kept.
const std::string kSecond = policy("deny",
                                   rule(1, "outbound", "allow", "udp", "10.77.0.0/24", "5300") +
                                       rule(2, "outbound", "allow", "icmp", "10.77.0.2", ""),
                                   true);

// The first with tcp 8022 inbound only: the network changes while its outbound stays allowed.
const std::string kThird =
    policy("allow", rule(1, "inbound", "allow", "tcp", "any", "8022"), false);

class PfctlTraffic : public IsolatedRootTest {
 protected:
  void SetUp() override {
    IsolatedRootTest::SetUp();
    if (IsSkipped()) return;
    HelperCommand::Result probe =
        HelperCommand::run("/usr/bin/unshare", {"--net", TARNLY_PFCTL_PATH, "-si"});
    if (probe.status != 0) GTEST_SKIP() << probe.combinedOutput();
  }

  // Runs the scenario in a fresh lab; its "name=value" lines.
  static std::map<std::string, std::string> run(const std::string& scenario) {
    std::string script = std::string("mkdir -p /tmp/lab\ncat > /tmp/lab/probe.py <<'EOF'\n") +
                         kProbe + "EOF\ncat > /tmp/first.json <<'EOF'\n" + kFirst +
                         "\nEOF\ncat > /tmp/second.json <<'EOF'\n" + kSecond +
                         "\nEOF\ncat > /tmp/third.json <<'EOF'\n" + kThird + "\nEOF\n" + kLab +
                         scenario;
    HelperCommand::Result result = IsolatedRoot::run(script, TARNLY_PFCTL_PATH);
    EXPECT_EQ(result.status, 0) << result.stdout << result.stderr;
    std::map<std::string, std::string> found;
    std::istringstream lines(result.stdout);
    for (std::string line; std::getline(lines, line);) {
      size_t equals = line.find('=');
      if (equals != std::string::npos) found[line.substr(0, equals)] = line.substr(equals + 1);
    }
    return found;
  }
};

TEST_F(PfctlTraffic, PoliciesAppliedThroughTheHelperHoldForRealTraffic) {
  std::map<std::string, std::string> found = run(R"sh(
probes before
apply /tmp/first.json; probes first; hold vm 10.77.0.2 7000; say held.first
: > $L/pfctl.log; apply /tmp/second.json; say held.second; probes second
echo "kills=$(grep -- '^-k' $L/pfctl.log | tr '\n' ';')"
remove; probes removed
)sh");
  // The blocked probes of each step; every other one is open.
  const std::map<std::string, std::string> blocked = {
      {"before", ""},
      {"first", " out.tcp.rule out.udp.default in.tcp.default in.icmp vm.ipv6 "},
      {"second",
       " out.tcp.default out.tcp.rule out.udp.default in.tcp.rule in.tcp.default in.icmp "},
      {"removed", ""}};
  for (const auto& [step, closed] : blocked) {
    for (const char* probe : {"out.tcp.default", "out.tcp.rule", "out.udp.default", "out.udp.rule",
                              "out.icmp", "vm.ipv6", "in.tcp.rule", "in.tcp.default", "in.icmp"}) {
      bool shut = closed.find(std::string(" ") + probe + " ") != std::string::npos;
      EXPECT_EQ(found[step + "." + probe], shut ? "blocked" : "open") << step << "." << probe;
    }
  }
  // The apply that changes the network drops its states both ways, so the connection it now
  // denies ends at once.
  EXPECT_EQ(found["held.first"] + found["held.second"], "opencut");
  EXPECT_EQ(found["kills"], "-k 192.168.64.0/24;-k 0.0.0.0/0 -k 192.168.64.0/24;");
}

TEST_F(PfctlTraffic, SecondIdenticalApplyOnlyChecksAndAFlushedTableIsReloaded) {
  std::map<std::string, std::string> found = run(R"sh(
apply /tmp/first.json; : > $L/pfctl.log; apply /tmp/first.json
echo "unchanged=$(tr '\n' ';' < $L/pfctl.log)"
nft flush table inet tarnly_pf; probe flushed lan tcp 192.168.64.2 8023
: > $L/pfctl.log; apply /tmp/first.json; echo "loads=$(grep -c -- ' -f ' $L/pfctl.log)"
probe reloaded.default lan tcp 192.168.64.2 8023; probe reloaded.rule lan tcp 192.168.64.2 8022
)sh");
  EXPECT_EQ(found["unchanged"], "-si;-a com.apple/900.tarnly.firewall -sr;");
  EXPECT_EQ(found["flushed"] + found["loads"] + found["reloaded.default"] + found["reloaded.rule"],
            "open1blockedopen");
}

// A mid-stream packet of a killed connection creates no state, as in pf: the connection ends
// while new ones to the same place still open.
TEST_F(PfctlTraffic, StatesKilledByAChangeStayGoneUnderARuleThatStillPasses) {
  std::map<std::string, std::string> found = run(R"sh(
apply /tmp/first.json; hold vm 10.77.0.2 7000; say held.first
apply /tmp/third.json; say held.third; probe fresh vm tcp 10.77.0.2 7000
)sh");
  EXPECT_EQ(found["held.first"] + found["held.third"] + found["fresh"], "opencutopen");
}

}  // namespace
