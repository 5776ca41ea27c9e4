// The emulation's record: the session pool, the SEID and TEID index tables and the UE
// address pools, all sized once, so that setting up a session takes nothing from the heap
// and a SEID finds its UE by array index.
#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "KsPFCP.h"
#include "mv_tables.h"
#include "pfcp_node.h"

namespace {

// First in, first out over records that live as long as the process: a released entry
// goes to the tail, so that it rests as long as possible before it is handed out again.
template <class T, T* T::*Link>
struct KsFreeList {
    T* Head = nullptr;
    T* Current = nullptr;
    MV_Mutex Lock;
    uint32_t Total = 0;
    uint32_t Available = 0;

    void put(T* r) {
        std::lock_guard g(Lock);
        r->*Link = nullptr;
        if (Current) Current->*Link = r;
        else Head = r;
        Current = r;
        ++Available;
    }
    T* take() {
        std::lock_guard g(Lock);
        T* r = Head;
        if (!r) return nullptr;
        Head = r->*Link;
        if (!Head) Current = nullptr;
        r->*Link = nullptr;
        --Available;
        return r;
    }
};

}  // namespace

struct __ks_pfcp {
    std::atomic<int> __init{0};
    KsFreeList<pfcp_cp_ipv6_t, &pfcp_cp_ipv6_t::Next> ipv6;
    KsFreeList<pfcp_cp_ipv4_t, &pfcp_cp_ipv4_t::Next> ipv4;
    KsFreeList<pfcp_cp_sess_t, &pfcp_cp_sess_t::next> sessPool;
    MV_IndexTable* seqTable = nullptr;
    MV_IndexTable* teidTable = nullptr;
    std::atomic<KsTEClient*> ksClient{nullptr};
    std::atomic<KsTEServer*> ksServer{nullptr};
    uint32_t count = 0;
};

__ks_pfcp* __ks_pfcp_instance = nullptr;
KsPFCPTally ksPfcpTally;

namespace {

uint32_t settingNumber(uint32_t key, uint32_t dflt) {
    const char* v = KsPFCP_GetPFCPSettingValue(key);
    long n = v ? strtol(v, nullptr, 10) : 0;
    return n > 0 ? uint32_t(n) : dflt;
}

// "address/prefix": the address part, into `out`.
void addressOf(const char* pool, char* out, size_t size) {
    snprintf(out, size, "%s", pool);
    if (char* slash = strchr(out, '/')) *slash = 0;
}

}  // namespace

MV_IndexTable* KsPFCP__teid_table() { return __ks_pfcp_instance ? __ks_pfcp_instance->teidTable : nullptr; }

uint32_t KsPFCP__max_ran_ue_ids() { return __ksEngine ? __ksEngine->maxRanUEIDs : 0; }

int KsPFCP_Init() {
    if (!__ks_pfcp_instance) __ks_pfcp_instance = new __ks_pfcp;
    return 1;
}

int KsPFCP_Initalize(uint32_t count) {
    KsPFCP_Init();
    __ks_pfcp* k = __ks_pfcp_instance;
    if (k->count) return 1;
    if (count == 0) return 0;

    char v4[64], v6[64];
    const char* pool4 = KsPFCP_GetPFCPSettingValue(1);
    const char* pool6 = KsPFCP_GetPFCPSettingValue(4);
    addressOf(pool4 ? pool4 : "127.0.0.1/0", v4, sizeof v4);
    addressOf(pool6 ? pool6 : "::1/127", v6, sizeof v6);
    in_addr a4{};
    in6_addr a6{};
    if (inet_pton(AF_INET, v4, &a4) != 1) {
        fprintf(stderr, "%s is not a valid IP address\n", v4);
        return 0;
    }
    if (inet_pton(AF_INET6, v6, &a6) != 1) {
        fprintf(stderr, "%s is not a valid IP address\n", v6);
        return 0;
    }
    k->seqTable = __mv_IndexTable_create(settingNumber(2, 502), count);
    k->teidTable = __mv_IndexTable_create(settingNumber(3, 754), count);
    if (!k->seqTable || !k->teidTable) return 0;

    auto* sessions = new pfcp_cp_sess_t[count]();
    auto* ipv4s = new pfcp_cp_ipv4_t[count]();
    auto* ipv6s = new pfcp_cp_ipv6_t[count]();
    uint32_t base4 = ntohl(a4.s_addr);
    a6.s6_addr[15] &= 0xFE;  // the lowest host of the /127 around it
    for (uint32_t i = 0; i < count; ++i) {
        k->sessPool.put(&sessions[i]);
        ipv4s[i].ipv4 = base4 + i;
        k->ipv4.put(&ipv4s[i]);
        memcpy(ipv6s[i].ip6, a6.s6_addr, 16);
        uint32_t carry = i;
        for (int b = 15; b >= 0 && carry; --b) {
            uint32_t sum = ipv6s[i].ip6[b] + (carry & 0xFF);
            ipv6s[i].ip6[b] = uint8_t(sum);
            carry = (carry >> 8) + (sum >> 8);
        }
        k->ipv6.put(&ipv6s[i]);
    }
    k->sessPool.Total = k->ipv4.Total = k->ipv6.Total = count;
    k->count = count;
    return 1;
}

pfcp_cp_sess_t* KsPFCP__session_of(MV_KsUE* ue, KsTEConnection* conn) {
    __ks_pfcp* k = __ks_pfcp_instance;
    if (!k || !k->count) return nullptr;
    auto* s = static_cast<pfcp_cp_sess_t*>(ue->pfcp_session);
    if (!s) {
        s = k->sessPool.take();
        if (!s) return nullptr;
        MV_IndexRow* row = __mv_IndexTable_getRow(k->seqTable);
        if (!row) {
            k->sessPool.put(s);
            return nullptr;
        }
        __mv_indexRow_setObject(row, ue);
        s->prev = nullptr;
        s->seid_indexRow = row;
        s->cp_seid = __mv_indexRow_getId(row);
        s->upf_seid = 0;
        s->pdrid = 0;
        s->ipv4 = nullptr;
        s->ipv6 = nullptr;
        s->teid = 0;
        s->teid_indexRow = nullptr;
        s->gtp_seq_no = 0;
        for (uint32_t f = 0; f < PFCP_SESSION_IP_FLOW_COUNT; ++f) {
            pfcp_cp_sess_flow_t& fl = s->flows[f];
            fl = {};
            fl.flowId = f;
            fl.dst_ip = uint32_t(ue->ueId + f + s->cp_seid - 777169790u);
            fl.src_port = uint16_t(9000 + rand() % 41001);
            fl.dst_port = uint16_t(9000 + rand() % 41001);
        }
        s->flowCount = PFCP_SESSION_IP_FLOW_COUNT;
        s->last_sent_flow_id = 0;
        s->bytes_sent = s->bytes_recv = 0;
        s->ul_mbr = s->dl_mbr = 0;
        s->Status = KsPFCP__STATUS__NONE;
        s->sent_smr_attached_to_ser = 0;
        s->ignore_pfcp_smr = 0;
        s->waitingSeq = 0;
        s->triggeredSeq = 0;
        {
            std::lock_guard g(s->answerLock);
            s->answerPending = false;
        }
        ue->PFCPConnId = conn ? conn->ConnectionId : 0;
        ue->pfcp_session = s;
        ++ksPfcpTally.SessionsCreated;
    }
    if (!s->ipv4) s->ipv4 = k->ipv4.take();
    if (!s->ipv6) s->ipv6 = k->ipv6.take();
    if (!s->teid_indexRow) {
        s->teid_indexRow = __mv_IndexTable_getRow(k->teidTable);
        if (s->teid_indexRow) {
            __mv_indexRow_setObject(s->teid_indexRow, ue);
            s->teid = __mv_indexRow_getId(s->teid_indexRow);
        }
    }
    // A request beyond the pools must not go out with an address or tunnel of another UE.
    if (!s->ipv4 || !s->ipv6 || !s->teid_indexRow) return nullptr;
    return s;
}

void KsPFCP__release_session(MV_KsUE* ue) {
    __ks_pfcp* k = __ks_pfcp_instance;
    auto* s = static_cast<pfcp_cp_sess_t*>(ue->pfcp_session);
    if (!k || !s) return;
    if (s->ipv4) k->ipv4.put(s->ipv4);
    if (s->ipv6) k->ipv6.put(s->ipv6);
    s->ipv4 = nullptr;
    s->ipv6 = nullptr;
    if (s->seid_indexRow) {
        __mv_indexRow_setObject(s->seid_indexRow, nullptr);
        __mv_IndexTable_putRow(s->seid_indexRow);
    }
    if (s->teid_indexRow) {
        __mv_indexRow_setObject(s->teid_indexRow, nullptr);
        __mv_IndexTable_putRow(s->teid_indexRow);
    }
    s->seid_indexRow = nullptr;
    s->teid_indexRow = nullptr;
    s->Status = KsPFCP__STATUS__RECV__PFCP_DELETE_RESPONSE;
    ue->pfcp_session = nullptr;
    k->sessPool.put(s);
    ++ksPfcpTally.SessionsReleased;
}

MV_KsUE* KsPFCP__ue_of_seid(uint64_t seid, pfcp_cp_sess_t** sess) {
    __ks_pfcp* k = __ks_pfcp_instance;
    if (sess) *sess = nullptr;
    if (!k || !k->seqTable || seid == 0 || seid > UINT32_MAX) return nullptr;
    MV_IndexRow* row = __mv_IndexTable_FindRow(k->seqTable, uint32_t(seid));
    if (!row) return nullptr;
    auto* ue = static_cast<MV_KsUE*>(__mv_indexRow_getObject(row));
    if (!ue) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "PFCP Session Not Found with SEID=%lu <%s|%s|%d>",
                 (unsigned long)seid, __FILE_NAME__, __func__, __LINE__);
        return nullptr;
    }
    auto* s = static_cast<pfcp_cp_sess_t*>(ue->pfcp_session);
    if (!s || s->seid_indexRow != row) return nullptr;
    if (sess) *sess = s;
    return ue;
}

void KsPFCP__set_elements(KsTEClient* ksClient, KsTEServer* ksServer) {
    if (!__ks_pfcp_instance) return;
    __ks_pfcp_instance->ksClient = ksClient;
    __ks_pfcp_instance->ksServer = ksServer;
}

int KsPFCP__pool_availability(uint32_t* sessions, uint32_t* ipv4) {
    __ks_pfcp* k = __ks_pfcp_instance;
    if (!k) return 0;
    if (sessions) *sessions = k->sessPool.Available;
    if (ipv4) *ipv4 = k->ipv4.Available;
    return int(k->count);
}
