#!/bin/sh
# Builds the libFuzzer target of the HTTP/2 frame decoder with clang under the address and
# undefined sanitizers, seeds it with tools/fuzz/corpus/http2, and runs it for a bounded time.
# Usage: tools/fuzz/run_http2.sh [seconds] (default 60).
set -eu
SECONDS_TO_RUN=${1:-60}
ROOT=$(cd "$(dirname "$0")/../.." && pwd)
OUT=${KS_FUZZ_BUILD:-$ROOT/build-fuzz}/http2
CXX=${CLANGXX:-clang++}
mkdir -p "$OUT/obj" "$OUT/corpus"

SAN="-fsanitize=address,undefined -fno-sanitize-recover=undefined"
EP=$ROOT/lib_endpoint
FLAGS="-std=c++20 -O1 -g -fno-omit-frame-pointer -I$ROOT/morva_core -I$EP/socket_engine -I$EP/morva_http2_endpoint"
for src in "$ROOT"/morva_core/*.cpp "$EP"/socket_engine/*.cpp "$EP"/morva_http2_endpoint/*.cpp; do
  obj="$OUT/obj/$(basename "$(dirname "$src")")_$(basename "$src" .cpp).o"
  dir=$(dirname "$src")
  if [ ! -f "$obj" ] || [ "$src" -nt "$obj" ] ||
     [ -n "$(find "$dir" "$ROOT/morva_core" "$EP/socket_engine" -maxdepth 1 -name '*.h' -newer "$obj")" ]; then
    $CXX $FLAGS -fsanitize=fuzzer-no-link $SAN -c "$src" -o "$obj"
  fi
done
$CXX $FLAGS -fsanitize=fuzzer $SAN "$ROOT/tools/fuzz/fuzz_http2.cpp" "$OUT"/obj/*.o \
  -lnghttp2 -lsctp -lusrsctp -lcrypto -lpthread -o "$OUT/fuzz_http2"

# The regression corpus stays as it is in the tree; the run works on a copy.
cp "$ROOT"/tools/fuzz/corpus/http2/* "$OUT/corpus/"
cd "$OUT"
exec ./fuzz_http2 -max_total_time="$SECONDS_TO_RUN" -max_len=70000 -rss_limit_mb=4096 -print_final_stats=1 corpus
