// Where start-up reaches subsystems that modules bring. Each operation here runs what
// the module registered for its place in start-up or, when no module of this build
// did, logs that its subsystem is absent and does nothing else, so that start-up runs
// in its full order. The README's status table lists the absent ones.
#pragma once

#include <jansson.h>

#include <cstdint>

#include "KsEngine_step.h"

struct MV_Template;
struct __ks_step;

// Each runs what a module registered in its start-up slot (KsEngine__RegisterStartStep),
// or logs that the subsystem is absent. 1 to go on, 0 when start-up must stop.
int KsSeam__TemplateMgr_Init(json_t* cfg);
int KsSeam__create_cpTeidTable(json_t* cfg);
int KsSeam__Console_Start(json_t* cfg);
int KsSeam__create_diam_id_table(json_t* cfg);
int KsSeam__DiamDict_Init(json_t* cfg);
int KsSeam__TemplateEng_Init(json_t* cfg);
// The GTP-U start decides the local GTP address first; 0 when it has none.
int KsSeam__GTP_Init(json_t* cfg);
int KsSeam__DataPath_Init(json_t* cfg);
int KsSeam__PFCP_Init(json_t* cfg);
int KsSeam__AGF_Init(json_t* cfg);
int KsSeam__register_ngap_handlers(json_t* cfg);
int KsSeam__register_s1ap_handlers(json_t* cfg);
int KsSeam__register_diam_handlers(json_t* cfg);
int KsSeam__TE_Init(json_t* cfg);
int KsSeam__MonitoringEngine_Init(json_t* cfg);

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
