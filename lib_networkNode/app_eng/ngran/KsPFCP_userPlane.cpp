// The user-plane steps of a PFCP session (codes 42 to 70): packets on the session's tunnel,
// sent on the spot from the test thread through the pair's own GTP-U socket, and what comes
// back on that socket accounted to the session's flows.
#include <arpa/inet.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "KsGTP.h"
#include "KsPFCP.h"
#include "KsUECServer_wire.h"

namespace {

// The sessions' flows are written by the test thread (sent) and the socket's thread
// (received), and read by the console: each word on its own, relaxed.
template <class T>
void bump(T& word, T by) {
    std::atomic_ref<T>(word).fetch_add(by, std::memory_order_relaxed);
}

int randomIn(int lo, int hi) { return lo + rand() % (hi - lo + 1); }

gtp_node_t* gtpNodeOf(KsTEConnection* conn) {
    return conn ? static_cast<gtp_node_t*>(conn->upf_gtp_client_node.load()) : nullptr;
}

// Without the pair's socket (an external data plane, or no GTP-U module) nothing can go out.
gtp_node_t* requireNode(KsTEConnection* conn) {
    gtp_node_t* n = gtpNodeOf(conn);
    if (!n)
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "sending gtp-udp packet failed,  may be DataPlanePort is configured <%s|%s|%d>", __FILE_NAME__,
                 __func__, __LINE__);
    return n;
}

void logSendFailed(gtp_node_t* n, int sent, int ipv) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
             "sending gtp-udp packet failed sentbytes=%d IP-v:%d  UPF-IP:%s PORT=%d <%s|%s|%d>", sent, ipv,
             n->serverIP, n->dst_port, __FILE_NAME__, __func__, __LINE__);
}

// What one packet on flow `i` leaves in the session and the test.
void account(MV_KsUE* ue, pfcp_cp_sess_t* s, uint32_t i, uint32_t payload, int bytes) {
    s->gtp_seq_no++;
    s->flows[i].tcp_pack_seq += payload;
    bump(s->flows[i].packets_sent, 1u);
    bump(s->bytes_sent, uint64_t(bytes));
    KsPFCP__count(ue, &KsTestExec::PFCPSentGTPPacket);
}

// The session's flow `i` as the inner packet's addresses, ports and sequence.
KsGTPDirectPacket flowPacket(const pfcp_cp_sess_t* s, uint32_t i, uint8_t protocol, int ipv, uint32_t payload) {
    const pfcp_cp_sess_flow_t& f = s->flows[i];
    KsGTPDirectPacket p;
    p.flags = GTPU_FLAGS_V1 | GTPU_FLAG_E;  // the container, no sequence on the wire
    p.teid = s->teid;
    p.seq = uint16_t(s->gtp_seq_no);
    p.payloadLen = payload;
    gtpu_inner& in = p.inner;
    in.ipVersion = uint8_t(ipv);
    in.protocol = protocol;
    in.ipId = uint16_t(i);
    in.tcpSeq = f.tcp_pack_seq;
    in.srcPort = f.src_port;
    in.dstPort = f.dst_port;
    in.srcV4 = s->ipv4 ? s->ipv4->ipv4 : 0;
    in.dstV4 = f.dst_ip;
    if (s->ipv6) memcpy(in.srcV6, s->ipv6->ip6, 16);
    in.dstV6[0] = 0xfc;
    uint32_t d = htonl(f.dst_ip);
    memcpy(in.dstV6 + 12, &d, 4);
    if (protocol == GTPU_IP_ESP) {
        in.espSpi = uint32_t(f.src_port) << 16 | f.dst_port;
        in.espSeq = payload;
    }
    return p;
}

// Sends and accounts one packet; the bytes sent, 0 when nothing went out.
int sendOn(MV_KsUE* ue, pfcp_cp_sess_t* s, gtp_node_t* n, uint32_t i, const KsGTPDirectPacket& p) {
    int r = KsGTP__send_direct(n, n->server, p);
    if (r <= 0) {
        logSendFailed(n, r, p.inner.ipVersion);
        return 0;
    }
    account(ue, s, i, p.payloadLen, r);
    return r;
}

uint32_t currentFlow(pfcp_cp_sess_t* s) {
    if (s->last_sent_flow_id >= PFCP_SESSION_IP_FLOW_COUNT) s->last_sent_flow_id = 0;
    return s->last_sent_flow_id;
}

void rotate(pfcp_cp_sess_t* s) {
    s->last_sent_flow_id = uint16_t(currentFlow(s) + 1 == PFCP_SESSION_IP_FLOW_COUNT ? 0 : currentFlow(s) + 1);
}

// One packet of the table of single-packet steps.
struct PacketStep {
    uint32_t code;
    uint8_t protocol;
    uint8_t ipv;
    int payload;        // -1: random 200 to 400; -2: random 100 to 200
    uint8_t fragment;
    int gtpType;        // 0: the 16-octet form with flags 0x34
    uint16_t dstPort;   // 0: the flow's
};
// SCTP's 64 octets behind the IPv4 header: its port form plus a fixed chunk area of zeros.
constexpr int kSctpPayload = 56;
constexpr int kFull = 1350;
constexpr PacketStep kPacketSteps[] = {
    {42, GTPU_IP_TCP, 4, -1, 0, 0, 0},
    {44, GTPU_IP_TCP, 4, -1, 0, 0, 0},
    {47, GTPU_IP_TCP, 4, -1, 0, 0, 853},
    {52, GTPU_IP_TCP, 6, -1, 0, 0, 0},
    {53, GTPU_IP_SCTP, 4, kSctpPayload, 0, 0, 0},
    {54, GTPU_IP_ESP, 4, -1, 0, 0, 0},
    {55, GTPU_IP_UDP, 4, -1, 1, 0, 0},
    {56, GTPU_IP_UDP, 4, -1, 2, 0, 0},
    {57, GTPU_IP_UDP, 4, -1, 3, 0, 0},
    {58, GTPU_IP_TCP, 4, kFull, 0, 0, 0},
    {59, GTPU_IP_UDP, 4, kFull, 0, 0, 0},
    {60, GTPU_IP_TCP, 6, kFull, 0, 0, 0},
    {61, GTPU_IP_UDP, 6, kFull, 0, 0, 0},
    {64, GTPU_IP_TCP, 4, -2, 0, 1, 0},
    {65, GTPU_IP_TCP, 4, -2, 0, 2, 0},
    {66, GTPU_IP_TCP, 4, -2, 0, 3, 0},
    {67, GTPU_IP_TCP, 4, -2, 0, 4, 0},
    {69, GTPU_IP_TCP, 4, -2, 0, 5, 0},
    {70, GTPU_IP_TCP, 4, -2, 0, 6, 0},
};

const PacketStep* packetStep(uint32_t code) {
    for (const PacketStep& p : kPacketSteps)
        if (p.code == code) return &p;
    return nullptr;
}

void sendPacketStep(MV_KsUE* ue, pfcp_cp_sess_t* s, gtp_node_t* n, const PacketStep& ps) {
    if (ps.code == 44) rotate(s);
    uint32_t i = currentFlow(s);
    uint32_t payload = ps.payload == -1   ? uint32_t(randomIn(200, 400))
                       : ps.payload == -2 ? uint32_t(randomIn(100, 200))
                                          : uint32_t(ps.payload);
    KsGTPDirectPacket p = flowPacket(s, i, ps.protocol, ps.ipv, payload);
    p.fragment = ps.fragment;
    p.gtpType = ps.gtpType;
    if (ps.dstPort) p.inner.dstPort = ps.dstPort;
    sendOn(ue, s, n, i, p);
}

// `count` TCP packets from the current flow on, each on the next flow when rotating.
void sendBurst(MV_KsUE* ue, pfcp_cp_sess_t* s, gtp_node_t* n, bool rotating, uint32_t count) {
    for (uint32_t k = 0; k < count; ++k) {
        if (rotating) rotate(s);
        uint32_t i = currentFlow(s);
        if (!sendOn(ue, s, n, i, flowPacket(s, i, GTPU_IP_TCP, 4, uint32_t(randomIn(200, 400))))) break;
    }
}

uint32_t v4Of(const char* text) {
    in_addr a{};
    return text && inet_pton(AF_INET, text, &a) == 1 ? ntohl(a.s_addr) : 0;
}

// A query for an A record of google.com, 28 octets, its id the session's next sequence.
constexpr uint8_t kDnsQuestion[] = {6, 'g', 'o', 'o', 'g', 'l', 'e', 3, 'c', 'o', 'm', 0, 0, 1, 0, 1};
constexpr size_t kDnsQueryLen = 12 + sizeof kDnsQuestion;
static_assert(kDnsQueryLen == 28);

void sendDns(MV_KsUE* ue, pfcp_cp_sess_t* s, gtp_node_t* n) {
    uint32_t i = currentFlow(s);
    uint8_t q[kDnsQueryLen] = {};
    uint16_t id = uint16_t(s->gtp_seq_no + 1);
    memcpy(q, &id, 2);  // host order, as a resolver's id is opaque
    q[2] = 0x01;        // recursion desired
    q[5] = 1;           // one question
    memcpy(q + 12, kDnsQuestion, sizeof kDnsQuestion);
    KsGTPDirectPacket p = flowPacket(s, i, GTPU_IP_UDP, 4, uint32_t(sizeof q));
    p.inner.dstV4 = 0x08080808;
    p.inner.dstPort = 53;
    p.payload = q;
    sendOn(ue, s, n, i, p);
}

void sendIcmp(MV_KsUE* ue, pfcp_cp_sess_t* s, gtp_node_t* n, uint32_t server) {
    const char* ip = KsPFCP_GetPFCPSettingValue(6 + server);
    uint32_t dst = v4Of(ip);
    if (!dst) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] InternetServer IP-NotConfigured at Index=%u  <%s|%s|%d>",
                 KsUE__supi(ue), server + 1, __FILE_NAME__, __func__, __LINE__);
        return;
    }
    uint32_t i = currentFlow(s);
    int r = KsGTP__send_direct_icmp(n, n->server, s->teid, s->ipv4 ? s->ipv4->ipv4 : 0, dst,
                                    uint16_t(randomIn(30, 8000)), uint16_t(randomIn(8000, 16000)));
    if (r <= 0) logSendFailed(n, r, 4);
    else account(ue, s, i, GTPU_ICMP_HEADER_LEN, r);
}

void sendEcho(pfcp_cp_sess_t* s, gtp_node_t* n) {
    int r = KsGTP__send_direct_echo(n, n->server, s->teid);
    if (r <= 0) {
        logSendFailed(n, r, 4);
        return;
    }
    bump(s->flows[0].packets_sent, 1u);
    bump(s->bytes_sent, uint64_t(r));
}

void sendCapture(MV_KsUE* ue, pfcp_cp_sess_t* s, gtp_node_t* n) {
    uint32_t i = currentFlow(s);
    const pfcp_cp_sess_flow_t& f = s->flows[i];
    gtpu_rewrite rw;
    rw.srcV4 = s->ipv4 ? s->ipv4->ipv4 : 0;
    rw.dstV4 = f.dst_ip;
    rw.srcPort = f.src_port;
    rw.dstPort = f.dst_port;
    uint64_t bytes = 0;
    int sent = KsGTP__send_direct_capture(n, n->server, ue->PCAPFileId, s->teid, uint16_t(s->gtp_seq_no), rw, &bytes);
    if (sent < 0) {
        // The file would not open (logged below): still one step's worth of sending counted.
        KsPFCP__count(ue, &KsTestExec::PFCPSentGTPPacket);
        return;
    }
    s->gtp_seq_no += uint32_t(sent);
    s->flows[i].tcp_pack_seq += uint32_t(bytes);
    bump(s->flows[i].packets_sent, uint32_t(sent));
    bump(s->bytes_sent, bytes);
    if (sent > 0 && ue->testExec) __mv_counter_increment_request2(&ue->testExec->PFCPSentGTPPacket, uint64_t(sent));
}

// The UE's PDU session takes the PFCP session's tunnel, so that the data plane can send on it.
void copyToPduSession(MV_KsUE* ue, const pfcp_cp_sess_t* s, const KsStep* st, KsTEConnection* conn) {
    uint32_t id = st->PDUSessionId;
    if (id == 0 || id >= KS_UE_PDU_SESSIONS) return;
    MV_KsUEPduSession& p = ue->pduSessions[id];
    gtp_node_t* n = gtpNodeOf(conn);
    p.ranIP = n ? n->src_ipv4 : 0;
    p.gtpTEID = s->teid + KsPFCP__max_ran_ue_ids();
    p.upfTEID = s->teid;
    p.UPF__UPTLA_ipv4_int = v4Of(conn->upf_gtp_server_node_ip);
    p.u_pduAddress = s->ipv4 ? s->ipv4->ipv4 : 0;
}

// ---------------------------------------------------------------- what comes back

void onTPDU(void* owner, void*, const gtpu_msg_t* m, const gtpu_peer*) {
    auto* ue = static_cast<MV_KsUE*>(owner);
    auto* s = static_cast<pfcp_cp_sess_t*>(ue->pfcp_session);
    if (!s) return;
    std::span<const uint8_t> in = m->payload;
    uint64_t size = in.size();
    uint32_t flow = 0;
    bool known = true;
    if (in.size() >= 20 && (in[0] >> 4) == 4) {
        if (in.size() <= 20 || in[20] != 8) {  // anything but an echo request: by its source
            uint32_t src = uint32_t(in[12]) << 24 | uint32_t(in[13]) << 16 | uint32_t(in[14]) << 8 | in[15];
            flow = uint32_t(src - uint32_t(s->cp_seid + ue->ueId) + 777169790u);
        }
    } else if (in.size() >= 40 && (in[0] >> 4) == 6 && (in[6] == GTPU_IP_TCP || in[6] == GTPU_IP_UDP)) {
        uint32_t src = uint32_t(in[20]) << 24 | uint32_t(in[21]) << 16 | uint32_t(in[22]) << 8 | in[23];
        flow = uint32_t(src - uint32_t(s->cp_seid + ue->ueId) + 777169790u);
    } else {
        known = false;
    }
    if (known && flow < PFCP_SESSION_IP_FLOW_COUNT) {
        bump(s->flows[flow].packets_recv, 1u);
        bump(s->flows[flow].bytes_recv, size);
    }
    bump(s->bytes_recv, size);
    KsPFCP__count(ue, &KsTestExec::PFCPRecvGTPPacket);
}

}  // namespace

// ---------------------------------------------------------------- the pair's socket

void KsPFCP__open_gtp(KsTEClient* ksClient, KsTEServer* ksServer, KsTEConnection* ksTEConn, MV_IndexTable* teidTable) {
    __mv_gtpu_handlers h;
    h.OnTPDU = onTPDU;
    // A packet back on a session's tunnel carries the TEID the UPF was given for the access side.
    gtp_node_t* n = KsGTP_AddClientAndServerNode(ksClient->IP_2, uint16_t(ksClient->Port_2), ksServer->IP_2,
                                                 uint16_t(ksServer->Port_2), &h, teidTable, KsPFCP__max_ran_ue_ids());
    if (!n)
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "GTP-U socket at %s|%u towards %s|%u not made (no GTP-U module, or the address is taken): the "
                 "user-plane steps send nothing <%s|%s|%d>",
                 ksClient->IP_2, ksClient->Port_2, ksServer->IP_2, ksServer->Port_2, __FILE_NAME__, __func__, __LINE__);
    ksTEConn->upf_gtp_client_node = n;
}

// ---------------------------------------------------------------- the steps

void KsPFCP__runUserPlaneStep(MV_KsUE* ue, KsTEConnection* conn, const KsStep* st) {
    uint32_t code = st->StepCode;
    auto* s = static_cast<pfcp_cp_sess_t*>(ue->pfcp_session);
    if (code == 62 || code == 63) {  // full SCTP payloads are counted, never built
        KsPFCP__count(ue, &KsTestExec::PFCPSentGTPPacket);
        KS_COMPLETE_STEP(ue, code);
        return;
    }
    const PacketStep* ps = packetStep(code);
    bool known = ps || (code >= 43 && code <= 51) || code == 68;
    if (!known) {
        ++ksPfcpTally.StepsNotImplemented;
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "StepCode=%u Not Implemented  <%s|%s|%d>", code, __FILE_NAME__,
                 __func__, __LINE__);
        KS_COMPLETE_STEP(ue, code);
        return;
    }
    if (!s || !s->teid_indexRow) {
        ++ksPfcpTally.StepsWithoutSession;
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] StepCode=%u: the UE has no PFCP session <%s|%s|%d>",
                 KsUE__supi(ue), code, __FILE_NAME__, __func__, __LINE__);
        KS_COMPLETE_STEP(ue, code);
        return;
    }
    if (code == 43) {
        copyToPduSession(ue, s, st, conn);
        if (__ksEngine->DataPlanePort > 0) {
            // The external data plane would take the burst from here; that peer is not part of this build.
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                     "[%s] burst of %u packets for the data-path peer on port %u: no such peer in this build "
                     "<%s|%s|%d>",
                     KsUE__supi(ue), st->PacketCount, __ksEngine->DataPlanePort, __FILE_NAME__, __func__, __LINE__);
            KS_COMPLETE_STEP(ue, code);
            return;
        }
    }
    gtp_node_t* n = requireNode(conn);
    if (n) {
        if (ps) sendPacketStep(ue, s, n, *ps);
        else if (code == 43) sendBurst(ue, s, n, false, st->PacketCount ? st->PacketCount : 100);
        else if (code == 45) sendBurst(ue, s, n, true, 100);
        else if (code == 46) sendDns(ue, s, n);
        else if (code == 48) sendEcho(s, n);
        else if (code >= 49 && code <= 51) sendIcmp(ue, s, n, code - 49);
        else if (code == 68) sendCapture(ue, s, n);
    }
    // Each step ends as itself: a scenario's line expects the code it runs.
    KS_COMPLETE_STEP(ue, code);
}

// ---------------------------------------------------------------- the console's view

void KsPFCP__ProvideUE_PFCP_Status(__uec_simulated_ue* simUe, MV_KsUE* ksUE) {
    if (!simUe || !ksUE || !ksUE->PFCPConnId) return;
    auto* s = static_cast<pfcp_cp_sess_t*>(ksUE->pfcp_session);
    if (!s) return;
    uint32_t status = s->Status;
    simUe->U32_1 = status;
    if (status != KsPFCP__STATUS__RECV__PFCP_ESTABLISHMENT_RESPONSE &&
        status != KsPFCP__STATUS__RECV__PFCP_MODIFICATION_RESPONSE)
        return;
    __uec_pfcp_sess_data d{};
    d.ue_ip = s->ipv4 ? s->ipv4->ipv4 : 0;
    d.access_teid = s->teid;
    d.upf_teid = s->teid + KsPFCP__max_ran_ue_ids();
    for (pfcp_cp_sess_flow_t& f : s->flows) {
        d.pkts_sent += std::atomic_ref<uint32_t>(f.packets_sent).load(std::memory_order_relaxed);
        d.pkts_recv += std::atomic_ref<uint32_t>(f.packets_recv).load(std::memory_order_relaxed);
    }
    d.bytes_sent = std::atomic_ref<uint64_t>(s->bytes_sent).load(std::memory_order_relaxed);
    d.bytes_recv = std::atomic_ref<uint64_t>(s->bytes_recv).load(std::memory_order_relaxed);
    d.cp_seid = s->cp_seid;
    d.up_seid = s->upf_seid;
    simUe->U32_5 = VELTA_UEC_SUB_MSG_TYP__PFCP_STATS;
    simUe->U32_6 = sizeof d;
    simUe->datalen = sizeof d;
    memcpy(simUe->data, &d, sizeof d);
}
