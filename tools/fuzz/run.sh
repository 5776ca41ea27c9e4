#!/bin/sh
# Builds every fuzz target through CMake with clang as a libFuzzer program under the address and
# undefined sanitizers (build-fuzz, -DKS_FUZZ=ON), and runs each for the given seconds from its
# regression corpus. New inputs go to build-fuzz/fuzz/work/<target>, never into the repository;
# a crash leaves its input in build-fuzz/fuzz and fails the run.
# Usage: tools/fuzz/run.sh [seconds] [target...] (default 60 seconds, every target).
set -eu
SECONDS_TO_RUN=${1:-60}
if [ $# -gt 0 ]; then shift; fi
ROOT=$(cd "$(dirname "$0")/../.." && pwd)
OUT=${KS_FUZZ_BUILD:-$ROOT/build-fuzz}

CC=${CLANG:-clang} CXX=${CLANGXX:-clang++} cmake -S "$ROOT" -B "$OUT" -G Ninja -DKS_FUZZ=ON \
  -DKS_BUILD_TESTS=OFF -DKS_BUILD_BENCH=OFF >/dev/null
ninja -C "$OUT" -j "${KS_JOBS:-2}" ks_fuzz

status=0
while IFS='|' read -r name corpus options; do
  if [ $# -gt 0 ]; then
    case " $* " in *" $name "*) ;; *) continue ;; esac
  fi
  work=$OUT/fuzz/work/$name
  log=$OUT/fuzz/$name.log
  mkdir -p "$work"
  echo "== $name for ${SECONDS_TO_RUN}s"
  # shellcheck disable=SC2086
  if (cd "$OUT/fuzz" && "./$name" -max_total_time="$SECONDS_TO_RUN" -rss_limit_mb=4096 -print_final_stats=1 \
        -artifact_prefix="$OUT/fuzz/$name-" $options "$work" "$corpus") <"/dev/null" >"$log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    echo "fuzz target $name: ${runs:-?} runs in ${SECONDS_TO_RUN}s, no fault"
  else
    tail -n 60 "$log"
    echo "fuzz target $name: FAULT, see $log"
    status=1
  fi
done <"$OUT/fuzz_targets.txt"
exit $status
