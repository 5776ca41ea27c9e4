// Where start-up reaches subsystems that are not part of this build yet. Each
// operation here logs that its subsystem is absent and does nothing else, so that
// start-up runs in its full order; each is replaced by the real call as the
// subsystem lands. The README's status table lists them.
#pragma once

#include <jansson.h>

#include <cstdint>

struct MV_Template;
struct __ks_step;
struct __mv_ks__RanAmfConn;
struct __mv_ks__ngran_UeContext;

void KsSeam__TemplateMgr_Init();
void KsSeam__AddStaticAMF(json_t* amf);
void KsSeam__create_cpTeidTable();
void KsSeam__create_id_tables(uint32_t maxRanUEIDs);
void KsSeam__CreateNGRanUEContext();
void KsSeam__DiamDict_Init();
void KsSeam__TemplateEng_Init();
// The GTP-U start decides the local GTP address; returns 0 when start-up must stop.
int KsSeam__GTP_Init(json_t* cfg);
void KsSeam__DataPath_Init();
void KsSeam__PFCP_Init();
void KsSeam__AGF_Init();
void KsSeam__register_ngap_handlers();
void KsSeam__InitializeRanNode_Configs();
void KsSeam__register_diam_handlers();
void KsSeam__StartNGRANs();
void KsSeam__TE_Init();
void KsSeam__MonitoringEngine_Init();

// ---------------------------------------------------------------- RAN registry

// What latching asks of the RAN registry. The registry is not part of this build:
// the stand-in answers as a registry without RANs, so no UE latches. Tests may put a
// registry of their own in its place; null restores the stand-in.
struct KsRanRegistry {
    // The connection of that id in the engine's connection list, or null.
    __mv_ks__RanAmfConn* (*FindConnectionByID)(uint32_t id);
    // The first connection of the first qualifying RAN for the PLMN and access, or null.
    __mv_ks__RanAmfConn* (*FindRAN)(const char* mcc, const char* mnc, uint8_t accessType);
    // The first connection of every qualifying RAN, at most `max`; returns the count.
    int (*FindRANList)(const char* mcc, const char* mnc, uint8_t accessType, __mv_ks__RanAmfConn** out, int max);
    uint32_t (*ConnectionID)(__mv_ks__RanAmfConn* conn);
    // The encoded PLMN of the connection's RAN into plmn[3]; 0 when it has no RAN.
    int (*ConnectionRanPlmn)(__mv_ks__RanAmfConn* conn, uint8_t* plmn);
};
const KsRanRegistry* KsSeam__RanRegistry();
void KsSeam__SetRanRegistry(const KsRanRegistry* registry);
// The AMF UE id of a RAN-side UE context (console command 17).
void KsSeam__SetRanUeContextAmfId(__mv_ks__ngran_UeContext* ctx, uint64_t amfUeId);

// ---------------------------------------------------------------- template engine

// Template lookups. The template engine is not part of this build: each lookup logs
// what was asked and finds nothing, so steps build their default messages. Tests may
// answer lookups by name with a function of their own; null restores the stand-in.
typedef MV_Template* (*KsTemplateLookup)(const char* name, const char* cType, int appSubType, uint32_t messageId);
void KsSeam__SetTemplateLookup(KsTemplateLookup lookup);
MV_Template* KsSeam__FindTemplateByMessageId(const char* name, const char* cType, uint32_t messageId);
MV_Template* KsSeam__FindTemplateByMessageId2(const char* name, const char* cType, int appSubType, uint32_t messageId);
// Lookups by position, for the templated console commands.
void KsSeam__FindTemplatesFotRequestByTemplateFor5G(uint32_t option, uint32_t nasId, uint32_t ngapInitId,
                                                   uint32_t ngapUplinkId, __ks_step* ksStep);
void KsSeam__FindTemplatesForRequestByTemplateForPFCP(uint32_t request, uint32_t reqTemplateId, __ks_step* ksStep);
void KsSeam__FindTemplatesForRequestByTemplateByAppType(const char* appTypeName, uint32_t request,
                                                       uint32_t reqTemplateId, __ks_step* ksStep);
void KsSeam__FindTemplatesForRequestByTemplateForDiam(int appType, const char* appName, uint32_t subAppTypeOrInterface,
                                                     uint32_t cmdCode, uint32_t reqTemplateId, __ks_step* ksStep);
