#!/usr/bin/env bash
# The whole test suite: installs what is missing, then builds and runs every test twice, in a
# normal build and under AddressSanitizer + UndefinedBehaviorSanitizer, and runs the concurrent
# tests once more under ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

jobs=$(nproc)

echo "== normal build =="
scripts/build.sh build
(cd build && ctest --output-on-failure -j "$jobs")

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build =="
scripts/build.sh build-asan address
(cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j "$jobs")

echo "== ThreadSanitizer build (concurrent tests) =="
scripts/build.sh build-tsan thread
(cd build-tsan && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -j "$jobs" -R Concurrent)

scripts/fuzz.sh 20
