#!/usr/bin/env bash
# Configures and builds one tree. Usage: scripts/build.sh BUILD_DIR [SANITIZER] [TARGET...]
# SANITIZER is empty, "address" (AddressSanitizer + UndefinedBehaviorSanitizer) or "thread".
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$1
sanitize=${2:-}
shift $(( $# > 1 ? 2 : 1 ))
benchmarks=ON
# Benchmarks measure the normal build only.
[ -n "$sanitize" ] && benchmarks=OFF
cmake -S . -B "$dir" -G Ninja -DTARNLY_SANITIZE="$sanitize" -DTARNLY_WERROR=ON \
  -DTARNLY_BENCHMARKS=$benchmarks >/dev/null
cmake --build "$dir" -- "$@"
