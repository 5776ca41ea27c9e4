#!/bin/sh
# Builds the libFuzzer target of the Diameter decoder with clang under the address and
# undefined-behaviour sanitizers, seeds it with tools/fuzz/corpus/diameter, and runs it for a
# bounded time. Usage: tools/fuzz/run_diameter.sh [seconds] (default 60).
set -eu
SECONDS_TO_RUN=${1:-60}
ROOT=$(cd "$(dirname "$0")/../.." && pwd)
OUT=${KS_FUZZ_BUILD:-$ROOT/build-fuzz}/diameter
CXX=${CLANGXX:-clang++}
mkdir -p "$OUT/obj" "$OUT/corpus"

SAN="-fsanitize=address,undefined -fno-sanitize-recover=undefined"
FLAGS="-std=c++20 -O1 -g -fno-omit-frame-pointer -I$ROOT/morva_core -I$ROOT/lib_endpoint/socket_engine -I$ROOT/lib_endpoint/lib_diam"
for src in "$ROOT"/morva_core/*.cpp "$ROOT"/lib_endpoint/lib_diam/mv_diam_codec.cpp; do
  obj="$OUT/obj/$(basename "$src" .cpp).o"
  if [ ! -f "$obj" ] || [ "$src" -nt "$obj" ] ||
     [ -n "$(find "$ROOT/morva_core" "$ROOT/lib_endpoint/lib_diam" -name '*.h' -newer "$obj")" ]; then
    $CXX $FLAGS -fsanitize=fuzzer-no-link $SAN -c "$src" -o "$obj"
  fi
done
$CXX $FLAGS -fsanitize=fuzzer $SAN "$ROOT/tools/fuzz/fuzz_diameter.cpp" "$OUT"/obj/*.o \
  -ljansson -lcrypto -lpthread -o "$OUT/fuzz_diameter"

cp "$ROOT"/tools/fuzz/corpus/diameter/* "$OUT/corpus/"
cd "$OUT"
exec ./fuzz_diameter -max_total_time="$SECONDS_TO_RUN" -max_len=8192 -timeout=30 -rss_limit_mb=4096 \
  -print_final_stats=1 corpus
