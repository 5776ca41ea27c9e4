#!/bin/sh
# Small GETs a second against one nghttpd: the engine's daemon (bench_http2) and h2load
# in the same run, taking turns, with the same connections and streams per connection;
# the median of each and their ratio.
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

echo "small GETs against nghttpd 127.0.0.1:$PORT: $CONNS connection(s), $STREAMS streams each, $REQS requests a run"
: > "$DIR/h2load"
: > "$DIR/engine"
for i in $(seq "$RUNS"); do
  h=$(h2load -n "$REQS" -c "$CONNS" -m "$STREAMS" "http://127.0.0.1:$PORT/small" |
      sed -n 's/^finished in [^,]*, \([0-9.]*\) req\/s.*/\1/p')
  KS_H2_TARGET="127.0.0.1:$PORT" KS_H2_CONNS="$CONNS" KS_H2_STREAMS="$STREAMS" KS_H2_REQUESTS="$REQS" \
      "$BENCH" --benchmark_filter='SmallGetAgainstNghttpd/env' --benchmark_out="$DIR/run.json" \
      --benchmark_out_format=json >/dev/null 2>&1
  e=$($PY -c 'import json,sys; b=json.load(open(sys.argv[1]))["benchmarks"][0]; print("%.0f %d" % (b["items_per_second"], b["failed"]))' "$DIR/run.json")
  echo "run $i: h2load $h req/s, engine ${e% *} req/s (failed ${e#* }), load average $(cut -d' ' -f1 /proc/loadavg)"
  echo "$h" >> "$DIR/h2load"
  echo "${e% *}" >> "$DIR/engine"
done
$PY - "$DIR/h2load" "$DIR/engine" <<'PY'
import statistics, sys
h = [float(x) for x in open(sys.argv[1])]
e = [float(x) for x in open(sys.argv[2])]
mh, me = statistics.median(h), statistics.median(e)
print("median: h2load %.0f req/s, engine %.0f req/s, ratio engine/h2load %.2f" % (mh, me, me / mh))
PY
