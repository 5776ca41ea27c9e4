#!/bin/sh
# Builds the libFuzzer target of the byte and string helpers with clang and runs it
# for a bounded time. Usage: tools/fuzz/run.sh [seconds] (default 60).
set -eu
SECONDS_TO_RUN=${1:-60}
ROOT=$(cd "$(dirname "$0")/../.." && pwd)
OUT=${KS_FUZZ_BUILD:-$ROOT/build-fuzz}
CXX=${CLANGXX:-clang++}
mkdir -p "$OUT/obj" "$OUT/corpus"

FLAGS="-std=c++20 -O1 -g -fno-omit-frame-pointer -I$ROOT/morva_core"
for src in "$ROOT"/morva_core/*.cpp; do
  obj="$OUT/obj/$(basename "$src" .cpp).o"
  if [ ! -f "$obj" ] || [ "$src" -nt "$obj" ] || [ -n "$(find "$ROOT/morva_core" -name '*.h' -newer "$obj")" ]; then
    $CXX $FLAGS -fsanitize=fuzzer-no-link,address -c "$src" -o "$obj"
  fi
done
$CXX $FLAGS -fsanitize=fuzzer,address "$ROOT/tools/fuzz/fuzz_bytes.cpp" "$OUT"/obj/*.o \
  -lcrypto -lpthread -o "$OUT/fuzz_bytes"

# Seeds: one per helper family.
printf '\000\001 00f110 ab' > "$OUT/corpus/hex"
printf '\001\000001010123456789' > "$OUT/corpus/bcd"
printf '\002\000\010internet\003mnc' > "$OUT/corpus/apn"
printf '\002\001192.168.10.1' > "$OUT/corpus/ip"
printf '\003\002\000\007\252\273\314\335\356' > "$OUT/corpus/reader"
printf '\004\000QWxhZGRpbjpvcGVuIHNlc2FtZQ==,a,,b' > "$OUT/corpus/text"

cd "$OUT"
exec ./fuzz_bytes -max_total_time="$SECONDS_TO_RUN" -rss_limit_mb=4096 -print_final_stats=1 corpus
