#!/bin/sh
# Builds the libFuzzer target of the core answerer's reading of what UEs send (its NAS
# reader, identities, NSSAIs, the security header check) with clang under the address and
# undefined-behaviour sanitizers and runs it for the given time.
# Usage: tools/fuzz/run_ca.sh [seconds] (default 60).
set -eu
SECONDS_TO_RUN=${1:-60}
ROOT=$(cd "$(dirname "$0")/../.." && pwd)
OUT=${KS_FUZZ_BUILD:-$ROOT/build-fuzz}/core_answerer
CXX=${CLANGXX:-clang++}
mkdir -p "$OUT/obj"

SAN="-fsanitize=address,undefined -fno-sanitize-recover=undefined"
INC="-I$ROOT/morva_core -I$ROOT/lib_asn -I$ROOT/lib_asn/nas -I$ROOT/lib_asn/nas_utils -I$ROOT/lib_mvalgo"
INC="$INC -I$ROOT/tools/core_answerer"
# The crypto library builds its SNOW 3G tables at compile time, past clang's default step budget.
FLAGS="-std=c++20 -O1 -g -fno-omit-frame-pointer -fconstexpr-steps=100000000 $INC"
SRCS="$ROOT/morva_core/*.cpp $ROOT/lib_asn/mv_asn_prim.cpp $ROOT/lib_asn/mv_asn_walk.cpp $ROOT/lib_asn/nas/*.cpp"
SRCS="$SRCS $ROOT/lib_asn/nas_utils/*.cpp $ROOT/lib_mvalgo/*.cpp $ROOT/tools/core_answerer/ca_nas.cpp"
HDRS="$ROOT/morva_core $ROOT/lib_asn $ROOT/lib_asn/nas $ROOT/lib_asn/nas_utils $ROOT/lib_mvalgo $ROOT/tools/core_answerer"
for src in $SRCS; do
  obj="$OUT/obj/$(basename "$(dirname "$src")")_$(basename "$src" .cpp).o"
  # shellcheck disable=SC2086
  if [ ! -f "$obj" ] || [ "$src" -nt "$obj" ] || [ -n "$(find $HDRS -maxdepth 1 -name '*.h' -newer "$obj")" ]; then
    $CXX $FLAGS -fsanitize=fuzzer-no-link $SAN -c "$src" -o "$obj"
  fi
done
$CXX $FLAGS -fsanitize=fuzzer $SAN "$ROOT/tools/fuzz/fuzz_ca.cpp" "$OUT"/obj/*.o -lcrypto -lpthread -o "$OUT/fuzz_ca"

# Seeds: the selector octet, then a message in hexadecimal.
seed() {  # name hex
  mkdir -p "$OUT/corpus"
  h=$2
  while [ -n "$h" ]; do
    b=${h%"${h#??}"}
    h=${h#??}
    printf "\\$(printf '%03o' "0x$b")"
  done > "$OUT/corpus/$1"
}
seed regreq 007e004179000d0100f110f0ff000000000000102e02e0e02f020101520000000000004002020071000a7e004179000d0100f110
seed ulnas 007e006701000a2e0501c1ffff935500101205812502016122010101
seed smcomplete 007e005e7700090535693803564380f17100067e0041790001
seed authfail 007e0059153010000102030405060708090a0b0c0d
seed identity 01f200f110010041000001
seed protected 02220001ff7e02aabbccdd017e0043

echo "== fuzz_ca for ${SECONDS_TO_RUN}s"
(cd "$OUT" && ./fuzz_ca -max_total_time="$SECONDS_TO_RUN" -rss_limit_mb=4096 -print_final_stats=1 corpus)
