#include "gtpu_ip.h"

#include <bit>
#include <cstring>

#include "gtpu_wire.h"

namespace {

using gtpu_wire::put16;
using gtpu_wire::put32;

// Octets read as native words in eight-octet steps; the sum of little-endian words is the byte swap
// of the big-endian sum (RFC 1071 2.(B)), so one swap at the end gives the wire's sum.
uint32_t nativeSum(const uint8_t* p, size_t n) {
    uint64_t acc = 0;
    for (; n >= 8; p += 8, n -= 8) {
        uint64_t w;
        memcpy(&w, p, 8);
        acc += w;
        acc += acc < w;  // end-around carry
    }
    uint64_t tail = 0;
    if (n) memcpy(&tail, p, n);  // an odd last octet lands in the low byte: the high byte of its big-endian word
    acc += tail;
    acc += acc < tail;
    acc = (acc & 0xFFFFFFFF) + (acc >> 32);
    acc = (acc & 0xFFFFFFFF) + (acc >> 32);
    uint32_t s = uint32_t(acc);
    s = (s & 0xFFFF) + (s >> 16);
    s = (s & 0xFFFF) + (s >> 16);
    return s;
}

}  // namespace

uint32_t gtpu_csum_add(const uint8_t* p, size_t n, uint32_t sum) {
    uint32_t s = nativeSum(p, n);
    if constexpr (std::endian::native == std::endian::little) s = uint16_t(s << 8 | s >> 8);
    return gtpu_csum_add16(sum, s);
}

uint16_t compute_checksum(const void* addr, size_t count) {
    return gtpu_csum_fold(gtpu_csum_add(static_cast<const uint8_t*>(addr), count));
}

uint32_t gtpu_pseudo_v4(uint32_t src, uint32_t dst, uint8_t protocol, size_t len) {
    uint32_t s = gtpu_csum_add32(gtpu_csum_add32(0, src), dst);
    return gtpu_csum_add16(gtpu_csum_add16(s, protocol), uint32_t(len));
}

uint32_t gtpu_pseudo_v6(const uint8_t* src, const uint8_t* dst, uint8_t protocol, size_t len) {
    uint32_t s = gtpu_csum_add(dst, 16, gtpu_csum_add(src, 16));
    return gtpu_csum_add32(gtpu_csum_add16(s, protocol), uint32_t(len));
}

uint16_t tcp_udp_v4_checksum(uint32_t src, uint32_t dst, uint8_t protocol, const uint8_t* payload, size_t len) {
    return gtpu_csum_fold(gtpu_csum_add(payload, len, gtpu_pseudo_v4(src, dst, protocol, len)));
}

uint16_t tcp_udp_v6_checksum(const uint8_t* src, const uint8_t* dst, uint8_t protocol, const uint8_t* payload,
                             size_t len) {
    return gtpu_csum_fold(gtpu_csum_add(payload, len, gtpu_pseudo_v6(src, dst, protocol, len)));
}

size_t gtpu_l4_header_len(uint8_t protocol) {
    switch (protocol) {
        case GTPU_IP_TCP: return GTPU_TCP_HEADER_LEN;
        case GTPU_IP_ICMP:
        case GTPU_IP_ICMPV6: return GTPU_ICMP_HEADER_LEN;
        default: return 8;  // UDP, ESP (SPI and sequence), the port form
    }
}

size_t gtpu_build_inner_headers(std::span<uint8_t> out, const gtpu_inner& f, size_t payloadLen, uint32_t payloadSum) {
    const bool v6 = f.ipVersion == 6;
    if (!v6 && f.ipVersion != 4) return 0;
    // ICMP in an IPv6 packet is ICMPv6 and the other way round: the echo is the one for the version.
    uint8_t proto = f.protocol;
    if (proto == GTPU_IP_ICMP && v6) proto = GTPU_IP_ICMPV6;
    else if (proto == GTPU_IP_ICMPV6 && !v6) proto = GTPU_IP_ICMP;
    const size_t ipLen = v6 ? GTPU_IPV6_HEADER_LEN : GTPU_IPV4_HEADER_LEN;
    const size_t l4Len = gtpu_l4_header_len(proto);
    const size_t segment = l4Len + payloadLen;
    if (out.size() < ipLen + l4Len || segment > 65535 - (v6 ? 0 : ipLen)) return 0;
    uint8_t* ip = out.data();
    uint8_t* l4 = ip + ipLen;
    memset(ip, 0, ipLen + l4Len);

    if (v6) {
        ip[0] = 0x60;
        put16(ip + 4, uint16_t(segment));
        ip[6] = proto;
        ip[7] = f.ttl;
        memcpy(ip + 8, f.srcV6, 16);
        memcpy(ip + 24, f.dstV6, 16);
    } else {
        ip[0] = 0x45;
        put16(ip + 2, uint16_t(ipLen + segment));
        put16(ip + 4, f.ipId);
        ip[8] = f.ttl;
        ip[9] = proto;
        put32(ip + 12, f.srcV4);
        put32(ip + 16, f.dstV4);
        put16(ip + 10, compute_checksum(ip, ipLen));
    }

    // Where the segment's checksum goes, and whether it covers a pseudo-header.
    size_t csumAt = 0;
    bool pseudo = true;
    switch (proto) {
        case GTPU_IP_TCP:
            put16(l4, f.srcPort);
            put16(l4 + 2, f.dstPort);
            put32(l4 + 4, f.tcpSeq);
            put32(l4 + 8, f.tcpAck);
            l4[12] = 5 << 4;
            l4[13] = f.tcpFlags;
            put16(l4 + 14, f.tcpWindow);
            csumAt = 16;
            break;
        case GTPU_IP_UDP:
            put16(l4, f.srcPort);
            put16(l4 + 2, f.dstPort);
            put16(l4 + 4, uint16_t(segment));
            csumAt = 6;
            break;
        case GTPU_IP_ICMP:
        case GTPU_IP_ICMPV6:
            l4[0] = proto == GTPU_IP_ICMP ? 8 : 128;  // echo request
            put16(l4 + 4, f.icmpId);
            put16(l4 + 6, f.icmpSeq);
            csumAt = 2;
            pseudo = proto == GTPU_IP_ICMPV6;
            break;
        case GTPU_IP_ESP:
            put32(l4, f.espSpi);
            put32(l4 + 4, f.espSeq);
            return ipLen + l4Len;
        default:  // ports and length as in UDP, nothing to check
            put16(l4, f.srcPort);
            put16(l4 + 2, f.dstPort);
            put16(l4 + 4, uint16_t(segment));
            return ipLen + l4Len;
    }
    uint32_t sum = gtpu_csum_add(l4, l4Len, payloadSum);
    if (pseudo) sum = gtpu_csum_add16(sum, v6 ? gtpu_pseudo_v6(f.srcV6, f.dstV6, proto, segment)
                                              : gtpu_pseudo_v4(f.srcV4, f.dstV4, proto, segment));
    uint16_t c = gtpu_csum_fold(sum);
    if (c == 0 && proto == GTPU_IP_UDP) c = 0xFFFF;  // 0 would mean "no checksum"
    put16(l4 + csumAt, c);
    return ipLen + l4Len;
}

size_t gtpu_build_inner_packet(std::span<uint8_t> out, const gtpu_inner& f, std::span<const uint8_t> payload) {
    size_t h = gtpu_build_inner_headers(out, f, payload.size(), gtpu_csum_add(payload.data(), payload.size()));
    if (!h || out.size() - h < payload.size()) return 0;
    if (!payload.empty()) memcpy(out.data() + h, payload.data(), payload.size());
    return h + payload.size();
}
