#!/bin/sh
# Regenerates the descriptor tables and records of the TLV protocols from their element lists.
# With --check, generates into a scratch folder and fails when the committed files differ.
set -eu
top=$(cd "$(dirname "$0")/../.." && pwd)
py=/usr/bin/python3
[ -x "$py" ] || py=python3
src=$top/lib_protocols/pfcp/pfcp/pfcp.tlv
out=$top/lib_protocols/pfcp/pfcp/gen
if [ "${1:-}" = "--check" ]; then
    out=$(mktemp -d)
    trap 'rm -rf "$out"' EXIT
fi
"$py" "$top/tools/tlvgen/tlvgen.py" "$src" "$out"
if [ "${1:-}" = "--check" ]; then
    diff -r "$top/lib_protocols/pfcp/pfcp/gen" "$out" >/dev/null ||
        { echo "regen: generated sources differ from lib_protocols/pfcp/pfcp/gen" >&2; exit 1; }
    echo "regen: generated sources are up to date"
fi
