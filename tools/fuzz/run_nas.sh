#!/bin/sh
# Builds the libFuzzer targets of the NAS decoders (5GS and EPS) with clang under the address and
# undefined-behaviour sanitizers and runs each for half the given time.
# Usage: tools/fuzz/run_nas.sh [seconds] (default 60).
set -eu
SECONDS_TO_RUN=${1:-60}
EACH=$(( (SECONDS_TO_RUN + 1) / 2 ))
ROOT=$(cd "$(dirname "$0")/../.." && pwd)
OUT=${KS_FUZZ_BUILD:-$ROOT/build-fuzz}/nas
CXX=${CLANGXX:-clang++}
mkdir -p "$OUT/obj"

SAN="-fsanitize=address,undefined -fno-sanitize-recover=undefined"
FLAGS="-std=c++20 -O1 -g -fno-omit-frame-pointer -I$ROOT/morva_core -I$ROOT/lib_asn -I$ROOT/lib_asn/nas -I$ROOT/lib_asn/nas_utils"
SRCS="$ROOT/morva_core/*.cpp $ROOT/lib_asn/mv_asn_prim.cpp $ROOT/lib_asn/mv_asn_walk.cpp $ROOT/lib_asn/nas/*.cpp $ROOT/lib_asn/nas_utils/*.cpp"
for src in $SRCS; do
  obj="$OUT/obj/$(basename "$(dirname "$src")")_$(basename "$src" .cpp).o"
  dir=$(dirname "$src")
  if [ ! -f "$obj" ] || [ "$src" -nt "$obj" ] || [ -n "$(find "$dir" "$ROOT/lib_asn" "$ROOT/morva_core" -maxdepth 1 -name '*.h' -newer "$obj")" ]; then
    $CXX $FLAGS -fsanitize=fuzzer-no-link $SAN -c "$src" -o "$obj"
  fi
done

for fam in 5g eps; do
  case $fam in 5g) eps=0 ;; *) eps=1 ;; esac
  $CXX $FLAGS -fsanitize=fuzzer $SAN -DKS_FUZZ_EPS=$eps "$ROOT/tools/fuzz/fuzz_nas.cpp" "$OUT"/obj/*.o \
    -lcrypto -lpthread -o "$OUT/fuzz_nas$fam"
done

# Seeds: selector octet, choice octet, then a message, in hexadecimal. One per decoder path.
seed() {  # family name hex
  mkdir -p "$OUT/corpus_$1"
  h=$3
  while [ -n "$h" ]; do
    b=${h%"${h#??}"}
    h=${h#??}
    printf "\\$(printf '%03o' "0x$b")"
  done > "$OUT/corpus_$1/$2"
}
seed 5g accept 00007e0042010177000bf202f839cafe011234567854070002f8390000015e0106
seed 5g authreq 00007e0056020200002100112233445566778899aabbccddeeff20100123456789abcdef0123456789abcdef
seed 5g smc 01007e03a1b2c3d4007e005d020204e0e0c0c0e15702360102
seed 5g dlnas 00007e00680100152e0501c211000006060064060032290501090807061205
seed 5g regreq 02007e004179000d0102f8392143000010325476981001002e02e0e0
seed 5g ie 031d29050109080706
seed 5g nssai 040004010102030101
seed eps attach 000007420221060002f839000100255201c101090908696e7465726e657405010a2d00025e04fefefafa270880000d0408080808500bf602f839800101c0ffee01
seed eps authreq 000007520100112233445566778899aabbccddeeff100123456789abcdef0123456789abcdef
seed eps smc 0100370a0b0c0d00075d020102e0e0c1
seed eps esm 02010201d9
seed eps ie 0341500bf602f839800101c0ffee01

for fam in 5g eps; do
  echo "== fuzz_nas$fam for ${EACH}s"
  (cd "$OUT" && ./fuzz_nas$fam -max_total_time="$EACH" -rss_limit_mb=4096 -print_final_stats=1 "corpus_$fam")
done
