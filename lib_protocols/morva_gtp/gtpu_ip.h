// The inner packets of the user plane: one's complement sums and the IPv4 and IPv6 packets the
// traffic engine puts in its tunnels (ICMP and ICMPv6 echo, UDP, TCP, ESP, and a bare port form for
// other protocols), with every checksum right. Records in, bytes out; no I/O.
//
// Builders write the IP and transport headers and take the payload's sum instead of its bytes, so
// that a sender can keep one payload for every packet and send it from where it lies: zero
// payload octets add nothing to any sum.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#define GTPU_IP_ICMP 1
#define GTPU_IP_TCP 6
#define GTPU_IP_UDP 17
#define GTPU_IP_ESP 50
#define GTPU_IP_ICMPV6 58
#define GTPU_IP_SCTP 132

#define GTPU_IPV4_HEADER_LEN 20
#define GTPU_IPV6_HEADER_LEN 40
#define GTPU_TCP_HEADER_LEN 20
#define GTPU_UDP_HEADER_LEN 8
#define GTPU_ICMP_HEADER_LEN 8

#define GTPU_TCP_FIN 0x01
#define GTPU_TCP_SYN 0x02
#define GTPU_TCP_PSH 0x08
#define GTPU_TCP_ACK 0x10

// The largest IP and transport header a builder writes.
#define GTPU_INNER_HEADERS_MAX (GTPU_IPV6_HEADER_LEN + GTPU_TCP_HEADER_LEN)

// ---------------------------------------------------------------- sums

// Adds `n` octets, read as big-endian 16-bit words, to a partial sum (RFC 1071); an odd last octet
// counts as the high byte of a word. Pieces summed one after another must have even lengths, all
// but the last. The result is a partial sum again, at most 0xFFFF.
uint32_t gtpu_csum_add(const uint8_t* p, size_t n, uint32_t sum = 0);
// Adds a 16-bit or a 32-bit number to a partial sum.
inline uint32_t gtpu_csum_add16(uint32_t sum, uint32_t v) {
    sum += v & 0xFFFF;
    return (sum & 0xFFFF) + (sum >> 16);
}
inline uint32_t gtpu_csum_add32(uint32_t sum, uint32_t v) { return gtpu_csum_add16(gtpu_csum_add16(sum, v >> 16), v); }
// The checksum of a partial sum: its complement.
inline uint16_t gtpu_csum_fold(uint32_t sum) {
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return uint16_t(~sum);
}

// The checksum over `count` octets.
uint16_t compute_checksum(const void* addr, size_t count);
// The TCP or UDP checksum of a segment of `len` octets with the IPv4 pseudo-header; addresses in
// host order. UDP's 0 is written 0xFFFF by the builders, not here.
uint16_t tcp_udp_v4_checksum(uint32_t src, uint32_t dst, uint8_t protocol, const uint8_t* payload, size_t len);
// The same with the IPv6 pseudo-header (also ICMPv6's).
uint16_t tcp_udp_v6_checksum(const uint8_t* src, const uint8_t* dst, uint8_t protocol, const uint8_t* payload,
                             size_t len);
// The pseudo-headers alone, as partial sums.
uint32_t gtpu_pseudo_v4(uint32_t src, uint32_t dst, uint8_t protocol, size_t len);
uint32_t gtpu_pseudo_v6(const uint8_t* src, const uint8_t* dst, uint8_t protocol, size_t len);

// ---------------------------------------------------------------- packets

// One inner packet. Addresses of IPv4 in host order.
struct gtpu_inner {
    uint8_t ipVersion = 4;
    uint8_t protocol = GTPU_IP_UDP;  // another number than those above gets the bare port form
    uint32_t srcV4 = 0;
    uint32_t dstV4 = 0;
    uint8_t srcV6[16] = {};
    uint8_t dstV6[16] = {};
    uint16_t srcPort = 0;  // TCP, UDP and the port form
    uint16_t dstPort = 0;
    uint16_t ipId = 0;     // IPv4 identification
    uint8_t ttl = 128;     // IPv4 time to live or IPv6 hop limit
    uint8_t tcpFlags = GTPU_TCP_PSH | GTPU_TCP_ACK;
    uint32_t tcpSeq = 0;
    uint32_t tcpAck = 0;
    uint16_t tcpWindow = 0x1044;
    uint16_t icmpId = 0x7B00;  // echo identifier and sequence (ICMP and ICMPv6)
    uint16_t icmpSeq = 0;
    uint32_t espSpi = 0;
    uint32_t espSeq = 0;
};

// Octets of the transport header the builders write for `protocol`.
size_t gtpu_l4_header_len(uint8_t protocol);

// Writes the IP and transport headers of a packet that carries `payloadLen` octets behind them,
// whose partial sum is `payloadSum` (0 for zeros). Returns the headers' length, or 0 when `out` is
// too short, the packet would pass 65535 octets of IP length, or the IP version is neither 4 nor 6.
size_t gtpu_build_inner_headers(std::span<uint8_t> out, const gtpu_inner& f, size_t payloadLen, uint32_t payloadSum);
// The whole packet with `payload` copied behind the headers; returns its length or 0.
size_t gtpu_build_inner_packet(std::span<uint8_t> out, const gtpu_inner& f, std::span<const uint8_t> payload);
