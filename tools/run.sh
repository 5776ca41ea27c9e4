#!/usr/bin/env bash
# Builds the engine and kestranectl and runs the main job on the default
# configuration, as a user would: the engine starts in ./run (with config/data and
# config/resources), kestranectl queues the default test over the console, waits for
# it to end, asks for a text report and shows it; then the engine is ended by a signal.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${KS_BUILD_DIR:-$top/build}
run=${KS_RUN_DIR:-$top/run}

bash "$top/tools/setup.sh" run

# The engine and its console client only: the tests and their checkers are tools/test.sh's.
cmake -S "$top" -B "$build" -G Ninja -DKS_BUILD_TESTS=OFF -DKS_BUILD_BENCH=OFF >/dev/null
ninja -C "$build" kestrane kestranectl
ctl="$build/tools/kestranectl/kestranectl"

mkdir -p "$run"
[ -d "$run/data" ] || cp -r "$top/config/data" "$run/data"
# Message templates and AVP dictionaries: files the run folder lacks are added, edited ones kept.
mkdir -p "$run/resources" && cp -rn "$top/config/resources/." "$run/resources/"
cd "$run"
"$build/lib_networkNode/kestrane" "$top/config/kestrane.json" >engine.out 2>&1 &
pid=$!
trap 'kill -TERM $pid 2>/dev/null || true' EXIT

# The console opens early in start-up; wait for it.
for _ in $(seq 1 60); do
    "$ctl" --timeout 1 ping >/dev/null 2>&1 && break
    kill -0 $pid 2>/dev/null || { cat engine.out; echo "the engine ended early"; exit 1; }
    sleep 0.5
done

"$ctl" ping
"$ctl" start 1
"$ctl" wait 1
"$ctl" report
for _ in $(seq 1 20); do
    report=$(ls -t reports/*.txt 2>/dev/null | head -n 1 || true)
    [ -n "$report" ] && break
    sleep 0.5
done
echo
echo "== $run/$report ($(wc -l <"$report") lines), its beginning =="
head -n 12 "$report"
kill -TERM $pid
wait $pid || true
trap - EXIT
