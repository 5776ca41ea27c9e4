// The node registry: the AMFs and MMEs the engine connects to, the RAN nodes it
// emulates, one connection record per pair of an enabled RAN and an enabled core
// node, and the pool of RAN-side UE contexts.
//
// Lists of nodes and connections only grow: a record, once linked, lives as long as
// the process and is never unlinked, so readers walk them without a lock through
// atomic links while the console thread appends.
#pragma once

#include <jansson.h>

#include <atomic>
#include <cstdint>

#include "KsUE.h"
#include "mv_core.h"

struct MV_Socket;
struct __mv_ks__ngran;
struct __mv_ks__amf;
struct __mv_ks__mme;
struct __mv_ks__RanMMEConn;
typedef __mv_ks__ngran MV_KsNGRan;
typedef __mv_ks__amf MV_KsAmf;
typedef __mv_ks__mme MV_KsMME;
typedef __mv_ks__RanMMEConn MV_KsRanMMEConnection;

#define KS_ACCESS_TYPE__GNB 1
#define KS_ACCESS_TYPE__ENB 2
#define KS_ACCESS_TYPE__N3IWF 3

#define KS_TE__AMF 1
#define KS_TE__MME 4

#define KS_MAX_SERVED_GUAMI 25
#define KS_MAX_RAN_LIST 2048
// Broadcast PLMNs of a RAN's tracking areas kept decoded for RAN selection.
#define KS_MAX_BROADCAST_PLMN 32

// NG connection states.
#define KS_NGCONN__NOT_CONNECTED 0
#define KS_NGCONN__SETUP_SENT 1
#define KS_NGCONN__READY 2
#define KS_NGCONN__SETUP_FAILED 3
#define KS_NGCONN__CLOSED_BY_CONSOLE 4
#define KS_NGCONN__SETUP_RESPONSE_INCOMPLETE 5
#define KS_NGCONN__SETUP_REQUESTED 6

extern const char* const applicationType_kv_pair[32];
extern const char* const rm_satus_names[4];
extern const char* const cm_satus_names[2];

struct MV_KsAmfServedGuami {
    uint8_t PLMN[4];  // 3 used
    uint8_t amfRegionId;
    uint16_t amfSetId;  // 10 bits
    uint8_t amfPointer; // 6 bits
};

struct __mv_ks__amf {
    std::atomic<__mv_ks__amf*> Next;
    uint32_t ID;
    uint32_t IPVersion;
    char IP[10][50];
    uint32_t IPCount;
    uint32_t Port;
    std::atomic<uint32_t> Enabled;  // the console changes it while connections read it
    char AMFName[100];
    uint16_t AMFName_len;
    MV_KsAmfServedGuami ServedGuami[KS_MAX_SERVED_GUAMI];
    uint32_t ServedGuamiCount;
    uint16_t relativeAMFCapacity;
    // Every RAN's association to this AMF stores the NG Setup answer here, each on its
    // own read thread.
    MV_Mutex InfoLock;
};

struct __mv_ks__mme {
    std::atomic<__mv_ks__mme*> Next;
    uint32_t ID;
    uint32_t IPVersion;
    char IP[10][50];
    uint32_t IPCount;
    uint32_t Port;
    std::atomic<uint32_t> Enabled;
    char MMEName[100];
    uint16_t MMEName_len;
    MV_KsAmfServedGuami ServedGuami[KS_MAX_SERVED_GUAMI];
    uint32_t ServedGuamiCount;
    uint16_t relativeMMECapacity;
    MV_Mutex InfoLock;
};

struct __mv_ks__ngran_plmn {
    __mv_ks__ngran_plmn* Next;
    char mcc[4];
    char mnc[4];
};

struct __mv_ks__ngran {
    std::atomic<__mv_ks__ngran*> Next;
    uint32_t ID;
    char NodeName[100];
    std::atomic<uint8_t> Enabled;
    uint8_t HexPlmn[4];  // 3 used
    uint8_t AccessType;  // KS_ACCESS_TYPE__...
    uint32_t maxRanUEs;
    uint32_t UEIDStartNo;
    std::atomic<uint32_t> UERetention;
    // Per-node context fields; the engine-wide pool is the one in use.
    MV_KsNGRanUeContext* ranUeContextHead;
    MV_KsNGRanUeContext* ranUeContextCurrent;
    uint32_t ranUeContextTotal;
    uint32_t ranUeContextAvailable;
    MV_Mutex ranUeContextLock;
    uint32_t KsTE;  // KS_TE__AMF or KS_TE__MME
    uint32_t localIPVersion;
    char localIP[10][50];
    uint32_t localIPCount;
    uint32_t localPort;
    std::atomic<MV_KsRanAmfConnection*> ranAMFHead;
    MV_KsRanAmfConnection* ranAMFCurrent;
    MV_Mutex ranAMFLock;
    std::atomic<MV_KsRanMMEConnection*> ranMMEHead;
    MV_KsRanMMEConnection* ranMMECurrent;
    MV_Mutex ranMMELock;
    __mv_ks__ngran_plmn* supported_plmn_head;
    __mv_ks__ngran_plmn* supported_plmn_current;
    json_t* SupportedTAList;
    json_t* UEDefaultULI;
    // The PLMNs of SupportedTAList's broadcast lists, encoded once at configuration.
    uint8_t BroadcastPlmn[KS_MAX_BROADCAST_PLMN][3];
    uint32_t BroadcastPlmnCount;
};

struct __mv_ks__RanAmfConn {
    std::atomic<__mv_ks__RanAmfConn*> Next;      // in the RAN's list
    std::atomic<__mv_ks__RanAmfConn*> ConnNext;  // in the engine's list
    uint32_t ID;
    // Written by the association's read thread and the console thread; readers take
    // whatever stands.
    std::atomic<int32_t> isOKToRun;
    std::atomic<uint32_t> ConnStatus;
    std::atomic<uint64_t> UEContexts;
    std::atomic<uint64_t> PDUSessions;
    std::atomic<uint64_t> Registrations;
    MV_Mutex UEContextsLock;
    MV_Mutex PDUSessionsLock;
    MV_Mutex RegistrationsLock;
    int32_t ksUE_Count;
    MV_KsUE* ksUE_Head;
    MV_KsUE* ksUE_Current;
    MV_Mutex ksUE_Lock;
    std::atomic<uint32_t> Busy;  // 1 while every UE context is being removed
    uint8_t RANType;
    MV_KsNGRan* ran;
    MV_KsAmf* amf;
    MV_KsMME* mme;
    std::atomic<MV_Socket*> siSocket;
    std::atomic<uint32_t> RetainUEs;
};

struct __mv_ks__RanMMEConn {
    std::atomic<__mv_ks__RanMMEConn*> Next;
    std::atomic<__mv_ks__RanMMEConn*> ConnNext;
    uint32_t ID;
    std::atomic<int32_t> isOKToRun;
    std::atomic<uint32_t> ConnStatus;
    MV_KsNGRan* ran;
    MV_KsAmf* amf;
    MV_KsMME* mme;
    std::atomic<MV_Socket*> siSocket;
};

struct __mv_ks__ngran_UeContext {
    MV_KsNGRanUeContext* Next;
    uint64_t id;  // 1-based, fixed: the slot
    uint64_t amf_id;
    uint16_t initialContextSetup;
    uint64_t src_amf_id;
    // The read thread compares it with the generation an incoming id carries while a
    // release on another thread moves it on.
    std::atomic<uint32_t> GenId;
    uint16_t LastReleasedForN2Handover;
    MV_KsUE* ksUe;
    MV_KsRanAmfConnection* ranAmfConn;
    MV_KsRanMMEConnection* ranMMEConn;
    MV_KsNGRan* ran;
    uint8_t isReleased;
};

struct MV_KsRanAmfConnectionList_t {
    uint32_t Count;
    MV_KsRanAmfConnection* List[KS_MAX_RAN_LIST];
};

// ---------------------------------------------------------------- configuration

// One element of AMFNodes: ID, Port and IP (array) are checked by the caller.
void KsEngine__AddStaticAMFNode(json_t* amf);
void KsEngine__InitializeRanNode_Configs(void);
void KsEngine__ConfigureDynamicAMfNodes(void);
void KsEngine__ConfigureDynamicMMENodes(void);
void KsEngine__ConfigureDynamicRanNodes(void);
void KsEngine__StartNGRANs(void);
// How a RAN-AMF connection opens its association: the gNB registers this when it starts.
// Without one, connections are made and stay closed ("NGAP is not part of this build").
typedef int (*KsRanAmfConnector)(MV_KsRanAmfConnection* conn);
void KsEngine__SetRanAmfConnector(KsRanAmfConnector connector);
void __KsEngine_InitRANAMFConnection(MV_KsNGRan* ran);
void __KsEngine_InitRANMMEConnection(MV_KsNGRan* ran);

// ---------------------------------------------------------------- lookups

MV_KsAmf* KsEngine__FindAmfByID(int id);
MV_KsMME* KsEngine__FindMMEByID(int id);
// The RAN of that id and PLMN in the gNB list (ksTE 1) or the eNodeB list (ksTE 4).
MV_KsNGRan* KsEngine__FindRAN2(const uint8_t* plmn, int ranId, uint32_t ksTE);
MV_KsRanAmfConnection* KsEngine_FindRanAMFConnection(MV_KsNGRan* ran, MV_KsAmf* amf);
MV_KsRanMMEConnection* KsEngine_FindRanMMEConnection(MV_KsNGRan* ran, MV_KsMME* mme);
// The RAN-AMF connection of that id, or null.
MV_KsRanAmfConnection* KsEngine__FindRANByID(uint32_t id);
MV_KsRanMMEConnection* KsEngine__FindRanMMEConnectionByID(uint32_t id);
// The first connection of the first RAN of that access type that is enabled, has a
// connection, and has the PLMN as its own or in a broadcast list.
MV_KsRanAmfConnection* KsEngine__FindRAN(const char* mcc, const char* mnc, uint8_t accessType);
// The first connection of every such RAN, each once, at most KS_MAX_RAN_LIST.
void KsEngine__FindRANList(const char* mcc, const char* mnc, uint8_t accessType, MV_KsRanAmfConnectionList_t* ranList);
MV_KsRanMMEConnection* KsEngine__FindMMERAN(const char* mcc, const char* mnc);
MV_KsRanAmfConnection* KsEngine__getRanAmfConnection(MV_KsUE* ue, uint8_t bearer);
uint32_t KsEngine__AMFConnectionCount(void);

// ---------------------------------------------------------------- UEs on a connection

// Appends the UE to the list of its bearer's connection, once.
void KsEngine__RanAmf_AddUEContext(MV_KsUE* ue, uint8_t bearer);
void KsEngine__RanAmf_RemoveUEContext(MV_KsUE* ue, uint8_t bearer);
// The association closed: every UE on the list loses its 3GPP RAN context.
void KsEngine__RanAmf_RemoveAllUEContext(MV_KsRanAmfConnection* conn);

// ---------------------------------------------------------------- RAN UE contexts

void KsEngine__CreateNGRanUEContext(int inLockMode);
// Null on an empty pool.
MV_KsNGRanUeContext* KsEngine__AllocateKsNGRanUeContext(MV_KsNGRan* ran);
void KsEngine__ReleaseKsNGRanUeContext(MV_KsNGRan* ran, MV_KsNGRanUeContext* ctx);
// The context of a slot, 1-based; null outside the pool.
MV_KsNGRanUeContext* KsEngine__GetNGRanUeContextById(uint64_t id);

// ---------------------------------------------------------------- texts

const char* KsEngine__GetAccessType(int accessType);
const char* KsEngine__EnabledString(int enabled);
