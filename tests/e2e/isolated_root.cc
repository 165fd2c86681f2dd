#include "e2e/isolated_root.h"

#include <unistd.h>

#include "support/temp_tree.h"

namespace IsolatedRoot {

namespace {

// Builds the root and runs the inner script in it; its own status is the inner script's.
constexpr const char* kOuterScript = R"(set -eu
inner=$1
pfctl=$2
top=$(mktemp -d /tmp/tarnly-root-XXXXXX)
mount -t tmpfs tmpfs "$top"
mkdir -p "$top/upper" "$top/work" "$top/root"
mount -t overlay overlay -o "lowerdir=/,upperdir=$top/upper,workdir=$top/work" "$top/root"
for fs in proc dev sys; do mount --bind "/$fs" "$top/root/$fs"; done
mkdir -p "$top/root/sbin"
cp "$pfctl" "$top/root/sbin/pfctl"
cp "$inner" "$top/root/inner.sh"
set +e
chroot "$top/root" /bin/sh /inner.sh
status=$?
umount -l "$top/root" 2>/dev/null
umount -l "$top" 2>/dev/null
rmdir "$top"
exit $status
)";

}  // namespace

std::string unavailableReason() {
  if (::geteuid() != 0) return "end-to-end runs need root";
  HelperCommand::Result probe = HelperCommand::run(
      "/usr/bin/unshare", {"--mount", "--net", "--propagation", "private", "/bin/true"});
  if (probe.status != 0) return "no mount and network namespaces here: " + probe.combinedOutput();
  return {};
}

HelperCommand::Result run(const std::string& script, const std::string& pfctl) {
  TempTree tree;
  std::string outer = tree.write("outer.sh", kOuterScript, 0755);
  std::string inner = tree.write("inner.sh", "set -u\n" + script, 0755);
  return HelperCommand::run("/usr/bin/unshare", {"--mount", "--net", "--propagation", "private",
                                                 "/bin/sh", outer, inner, pfctl});
}

}  // namespace IsolatedRoot
