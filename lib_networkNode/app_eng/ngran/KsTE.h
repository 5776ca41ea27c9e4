// Connections to the elements under test other than AMFs and MMEs. Each element of
// data/noc.json is a local end (a client: an emulated node and its address) or a remote
// end (a server: the device under test) of an application type; every client is paired
// with every server of its type, and each pair has its own ConnectionId. A pair becomes
// a connection when a console command or the monitoring engine brings it up; the
// protocol modules then find it by application type.
//
// This layer knows no protocol. A protocol module registers, at start, the operation
// that creates its node on a connection (and, where it has one, the status operation);
// an application type that nobody registered is not part of this build, and its
// connections stay without a node.
#pragma once

#include <jansson.h>

#include <atomic>
#include <cstdint>

#include "mv_sync.h"

struct MV_Socket;
struct MV_Timer;
struct __mv_pfcp_node;
struct __mv_gtpv2_node;
struct __mv_diam_node;
struct __ks_te_connection;

// ConnInfoType of a noc.json element.
#define KS_TE_CONN_INFO__SERVER 1
#define KS_TE_CONN_INFO__CLIENT 2
// The command that adds a connection's node; only NRF nodes know others.
#define KS_TE_COMMAND__ADD_NODE 1
#define KS_TE_APP_TYPE_COUNT 32

struct __ks_te_server {
    std::atomic<__ks_te_server*> Next;  // servers are appended and never removed: read without a lock
    uint32_t ID;
    char IP_1[52];
    uint16_t Port_1;
    char IP_2[52];
    uint16_t Port_2;
    uint32_t ApplicationType;
    char sHost[104];
    char sRealm[104];
    uint32_t Enabled;
    uint32_t TransportType;
    uint32_t ConnectionId;
    std::atomic<uint32_t> ConnectionStatus;     // the node's own values, 0 until it says
    std::atomic<__ks_te_connection*> ksTE;      // set by the node operation once its node exists
};
typedef __ks_te_server KsTEServer;

struct __ks_te_client {
    std::atomic<__ks_te_client*> Next;
    uint32_t ID;
    std::atomic<MV_Socket*> udp_client;
    char IP_1[52];
    uint16_t Port_1;
    char IP_2[52];
    uint16_t Port_2;
    uint32_t ApplicationType;
    char sHost[104];
    char sRealm[104];
    uint32_t Enabled;
    uint32_t TransportType;
    std::atomic<KsTEServer*> ksServerHead;
    KsTEServer* ksServerCurrent;
    std::atomic<uint32_t> ksServerCount;
    MV_Mutex ksTEClientLock;  // the server list and the fields of known servers while they change
    std::atomic<__ks_te_connection*> ksTE;
};
typedef __ks_te_client KsTEClient;

// What the node modules keep on a connection; each fills what it uses.
struct __ks_te_connection {
    std::atomic<__ks_te_connection*> Next;
    uint32_t ConnectionId;
    uint32_t ApplicationType;
    KsTEClient* ksClient;
    KsTEServer* ksServer;
    std::atomic<__mv_pfcp_node*> ksServer_upf_node;
    std::atomic<void*> upf_gtp_client_node;
    char upf_gtp_server_node_ip[50];
    uint16_t upf_gtp_server_node_port;
    std::atomic<__mv_gtpv2_node*> gtpV2Node;
    std::atomic<__mv_diam_node*> diamHost;
    std::atomic<void*> diamPeer;
    std::atomic<MV_Timer*> timer;
    std::atomic<int64_t> lastEchoSent;
    std::atomic<uint32_t> NoOfEchoSent;
    std::atomic<uint32_t> IsConnected;
};
typedef __ks_te_connection KsTEConnection;

struct __ks_te_engine {
    std::atomic<KsTEClient*> ksTEClientHead;
    KsTEClient* ksTEClientCurrent;
    MV_Mutex ksTEClientLock;
    std::atomic<uint32_t> ksTEClientCount;
    uint32_t ksConnectionId;  // the next one, from 1
    MV_Mutex ksConnectionIdLock;
    std::atomic<KsTEConnection*> ksTEConnHead;
    KsTEConnection* ksTEConnCurrent;
    MV_Mutex ksTEConnLock;
};
typedef __ks_te_engine KsTEngine;

// ---------------------------------------------------------------- node registration

// Creates (CommandID 1) or commands a connection's node: sets server->ksTE once the node
// exists and starts the protocol's connect. Called again for a pair that is already up
// (the console and the monitoring engine may both ask), it must do no harm.
typedef void (*KsTENodeCommand)(uint32_t CommandID, KsTEClient* ksClient, KsTEServer* ksServer,
                                KsTEConnection* ksTE);
// Refreshes server->ConnectionStatus from the node.
typedef void (*KsTENodeStatus)(KsTEServer* ksServer, KsTEConnection* ksTE);

// What a protocol module registers for its application type at start: `add` runs for
// CommandID 1, `run` (may be null) for every other command, `status` (may be null)
// when the console asks for the connection list. Returns 1, or 0 for a type that has
// no node of its own here (0, 1 AMF, 4 MME, above 31).
int KsTE__RegisterNodeCommand(uint32_t appType, KsTENodeCommand add, KsTENodeCommand run, KsTENodeStatus status);

// ---------------------------------------------------------------- start-up and lists

// Where this layer reads the engine's lists: data/noc.json and data/mon.json, and
// whether the monitoring engine is wanted. The engine gives it before KsTE__Init.
struct KsTEConfigSource {
    json_t* (*NodeConfig)(void);
    json_t* (*MonitorList)(void);
    uint32_t (*MonitoringEnabled)(void);
};
void KsTE__SetConfigSource(const KsTEConfigSource* source);
const KsTEConfigSource* KsTE__GetConfigSource(void);

// Once: the record, its locks, and the clients and servers of data/noc.json.
void KsTE__Init(void);
// The pairing of noc.json's elements; incomplete ones are skipped with a line.
void KsTE__InitConfig(json_t* nodeConfig);
KsTEngine* KsTE__GetInstance(void);
KsTEClient* KsTE__GetKsTEClientHead(void);
KsTEClient* KsTE__GetKsTEClientNext(KsTEClient* item);
KsTEServer* KsTE__GetKsTEServerHead(KsTEClient* item);
KsTEServer* KsTE__GetKsTEServerNext(KsTEServer* item);
// The client of that ID; with bCreate 1 a missing one is made (ip2 and port2 taken by
// application type) and appended.
KsTEClient* KsTE__GetClient(uint32_t ID, uint32_t uApplicationType, const char* ip, uint16_t port, const char* ip2,
                            const char* port2, uint32_t tranType, uint32_t enabled, int bCreate);
void KsTE__addServerInfo(KsTEClient* ksClient, uint32_t u32ID, uint32_t u32AppType, const char* c_IP,
                         uint32_t u32Port, const char* ip2, const char* port2, uint32_t u32Enabled,
                         uint32_t u32TransportType);
void KsTE__PrintClient(void);

// ---------------------------------------------------------------- connections, for the protocol modules

// Lookups walk the connections without a lock (records are only appended); the
// application type is that of the connection's client.
KsTEConnection* KsTE__GetConnection(uint32_t ConnectionId);
// The connIndex-th of that type, from 0.
KsTEConnection* KsTE__GetConnectionByTEApplicationType(uint32_t ApplicationType, uint32_t connIndex);
KsTEConnection* KsTE__GetConnectionByIDTEApplicationType(uint32_t ApplicationType, uint32_t connId);
// The first of that type whose ConnectionId is not connId.
KsTEConnection* KsTE__GetNextConnectionByTEApplicationType(uint32_t ApplicationType, uint32_t connId);
int KsTE__GetConnectionCountByTEApplicationType(uint32_t ApplicationType);

// ---------------------------------------------------------------- commands

// The server of that type whose pair has that ConnectionId, with its client; null for none.
KsTEServer* KsTE__FindServer(uint32_t uAppType, uint32_t ConnectionId, KsTEClient** ksClient);
// Runs the command on the pair of that type with that ConnectionId. Returns 1 when
// there is such a pair, 0 when there is none (and nothing happens).
int KsTE__InitCommand(uint32_t uAppType, uint32_t ConnectionId, uint32_t CommandID);
// Finds or makes the pair's connection, then hands the command to the type's node.
void KsTE__AddConnectionAndRunCommand(KsTEClient* ksClient, KsTEServer* ksServer, uint32_t uAppType,
                                      uint32_t ConnectionId, uint32_t CommandID);
// Asks the node of a connection for its status; nothing for a null connection or a
// type without a status operation.
void KsTE__UpdateConnStatus(KsTEConnection* ksTE, uint32_t ApplicationType);

// Drops every client, server, connection and registration so that a test can start
// again. Nothing may be using them.
void KsTE___Reset(void);
