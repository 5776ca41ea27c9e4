#!/usr/bin/env bash
# Builds the engine, kestranectl and the core answerer, and runs the main job as a user
# would: the core answerer (an AMF for the default UE range) starts in a network namespace
# of its own, the engine's gNB connects to it over SCTP, and 1,000 UEs register with
# 5G-AKA and security mode, open a PDU session, sleep a second and deregister, at 500 UE
# starts a second. The progress, the counters, the core's summary and the report's place
# are shown; then both processes are ended by a signal and the namespace removed.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${KS_BUILD_DIR:-$top/build}
run=${KS_RUN_DIR:-$top/run}
test_id=${KS_TEST_ID:-1}
ns=ksrun
engine_ip=10.210.0.1
core_ip=10.210.0.2

bash "$top/tools/setup.sh" run

if [ "$(id -u)" != 0 ]; then
    echo "the default run puts the core answerer in a network namespace of its own: run it as root" >&2
    exit 1
fi

# The engine, its console client and the core answerer only: the tests are tools/test.sh's.
cmake -S "$top" -B "$build" -G Ninja -DKS_BUILD_TESTS=OFF -DKS_BUILD_BENCH=OFF >/dev/null
ninja -C "$build" kestrane kestranectl core_answerer
ctl=("$build/tools/kestranectl/kestranectl" --host "$engine_ip")

# A run folder keeps what it has: data lists and templates a user edited stay.
mkdir -p "$run/data" "$run/resources"
cp -n "$top"/config/default-run/data/*.json "$run/data/"
cp -rn "$top/config/data/." "$run/data/"
cp -rn "$top/config/resources/." "$run/resources/"
cd "$run"

engine=0 core=0
cleanup() {
    [ "$engine" = 0 ] || kill -TERM "$engine" 2>/dev/null || true
    [ "$core" = 0 ] || kill -TERM "$core" 2>/dev/null || true
    wait 2>/dev/null || true
    ip netns del "$ns" 2>/dev/null || true
    ip link del "${ns}0" 2>/dev/null || true
}
trap cleanup EXIT

# The userspace SCTP stack on raw IP sees every SCTP packet of its namespace: the core
# answerer gets a namespace of its own, joined to this one by a veth pair.
ip netns del "$ns" 2>/dev/null || true
ip link del "${ns}0" 2>/dev/null || true
ip netns add "$ns"
ip link add "${ns}0" type veth peer name "${ns}1" netns "$ns"
ip addr add "$engine_ip/24" dev "${ns}0"
ip link set "${ns}0" up
ip -n "$ns" addr add "$core_ip/24" dev "${ns}1"
ip -n "$ns" link set "${ns}1" up
ip -n "$ns" link set lo up

mkdir -p core
ip netns exec "$ns" "$build/tools/core_answerer/core_answerer" --bind "$core_ip" --log-dir "$run/core/logs/" \
    >core/core.out 2>&1 &
core=$!
for _ in $(seq 1 60); do
    grep -q '^READY' core/core.out && break
    kill -0 $core 2>/dev/null || { cat core/core.out; echo "the core answerer ended early"; exit 1; }
    sleep 0.5
done
grep '^READY' core/core.out

"$build/lib_networkNode/kestrane" "$top/config/default-run/kestrane.json" >engine.out 2>&1 &
engine=$!
# The console opens early in start-up; wait for it, then for the gNB's NG Setup.
for _ in $(seq 1 60); do
    "${ctl[@]}" --timeout 1 ping >/dev/null 2>&1 && break
    kill -0 $engine 2>/dev/null || { cat engine.out; echo "the engine ended early"; exit 1; }
    sleep 0.5
done
"${ctl[@]}" ping
for _ in $(seq 1 60); do
    grep -q 'NG Setup of' core/logs/app/*.log 2>/dev/null && break
    sleep 0.5
done
grep -h 'NG Setup of' core/logs/app/*.log | sed 's/^.*||/core: /; s/ <.*$//' || echo "no NG Setup seen yet"

# UEs are bound to their RAN before they run a step.
"${ctl[@]}" latch 10000
sleep 2
"${ctl[@]}" start "$test_id"
"${ctl[@]}" wait "$test_id"
"${ctl[@]}" status "$test_id" --app-type 1
echo
"${ctl[@]}" stats | grep -E '^(UERegistered|UEDeRegistered|UERegRejected|NGAPErrors|NASErrors|TestCaseTimeout) '
"${ctl[@]}" report
report=""
for _ in $(seq 1 20); do
    report=$(ls -t reports/*.txt 2>/dev/null | head -n 1 || true)
    [ -n "$report" ] && break
    sleep 0.5
done

kill -TERM $engine
wait $engine || true
engine=0
kill -TERM $core
wait $core || true
core=0
echo
echo "== the core answerer's summary =="
sed -n '/^READY/,$p' core/core.out | tail -n +2 | head -n 40
if [ -n "$report" ]; then
    echo
    echo "== $run/$report ($(wc -l <"$report") lines), its beginning =="
    head -n 12 "$report"
fi
echo
echo "engine logs: $run/logs/, the core answerer's: $run/core/logs/"
