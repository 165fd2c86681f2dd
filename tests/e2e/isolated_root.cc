#include "e2e/isolated_root.h"

#include <unistd.h>

#include "support/temp_tree.h"

namespace IsolatedRoot {

namespace {

// Builds the root and runs the inner script in it; its own status is the inner script's.
constexpr const char* kOuterScript = R"sh(set -eu
inner=$1 pfctl=$2 helper=$3 client=$4 driver=$5
top=$(mktemp -d /tmp/tarnly-root-XXXXXX)
mount -t tmpfs tmpfs "$top"
mkdir -p "$top/upper" "$top/work" "$top/root"
mount -t overlay overlay -o "lowerdir=/,upperdir=$top/upper,workdir=$top/work" "$top/root"
for fs in proc dev sys; do mount --bind "/$fs" "$top/root/$fs"; done
root=$top/root
# Fresh /run and /tmp, as after a boot: nothing the host puts there shows through.
mount -t tmpfs -o mode=0755 tmpfs "$root/run"
mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
# The bundle: root-owned folders no one else can write, all the way up.
contents=$root/Applications/Tarnly.app/Contents
install -d -m 0755 "$contents/Helpers" "$contents/MacOS"
install -m 0755 "$helper" "$contents/Helpers/TarnlyAdminHelper"
[ -n "$client" ] && install -m 0755 "$client" "$contents/MacOS/Tarnly"
[ -n "$driver" ] && install -m 0755 "$driver" "$contents/Helpers/TarnlyService"
install -d -m 0755 "$root/sbin" "$root/usr/bin" "$root/var/lib/fakes"
install -m 0755 "$pfctl" "$root/sbin/pfctl"
# Fakes of the macOS tools: each records its arguments, one run a line.
cat > "$root/sbin/ifconfig" <<'FAKE'
#!/bin/sh
echo "$*" >> /var/lib/fakes/ifconfig.calls
if [ "$*" = "-a" ]; then cat /var/lib/fakes/ifconfig-a.txt; fi
FAKE
cat > "$root/usr/bin/pgrep" <<'FAKE'
#!/bin/sh
echo "$*" >> /var/lib/fakes/pgrep.calls
[ -f /var/lib/fakes/pgrep.txt ] || exit 1
cat /var/lib/fakes/pgrep.txt
FAKE
chmod 0755 "$root/sbin/ifconfig" "$root/usr/bin/pgrep"
printf 'lo0: flags=8049<UP,LOOPBACK,RUNNING,MULTICAST> mtu 16384\n\tinet 127.0.0.1 netmask 0xff000000\n' \
  > "$root/var/lib/fakes/ifconfig-a.txt"
# Two administrators; group 80 is the administrators' group.
echo 'admin:x:80:bob' >> "$root/etc/group"
echo 'alice:x:501:80:Alice:/nonexistent:/usr/sbin/nologin' >> "$root/etc/passwd"
echo 'bob:x:502:502:Bob:/nonexistent:/usr/sbin/nologin' >> "$root/etc/passwd"
cp "$inner" "$root/inner.sh"
set +e
chroot "$root" /bin/sh /inner.sh
status=$?
umount -l "$root" 2>/dev/null
umount -l "$top" 2>/dev/null
rmdir "$top"
exit $status
)sh";

// Shell functions every scenario can use (see the header).
constexpr const char* kPrelude = R"sh(set -u
HELPER=/Applications/Tarnly.app/Contents/Helpers/TarnlyAdminHelper
CTL=/Applications/Tarnly.app/Contents/MacOS/Tarnly
DRIVER=/Applications/Tarnly.app/Contents/Helpers/TarnlyService
LOG=/var/log/tarnly-adminhelper.log
HELPER_PID=
trap '[ -n "$HELPER_PID" ] && kill -9 $HELPER_PID 2>/dev/null' EXIT
started_count() {
  count=$(grep -c 'listening on com.orbelle.tarnly.adminhelper\.$' $LOG 2>/dev/null)
  echo "${count:-0}"
}
start_helper() {
  before=$(started_count)
  $HELPER & HELPER_PID=$!
  tries=0
  while [ "$(started_count)" -le "$before" ]; do
    tries=$((tries + 1))
    if [ $tries -gt 500 ] || ! kill -0 $HELPER_PID 2>/dev/null; then
      echo "the helper did not start listening" >&2; exit 1
    fi
    sleep 0.02
  done
}
ctl() { $CTL "$@" 2>&1; echo "exit=$?"; }
as_user() { u=$1 g=$2; shift 2; setpriv --reuid=$u --regid=$g --init-groups "$@"; }
ctl_as() { u=$1 g=$2; shift 2; as_user $u $g $CTL "$@" 2>&1; echo "exit=$?"; }
log_lines() { cut -d' ' -f2- $LOG; }
fake_calls() { cat /var/lib/fakes/$1.calls 2>/dev/null; }
)sh";

}  // namespace

std::string unavailableReason() {
  if (::geteuid() != 0) return "end-to-end runs need root";
  HelperCommand::Result probe = HelperCommand::run(
      "/usr/bin/unshare", {"--mount", "--net", "--propagation", "private", "/bin/true"});
  if (probe.status != 0) return "no mount and network namespaces here: " + probe.combinedOutput();
  return {};
}

HelperCommand::Result run(const std::string& script, const std::string& pfctl,
                          const std::vector<std::string>& launcher) {
  TempTree tree;
  std::string outer = tree.write("outer.sh", kOuterScript, 0755);
  std::string inner = tree.write("inner.sh", std::string(kPrelude) + script, 0755);
#ifdef TARNLY_HELPERCTL_PATH
  const char* client = TARNLY_HELPERCTL_PATH;
#else
  const char* client = "";
#endif
#ifdef TARNLY_E2E_DRIVER_PATH
  const char* driver = TARNLY_E2E_DRIVER_PATH;
#else
  const char* driver = "";
#endif
  std::vector<std::string> command = launcher;
  command.insert(command.end(),
                 {"/usr/bin/unshare", "--mount", "--net", "--propagation", "private", "/bin/sh",
                  outer, inner, pfctl, TARNLY_HELPER_PATH, client, driver});
  return HelperCommand::run(command.front(), {command.begin() + 1, command.end()});
}

}  // namespace IsolatedRoot

void IsolatedRootTest::SetUp() {
  std::string reason = IsolatedRoot::unavailableReason();
  if (!reason.empty()) GTEST_SKIP() << reason;
}

std::string IsolatedRootTest::run(const std::string& script) {
  HelperCommand::Result result = IsolatedRoot::run(script);
  EXPECT_EQ(result.status, 0) << result.stdout << result.stderr;
  return result.stdout;
}
