#!/bin/sh
# Fuzzes the ngap PDU decoders for a bounded time. Usage: tools/fuzz/run_ngap.sh [seconds] (default 60).
exec sh "$(dirname "$0")/pdu_fuzz.sh" ngap "${1:-60}"
