#include "e2e/traffic_lab.h"

namespace TrafficLab {

namespace {

// The probe program: echo servers, one-shot probes and a held connection, each bounded in time.
constexpr const char* kProbe = R"(import socket, sys, threading
BOUND = 1.5
def echo(connection):
    with connection:
        while True:
            data = connection.recv(256)
            if not data:
                return
            connection.sendall(data)
mode = sys.argv[1]
if mode == "serve":
    proto, port = sys.argv[2], int(sys.argv[3])
    kind = socket.SOCK_STREAM if proto == "tcp" else socket.SOCK_DGRAM
    server = socket.socket(socket.AF_INET, kind)
    server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    server.bind(("0.0.0.0", port))
    if proto == "tcp":
        server.listen(16)
    print("ready", flush=True)
    while True:
        if proto == "tcp":
            connection, _ = server.accept()
            threading.Thread(target=echo, args=(connection,), daemon=True).start()
        else:
            data, peer = server.recvfrom(256)
            server.sendto(data, peer)
elif mode in ("tcp", "udp"):
    host, port = sys.argv[2], int(sys.argv[3])
    try:
        if mode == "tcp":
            s = socket.create_connection((host, port), timeout=BOUND)
        else:
            s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            s.settimeout(BOUND)
            s.connect((host, port))
        s.send(b"hello")
        print("open" if s.recv(256) == b"hello" else "blocked")
    except OSError:
        print("blocked")
elif mode == "hold":
    host, port = sys.argv[2], int(sys.argv[3])
    s = socket.create_connection((host, port), timeout=BOUND)
    print("connected", flush=True)
    for line in sys.stdin:
        try:
            s.send(b"again")
            print("open" if s.recv(256) == b"again" else "cut", flush=True)
        except OSError:
            print("cut", flush=True)
)";

// Shell functions over the probe; every wait is bounded by `read -t` or the probe's own bound.
constexpr const char* kFunctions = R"(
fail() { echo "lab: $*"; exit 3; }
trap 'kill $(jobs -p) 2>/dev/null' EXIT
ip link add bridge100 type bridge || fail "no bridge"
ip addr add 192.168.64.1/24 dev bridge100 && ip addr add fd00:64::1/64 dev bridge100 nodad
ip link set lo up && ip link set bridge100 up
echo 1 > /proc/sys/net/ipv4/ip_forward
ip netns add vm || fail "no named namespaces"
ip netns add lan
ip link add vmport type veth peer name eth0 netns vm || fail "no veth"
ip link set vmport master bridge100 up
ip -n vm link set lo up && ip -n vm link set eth0 up
ip -n vm addr add 192.168.64.2/24 dev eth0 && ip -n vm addr add fd00:64::2/64 dev eth0 nodad
ip -n vm route add default via 192.168.64.1
ip link add lanport type veth peer name eth0 netns lan
ip addr add 10.77.0.1/24 dev lanport && ip link set lanport up
ip -n lan link set lo up && ip -n lan link set eth0 up
ip -n lan addr add 10.77.0.2/24 dev eth0 && ip -n lan route add default via 10.77.0.1
LAB=/tmp/lab; mkdir -p $LAB
H=$HELPER
STORE='/Library/Application Support/Tarnly'
mkdir -p "$STORE"
serve() {
  f=$LAB/ready.$1.$2.$3; mkfifo $f
  ip netns exec "$1" python3 $LAB/probe.py serve "$2" "$3" > $f 2> $f.err &
  exec 9<> $f
  read -t 5 line <&9 && [ "$line" = ready ] || fail "server $1 $2 $3 never listened"
  exec 9<&-
}
probe() {
  case $3 in
    icmp) ip netns exec "$2" ping -c 1 -W 1 "$4" > /dev/null 2>&1 && r=open || r=blocked ;;
    icmp6) ip netns exec "$2" ping -6 -c 1 -W 1 "$4" > /dev/null 2>&1 && r=open || r=blocked ;;
    *) r=$(ip netns exec "$2" python3 $LAB/probe.py "$3" "$4" "$5") ;;
  esac
  echo "$1=$r"
}
hold() {
  rm -f $LAB/hold.in $LAB/hold.out && mkfifo $LAB/hold.in $LAB/hold.out
  ip netns exec "$1" python3 -u $LAB/probe.py hold "$2" "$3" < $LAB/hold.in > $LAB/hold.out 2> /dev/null &
  exec 7<> $LAB/hold.in 8<> $LAB/hold.out
  read -t 5 line <&8 && [ "$line" = connected ] || fail "held connection never opened"
}
say() {
  echo >&7
  read -t 5 line <&8 || line=cut
  echo "$1=$line"
}
unhold() { exec 7>&- 8<&-; }
apply_store() { cp "$1" "$STORE/firewall-policies.json" && $H --reapply; }
kill_states() { /sbin/pfctl -k "$1" 2>/dev/null; /sbin/pfctl -k 0.0.0.0/0 -k "$1" 2>/dev/null; }
remove_all() {
  rm -f "$STORE/firewall-policies.json" "$STORE/firewall.pf.conf" "$STORE/firewall-loaded.json"
  /sbin/pfctl -a com.apple/900.tarnly.firewall -F rules 2>/dev/null
}
)";

}  // namespace

std::string prelude() {
  // The functions need bash (read -t, fifos on descriptors).
  return std::string("[ -n \"${BASH_VERSION:-}\" ] || exec /bin/bash \"$0\"\nHELPER='") +
         TARNLY_HELPER_PATH + "'\nmkdir -p /tmp/lab\ncat > /tmp/lab/probe.py <<'EOF'\n" + kProbe +
         "EOF\n" + kFunctions;
}

std::string store(const std::string& defaults, const std::string& rules, bool keepsIPv6) {
  return std::string(R"({"owners": {"501": {"appliedAt": 815000000.5, "policies": [{
  "networkID": "6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B", "name": "Lab",
  "subnetCIDR": "192.168.64.0/24", "gatewayIPv4": "192.168.64.1", "dnsProxyEnabled": false,
  "keepsIPv6": )") +
         (keepsIPv6 ? "true" : "false") + R"(, "policy": {"enabled": true, )" + defaults +
         R"(, "rules": )" + rules + "}}]}}}";
}

}  // namespace TrafficLab
