#include "KsMonitoringEngine.h"

#include <unistd.h>

#include <cstdio>
#include <mutex>
#include <vector>

#include "mv_core.h"

struct KsMonitoringPair {
    int ServerId;
    int ClientId;
    uint32_t AppType;
};
struct KsMonitoringPairs {
    std::vector<KsMonitoringPair> v;
};

namespace {

std::atomic<KsMonitoringEngine_s*> __mtrEng{nullptr};
std::mutex gInitLock;
std::atomic<uint32_t> gIntervalMicros{999999};
std::atomic<int> gStop{0};
std::atomic<int> gRunning{0};

bool intMember(json_t* el, const char* key, json_int_t lo, json_int_t hi, json_int_t& out) {
    json_t* v = json_object_get(el, key);
    if (!json_is_integer(v)) return false;
    out = json_integer_value(v);
    return out >= lo && out <= hi;
}

// The list's usable pairs; each element that is not one is logged and passed over.
std::vector<KsMonitoringPair> readPairs() {
    const KsTEConfigSource* src = KsTE__GetConfigSource();
    json_t* list = src && src->MonitorList ? src->MonitorList() : nullptr;
    std::vector<KsMonitoringPair> out;
    size_t i;
    json_t* el;
    json_array_foreach(list, i, el) {
        json_int_t server, client, type;
        const char* why = nullptr;
        if (!json_is_object(el)) why = "not an object";
        else if (!intMember(el, "ServerID", 0, INT32_MAX, server)) why = "ServerID is missing or not a number";
        else if (!intMember(el, "ClientID", 0, INT32_MAX, client)) why = "ClientID is missing or not a number";
        else if (!intMember(el, "AppType", 1, KS_TE_APP_TYPE_COUNT - 1, type)) why = "AppType is missing or not an application type";
        if (why) {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "mon.json element %zu skipped: %s %s|%d", i, why, __func__,
                     __LINE__);
            continue;
        }
        out.push_back({int(server), int(client), uint32_t(type)});
    }
    return out;
}

void setPairs(KsMonitoringEngine_s* m, std::vector<KsMonitoringPair> pairs) {
    std::lock_guard g(m->Lock);
    m->pairs->v = std::move(pairs);
}

}  // namespace

void KsMonitoringEngine__Init(void) {
    std::lock_guard g(gInitLock);
    const KsTEConfigSource* src = KsTE__GetConfigSource();
    if (!src || !src->MonitoringEnabled || !src->MonitoringEnabled() || __mtrEng.load()) return;
    auto* m = new KsMonitoringEngine_s{};
    m->pairs = new KsMonitoringPairs;
    m->loadConfig = 1;
    setPairs(m, readPairs());
    __mtrEng.store(m);
    gRunning = 1;
    if (__mv_create_pthread2(KsMonitoringEngine__Start, nullptr, "mtreng") != 0) {
        gRunning = 0;
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "monitoring thread could not be started %s|%d", __func__,
                 __LINE__);
    }
}

void KsMonitoringEngine__LoadConfig(void) {
    std::lock_guard g(gInitLock);
    KsMonitoringEngine_s* m = __mtrEng.load();
    if (!m) return;
    // Read here, on the thread that has just changed the list, rather than by the
    // monitoring thread while a console handler may be changing it again.
    setPairs(m, readPairs());
    m->loadConfig = 1;
}

KsMonitoringNode_s* KsMonitoringEngine__FindNode(int serverId, int clientId, int Add) {
    KsMonitoringEngine_s* m = __mtrEng.load();
    if (!m) return nullptr;
    std::lock_guard g(m->Lock);
    for (KsMonitoringNode_s* n = m->HeadNode; n; n = n->Next)
        if (n->ServerId == serverId && n->ClientId == clientId) return n;
    if (Add == 1) {
        auto* n = new KsMonitoringNode_s{};
        n->ServerId = serverId;
        n->ClientId = clientId;
        if (m->CurrNode) m->CurrNode->Next = n;
        else m->HeadNode = n;
        m->CurrNode = n;
    }
    return nullptr;
}

void KsMonitoringEngine__ConfigureNodes(void) {
    KsMonitoringEngine_s* m = __mtrEng.load();
    if (!m) return;
    std::vector<KsMonitoringPair> pairs;
    {
        std::lock_guard g(m->Lock);
        pairs = m->pairs->v;
    }
    for (const KsMonitoringPair& p : pairs) {
        KsMonitoringNode_s* node = KsMonitoringEngine__FindNode(p.ServerId, p.ClientId, 1);
        if (!node) continue;
        // Written only when it changes: a reader of a node that is up sees no write after it.
        if (node->AppType != p.AppType) node->AppType = p.AppType;
        for (KsTEClient* c = KsTE__GetKsTEClientHead(); c && !node->ksClient; c = KsTE__GetKsTEClientNext(c)) {
            if (c->ApplicationType != p.AppType || c->ID != uint32_t(p.ClientId)) continue;
            for (KsTEServer* s = KsTE__GetKsTEServerHead(c); s; s = KsTE__GetKsTEServerNext(s)) {
                if (s->ID != uint32_t(p.ServerId)) continue;
                node->ksClient = c;
                node->ksServer = s;
                node->ConnectionId = s->ConnectionId;
                break;
            }
        }
        // A pair whose node did not come up is tried again each round.
        if (node->ksServer && !node->ksServer->ksTE.load())
            KsTE__AddConnectionAndRunCommand(node->ksClient, node->ksServer, node->AppType, node->ConnectionId,
                                             KS_TE_COMMAND__ADD_NODE);
    }
}

void* KsMonitoringEngine__Start(void*) {
    while (!gStop.load()) {
        KsMonitoringEngine_s* m = __mtrEng.load();
        if (m && m->loadConfig.load() == 1) KsMonitoringEngine__ConfigureNodes();
        // Slept in slices so that a stop is seen soon.
        for (uint32_t slept = 0; slept < gIntervalMicros.load() && !gStop.load(); slept += 50000) {
            uint32_t left = gIntervalMicros.load() - slept;
            usleep(left < 50000 ? left : 50000);
        }
    }
    gRunning = 0;
    return nullptr;
}

void KsMonitoringEngine__SetIntervalMicros(uint32_t micros) { gIntervalMicros = micros ? micros : 1; }

void KsMonitoringEngine___Stop(void) {
    std::lock_guard g(gInitLock);
    gStop = 1;
    while (gRunning.load()) usleep(1000);
    gStop = 0;
    KsMonitoringEngine_s* m = __mtrEng.exchange(nullptr);
    if (!m) return;
    for (KsMonitoringNode_s* n = m->HeadNode; n;) {
        KsMonitoringNode_s* next = n->Next;
        delete n;
        n = next;
    }
    delete m->pairs;
    delete m;
}
