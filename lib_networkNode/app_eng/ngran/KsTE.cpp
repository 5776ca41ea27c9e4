// Clients, servers and connections of the elements under test, the lookups the protocol
// modules use, and the dispatch of connection commands to the registered nodes.
#include "KsTE.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "KsTE_appTypes.h"
#include "mv_core.h"

namespace {

std::atomic<KsTEngine*> __kste{nullptr};
std::mutex gInitLock;
const KsTEConfigSource* gSource = nullptr;

struct NodeOps {
    KsTENodeCommand add;
    KsTENodeCommand run;
    KsTENodeStatus status;
};
std::mutex gNodeOpsLock;
NodeOps gNodeOps[KS_TE_APP_TYPE_COUNT];

NodeOps nodeOps(uint32_t type) {
    std::lock_guard g(gNodeOpsLock);
    return type < KS_TE_APP_TYPE_COUNT ? gNodeOps[type] : NodeOps{};
}

// AMFs and MMEs are connected by the RAN registry; the other types have nodes here.
bool hasNodeHere(uint32_t type) { return type > 0 && type < KS_TE_APP_TYPE_COUNT && type != 1 && type != 4; }

template <size_t N>
void copyText(char (&out)[N], const char* s) {
    snprintf(out, N, "%s", s ? s : "");
}

// The second address of an element, whose meaning depends on the application type:
// an address and a port for the RAN peers and the UPF, host and realm for the Diameter
// and service-based types (only on the client side for SMF and 5G-EIR).
template <class Rec>
void takeSecond(Rec* r, bool isServer, uint32_t type, const char* ip2, const char* port2) {
    switch (type) {
        case 1:
        case 4: copyText(r->IP_2, ip2); break;
        case 2:
            copyText(r->IP_2, ip2);
            r->Port_2 = uint16_t(strtoul(port2 ? port2 : "0", nullptr, 10));
            break;
        case 5:
        case 6: break;
        case 3:
        case 9:
            if (isServer) break;
            [[fallthrough]];
        default:
            copyText(r->sHost, ip2);
            copyText(r->sRealm, port2);
            break;
    }
}

KsTEngine* te() { return __kste.load(std::memory_order_acquire); }

KsTEngine* instance() {
    if (KsTEngine* e = te()) return e;
    std::lock_guard g(gInitLock);
    if (!te()) {
        auto* e = new KsTEngine{};
        e->ksConnectionId = 1;
        __kste.store(e, std::memory_order_release);
    }
    return te();
}

// One noc.json element, checked; text members as they stand in the file.
struct NocElement {
    uint32_t ID, ConnInfoType, TEApplicationType, Port_1, Enabled, TransportType;
    const char* IP_1;
    const char* IP_2;
    std::string Port_2;
};

bool u32Member(json_t* el, const char* key, uint32_t max, uint32_t& out) {
    json_t* v = json_object_get(el, key);
    if (!json_is_integer(v) || json_integer_value(v) < 0 || json_integer_value(v) > json_int_t(max)) return false;
    out = uint32_t(json_integer_value(v));
    return true;
}

// The reason an element cannot be used, or null.
const char* readNoc(json_t* el, NocElement& n) {
    if (!json_is_object(el)) return "not an object";
    if (!u32Member(el, "ID", UINT32_MAX, n.ID)) return "ID is missing or not a number";
    if (!u32Member(el, "ConnInfoType", UINT32_MAX, n.ConnInfoType)) return "ConnInfoType is missing or not a number";
    if (!u32Member(el, "TEApplicationType", KS_TE_APP_TYPE_COUNT - 1, n.TEApplicationType) || n.TEApplicationType == 0)
        return "TEApplicationType is missing or not an application type";
    if (!u32Member(el, "Port_1", 65535, n.Port_1)) return "Port_1 is missing or not a port";
    if (!u32Member(el, "Enabled", UINT32_MAX, n.Enabled)) return "Enabled is missing or not a number";
    if (!u32Member(el, "TransportType", UINT32_MAX, n.TransportType)) return "TransportType is missing or not a number";
    n.IP_1 = json_string_value(json_object_get(el, "IP_1"));
    n.IP_2 = json_string_value(json_object_get(el, "IP_2"));
    if (!n.IP_1 || strlen(n.IP_1) >= sizeof KsTEClient::IP_1) return "IP_1 is missing or longer than 51 characters";
    if (!n.IP_2 || strlen(n.IP_2) >= sizeof KsTEClient::sHost) return "IP_2 is missing or longer than 103 characters";
    json_t* p2 = json_object_get(el, "Port_2");
    if (json_is_string(p2)) n.Port_2 = json_string_value(p2);
    else if (json_is_integer(p2)) n.Port_2 = std::to_string(json_integer_value(p2));
    else return "Port_2 is missing";
    if (n.Port_2.size() >= sizeof KsTEClient::sRealm) return "Port_2 is longer than 103 characters";
    uint32_t t = n.TEApplicationType;
    if ((t == 1 || t == 2 || t == 4) && strlen(n.IP_2) >= sizeof KsTEClient::IP_2)
        return "IP_2 is longer than 51 characters";
    if (t == 2) {
        char* end = nullptr;
        unsigned long port = strtoul(n.Port_2.c_str(), &end, 10);
        if (n.Port_2.empty() || *end || port > 65535) return "Port_2 is not a port";
    }
    if (n.ConnInfoType != KS_TE_CONN_INFO__CLIENT && n.ConnInfoType != KS_TE_CONN_INFO__SERVER)
        return "ConnInfoType is neither 1 (server) nor 2 (client)";
    return nullptr;
}

}  // namespace

// ---------------------------------------------------------------- registration

int KsTE__RegisterNodeCommand(uint32_t appType, KsTENodeCommand add, KsTENodeCommand run, KsTENodeStatus status) {
    if (!hasNodeHere(appType)) return 0;
    std::lock_guard g(gNodeOpsLock);
    gNodeOps[appType] = {add, run, status};
    return 1;
}

// ---------------------------------------------------------------- start-up and lists

void KsTE__SetConfigSource(const KsTEConfigSource* source) { gSource = source; }
const KsTEConfigSource* KsTE__GetConfigSource(void) { return gSource; }

void KsTE__Init(void) {
    static std::once_flag once;
    std::call_once(once, [] {
        instance();
        KsTE__InitConfig(gSource && gSource->NodeConfig ? gSource->NodeConfig() : nullptr);
    });
}

void KsTE__InitConfig(json_t* nodeConfig) {
    printf("noc_servers_size=%d  %s|%d\n", int(json_array_size(nodeConfig)), __func__, __LINE__);
    size_t i;
    json_t* el;
    json_array_foreach(nodeConfig, i, el) {
        NocElement n;
        if (const char* why = readNoc(el, n)) {
            printf("noc.json element %zu skipped: %s %s|%d\n", i, why, __func__, __LINE__);
            continue;
        }
        if (n.ConnInfoType != KS_TE_CONN_INFO__CLIENT) continue;
        KsTEClient* c = KsTE__GetClient(n.ID, n.TEApplicationType, n.IP_1, uint16_t(n.Port_1), n.IP_2,
                                        n.Port_2.c_str(), n.TransportType, n.Enabled, 1);
        if (c->ApplicationType != n.TEApplicationType)
            printf("noc.json element %zu skipped: client ID=%u is a client of AppType=%u already %s|%d\n", i, n.ID,
                   c->ApplicationType, __func__, __LINE__);
    }
    for (KsTEClient* c = KsTE__GetKsTEClientHead(); c; c = KsTE__GetKsTEClientNext(c)) {
        json_array_foreach(nodeConfig, i, el) {
            NocElement n;
            if (readNoc(el, n) || n.ConnInfoType != KS_TE_CONN_INFO__SERVER || n.TEApplicationType != c->ApplicationType)
                continue;
            KsTE__addServerInfo(c, n.ID, n.TEApplicationType, n.IP_1, n.Port_1, n.IP_2, n.Port_2.c_str(), n.Enabled,
                                n.TransportType);
        }
    }
    fflush(stdout);
}

KsTEngine* KsTE__GetInstance(void) { return te(); }

KsTEClient* KsTE__GetKsTEClientHead(void) {
    KsTEngine* e = te();
    return e ? e->ksTEClientHead.load(std::memory_order_acquire) : nullptr;
}
KsTEClient* KsTE__GetKsTEClientNext(KsTEClient* item) {
    return item ? item->Next.load(std::memory_order_acquire) : nullptr;
}
KsTEServer* KsTE__GetKsTEServerHead(KsTEClient* item) {
    return item ? item->ksServerHead.load(std::memory_order_acquire) : nullptr;
}
KsTEServer* KsTE__GetKsTEServerNext(KsTEServer* item) {
    return item ? item->Next.load(std::memory_order_acquire) : nullptr;
}

KsTEClient* KsTE__GetClient(uint32_t ID, uint32_t uApplicationType, const char* ip, uint16_t port, const char* ip2,
                            const char* port2, uint32_t tranType, uint32_t enabled, int bCreate) {
    KsTEngine* e = instance();
    auto find = [ID] {
        for (KsTEClient* c = KsTE__GetKsTEClientHead(); c; c = KsTE__GetKsTEClientNext(c))
            if (c->ID == ID) return c;
        return static_cast<KsTEClient*>(nullptr);
    };
    if (KsTEClient* c = find(); c || bCreate != 1) return c;
    std::lock_guard g(e->ksTEClientLock);
    if (KsTEClient* c = find()) return c;
    auto* c = new KsTEClient{};
    c->ID = ID;
    c->ApplicationType = uApplicationType;
    copyText(c->IP_1, ip);
    c->Port_1 = port;
    takeSecond(c, false, uApplicationType, ip2, port2);
    c->TransportType = tranType;
    c->Enabled = enabled;
    // Built whole before it is linked: readers walk the list without a lock.
    if (e->ksTEClientCurrent) e->ksTEClientCurrent->Next.store(c, std::memory_order_release);
    else e->ksTEClientHead.store(c, std::memory_order_release);
    e->ksTEClientCurrent = c;
    ++e->ksTEClientCount;
    return c;
}

void KsTE__addServerInfo(KsTEClient* ksClient, uint32_t u32ID, uint32_t u32AppType, const char* c_IP,
                         uint32_t u32Port, const char* ip2, const char* port2, uint32_t u32Enabled,
                         uint32_t u32TransportType) {
    KsTEngine* e = instance();
    if (!ksClient) return;
    std::lock_guard g(ksClient->ksTEClientLock);
    KsTEServer* s = KsTE__GetKsTEServerHead(ksClient);
    while (s && s->ID != u32ID) s = KsTE__GetKsTEServerNext(s);
    bool fresh = !s;
    if (fresh) {
        s = new KsTEServer{};
        s->ID = u32ID;
        s->ApplicationType = u32AppType;
        copyText(s->IP_1, c_IP);
        s->Port_1 = uint16_t(u32Port);
        std::lock_guard idLock(e->ksConnectionIdLock);
        s->ConnectionId = e->ksConnectionId++;
    }
    takeSecond(s, true, u32AppType, ip2, port2);
    s->Enabled = u32Enabled;
    s->TransportType = u32TransportType;
    if (!fresh) return;
    if (ksClient->ksServerCurrent) ksClient->ksServerCurrent->Next.store(s, std::memory_order_release);
    else ksClient->ksServerHead.store(s, std::memory_order_release);
    ksClient->ksServerCurrent = s;
    ++ksClient->ksServerCount;
}

void KsTE__PrintClient(void) {
    for (KsTEClient* c = KsTE__GetKsTEClientHead(); c; c = KsTE__GetKsTEClientNext(c)) {
        printf("AppType=%-6u  IP=[%s]  Port_1=[%-6u]\n", c->ApplicationType, c->IP_1, c->Port_1);
        std::lock_guard g(c->ksTEClientLock);
        for (KsTEServer* s = KsTE__GetKsTEServerHead(c); s; s = KsTE__GetKsTEServerNext(s))
            printf("    AppType=%-6u  IP=[%s]  Port_1=[%-6u]\n", s->ApplicationType, s->IP_1, s->Port_1);
    }
    fflush(stdout);
}

// ---------------------------------------------------------------- connections

namespace {

KsTEConnection* connHead() {
    KsTEngine* e = te();
    return e ? e->ksTEConnHead.load(std::memory_order_acquire) : nullptr;
}
KsTEConnection* connNext(KsTEConnection* c) { return c->Next.load(std::memory_order_acquire); }
bool ofType(const KsTEConnection* c, uint32_t type) { return c->ksClient && c->ksClient->ApplicationType == type; }

}  // namespace

KsTEConnection* KsTE__GetConnection(uint32_t ConnectionId) {
    for (KsTEConnection* c = connHead(); c; c = connNext(c))
        if (c->ksServer && c->ksServer->ConnectionId == ConnectionId) return c;
    return nullptr;
}

KsTEConnection* KsTE__GetConnectionByTEApplicationType(uint32_t ApplicationType, uint32_t connIndex) {
    uint32_t n = 0;
    for (KsTEConnection* c = connHead(); c; c = connNext(c))
        if (ofType(c, ApplicationType) && n++ == connIndex) return c;
    return nullptr;
}

KsTEConnection* KsTE__GetConnectionByIDTEApplicationType(uint32_t ApplicationType, uint32_t connId) {
    for (KsTEConnection* c = connHead(); c; c = connNext(c))
        if (ofType(c, ApplicationType) && c->ConnectionId == connId) return c;
    return nullptr;
}

KsTEConnection* KsTE__GetNextConnectionByTEApplicationType(uint32_t ApplicationType, uint32_t connId) {
    for (KsTEConnection* c = connHead(); c; c = connNext(c))
        if (ofType(c, ApplicationType) && c->ConnectionId != connId) return c;
    return nullptr;
}

int KsTE__GetConnectionCountByTEApplicationType(uint32_t ApplicationType) {
    int n = 0;
    for (KsTEConnection* c = connHead(); c; c = connNext(c)) n += ofType(c, ApplicationType);
    return n;
}

// ---------------------------------------------------------------- commands

KsTEServer* KsTE__FindServer(uint32_t uAppType, uint32_t ConnectionId, KsTEClient** ksClient) {
    for (KsTEClient* c = KsTE__GetKsTEClientHead(); c; c = KsTE__GetKsTEClientNext(c)) {
        if (c->ApplicationType != uAppType) continue;
        for (KsTEServer* s = KsTE__GetKsTEServerHead(c); s; s = KsTE__GetKsTEServerNext(s)) {
            if (s->ConnectionId != ConnectionId) continue;
            if (ksClient) *ksClient = c;
            return s;
        }
    }
    return nullptr;
}

int KsTE__InitCommand(uint32_t uAppType, uint32_t ConnectionId, uint32_t CommandID) {
    KsTEClient* c = nullptr;
    KsTEServer* s = KsTE__FindServer(uAppType, ConnectionId, &c);
    if (!s) return 0;
    KsTE__AddConnectionAndRunCommand(c, s, uAppType, ConnectionId, CommandID);
    return 1;
}

void KsTE__AddConnectionAndRunCommand(KsTEClient* ksClient, KsTEServer* ksServer, uint32_t uAppType,
                                      uint32_t ConnectionId, uint32_t CommandID) {
    KsTEngine* e = instance();
    KsTEConnection* conn = nullptr;
    {
        std::lock_guard g(e->ksTEConnLock);
        conn = KsTE__GetConnection(ConnectionId);
        if (!conn) {
            conn = new KsTEConnection{};
            conn->ConnectionId = ConnectionId;
            conn->ApplicationType = uAppType;
            conn->ksClient = ksClient;
            conn->ksServer = ksServer;
            if (e->ksTEConnCurrent) e->ksTEConnCurrent->Next.store(conn, std::memory_order_release);
            else e->ksTEConnHead.store(conn, std::memory_order_release);
            e->ksTEConnCurrent = conn;
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
                     "connection ConnectionId=%u AppType=%s TD-%u DUT-%u made %s|%d", ConnectionId,
                     KsTE__AppTypeName(uAppType) ? KsTE__AppTypeName(uAppType) : "?", ksClient ? ksClient->ID : 0,
                     ksServer ? ksServer->ID : 0, __func__, __LINE__);
        }
    }
    if (!hasNodeHere(uAppType)) return;
    NodeOps ops = nodeOps(uAppType);
    if (CommandID == KS_TE_COMMAND__ADD_NODE) {
        if (ops.add) ops.add(CommandID, ksClient, ksServer, conn);
        else
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                     "%s node is not part of this build: ConnectionId=%u stays without a node %s|%d",
                     KsTE__AppTypeName(uAppType), ConnectionId, __func__, __LINE__);
    } else if (ops.run) {
        ops.run(CommandID, ksClient, ksServer, conn);
    } else {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "CommandID=%u means nothing to a %s node, ConnectionId=%u %s|%d",
                 CommandID, KsTE__AppTypeName(uAppType), ConnectionId, __func__, __LINE__);
    }
}

void KsTE__UpdateConnStatus(KsTEConnection* ksTE, uint32_t ApplicationType) {
    if (!ksTE || !ksTE->ksServer) return;
    if (KsTENodeStatus status = nodeOps(ApplicationType).status) status(ksTE->ksServer, ksTE);
}

void KsTE___Reset(void) {
    KsTEngine* e = __kste.exchange(nullptr);
    {
        std::lock_guard g(gNodeOpsLock);
        for (NodeOps& o : gNodeOps) o = {};
    }
    if (!e) return;
    for (KsTEConnection* c = e->ksTEConnHead.load(); c;) {
        KsTEConnection* next = c->Next.load();
        delete c;
        c = next;
    }
    for (KsTEClient* c = e->ksTEClientHead.load(); c;) {
        for (KsTEServer* s = c->ksServerHead.load(); s;) {
            KsTEServer* next = s->Next.load();
            delete s;
            s = next;
        }
        KsTEClient* next = c->Next.load();
        delete c;
        c = next;
    }
    delete e;
}
