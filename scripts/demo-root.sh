#!/usr/bin/env bash
# The demo's session: runs the built helper, unmodified, as the service of a stand-in Mac and
# drives it through the bundle's client the way the application does, saying what each step does
# and showing the exact replies. The Mac is an isolated root: a private mount, network and PID
# namespace, an overlay of "/" whose changes live on a tmpfs, and a chroot into it. Nothing
# outside those namespaces changes, and every process started here ends with them (also on
# Ctrl-C or failure). Exit status 0 when every step behaved as expected, 1 otherwise, 77 where
# the demo cannot run (not root, no namespaces).
# Usage (as root): scripts/demo-root.sh BUILD_DIR
set -euo pipefail

# ---------------------------------------------------------------------------------------------
# Stage 1, on the host: check, then run stage 2 in fresh namespaces.
if [ "${1:-}" != --inside ] && [ "${1:-}" != --session ]; then
  build=$(cd "${1:?usage: scripts/demo-root.sh BUILD_DIR}" && pwd)
  for program in TarnlyAdminHelper tarnly-helperctl tarnly-pfctl tarnly-pfsim; do
    if [ ! -x "$build/$program" ]; then
      echo "demo: $build/$program is missing; build it first (scripts/demo.sh does)." >&2
      exit 1
    fi
  done
  # 77: this machine cannot run the demo (ctest counts it as skipped).
  if [ "$(id -u)" -ne 0 ]; then
    echo "demo: the helper runs as root in namespaces of its own; run the demo as root." >&2
    exit 77
  fi
  if ! reason=$(unshare --mount --net --pid --fork /bin/true 2>&1); then
    echo "demo: no mount, network and PID namespaces here: $reason" >&2
    exit 77
  fi
  # The only trace on the host is this empty folder, removed again on the way out.
  top=$(mktemp -d /tmp/tarnly-demo-XXXXXX)
  trap 'rmdir "$top" 2> /dev/null || true' EXIT
  # The PID namespace ends every process of the demo with its first one, which --kill-child ends
  # with unshare: killing unshare on Ctrl-C or TERM takes everything down.
  unshare --mount --net --pid --fork --kill-child --mount-proc --propagation private \
    /bin/bash "$0" --inside "$top" "$build" < /dev/null &
  session=$!
  trap 'kill -KILL $session 2> /dev/null; { wait $session; } 2> /dev/null; echo; echo "demo: interrupted; the stand-in Mac is gone with its namespaces." >&2; exit 130' INT TERM
  set +e
  wait $session
  exit $?
fi

# ---------------------------------------------------------------------------------------------
# Stage 2, in the new namespaces: build the stand-in Mac and chroot into it.
if [ "$1" = --inside ]; then
  top=$2 build=$3
  trap 'echo "demo: could not build the stand-in Mac (line $LINENO failed)." >&2' ERR
  mount -t tmpfs -o mode=0700 tmpfs "$top"
  mkdir -p "$top/upper" "$top/work" "$top/root"
  if ! mount -t overlay overlay -o "lowerdir=/,upperdir=$top/upper,workdir=$top/work" "$top/root"; then
    echo "demo: this kernel cannot put an overlay over /, which the stand-in Mac needs." >&2
    exit 1
  fi
  root=$top/root
  for fs in proc sys; do mount --bind "/$fs" "$root/$fs"; done
  # A /dev of its own: the host's device files bound one by one, so nothing inside can replace them.
  mount -t tmpfs -o mode=0755 tmpfs "$root/dev" && mkdir -m 1777 "$root/dev/shm"
  ln -s /proc/self/fd "$root/dev/fd" && ln -s fd/0 "$root/dev/stdin" && ln -s fd/1 "$root/dev/stdout" && ln -s fd/2 "$root/dev/stderr"
  for d in null zero full random urandom tty; do
    touch "$root/dev/$d" && mount --bind "/dev/$d" "$root/dev/$d"
  done
  # A Mac's /run starts empty: no sessions, no sockets, no named network namespaces.
  mount -t tmpfs -o mode=0755 tmpfs "$root/run"

  # The bundle, root-owned and writable by no one else all the way up, as /Applications is.
  app=$root/Applications/Tarnly.app/Contents
  install -d -m 0755 "$app/Helpers" "$app/MacOS" "$app/Resources/completions"
  install -m 0755 "$build/TarnlyAdminHelper" "$app/Helpers/TarnlyAdminHelper"
  install -m 0755 "$build/tarnly-helperctl" "$app/MacOS/Tarnly"
  # The application's command-line tool and its completions, small stand-ins to link.
  printf '#!/bin/sh\necho "tarnly (the bundle'"'"'s command-line tool) $*"\n' > "$app/Helpers/tarnly-cli"
  chmod 0755 "$app/Helpers/tarnly-cli"
  printf '#compdef tarnly tqz\n_arguments "1: :(list start stop)"\n' > "$app/Resources/completions/_tarnly"
  printf 'complete -c tarnly -a "list start stop"\n' > "$app/Resources/completions/tarnly.fish"
  chmod 0644 "$app/Resources/completions/"*

  # pf: the nftables front end where this kernel has nf_tables, else the simulator.
  install -d -m 0755 "$root/sbin" "$root/usr/bin" "$root/var/lib/fakes" "$root/demo"
  if "$build/tarnly-pfctl" -si > /dev/null 2>&1; then
    install -m 0755 "$build/tarnly-pfctl" "$root/sbin/pfctl"
    echo nftables > "$root/demo/pf"
  else
    install -m 0755 "$build/tarnly-pfsim" "$root/sbin/pfctl"
    echo simulator > "$root/demo/pf"
  fi
  # ifconfig and pgrep answer as on a Mac: the listing is a file, destroy drops its block.
  cat > "$root/sbin/ifconfig" <<'FAKE'
#!/bin/sh
listing=/var/lib/fakes/ifconfig-a.txt
case "$*" in
  -a) cat "$listing" ;;
  *" destroy")
    grep -q "^$1: " "$listing" || { echo "ifconfig: interface $1 does not exist" >&2; exit 1; }
    awk -v name="$1" '/^[^ \t]/ { skip = index($0, name ": ") == 1 } !skip' "$listing" > "$listing.new"
    mv "$listing.new" "$listing" ;;
  *) echo "ifconfig: unsupported in this demo: $*" >&2; exit 1 ;;
esac
FAKE
  printf '#!/bin/sh\n# No virtual machine process runs on this stand-in Mac.\nexit 1\n' > "$root/usr/bin/pgrep"
  chmod 0755 "$root/sbin/ifconfig" "$root/usr/bin/pgrep"
  printf '%s\n' \
    'lo0: flags=8049<UP,LOOPBACK,RUNNING,MULTICAST> mtu 16384' \
    '	inet 127.0.0.1 netmask 0xff000000' \
    'en0: flags=8863<UP,BROADCAST,SMART,RUNNING,SIMPLEX,MULTICAST> mtu 1500' \
    '	inet 10.77.0.1 netmask 0xffffff00 broadcast 10.77.0.255' \
    '	status: active' \
    'bridge100: flags=8a63<UP,BROADCAST,SMART,RUNNING,ALLMULTI,SIMPLEX,MULTICAST> mtu 1500' \
    '	inet 192.168.64.1 netmask 0xffffff00 broadcast 192.168.64.255' \
    '	member: vmenet0 flags=3<LEARNING,DISCOVER>' \
    '	        ifmaxaddr 0 port 21 priority 0 path cost 0' \
    '	status: active' \
    'vmenet0: flags=8963<UP,BROADCAST,SMART,RUNNING,PROMISC,SIMPLEX,MULTICAST> mtu 1500' \
    '	status: active' \
    'vmenet1: flags=8963<UP,BROADCAST,SMART,RUNNING,PROMISC,SIMPLEX,MULTICAST> mtu 1500' \
    '	status: active' > "$root/var/lib/fakes/ifconfig-a.txt"

  # Two administrators (group 80 is the administrators' group); nobody is not one.
  echo 'admin:x:80:bob' >> "$root/etc/group"
  echo 'alice:x:501:80:Alice:/nonexistent:/usr/sbin/nologin' >> "$root/etc/passwd"
  echo 'bob:x:502:502:Bob:/nonexistent:/usr/sbin/nologin' >> "$root/etc/passwd"
  # /usr/local as on a Mac: only root may change it (Debian may make it writable for staff).
  for folder in /usr/local /usr/local/bin /usr/local/share; do
    if [ -d "$root$folder" ]; then chown root:root "$root$folder" && chmod 0755 "$root$folder"; fi
  done

  cp "$0" "$root/demo/demo-root.sh"
  trap - ERR
  set +e
  chroot "$root" /bin/bash /demo/demo-root.sh --session
  exit $?
fi

# ---------------------------------------------------------------------------------------------
# Stage 3, inside the stand-in Mac (chroot, root): the network, the helper and the session.
set +e -u
export PATH=/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8
HELPER=/Applications/Tarnly.app/Contents/Helpers/TarnlyAdminHelper
CLIENT=/Applications/Tarnly.app/Contents/MacOS/Tarnly
LOG=/var/log/tarnly-adminhelper.log
PF=$(cat /demo/pf)
failures=()

note() { echo "$*" | fold -s -w 100 | sed 's/ *$//'; }
heading() { printf '\n== %s ==\n' "$*"; }
indent() { sed 's/^./    &/'; }
fail_setup() { echo "demo: $*" >&2; exit 1; }
# expect WHAT ACTUAL EXPECTED: records a failure (and says so at once) unless equal.
expect() {
  if [ "$2" != "$3" ]; then
    failures+=("$1")
    printf '    !! not as expected: %s\n       expected: %s\n' "$1" "$3"
  fi
}
# ask USER SELECTOR [ARG...]: shows the request, runs the bundle's client as USER and shows its
# reply; the reply is left in $reply.
ask() {
  local user=$1 shown=Tarnly word; shift
  for word in "$@"; do
    case $word in *" "*) shown+=" \"$word\"" ;; *) shown+=" $word" ;; esac
  done
  printf '  %s$ %s\n' "$user" "$shown"
  if [ "$user" = root ]; then
    reply=$($CLIENT "$@" 2>&1)
  else
    reply=$(setpriv --reuid="$user" --regid="$(id -g "$user")" --init-groups $CLIENT "$@" 2>&1)
  fi
  printf '%s\n' "$reply" | indent
}

# The network: bridge100 (Lab) with a VM namespace behind it, bridge101 (Build farm) and en0, the
# Mac's own network, with the LAN namespace on it. Forwarding on, as for the Mac's shared networks.
{
  ip link set lo up
  ip link add bridge100 type bridge && ip link set bridge100 up
  ip addr add 192.168.64.1/24 dev bridge100 && ip addr add fd00:64::1/64 dev bridge100 nodad
  ip link add bridge101 type bridge && ip link set bridge101 up
  ip addr add 192.168.65.1/24 dev bridge101
  ip netns add vm && ip netns add lan
  ip link add vmport type veth peer name eth0 netns vm
  ip link set vmport master bridge100 up
  ip -n vm link set lo up && ip -n vm link set eth0 up
  ip -n vm addr add 192.168.64.2/24 dev eth0 && ip -n vm route add default via 192.168.64.1
  ip link add en0 type veth peer name eth0 netns lan
  ip addr add 10.77.0.1/24 dev en0 && ip link set en0 up
  ip -n lan link set lo up && ip -n lan link set eth0 up
  ip -n lan addr add 10.77.0.2/24 dev eth0 && ip -n lan route add default via 10.77.0.1
  echo 1 > /proc/sys/net/ipv4/ip_forward
} > /demo/network.out 2>&1 || fail_setup "could not build the demo's network: $(cat /demo/network.out)"

# Echo servers in the VM (ssh 22, 8080) and on the LAN (http 80, smtp 25), and the probe.
cat > /demo/probe.py <<'EOF'
import socket, sys, threading
def echo(connection):
    with connection:
        while data := connection.recv(256):
            connection.sendall(data)
def accept(server):
    while True:
        threading.Thread(target=echo, args=(server.accept()[0],), daemon=True).start()
if sys.argv[1] == "serve":
    for port in sys.argv[2:]:
        server = socket.socket()
        server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        server.bind(("0.0.0.0", int(port)))
        server.listen(16)
        threading.Thread(target=accept, args=(server,), daemon=True).start()
    print("ready", flush=True)
    threading.Event().wait()
else:
    try:
        with socket.create_connection((sys.argv[1], int(sys.argv[2])), timeout=1.5) as s:
            s.sendall(b"hello")
            print("connected" if s.recv(16) == b"hello" else "blocked")
    except OSError:
        print("blocked")
EOF
serve() {
  local ns=$1; shift
  local line=
  mkfifo "/demo/ready.$ns"
  ip netns exec "$ns" python3 /demo/probe.py serve "$@" > "/demo/ready.$ns" 2> "/demo/serve.$ns.err" &
  exec 9< "/demo/ready.$ns"
  read -r -t 5 line <&9
  exec 9<&-
  if [ "$line" != ready ]; then
    fail_setup "the $ns's servers did not start: $(cat "/demo/serve.$ns.err")"
  fi
}
serve vm 22 8080
serve lan 80 25
# probe WHAT FROM HOST PORT EXPECTED: one TCP connection from the namespace FROM, echoed back or
# not within 1.5 s; checked only where the kernel enforces the rules.
probe() {
  local result
  result=$(ip netns exec "$2" python3 /demo/probe.py "$3" "$4")
  printf '  %-30s %-18s %s\n' "$1" "$3:$4" "$result"
  if [ "$PF" = nftables ]; then expect "$1" "$result" "$5"; fi
}

# The helper in service mode, as launchd (or systemd's socket) would start it.
start_helper() {
  $HELPER > /demo/helper.out 2>&1 &
  HELPER_PID=$!
  # tail -F follows the log as lines arrive; each read waits at most 10 s for the next one.
  local line started='' tail_pid
  mkfifo /demo/log.fifo
  tail -n +1 -F -s 0.05 $LOG > /demo/log.fifo 2> /dev/null &
  tail_pid=$!
  exec {log_fd}< /demo/log.fifo
  while read -r -t 10 line <&$log_fd; do
    case $line in *" listening on com.orbelle.tarnly.adminhelper.") started=1; break ;; esac
  done
  kill $tail_pid
  exec {log_fd}<&-
  [ -n "$started" ] ||
    fail_setup "the helper did not start listening: $(cat /demo/helper.out $LOG 2> /dev/null)"
}
start_helper

# The two users' policies, as the application sends them.
cat > /demo/alice.json <<'EOF'
[{"networkID": "6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B", "name": "Lab",
  "subnetCIDR": "192.168.64.0/24", "gatewayIPv4": "192.168.64.1", "dnsProxyEnabled": true,
  "policy": {"enabled": true, "defaultInbound": "deny", "defaultOutbound": "allow", "rules": [
    {"id": "0A1B2C3D-4E5F-4061-8283-94A5B6C7D8E1", "enabled": true, "direction": "inbound",
     "action": "allow", "proto": "tcp", "remoteCIDR": "any", "ports": "22"},
    {"id": "0A1B2C3D-4E5F-4061-8283-94A5B6C7D8E2", "enabled": true, "direction": "outbound",
     "action": "deny", "proto": "tcp", "remoteCIDR": "10.77.0.0/24", "ports": "25"}]}},
 {"networkID": "7A2D3B8F-4C5E-4F60-9BAC-1D2E3F4A5B6C", "name": "Build farm",
  "subnetCIDR": "192.168.65.0/24", "gatewayIPv4": "192.168.65.1", "dnsProxyEnabled": false,
  "policy": {"enabled": true, "defaultInbound": "deny", "defaultOutbound": "deny", "rules": [
    {"id": "0A1B2C3D-4E5F-4061-8283-94A5B6C7D8E3", "enabled": true, "direction": "outbound",
     "action": "allow", "proto": "tcp", "remoteCIDR": "10.77.0.2", "ports": "80"}]}}]
EOF
cat > /demo/bob.json <<'EOF'
[{"networkID": "8B3E4C90-5D6F-4071-ACBD-2E3F4A5B6C7D", "name": "Staging",
  "subnetCIDR": "192.168.64.0/24", "gatewayIPv4": "192.168.64.1", "dnsProxyEnabled": false,
  "policy": {"enabled": true, "defaultInbound": "allow", "defaultOutbound": "allow", "rules": []}}]
EOF

version=$($HELPER --version)
if [ "$PF" = nftables ]; then
  pf_line="pf is tarnly-pfctl, which enforces the helper's rules in this kernel through nftables."
else
  pf_line="pf is the pf simulator: this kernel has no nf_tables, so no traffic is filtered."
fi
note "TarnlyAdminHelper $version serves requests on a stand-in Mac: an isolated root whose network holds bridge100 (192.168.64.1/24) with a VM behind it at 192.168.64.2, bridge101 (192.168.65.1/24), and en0 (10.77.0.1/24) on a LAN with a machine at 10.77.0.2. $pf_line alice (uid 501) and bob (502) are administrators, nobody (65534) is not. Each step sends one request through the bundle's client, Tarnly.app/Contents/MacOS/Tarnly, and shows the helper's exact reply."

heading "1. Version"
note "The application asks the helper for its version."
ask alice helperVersionWithReply:
expect "version" "$reply" "[\"$version\"]"

heading "2. Alice applies her firewall"
note "Lab (192.168.64.0/24) lets in only ssh and keeps its VMs off the LAN's mail port; Build farm (192.168.65.0/24) may reach only the LAN's web server."
echo "  root# cat /demo/alice.json"
indent < /demo/alice.json
ask alice applyFirewallWithPolicyData:withReply: /demo/alice.json
expect "alice's apply" "$reply" '["Enforcing 2 networks: Lab, Build farm",null]'

heading "3. Firewall status"
note "An administrator runs the helper by hand: pf's state, the rules loaded into the helper's anchor, and who owns each subnet."
echo "  root# TarnlyAdminHelper --status"
status_report=$($HELPER --status)
printf '%s\n' "$status_report" | indent
expect "status: alice owns Lab's subnet" \
  "$(printf '%s\n' "$status_report" | grep -cx '192.168.64.0/24 501')" 1

heading "4. Real traffic under Alice's rules"
if [ "$PF" = nftables ]; then
  note "TCP connections from the VM and from the LAN machine (1.5 s to answer): the VM reaches the LAN's web port but not its mail port; from outside, only the VM's ssh port answers."
else
  note "Without nf_tables nothing is filtered; the probes only show that the network works."
fi
probe "VM -> LAN web server" vm 10.77.0.2 80 connected
probe "VM -> LAN mail server" vm 10.77.0.2 25 blocked
probe "LAN -> VM ssh" lan 192.168.64.2 22 connected
probe "LAN -> VM port 8080" lan 192.168.64.2 8080 blocked

heading "5. Bob contests a subnet"
note "Bob applies Staging, open both ways, on Lab's subnet 192.168.64.0/24: the most recently applied owner wins it, and the helper logs the conflict."
ask bob applyFirewallWithPolicyData:withReply: /demo/bob.json
expect "bob's apply" "$reply" '["Enforcing 1 network: Staging - 2 more for other users of this Mac",null]'
conflict=$(grep -o '192.168.64.0/24 is claimed by.*' $LOG)
echo "  log: $conflict"
expect "conflict line" "$conflict" \
  "192.168.64.0/24 is claimed by networks of more than one user; uid 501's \"Lab\" is left out for the most recently applied one."
echo "  root# TarnlyAdminHelper --status   (its last section)"
$HELPER --status | sed -n '/^== subnet owners ==$/,$p' | indent
note "Under Staging's rules the VM's port 8080, dropped a moment ago, answers:"
probe "LAN -> VM port 8080" lan 192.168.64.2 8080 connected

heading "6. VLANs"
note "Any user may list the VLANs the helper created (a JSON array, base64 in the reply): none yet."
ask nobody createdVLANsWithReply:
expect "VLAN list" "$reply" '["W10=",null]'
if ip link add link en0 name vlanprobe type vlan id 4094 2> /dev/null; then
  ip link delete vlanprobe
  note "This kernel has 802.1Q: Alice creates VLAN 42 on en0, lists it and deletes it."
  ask alice createVLANWithName:tag:parentBSD:withReply: "Lab VLAN" 42 en0
  expect "VLAN create" "$reply" '["vlan0",null]'
  ask alice createdVLANsWithReply:
  listed=$(printf '%s' "$reply" | sed -n 's/^\["\([^"]*\)",null\]$/\1/p' | base64 -d 2> /dev/null)
  echo "    decoded: $listed"
  case $listed in
    *'"bsdName":"vlan0"'*'"tag":42'*) ;;
    *) expect "VLAN listed" "$listed" 'vlan0 with tag 42 on en0' ;;
  esac
  ask alice deleteVLANWithBsdName:withReply: vlan0
  expect "VLAN delete" "$reply" '[null]'
else
  note "This kernel has no 802.1Q: the VLAN on en0 cannot be put into effect, and the helper says so."
  ask alice createVLANWithName:tag:parentBSD:withReply: "Lab VLAN" 42 en0
  expect "VLAN create" "$reply" '[null,"Could not save the network configuration."]'
fi
note "A VLAN goes on a physical interface only, which a bridge is not:"
ask alice createVLANWithName:tag:parentBSD:withReply: "Lab VLAN" 42 bridge100
expect "VLAN on a bridge" "$reply" '[null,"No physical interface named bridge100."]'
note "And creating one is for administrators only:"
ask nobody createVLANWithName:tag:parentBSD:withReply: "Lab VLAN" 42 en0
expect "VLAN refusal" "$reply" \
  "[null,\"Only an administrator of this Mac can make this change through Tarnly's helper.\"]"

heading "7. Resolver files"
note "Switched on, names under .tqz and .tarnly go to the application's DNS proxy on 127.0.0.1:5380."
ask alice setTarnlyResolverWithEnabled:withReply: true
expect "resolver on" "$reply" '[null]'
echo "  root# cat /etc/resolver/tarnly"
indent < /etc/resolver/tarnly
expect "resolver file" "$(cat /etc/resolver/tarnly)" "$(printf '%s\n' \
  '# Installed by Tarnly: <vm>.tarnly names resolve to its VMs.' 'nameserver 127.0.0.1' \
  'port 5380' 'timeout 2')"
note "Switched off, the helper removes the files it wrote."
ask alice setTarnlyResolverWithEnabled:withReply: false
expect "resolver off" "$reply" '[null]'
echo "  root# ls -A /etc/resolver"
resolver_files=$(ls -A /etc/resolver)
echo "    ${resolver_files:-(empty)}"
expect "resolver files removed" "$resolver_files" ""

links=(/usr/local/bin/tarnly /usr/local/bin/tqz /usr/local/share/zsh/site-functions/_tarnly
  /usr/local/share/fish/vendor_completions.d/tarnly.fish
  /usr/local/share/fish/vendor_completions.d/tqz.fish)
# ls -l without the columns before the name.
list_links() { ls -l "$@" 2>&1 | sed 's/^\([^ ]* *\)\{8\}//' | indent; }
heading "8. Command-line links"
note "The bundle's command-line tool is linked as tarnly and tqz, and its shell completions beside zsh's and fish's."
ask alice installCLISymlinkWithReply:
expect "links installed" "$reply" '[null]'
echo "  root# ls -l /usr/local/bin/tarnly /usr/local/bin/tqz /usr/local/share/{zsh,fish}/..."
list_links "${links[@]}"
echo "  root# tarnly list"
tool=$(tarnly list 2>&1)
echo "    $tool"
expect "tarnly runs the bundle's tool" "$tool" "tarnly (the bundle's command-line tool) list"
note "And removed again:"
ask alice removeCLISymlinkWithReply:
expect "links removed" "$reply" '[null]'
left=$(ls -d "${links[@]}" 2> /dev/null)
echo "  root# ls -l /usr/local/bin/tarnly /usr/local/bin/tqz /usr/local/share/{zsh,fish}/..."
if [ -n "$left" ]; then list_links "${links[@]}"; else echo "    (none left)"; fi
expect "no links left" "$left" ""

heading "9. Stale vmnet interfaces"
note "ifconfig lists vmenet0 in bridge100 and vmenet1 in no bridge: the first scan only remembers vmenet1, the second, still finding it outside every bridge, destroys it."
ask alice pruneStaleVMInterfacesWithReply:
expect "first prune" "$reply" \
  '["1 vmnet interface(s) in no bridge for now; destroyed if still so at the next scan.",null]'
ask alice pruneStaleVMInterfacesWithReply:
expect "second prune" "$reply" '["Destroyed 1 of 1 stale vmnet interface(s) (1 in use).",null]'

heading "10. Uninstall"
note "Alice removes her firewall, then the application asks the helper to remove its files: Bob's firewall is still in force, so its files stay, and the reply says why."
ask alice removeFirewallWithReply:
expect "alice's remove" "$reply" '[null]'
cp $LOG /demo/helper.log
ask alice removeFilesForUninstallWithReply:
expect "uninstall" "$reply" '["firewall rules another account on this Mac still uses",null]'
echo "  root# ls -A '/Library/Application Support/Tarnly' /var/log/tarnly-adminhelper.log*"
ls -A '/Library/Application Support/Tarnly' | indent
log_files=$(ls /var/log/tarnly-adminhelper.log* 2> /dev/null)
echo "    ${log_files:-(no log files: the uninstall removed them)}"
expect "log files removed" "$log_files" ""

heading "11. The helper's log"
note "What /var/log/tarnly-adminhelper.log held just before the uninstall removed it:"
indent < /demo/helper.log

heading "12. Stopping the helper"
note "As before an upgrade, the application asks the helper to exit: it replies, then ends with status 0."
ask alice shutdownForUpgradeWithReply:
expect "shutdown reply" "$reply" '[]'
wait $HELPER_PID
helper_status=$?
echo "  the helper exited with status $helper_status"
expect "helper exit status" "$helper_status" 0

echo
if [ ${#failures[@]} -eq 0 ]; then
  echo "Demo finished: every step behaved as expected. The stand-in Mac ends with its namespaces."
  exit 0
fi
summary=$(printf '%s; ' "${failures[@]}")
echo "Demo FAILED: ${#failures[@]} step(s) did not behave as expected: ${summary%; }."
exit 1
