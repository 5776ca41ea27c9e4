#include "gtpu_pcap.h"

#include <pcap/pcap.h>

#include <cstring>

#include "gtpu_ip.h"
#include "gtpu_wire.h"
#include "mv_core.h"

using gtpu_wire::get16;
using gtpu_wire::get32;
using gtpu_wire::put16;
using gtpu_wire::put32;

namespace {

// An inner packet, its tunnel header and the outer UDP and IPv4 headers fit one datagram.
constexpr size_t kMaxInner = 65535 - 20 - 8 - 16;
// Link types by their numbers in the file (libpcap maps 101 to 12 on this system).
constexpr int kEthernet = 1, kRaw = 12, kRawFile = 101, kIPv4 = 228, kIPv6 = 229, kSll = 113, kSll2 = 276;

// Where the IP packet of a frame starts, or -1 when the frame carries something else.
long ipStart(int link, const uint8_t* f, size_t caplen, gtpu_capture_stats& s) {
    uint16_t type = 0;
    size_t at = 0;
    switch (link) {
        case kEthernet:
            if (caplen < 14) return -1;
            type = get16(f + 12);
            at = 14;
            if (type == 0x8100 && caplen >= 18) {  // one VLAN tag
                type = get16(f + 16);
                at = 18;
            }
            if (type != 0x0800 && type != 0x86DD) {
                ++s.ether_oth;
                return -1;
            }
            ++s.ether_ip;
            return long(at);
        case kSll:
            if (caplen < 16) return -1;
            type = get16(f + 14);
            return type == 0x0800 || type == 0x86DD ? 16 : -1;
        case kSll2:
            if (caplen < 20) return -1;
            type = get16(f);
            return type == 0x0800 || type == 0x86DD ? 20 : -1;
        default:  // raw IP of either version
            return 0;
    }
}

enum class Verdict { Accepted, Invalid, Truncated, Fragment, Protocol, TooLong };

// Reads the IP packet at `ip` (`avail` octets captured, `cut` when the capture dropped some) and,
// when it can be replayed, appends its normalised copy and description.
Verdict take(const uint8_t* ip, size_t avail, bool cut, gtpu_capture& cap) {
    gtpu_capture_stats& s = cap.stats;
    const Verdict shortOne = cut ? Verdict::Truncated : Verdict::Invalid;
    if (avail < 1) return shortOne;
    gtpu_capture_packet p{};
    p.ipVersion = ip[0] >> 4;
    size_t total = 0, l4At = 0;
    if (p.ipVersion == 4) {
        if (avail < 20) return shortOne;
        l4At = size_t(ip[0] & 15) * 4;
        total = get16(ip + 2);
        if (l4At < 20 || total < l4At) return Verdict::Invalid;
        if (total > avail) return shortOne;
        ++s.ip_4;
        p.protocol = ip[9];
        if (get16(ip + 6) & 0x3FFF) return Verdict::Fragment;  // more fragments, or an offset
        p.srcV4 = get32(ip + 12);
        p.dstV4 = get32(ip + 16);
    } else if (p.ipVersion == 6) {
        if (avail < 40) return shortOne;
        total = 40 + size_t(get16(ip + 4));
        if (total > avail) return shortOne;
        ++s.ip_6;
        uint8_t next = ip[6];
        l4At = 40;
        // Hop-by-hop and destination options change nothing the replay writes; routing headers would.
        while (next == 0 || next == 60) {
            if (l4At + 2 > total) return Verdict::Invalid;
            size_t hl = (size_t(ip[l4At + 1]) + 1) * 8;
            next = ip[l4At];
            l4At += hl;
            if (l4At > total) return Verdict::Invalid;
        }
        p.protocol = next;
        if (next == 44) return Verdict::Fragment;
        memcpy(p.srcV6, ip + 8, 16);
        memcpy(p.dstV6, ip + 24, 16);
    } else {
        return Verdict::Invalid;
    }
    const size_t seg = total - l4At;
    const uint8_t* l4 = ip + l4At;
    size_t l4Len = 8;
    switch (p.protocol) {
        case GTPU_IP_TCP:
            ++s.protocol_6;
            if (seg < 20 || size_t(l4[12] >> 4) * 4 < 20 || size_t(l4[12] >> 4) * 4 > seg) return Verdict::Invalid;
            l4Len = size_t(l4[12] >> 4) * 4;
            p.csumAt = uint16_t(l4At + 16);
            p.hasPorts = 1;
            break;
        case GTPU_IP_UDP:
            ++s.protocol_17;
            if (seg < 8 || get16(l4 + 4) != seg) return Verdict::Invalid;
            p.csumAt = uint16_t(l4At + 6);
            p.hasPorts = 1;
            break;
        case GTPU_IP_ICMP:
        case GTPU_IP_ICMPV6:
            ++s.protocol_other;
            if (seg < 8 || (p.protocol == GTPU_IP_ICMP) != (p.ipVersion == 4)) return Verdict::Invalid;
            p.csumAt = p.protocol == GTPU_IP_ICMPV6 ? uint16_t(l4At + 2) : 0;
            break;
        default:
            ++s.protocol_other;
            return Verdict::Protocol;
    }
    if (total > kMaxInner || GTPU_HEADER_MAX + l4At + l4Len > GTPU_SLOT_HEAD) return Verdict::TooLong;
    if (p.hasPorts) {
        p.srcPort = get16(l4);
        p.dstPort = get16(l4 + 2);
    }

    // The normalised copy: what a replay rewrites is zero, and the sums cover the rest.
    p.at = uint32_t(cap.bytes.size());
    p.len = uint16_t(total);
    p.l4At = uint16_t(l4At);
    p.headLen = uint16_t(l4At + l4Len);
    cap.bytes.insert(cap.bytes.end(), ip, ip + total);
    uint8_t* c = cap.bytes.data() + p.at;
    uint8_t* cl4 = c + l4At;
    if (p.ipVersion == 4) {
        memset(c + 10, 0, 10);  // checksum, source, destination
        p.ipSum = gtpu_csum_add(c, l4At);
    } else {
        memset(c + 8, 0, 32);
    }
    if (p.hasPorts) memset(cl4, 0, 4);
    if (p.protocol == GTPU_IP_ICMP) {  // addresses are not in its sum: it is right once and for all
        put16(cl4 + 2, 0);
        put16(cl4 + 2, compute_checksum(cl4, seg));
    } else {
        put16(c + p.csumAt, 0);
        uint32_t sum = gtpu_csum_add(cl4, seg);
        p.l4Sum = p.ipVersion == 4 ? gtpu_csum_add16(gtpu_csum_add16(sum, p.protocol), uint32_t(seg))
                                   : gtpu_csum_add32(gtpu_csum_add16(sum, p.protocol), uint32_t(seg));
    }
    cap.packets.push_back(p);
    return Verdict::Accepted;
}

}  // namespace

std::unique_ptr<gtpu_capture> gtpu_capture_load(const char* path, bool firstOnly) {
    char err[PCAP_ERRBUF_SIZE] = "";
    pcap_t* pc = pcap_open_offline(path, err);
    if (!pc) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "Error Opening File=%s Error=%s %s|%s|%d", path, err,
                 __FILE_NAME__, __func__, __LINE__);
        return nullptr;
    }
    int link = pcap_datalink(pc);
    if (link != kEthernet && link != kRaw && link != kRawFile && link != kIPv4 && link != kIPv6 && link != kSll &&
        link != kSll2) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "_pcap_datalink_type=%d NOT IMPLEMENTED  %s|%s|%d", link,
                 __FILE_NAME__, __func__, __LINE__);
        pcap_close(pc);
        return nullptr;
    }
    auto cap = std::make_unique<gtpu_capture>();
    cap->linkType = link;
    gtpu_capture_stats& s = cap->stats;
    pcap_pkthdr hdr;
    while (const u_char* frame = pcap_next(pc, &hdr)) {
        ++s.packets;
        long at = ipStart(link, frame, hdr.caplen, s);
        if (at < 0) {
            if (link != kEthernet) ++s.ip_inv;
            continue;
        }
        switch (take(frame + at, hdr.caplen - size_t(at), hdr.caplen < hdr.len, *cap)) {
            case Verdict::Accepted: ++s.accepted; break;
            case Verdict::Invalid: ++s.ip_inv; break;
            case Verdict::Truncated: ++s.truncated; break;
            case Verdict::Fragment: ++s.fragments; break;
            case Verdict::TooLong: ++s.too_long; break;
            case Verdict::Protocol: break;
        }
        if (firstOnly && s.accepted) break;
    }
    pcap_close(pc);
    return cap;
}

bool gtpu_replay_slot(gtpu_tx_slot* slot, const gtpu_capture& cap, const gtpu_capture_packet& p,
                      const gtpu_tpdu_hdr& h, const gtpu_rewrite& rw) {
    const bool v6 = p.ipVersion == 6;
    if (v6 ? !rw.srcV6 : !rw.srcV4) return false;
    size_t hl = gtpu_build_tpdu_header(std::span<uint8_t>(slot->head, GTPU_HEADER_MAX), h, p.len);
    if (!hl) return false;
    uint8_t* ip = slot->head + hl;
    memcpy(ip, cap.bytes.data() + p.at, p.headLen);
    uint32_t addrSum;
    if (v6) {
        const uint8_t* dst = rw.dstV6 ? rw.dstV6 : p.dstV6;
        memcpy(ip + 8, rw.srcV6, 16);
        memcpy(ip + 24, dst, 16);
        addrSum = gtpu_csum_add(ip + 8, 32);
    } else {
        const uint32_t dst = rw.dstV4 ? rw.dstV4 : p.dstV4;
        put32(ip + 12, rw.srcV4);
        put32(ip + 16, dst);
        addrSum = gtpu_csum_add32(gtpu_csum_add32(0, rw.srcV4), dst);
        put16(ip + 10, gtpu_csum_fold(gtpu_csum_add16(p.ipSum, addrSum)));
    }
    if (p.csumAt) {
        uint32_t sum = gtpu_csum_add16(p.l4Sum, addrSum);
        if (p.hasPorts) {
            const uint16_t sp = rw.srcPort ? rw.srcPort : p.srcPort, dp = rw.dstPort ? rw.dstPort : p.dstPort;
            put16(ip + p.l4At, sp);
            put16(ip + p.l4At + 2, dp);
            sum = gtpu_csum_add16(gtpu_csum_add16(sum, sp), dp);
        }
        uint16_t c = gtpu_csum_fold(sum);
        if (c == 0 && p.protocol == GTPU_IP_UDP) c = 0xFFFF;
        put16(ip + p.csumAt, c);
    }
    slot->headLen = uint16_t(hl + p.headLen);
    slot->tail = cap.bytes.data() + p.at + p.headLen;
    slot->tailLen = uint32_t(p.len - p.headLen);
    return true;
}
