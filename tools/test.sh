#!/usr/bin/env bash
# Builds everything and runs the tests. With KS_SANITIZERS=1 (CI sets it) the tests run
# under the address and undefined sanitizers instead, and the runtime's concurrency tests
# also under the thread sanitizer. With KS_FUZZ_SECONDS=N it runs each libFuzzer target
# for N seconds.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
jobs=${KS_JOBS:-2}

bash "$top/tools/setup.sh" test

# Runs ctest; tests that fail run once more on their own, so a test that lost a race with
# this shared machine's load is told apart from a broken one. Both runs are in the log, and
# a test that passes only the second time is named as flaky.
run_tests() {  # dir, ctest args...
    local dir=$1; shift
    if ctest --test-dir "$dir" --output-on-failure "$@"; then return 0; fi
    echo "== running the failed tests once more =="
    ctest --test-dir "$dir" --output-on-failure --rerun-failed "$@" || return 1
    echo "== FLAKY: the tests that failed above passed on their second run; their first output is above =="
}

build() {  # dir, ninja target ("" for all), extra cmake args...
    local dir=$1 target=$2; shift 2
    cmake -S "$top" -B "$dir" -G Ninja "$@" >/dev/null
    ninja -C "$dir" -j "$jobs" $target
}

if [ "${KS_SANITIZERS:-0}" = 1 ]; then
    # The whole suite runs once, under the address and undefined sanitizers; the plain
    # build makes the engine, its tools and the benchmarks, whose warnings at full
    # optimisation are errors too. The scale test of a million UEs runs in the plain suite only.
    build "$top/build" "" -DKS_BUILD_TESTS=OFF -DKS_BUILD_BENCH=ON
    build "$top/build-asan" "" -DKS_SANITIZE=address,undefined -DKS_BUILD_TESTS=ON -DKS_BUILD_BENCH=OFF
    # Most tests wait on engines and peers rather than compute: one more than the cores.
    ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
        run_tests "$top/build-asan" -j "$((jobs + 1))"
    build "$top/build-tsan" ks_runtime_tests -DKS_SANITIZE=thread -DKS_BUILD_TESTS=ON -DKS_BUILD_BENCH=OFF
    TSAN_OPTIONS=halt_on_error=1 run_tests "$top/build-tsan" -j "$jobs" -L runtime
else
    build "$top/build" "" -DKS_BUILD_TESTS=ON -DKS_BUILD_BENCH=ON
    run_tests "$top/build" -j "$jobs"
fi

if [ "${KS_FUZZ_SECONDS:-0}" -gt 0 ]; then
    for f in "$top"/tools/fuzz/run*.sh; do
        echo "== fuzz: $(basename "$f") for ${KS_FUZZ_SECONDS}s =="
        bash "$f" "$KS_FUZZ_SECONDS" >"$top/build/$(basename "$f" .sh).log" 2>&1 ||
            { tail -n 60 "$top/build/$(basename "$f" .sh).log"; exit 1; }
        grep -E 'stat::number_of_executed_units|Done [0-9]+ runs' "$top/build/$(basename "$f" .sh).log" | tail -n 1
    done
fi
