// Captures replayed through the tunnels. A file is read once: each IP packet that can be replayed
// is kept with its addresses, ports and checksums zeroed and the partial sums of the rest, so that
// the packet of one UE is its headers copied into a send slot with that UE's addresses and the
// checksums finished from the sums, and its body sent from where it lies. The result is the same as
// recomputing every checksum over the whole packet, including for captures whose checksums were
// never right (offloaded by the capturing host).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "gtpu_codec.h"
#include "gtpu_path.h"

// The counts of the replay's summary line, and why packets were left out.
struct gtpu_capture_stats {
    uint32_t packets;         // read from the file
    uint32_t ether_ip;        // Ethernet frames carrying IPv4 or IPv6
    uint32_t ether_oth;       // Ethernet frames carrying anything else
    uint32_t ip_4, ip_6;
    uint32_t ip_inv;          // not IP, or an IP or transport header that does not hold together
    uint32_t protocol_6, protocol_17;
    uint32_t protocol_other;  // ICMP and ICMPv6 (replayed) and the rest (left out)
    uint32_t truncated;       // cut short by the capture's snapshot length
    uint32_t fragments;       // IP fragments: their transport checksums cannot be made
    uint32_t too_long;        // headers beyond a send slot, or a packet beyond one datagram
    uint32_t accepted;        // replayable
};

struct gtpu_capture_packet {
    uint32_t at;        // the IP header's offset in the capture's bytes
    uint16_t len;       // the IP packet's length
    uint16_t headLen;   // its IP and transport headers: what a replay rewrites
    uint16_t l4At;      // the transport header, from the IP header
    uint16_t csumAt;    // the transport checksum, from the IP header; 0 when the addresses leave it alone
    uint8_t ipVersion;
    uint8_t protocol;
    uint8_t hasPorts;   // TCP and UDP
    uint32_t ipSum;     // IPv4 header with addresses and checksum zero
    uint32_t l4Sum;     // segment with ports and checksum zero, and the pseudo-header without addresses
    uint32_t srcV4, dstV4;  // as captured, host order
    uint8_t srcV6[16], dstV6[16];
    uint16_t srcPort, dstPort;
};

struct gtpu_capture {
    int linkType = 0;
    std::vector<uint8_t> bytes;  // the replayable IP packets, one after another, normalised
    std::vector<gtpu_capture_packet> packets;
    gtpu_capture_stats stats{};
};

// Reads the file with libpcap. Link types: Ethernet (1, one VLAN tag allowed), raw IP (12, 101),
// IPv4 (228), IPv6 (229), Linux cooked (113, 276). Null with a log line when the file does not open
// or its link type is none of these. With firstOnly, reading stops at the first replayable packet.
std::unique_ptr<gtpu_capture> gtpu_capture_load(const char* path, bool firstOnly = false);

// Whose packets a replay makes; zero and null keep what was captured.
struct gtpu_rewrite {
    uint32_t srcV4 = 0;                // the UE's IPv4 address, host order
    const uint8_t* srcV6 = nullptr;    // its IPv6 address: an IPv6 packet is replayed only with one
    uint32_t dstV4 = 0;
    const uint8_t* dstV6 = nullptr;
    uint16_t srcPort = 0;
    uint16_t dstPort = 0;
};

// Fills a send slot with the tunnel header `h`, the packet's headers rewritten with their checksums,
// and the captured rest as the tail (which lives as long as `cap`). False when the packet is IPv6
// and the rewrite has no IPv6 source, or IPv4 without an IPv4 source.
bool gtpu_replay_slot(gtpu_tx_slot* slot, const gtpu_capture& cap, const gtpu_capture_packet& p,
                      const gtpu_tpdu_hdr& h, const gtpu_rewrite& rw);
