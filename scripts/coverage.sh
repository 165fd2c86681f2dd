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
# A program a test runs as another user cannot write its counters; keep libgcov's complaint out of
# the output that test compares.
export GCOV_ERROR_FILE=/dev/null
(cd "$dir" && ctest -j "$(nproc)" --timeout 600 >/dev/null) || echo "(some tests failed; coverage of what ran)"
gcovr --root . --object-directory "$dir" --filter 'src/' --filter 'tools/' \
  --print-summary -o /dev/null
