#!/usr/bin/env bash
# The helper's main job on a fresh machine, as root: installs what is missing, builds the helper,
# its client and the two pf programs, then runs the helper as the service of a stand-in Mac in an
# isolated root and drives a short, narrated client session against it (scripts/demo-root.sh).
# Nothing on the host changes. Exit status 0 when every step behaved as expected.
set -euo pipefail
cd "$(dirname "$0")/.."
if [ "$(id -u)" -ne 0 ]; then
  echo "demo: run it as root (sudo scripts/demo.sh): it installs packages and runs the helper" \
    "in namespaces of its own." >&2
  exit 1
fi
scripts/setup.sh

targets=(TarnlyAdminHelper tarnly-helperctl tarnly-pfctl tarnly-pfsim)
mkdir -p build
echo "Building ${targets[*]} in build/ (log: build/demo-build.log)..."
if ! scripts/build.sh build "" "${targets[@]}" -j"$(nproc)" > build/demo-build.log 2>&1; then
  tail -n 30 build/demo-build.log >&2
  echo "demo: the build failed; the whole log is build/demo-build.log." >&2
  exit 1
fi
echo
exec scripts/demo-root.sh build
