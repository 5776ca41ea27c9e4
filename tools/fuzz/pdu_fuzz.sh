#!/bin/sh
# Builds the libFuzzer target of one family's PDU decoders (ngap or s1ap) with clang under the
# address and undefined sanitizers, seeds it with the golden set, and runs it for a bounded time.
# Usage: tools/fuzz/pdu_fuzz.sh ngap|s1ap [seconds] (default 60). The run_ngap.sh and run_s1ap.sh
# wrappers are what CI calls.
set -eu
FAMILY=$1
SECONDS_TO_RUN=${2:-60}
case $FAMILY in ngap) DEF="" ;; s1ap) DEF="-DKS_FUZZ_S1AP" ;; *) echo "usage: $0 ngap|s1ap [seconds]" >&2; exit 2 ;; esac
ROOT=$(cd "$(dirname "$0")/../.." && pwd)
OUT=${KS_FUZZ_BUILD:-$ROOT/build-fuzz}
OBJ=$OUT/obj-pdu
CXX=${CLANGXX:-clang++}
SAN="-fsanitize=address,undefined -fno-sanitize-recover=all"
FLAGS="-std=c++20 -O1 -g -fno-omit-frame-pointer -I$ROOT/morva_core -I$ROOT/lib_asn -I$ROOT/lib_asn/gen/ngap -I$ROOT/lib_asn/gen/s1ap"
mkdir -p "$OBJ" "$OUT/corpus-$FAMILY"

# Objects are rebuilt when their source or any header of the runtime or the codec is newer.
newest_header=$(ls -t "$ROOT"/morva_core/*.h "$ROOT"/lib_asn/*.h "$ROOT"/lib_asn/gen/*/*.h | head -n 1)
for src in "$ROOT"/morva_core/*.cpp "$ROOT"/lib_asn/*.cpp "$ROOT"/lib_asn/gen/$FAMILY/*.cpp; do
  obj="$OBJ/$(basename "$(dirname "$src")")_$(basename "$src" .cpp).o"
  if [ ! -f "$obj" ] || [ "$src" -nt "$obj" ] || [ "$newest_header" -nt "$obj" ]; then
    $CXX $FLAGS $SAN -fsanitize=fuzzer-no-link -c "$src" -o "$obj"
  fi
done
objs=$(ls "$OBJ"/morva_core_*.o "$OBJ"/lib_asn_*.o "$OBJ"/${FAMILY}_*.o)
$CXX $FLAGS $SAN -fsanitize=fuzzer $DEF "$ROOT/tools/fuzz/fuzz_pdu.cpp" $objs -ljansson -lcrypto -lpthread \
  -o "$OUT/fuzz_$FAMILY"

# Seeds: the golden set, one binary file per message.
while read -r name hex; do
  perl -e 'print pack("H*", $ARGV[0])' "$hex" > "$OUT/corpus-$FAMILY/golden-$name"
done < "$ROOT/tests/asn/golden/$FAMILY.hex"

cd "$OUT"
exec ./fuzz_$FAMILY -max_total_time="$SECONDS_TO_RUN" -max_len=5200 -timeout=30 -rss_limit_mb=4096 \
  -print_final_stats=1 "corpus-$FAMILY"
