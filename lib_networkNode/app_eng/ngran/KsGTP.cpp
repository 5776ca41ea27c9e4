// The GTP-U module: its place in start-up, the generator's view of the UE's sessions, the
// user-plane steps, and what comes back on the process-wide socket.
#include "KsGTP.h"

#include <arpa/inet.h>

#include <cstring>
#include <mutex>
#include <unordered_map>

#include "KsEngine_step.h"
#include "KsGTP_internal.h"

GTPv1Server* __gtpv1Server = nullptr;

namespace ksgtp {
Tally tally;
}  // namespace ksgtp

using ksgtp::tally;

namespace {

// The downlink TEIDs this gNB hands out, by row: its own table, since the engine's control-plane
// TEID table is keyed by the core's TEIDs and of another kind.
MV_IndexTable* gDownlinkTeids = nullptr;

constexpr uint32_t kTeidOffset = 5;  // a downlink TEID is its row's id plus this
constexpr int kGGSNMode = 31;
std::atomic<int> currentApplicationType{0};

// The generator's owner of one UE: the UE and what the processing thread sends from, one
// tunnel per session id. The thread refreshes a tunnel from the UE's record at each visit, so
// the control plane writes only its own record; flows are made here and shown on the record.
struct KsGtpUe {
    MV_KsUE* ue = nullptr;
    gtpu_session s[GTPU_GEN_SESSIONS + 1];
};

std::mutex uesLock;
std::unordered_map<uint64_t, std::unique_ptr<KsGtpUe>> ues;

KsGtpUe* gtpUeOf(MV_KsUE* ue) {
    std::lock_guard g(uesLock);
    auto& p = ues[ue->ueId];
    if (!p) {
        p = std::make_unique<KsGtpUe>();
        p->ue = ue;
    }
    return p.get();
}

KsGtpUe* findGtpUe(const MV_KsUE* ue) {
    std::lock_guard g(uesLock);
    auto it = ues.find(ue->ueId);
    return it == ues.end() ? nullptr : it->second.get();
}

gtpu_session* sessionHook(void* owner, uint8_t id) {
    auto* g = static_cast<KsGtpUe*>(owner);
    if (id == 0 || id > GTPU_GEN_SESSIONS) return nullptr;
    MV_KsUE* ue = g->ue;
    MV_KsUEPduSession& r = ue->pduSessions[id];
    gtpu_session& s = g->s[id];
    if (currentApplicationType.load(std::memory_order_relaxed) == kGGSNMode) {
        // The GGSN's tunnel stands in the UE's GTPv1 fields, not in a PDU session.
        s.UPF__UPTLA_ipv = 1;
        s.UPF__UPTLA_ipv4_int = ue->ggsn_sgsn_u_ip;
        s.gtpTEID = ue->ggsn_sgsn_u_teid;
        s.u_pduAddress = ue->ggsn_sgsn_ueip;
        s.isStarted.store(1, std::memory_order_release);
    } else if (!__atomic_load_n(&r.isStarted, __ATOMIC_ACQUIRE)) {
        s.isStarted.store(0, std::memory_order_release);
    } else {
        s.UPF__UPTLA_ipv = r.UPF__UPTLA_ipv ? r.UPF__UPTLA_ipv : 1;
        s.UPF__UPTLA_ipv4_int = r.UPF__UPTLA_ipv4_int;
        memcpy(s.UPF__UPTLA_ipv6, r.UPF__UPTLA_ipv6, 16);
        s.gtpTEID = r.gtpTEID;
        s.u_pduAddress = r.u_pduAddress;
        memcpy(s.PduAddressIPv6, r.PduAddressIPv6, 16);
        s.QosFlowIdentifier = r.QosFlowIdentifier;
        s.isStarted.store(1, std::memory_order_release);
    }
    __atomic_store_n(&r.PktsSentCount, s.PktsSentCount.load(std::memory_order_relaxed), __ATOMIC_RELAXED);
    return &s;
}

void goalReachedHook(gtpu_gen_item* item) {
    auto* g = static_cast<KsGtpUe*>(item->ksUE);
    for (uint8_t id = 1; id <= GTPU_GEN_SESSIONS; ++id)
        __atomic_store_n(&g->ue->pduSessions[id].PktsSentCount, g->s[id].PktsSentCount.load(std::memory_order_relaxed),
                         __ATOMIC_RELAXED);
}

const char* nameHook(void* owner) { return KsUE__supi(static_cast<KsGtpUe*>(owner)->ue); }

gtpu_gen* generator() { return __gtpv1Server ? __gtpv1Server->ptTable : nullptr; }

// Makes the session's missing flows and shows them on the UE's record.
void makeFlows(KsGtpUe* g, uint8_t id, uint32_t count) {
    gtpu_session& s = g->s[id];
    gtpu_gen_make_flows(&s, count);
    MV_KsUEPduSession& r = g->ue->pduSessions[id];
    r.ksUe = g->ue;
    for (int i = 0; i < GTPU_GEN_FLOWS && i < KS_UE_FLOWS; ++i) {
        r.Flows[i] = s.Flows[i];
        r.FlowDstIP[i] = s.FlowDstIP[i];
        r.FlowsSrcPort[i] = s.FlowsSrcPort[i];
        r.FlowsDstPort[i] = s.FlowsDstPort[i];
        r.ProtocolType[i] = s.ProtocolType[i];
        r.IPVersion[i] = s.IPVersion[i];
    }
    r.FlowsCount = s.FlowsCount.load(std::memory_order_relaxed);
}

// ---------------------------------------------------------------- what comes back

void onTPDU(void* owner, void*, const gtpu_msg_t* msg, const gtpu_peer*) {
    auto* session = static_cast<MV_KsUEPduSession*>(owner);
    MV_KsUE* ue = session->ksUe;
    if (!ue) {
        ++tally.TpduNoSession;
        return;
    }
    {
        std::lock_guard g(ue->pduSessionsRecvCountLock);
        ++session->PktsRecvCount;
    }
    ++tally.TpduMatched;
    tally.TpduMatchedBytes += msg->payload.size();
}

void onEndMarker(void* owner, void*, const gtpu_msg_t* msg, const gtpu_peer* from) {
    ++tally.EndMarkerRecv;
    auto* session = static_cast<MV_KsUEPduSession*>(owner);
    char peer[80];
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s] End Marker on TEID=%08X from %s  %s|%s|%d",
             session->ksUe ? KsUE__supi(session->ksUe) : "", msg->teid, gtpu_peer_text(*from, peer, sizeof peer),
             __FILE_NAME__, __func__, __LINE__);
}

// The peer has no tunnel for a TEID we sent with: the UE that sends on it stops, rather than
// fill the peer's log with packets it drops.
void onErrorIndication(const gtpu_ies_t* ies, const gtpu_peer* from) {
    ++tally.ErrorIndicationRecv;
    char peer[80];
    gtpu_peer_text(*from, peer, sizeof peer);
    MV_KsUE* hit = nullptr;
    {
        std::lock_guard g(uesLock);
        for (auto& [id, u] : ues) {
            for (uint8_t s = 1; s <= GTPU_GEN_SESSIONS && !hit; ++s)
                if (u->s[s].gtpTEID == ies->teidDataI && u->s[s].isStarted.load(std::memory_order_relaxed))
                    hit = u->ue;
            if (hit) break;
        }
    }
    if (!hit) {
        ++tally.ErrorIndicationNoTunnel;
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_WARNING,
                 "Error Indication from %s for TEID=%08X that no UE sends on  %s|%s|%d", peer, ies->teidDataI,
                 __FILE_NAME__, __func__, __LINE__);
        return;
    }
    if (gtpu_gen* gen = generator())
        if (gtpu_gen_item* item = gtpu_gen_find_item(gen, hit->ueId)) item->isActive.store(0);
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] Error Indication from %s for TEID=%08X, sending stopped  %s|%s|%d",
             KsUE__supi(hit), peer, ies->teidDataI, __FILE_NAME__, __func__, __LINE__);
}

void onEchoResponse(uint16_t, const gtpu_peer*) { ++tally.EchoResponseRecv; }

// ---------------------------------------------------------------- the steps

uint32_t jsonNumber(json_t* cfg, const char* key, uint32_t dflt) {
    json_t* v = json_object_get(cfg, key);
    return json_is_integer(v) ? uint32_t(json_integer_value(v)) : dflt;
}

void complete(MV_KsUE* ue, uint32_t code) { KS_COMPLETE_STEP(ue, code); }

// One arming of the per-protocol steps: the item of the UE's fixed flows, one packet of `size`.
void armOne(MV_KsUE* ue, uint8_t pduSessionId, uint8_t protocol, uint8_t ipV, uint32_t size) {
    KsGTP_AddUE_AND_Flows(ue, pduSessionId);
    KsGTP_ActivateUEFlow(ue, pduSessionId, protocol, ipV, size);
    if (KsStep* st = KsScanario__GetKsExecutionStep(ue)) complete(ue, st->StepCode);
}

void runStep(MV_KsUE* ue) {
    KsStep* st = KsScanario__GetKsExecutionStep(ue);
    if (!st) return;
    ue->ksStepExecution = KsScanario__GetKsExecution(ue);
    ue->StepCode = st->StepCode;
    ++tally.StepsRun;
    if (__ksEngine->DataPlanePort > 0) {
        // Traffic then belongs to the external data-path peer.
        ++tally.StepsDataPlane;
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "%s   DataPlanePort=%d Configured Cannot Run Command=%s   %s|%s|%d",
                 KsUE__supi(ue), int(__ksEngine->DataPlanePort), KsScanario__StepName(st->StepCode), __FILE_NAME__,
                 __func__, __LINE__);
        Kestrane___runnerNotAvailable(ue, "KsDataPlane__runStep");
        return;
    }
    if (!generator()) {
        Kestrane___runnerNotAvailable(ue, "KsGTP__runStep_FQ");
        return;
    }
    switch (st->StepCode) {
        case KS_STEP__LOAD_TPDU:
        case KS_STEP__TEST_TPDU:
        case KS_STEP__TEST_TPDU2:
        case KS_STEP__TEST_TPDU_PACKETS:
            KsGTP_TPDU(ue, st);
            return;
        case KS_STEP__TEST_TPDU_ICMP:
        case KS_STEP__TEST_TPDU_ICMP2:
            KsGTP_SendICMP(ue, st->StepCode == KS_STEP__TEST_TPDU_ICMP ? 1 : 2, 1);
            complete(ue, st->StepCode);
            return;
        case KS_STEP__TEST_TPDU_PCAP_1_PACKET: KsGTP_TPDU_PCAP_1(ue, st); return;
        case KS_STEP__TEST_TPDU_PCAP_ALL_PACKETS: KsGTP_TPDU_PCAP_ALL(ue, st); return;
        case KS_STEP__TEST_TPDU_STOP_PACKETS:
            if (gtpu_gen_item* item = gtpu_gen_find_item(generator(), ue->ueId)) item->isActive.store(0);
            complete(ue, st->StepCode);
            return;
        default: Kestrane___runnerNotAvailable(ue, "KsGTP__runStep_FQ");
    }
}

}  // namespace

void ksgtp::countSent(MV_KsUE* ue, uint8_t id, uint64_t packets) {
    if (id == 0 || id > GTPU_GEN_SESSIONS) return;
    uint64_t n = gtpUeOf(ue)->s[id].PktsSentCount.fetch_add(packets) + packets;
    __atomic_store_n(&ue->pduSessions[id].PktsSentCount, n, __ATOMIC_RELAXED);
}

// ---------------------------------------------------------------- start

int KsGTP_Init(json_t* cfg) {
    static GTPv1Server server{};
    __gtpv1Server = &server;
    server.srcport = uint16_t(jsonNumber(cfg, "UPF_SRC_PORT", GTPU_PORT));
    server.dstport = uint16_t(jsonNumber(cfg, "UPF_DST_PORT", GTPU_PORT));
    server.NoOfPtThreads = GTPU_GEN_THREADS;
    const char* ip = json_string_value(json_object_get(cfg, "LOCAL_GTP_IP"));
    if (!ip) return 1;  // start-up has said why
    snprintf(strchr(ip, ':') ? server.AN_IPv6 : server.AN_IPv4, INET6_ADDRSTRLEN, "%s", ip);

    if (!gDownlinkTeids) {
        json_t* m = json_object_get(cfg, "MaximumUE");
        uint32_t ues = json_is_integer(m) && json_integer_value(m) > 0 ? uint32_t(json_integer_value(m)) : 100000;
        // Two sessions a UE, within what one table can hold.
        uint32_t rows = std::min<uint32_t>(std::max<uint32_t>(ues * 2, 1024), 4000000);
        gDownlinkTeids = __mv_IndexTable_create(1, rows);
    }
    if (__ksEngine->DataPlanePort > 0) return 1;  // the data-path peer owns the user plane

    __mv_gtpu_config c;
    c.ip = ip;
    c.port = server.srcport;
    c.teidTable = gDownlinkTeids;
    c.teidOffset = kTeidOffset;
    c.handlers.OnTPDU = onTPDU;
    c.handlers.OnEndMarker = onEndMarker;
    c.handlers.OnErrorIndication = onErrorIndication;
    c.handlers.OnEchoResponse = onEchoResponse;
    server.gtpServerSocket = __mv_gtpu__open(&c);
    if (!server.gtpServerSocket) {
        // Another engine on this host may hold the port: the rest of the engine still serves,
        // and every user-plane step says it cannot run.
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL,
                 "GTP-U socket %s port %u cannot be opened, user plane not available  %s|%s|%d", ip,
                 unsigned(server.srcport), __FILE_NAME__, __func__, __LINE__);
        printf("GTP-U socket %s port %u cannot be opened, user plane not available\n", ip, unsigned(server.srcport));
        return 1;
    }
    gtpu_gen_config g;
    g.threads = server.NoOfPtThreads;
    g.node = server.gtpServerSocket;
    g.dstPort = server.dstport;
    g.hooks.Session = sessionHook;
    g.hooks.OnGoalReached = goalReachedHook;
    g.hooks.Name = nameHook;
    server.ptTable = gtpu_gen_create(&g);
    return 1;
}

void KsGTP__Init() {
    KsEngine__RegisterStartStep(KsStartSlot::GTP, KsGTP_Init);
    // The user-plane steps: the scenario's (StepIndex 7) and the console's prebuilt ones, which
    // dispatch gives the same index.
    KsEngine__RegisterRunner(7, 7, "KsGTP__runStep_FQ", runStep);
    static constexpr KsUserPlane kUserPlane{KsGTP__AllocateDownlinkTEID, KsGTP__ReleaseDownlinkTEID, KsGTP_SendICMP};
    KsEngine__RegisterUserPlane(&kUserPlane);
}

void KsGTP_SetApplicationType(int ipt) { currentApplicationType = ipt; }

// ---------------------------------------------------------------- tunnels

uint32_t KsGTP__AllocateDownlinkTEID(MV_KsUEPduSession* session) {
    MV_IndexTable* t = gDownlinkTeids;
    if (!t || !session) return 0;
    uint32_t id = __mv_IndexTable_allocateRowId(t, session);
    return id ? id + kTeidOffset : 0;
}

void KsGTP__ReleaseDownlinkTEID(uint32_t teid) {
    MV_IndexTable* t = gDownlinkTeids;
    if (t && teid > kTeidOffset) __mv_IndexTable_FreeRow(t, teid - kTeidOffset);
}

bool KsGTP__SessionPeer(const MV_KsUEPduSession* s, gtpu_peer* out) {
    if (!__gtpv1Server) return false;
    if (s->UPF__UPTLA_ipv == 2) gtpu_peer_set_v6(out, s->UPF__UPTLA_ipv6, __gtpv1Server->dstport);
    else if (s->UPF__UPTLA_ipv4_int) gtpu_peer_set_v4(out, s->UPF__UPTLA_ipv4_int, __gtpv1Server->dstport);
    else return false;
    return true;
}

int KsGTP__SendEndMarker(MV_KsUE* ue, uint8_t id) {
    if (!ue || id == 0 || id >= KS_UE_PDU_SESSIONS || !ksgtp::socketOf(nullptr)) return 0;
    const MV_KsUEPduSession& s = ue->pduSessions[id];
    gtpu_peer to{};
    uint8_t buf[16];
    size_t n = gtpu_build_end_marker(buf, s.gtpTEID);
    if (!s.gtpTEID || !KsGTP__SessionPeer(&s, &to) || !n) return 0;
    int r = __mv_gtpu__send_one(ksgtp::socketOf(nullptr), to, buf, n);
    if (r <= 0) return 0;
    ++tally.EndMarkerSent;
    return r;
}

int KsGTP__SendEchoRequest(const char* ip, uint16_t port, uint16_t seq) {
    gtpu_peer to{};
    __mv_gtpu_node* sock = ksgtp::socketOf(nullptr);
    if (!sock || !ip || !gtpu_peer_set(&to, ip, port)) return 0;
    int r = __mv_gtpu__send_echo_request(sock, to, seq);
    if (r <= 0) return 0;
    ++tally.EchoRequestSent;
    return r;
}

// ---------------------------------------------------------------- the user-plane steps

void KsGTP_TPDU(MV_KsUE* ue, KsStep* st) {
    gtpu_gen* gen = generator();
    if (!gen || !ue || !st) return;
    uint32_t pps = st->PacketsPerSecond, flows = st->Flows;
    uint64_t upload = st->UploadBytes;
    if (st->StepCode == KS_STEP__TEST_TPDU_PACKETS) {
        // The scenario's packet step carries no traffic values: the console's defaults.
        if (!pps) pps = 3;
        if (!flows) flows = 1;
        if (!upload) upload = 500;
    }
    gtpu_gen_set_thread_rate(gen, ue->ueId, pps);
    KsGtpUe* g = gtpUeOf(ue);
    gtpu_gen_item* item = gtpu_gen_item_of(gen, g, ue->ueId);
    if (flows == 1) flows = 2;
    for (uint8_t id = 1; id <= GTPU_GEN_SESSIONS; ++id) makeFlows(g, id, flows);
    gtpu_gen_activation a;
    a.uploadBytes = upload;
    a.packetsPerSecond = pps;
    a.pduSessionId = st->StepCode == KS_STEP__TEST_TPDU2 ? 2 : 1;
    gtpu_gen_activate(item, a);
    // The traffic runs in the background: the step is done once it is armed.
    complete(ue, st->StepCode);
}

void KsGTP_SendICMP(MV_KsUE* ue, uint8_t pduSessionId, uint8_t) {
    gtpu_gen* gen = generator();
    if (!gen || !ue) return;
    gtpu_gen_set_thread_rate(gen, ue->ueId, 1);
    KsGtpUe* g = gtpUeOf(ue);
    gtpu_gen_item* item = gtpu_gen_item_of(gen, g, ue->ueId);
    for (uint8_t id = 1; id <= GTPU_GEN_SESSIONS; ++id) makeFlows(g, id, 5);
    gtpu_gen_activation a;
    a.uploadBytes = 50;  // one echo: every packet is at least that long
    a.packetsPerSecond = 1;
    a.pduSessionId = pduSessionId;
    a.sendICMP = 1;
    gtpu_gen_activate(item, a);
}

void KsGTP_AddUE_AND_Flows(MV_KsUE* ue, uint8_t pduSessionId) {
    gtpu_gen* gen = generator();
    if (!gen || !ue) return;
    if (pduSessionId == 0 || pduSessionId > GTPU_GEN_SESSIONS) pduSessionId = 1;
    if (gtpu_gen_find_item(gen, ue->ueId)) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_DEBUG, "[%s] UE item exists, flows kept  %s|%s|%d", KsUE__supi(ue),
                 __FILE_NAME__, __func__, __LINE__);
        return;
    }
    gtpu_gen_set_thread_rate(gen, ue->ueId, 0);
    KsGtpUe* g = gtpUeOf(ue);
    gtpu_session& s = g->s[pduSessionId];
    // Flow 0 TCP IPv4, 1 TCP IPv6, 2 UDP IPv4, 3 UDP IPv6, 4 free.
    static constexpr uint8_t kProto[5] = {GTPU_IP_TCP, GTPU_IP_TCP, GTPU_IP_UDP, GTPU_IP_UDP, GTPU_IP_UDP};
    static constexpr uint8_t kVer[5] = {4, 6, 4, 6, 4};
    gtpu_gen_make_flows(&s, 5);
    for (int i = 0; i < 5; ++i) {
        s.ProtocolType[i] = kProto[i];
        s.IPVersion[i] = kVer[i];
    }
    makeFlows(g, pduSessionId, 5);
    gtpu_gen_item_of(gen, g, ue->ueId);
}

void KsGTP_ActivateUEFlow(MV_KsUE* ue, uint8_t pduSessionId, uint8_t tcpOrUDP, uint8_t ipV, uint32_t uploadBytes) {
    gtpu_gen* gen = generator();
    if (!gen || !ue) return;
    if (pduSessionId == 0 || pduSessionId > GTPU_GEN_SESSIONS) pduSessionId = 1;
    gtpu_gen_set_thread_rate(gen, ue->ueId, 1);
    KsGtpUe* g = gtpUeOf(ue);
    gtpu_gen_item* item = gtpu_gen_item_of(gen, g, ue->ueId);
    const gtpu_session& s = g->s[pduSessionId];
    uint32_t n = std::min<uint32_t>(s.FlowsCount.load(), GTPU_GEN_FLOWS);
    for (uint32_t i = 0; i < n; ++i) {
        if (s.ProtocolType[i] != tcpOrUDP || s.IPVersion[i] != ipV) continue;
        gtpu_gen_activation a;
        a.uploadBytes = uploadBytes;
        a.restart = true;
        a.packetsPerSecond = 1;
        a.pduSessionId = pduSessionId;
        a.flowSelect = i;
        gtpu_gen_activate(item, a);
        return;
    }
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] no flow of protocol %u IPv%u in session %u  %s|%s|%d",
             KsUE__supi(ue), unsigned(tcpOrUDP), unsigned(ipV), unsigned(pduSessionId), __FILE_NAME__, __func__,
             __LINE__);
}

void KsGTP_Send_GTPU_IPv4_TCP(MV_KsUE* ue, uint8_t id, uint8_t) { armOne(ue, id, GTPU_IP_TCP, 4, 1000); }
void KsGTP_Send_GTPU_IPv4_UDP(MV_KsUE* ue, uint8_t id, uint8_t) { armOne(ue, id, GTPU_IP_UDP, 4, 1000); }
void KsGTP_Send_GTPU_IPv4_UDP_LargePacket(MV_KsUE* ue, uint8_t id, uint8_t) { armOne(ue, id, GTPU_IP_UDP, 4, 3000); }
void KsGTP_Send_GTPU_IPv6_TCP(MV_KsUE* ue, uint8_t id, uint8_t) { armOne(ue, id, GTPU_IP_TCP, 6, 1000); }
void KsGTP_Send_GTPU_IPv6_UDP(MV_KsUE* ue, uint8_t id, uint8_t) { armOne(ue, id, GTPU_IP_UDP, 6, 1000); }
void KsGTP_Send_GTPU_IPv6_UDP_LargePacket(MV_KsUE* ue, uint8_t id, uint8_t) { armOne(ue, id, GTPU_IP_UDP, 6, 3000); }

void KsGTP_Send_GTPU_PacketByProtocolType(MV_KsUE* ue, uint8_t id, uint8_t) {
    KsStep* st = KsScanario__GetKsExecutionStep(ue);
    KsGTP_AddUE_AND_Flows(ue, id);
    if (KsGtpUe* g = findGtpUe(ue); g && st) {
        uint8_t sid = id == 0 || id > GTPU_GEN_SESSIONS ? 1 : id;
        g->s[sid].ProtocolType[4] = uint8_t(st->ServiceType);
        g->s[sid].IPVersion[4] = 4;
        KsGTP_ActivateUEFlow(ue, sid, uint8_t(st->ServiceType), 4, 900);
    }
    if (st) complete(ue, st->StepCode);
}

void KsGTP_Send_GTPU_PCAP_File(MV_KsUE* ue, uint8_t, uint8_t) {
    if (KsStep* st = KsScanario__GetKsExecutionStep(ue)) KsGTP_TPDU_PCAP_ALL(ue, st);
}

const gtpu_gen_item* KsGTP__FindItem(const MV_KsUE* ue) {
    gtpu_gen* gen = generator();
    return gen && ue ? gtpu_gen_find_item(gen, ue->ueId) : nullptr;
}

uint64_t KsGTP__PacketsSent(const MV_KsUE* ue, uint8_t id) {
    KsGtpUe* g = ue ? findGtpUe(ue) : nullptr;
    return g && id >= 1 && id <= GTPU_GEN_SESSIONS ? g->s[id].PktsSentCount.load() : 0;
}

void KsGTP__GetStats(KsGTPStats* out) {
    *out = KsGTPStats{};
#define KS_GTP_STAT_COPY(name) out->name = tally.name.load();
    KS_GTP_STATS_FIELDS(KS_GTP_STAT_COPY)
#undef KS_GTP_STAT_COPY
    if (__mv_gtpu_node* n = ksgtp::socketOf(nullptr)) __mv_gtpu__get_stats(n, &out->endpoint);
    if (gtpu_gen* gen = generator()) gtpu_gen_get_stats(gen, &out->generator);
}
