#!/usr/bin/env bash
# Line and branch coverage of src/ and tools/ by the whole test suite, measured with gcovr in its
# own build tree (build-coverage). Usage: scripts/coverage.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
dir=${1:-build-coverage}
# Tests run in parallel: atomic counters keep the branch counts consistent for gcovr.
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTARNLY_BENCHMARKS=OFF \
  -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic -O0" \
  -DCMAKE_EXE_LINKER_FLAGS=--coverage >/dev/null
cmake --build "$dir" -j "$(nproc)"
find "$dir" -name '*.gcda' -delete
# Some tests run programs as another user, with an environment of their own: their counters are
# only written when the counter files exist already, writable by all. Every test program and tool
# runs once as root to make them, in a mode that only prints (a list, a version, its usage); the
# pf simulator, which records every call it gets on the host, is left out.
find "$dir" -type f -perm -u+x -name '*_tests' \
  -exec sh -c '"$1" --gtest_list_tests >/dev/null 2>&1; true' _ {} \;
find "$dir" -type f -perm -u+x \( -name 'tarnly-*' -o -name TarnlyAdminHelper \) \
  ! -name tarnly-pfsim -exec sh -c '"$1" --version >/dev/null 2>&1 </dev/null; true' _ {} \;
find "$dir" -name '*.gcda' -exec chmod 0666 {} +
export GCOV_ERROR_FILE=/dev/null
(cd "$dir" && ctest -j "$(nproc)" --timeout 600 >/dev/null) || echo "(some tests failed; coverage of what ran)"
gcovr --root . --object-directory "$dir" --filter 'src/' --filter 'tools/' \
  --print-summary -o /dev/null
