#!/usr/bin/env bash
# Builds everything and runs the tests. With KS_SANITIZERS=1 (CI sets it) it also
# runs the tests under address + undefined sanitizers (but for the checks by independent
# programs, tshark and Erlang, whose verdict on our bytes the sanitizers cannot change), and the runtime's
# concurrency tests under the thread sanitizer. With KS_FUZZ_SECONDS=N it runs each
# libFuzzer target for N seconds.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
jobs=${KS_JOBS:-2}

build() {  # dir, ninja target ("" for all), extra cmake args...
    local dir=$1 target=$2; shift 2
    cmake -S "$top" -B "$dir" -G Ninja "$@" >/dev/null
    ninja -C "$dir" -j "$jobs" $target
}

build "$top/build" "" -DKS_BUILD_TESTS=ON -DKS_BUILD_BENCH=ON
ctest --test-dir "$top/build" --output-on-failure -j "$jobs"

if [ "${KS_SANITIZERS:-0}" = 1 ]; then
    build "$top/build-asan" "" -DKS_SANITIZE=address,undefined -DKS_BUILD_TESTS=ON -DKS_BUILD_BENCH=OFF
    ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
        ctest --test-dir "$top/build-asan" --output-on-failure -j "$jobs" -LE independent
    build "$top/build-tsan" ks_runtime_tests -DKS_SANITIZE=thread -DKS_BUILD_TESTS=ON -DKS_BUILD_BENCH=OFF
    TSAN_OPTIONS=halt_on_error=1 ctest --test-dir "$top/build-tsan" --output-on-failure -j "$jobs" -L runtime
fi

if [ "${KS_FUZZ_SECONDS:-0}" -gt 0 ]; then
    for f in "$top"/tools/fuzz/run*.sh; do
        echo "== fuzz: $(basename "$f") for ${KS_FUZZ_SECONDS}s =="
        bash "$f" "$KS_FUZZ_SECONDS" >"$top/build/$(basename "$f" .sh).log" 2>&1 ||
            { tail -n 60 "$top/build/$(basename "$f" .sh).log"; exit 1; }
        grep -E 'stat::number_of_executed_units|Done [0-9]+ runs' "$top/build/$(basename "$f" .sh).log" | tail -n 1
    done
fi
