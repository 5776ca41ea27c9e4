#!/bin/sh
# wsdecode.sh - dissect protocol messages with tshark (Wireshark) and fail
# when Wireshark finds them malformed.
#
# Usage: wsdecode.sh [options] PROTO INPUT...    dissect hand-made messages
#        wsdecode.sh [options] -r CAPTURE PROTO  check the PROTO packets of a capture
#
# Each INPUT becomes one packet: the bytes are wrapped in a dummy IPv4 +
# SCTP/UDP/TCP header by text2pcap (or handed straight to a named dissector),
# dissected by tshark, and checked for malformed packets and expert errors.
#
# PROTO (how the bytes are wrapped; with -r, which packets are checked):
#   ngap           SCTP DATA chunk, PPID 60, port 38412
#   s1ap           SCTP DATA chunk, PPID 18, port 36412
#   diameter       SCTP DATA chunk, PPID 46, port 3868
#   diameter-tcp   TCP port 3868 (several inputs = consecutive segments)
#   pfcp           UDP port 8805
#   gtpv2          UDP port 2123 (GTPv2-C)
#   gtpv1c         UDP port 2123 (GTPv1-C)
#   gtpu           UDP port 2152 (GTP-U; the T-PDU is dissected too)
#   http2          TCP port 8080 decoded as HTTP/2; give the whole
#                  connection from the client preface on, or HPACK fails
#   pdu:NAME       no transport: the bytes go straight to the Wireshark
#                  dissector NAME (e.g. pdu:nas-5gs, pdu:nas-eps, pdu:xnap)
#
# INPUT: a hex string (blanks, ':' and a leading 0x are ignored), a file
# holding such hex text, a binary file, or '-' for hex text on stdin.
#
# Options:
#   -w          also fail on expert warnings (default: errors only)
#   -a          show all layers in detail (default: only the PROTO layers)
#   -j          print JSON (tshark -T json) instead of the text tree
#   -q          print only the problems, not the dissection
#   -o PREF     pass a preference to tshark (repeatable), e.g.
#               -o nas-5gs.null_decipher:TRUE  or  -o sctp.checksum:CRC-32C
#   -D LIST     disable these dissectors (comma-separated), e.g. nas-5gs,nr-rrc
#   -d RULE     pass a decode-as rule to tshark (repeatable), e.g.
#               -d tcp.port==7777,http2
#   -k FILE     keep the generated capture as FILE (pcapng)
#   -r CAPTURE  check an existing capture instead of INPUTs
#
# Exit status: 0 all packets clean; 1 a packet is malformed, carries an
# expert error (or warning with -w), was not recognised as PROTO, or (GTP)
# has a header length that disagrees with the datagram size, or a capture
# holds no PROTO packet; 2 usage error or tool failure.
#
# Not caught by tshark (check these elsewhere): bytes left over after an
# NGAP/S1AP PDU or inside its open type, procedure codes that do not fit
# the message class, unknown PFCP/GTP IE types, an HTTP/2 frame cut short
# at the end of the input.
#
# Needs: tshark and text2pcap (Debian package tshark), od (coreutils).

set -u

die() { echo "wsdecode: $*" >&2; exit 2; }

usage() {
    sed -n '2,/^# Needs:/s/^# \{0,1\}//p' "$0" >&2
    exit 2
}

warn_too=0 all_layers=0 json=0 quiet=0 keep="" capture=""
opts=""                                   # extra tshark options (-o, -d)
while getopts "wajqo:d:D:k:r:h" opt; do
    case $opt in
        w) warn_too=1 ;;
        a) all_layers=1 ;;
        j) json=1 ;;
        q) quiet=1 ;;
        o) opts="$opts -o $OPTARG" ;;
        d) opts="$opts -d $OPTARG" ;;
        D) for proto_off in $(echo "$OPTARG" | tr ',' ' '); do
               opts="$opts --disable-protocol $proto_off"
           done ;;
        k) keep=$OPTARG ;;
        r) capture=$OPTARG ;;
        *) usage ;;
    esac
done
shift $((OPTIND - 1))
if [ -n "$capture" ]; then
    [ $# -eq 1 ] || usage
    [ -r "$capture" ] || die "cannot read capture '$capture'"
else
    [ $# -ge 2 ] || usage
fi
proto=$1
shift

for tool in text2pcap tshark od; do
    command -v $tool >/dev/null || die "$tool is needed (apt-get install tshark)"
done

# wrap:   text2pcap options for the dummy headers
# expect: display-filter protocol that every packet must carry
# detail: protocols shown in detail (tshark -O)
# check:  display filter matching packets whose header length disagrees with
#         the datagram size (tshark itself does not flag that for GTP)
check=""
case $proto in
    ngap)         wrap="-S 40000,38412,60"; expect=ngap;     detail=ngap,nas-5gs ;;
    s1ap)         wrap="-S 40000,36412,18"; expect=s1ap;     detail=s1ap,nas-eps ;;
    diameter)     wrap="-S 40000,3868,46";  expect=diameter; detail=diameter ;;
    diameter-tcp) wrap="-T 40000,3868";     expect=diameter; detail=diameter ;;
    pfcp)         wrap="-u 40000,8805";     expect=pfcp;     detail=pfcp ;;
    gtpv2)        wrap="-u 40000,2123";     expect=gtpv2;    detail=gtpv2
                  check="!(gtpv2.p == 1) && gtpv2.msg_length != udp.length#1 - 12" ;;
    gtpv1c)       wrap="-u 40000,2123";     expect=gtp;      detail=gtp
                  check="gtp.length != udp.length#1 - 16" ;;
    gtpu)         wrap="-u 40000,2152";     expect=gtp;      detail=gtp,ip,ipv6,icmp,icmpv6,udp,tcp
                  check="gtp.length != udp.length#1 - 16" ;;
    http2)        wrap="-T 40000,8080";     expect=http2;    detail=http2,json
                  [ -z "$capture" ] && opts="$opts -d tcp.port==8080,http2" ;;
    pdu:?*)       name=${proto#pdu:}
                  tshark -G protocols 2>/dev/null | cut -f3 | grep -qx "$name" ||
                      die "tshark has no protocol '$name'"
                  wrap="-P $name";          expect=$name;    detail=$name ;;
    *)            die "unknown PROTO '$proto' (run with -h for the list)" ;;
esac

tmp=$(mktemp -d) || die "mktemp failed"
trap 'rm -rf "$tmp"' EXIT
trap 'exit 2' INT TERM

# Turn one INPUT into a string of hex digits.
to_hex() {
    if [ "$1" = "-" ]; then
        tr -d ' \t\r\n:' | sed 's/^0[xX]//'
    elif [ -f "$1" ]; then
        if LC_ALL=C grep -q '[^0-9A-Fa-fxX: \t\r]' "$1"; then
            od -An -v -tx1 "$1" | tr -d ' \n'          # binary file
        else
            tr -d ' \t\r\n:' < "$1" | sed 's/^0[xX]//' # hex text file
        fi
    else
        printf '%s' "$1" | tr -d ' \t\r\n:' | sed 's/^0[xX]//'
    fi
}

if [ -n "$capture" ]; then
    pcap=$capture
    select="-Y $expect"                   # look only at the PROTO packets
else
    pcap=$tmp/p.pcapng
    select=""
    n=0
    : > "$tmp/in.txt"
    for input in "$@"; do
        n=$((n + 1))
        hex=$(to_hex "$input") || die "cannot read input $n"
        [ -n "$hex" ] || die "input $n is empty"
        printf '%s' "$hex" | LC_ALL=C grep -q '^\([0-9A-Fa-f][0-9A-Fa-f]\)*$' ||
            die "input $n is not hex bytes (an even number of hex digits)"
        # text2pcap hexdump format: offset 000000, then the bytes
        printf '000000 %s\n' "$(printf '%s' "$hex" | sed 's/../& /g')" >> "$tmp/in.txt"
    done
    # Raw IPv4 link type (-l 101) for the transports: no Ethernet padding.
    case $proto in
        pdu:*) link="" ;;
        *)     link="-l 101" ;;
    esac
    # shellcheck disable=SC2086
    text2pcap -q $link $wrap "$tmp/in.txt" "$pcap" >/dev/null 2>"$tmp/err" ||
        { cat "$tmp/err" >&2; die "text2pcap failed"; }
    [ -n "$keep" ] && cp "$pcap" "$keep"
fi

run_tshark() {
    # shellcheck disable=SC2086
    tshark -n -r "$pcap" $opts "$@" 2>"$tmp/err"
    rc=$?
    grep -v 'Running as user "root"' "$tmp/err" >&2
    [ $rc -eq 0 ] || die "tshark failed (exit $rc)"
}

if [ $quiet -eq 0 ]; then
    # shellcheck disable=SC2086
    if [ $json -eq 1 ]; then
        run_tshark $select -T json
    elif [ $all_layers -eq 1 ]; then
        run_tshark $select -V
    else
        run_tshark $select -V -O "$detail"
    fi
fi

if [ -n "$capture" ]; then
    run_tshark -Y "$expect" -T fields -e frame.number > "$tmp/all"
    n=$(wc -l < "$tmp/all")
    [ "$n" -gt 0 ] || { echo "wsdecode: FAILED: no $expect packet in $capture" >&2; exit 1; }
fi

# Expert severities: 0x00600000 warning, 0x00800000 error.
if [ $warn_too -eq 1 ]; then sev=0x00600000 level=warn; else sev=0x00800000 level=error; fi
problem="_ws.malformed || _ws.expert.severity >= $sev"
[ -n "$check" ] && problem="$problem || ($check)"
if [ -n "$capture" ]; then
    badfilter="($expect) && ($problem)"
else
    badfilter="$problem || !$expect"
fi
run_tshark -Y "$badfilter" -T fields -e frame.number > "$tmp/bad"
nbad=$(wc -l < "$tmp/bad")
if [ "$nbad" -gt 0 ]; then
    bad=$(head -20 "$tmp/bad" | tr '\n' ' ')
    [ "$nbad" -gt 20 ] && bad="$bad... "
    echo "wsdecode: FAILED: $nbad of $n packet(s): ${bad% } (malformed, expert ${level}, not $expect, or bad length); first ones:" >&2
    run_tshark -Y "$badfilter" > "$tmp/badlines"
    head -20 "$tmp/badlines" | sed 's/^ */wsdecode: /' >&2
    if [ -n "$capture" ]; then zexpert="expert,$level,$expect"; else zexpert="expert,$level"; fi
    run_tshark -q -z "$zexpert" | sed '/^$/d' >&2
    if [ -z "$capture" ]; then
        run_tshark -Y "!$expect" -T fields -e frame.number -e frame.protocols |
            sed 's/^/wsdecode: not recognised as '"$expect"': packet /' >&2
    fi
    if [ -n "$check" ]; then
        run_tshark -Y "$check" -T fields -e frame.number > "$tmp/badlen"
        head -20 "$tmp/badlen" |
            sed 's/^/wsdecode: header length disagrees with datagram size: packet /' >&2
    fi
    exit 1
fi
echo "wsdecode: OK: $n packet(s) of $expect, none malformed, no expert ${level}" >&2
exit 0
