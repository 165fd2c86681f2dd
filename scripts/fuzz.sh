#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build-fuzz and runs each for a short while (seconds
# per target: first argument, default 20), printing the executions of each run. The runs start
# from a copy of the checked-in corpus, so fuzz/corpus/ only changes by hand; a crash input is
# left in build-fuzz/crashes/<target>/ and fails the script.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
echo "== libFuzzer build (clang), ${seconds} s per target =="
targets=(policy_json policy_store pfctl_output pf_grammar ifconfig_listing helper_request)

cmake -S . -B build-fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DTARNLY_FUZZ=ON \
  -DTARNLY_BENCHMARKS=OFF >/dev/null
cmake --build build-fuzz -j 2 --target "${targets[@]/#/fuzz_}"

status=0
for target in "${targets[@]}"; do
  work=build-fuzz/runs/$target
  rm -rf "$work" "build-fuzz/crashes/$target"
  mkdir -p "$work" "build-fuzz/crashes/$target"
  cp -r "fuzz/corpus/$target/." "$work/"
  # One input running over 10 s counts as a hang.
  options=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=1024 -print_final_stats=1
    -artifact_prefix="build-fuzz/crashes/$target/")
  [ -f "fuzz/$target.dict" ] && options+=(-dict="fuzz/$target.dict")
  if ! ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    "build-fuzz/fuzz/fuzz_$target" "${options[@]}" "$work" >"build-fuzz/runs/$target.log" 2>&1; then
    status=1
    tail -n 40 "build-fuzz/runs/$target.log"
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "build-fuzz/runs/$target.log")
  echo "fuzz $target: ${runs:-0} executions in ${seconds} s"
done
exit $status
