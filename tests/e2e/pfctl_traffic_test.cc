// tarnly-pfctl at /sbin/pfctl of an isolated root, driven by the helper, shown with real traffic.
// The root is the host: bridge100 holds 192.168.64.1/24 and fd00:64::1, a "vm" namespace on it is
// 192.168.64.2 and fd00:64::2, a "lan" one routed through is 10.77.0.2.
#include <gtest/gtest.h>

#include <string>

#include "e2e/isolated_root.h"

namespace {

// Echo servers, one-shot probes ("open" when the echo comes back within 1.5 s), held connections.
constexpr const char* kProbe = R"(import socket, sys, threading
def echo(c):
    while (data := c.recv(256)): c.sendall(data)
mode, host, port = sys.argv[1], sys.argv[2], int(sys.argv[3])
if mode == "serve":
    s = socket.create_server(("", port)) if host == "tcp" else socket.socket(type=socket.SOCK_DGRAM)
    if host == "udp": s.bind(("", port))
    print("ready", flush=True)
    while True:
        if host == "tcp": threading.Thread(target=echo, args=(s.accept()[0],), daemon=True).start()
        else: data, peer = s.recvfrom(256); s.sendto(data, peer)
try:
    if mode == "udp": s = socket.socket(type=socket.SOCK_DGRAM); s.connect((host, port))
    else: s = socket.create_connection((host, port), timeout=1.5)
    s.settimeout(1.5)
    for _ in [0] if mode != "hold" else sys.stdin:
        s.send(b"x"); print("open" if s.recv(9) == b"x" else "cut", flush=True)
except OSError:
    print("blocked" if mode != "hold" else "cut", flush=True)
)";

// The lab and the scenario; every wait is bounded by `read -t`, the probe's timeout or the client's
// reply. `apply` and `remove` are alice's requests; /sbin/pfctl logs its runs to $L/pfctl.log.
constexpr const char* kLab = R"sh(
[ -n "${BASH_VERSION:-}" ] || exec /bin/bash "$0"
L=/tmp/lab; trap 'kill $(jobs -p) 2>/dev/null' EXIT; fail() { echo "lab: $*"; exit 3; }
mv /sbin/pfctl /sbin/pfctl.real; printf '#!/bin/sh\necho "$*" >> /tmp/lab/pfctl.log\nexec /sbin/pfctl.real "$@"\n' | install /dev/stdin /sbin/pfctl
ip link add bridge100 type bridge || fail "no bridge"; ip link set lo up && ip link set bridge100 up
ip addr add 192.168.64.1/24 dev bridge100 && ip addr add fd00:64::1/64 dev bridge100 nodad && echo 1 > /proc/sys/net/ipv4/ip_forward
ip netns add vm && ip netns add lan || fail "no named namespaces"
ip link add vmport type veth peer name eth0 netns vm && ip link set vmport master bridge100 up
ip link add lanport type veth peer name eth0 netns lan && ip addr add 10.77.0.1/24 dev lanport && ip link set lanport up
for ns in vm lan; do ip -n $ns link set lo up && ip -n $ns link set eth0 up; done
ip -n vm addr add 192.168.64.2/24 dev eth0 && ip -n vm addr add fd00:64::2/64 dev eth0 nodad && ip -n vm route add default via 192.168.64.1
ip -n lan addr add 10.77.0.2/24 dev eth0 && ip -n lan route add default via 10.77.0.1
serve() { mkfifo $L/$1.$2.$3; ip netns exec $1 python3 $L/probe.py serve $2 $3 > $L/$1.$2.$3 2>&1 &
  exec 9<> $L/$1.$2.$3; read -t 5 line <&9 && [ "$line" = ready ] || fail "no server $*"; exec 9<&-; }
probe() {  # probe NAMESPACE tcp|udp|icmp4|icmp6 ADDRESS [PORT]: open or blocked
  case $2 in icmp*) ip netns exec $1 ping -${2#icmp} -c 1 -W 1 $3 >/dev/null && echo open || echo blocked ;;
    *) ip netns exec $1 python3 $L/probe.py $2 $3 $4 ;; esac; }
# Out from the vm: tcp default, tcp rule, udp default, udp rule, icmp, IPv6 to the gateway; in
# from the lan: tcp rule, tcp default, icmp.
probes() { echo "$1: $(probe vm tcp 10.77.0.2 7000) $(probe vm tcp 10.77.0.2 7001) $(probe vm udp 10.77.0.2 5301)" \
  "$(probe vm udp 10.77.0.2 5300) $(probe vm icmp4 10.77.0.2) $(probe vm icmp6 fd00:64::1)" \
  "$(probe lan tcp 192.168.64.2 8022) $(probe lan tcp 192.168.64.2 8023) $(probe lan icmp4 192.168.64.2)"; }
hold() {  # a connection from the vm to the lan's tcp 7000 that answers at each `say`
  rm -f $L/in $L/out; mkfifo $L/in $L/out; exec 7<> $L/in 8<> $L/out
  ip netns exec vm python3 $L/probe.py hold 10.77.0.2 7000 < $L/in > $L/out 2>&1 & }
say() { echo >&7; read -t 5 line <&8 || line=cut; echo $line; }
policy() {  # policy NAME OUTBOUND KEEPS_IPV6 "DIRECTION ACTION PROTO REMOTE [PORTS]"...
  name=$1 outbound=$2 v6=$3 n=0 rules=; shift 3
  for rule; do set -- $rule; n=$((n + 1)); rules="$rules${rules:+,}{\"id\":\"0A1B2C3D-4E5F-4061-8283-94A5B6C7D8E$n\",\"enabled\":true,
\"direction\":\"$1\",\"action\":\"$2\",\"proto\":\"$3\",\"remoteCIDR\":\"$4\",\"ports\":\"${5:-}\"}"; done
  printf '[{"networkID":"6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B","name":"Lab","subnetCIDR":"192.168.64.0/24","gatewayIPv4":"192.168.64.1",
"dnsProxyEnabled":false,"keepsIPv6":%s,"policy":{"enabled":true,"defaultInbound":"deny","defaultOutbound":"%s","rules":[%s]}}]' $v6 $outbound "$rules" > /tmp/$name; }
asks() { want=$1; shift; reply=$(ctl_as 501 80 "$@"); [ "$reply" = "$want" ] || fail "$*: $reply"; }
apply() { asks '["Enforcing 1 network: Lab",null]' applyFirewallWithPolicyData:withReply: /tmp/$1; }
remove() { asks '[null]' removeFirewallWithReply:; }
# first: outbound allowed but tcp 7001 and udp 5301 to the LAN; inbound tcp 8022; IPv6 dropped.
# second: outbound denied but udp 5300 and icmp to the LAN; no inbound rule; IPv6 kept.
# third: first's defaults with only tcp 8022 in, a change that keeps outbound allowed.
policy first allow false "outbound deny tcp 10.77.0.0/24 7001" "outbound deny udp 10.77.0.0/24 5301" "inbound allow tcp any 8022"
policy second deny true "outbound allow udp 10.77.0.0/24 5300" "outbound allow icmp 10.77.0.2"
policy third allow false "inbound allow tcp any 8022"
for s in "lan tcp 7000" "lan tcp 7001" "lan udp 5300" "lan udp 5301" "vm tcp 8022" "vm tcp 8023"; do serve $s; done
start_helper
probes before
apply first; probes first; hold; a=$(say); apply second; echo "held: $a $(say)"
probes second; remove; probes removed
apply first; : > $L/pfctl.log; apply first; echo "unchanged: $(tr '\n' ';' < $L/pfctl.log)"
nft flush table inet tarnly_pf; a=$(probe lan tcp 192.168.64.2 8023); : > $L/pfctl.log
apply first; echo "reload: $a $(grep -c -- ' -f ' $L/pfctl.log) $(probe lan tcp 192.168.64.2 8023) $(probe lan tcp 192.168.64.2 8022)"
hold; a=$(say); apply third; echo "third: $a $(say) $(probe vm tcp 10.77.0.2 7000)"
)sh";

using PfctlTraffic = IsolatedRootTest;

TEST_F(PfctlTraffic, PoliciesAppliedThroughTheHelperHoldForRealTraffic) {
  HelperCommand::Result nft =
      HelperCommand::run("/usr/bin/unshare", {"--net", TARNLY_PFCTL_PATH, "-si"});
  if (nft.status != 0) GTEST_SKIP() << nft.combinedOutput();
  HelperCommand::Result result = runIn(
      std::string("mkdir -p /tmp/lab\ncat > /tmp/lab/probe.py <<'EOF'\n") + kProbe + "EOF\n" + kLab,
      TARNLY_PFCTL_PATH);
  // An apply that changes the network drops its states both ways: the connection it now denies
  // ends at once, and so does one a rule still passes (its mid-stream packets create no state, as
  // in pf) while new ones open. An identical apply only checks; a flushed table is reloaded.
  EXPECT_EQ(result.stdout, R"(before: open open open open open open open open open
first: open blocked blocked open open blocked open blocked blocked
held: open cut
second: blocked blocked blocked open open open blocked blocked blocked
removed: open open open open open open open open open
unchanged: -si;-a com.apple/900.tarnly.firewall -sr;
reload: open 1 blocked open
third: open cut open
)") << result.stderr;
  EXPECT_EQ(result.status, 0);
}

}  // namespace
