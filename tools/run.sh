#!/usr/bin/env bash
# Builds the engine and runs its main job on the default configuration: the engine
# starts in ./run, runs the default test to its end, prints the test's summary from
# the logs and is then ended by a signal, as a user would end it.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${KS_BUILD_DIR:-$top/build}
run=${KS_RUN_DIR:-$top/run}

cmake -S "$top" -B "$build" -G Ninja >/dev/null
ninja -C "$build" kestrane

mkdir -p "$run"
[ -d "$run/data" ] || cp -r "$top/config/data" "$run/data"
cd "$run"
"$build/lib_networkNode/kestrane" "$top/config/kestrane.json" &
pid=$!
trap 'kill -TERM $pid 2>/dev/null || true' EXIT

for _ in $(seq 1 120); do
    if cat logs/cmn/*.log 2>/dev/null | grep -q "Completed TestId=1 \|Interrupted/Stopped TestId=1 "; then break; fi
    kill -0 $pid 2>/dev/null || { echo "the engine ended early"; exit 1; }
    sleep 1
done
echo
echo "== test 1, from $run/logs/cmn =="
cat logs/cmn/*.log | grep -E "Starting Test|TestId=1 |End Of ScalingModeTest|Completed TestId" | cut -d'|' -f2,5- | sed 's/ *[A-Za-z_.]*|[A-Za-z_]*|[0-9]*$//'
kill -TERM $pid
wait $pid || true
trap - EXIT
