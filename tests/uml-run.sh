#!/usr/bin/env bash
# Runs one command as root inside user-mode Linux (Debian's package user-mode-linux), for tests that
# need kernel features this machine's kernel lacks.
#
# Usage: tests/uml-run.sh [--module NAME]... [--mem SIZE] [--timeout SECONDS] [--] COMMAND [ARG...]
#
# The UML kernel boots with this machine's root file system (hostfs) mounted read-only as its root,
# mounts fresh /proc, /sys, /dev and /dev/shm, writable /tmp and /run (this machine's under a
# throw-away layer), loads each --module of the UML kernel with its dependencies, and runs
# COMMAND in the caller's working folder with the caller's environment (TMPDIR left out), stdin
# empty. That kernel has a network namespace of its own holding only "lo".
#
# When COMMAND has ended, its stdout and stderr are written to this script's stdout and stderr and
# the script exits with COMMAND's exit status. When user-mode Linux cannot run the command (not
# installed, boot failure, a module that does not load) it exits with 125, and with 124 when the
# run takes longer than --timeout (default 300 s); the reason, then the console's last lines, go to
# stderr after "uml-run: ". Nothing keeps running afterwards: the UML kernel and its helper
# processes live in a PID namespace of their own that ends with it, and the temporary folder is
# removed. Processes inside run without AVX (see below); the UML kernel gives each of them an
# address space of 512 GiB, too small for AddressSanitizer's shadow memory.
set -euo pipefail

# ---- Inside user-mode Linux: this script is the init process (PID 1). ----
if [ "$$" -eq 1 ] && [ -n "${TARNLY_UML_JOB:-}" ]; then
  # Init must not exit (the kernel would panic): every failure ends in power_off.
  set +e
  export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
  mount -t proc proc /proc
  mount -t sysfs sysfs /sys
  mountpoint -q /dev || mount -t devtmpfs devtmpfs /dev
  mkdir -p /dev/shm
  mount -t tmpfs -o mode=1777 tmpfs /dev/shm
  scratch=/dev/shm/uml-run
  job=$scratch/job
  power_off() {
    sync
    umount "$job" 2>/dev/null
    # reboot(2) with LINUX_REBOOT_CMD_POWER_OFF ends the UML kernel at once.
    perl -e 'syscall(169, 0xfee1dead, 672274793, 0x4321fedc, 0)' 2>/dev/null
    echo o >/proc/sysrq-trigger
    while :; do sleep 1; done
  }
  mkdir -p "$job"
  if ! mount -t hostfs -o "$TARNLY_UML_JOB" hostfs "$job"; then
    echo "uml-run: cannot mount the job folder $TARNLY_UML_JOB" >/dev/console
    power_off
  fi
  fail() {
    echo "$1" >"$job/failure"
    power_off
  }
  # modprobe looks for the UML kernel's modules under <dir>/lib/modules/<release>.
  release=$(uname -r)
  mkdir -p "$scratch/modules/lib/modules"
  ln -s "/usr/lib/uml/modules/$release" "$scratch/modules/lib/modules/$release"
  load() {
    modprobe -d "$scratch/modules" "$1" </dev/null
  }
  # /tmp and /run: this machine's, read-only, under a writable layer that vanishes with the
  # kernel; empty ones where overlays are missing.
  load overlay 2>/dev/null
  for dir in /tmp /run; do
    mkdir -p "$scratch/layers$dir/upper" "$scratch/layers$dir/work"
    mount -t overlay -o "lowerdir=$dir,upperdir=$scratch/layers$dir/upper" \
      -o "workdir=$scratch/layers$dir/work" overlay "$dir" 2>/dev/null ||
      mount -t tmpfs tmpfs "$dir"
  done
  chmod 1777 /tmp
  while read -r module; do
    [ -n "$module" ] || continue
    if ! load "$module" 2>"$scratch/modprobe.err"; then
      fail "the UML kernel $release cannot load the module $module: $(tr '\n' ' ' <"$scratch/modprobe.err")"
    fi
  done <"$job/modules"
  status=0
  (cd / && env -i /bin/bash "$job/command" </dev/null >"$job/stdout" 2>"$job/stderr") || status=$?
  echo "$status" >"$job/status"
  power_off
fi

# ---- On this machine: prepare the job, boot the UML kernel, hand back the result. ----
modules=()
mem=256M
limit=300
while [ $# -gt 0 ]; do
  case $1 in
    --module) modules+=("$2"); shift 2 ;;
    --mem) mem=$2; shift 2 ;;
    --timeout) limit=$2; shift 2 ;;
    --) shift; break ;;
    -*) echo "uml-run: unknown option $1" >&2; exit 125 ;;
    *) break ;;
  esac
done
if [ $# -eq 0 ]; then
  echo "usage: $0 [--module NAME]... [--mem SIZE] [--timeout SECONDS] [--] COMMAND [ARG...]" >&2
  exit 125
fi
unavailable() {
  echo "uml-run: $1" >&2
  exit 125
}
uml=/usr/bin/linux.uml
[ -x "$uml" ] || unavailable "user-mode Linux is not installed ($uml; package user-mode-linux)"
[ "$(id -u)" -eq 0 ] || unavailable "running user-mode Linux in a PID namespace of its own needs root"
for tool in perl unshare timeout modprobe; do
  command -v "$tool" >/dev/null || unavailable "$tool is missing"
done
self=$(readlink -f "$0")

# UML 6.1 hands the host kernel an XSAVE buffer of a fixed size when it saves and restores the
# registers of its processes; kernels whose XSAVE area is larger (AVX-512, AMX) refuse it with
# EFAULT and UML panics. This seccomp filter makes PTRACE_GETREGSET and PTRACE_SETREGSET of
# NT_X86_XSTATE fail with EIO, so that UML falls back to the plain FP register requests. Those
# keep x87 and SSE registers only, so every process inside is told not to use AVX: glibc through
# its tunables (given to init on the kernel command line), OpenSSL through its capability mask.
no_avx=glibc.cpu.hwcaps=-AVX,-AVX2,-AVX512F,-AVX512VL,-AVX512BW,-AVX512DQ,-AVX512CD,-AVX_VNNI,-FMA
# shellcheck disable=SC2016 # Perl, not shell
seccomp='
my @filter = ([0x20,0,0,4], [0x15,0,8,0xc000003e], [0x20,0,0,0], [0x15,0,6,101],
  [0x20,0,0,16], [0x15,1,0,0x4204], [0x15,0,3,0x4205], [0x20,0,0,32], [0x15,0,1,0x202],
  [0x06,0,0,0x50005], [0x06,0,0,0x7fff0000]);
my $program = join "", map { pack "SCCL", @$_ } @filter;
my $fprog = pack "S x6 P", scalar(@filter), $program;
syscall(157, 38, 1, 0, 0, 0) == 0 or die "no_new_privs: $!\n";
syscall(317, 1, 0, $fprog) == 0 or die "seccomp: $!\n";
exec { $ARGV[0] } @ARGV or die "exec $ARGV[0]: $!\n";'

# The job folder holds the command, the modules and the results; it is mounted writable inside.
# On tmpfs where there is one, as UML keeps its memory file in it too.
base=/dev/shm
[ -d "$base" ] && [ -w "$base" ] || base=${TMPDIR:-/tmp}
job=$(mktemp -d "$base/uml-run.XXXXXX")
trap 'rm -rf "$job"' EXIT
printf '%s\n' "${modules[@]}" >"$job/modules"
{
  (unset TMPDIR; export -p)
  printf 'export GLIBC_TUNABLES=%q\n' "${GLIBC_TUNABLES:+$GLIBC_TUNABLES:}$no_avx"
  # AVX (in the first word) and AVX2, AVX512F (in the second) masked out.
  printf 'export OPENSSL_ia32cap=%q\n' "~0x1000000000000000:~0x10020"
  printf 'cd %q 2>/dev/null || cd /\n' "$PWD"
  printf 'exec'
  printf ' %q' "$@"
  printf '\n'
} >"$job/command"

status=0
# timeout is the first process of the PID namespace: when it ends, on time or not, the kernel
# kills what is left inside and reaps it before unshare returns.
TMPDIR=$job unshare --pid --fork --kill-child -- timeout -s KILL "$limit" \
  perl -e "$seccomp" "$uml" "mem=$mem" root=/dev/root rootfstype=hostfs rootflags=/ ro \
  "init=$self" con=null con0=null,fd:1 ssl=null quiet "TARNLY_UML_JOB=$job" "GLIBC_TUNABLES=$no_avx" \
  </dev/null >"$job/console" 2>&1 || status=$?

if [ -f "$job/status" ]; then
  cat "$job/stdout"
  cat "$job/stderr" >&2
  exit "$(cat "$job/status")"
fi
if [ -f "$job/failure" ]; then
  reason=$(cat "$job/failure")
elif [ "$status" -eq 124 ] || [ "$status" -eq 137 ]; then
  echo "uml-run: the run took longer than $limit s" >&2
  tail -n 20 "$job/console" >&2
  exit 124
else
  reason="user-mode Linux ended (status $status) before the command did"
fi
echo "uml-run: $reason" >&2
tail -n 20 "$job/console" >&2
exit 125
