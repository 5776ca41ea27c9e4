#!/bin/sh
# Builds the libFuzzer target of the UE's downlink unwrapping (the NAS security header,
# the crypto library behind it and the NAS decoders) with clang under the address and
# undefined-behaviour sanitizers and runs it for the given time.
# Usage: tools/fuzz/run_nassec.sh [seconds] (default 60).
set -eu
SECONDS_TO_RUN=${1:-60}
ROOT=$(cd "$(dirname "$0")/../.." && pwd)
OUT=${KS_FUZZ_BUILD:-$ROOT/build-fuzz}/nassec
CXX=${CLANGXX:-clang++}
mkdir -p "$OUT/obj"

SAN="-fsanitize=address,undefined -fno-sanitize-recover=undefined"
INC="-I$ROOT/morva_core -I$ROOT/lib_asn -I$ROOT/lib_asn/nas -I$ROOT/lib_asn/nas_utils -I$ROOT/lib_mvalgo"
INC="$INC -I$ROOT/lib_networkNode/app_eng/ngran"
# The crypto library builds its SNOW 3G tables at compile time, past clang's default step budget.
FLAGS="-std=c++20 -O1 -g -fno-omit-frame-pointer -fconstexpr-steps=100000000 $INC"
SRCS="$ROOT/morva_core/*.cpp $ROOT/lib_asn/mv_asn_prim.cpp $ROOT/lib_asn/mv_asn_walk.cpp $ROOT/lib_asn/nas/*.cpp"
SRCS="$SRCS $ROOT/lib_mvalgo/*.cpp $ROOT/lib_networkNode/app_eng/ngran/KsNAS_security.cpp"
HDRS="$ROOT/morva_core $ROOT/lib_asn $ROOT/lib_asn/nas $ROOT/lib_mvalgo $ROOT/lib_networkNode/app_eng/ngran"
for src in $SRCS; do
  obj="$OUT/obj/$(basename "$(dirname "$src")")_$(basename "$src" .cpp).o"
  # shellcheck disable=SC2086
  if [ ! -f "$obj" ] || [ "$src" -nt "$obj" ] || [ -n "$(find $HDRS -maxdepth 1 -name '*.h' -newer "$obj")" ]; then
    $CXX $FLAGS -fsanitize=fuzzer-no-link $SAN -c "$src" -o "$obj"
  fi
done
$CXX $FLAGS -fsanitize=fuzzer $SAN "$ROOT/tools/fuzz/fuzz_nassec.cpp" "$OUT"/obj/*.o -lcrypto -lpthread \
  -o "$OUT/fuzz_nassec"

# Seeds: the context octet, then a PDU in hexadecimal. One per security header type.
seed() {  # name hex
  mkdir -p "$OUT/corpus"
  h=$2
  while [ -n "$h" ]; do
    b=${h%"${h#??}"}
    h=${h#??}
    printf "\\$(printf '%03o' "0x$b")"
  done > "$OUT/corpus/$1"
}
seed plain 107e00640f
seed nia0nea0 107e0200000000007e00640f
seed nia0nea2 187e020000000000c3a1b2
seed wrap 507e02000000000f7e006420
seed smc 007e0300000000007e005d000102e0e0
seed smc2 007e0300000000007e005d220102e0e0e1
seed integrity 107e01000000000f7e006420
seed dlnas 107e0200000000007e00680100152e0501c211000006060064060032290501090807061205
seed accept 107e0200000000007e0042010177000bf202f839cafe011234567854070002f8390000015e0106

echo "== fuzz_nassec for ${SECONDS_TO_RUN}s"
cd "$OUT"
exec ./fuzz_nassec -max_total_time="$SECONDS_TO_RUN" -rss_limit_mb=4096 -print_final_stats=1 corpus
