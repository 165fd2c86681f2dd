# Maintainer-script snippet: makes /sbin/pfctl the bundle's tarnly-pfctl where no pfctl exists,
# and takes the link away again on removal only when it is still the one made here.
# Source it from postinst and prerm, then call:
#   postinst configure:  tarnly_pfctl_link
#   prerm remove:        tarnly_pfctl_unlink
# TARNLY_BUNDLE is the bundle folder under the install prefix (default /Applications/Tarnly.app).

TARNLY_PFCTL="${TARNLY_BUNDLE:-/Applications/Tarnly.app}/Contents/Helpers/tarnly-pfctl"

tarnly_pfctl_link() {
  # A real pfctl, or any file or link already there, is left alone.
  if [ -e /sbin/pfctl ] || [ -L /sbin/pfctl ]; then
    return 0
  fi
  [ -x "$TARNLY_PFCTL" ] || return 0
  # ln -s refuses an existing name, so a file appearing meanwhile is not replaced.
  ln -s "$TARNLY_PFCTL" /sbin/pfctl 2>/dev/null || true
}

tarnly_pfctl_unlink() {
  if [ -L /sbin/pfctl ] && [ "$(readlink /sbin/pfctl)" = "$TARNLY_PFCTL" ]; then
    rm -f /sbin/pfctl
  fi
}
