#include "gtpu_gen.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "gtpu_ip.h"
#include "mv_alloc.h"
#include "mv_core.h"
#include "mv_tables.h"

#define GTPU_GEN_LOG(level, fmt, ...) __mv_log(MV_APP_LOG, LOG_CAT_APP, level, fmt, ##__VA_ARGS__)

namespace {

// Every payload is zeros from here: nothing to copy, nothing to add to a checksum.
const uint8_t kZeros[GTPU_GEN_MAX_PAYLOAD + 64] = {};

// A generator of its own per thread: the processing threads draw a random size per packet, and
// rand() would make them take turns on its lock.
struct XorShift {
    uint64_t s;
    uint32_t next() {
        s ^= s << 13;
        s ^= s >> 7;
        s ^= s << 17;
        return uint32_t(s >> 32);
    }
    uint32_t range(uint32_t lo, uint32_t hi) { return lo + next() % (hi - lo + 1); }
};

struct Tally {
    std::atomic<uint64_t> visits{0}, packets{0}, bytes{0}, sendFailed{0}, buildFailed{0}, goalsReached{0};
};

}  // namespace

// A processing thread and its list.
struct gtpu_gen_thread {
    int id = 0;
    std::atomic<bool> run{false};
    std::atomic<gtpu_gen_item*> ueHead{nullptr};
    gtpu_gen_item* ueCurrent = nullptr;  // under ueLock
    MV_Mutex ueLock;
    std::atomic<uint32_t> PacketsPerSecond{0};
    gtpu_gen* gen = nullptr;
    gtpu_tx_batch batch;
    XorShift rnd{0};
    Tally tally;
    std::mutex sleepLock;
    std::condition_variable sleepWake;
    MV_Sem exited;
};

struct gtpu_gen {
    gtpu_gen_config cfg;
    gtpu_gen_thread* threads = nullptr;
    int threadCount = 0;
    bool started = false;
    MV_PowerTable* flowTable = nullptr;  // items by ueId
    MV_Mutex itemLock;                   // one item per UE, even when two threads ask at once
};

namespace {

// One packet of flow `i` with payload size p: the transport segment is p + 20 octets whatever the
// protocol, as the generator has always sized it. Returns p, or 0 when it was not built.
uint32_t buildPacket(gtpu_gen_thread* t, gtpu_tx_slot* slot, gtpu_session* s, gtpu_gen_item* item, uint32_t i,
                     uint32_t p) {
    const gtpu_gen* g = t->gen;
    if (s->UPF__UPTLA_ipv == 2) gtpu_peer_set_v6(&slot->to, s->UPF__UPTLA_ipv6, g->cfg.dstPort);
    else gtpu_peer_set_v4(&slot->to, s->UPF__UPTLA_ipv4_int, g->cfg.dstPort);

    gtpu_inner f;
    static const uint8_t kNone[16] = {};
    f.ipVersion = s->IPVersion[i] == 6 && memcmp(s->PduAddressIPv6, kNone, 16) != 0 ? 6 : 4;
    f.protocol = item->sendICMP.load(std::memory_order_relaxed) ? GTPU_IP_ICMP
                 : s->ProtocolType[i]                            ? s->ProtocolType[i]
                                                                 : GTPU_IP_UDP;
    f.srcV4 = s->u_pduAddress;
    f.dstV4 = s->FlowDstIP[i];
    if (f.ipVersion == 6) {
        memcpy(f.srcV6, s->PduAddressIPv6, 16);
        f.dstV6[0] = 0xfc;  // fc00:: with the flow's destination in the low 32 bits
        f.dstV6[12] = uint8_t(s->FlowDstIP[i] >> 24);
        f.dstV6[13] = uint8_t(s->FlowDstIP[i] >> 16);
        f.dstV6[14] = uint8_t(s->FlowDstIP[i] >> 8);
        f.dstV6[15] = uint8_t(s->FlowDstIP[i]);
    }
    f.srcPort = s->FlowsSrcPort[i];
    f.dstPort = s->FlowsDstPort[i];
    f.ipId = uint16_t(i);
    f.tcpSeq = s->IPSequence[i];
    f.espSpi = s->gtpTEID;
    f.espSeq = s->GTPSequence[i];
    const size_t l4 = gtpu_l4_header_len(f.protocol);
    const size_t payload = p + 20 - l4;

    gtpu_tpdu_hdr h;  // sequence and container: the 16-octet form
    h.teid = s->gtpTEID;
    h.seq = uint16_t(s->GTPSequence[i]);
    h.qfi = s->QosFlowIdentifier;
    constexpr size_t hl = 16;
    size_t il = gtpu_build_inner_headers(std::span<uint8_t>(slot->head + hl, GTPU_SLOT_HEAD - hl), f, payload, 0);
    if (!il || gtpu_build_tpdu_header(slot->head, h, il + payload) != hl) return 0;
    slot->headLen = uint16_t(hl + il);
    slot->tail = kZeros;
    slot->tailLen = uint32_t(payload);
    return p;
}

// The generator's visit of one item: a packet on each chosen flow of each started session, from
// the item's first session on, until the goal is reached.
int processItem(gtpu_gen_thread* t, gtpu_gen_item* item) {
    if (!item->isActive.load(std::memory_order_acquire)) return 0;
    uint64_t goal = item->UploadBytes.load(std::memory_order_relaxed);
    if (item->UploadedBytes.load(std::memory_order_relaxed) >= goal) return 0;
    gtpu_gen* g = t->gen;
    uint8_t first = item->pduSessionId.load(std::memory_order_relaxed);
    if (first == 0 || first > GTPU_GEN_SESSIONS) first = 1;
    const uint32_t select = item->SendAllFlowsOrFlowId.load(std::memory_order_relaxed);
    int queued = 0;
    bool done = false;
    // The flow index runs on across sessions: a later session sends only on flows beyond those walked.
    uint32_t i = 0;
    for (uint8_t id = first; id <= GTPU_GEN_SESSIONS && !done; id++) {
        gtpu_session* s = g->cfg.hooks.Session(item->ksUE, id);
        if (!s || !s->isStarted.load(std::memory_order_acquire) || !s->gtpTEID || !s->u_pduAddress) continue;
        const uint32_t n = std::min<uint32_t>(s->FlowsCount.load(std::memory_order_acquire), GTPU_GEN_FLOWS);
        for (; i < n; i++) {
            if (item->UploadedBytes.load(std::memory_order_relaxed) >= goal) {
                done = true;
                break;
            }
            if (!s->isStarted.load(std::memory_order_acquire)) break;
            if (select != GTPU_GEN_ALL_FLOWS && select != i) continue;
            uint32_t p = select != GTPU_GEN_ALL_FLOWS ? uint32_t(goal & 0xFFFF) : 0;
            if (p == 0) p = t->rnd.range(50, 200);
            if (p > GTPU_GEN_MAX_PAYLOAD) p = GTPU_GEN_MAX_PAYLOAD;
            gtpu_tx_slot* slot = t->batch.next();
            if (!slot) {
                gtpu_gen_flush(g, t->id);
                slot = t->batch.next();
            }
            if (!buildPacket(t, slot, s, item, i, p)) {
                t->batch.drop_last();
                ++t->tally.buildFailed;
                continue;
            }
            ++queued;
            s->PktsSentCount.fetch_add(1, std::memory_order_relaxed);
            item->packets_sent.fetch_add(1, std::memory_order_relaxed);
            ++s->GTPSequence[i];
            s->IPSequence[i] += p;
            item->UploadedBytes.fetch_add(p, std::memory_order_relaxed);
            t->tally.bytes.fetch_add(p, std::memory_order_relaxed);
        }
    }
    t->tally.packets.fetch_add(uint64_t(queued), std::memory_order_relaxed);
    const uint64_t uploaded = item->UploadedBytes.load(std::memory_order_relaxed);
    if (uploaded >= goal) {
        item->isActive.store(0, std::memory_order_release);
        ++t->tally.goalsReached;
        char id[24];
        snprintf(id, sizeof id, "%lu", (unsigned long)item->ueId);
        const char* name = g->cfg.hooks.Name ? g->cfg.hooks.Name(item->ksUE) : id;
        GTPU_GEN_LOG(MV_LOG_INFO, "[%s] ver[%u] T-PDU Completed  UploadedBytes=%lu UploadBytes=%lu sentBytes=%u  %s|%d",
                     name, item->ver.load(), (unsigned long)uploaded, (unsigned long)goal, unsigned(uploaded),
                     __FILE_NAME__, __LINE__);
        if (g->cfg.hooks.OnGoalReached) g->cfg.hooks.OnGoalReached(item);
    }
    return queued;
}

void* processingThread(void* arg) {
    auto* t = static_cast<gtpu_gen_thread*>(arg);
    using clock = std::chrono::steady_clock;
    auto second = clock::now();
    while (t->run.load(std::memory_order_acquire)) {
        const uint32_t pps = t->PacketsPerSecond.load(std::memory_order_relaxed);
        uint64_t visits = 0;
        while (visits < pps && t->run.load(std::memory_order_relaxed)) {
            uint64_t before = t->tally.visits.load(std::memory_order_relaxed);
            // A walk that sent nothing would send nothing the next time within this second either.
            if (gtpu_gen_visit(t->gen, t->id) == 0) break;
            visits += t->tally.visits.load(std::memory_order_relaxed) - before;
        }
        gtpu_gen_flush(t->gen, t->id);
        // The next second starts a second after this one did, however long the burst took; a burst
        // longer than that starts the next at once.
        second += std::chrono::seconds(1);
        auto now = clock::now();
        if (second < now) second = now;
        std::unique_lock lk(t->sleepLock);
        t->sleepWake.wait_until(lk, second, [t] { return !t->run.load(std::memory_order_relaxed); });
    }
    t->exited.post();
    return nullptr;
}

}  // namespace

gtpu_gen* gtpu_gen_create(const gtpu_gen_config* cfg) {
    if (!cfg || !cfg->node || !cfg->hooks.Session || cfg->threads < 1) {
        GTPU_GEN_LOG(MV_LOG_CRITICAL, "gtp traffic generator not started: no endpoint, session hook or thread  %s|%s|%d",
                     __FILE_NAME__, __func__, __LINE__);
        return nullptr;
    }
    auto* g = new gtpu_gen;
    g->cfg = *cfg;
    g->threadCount = cfg->threads;
    g->threads = new gtpu_gen_thread[size_t(cfg->threads)];
    g->flowTable = __mv_power_table_create();
    for (int i = 0; i < g->threadCount; i++) {
        gtpu_gen_thread& t = g->threads[i];
        t.id = i;
        t.gen = g;
        t.rnd.s = 0x9E3779B97F4A7C15ull * uint64_t(i + 1);
    }
    if (cfg->start) {
        g->started = true;
        for (int i = 0; i < g->threadCount; i++) {
            g->threads[i].run = true;
            if (__mv_create_pthread2(processingThread, &g->threads[i], "gtpt") != 0) {
                g->threads[i].run = false;
                g->threads[i].exited.post();
            }
        }
    }
    return g;
}

void gtpu_gen_destroy(gtpu_gen* g) {
    if (!g) return;
    if (g->started) {
        for (int i = 0; i < g->threadCount; i++) {
            gtpu_gen_thread& t = g->threads[i];
            {
                std::lock_guard lk(t.sleepLock);
                t.run = false;
            }
            t.sleepWake.notify_all();
        }
        for (int i = 0; i < g->threadCount; i++) g->threads[i].exited.wait();
    }
    for (int i = 0; i < g->threadCount; i++) {
        for (gtpu_gen_item* it = g->threads[i].ueHead.load(); it;) {
            gtpu_gen_item* next = it->Next.load();
            delete it;
            it = next;
        }
    }
    __mv_power_table_destroy(g->flowTable);
    delete[] g->threads;
    delete g;
}

gtpu_gen_item* gtpu_gen_find_item(gtpu_gen* g, uint64_t ueId) {
    void* p = nullptr;
    if (!g || __mv_power_table_fnd_lk(g->flowTable, ueId, &p) != 1) return nullptr;
    return static_cast<gtpu_gen_item*>(p);
}

gtpu_gen_item* gtpu_gen_item_of(gtpu_gen* g, void* owner, uint64_t ueId) {
    if (!g) return nullptr;
    std::lock_guard lk(g->itemLock);
    if (gtpu_gen_item* it = gtpu_gen_find_item(g, ueId)) return it;
    auto* it = new gtpu_gen_item;
    it->ksUE = owner;
    it->ueId = ueId;
    __mv_power_table_add_lk(g->flowTable, ueId, it);
    gtpu_gen_thread& t = g->threads[ueId % uint64_t(g->threadCount)];
    std::lock_guard tl(t.ueLock);
    if (t.ueCurrent) t.ueCurrent->Next.store(it, std::memory_order_release);
    else t.ueHead.store(it, std::memory_order_release);
    t.ueCurrent = it;
    return it;
}

void gtpu_gen_set_thread_rate(gtpu_gen* g, uint64_t ueId, uint32_t visitsPerSecond) {
    if (g) g->threads[ueId % uint64_t(g->threadCount)].PacketsPerSecond.store(visitsPerSecond);
}

void gtpu_gen_make_flows(gtpu_session* s, uint32_t count) {
    if (count == 1) count = 2;  // one TCP and one UDP flow
    if (count > GTPU_GEN_FLOWS) count = GTPU_GEN_FLOWS;
    for (uint32_t i = 0; i < count; i++) {
        if (s->Flows[i]) continue;
        s->Flows[i] = __mv_core_getU32RANDRange(0x0a0a0a0a, 0xc0c0c0c0);
        s->FlowDstIP[i] = __mv_core_getU32RANDRange(0x0a0a0a0a, 0xc0c0c0c0);
        s->FlowsSrcPort[i] = __mv_core_getU16RANDRange(6000, 10000);
        s->FlowsDstPort[i] = __mv_core_getU16RANDRange(6000, 10000);
        s->GTPSequence[i] = 0;
        s->ProtocolType[i] = i % 2 ? GTPU_IP_UDP : GTPU_IP_TCP;
        s->IPVersion[i] = 4;
    }
    if (count > s->FlowsCount.load(std::memory_order_relaxed)) s->FlowsCount.store(count, std::memory_order_release);
}

void gtpu_gen_activate(gtpu_gen_item* item, const gtpu_gen_activation& a) {
    if (!item) return;
    item->ver.fetch_add(1, std::memory_order_relaxed);
    item->PacketsPerSecond.store(a.packetsPerSecond, std::memory_order_relaxed);
    item->pduSessionId.store(a.pduSessionId, std::memory_order_relaxed);
    item->sendICMP.store(a.sendICMP, std::memory_order_relaxed);
    item->SendAllFlowsOrFlowId.store(a.flowSelect, std::memory_order_relaxed);
    if (a.restart) {
        item->UploadedBytes.store(0, std::memory_order_relaxed);
        item->UploadBytes.store(a.uploadBytes, std::memory_order_relaxed);
    } else {
        item->UploadBytes.fetch_add(a.uploadBytes, std::memory_order_relaxed);
    }
    item->isActive.store(1, std::memory_order_release);
}

int gtpu_gen_visit(gtpu_gen* g, int t) {
    gtpu_gen_thread& th = g->threads[t];
    int queued = 0;
    uint64_t walked = 0;
    for (gtpu_gen_item* it = th.ueHead.load(std::memory_order_acquire); it;
         it = it->Next.load(std::memory_order_acquire)) {
        queued += processItem(&th, it);
        ++walked;
    }
    th.tally.visits.fetch_add(walked, std::memory_order_relaxed);
    return queued;
}

int gtpu_gen_flush(gtpu_gen* g, int t) {
    gtpu_gen_thread& th = g->threads[t];
    unsigned n = th.batch.count;
    if (!n) return 0;
    int sent = __mv_gtpu__send_batch(g->cfg.node, &th.batch);
    th.tally.sendFailed.fetch_add(n - unsigned(sent), std::memory_order_relaxed);
    return sent;
}

void gtpu_gen_get_stats(gtpu_gen* g, gtpu_gen_stats* out) {
    *out = gtpu_gen_stats{};
    for (int i = 0; i < g->threadCount; i++) {
        const Tally& t = g->threads[i].tally;
        out->visits += t.visits.load(std::memory_order_relaxed);
        out->packets += t.packets.load(std::memory_order_relaxed);
        out->bytes += t.bytes.load(std::memory_order_relaxed);
        out->sendFailed += t.sendFailed.load(std::memory_order_relaxed);
        out->buildFailed += t.buildFailed.load(std::memory_order_relaxed);
        out->goalsReached += t.goalsReached.load(std::memory_order_relaxed);
    }
}
