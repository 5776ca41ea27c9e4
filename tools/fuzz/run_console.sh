#!/bin/sh
# Builds the libFuzzer target of the console's framing with clang and runs it for a
# bounded time. Usage: tools/fuzz/run_console.sh [seconds] (default 60).
set -eu
SECONDS_TO_RUN=${1:-60}
ROOT=$(cd "$(dirname "$0")/../.." && pwd)
OUT=${KS_FUZZ_BUILD:-$ROOT/build-fuzz}/console
CXX=${CLANGXX:-clang++}
mkdir -p "$OUT/obj" "$OUT/corpus"

NGRAN=$ROOT/lib_networkNode/app_eng/ngran
FLAGS="-std=c++20 -O1 -g -fno-omit-frame-pointer -I$ROOT/morva_core -I$NGRAN"
for src in "$ROOT"/morva_core/*.cpp "$NGRAN/KsUECServer.cpp"; do
  obj="$OUT/obj/$(basename "$src" .cpp).o"
  if [ ! -f "$obj" ] || [ "$src" -nt "$obj" ] || [ -n "$(find "$ROOT/morva_core" "$NGRAN" -name '*.h' -newer "$obj")" ]; then
    $CXX $FLAGS -fsanitize=fuzzer-no-link,address,undefined -c "$src" -o "$obj"
  fi
done
$CXX $FLAGS -fsanitize=fuzzer,address,undefined "$ROOT/tools/fuzz/fuzz_console.cpp" "$OUT"/obj/*.o \
  -lcrypto -lpthread -o "$OUT/fuzz_console"

# Seeds: a ping, a begin test split in pieces, a short record, a frame below its header,
# an unknown type, a frame at the size limit.
py=/usr/bin/python3
$py - "$OUT/corpus" <<'PY'
import struct, sys, os
d = sys.argv[1]
def msg(t, no, body=b"", size=None):
    return struct.pack("<IIIQ", 20 + len(body) if size is None else size, t, no, 0) + body
seeds = {
    "ping": b"\x00" + msg(63, 1),
    "begin_split": b"\x05" + msg(35, 2, struct.pack("<II", 1, 0)) + msg(63, 3),
    "short_record": b"\x00" + msg(49, 4) + msg(35, 5),
    "below_header": b"\x00" + msg(63, 6, size=5),
    "unknown": b"\x03" + msg(75, 7, b"\x01" * 9) + msg(2, 8) + msg(1, 9),
    "limit": b"\x11" + msg(63, 10, b"\x00" * 9980),
}
for name, data in seeds.items():
    with open(os.path.join(d, name), "wb") as f:
        f.write(data)
PY

cd "$OUT"
exec ./fuzz_console -max_total_time="$SECONDS_TO_RUN" -rss_limit_mb=4096 -print_final_stats=1 corpus
