#!/bin/sh
# Small GETs a second against one nghttpd: the engine's daemon (bench_http2) and h2load
# in the same run, taking turns, with the same connections and streams per connection;
# the median of each, their ratio, and the CPU time each client spent per request (user
# and system, the engine's start-up taken off), which a loaded machine disturbs less.
# Usage: bench/http2/h2load_compare.sh [runs] [connections] [streams per connection] [requests]
#        (defaults 5 1 100 200000; the build directory is $KS_BUILD or build/)
set -eu
RUNS=${1:-5}
CONNS=${2:-1}
STREAMS=${3:-100}
REQS=${4:-200000}
ROOT=$(cd "$(dirname "$0")/../.." && pwd)
BENCH=${KS_BUILD:-$ROOT/build}/bench/http2/bench_http2
PY=/usr/bin/python3
DIR=$(mktemp -d /tmp/ks_h2cmp_XXXXXX)
echo "small response" > "$DIR/small"
PORT=$((20000 + $$ % 20000))
nghttpd --no-tls -a 127.0.0.1 -d "$DIR" "$PORT" >/dev/null 2>&1 &
NGHTTPD=$!
trap 'kill $NGHTTPD 2>/dev/null; rm -rf "$DIR"' EXIT
sleep 0.5

engine() {  # requests -> "req/s failed cpu-seconds"
  KS_H2_TARGET="127.0.0.1:$PORT" KS_H2_CONNS="$CONNS" KS_H2_STREAMS="$STREAMS" KS_H2_REQUESTS="$1" \
    /usr/bin/time -f "%U %S" -o "$DIR/time" "$BENCH" --benchmark_filter='SmallGetAgainstNghttpd/env' \
    --benchmark_out="$DIR/run.json" --benchmark_out_format=json >/dev/null 2>&1
  $PY -c 'import json,sys
b = json.load(open(sys.argv[1]))["benchmarks"][0]
u, s = open(sys.argv[2]).read().split()
print("%.0f %d %.3f" % (b["items_per_second"], b["failed"], float(u) + float(s)))' "$DIR/run.json" "$DIR/time"
}

echo "small GETs against nghttpd 127.0.0.1:$PORT: $CONNS connection(s), $STREAMS streams each, $REQS requests a run"
setup=$(engine "$((CONNS * STREAMS))" | cut -d' ' -f3)
: > "$DIR/results"
for i in $(seq "$RUNS"); do
  /usr/bin/time -f "%U %S" -o "$DIR/time" h2load -n "$REQS" -c "$CONNS" -m "$STREAMS" "http://127.0.0.1:$PORT/small" \
    > "$DIR/h2load.out" 2>&1
  h=$(sed -n 's/^finished in [^,]*, \([0-9.]*\) req\/s.*/\1/p' "$DIR/h2load.out")
  hcpu=$(awk '{print $1 + $2}' "$DIR/time")
  set -- $(engine "$REQS")
  echo "run $i: h2load $h req/s, engine $1 req/s (failed $2), load average $(cut -d' ' -f1 /proc/loadavg)"
  echo "$h $hcpu $1 $3" >> "$DIR/results"
done
$PY - "$DIR/results" "$REQS" "$setup" <<'PY'
import statistics, sys
rows = [[float(x) for x in l.split()] for l in open(sys.argv[1])]
n, setup = float(sys.argv[2]), float(sys.argv[3])
mh = statistics.median(r[0] for r in rows)
me = statistics.median(r[2] for r in rows)
ch = statistics.median(r[1] for r in rows) / n * 1e6
ce = statistics.median(r[3] - setup for r in rows) / n * 1e6
print("median: h2load %.0f req/s, engine %.0f req/s, ratio engine/h2load %.2f" % (mh, me, me / mh))
print("client CPU per request: h2load %.2f us, engine %.2f us, ratio h2load/engine %.2f" % (ch, ce, ch / ce))
PY
