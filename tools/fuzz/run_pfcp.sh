#!/bin/sh
# Builds the libFuzzer target of the PFCP decoder with clang under the address and undefined
# sanitizers, seeds it with the regression corpus of tools/fuzz/corpus/pfcp (a message of every type,
# answers another encoder built, refused datagrams), and runs it for a bounded time. New inputs go to
# the build folder's corpus, not the repository's. Usage: tools/fuzz/run_pfcp.sh [seconds] (default 60).
set -eu
SECONDS_TO_RUN=${1:-60}
ROOT=$(cd "$(dirname "$0")/../.." && pwd)
OUT=${KS_FUZZ_BUILD:-$ROOT/build-fuzz}/pfcp
CXX=${CLANGXX:-clang++}
mkdir -p "$OUT/obj" "$OUT/corpus"

SAN="-fsanitize=address,undefined -fno-sanitize-recover=all"
INC="-I$ROOT/morva_core -I$ROOT/lib_protocols/tlv -I$ROOT/lib_protocols/pfcp/pfcp"
FLAGS="-std=c++20 -O1 -g -fno-omit-frame-pointer $INC"
SRCS="$ROOT/morva_core/*.cpp $ROOT/lib_protocols/tlv/*.cpp $ROOT/lib_protocols/pfcp/pfcp/gen/*.cpp
      $ROOT/lib_protocols/pfcp/pfcp/pfcp_codec.cpp $ROOT/lib_protocols/pfcp/pfcp/pfcp_json.cpp"
newest_header=$(ls -t "$ROOT"/morva_core/*.h "$ROOT"/lib_protocols/tlv/*.h "$ROOT"/lib_protocols/pfcp/pfcp/*.h \
                "$ROOT"/lib_protocols/pfcp/pfcp/gen/*.h | head -n 1)
for src in $SRCS; do
  obj="$OUT/obj/$(basename "$(dirname "$src")")_$(basename "$src" .cpp).o"
  if [ ! -f "$obj" ] || [ "$src" -nt "$obj" ] || [ "$newest_header" -nt "$obj" ]; then
    $CXX $FLAGS $SAN -fsanitize=fuzzer-no-link -c "$src" -o "$obj"
  fi
done
$CXX $FLAGS $SAN -fsanitize=fuzzer "$ROOT/tools/fuzz/fuzz_pfcp.cpp" "$OUT"/obj/*.o -ljansson -lcrypto -lpthread \
  -o "$OUT/fuzz_pfcp"

cd "$OUT"
exec ./fuzz_pfcp -max_total_time="$SECONDS_TO_RUN" -max_len=65536 -timeout=30 -rss_limit_mb=4096 \
  -print_final_stats=1 corpus "$ROOT/tools/fuzz/corpus/pfcp"
