#!/bin/sh
# Fuzzes the s1ap PDU decoders for a bounded time. Usage: tools/fuzz/run_s1ap.sh [seconds] (default 60).
exec sh "$(dirname "$0")/pdu_fuzz.sh" s1ap "${1:-60}"
