#!/bin/sh
# Builds the libFuzzer target of the GTP-U decoder with clang under the address and undefined
# sanitizers, seeds it with the regression corpus of tools/fuzz/corpus/gtpu (every header form and
# message, and the malformed ones the endpoint drops), and runs it for a bounded time. New inputs go
# to the build folder's corpus. Usage: tools/fuzz/run_gtpu.sh [seconds] (default 60).
set -eu
SECONDS_TO_RUN=${1:-60}
ROOT=$(cd "$(dirname "$0")/../.." && pwd)
OUT=${KS_FUZZ_BUILD:-$ROOT/build-fuzz}/gtpu
CXX=${CLANGXX:-clang++}
mkdir -p "$OUT/corpus"

SAN="-fsanitize=address,undefined -fno-sanitize-recover=all"
INC="-I$ROOT/lib_protocols/tlv -I$ROOT/lib_protocols/morva_gtp"
FLAGS="-std=c++20 -O1 -g -fno-omit-frame-pointer $INC"
$CXX $FLAGS $SAN -fsanitize=fuzzer "$ROOT/tools/fuzz/fuzz_gtpu.cpp" "$ROOT/lib_protocols/morva_gtp/gtpu_codec.cpp" \
  -o "$OUT/fuzz_gtpu"

cd "$OUT"
exec ./fuzz_gtpu -max_total_time="$SECONDS_TO_RUN" -max_len=9216 -timeout=30 -rss_limit_mb=4096 \
  -print_final_stats=1 corpus "$ROOT/tools/fuzz/corpus/gtpu"
