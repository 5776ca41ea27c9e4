// Where start-up reaches subsystems that are not part of this build yet. Each
// operation here logs that its subsystem is absent and does nothing else, so that
// start-up runs in its full order; each is replaced by the real call as the
// subsystem lands. The README's status table lists them.
#pragma once

#include <jansson.h>

#include <cstdint>

struct MV_Template;
struct __ks_step;

void KsSeam__TemplateMgr_Init();
void KsSeam__create_cpTeidTable();
void KsSeam__create_diam_id_table(uint32_t maxRanUEIDs);
void KsSeam__DiamDict_Init();
void KsSeam__TemplateEng_Init();
// The GTP-U start decides the local GTP address; returns 0 when start-up must stop.
int KsSeam__GTP_Init(json_t* cfg);
void KsSeam__DataPath_Init();
void KsSeam__PFCP_Init();
void KsSeam__AGF_Init();
void KsSeam__register_s1ap_handlers();
void KsSeam__register_diam_handlers();
void KsSeam__TE_Init();
void KsSeam__MonitoringEngine_Init();

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
