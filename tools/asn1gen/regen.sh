#!/bin/sh
# Regenerates the NGAP and S1AP descriptor tables and records of lib_asn from the ASN.1 modules.
# With --check, generates into a scratch folder and fails when the committed files differ.
set -eu
top=$(cd "$(dirname "$0")/../.." && pwd)
py=/usr/bin/python3
[ -x "$py" ] || py=python3
out=$top/lib_asn/gen
if [ "${1:-}" = "--check" ]; then
    out=$(mktemp -d)
    trap 'rm -rf "$out"' EXIT
fi
"$py" "$top/tools/asn1gen/asn1gen.py" ngap "$top/lib_asn/asn1/ngap" "$out/ngap"
"$py" "$top/tools/asn1gen/asn1gen.py" s1ap "$top/lib_asn/asn1/s1ap" "$out/s1ap"
if [ "${1:-}" = "--check" ]; then
    diff -r "$top/lib_asn/gen" "$out" >/dev/null || { echo "regen: generated sources differ from lib_asn/gen" >&2; exit 1; }
    echo "regen: generated sources are up to date"
fi
