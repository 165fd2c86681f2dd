#include "e2e/isolated_root.h"

#include <unistd.h>

#include "platform/files.h"
#include "support/temp_tree.h"

namespace {

// Builds the root and runs the inner script in it; its own status is the inner script's.
constexpr const char* kOuterScript = R"sh(set -eu
inner=$1 pfctl=$2 helper=$3 client=$4 driver=$5
top=$(mktemp -d /tmp/tarnly-root-XXXXXX) && mount -t tmpfs tmpfs "$top"
mkdir -p "$top/upper" "$top/work" "$top/root" && mount -t overlay overlay -o "lowerdir=/,upperdir=$top/upper,workdir=$top/work" "$top/root"
root=$top/root; for fs in proc sys; do mount --bind "/$fs" "$root/$fs"; done
# A /dev of its own: the host's device files bound one by one, so nothing inside can replace them.
mount -t tmpfs -o mode=0755 tmpfs "$root/dev" && mkdir -m 1777 "$root/dev/shm"
ln -s /proc/self/fd "$root/dev/fd" && ln -s fd/0 "$root/dev/stdin" && ln -s fd/1 "$root/dev/stdout" && ln -s fd/2 "$root/dev/stderr"
for d in null zero full random urandom tty; do touch "$root/dev/$d"; mount --bind "/dev/$d" "$root/dev/$d"; done
# Fresh /run, /tmp and simulator state, as after a boot: nothing the host put there shows through.
mount -t tmpfs -o mode=0755 tmpfs "$root/run" && mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"; rm -rf "$root/var/lib/pfsim"
# The bundle: root-owned folders no one else can write, all the way up.
contents=$root/Applications/Tarnly.app/Contents
install -d -m 0755 "$contents/Helpers" "$contents/MacOS" "$root/var/lib/fakes"
install -m 0755 "$helper" "$contents/Helpers/TarnlyAdminHelper" && install -m 0755 "$client" "$contents/MacOS/Tarnly"
install -m 0755 "$driver" "$contents/Helpers/TarnlyService"
install -m 0755 "$pfctl" "$root/sbin/pfctl"
# Fakes of the macOS tools: ifconfig records its arguments, one run a line; pgrep finds nothing.
printf '#!/bin/sh\necho "$*" >> /var/lib/fakes/ifconfig.calls\n%s\n' \
  '[ "$*" != -a ] || cat /var/lib/fakes/ifconfig-a.txt' > "$root/sbin/ifconfig"; chmod 0755 "$root/sbin/ifconfig"
ln -sf /bin/false "$root/usr/bin/pgrep"
echo 'admin:x:80:bob' >> "$root/etc/group"
printf 'alice:x:501:80::/:/bin/false\nbob:x:502:502::/:/bin/false\n' >> "$root/etc/passwd"
cp "$inner" "$root/inner.sh"; set +e; chroot "$root" /bin/sh /inner.sh; status=$?
umount -l "$root" "$top" 2>/dev/null; rmdir "$top"
exit $status
)sh";

// The definitions every scenario can use (see the header).
constexpr const char* kPrelude = R"sh(set -u
C=/Applications/Tarnly.app/Contents LOG=/var/log/tarnly-adminhelper.log HELPER_PID=
HELPER=$C/Helpers/TarnlyAdminHelper CTL=$C/MacOS/Tarnly DRIVER=$C/Helpers/TarnlyService
trap '[ -n "$HELPER_PID" ] && kill -9 $HELPER_PID 2>/dev/null' EXIT
started_count() { cat $LOG 2>/dev/null | grep -c 'listening on com.orbelle.tarnly.adminhelper\.$'; }
start_helper() {  # waits at most 10 s for its new listening line
  before=$(started_count) tries=0; $HELPER & HELPER_PID=$!
  until [ "$(started_count)" -gt "$before" ]; do tries=$((tries + 1)); [ $tries -le 500 ] &&
    kill -0 $HELPER_PID 2>/dev/null || { echo "the helper did not start listening" >&2; exit 1; }; sleep 0.02; done; }
ctl() { $CTL "$@" 2>&1 || echo "exit=$?"; }
ctl_as() { u=$1 g=$2; shift 2; setpriv --reuid=$u --regid=$g --init-groups $CTL "$@" 2>&1 || echo "exit=$?"; }
log_lines() { cut -d' ' -f2- $LOG; }
)sh";
constexpr const char* kStateFolder = "/Library/Application Support/Tarnly";

}  // namespace

HelperCommand::Result IsolatedRootTest::runIn(const std::string& script, const std::string& pfctl,
                                              const std::vector<std::string>& launcher) {
  TempTree tree;
  std::vector<std::string> command = launcher;
  command.insert(command.end(),
                 {"/usr/bin/unshare", "--mount", "--net", "--propagation", "private", "/bin/sh",
                  tree.write("outer.sh", kOuterScript, 0755),
                  tree.write("inner.sh", std::string(kPrelude) + script, 0755), pfctl,
                  TARNLY_HELPER_PATH, TARNLY_HELPERCTL_PATH, TARNLY_E2E_DRIVER_PATH});
  return HelperCommand::run(command.front(), {command.begin() + 1, command.end()});
}

void IsolatedRootTest::SetUp() {
  if (::geteuid() != 0) GTEST_SKIP() << "end-to-end runs need root";
  HelperCommand::Result probe = HelperCommand::run(
      "/usr/bin/unshare", {"--mount", "--net", "--propagation", "private", "/bin/true"});
  if (probe.status != 0) GTEST_SKIP() << "no mount and network namespaces: " << probe.stderr;
}

std::string IsolatedRootTest::run(const std::string& script) {
  bool hostHadState = pathExists(kStateFolder);
  HelperCommand::Result result = runIn(script);
  EXPECT_EQ(result.status, 0) << result.stdout << result.stderr;
  EXPECT_EQ(pathExists(kStateFolder), hostHadState);
  return result.stdout;
}
