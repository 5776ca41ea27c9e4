// Where the GTP-U module's own packets leave: capture replay for a UE's tunnel, the sockets made
// for PFCP's UPFs, and the one-packet senders of the PFCP steps.
#include <arpa/inet.h>

#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "KsEngine_step.h"
#include "KsGTP_internal.h"

using ksgtp::tally;

namespace ksgtp {

__mv_gtpu_node* socketOf(gtp_node_t* node) {
    if (node && node->gtpServerSocket) return node->gtpServerSocket;
    return __gtpv1Server ? __gtpv1Server->gtpServerSocket : nullptr;
}

namespace {
std::mutex capturesLock;
std::map<std::string, std::shared_ptr<const gtpu_capture>> captures;
}  // namespace

std::shared_ptr<const gtpu_capture> captureOf(uint32_t fileId, bool firstOnly, const char* who) {
    auto* names = static_cast<json_t*>(__ksEngine->pcap_protocol_files);
    const char* name = names && fileId < json_array_size(names) ? json_string_value(json_array_get(names, fileId)) : nullptr;
    if (!name) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "%s  Invalid PCAPFileId=%d  %s|%s|%d", who, int(fileId),
                 __FILE_NAME__, __func__, __LINE__);
        return nullptr;
    }
    std::string path = std::string("./pcap_protocols/") + name;
    std::string key = path + (firstOnly ? "#1" : "");
    std::lock_guard g(capturesLock);
    auto it = captures.find(key);
    if (it != captures.end()) return it->second;
    std::shared_ptr<const gtpu_capture> cap = gtpu_capture_load(path.c_str(), firstOnly);
    if (!cap) {
        ++tally.PcapOpenFailed;
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "Error Opening File=%s Error=%s %s|%s|%d", path.c_str(),
                 "not a capture of a link type that can be replayed", __FILE_NAME__, __func__, __LINE__);
        return nullptr;  // not kept: the file may be put right while the engine runs
    }
    captures[key] = cap;
    return cap;
}

int replayCapture(__mv_gtpu_node* sock, const gtpu_peer& to, const gtpu_capture& cap, gtpu_tpdu_hdr h,
                  const gtpu_rewrite& rw, uint64_t* bytes) {
    auto batch = std::make_unique<gtpu_tx_batch>();
    int sent = 0;
    uint64_t octets = 0, queued = 0;
    auto flush = [&] {
        unsigned n = batch->count;
        int s = __mv_gtpu__send_batch(sock, batch.get());
        sent += s;
        tally.PcapSendFailed += n - unsigned(s);
    };
    for (const gtpu_capture_packet& p : cap.packets) {
        gtpu_tx_slot* slot = batch->next();
        if (!slot) {
            flush();
            slot = batch->next();
        }
        if (!gtpu_replay_slot(slot, cap, p, h, rw)) {
            batch->drop_last();
            ++tally.PcapPacketsSkipped;
            continue;
        }
        slot->to = to;
        ++h.seq;
        ++queued;
        octets += p.len;
    }
    flush();
    tally.PcapPacketsSent += uint64_t(sent);
    if (bytes) *bytes = octets;
    (void)queued;
    return sent;
}

}  // namespace ksgtp

namespace {

void replayForUE(MV_KsUE* ue, KsStep* st, bool firstOnly) {
    MV_KsUEPduSession* s = nullptr;
    uint8_t sid = 0;
    for (uint8_t id : {1, 2})
        if (ue->pduSessions[id].isStarted && ue->pduSessions[id].gtpTEID) {
            s = &ue->pduSessions[id];
            sid = id;
            break;
        }
    gtpu_peer to{};
    __mv_gtpu_node* sock = ksgtp::socketOf(nullptr);
    if (!s || !sock || !KsGTP__SessionPeer(s, &to)) {
        ++tally.StepsNoSession;
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "%s   ksUEPduSession Not Found   %s|%s|%d", KsUE__supi(ue),
                 __FILE_NAME__, __func__, __LINE__);
        // The step ends by its timer, as any step whose exchange cannot start.
        KsEngine__KsUE_SetTimerActionRetry(ue, 0, st->StepCode);
        return;
    }
    std::shared_ptr<const gtpu_capture> cap = ksgtp::captureOf(ue->PCAPFileId, firstOnly, KsUE__supi(ue));
    uint64_t bytes = 0;
    int sent = 0;
    if (cap) {
        gtpu_tpdu_hdr h;
        h.teid = s->gtpTEID;
        h.seq = uint16_t(s->GTPSequence[0]);
        h.qfi = s->QosFlowIdentifier;
        gtpu_rewrite rw;
        rw.srcV4 = s->u_pduAddress;
        static const uint8_t kNone[16] = {};
        if (memcmp(s->PduAddressIPv6, kNone, 16) != 0) rw.srcV6 = s->PduAddressIPv6;
        sent = ksgtp::replayCapture(sock, to, *cap, h, rw, &bytes);
        s->GTPSequence[0] += uint32_t(sent);
        s->IPSequence[0] += uint32_t(bytes);
        ksgtp::countSent(ue, sid, uint64_t(sent));
        const gtpu_capture_stats& c = cap->stats;
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
                 "PCAP Packet Sent with bytes=%d  packets=%d  ether_ip=%d, ether_oth=%d, ip_4=%d, ip_6=%d, ip_inv=%d, "
                 "protocol_6=%d, protocol_17=%d, protocol_other=%d     %s|%s|%d",
                 int(bytes), sent, int(c.ether_ip), int(c.ether_oth), int(c.ip_4), int(c.ip_6), int(c.ip_inv),
                 int(c.protocol_6), int(c.protocol_17), int(c.protocol_other), __FILE_NAME__, __func__, __LINE__);
    }
    KS_COMPLETE_STEP(ue, st->StepCode);
}

}  // namespace

void KsGTP_TPDU_PCAP_ALL(MV_KsUE* ue, KsStep* st) {
    if (ue && st) replayForUE(ue, st, false);
}

void KsGTP_TPDU_PCAP_1(MV_KsUE* ue, KsStep* st) {
    if (ue && st) replayForUE(ue, st, true);
}

// ---------------------------------------------------------------- sockets for PFCP's UPFs

gtp_node_t* KsGTP_AddClientAndServerNode(const char* clientIP, uint16_t port, const char* serverIP,
                                         uint16_t server_port, const __mv_gtpu_handlers* handlers,
                                         MV_IndexTable* teidTable, uint32_t teidOffset) {
    if (__ksEngine->DataPlanePort > 0 || !__gtpv1Server || !clientIP || !serverIP) return nullptr;
    gtpu_peer server{};
    if (!gtpu_peer_set(&server, serverIP, server_port)) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "unable to identify ip=%s version in GTP %s|%d", serverIP,
                 __func__, __LINE__);
        return nullptr;
    }
    std::lock_guard g(__gtpv1Server->gtpNodeLock);
    for (gtp_node_t* n = __gtpv1Server->gtpNodeHead; n; n = n->Next)
        if (strcmp(n->serverIP, serverIP) == 0) return n;
    __mv_gtpu_config c;
    c.ip = clientIP;
    c.port = port;
    c.teidTable = teidTable;
    c.teidOffset = teidOffset;
    if (handlers) c.handlers = *handlers;
    __mv_gtpu_node* sock = __mv_gtpu__open(&c);
    if (!sock) return nullptr;  // the endpoint has logged why
    auto* n = new (__mv_malloc(sizeof(gtp_node_t))) gtp_node_t{};
    snprintf(n->serverIP, sizeof n->serverIP, "%s", serverIP);
    n->server = server;
    n->dst_port = server_port;
    n->gtpServerSocket = sock;
    uint8_t a[16];
    size_t al = gtpu_peer_address(*__mv_gtpu__local(sock), a);
    n->src_ipVersion = al == 4 ? 4 : 6;
    if (al == 4) n->src_ipv4 = uint32_t(a[0]) << 24 | uint32_t(a[1]) << 16 | uint32_t(a[2]) << 8 | a[3];
    else memcpy(n->src_ipv6, a, 16);
    al = gtpu_peer_address(server, a);
    n->dst_ipVersion = al == 4 ? 4 : 6;
    if (al == 4) n->dst_ipv4 = uint32_t(a[0]) << 24 | uint32_t(a[1]) << 16 | uint32_t(a[2]) << 8 | a[3];
    else memcpy(n->dst_ipv6, a, 16);
    if (__gtpv1Server->gtpNodeCurrent) __gtpv1Server->gtpNodeCurrent->Next = n;
    else __gtpv1Server->gtpNodeHead = n;
    __gtpv1Server->gtpNodeCurrent = n;
    return n;
}

// ---------------------------------------------------------------- the PFCP steps' packets

namespace {

constexpr size_t kDirectMax = 2048;

int sendDirect(gtp_node_t* node, const gtpu_peer& to, const uint8_t* buf, size_t len) {
    __mv_gtpu_node* sock = ksgtp::socketOf(node);
    if (!sock) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "sending gtp-udp packet failed,  may be DataPlanePort is configured <%s|%s|%d>", __FILE_NAME__,
                 __func__, __LINE__);
        return 0;
    }
    int r = __mv_gtpu__send_one(sock, to, buf, len);
    if (r <= 0) {
        ++tally.DirectSendFailed;
        char peer[80];
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "sending gtp-udp packet failed sentbytes=%d to %s <%s|%s|%d>", r,
                 gtpu_peer_text(to, peer, sizeof peer), __FILE_NAME__, __func__, __LINE__);
        return 0;
    }
    ++tally.DirectSent;
    return r;
}

void putU16(uint8_t* p, uint16_t v) {
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}

// The IPv4 fragment of a UDP datagram: the first carries the UDP header, the others only data.
size_t buildFragment(uint8_t* out, size_t cap, const KsGTPDirectPacket& p) {
    gtpu_inner f = p.inner;
    f.ipVersion = 4;
    f.protocol = GTPU_IP_UDP;
    f.ipId = uint16_t(p.payloadLen);
    size_t il;
    if (p.fragment == 1) {
        il = gtpu_build_inner_headers(std::span<uint8_t>(out, cap), f, p.payloadLen, 0);
        if (!il) return 0;
        putU16(out + 6, 0x2000);  // more fragments, offset 0
    } else {
        if (cap < GTPU_IPV4_HEADER_LEN + p.payloadLen) return 0;
        il = GTPU_IPV4_HEADER_LEN;
        memset(out, 0, il);
        out[0] = 0x45;
        putU16(out + 2, uint16_t(il + p.payloadLen));
        putU16(out + 4, f.ipId);
        putU16(out + 6, p.fragment == 2 ? uint16_t(0x2000 | ((p.payloadLen / 8) & 0x1FFF)) : uint16_t(10));
        out[8] = f.ttl;
        out[9] = GTPU_IP_UDP;
        uint32_t s = htonl(f.srcV4), d = htonl(f.dstV4);
        memcpy(out + 12, &s, 4);
        memcpy(out + 16, &d, 4);
    }
    putU16(out + 10, 0);
    putU16(out + 10, compute_checksum(out, GTPU_IPV4_HEADER_LEN));
    return il;
}

}  // namespace

int KsGTP__send_direct(gtp_node_t* node, const gtpu_peer& to, const KsGTPDirectPacket& p) {
    uint8_t inner[kDirectMax] = {};
    uint8_t buf[kDirectMax] = {};
    if (p.payloadLen > kDirectMax - GTPU_INNER_HEADERS_MAX - GTPU_HEADER_MAX) return 0;
    uint32_t payloadSum = p.payload ? gtpu_csum_add(p.payload, p.payloadLen) : 0;
    size_t il = p.fragment && p.inner.ipVersion == 4
                    ? buildFragment(inner, sizeof inner, p)
                    : gtpu_build_inner_headers(inner, p.inner, p.payloadLen, payloadSum);
    if (!il) return 0;
    if (p.payload) memcpy(inner + il, p.payload, p.payloadLen);  // else zeros, already in place
    size_t innerLen = il + p.payloadLen;
    size_t hl;
    if (p.gtpType >= 1 && p.gtpType <= 6) {
        hl = gtpu_build_form_header(buf, p.gtpType, p.teid, p.seq, innerLen);
    } else {
        gtpu_tpdu_hdr h;
        h.teid = p.teid;
        h.seq = p.flags & GTPU_FLAG_S ? p.seq : 0;
        h.flags = p.flags & (GTPU_FLAG_S | GTPU_FLAG_E);
        h.qfi = p.qfi;
        hl = gtpu_build_tpdu_header(buf, h, innerLen);
    }
    if (!hl || hl + innerLen > sizeof buf) return 0;
    memcpy(buf + hl, inner, innerLen);
    return sendDirect(node, to, buf, hl + innerLen);
}

int KsGTP__send_direct_icmp(gtp_node_t* node, const gtpu_peer& to, uint32_t teid, uint32_t srcV4, uint32_t dstV4,
                            uint16_t icmpId, uint16_t icmpSeq) {
    KsGTPDirectPacket p;
    p.flags = GTPU_FLAGS_V1 | GTPU_FLAG_S | GTPU_FLAG_E;
    p.teid = teid;
    p.inner.protocol = GTPU_IP_ICMP;
    p.inner.srcV4 = srcV4;
    p.inner.dstV4 = dstV4;
    p.inner.icmpId = icmpId;
    p.inner.icmpSeq = icmpSeq;
    return KsGTP__send_direct(node, to, p);
}

int KsGTP__send_direct_echo(gtp_node_t* node, const gtpu_peer& to, uint32_t teid) {
    uint8_t b[12] = {0x32, GTPU_ECHO_REQUEST, 0x00, 0x04};
    uint32_t t = htonl(teid);
    memcpy(b + 4, &t, 4);
    return sendDirect(node, to, b, sizeof b);
}

int KsGTP__send_direct_capture(gtp_node_t* node, const gtpu_peer& to, uint32_t fileId, uint32_t teid,
                               uint16_t firstSeq, const gtpu_rewrite& rw, uint64_t* bytes) {
    char who[32];
    snprintf(who, sizeof who, "TEID=%08X", teid);
    std::shared_ptr<const gtpu_capture> cap = ksgtp::captureOf(fileId, false, who);
    __mv_gtpu_node* sock = ksgtp::socketOf(node);
    if (!cap || !sock) return -1;
    gtpu_tpdu_hdr h;
    h.teid = teid;
    h.seq = firstSeq;
    h.flags = GTPU_FLAG_E;  // flags 0x34: the container, no sequence
    return ksgtp::replayCapture(sock, to, *cap, h, rw, bytes);
}
